#!/usr/bin/env python3
"""usage: defects.py BUILD

Runs the program with one defect of each kind under each tool, and writes a table of what was found, and when.
BUILD has the command k42mc in tools/. Needs g++, valgrind and glibc's debugging malloc.
"""
import pathlib
import subprocess
import sys
import tempfile

SOURCE = pathlib.Path(__file__).resolve().parent.parent / "examples/defects/defects.cpp"
KINDS = {
    "overrun": "a write 1 byte past the end, then the release",
    "overrun-kept": "the same, without a release",
    "underrun": "a write 1 byte before the start, then the release",
    "far-overrun": "a write 287 bytes past the end",
    "double-free": "a second release",
    "double-free-reused": "a second release, when the memory is in use again",
    "mixed": "`malloc`, then `operator delete`",
    "free-inside": "a release of an address inside a block",
    "free-on-stack": "a release of an address on the stack",
    "write-after-free": "a write into a released block",
    "read-after-free": "a read from a released block",
    "overread": "a read past the end",
    "garbage": "a decision by memory never written",
    "lost": "a block without a pointer to it, at exit",
    "kept": "a block that a variable still points to, at exit",
    "open": "a descriptor left open",
    "close-twice": "a descriptor closed twice",
}
RELEASING = {"overrun", "underrun", "far-overrun", "overread", "garbage"}
FOUND = 99
LIBC_DEBUG = "/lib/x86_64-linux-gnu/libc_malloc_debug.so.0"


def run(command, environment=None):
    return subprocess.run(
        [str(word) for word in command], capture_output=True, text=True, check=False, env=environment, errors="replace"
    )


def when(kind, result):
    """By how far it got: each run says where it is."""
    said = result.stdout.split()
    if result.returncode == 0:
        return "no"
    if "defect" not in said:
        return "at once"
    return "at release" if kind in RELEASING and "release" not in said else "at exit"


def when_by_words(result):
    """Valgrind goes on after an error, and does not count descriptors."""
    if "Open file descriptor 3:" in result.stderr:
        return "at exit"
    if result.returncode == 0:
        return "no"
    return "at exit" if "LEAK SUMMARY" in result.stderr and "Invalid" not in result.stderr else "at once"


def results(build, plain, sanitized, kind, scratch):
    own = [build / "tools/k42mc", "run", "--verify", "--fds", "--error-exitcode", FOUND]
    yield when(kind, run([*own, "--output", scratch / kind, "--", plain, kind]))
    yield when(kind, run([sanitized, kind], {"ASAN_OPTIONS": "detect_leaks=1"}))
    memcheck = ["valgrind", "--leak-check=full", "--show-leak-kinds=all", "--errors-for-leak-kinds=all"]
    yield when_by_words(run([*memcheck, "--track-fds=yes", f"--error-exitcode={FOUND}", plain, kind]))
    yield when(kind, run([plain, kind], {"MALLOC_CHECK_": "3", "LD_PRELOAD": LIBC_DEBUG}))


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    with tempfile.TemporaryDirectory() as folder:
        scratch = pathlib.Path(folder)
        plain, sanitized = scratch / "defects", scratch / "defects-asan"
        for program, flags in ((plain, []), (sanitized, ["-fsanitize=address"])):
            subprocess.run(["g++", "-std=c++17", "-g", "-O1", "-w", *flags, SOURCE, "-o", program], check=True)
        print("| defect | `k42mc run` | AddressSanitizer | valgrind | glibc's checking malloc |")
        print("|---|---|---|---|---|")
        for kind, description in KINDS.items():
            print("|", description, end="")
            for result in results(build, plain, sanitized, kind, scratch):
                print(" |", result, end="")
            print(" |", flush=True)


main()
