#!/usr/bin/env python3
"""usage: run.py [--quick] [--no-containers] [--output FILE]

Runs what ./dev bench has built in build/bench and build/bench32, ours and theirs by turns, and writes
a table of medians and ratios to the terminal and to FILE (bench/RESULTS.md), and what they are made of, round by
round, beside it (bench/RESULTS.json). Neither is ever edited.
"""
import argparse
import os
import pathlib
import platform
import re
import statistics
import subprocess
import tempfile

import containers
import misses
import programs
import raw

TOP = pathlib.Path(__file__).resolve().parent.parent
BUILDS = {64: TOP / "build/bench64/bench", 32: TOP / "build/bench32/bench"}
LIBC_DEBUG = {64: "/lib/x86_64-linux-gnu/libc_malloc_debug.so.0", 32: "/lib32/libc_malloc_debug.so.0"}

# Name: program, its last argument, environment, widths.
CONTESTANTS = {
    "malloc": ("plain", "", {}, (64, 32)),
    "guarded, checker off": ("checked", "off", {}, (64, 32)),
    "recorded, no traces": ("checked", "untraced", {}, (64, 32)),
    "recorded, 16 frames": ("checked", "on", {}, (64, 32)),
    "AddressSanitizer": ("address_sanitizer", "", {"ASAN_OPTIONS": "detect_leaks=0"}, (64, 32)),
    "heaptrack": ("plain", "", {"LD_PRELOAD": programs.PROFILER, "DUMP_HEAPTRACK_OUTPUT": "/dev/null"}, (64,)),
    "dmalloc": ("dmalloc", "", {"DMALLOC_OPTIONS": "debug=0x403"}, (64,)),
    "glibc's checking malloc": ("plain", "", {"MALLOC_CHECK_": "3", "LD_PRELOAD": LIBC_DEBUG}, (64, 32)),
}
# Ours, whom it is measured against, and the ratio to stay below with one thread and with two.
GOALS = (
    ("guarded, checker off", "AddressSanitizer", {1: 0.3, 2: 0.3}),
    ("recorded, 16 frames", "heaptrack", {1: 0.6, 2: 0.5}),
    ("recorded, no traces", "heaptrack", {1: 0.3, 2: 0.25}),
)
SLOW = {"dmalloc": 20_000}  # pairs at most: it looks through its blocks


def traffic(name, width, threads, live, pairs):
    program, state, environment, _ = CONTESTANTS[name]
    environment = {key: value[width] if isinstance(value, dict) else value for key, value in environment.items()}
    command = [BUILDS[width] / f"alloc/traffic_{program}", threads, live, min(pairs, SLOW.get(name, pairs)), state]
    run = subprocess.run(
        [str(word) for word in command if word != ""],
        env={**os.environ, **environment},
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
        text=True,
        check=True,
    )
    return tuple(float(word) for word in run.stdout.split())


def measure_traffic(rounds, loads, pairs):
    """{(width, threads, live): {contestant: ([nanoseconds], [bytes])}}"""
    results = {}
    for _ in range(rounds):
        for live in loads:
            for threads in (1, 2):
                for name, (_, _, _, widths) in CONTESTANTS.items():
                    for width in widths:
                        times, sizes = results.setdefault((width, threads, live), {}).setdefault(name, ([], []))
                        nanoseconds, size = traffic(name, width, threads, live, pairs)
                        times.append(nanoseconds)
                        sizes.append(size)
    for (width, threads, live), measured in results.items():
        for name, (times, sizes) in measured.items():
            raw.keep("a free and an allocation", f"{name}, {width} bits, {threads} threads, {live} blocks", {"ns": times, "bytes": sizes})
    return results


def ratio(times, name, peer):
    """The median of the rounds' ratios, as in each round they ran side by side."""
    return statistics.median(a / b for a, b in zip(times[name][0], times[peer][0]))


def traffic_tables(results):
    yield "## A free and an allocation"
    yield ""
    yield "Nanoseconds for the two, at a call depth of 14, while so many blocks live; with two threads, in each."
    yield ""
    for width in (64, 32):
        keys = sorted(key for key in results if key[0] == width)
        yield row([f"{width} bits"] + [f"{live:,} blocks, {threads} thread{'s'[:threads > 1]}" for _, threads, live in keys])
        yield row(["---"] * (1 + len(keys)))
        for name, (_, _, _, widths) in CONTESTANTS.items():
            if width in widths:
                yield row([name] + [f"{statistics.median(results[key][name][0]):.0f}" for key in keys])
        yield ""
    yield "As a part of the peer's time:"
    yield ""
    yield row(["", "bits", "threads", "live blocks", "ratio", "goal"])
    yield row(["---"] * 6)
    for name, peer, goals in GOALS:
        for (width, threads, live), times in sorted(results.items()):
            if peer in times:
                cells = [f"{name} / {peer}", width, threads, f"{live:,}"]
                yield row(cells + [f"{ratio(times, name, peer):.2f}", goals[threads]])
    yield ""
    yield "## Memory"
    yield ""
    yield "Bytes that a block of 16 to 255 bytes (135 on average) takes, of 100,000, before any is freed:"
    yield ""
    yield row(["", "64 bits", "32 bits"])
    yield row(["---"] * 3)
    for name, (_, _, _, widths) in CONTESTANTS.items():
        sizes = [statistics.median(results[width, 1, 100_000][name][1]) if width in widths else None for width in (64, 32)]
        yield row([name] + [f"{size:.0f}" if size else "" for size in sizes])
    yield ""


# Programs that nobody changed, and how they are given something to do.
WORK = TOP / "bench/trace/work"
STATEMENTS = TOP / "build/bench64/work.sql"
PROGRAMS = {
    "perl": (["perl", WORK / "work.pl"], {}, 150),
    "sqlite3": (["sqlite3", ":memory:", f".read {STATEMENTS}"], {}, 150),
    "python3": (["/usr/bin/python3", WORK / "work.py"], {"PYTHONMALLOC": "malloc"}, 55),
    "a parser in C++": ([BUILDS[64] / "trace/parser"], {}, 55),
}
# Frames and bits of a path; what goals there are.
TRACES = {
    "the same 16 frames over and over": (16, 0, 1.3, 120),
    "the same 5 frames over and over": (5, 0, 2.6, 100),
    "16 frames on 16 paths at random": (16, 4, 5, None),
    "16 frames on 512 paths at random": (16, 9, 5, None),
}


def measure_traces(width, frames, bits, rounds):
    """{walker: [nanoseconds, of each round]}, less what calling nothing takes"""
    command = [BUILDS[width] / "trace/bench_trace", str(frames), str(bits), str(rounds)]
    times = {}
    for line in subprocess.check_output(command, text=True).splitlines():
        walker, nanoseconds = line.split()
        times.setdefault(walker, []).append(float(nanoseconds))
    return {walker: [a - b for a, b in zip(all_, times["nothing"])] for walker, all_ in times.items()}


def median_ratio(a, b):
    return statistics.median(x / y for x, y in zip(a, b))


def write_statements():
    with open(STATEMENTS, "w", encoding="utf-8") as file:
        print("create table numbers(number integer primary key, text text);", file=file)
        for i in range(5000):
            print(f"insert into numbers values({i}, 'text {i * 7 % 1000}');", file=file)
            if i % 10 == 0:
                print(f"select count(*) from numbers where text like '%{i % 97}%' and number > {i - 20};", file=file)


def traces_in(command, environment):
    """Nanoseconds of ours and of the compiler's unwinder for a trace, in a program's own calls of malloc"""
    with tempfile.NamedTemporaryFile("r") as times:
        preload = {"LD_PRELOAD": BUILDS[64] / "trace/libtrace_preload.so", "K42MC_TRACE_TIMES": times.name}
        subprocess.run(
            [str(word) for word in command],
            env={**os.environ, **environment, **{key: str(value) for key, value in preload.items()}},
            stdout=subprocess.DEVNULL,
            check=True,
        )
        return tuple(map(float, times.read().split()))


def trace_tables(rounds):
    yield "## Traces"
    yield ""
    yield "Beside a walk by frame pointers, the least there can be, and libc's `backtrace`:"
    yield ""
    yield row(["trace", "bits", "ours, ns", "of the pointer walk", "goal", "`backtrace` takes", "goal"])
    yield row(["---"] * 7)
    for width in (64, 32):
        for name, (frames, bits, goal, backtrace_goal) in TRACES.items():
            times = raw.keep("traces, ns", f"{name}, {width} bits", measure_traces(width, frames, bits, rounds))
            ours, pointers, libc = (times[walker] for walker in ("ours", "pointers", "backtrace"))
            # Of the medians: a round's walk can be lost in the noise of the calls that lead to it.
            ratio = statistics.median(ours) / statistics.median(pointers)
            cells = [name, width, f"{statistics.median(ours):.1f}", f"{ratio:.2f}", goal]
            yield row(cells + [f"{statistics.median(libc) / statistics.median(ours):.0f} times", backtrace_goal or ""])
    yield ""
    yield "16 frames at each call of malloc in programs that nobody changed, beside the compiler's unwinder:"
    yield ""
    write_statements()
    yield row(["program", "ours, ns", "the unwinder takes", "goal"])
    yield row(["---"] * 4)
    for name, (command, environment, goal) in PROGRAMS.items():
        runs = raw.keep("traces in programs, ns of ours and of the unwinder", name, [traces_in(command, environment) for _ in range(rounds)])
        ours, theirs = zip(*runs)
        yield row([name, f"{statistics.median(ours):.1f}", f"{median_ratio(theirs, ours):.0f} times", goal])
    yield ""


def report_table(rounds):
    yield "## Reports"
    yield ""
    yield "Lines a second of a report of 1,000,000 live blocks to a file (goal: 2,000,000):"
    yield ""
    for width, build in BUILDS.items():
        runs = [
            subprocess.check_output(
                [build / "alloc/traffic_checked", "1", "1000000", "0", "report"], stderr=subprocess.DEVNULL
            )
            for _ in range(rounds)
        ]
        lines = raw.keep("lines of a report a second", f"{width} bits", [float(run) for run in runs])
        yield f"- {width} bits: {statistics.median(lines):,.0f}"
    yield ""


def row(cells):
    return "| " + " | ".join(str(cell) for cell in cells) + " |"


def machine():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8"))
    compiler = subprocess.check_output(["g++", "--version"], text=True).splitlines()[0]
    yield f"{os.cpu_count()} cores of {model[1] if model else platform.machine()}, Linux {platform.release()}, {compiler}."


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--quick", action="store_true", help="in less than two minutes")
    parser.add_argument("--no-containers", action="store_true")
    parser.add_argument("--output", default=TOP / "bench/RESULTS.md")
    options = parser.parse_args()
    rounds, pairs = (3, 50_000) if options.quick else (5, 300_000)
    loads = (1_000, 100_000) if options.quick else (1_000, 100_000, 1_000_000)

    lines = ["# Results", "", f"{'A rough picture, by ' if options.quick else 'By '}`./dev bench{' --quick' if options.quick else ''}` on", *machine(), ""]
    lines += traffic_tables(measure_traffic(rounds, loads, pairs))
    if not options.quick:
        lines += misses.table(BUILDS[64], row)
    lines += report_table(min(rounds, 3))
    lines += trace_tables(rounds)
    lines += programs.tables(STATEMENTS, min(rounds, 1 if options.quick else 3), row)
    if not options.no_containers:
        lines += containers.tables(BUILDS[64] / "containers/bench_containers", options.quick)
    text = "\n".join(lines) + "\n"
    print(text)
    output = pathlib.Path(options.output)
    output.write_text(text, encoding="utf-8")
    raw.write(output.with_suffix(".json"))


main()
