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
import defects
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
    "guarded, with a quarantine": ("checked", "quarantine", {}, (64, 32)),
    "guarded, pages for one in 5,000": ("checked", "sampled", {}, (64, 32)),
    "guarded, pages for all": ("checked", "pages", {}, (64, 32)),
    "recorded, no traces": ("checked", "untraced", {}, (64, 32)),
    "recorded, 16 frames": ("checked", "on", {}, (64, 32)),
    "AddressSanitizer": ("address_sanitizer", "", {"ASAN_OPTIONS": "detect_leaks=0"}, (64, 32)),
    "heaptrack": ("plain", "", {"LD_PRELOAD": programs.PROFILER, "DUMP_HEAPTRACK_OUTPUT": "/dev/null"}, (64,)),
    "dmalloc": ("dmalloc", "", {"DMALLOC_OPTIONS": "debug=0x403"}, (64,)),
    "glibc's checking malloc": ("plain", "", {"MALLOC_CHECK_": "3", "LD_PRELOAD": LIBC_DEBUG}, (64, 32)),
}
# Ours, whom it is measured against, with how many bits and live blocks, and the ratio to stay below.
GUARDED, RECORDED = "guarded, checker off", "recorded, 16 frames"
GOALS = (
    *((GUARDED, "AddressSanitizer", width, live, 0.3) for width in (64, 32) for live in (1_000, 100_000, 1_000_000)),
    *(("guarded, pages for one in 5,000", GUARDED, width, 1_000, 1.02) for width in (64, 32)),
    ("guarded, pages for all", "AddressSanitizer", 64, 1_000, None),
    (RECORDED, GUARDED, 64, 1_000, 1.8),
    (RECORDED, GUARDED, 64, 100_000, 1.4),
    (RECORDED, GUARDED, 64, 1_000_000, 1.35),
    (RECORDED, GUARDED, 32, 1_000, 1.8),
    (RECORDED, GUARDED, 32, 100_000, 1.5),
    (RECORDED, "heaptrack", 64, 1_000, 0.4),
    (RECORDED, "heaptrack", 64, 100_000, 1.0),
    (RECORDED, "heaptrack", 64, 1_000_000, None),
    (RECORDED, "AddressSanitizer", 64, 1_000, 0.5),
)
THREADS = (1, 2, 4)
SLOW = {"dmalloc": 20_000}  # pairs at most: it looks through its blocks


def traffic(name, width, threads, live, pairs, *how):
    """Nanoseconds of a pair on the clock, of the processor, and bytes a block"""
    program, state, environment, _ = CONTESTANTS[name]
    environment = {key: value[width] if isinstance(value, dict) else value for key, value in environment.items()}
    command = [BUILDS[width] / f"alloc/traffic_{program}", threads, live, min(pairs, SLOW.get(name, pairs)), state, *how]
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
    """{(width, threads, live): {contestant: [(clock, processor, bytes), of each round]}}"""
    results = {}
    for _ in range(rounds):
        for live in loads:
            for threads in THREADS:
                for name, (_, _, _, widths) in CONTESTANTS.items():
                    for width in widths:
                        runs = results.setdefault((width, threads, live), {}).setdefault(name, [])
                        runs.append(traffic(name, width, threads, live, pairs))
    for (width, threads, live), measured in results.items():
        for name, runs in measured.items():
            raw.keep("a free and an allocation: ns on the clock, ns of the processor, bytes a block", f"{name}, {width} bits, {threads} threads, {live} blocks", runs)
    return results


CLOCK, PROCESSOR, BYTES = range(3)


def median_of(runs, what):
    return statistics.median(run[what] for run in runs)


def ratio(times, name, peer, what):
    """The median of the rounds' ratios, as in each round they ran side by side."""
    return statistics.median(a[what] / b[what] for a, b in zip(times[name], times[peer]))


def traffic_tables(results):
    yield "## A free and an allocation"
    yield ""
    yield "Nanoseconds for the two, at a call depth of 14, while so many blocks live: of the processor, in each thread."
    yield ""
    for width in (64, 32):
        keys = sorted((key for key in results if key[0] == width), key=lambda key: (key[2], key[1]))
        yield row([f"{width} bits"] + [f"{live:,} blocks, {threads} thread{'s'[:threads > 1]}" for _, threads, live in keys])
        yield row(["---"] * (1 + len(keys)))
        for name, (_, _, _, widths) in CONTESTANTS.items():
            if width in widths:
                yield row([name] + [f"{median_of(results[key][name], PROCESSOR):.0f}" for key in keys])
        yield ""
    yield "As a part of the peer's time, of the processor and on the clock, with so many threads:"
    yield ""
    yield row(["", "bits", "live blocks"] + [f"processor, {threads}" for threads in THREADS] + [f"clock, {threads}" for threads in THREADS] + ["goal"])
    yield row(["---"] * (4 + 2 * len(THREADS)))
    for name, peer, width, live, goal in GOALS:
        if (width, 1, live) in results:
            ratios = [f"{ratio(results[width, threads, live], name, peer, what):.2f}" for what in (PROCESSOR, CLOCK) for threads in THREADS]
            yield row([f"{name} / {peer}", width, f"{live:,}"] + ratios + [goal or ""])
    yield ""
    two, one = results[64, 2, 1_000][RECORDED], results[64, 1, 1_000][RECORDED]
    both = statistics.median(a[CLOCK] / b[CLOCK] for a, b in zip(two, one))
    yield f"Recorded, 1,000 blocks, 64 bits: two threads take {both:.2f} times as long on the clock as one with as many pairs (goal: 1.2)."
    yield ""
    yield "## Memory"
    yield ""
    yield "Bytes that a block of 16 to 255 bytes (135 on average) takes, of 100,000, before any is freed. Goals for a record,"
    yield "beside the guards: 72 bytes, and 56 for 32 bits."
    yield ""
    yield row(["", "64 bits", "32 bits"])
    yield row(["---"] * 3)
    for name, (_, _, _, widths) in CONTESTANTS.items():
        sizes = [median_of(results[width, 1, 100_000][name], BYTES) if width in widths else None for width in (64, 32)]
        yield row([name] + [f"{size:.0f}" if size else "" for size in sizes])
    yield ""


# What threads do to each other, and stacks that differ: recorded blocks, with the same guarded ones beside them.
LOADS = {
    "1,000 blocks of any thread, 2 threads": (2, 1_000, "shared"),
    "1,000 blocks of any thread, 8 threads": (8, 1_000, "shared"),
    "1,000 blocks of any thread, 16 threads": (16, 1_000, "shared"),
    "1,000 blocks, along 20 paths at random": (1, 1_000, 20),
    "1,000 blocks, along 20,000 paths at random": (1, 1_000, 20_000),
}


def load_tables(rounds, pairs):
    yield "## Blocks that other threads free, and many stacks"
    yield ""
    yield "Nanoseconds of the processor for a free and an allocation, 64 bits. Goals: with 8 and 16 threads at most 1.3 times as"
    yield "much as with 2, and along 20,000 paths 1.5 times as much as along 20."
    yield ""
    yield row(["", GUARDED, RECORDED])
    yield row(["---"] * 3)
    for load, (threads, live, how) in LOADS.items():
        runs = {name: [] for name in (GUARDED, RECORDED)}
        for _ in range(rounds):
            for name, times in runs.items():
                times.append(traffic(name, 64, threads, live, pairs // threads, how))
        raw.keep("blocks that other threads free, and many stacks", load, runs)
        yield row([load] + [f"{median_of(times, PROCESSOR):.0f}" for times in runs.values()])
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
    yield "A report of 1,000,000 live blocks to a file: lines a second (goal: 4,000,000), and milliseconds where none is listed"
    yield "(goal: 15)."
    yield ""
    for width, build in BUILDS.items():
        runs = [
            subprocess.check_output(
                [build / "alloc/traffic_checked", "1", "1000000", "0", "report"], stderr=subprocess.DEVNULL, text=True
            ).split()
            for _ in range(rounds)
        ]
        runs = raw.keep("lines of a report a second, and milliseconds", f"{width} bits", [tuple(map(float, run)) for run in runs])
        lines, milliseconds = (statistics.median(column) for column in zip(*runs))
        yield f"- {width} bits: {lines:,.0f}, {milliseconds:.1f} ms"
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
    lines += load_tables(rounds, 10 * pairs)
    if not options.quick:
        lines += misses.table(BUILDS[64], row)
    lines += report_table(min(rounds, 3))
    lines += trace_tables(rounds)
    lines += programs.tables(STATEMENTS, min(rounds, 1 if options.quick else 3), row)
    if not options.quick:
        lines += defects.tables(BUILDS[64].parent, row)
    if not options.no_containers:
        lines += containers.tables(BUILDS[64] / "containers/bench_containers", options.quick)
    text = "\n".join(lines) + "\n"
    print(text)
    output = pathlib.Path(options.output)
    output.write_text(text, encoding="utf-8")
    raw.write(output.with_suffix(".json"))


main()
