#!/usr/bin/env python3
"""usage: mutate.py BUILD [--count N] [--seed N] [FILE...]

Plants single faults in the library's sources, one after the other: builds in BUILD, runs the tests, and lists the
faults that no test catches. Restores each source. A fault that does not compile does not count.
"""
import argparse
import pathlib
import random
import re
import subprocess

TOP = pathlib.Path(__file__).resolve().parent.parent
SOURCES = (
    "lib/libk42mc/**/*.cpp",
    "common/lib/libk42mc/**/*.cpp",
    "platform/**/*.cpp",
    "platform/trace_cache.h",
    "include/k42mc/algorithms/*.hpp",
)
SWAPS = {
    " == ": " != ", " != ": " == ", " < ": " <= ", " <= ": " < ", " > ": " >= ", " >= ": " > ",
    " && ": " || ", " || ": " && ", " + ": " - ", " - ": " + ", " += ": " -= ", "true": "false", "false": "true",
    " + 1": " + 2", " - 1": " - 2", "if (!": "if (", "++": "--", " & ": " | ",
}  # fmt: skip
CALL = re.compile(r"^\s+(?!return\b|throw\b|static\b|const\b|constexpr\b|delete\b|goto\b)[\w:.>-]+\([^{}]*\);$")
NO_CODE = re.compile(r"^\s*(//|#|K42MC_EXPORT|static_assert|template|using )")


def faults(source):
    """(line number, faulty line) of all faults that the file can have"""
    for number, line in enumerate(source.read_text(encoding="utf-8").splitlines()):
        code = line.split(" // ")[0]
        if NO_CODE.match(code) or '"' in code:
            continue
        if CALL.match(code):
            yield number, ""
        for right, wrong in SWAPS.items():
            start = code.find(right)
            while start >= 0:
                yield number, code[:start] + wrong + code[start + len(right) :]
                start = code.find(right, start + 1)


def succeeds(command, seconds):
    try:
        return subprocess.run(command, capture_output=True, check=False, timeout=seconds).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def outcome(build):
    if not succeeds(["cmake", "--build", build, "--parallel", "2"], 900):
        return "does not compile"
    tests = ["ctest", "--test-dir", build, "--parallel", "2", "--stop-on-failure", "--timeout", "60"]
    return "survives" if succeeds([*tests, "--exclude-regex", r"^(check\.|install|demo|stories|gdb)"], 300) else "caught"


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("build")
    parser.add_argument("--count", type=int, default=100)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    parser.add_argument("files", nargs="*", type=pathlib.Path)
    options = parser.parse_args()
    sources = options.files or [file for pattern in SOURCES for file in sorted(TOP.glob(pattern))]
    planted = [(source, *fault) for source in sources for fault in faults(source)]
    chosen = random.Random(options.seed).sample(planted, min(options.count, len(planted)))
    print(f"seed {options.seed}: {len(chosen)} of {len(planted)} faults", flush=True)

    counts = {}
    for source, number, faulty in chosen:
        before = source.read_text(encoding="utf-8")
        lines = before.splitlines()
        right, lines[number] = lines[number], faulty
        try:
            source.write_text("\n".join(lines) + "\n", encoding="utf-8")
            result = outcome(options.build)
        finally:
            source.write_text(before, encoding="utf-8")
        counts[result] = counts.get(result, 0) + 1
        if result == "survives":
            print(f"{source.relative_to(TOP)}:{number + 1}: {right.strip()}  =>  {faulty.strip() or 'nothing'}", flush=True)
    print(", ".join(f"{count} {result}" for result, count in counts.items()))


main()
