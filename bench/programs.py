"""Programs of the system that nobody rebuilt, as they are and under tools that need no rebuilding."""
import json
import os
import pathlib
import re
import statistics
import subprocess
import time

import raw

TOP = pathlib.Path(__file__).resolve().parent.parent
FOLDER = TOP / "build/bench64/programs"
COMMAND = TOP / "build/bench64/tools/k42mc"
PROFILER = "/usr/lib/heaptrack/libheaptrack_preload.so"
PORT = 18080
OTHERS = ("valgrind", "heaptrack")
# In some programs, pages for each block take minutes.
PAGES = "k42mc run --page-guards"
WITH_PAGES = (PAGES, *OTHERS)


class Program:
    """A command with something to do, for a server also what to do with it."""

    def __init__(self, command, environment=None, drive=None, bits=64, beside=OTHERS):
        self.command = [str(word) for word in command]
        self.environment = environment or {}
        self.drive = drive
        self.bits = bits
        self.tools = ("k42mc run", *beside)

    def run(self, wrapper):
        """Seconds, megabytes of the largest process, and the output"""
        start = time.perf_counter()
        with open(FOLDER / "output", "wb+") as output:
            child = subprocess.Popen(
                # Between the two, as a process begins with the memory of its parent.
                ["/usr/bin/time", "-f", "%M", "-o", FOLDER / "memory"] + wrapper + self.command,
                env={**os.environ, **self.environment},
                cwd=FOLDER,
                stdout=output,
                stderr=subprocess.DEVNULL,
            )
            said = b""
            if self.drive:
                said, seconds = self.drive()
            child.wait()
            if not self.drive:
                seconds = time.perf_counter() - start
            output.seek(0)
            said += output.read()
        if child.returncode != 0:
            raise RuntimeError(f"{' '.join(wrapper + self.command)}: exit status {child.returncode}")
        return seconds, int((FOLDER / "memory").read_text(encoding="utf-8")) / 1024, said


def unpack(package, architecture):
    """The package's files, without installing it: some start services, some are of another architecture."""
    folder = FOLDER / package
    if not folder.exists():
        state = FOLDER / f"apt-{architecture}"
        apt = ["apt-get", "-qq"]
        apt += [f"-oAPT::Architecture={architecture}", f"-oAPT::Architectures={architecture}"]
        apt += [f"-oDir::State::lists={state}/lists", f"-oDir::Cache={state}/cache"]
        for part in ("lists/partial", "cache/archives/partial"):
            (state / part).mkdir(parents=True, exist_ok=True)
        quiet = {"cwd": state, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        subprocess.run(apt + ["update"], check=False, **quiet)
        subprocess.run(apt + ["download", package], check=True, **quiet)
        subprocess.run(["dpkg", "-x", next(state.glob(f"{package}_*.deb")), folder], check=True)
    return folder


def requests():
    """What 10,000 requests bring, and how long they take; then the server ends."""
    pages = (f"http://127.0.0.1:{PORT}/text", f"http://127.0.0.1:{PORT}/list/")
    while subprocess.run(["curl", "-s", "-o", "/dev/null", pages[0]], check=False).returncode != 0:
        time.sleep(0.05)
    start = time.perf_counter()
    said = b""
    for page in pages:
        ab = ["ab", "-q", "-k", "-n", "5000", "-c", "20", "-H", "Accept-Encoding: gzip", page]
        summary = subprocess.run(ab, capture_output=True, check=True).stdout
        said += b"".join(re.findall(rb"(?:Complete|Failed) requests:.*\n|Non-2xx.*\n", summary))
        said += subprocess.run(["curl", "-s", page], capture_output=True, check=True).stdout
    seconds = time.perf_counter() - start
    os.kill(int((FOLDER / "pid").read_text(encoding="utf-8")), 3)
    return said, seconds


def server(text):
    root = FOLDER / "root"
    root.mkdir(exist_ok=True)
    (root / "text").write_text(text[:20_000], encoding="utf-8")
    scratch = "".join(f"{kind}_temp_path {FOLDER}/{kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    (FOLDER / "server.conf").write_text(
        f"""daemon off; worker_processes 2; pid {FOLDER}/pid; error_log {FOLDER}/errors;
events {{ worker_connections 512; }}
http {{ {scratch} access_log off; gzip on; gzip_types text/plain; default_type text/plain;
server {{ listen 127.0.0.1:{PORT}; root {root}; location /list/ {{ alias {root}/; autoindex on; }} }} }}
""",
        encoding="utf-8",
    )
    return Program([unpack("nginx", "amd64") / "usr/sbin/nginx", "-c", FOLDER / "server.conf"], drive=requests, beside=WITH_PAGES)


def commands():
    """What 60,000 commands of four kinds bring, and how long they take; then the server ends."""
    client = ["redis-cli", "-p", str(PORT + 1)]
    while subprocess.run(client + ["ping"], capture_output=True, check=False).stdout != b"PONG\n":
        time.sleep(0.05)
    start = time.perf_counter()
    load = ["redis-benchmark", "-p", str(PORT + 1), "-n", "15000", "-r", "5000", "-d", "100", "-q", "-t", "set,get,lpush,sadd"]
    subprocess.run(load, capture_output=True, check=True)
    seconds = time.perf_counter() - start
    said = subprocess.run(client + ["llen", "mylist"], capture_output=True, check=True).stdout
    subprocess.run(client + ["shutdown", "nosave"], capture_output=True, check=True)
    return said, seconds


def store():
    """The server goes by its name; its package would start one."""
    name = FOLDER / "redis-server"
    if not name.is_symlink():
        name.symlink_to("/usr/bin/redis-check-rdb")
    return Program([name, "--port", PORT + 1, "--save", "", "--logfile", FOLDER / "errors"], drive=commands, beside=WITH_PAGES)


def script(name, text):
    (FOLDER / name).write_text(text, encoding="utf-8")
    return FOLDER / name


BASH = """
for ((i = 0; i < 60000; i++)); do
    words[i % 500]="$i ${words[i * 7 % 500]:0:20}"
    [[ ${words[i % 300]} == *99* ]] && ((++met))
done
for word in "${words[@]}"; do line=$(echo "$word"); done
echo "$met ${#words[@]} $line"
"""

NODE = """
const { Worker, isMainThread, parentPort } = require("worker_threads");
if (isMainThread) {
    let sum = 0, left = 4;
    for (let i = 0; i < 4; ++i)
        new Worker(__filename).on("message", (n) => { sum += n; if (--left === 0) console.log(sum); });
} else {
    const kept = [];
    for (let i = 0; i < 300000; ++i) {
        kept[i % 5000] = Buffer.from("x".repeat(i % 300));
        if (i % 1000 === 0) JSON.parse(JSON.stringify({ kept: kept.slice(0, 50).map(String) }));
    }
    parentPort.postMessage(kept.reduce((sum, buffer) => sum + buffer.length, 0));
}
"""

PHP = """<?php
for ($i = 0; $i < 300000; ++$i) {
    $words[$i % 5000] = str_repeat(chr(65 + $i % 26), $i % 200);
    if ($i % 1000 == 0) $met = preg_match_all('/A+B?/', implode(' ', array_slice($words, 0, 200)));
}
echo count($words), ' ', $met, "\\n";
"""

RUBY = """
words = {}
300_000.times { |i| words["key#{i % 5000}"] = "#{i} #{words["key#{i * 7 % 5000}"]}"[0, 60] }
puts words.size, words.values.count { |word| word =~ /99/ }
"""


def programs(statements):
    FOLDER.mkdir(parents=True, exist_ok=True)
    text = "".join(f"{i * 7919 % 100_003} {i * i % 9_973}\n" for i in range(200_000))
    (FOLDER / "text").write_text(text, encoding="utf-8")
    count = "{ for (i = 1; i < length($0); i += 2) n[substr($0, i)]++ } END { for (k in n) t += n[k] > 1; print NR, t }"
    return {
        "python3, a test of its own": Program(
            ["/usr/bin/python3", "-m", "test.test_configparser"], {"PYTHONMALLOC": "malloc"}, beside=WITH_PAGES
        ),
        "sqlite3, 5,500 statements": Program(["sqlite3", ":memory:", f".read {statements}"], beside=WITH_PAGES),
        "g++ -O2, one source": Program(
            ["g++", "-O2", "-S", "-o", "/dev/stdout", TOP / "bench/trace/parser.cpp"], beside=WITH_PAGES
        ),
        "nginx, 10,000 requests": server(text),
        "redis, 60,000 commands": store(),
        "node, 4 workers": Program(["/usr/bin/node", script("work.js", NODE)], beside=(PAGES, "heaptrack")),
        # Its children hang under heaptrack.
        "bash, 60,000 rounds": Program(["bash", script("work.bash", BASH)], beside=("valgrind",)),
        "vim, 200,000 lines": Program(
            ["vim", "-Es", "-u", "NONE", "-N", "-i", "NONE", r"-c%s/\v(\d+) (\d+)/\2 \1/", "-csort", "-cg/7/normal Ax", "-cwq! /dev/stdout", "text"]
        ),
        "php, a script": Program(["php", script("work.php", PHP)]),
        "ruby, a script": Program(["ruby", script("work.rb", RUBY)]),
        "git log with changes": Program(["git", "-C", TOP, "log", "--stat", "-n", "200"]),
        "xz, 4 threads": Program(["xz", "-T4", "--block-size=300000", "-c", "text"]),
        "mawk, 32 bits": Program([unpack("mawk", "i386") / "usr/bin/mawk", count, "text"], bits=32),
    }


def left_by_own(folder):
    """Processes, blocks and bytes that the last reports hold"""
    reports = [file.read_text(encoding="utf-8").splitlines() for file in folder.glob("*.json")]
    last = [[json.loads(line) for line in lines if '"kind":"cycle"' in line][-1] for lines in reports]
    return len(last), sum(cycle["blocks"] for cycle in last), sum(cycle["bytes"] for cycle in last)


def left_by_valgrind(folder):
    found = [
        re.search(r"in use at exit: ([\d,]+) bytes in ([\d,]+) blocks", file.read_text(encoding="utf-8"))
        for file in folder.glob("*.log")
    ]
    numbers = [[int(number.replace(",", "")) for number in match.groups()] for match in found if match]
    return len(numbers), sum(blocks for _, blocks in numbers), sum(size for size, _ in numbers)


# Tool: the command in front, the widths, and how to read what it says is left.
TOOLS = {
    "k42mc run": (lambda to: [str(COMMAND), "run", "--output", str(to), "--"], (64, 32), left_by_own),
    PAGES: (
        lambda to: [str(COMMAND), "run", "--page-guards", "--output", str(to), "--"], (64, 32), None
    ),
    "valgrind": (
        lambda to: ["valgrind", "--leak-check=full", "--trace-children=yes", "--run-libc-freeres=no", f"--log-file={to}/%p.log"],
        (64,),
        left_by_valgrind,
    ),
    "heaptrack": (lambda _: ["env", f"LD_PRELOAD={PROFILER}", "DUMP_HEAPTRACK_OUTPUT=/dev/null"], (64,), None),
}


def measure(name, program, rounds):
    """{tool: ([seconds], [megabytes])}, of the plain program under '', and {tool: what is left}"""
    figures, left = {}, {}
    for _ in range(rounds):
        seconds, megabytes, expected = program.run([])
        figures.setdefault("", ([], []))[0].append(seconds)
        figures[""][1].append(megabytes)
        for tool, (wrapper, widths, read) in TOOLS.items():
            if program.bits not in widths or tool not in program.tools:
                continue
            folder = FOLDER / "reports" / tool.replace(" ", "-")
            subprocess.run(["rm", "-rf", folder], check=True)
            folder.mkdir(parents=True)
            seconds, megabytes, said = program.run(wrapper(folder))
            if said != expected:
                raise RuntimeError(f"{name} says something else under {tool}")
            figures.setdefault(tool, ([], []))[0].append(seconds)
            figures[tool][1].append(megabytes)
            if read:
                left[tool] = read(folder)
    raw.keep("programs, seconds and MiB; blocks left", name, {"figures": figures, "left": left})
    return figures, left


def tables(statements, rounds, row):
    results = {name: measure(name, program, rounds) for name, program in programs(statements).items()}
    yield "## Whole programs"
    yield ""
    yield "Programs of the system that nobody rebuilt: time, and memory of the largest process, as many times as much as"
    yield "without a tool. What they write is the same."
    yield ""
    yield row(["program", "seconds", "MiB"] + [f"{tool}, {what}" for tool in TOOLS for what in ("time", "memory")])
    yield row(["---"] * (3 + 2 * len(TOOLS)))
    for name, (figures, _) in results.items():
        plain = figures[""]
        cells = [name, f"{statistics.median(plain[0]):.2f}", f"{statistics.median(plain[1]):.0f}"]
        for tool in TOOLS:
            for what in (0, 1):
                ratios = [a / b for a, b in zip(figures[tool][what], plain[what])] if tool in figures else []
                cells.append(f"{statistics.median(ratios):.1f}" if ratios else "")
        yield row(cells)
    yield ""
    yield "What is left when they end, in all processes that report it:"
    yield ""
    readers = [tool for tool, (_, _, read) in TOOLS.items() if read]
    yield row(["program"] + [f"{tool}, {what}" for tool in readers for what in ("processes", "blocks", "bytes")])
    yield row(["---"] * (1 + 3 * len(readers)))
    for name, (_, left) in results.items():
        yield row([name] + [f"{number:,}" for tool in readers for number in left.get(tool, ())])
    yield ""
