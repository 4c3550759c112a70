"""Counts what a free and an allocation take, in a simulated processor: where the time goes that is not in instructions."""
import os
import re
import subprocess

import raw

STATES = {
    "malloc": ("plain", "off"),
    "guarded, checker off": ("checked", "off"),
    "recorded, no traces": ("checked", "untraced"),
    "recorded, 16 frames": ("checked", "on"),
}
LOADS = (1_000, 100_000)
SECOND_LEVEL = "1048576,16,64"  # size, ways, bytes of a line
COUNTED = re.compile(r"(?:I +refs|D1 +misses|LLd misses): +([\d,]+)")


def counts(build, program, state, live, pairs):
    """Instructions, misses of the first level, and of the second"""
    output = subprocess.run(
        ["valgrind", "--tool=cachegrind", "--cache-sim=yes", f"--LL={SECOND_LEVEL}", f"--cachegrind-out-file={os.devnull}"]
        + [str(word) for word in (build / f"alloc/traffic_{program}", 1, live, pairs, state)],
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        text=True,
        check=True,
    ).stderr
    return [int(number.replace(",", "")) for number in COUNTED.findall(output)]


def table(build, row, pairs=32_000):
    yield "## Where the time of a free and an allocation goes"
    yield ""
    yield "By cachegrind, 64 bits, 1 thread, for the two: instructions, and how often something was not in the first level"
    yield "of cache, nor in a second one of 1 MiB."
    yield ""
    yield row(["", "live blocks", "instructions", "misses", "of both"])
    yield row(["---"] * 5)
    for live in LOADS:
        for name, (program, state) in STATES.items():
            filled, more = (counts(build, program, state, live, n) for n in (0, pairs))
            raw.keep("instructions and misses, of the blocks and with pairs", f"{name}, {live} blocks", [filled, more])
            instructions, first, second = ((b - a) / pairs for a, b in zip(filled, more))
            yield row([name, f"{live:,}", f"{instructions:,.0f}", f"{first:.1f}", f"{second:.1f}"])
    yield ""
