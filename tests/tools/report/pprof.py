#!/usr/bin/python3
"""The profile of k42mc report says what its table says: pprof.py <k42mc> <subject> [<the format's own tool>]"""

import collections
import gzip
import json
import os
import re
import subprocess
import sys
import tempfile

TEXT_REPORT = """-----------<cycle 1>-----------
{
a.c:1:LK:STD:0xA0:10:1
a.c:1:LK:STD:0xB0:20:4
b:\\c:7.c:2:LK:SHM:0xC0:5:0

#### This cycle: 35 bytes held by 3 allocations ####
STD:          1(1); +1(1), -0(0)

#### Since reset: 35 bytes held by 3 allocations ####
STD:          1(1); +1(1), -0(0)
}
"""
# Without modules to look into; a name that does something to a terminal.
JSON_REPORT = """{"kind":"cycle","program":"linked","pid":7,"time":1764061457,"width":64,"cycle":1,"limit":1,"blocks":9,"bytes":90}
{"kind":"site","cycle":1,"file":"net.c","line":12,"type":"STD","chain":["/no/p+0x1a","/no/p+0x2b"],"blocks":3,"bytes":9223372036854775807,"oldest":0,"largest":20}
{"kind":"site","cycle":1,"file":"\\u001b","line":0,"type":"STD","chain":[],"blocks":3,"bytes":18,"oldest":3,"largest":20}
{"kind":"site","cycle":1,"file":"0x7f00","line":0,"type":"VAR","chain":["0x7f00"],"blocks":1,"bytes":7,"oldest":3,"largest":7}
{"kind":"end","sites":3,"damaged":0}
"""


def output(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def equal(what, left, right):
    if left != right:
        sys.exit(f"FAILED: {what}: {left} is not {right}")


class Decoded:
    """A profile with numbers replaced by what they stand for."""

    def __init__(self, path, folder):
        source = os.path.dirname(os.path.abspath(__file__))
        subprocess.run(["protoc", "-I", source, f"--python_out={folder}", "profile.proto"], check=True)
        sys.path.insert(0, folder)
        import profile_pb2

        self.message = profile_pb2.Profile()
        with gzip.open(path) as file:
            self.message.ParseFromString(file.read())
        self.texts = self.message.string_table
        self.functions = self.by_id(self.message.function)
        self.locations = self.by_id(self.message.location)
        self.mappings = self.by_id(self.message.mapping)
        equal("the first text", self.texts[0], "")
        equal("texts", len(set(self.texts)), len(self.texts))

    @staticmethod
    def by_id(entries):
        equal("numbers", sorted(entry.id for entry in entries), list(range(1, len(entries) + 1)))
        return {entry.id: entry for entry in entries}

    def type_of(self, kind):
        return self.texts[kind.type], self.texts[kind.unit]

    def frames(self, sample):
        """As k42mc report --json has them."""
        for number in sample.location_id:
            location = self.locations[number]
            pc = f"0x{location.address + 1:x}" if location.address else ""
            if location.mapping_id:
                mapping = self.mappings[location.mapping_id]
                pc = f"{self.texts[mapping.filename]}+{pc}"
                if mapping.memory_limit:
                    assert mapping.memory_start <= location.address < mapping.memory_limit, pc
            if not location.line:
                yield pc, "", "", 0
            for line in location.line:
                function = self.functions[line.function_id]
                name = self.texts[function.name]
                yield pc, "" if name == pc else name, self.texts[function.filename], line.line

    def stacks(self):
        stacks = [collections.Counter() for _ in range(4)]
        for sample in self.message.sample:
            stack = tuple(self.frames(sample))
            for sums, value in zip(stacks, sample.value, strict=True):
                sums[stack] += value
        return stacks

    def labelled(self, key):
        """Bytes by the label."""
        sums = collections.Counter()
        for sample in self.message.sample:
            label = next(label for label in sample.label if self.texts[label.key] == key)
            value = self.texts[label.str] if label.str else (label.num, self.texts[label.num_unit])
            sums[value] += sample.value[1]
        return sums


def own_place(site):
    """Of a site without a stack trace, as a frame."""
    file = site["file"].replace("\x1b", r"\x1b")
    return ("", f"{file}:{site['line']}" if site["line"] else file, file, site["line"])


def stacks_of(report):
    stacks = [collections.Counter() for _ in range(4)]
    nothing = {"blocks": 0, "bytes": 0}
    for site in report["sites"]:
        frames = [[frame[key] for key in ("pc", "function", "file", "line")] for frame in site["chain"]]
        if frames and site["line"] and not frames[0][2]:
            frames[0][2:] = [site["file"], site["line"]]
        stack = tuple(map(tuple, frames)) or (own_place(site),)
        for i, counter in enumerate((site, site.get("allocated", nothing))):
            stacks[2 * i][stack] += counter["blocks"]
            stacks[2 * i + 1][stack] += counter["bytes"]
    return [+sums for sums in stacks]


def build_id(path):
    found = re.search(r"Build ID: ([0-9a-f]+)", output("readelf", "-nW", path))
    return found[1] if found else ""


def check_decoded(decoded, report):
    message = decoded.message
    equal("types", [*map(decoded.type_of, message.sample_type)],
          [("inuse_objects", "count"), ("inuse_space", "bytes"), ("alloc_objects", "count"), ("alloc_space", "bytes")])
    equal("default", decoded.texts[message.default_sample_type], "inuse_space")
    for name, sums, expected in zip(("blocks", "bytes", "allocated blocks", "allocated bytes"), decoded.stacks(), stacks_of(report)):
        equal(name, +sums, expected)
    types, ages = collections.Counter(), set()
    for site in report["sites"]:
        types[site["type"]] += site["bytes"]
        ages.add((site["oldest"], "cycles"))
    equal("types", decoded.labelled("type"), types)
    assert ages >= {(4, "cycles"), (0, "cycles")}, ages
    assert ages <= set(decoded.labelled("age")), ages
    processes = decoded.labelled("process")
    assert {*processes} <= {process["name"] for process in report["processes"]}, processes
    equal("bytes of a process", processes["linked.7"], 2**63 - 1 + 25)
    known = {decoded.texts[mapping.filename]: mapping for mapping in message.mapping}
    for path, mapping in known.items():
        equal(path, decoded.texts[mapping.build_id], build_id(path) if os.path.exists(path) else "")
    assert any(build_id(path) for path in known if os.path.exists(path))


def check_with_tool(tool, profile, report):
    """The bytes of each function, by itself and with all that it calls; and of each line."""
    flat, whole, lines = (collections.Counter() for _ in range(3))
    for stack, count in stacks_of(report)[1].items():
        names = []
        for pc, function, file, line in stack:
            module = pc.rpartition("+")[0]
            unknown = f"[{os.path.basename(module)}]" if module else "<unknown>"
            names.append(function or (pc if file else unknown))
        flat[names[0]] += count
        for name in set(names):
            whole[name] += count
        lines.update({line: count for _, function, _, line in stack if "leaky_function" in function})
    options = [tool, "-symbolize=none", "-unit=bytes", "-nodefraction=0", "-edgefraction=0", "-nodecount=1000000"]
    entry = r"^ +(\d+)B? +[\d.]+% +[\d.]+% +(\d+)B? +[\d.]+%"
    for form, between in ("-top", "  "), ("-tree", r" +\| "):
        shown = re.findall(entry + between + r"(.*?)(?: \((?:partial-)?inline\))?$",
                           output(*options, form, profile), re.M)
        equal(form, {name: (int(own), int(all_)) for own, all_, name in shown},
              {name: (flat[name], whole[name]) for name in whole})
    listed = output(*options, "-list=leaky_function", profile)
    assert lines
    shown = re.findall(r"^ +(?:\d+B|\.) +(\d+)B +(\d+):", listed, re.M)
    equal("-list", {int(line): int(count) for count, line in shown}, dict(lines))


def main(k42mc, subject, tool=None):
    if not os.access(k42mc, os.X_OK):
        sys.exit(77)  # the 64-bit build is missing
    with tempfile.TemporaryDirectory() as folder:
        reports, profile = os.path.join(folder, "reports"), os.path.join(folder, "profile.pb.gz")
        for what in "leak", "threads", "modules", "fork":
            subprocess.run([k42mc, "run", "--append", "--output", reports, subject, what], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)
        with open(os.path.join(reports, "text.txt"), "w") as file:
            file.write(TEXT_REPORT)
        huge = os.path.join(reports, "linked.json")
        with open(huge, "w") as file:
            file.write(JSON_REPORT)
        output(k42mc, "report", "--pprof", profile, reports)
        check_decoded(Decoded(profile, folder), json.loads(output(k42mc, "report", "--json", reports)))
        if tool:  # whose sums have 64 bits
            os.remove(huge)
            output(k42mc, "report", "--pprof", profile, reports)
            check_with_tool(tool, profile, json.loads(output(k42mc, "report", "--json", reports)))


if __name__ == "__main__":
    main(*sys.argv[1:])
