#!/usr/bin/env python3
"""k42mc run as a job at a terminal, below a shell of this script's own: terminal.py <k42mc> <subject>"""

import os
import pty
import re
import signal
import sys
import tempfile


def start_job(command):
    """As a shell does: in a group of its own, which is the terminal's."""
    job = os.fork()
    if job == 0:
        signal.signal(signal.SIGTTOU, signal.SIG_IGN)
        os.setpgid(0, 0)
        os.tcsetpgrp(0, os.getpid())
        signal.signal(signal.SIGTTOU, signal.SIG_DFL)
        os.execv(command[0], command)
    return job


def be_shell(command):
    job = start_job(command)
    while True:
        status = os.waitpid(job, os.WUNTRACED)[1]
        if not os.WIFSTOPPED(status):
            break
        os.write(1, b"stopped\n")
        os.killpg(job, signal.SIGCONT)
    os.write(1, f"ended by {os.WTERMSIG(status)}\n".encode())
    os._exit(0)


class Terminal:
    """What is said there, and waited for."""

    def __init__(self, descriptor):
        self.descriptor = descriptor
        self.said = ""

    def wait_for(self, pattern, start):
        while not (found := re.compile(pattern).search(self.said, start)):
            try:
                piece = os.read(self.descriptor, 4096)
            except OSError:
                piece = b""
            if not piece:
                sys.exit(f"FAILED: not said: {pattern}\n{self.said}")
            self.said += piece.decode()
        return found

    def press(self, key, pattern):
        start = len(self.said)
        os.write(self.descriptor, key)
        self.wait_for(pattern, start)


def watch_progress(k42mc, subject):
    """A line that is written anew, and gone at the end."""
    command, descriptor = pty.fork()
    if command == 0:
        os.execv(k42mc, [k42mc, "run", "--fail-each", "--", subject, "printing"])
    terminal = Terminal(descriptor)
    begun = terminal.wait_for(r"\r\x1b\[Kk42mc: [0-2] of 2", 0)
    terminal.wait_for(r"\r\x1b\[Kk42mc: 2 stacks of allocations", begun.end())
    os.waitpid(command, 0)


def main():
    k42mc, subject = sys.argv[1:]
    if not os.access(k42mc, os.X_OK):
        sys.exit(77)
    signal.alarm(60)
    with tempfile.TemporaryDirectory() as folder:
        try:
            shell, descriptor = pty.fork()
        except OSError as error:
            print(f"skipped: no terminal to be had: {error}")
            sys.exit(77)
        if shell == 0:
            be_shell([k42mc, "run", "--output", folder + "/reports", subject, "await"])
        terminal = Terminal(descriptor)
        program = int(terminal.wait_for(r"ready (\d+)", 0)[1])
        terminal.press(b"\x03", "INT\r")
        terminal.press(b"\x1a", "stopped\r\n(.|\n)*CONT\r")
        os.kill(program, signal.SIGSTOP)
        terminal.wait_for("stopped\r\n(.|\n)*CONT\r\n(.|\n)*stopped\r\n(.|\n)*CONT\r", 0)
        terminal.press(b"\x1c", r"ended by 3\r")
        os.waitpid(shell, 0)
    for word, times in (("INT", 1), ("stopped", 2), ("CONT", 2), ("read more", 1)):
        if terminal.said.count(word) != times:
            sys.exit(f"FAILED: not {times} times: {word}\n{terminal.said}")
    watch_progress(k42mc, subject)


main()
