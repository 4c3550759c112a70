#!/usr/bin/env python3
"""usage: defects.py BUILD

Runs the program with one defect of each kind under each tool, for both widths, and writes tables of what was found, and
when. BUILD has the command k42mc in tools/. Needs g++, valgrind and glibc's debugging malloc.
"""
import pathlib
import signal
import subprocess
import sys
import tempfile

SOURCE = pathlib.Path(__file__).resolve().parent.parent / "examples/defects/defects.cpp"
PAGES = "--page-guards"
EXACT = f"{PAGES} --page-guards-align=exact"
START = f"{PAGES} --page-guards-side=start"
# What it is, and the options of `k42mc run` that find it, or find it sooner.
DEFECTS = {
    "overrun": ("a write 1 byte past the end, then the release", EXACT),
    "overrun-kept": ("the same, without a release", EXACT),
    "underrun": ("a write 1 byte before the start, then the release", START),
    "far-overrun": ("a write 287 bytes past the end", PAGES),
    "copy-over-end": ("a `memcpy` of 1 byte too many", EXACT),
    "overread": ("a read 1 byte past the end", EXACT),
    "underread": ("a read 1 byte before the start", START),
    "unterminated": ("`strlen` of a text without an end", PAGES),
    "write-after-free": ("a write into a released block", PAGES),
    "read-after-free": ("a read from a released block", PAGES),
    "read-in-thread": ("the same, in another thread", PAGES),
    "moved": ("a write by the old pointer after `realloc`", PAGES),
    "double-free": ("a second release", ""),
    "double-free-reused": ("the same, after an allocation", ""),
    "double-free-late": ("the same, after 200,000 other releases and allocations", "--quarantine=64M"),
    "mixed": ("`malloc`, then `operator delete`", ""),
    "free-inside": ("a release of an address inside a block", ""),
    "free-on-stack": ("a release of an address on the stack", ""),
    "garbage": ("a decision by memory never written", ""),
    "lost": ("a block without a pointer to it, at exit", ""),
    "kept": ("a block that a variable still points to, at exit", "--leak-check=held"),
    "open": ("a descriptor left open", "--fds"),
    "close-twice": ("a descriptor closed twice", "--fds"),
}
RELEASING = {"overrun", "underrun", "far-overrun", "copy-over-end", "overread", "underread", "unterminated", "garbage"}
FOUND = 99
LIBC_DEBUG = {64: "/lib/x86_64-linux-gnu/libc_malloc_debug.so.0", 32: "/lib32/libc_malloc_debug.so.0"}


def run(command, status, environment=None):
    """The status is what a tool ends with that has found something: another one says that it could not look."""
    words = [str(word) for word in command]
    result = subprocess.run(words, capture_output=True, text=True, check=False, env=environment, errors="replace")
    if result.returncode not in (0, status):
        raise RuntimeError(f"{' '.join(words)}: {result.returncode}: {result.stderr}")
    return result


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


class Programs:
    """The program of one width, as it is and for AddressSanitizer, and what it does under each tool"""

    def __init__(self, build, bits, scratch):
        self.build, self.bits, self.scratch = build, bits, scratch
        self.plain, self.sanitized = (self.compile(flags) for flags in ([], ["-fsanitize=address"]))

    def compile(self, flags):
        program = self.scratch / f"defects{self.bits}{''.join(flags)}"
        # Calls stay calls.
        command = ["g++", f"-m{self.bits}", "-std=c++17", "-g", "-O1", "-w", "-fno-builtin", *flags, SOURCE, "-o", program]
        subprocess.run(command, check=True)
        return program

    def own(self, kind, options):
        """A process that stops otherwise than by a defect that was told has not been helped."""
        command = [self.build / "tools/k42mc", "run", "--error-exitcode", FOUND, *options.split()]
        result = run([*command, "--output", self.scratch / "reports", "--", self.plain, kind], FOUND)
        if "ended by" in result.stderr:
            raise RuntimeError(f"{kind} {options}: {result.stderr}")
        return when(kind, result)

    def by_valgrind(self, kind):
        leaks = ["--leak-check=full", "--show-leak-kinds=all", "--errors-for-leak-kinds=all"]
        command = ["valgrind", *leaks, "--track-fds=yes", f"--error-exitcode={FOUND}", self.plain, kind]
        return when_by_words(run(command, FOUND))

    def results(self, kind, options):
        yield self.own(kind, "")
        yield f"`{options}`: {self.own(kind, options)}" if options else ""
        yield when(kind, run([self.sanitized, kind], FOUND, {"ASAN_OPTIONS": f"exitcode={FOUND}"}))
        # For 32 bits it needs the symbols of that width's loader, which no package of Debian's for 64 bits has.
        yield self.by_valgrind(kind) if self.bits == 64 else ""
        checking = {"MALLOC_CHECK_": "3", "LD_PRELOAD": LIBC_DEBUG[self.bits]}
        yield when(kind, run([self.plain, kind], -signal.SIGABRT, checking))


def table(programs, row):
    yield row(["defect", "`k42mc run`", "with options", "AddressSanitizer", "valgrind", "glibc's checking malloc"])
    yield row(["---"] * 6)
    for kind, (description, options) in DEFECTS.items():
        yield row([description, *programs.results(kind, options)])


def tables(build, row):
    yield "## Defects"
    yield ""
    yield "What finds which, and when, as [defects.md](../docs/defects.md) explains. An empty place: no option finds it sooner."
    yield ""
    with tempfile.TemporaryDirectory() as folder:
        for bits in (64, 32):
            yield f"{bits} bits:"
            yield ""
            yield from table(Programs(build, bits, pathlib.Path(folder)), row)
            yield ""


def main():
    for line in tables(pathlib.Path(sys.argv[1]).resolve(), lambda cells: "| " + " | ".join(map(str, cells)) + " |"):
        print(line, flush=True)


if __name__ == "__main__":
    main()
