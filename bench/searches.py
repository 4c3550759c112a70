#!/usr/bin/env python3
"""usage: searches.py BUILD [ROUNDS]

Searches for lost blocks in processes of few and many blocks and threads, and beside memory that has to be looked at, and
writes tables of medians. BUILD has bench/search/search.
"""
import pathlib
import statistics
import subprocess
import sys

BLOCKS = (10_000, 100_000, 1_000_000)
THREADS = (1, 8, 100)


def measure(program, rounds, *arguments):
    """Medians of milliseconds: a search, the longest gap in it, the longest gap without one"""
    runs = []
    for _ in range(rounds):
        command = [program, *(str(word) for word in arguments)]
        run = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=True)
        runs.append([float(word) for word in run.stdout.split()])
    return [statistics.median(values) for values in zip(*runs)]


def main():
    program = pathlib.Path(sys.argv[1]).resolve() / "bench/search/search"
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 9
    print("| blocks | threads | a search, ms | threads stand still, ms | longest gap without a search, ms |")
    print("|---|---|---|---|---|")
    for blocks in BLOCKS:
        for threads in THREADS:
            took, gap, idle = measure(program, rounds, threads, blocks)
            still = f"{gap:.1f} | {idle:.1f}" if threads > 1 else "its own | "
            print(f"| {blocks:,} | {threads} | {took:.0f} | {still} |", flush=True)
    print("\n| MiB beside 10,000 blocks | a search, 1 thread, ms | 8 threads, ms | they stand still, ms |")
    print("|---|---|---|---|")
    for mebibytes in (0, 256, 1024):
        alone = measure(program, rounds, 1, 10_000, mebibytes)
        beside = measure(program, rounds, 8, 10_000, mebibytes)
        print(f"| {mebibytes} | {alone[0]:.0f} | {beside[0]:.0f} | {beside[1]:.1f} |", flush=True)


main()
