#!/usr/bin/env python3
"""usage: ratios.py <JSON file of the benchmark program>

Prints, as a table, the median time per element of the typed front ends and of the C functions, and how
many times as long each peer takes: GLib's containers beside the C functions, all others beside the front
ends.
"""
import json
import statistics
import sys

TO_NS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def medians(path):
    """{(family, operation, elements): {contestant: nanoseconds per element}}"""
    times = {}
    with open(path, encoding="utf-8") as file:
        for run in json.load(file)["benchmarks"]:
            if run["run_type"] == "iteration":
                time = run["real_time"] * TO_NS[run["time_unit"]]
                times.setdefault(run["run_name"], []).append(time)
    table = {}
    for name, repetitions in times.items():
        family, operation, contestant, n = name.split("/")[:4]
        time = statistics.median(repetitions) / int(n)
        table.setdefault((family, operation, int(n)), {})[contestant] = time
    return table


def row(key, times):
    typed, c = times.pop("typed", None), times.pop("C", None)
    family, operation, n = key
    cells = [family, operation, f"{n:,}", f"{typed:.1f}" if typed else "", f"{c:.1f}" if c else ""]
    ratios = [
        f"{name} {time / base:.2f}"
        for name, time in sorted(times.items())
        if (base := c if name.startswith("G") else typed)
    ]
    return cells + [", ".join(ratios)]


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    rows = [["", "operation", "elements", "typed, ns", "C, ns", "times as long"], ["---"] * 6]
    rows += [row(key, times) for key, times in sorted(medians(sys.argv[1]).items())]
    for cells in rows:
        print("| " + " | ".join(cells) + " |")


main()
