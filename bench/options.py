#!/usr/bin/env python3
"""usage: options.py BUILD [ROUNDS]

Runs programs of the system under `k42mc run` with the options that find more, and writes a table of the time and the memory
that they take, as many times as much as without it. BUILD has the command k42mc in tools/.
"""
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parent.parent
PROGRAMS = {
    "python3, a test of its own": (["/usr/bin/python3", "-m", "test.test_configparser"], {"PYTHONMALLOC": "malloc"}),
    "perl, a script": (["perl", TOP / "bench/trace/work/work.pl"], {}),
    "g++ -O2, one source": (["g++", "-O2", "-S", "-o", os.devnull, TOP / "bench/trace/parser.cpp"], {}),
}
OPTIONS = ("--quarantine=0", "", "--quarantine=64M", "--fill", "--page-guards", "--quarantine=0 --page-guards=5000 --go-on")


def measure(command, environment, memory):
    """Seconds, and MiB of the largest process"""
    start = time.perf_counter()
    # Between the two, as a process begins with the memory of its parent.
    words = ["/usr/bin/time", "-f", "%M", "-o", memory, *command]
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    subprocess.run([str(word) for word in words], env={**os.environ, **environment}, check=True, **quiet)
    return time.perf_counter() - start, int(memory.read_text(encoding="utf-8")) / 1024


def medians(runs):
    return [statistics.median(values) for values in zip(*runs)]


def compare(command, environment, own, rounds, memory):
    """What the program takes, and {options: how many times as much}"""
    wrappers = {None: [], **{options: [*own, *options.split(), "--"] for options in OPTIONS}}
    runs = {options: [] for options in wrappers}
    for _ in range(rounds):
        for options, wrapper in wrappers.items():
            runs[options].append(measure([*wrapper, *command], environment, memory))
    plain = medians(runs.pop(None))
    return plain, {options: [a / b for a, b in zip(medians(all_), plain)] for options, all_ in runs.items()}


def main():
    own = [pathlib.Path(sys.argv[1]).resolve() / "tools/k42mc", "run"]
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    with tempfile.TemporaryDirectory() as folder:
        memory = pathlib.Path(folder) / "memory"
        results = [compare(*program, own, rounds, memory) for program in PROGRAMS.values()]
    print("| run as |", " | ".join(PROGRAMS), "|")
    print("|---" * (1 + len(PROGRAMS)) + "|")
    print("| without a tool |", " | ".join(f"{seconds:.2f} s, {mebibytes:.0f} MiB" for (seconds, mebibytes), _ in results), "|")
    for options in OPTIONS:
        cells = [f"{ratios[options][0]:.1f}, {ratios[options][1]:.1f}" for _, ratios in results]
        print(f"| `{f'k42mc run {options}'.strip()}` |", " | ".join(cells), "|")


main()
