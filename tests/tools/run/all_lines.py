#!/usr/bin/python3
"""What processes write is as docs/k42mc-lines.schema.json has it: all_lines.py <k42mc> <all_lines>"""

import json
import os
import subprocess
import sys
import tempfile

import jsonschema

DOCS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../docs")
# Gone by the end of a run.
UNSEEN = {"exec"}


def strict(schema):
    """Members that the schema does not have are wrong; each has to occur, and is noted in what it returns."""
    expected = set()
    for name, definition in schema["$defs"].items():
        if "properties" in definition:
            definition["additionalProperties"] = False
            expected |= {(name, member) for member in definition["properties"] if name not in UNSEEN}
    schema["properties"]["kind"] = {"enum": [case["if"]["properties"]["kind"]["const"] for case in schema["allOf"]]}
    return expected


def note_members(schema, name, value, seen):
    definition = schema["$defs"][name]
    for member in value:
        seen.add((name, member))
        rule = definition["properties"][member]
        inner = rule.get("$ref", "") if isinstance(rule, dict) else ""
        items = [value[member]]
        if isinstance(rule, dict) and rule.get("type") == "array":
            inner, items = rule["items"].get("$ref", ""), value[member]
        inner = inner.removeprefix("#/$defs/")
        for item in items:
            if "properties" in schema["$defs"].get(inner, {}):
                note_members(schema, inner, item, seen)


def documented():
    with open(os.path.join(DOCS, "json.md")) as page:
        return [line for line in page if line.startswith('{"')]


def written(k42mc, program):
    """The lines of processes with all kinds of bugs."""
    reports = os.path.abspath("reports")
    for options, arguments, status in (
        (["--fds"], [], 0),
        (["--page-guards", "--go-on"], [], 0),
        ([], ["crash"], -11),
        (["--fail-nth=5"], [], 3),
        (["--fail-each", "--sample=2"], [], 0),
    ):
        run = subprocess.run([k42mc, "run", "--append", "--output", reports, *options, "--", program, *arguments],
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=120)
        if run.returncode != status:
            sys.exit(f"FAILED: {options}: {run.returncode}: {run.stderr.decode()}")
    for folder, _, files in os.walk(reports):
        for file in files:
            if file.endswith((".json", ".jsonl")):
                with open(os.path.join(folder, file)) as lines:
                    yield from lines


def main(k42mc, program):
    if not os.access(k42mc, os.X_OK):
        sys.exit(77)  # the 64-bit build is missing
    with open(os.path.join(DOCS, "k42mc-lines.schema.json")) as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    plain = jsonschema.Draft202012Validator(json.loads(json.dumps(schema)))
    assert plain.is_valid({"kind": "end", "sites": 0, "damaged": 0, "new": 1}) and plain.is_valid({"kind": "new"})
    assert not plain.is_valid({"kind": "end", "sites": 0}) and not plain.is_valid({"kind": "end", "format": 2})
    expected, seen = strict(schema), set()
    validator = jsonschema.Draft202012Validator(schema)
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        for text in [*documented(), *written(k42mc, program)]:
            line = json.loads(text)
            for error in validator.iter_errors(line):
                sys.exit(f"FAILED: {error.message} at {error.json_path} of {text}")
            note_members(schema, line["kind"], line, seen)
    if expected - seen:
        sys.exit(f"FAILED: never written: {expected - seen}")


if __name__ == "__main__":
    main(*(os.path.abspath(argument) for argument in sys.argv[1:]))
