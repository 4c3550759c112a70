#!/usr/bin/env python3
"""usage: lost_blocks.py BUILD FOLDER [PROGRAM...]

Runs programs of the system, or those that are named, by `k42mc run` and by valgrind, and writes a table of the blocks
that each calls lost. BUILD has the command k42mc in tools/. FOLDER gets what the programs work on, and in reports/
what both say. Needs the programs, g++ and valgrind; of BUILD, 64 bits.
"""
import dataclasses
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

GUESTS = r"""
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>
// Fifty threads come and go, each with memory of its own; half of them go on when the process ends. Each tenth loses
// a block and what it leads to.
int main() {
    std::vector<std::thread> guests;
    for (int i = 0; i < 50; ++i)
        guests.emplace_back([i] {
            thread_local std::vector<std::string> words;
            for (int k = 0; k < 200; ++k)
                words.emplace_back(100 + k % 50, 'x');
            if (i % 10 == 0) {
                auto **lost = static_cast<void **>(malloc(40));
                *lost = malloc(60);
            }
            if (i % 2 != 0)
                std::this_thread::sleep_for(std::chrono::hours(1));
        });
    std::this_thread::sleep_for(std::chrono::seconds(1));
    for (int i = 0; i < 50; ++i)
        if (i % 2 == 0)
            guests[i].join();
    static const auto &kept = *new std::vector<std::thread>(std::move(guests));
    exit(kept.size() == 50 ? 0 : 1);
}
"""

BASH = r"""
declare -A ages
for i in {1..200}; do words[i]="word $i ${words[i-1]:0:9}"; ages[key$i]=$i; done
rename() { local from=$1; shift; printf '%s-' "$from" "$@"; }
for i in {1..10}; do line=$(rename "${words[@]:i:5}"; (cd / && pwd)); done
while read -r first rest; do set -- "$rest" "$first"; done <<END
${words[*]}
one two three
END
mapfile -t lines < <(printf '%s\n' "${!ages[@]}" | sort | head -n 20)
unset 'words[5]' ages
[[ $line =~ w(.)r ]] && eval "echo ${#lines[@]} ${BASH_REMATCH[1]} $1"
"""

PERL = r"""
use POSIX; use Data::Dumper;
my %ages; $ages{"key$_"} = [1 .. $_ % 9] for 1 .. 2000;
my @sorted = sort { @{$ages{$a}} <=> @{$ages{$b}} || $a cmp $b } keys %ages;
my $text = join ' ', map { "$_=" . scalar @{$ages{$_}} } @sorted;
my $met = () = $text =~ /key(\d+)=[37]/g;
my $ring = {}; $ring->{self} = $ring; undef $ring;
print length(Dumper(\%ages)), " $met ", strftime("%Y", gmtime 0), "\n";
"""

PYTHON = """
import collections, json, re, subprocess, threading
words = collections.Counter(re.findall("[a-z]+", open("text").read()))
kept = json.loads(json.dumps({str(i): [i, str(i) * 3] for i in range(2000)}))
threads = [threading.Thread(target=lambda: sorted(kept)) for _ in range(4)]
for thread in threads: thread.start()
for thread in threads: thread.join()
print(len(words), len(kept), subprocess.run(["echo", "child"], capture_output=True).stdout)
"""

RUBY = """
require "json"
words = {}
20_000.times { |i| words["key#{i % 500}"] = "#{i} #{words["key#{i * 7 % 500}"]}"[0, 60] }
puts words.size, JSON.parse(JSON.dump(words)).values.count { |word| word =~ /99/ }
"""

SQL = """
create table t (a integer primary key, b text, c real);
with recursive n(i) as (select 1 union all select i + 1 from n where i < 3000)
insert into t select i, 'word ' || i % 97, i / 7.0 from n;
create index by_b on t (b);
select b, count(*), round(sum(c)) from t group by b order by 3 desc limit 5;
update t set b = upper(b) where a % 3 = 0;
delete from t where a % 5 = 0;
select count(*), json_group_array(b) from (select distinct b from t limit 3);
"""

C_SOURCE = """
#include <stdio.h>
#include <stdlib.h>
struct link { struct link *next; int value; };
int main(int count, char **words) {
    struct link *first = NULL;
    for (int i = 0; i < count; ++i) {
        struct link *made = (struct link *)malloc(sizeof *made);
        made->next = first;
        made->value = atoi(words[i]);
        first = made;
    }
    for (; first; first = first->next)
        printf("%d\\n", first->value);
    return 0;
}
"""


@dataclasses.dataclass
class Program:
    task: str  # in words
    command: list
    environment: dict = dataclasses.field(default_factory=dict)
    drive: object = None  # for a server


@dataclasses.dataclass
class Lost:
    sites: int = 0
    blocks: int = 0
    size: int = 0

    def __str__(self):
        return f"{self.sites:,} / {self.blocks:,} / {self.size:,}"


def serve(_):
    client = ["redis-cli", "-p", "18082"]
    while subprocess.run([*client, "ping"], capture_output=True, check=False).stdout != b"PONG\n":
        time.sleep(0.1)
    commands = "".join(f"set k{i} {i * 7}\nrpush l{i % 9} {i}\nhset h f{i} {i}\nexpire k{i} 1000\n" for i in range(500))
    subprocess.run(client, input=commands.encode(), capture_output=True, check=True)
    said = subprocess.run([*client, "info", "server"], capture_output=True, text=True, check=True).stdout
    os.kill(int(re.search(r"process_id:(\d+)", said)[1]), signal.SIGTERM)


def make_files(folder):
    (folder / "text").write_text(
        "".join(f"{i * 7919 % 100_003} word {i * i % 9_973} is {'lorem ipsum dolor'[i % 17:]}\n" for i in range(4000)),
        encoding="utf-8",
    )
    for name, text in {
        "s.bash": BASH, "s.pl": PERL, "s.py": PYTHON, "s.rb": RUBY, "s.sql": SQL, "s.c": C_SOURCE, "guests.cpp": GUESTS
    }.items():  # fmt: skip
        (folder / name).write_text(text, encoding="utf-8")
    subprocess.run(["g++", "-std=c++17", "-g", "-O1", "-w", "-pthread", "guests.cpp", "-o", "guests"], cwd=folder, check=True)
    if not (folder / "repository").exists():
        git = ["git", "-C", folder / "repository", "-c", "user.name=a", "-c", "user.email=a@b.c"]
        subprocess.run(["git", "init", "-q", folder / "repository"], check=True)
        for i in range(30):
            (folder / "repository" / f"file{i % 7}").write_text(f"{i}\n" * (i * 5), encoding="utf-8")
            subprocess.run([*git, "add", "."], check=True)
            subprocess.run([*git, "commit", "-q", "-m", f"Change {i}"], check=True)
    return {
        "git log": Program("`git log --stat -p` of 30 commits", ["git", "-C", "repository", "log", "--stat", "-p"]),
        "git status": Program("`git status` of the same", ["git", "-C", "repository", "status"]),
        "git clone": Program("`git clone` from a folder", ["git", "clone", "-q", "--no-local", "repository", "cloned"]),
        # Its tables grow by the values of a hash function that each run chooses anew.
        "perl": Program(
            "a script: hashes, sorting, matches, modules", ["perl", "s.pl"], {"PERL_HASH_SEED": "0", "PERL_PERTURB_KEYS": "0"}
        ),
        # It unmaps the lower half of its objects' pages at exit. By valgrind, mappings are made upwards.
        "ruby": Program("a script: hashes, JSON, matches", ["setarch", "x86_64", "-L", "ruby", "s.rb"]),
        "python3": Program(
            "a script: JSON, matches, threads, a child; without its own allocator",
            ["/usr/bin/python3", "s.py"],
            {"PYTHONMALLOC": "malloc"},
        ),
        "vim": Program(
            "substitution, sorting and `:g` in 4,000 lines",
            ["vim", "-Es", "-u", "NONE", "-N", "-i", "NONE", r"-c%s/\v(\d+) (\w+)/\2 \1/", "-csort", "-cg/7/normal Ax", "-cwq! /dev/null", "text"],
        ),  # fmt: skip
        "bash": Program("a script: subshells, arrays, here documents, pipes", ["bash", "s.bash"]),
        "clang": Program("a small C file compiled to an object", ["clang", "-O2", "-c", "s.c", "-o", "s.o"]),
        "clang -cc1": Program("the same, by a child", ["clang", "-fno-integrated-cc1", "-O2", "-c", "s.c", "-o", "s.o"]),
        "g++": Program("the same file, to assembly", ["g++", "-O2", "-S", "-x", "c++", "s.c", "-o", "s.s"]),
        "gdb": Program("a program's functions listed", ["gdb", "-nx", "-batch", "-ex", "info functions main", "guests"]),
        "man": Program("a page looked for", ["man", "-w", "ls"]),
        "dpkg": Program("all packages listed", ["dpkg", "-l"]),
        "convert": Program(
            "a picture drawn, blurred and written as PNG",
            ["convert-im6.q16", "-size", "120x90", "gradient:red-blue", "-blur", "0x2", "-resize", "50%", "PNG:made.png"],
        ),
        "sqlite3": Program("3,000 rows, an index, aggregates, JSON", ["sqlite3", ":memory:", ".read s.sql"]),
        "redis-server": Program(
            "2,000 commands, then SIGTERM",
            ["redis-server", "--port", "18082", "--save", "", "--appendonly", "no"],
            drive=serve,
        ),
        "guests": Program("a program of 50 threads, half of which still run at exit", ["./guests"]),
        "ls": Program("`ls -lR` of a folder", ["ls", "-lR", "/usr/share/doc/git"]),
        "sed": Program("three substitutions in 4,000 lines", ["sed", "-n", "-e", "s/word/WORD/;s/\\([0-9]*\\) W/\\1-W/gp;/7$/{h;G;p}", "text"]),
        "gawk": Program("words counted and sorted", ["gawk", "{ for (i = 1; i <= NF; i++) n[$i]++ } END { k = asorti(n, s); print k, s[1], length(n) }", "text"]),
        "tar": Program("an archive of a folder, by way of gzip", ["tar", "czf", "made.tar.gz", "repository"]),
        "grep": Program("two patterns in 4,000 lines, and a folder", ["grep", "-rEc", "(9|7)+ word|i(p)s\\1", "text", "repository"]),
    }  # fmt: skip


def lost_by_own(folder):
    """Processes that were searched, what they have lost, and nothing else"""
    lost, processes = Lost(), 0
    for file in folder.glob("*.json"):
        lines = [json.loads(line) for line in file.read_text(encoding="utf-8").splitlines()]
        cycles = [line for line in lines if line["kind"] == "cycle"]
        if not cycles or not cycles[-1].get("searched"):
            continue
        processes += 1
        for site in lines:
            if site["kind"] != "site" or site["cycle"] != cycles[-1]["cycle"]:
                continue
            parts = [site["lost"], site["indirect"]]
            lost.sites += any(part["blocks"] for part in parts)
            lost.blocks += sum(part["blocks"] for part in parts)
            lost.size += sum(part["bytes"] for part in parts)
    return processes, lost, None


def lost_by_valgrind(folder):
    """Processes, what they have lost for certain, and what they possibly have"""
    lost, possible, processes = Lost(), Lost(), 0
    for file in folder.glob("*.log"):
        text = file.read_text(encoding="utf-8", errors="replace")
        if "HEAP SUMMARY" not in text:
            continue
        processes += 1
        lost.sites += len(re.findall(r"are (?:definitely|indirectly) lost in loss record", text))
        for kind, size, blocks in re.findall(r"(definitely|indirectly|possibly) lost: ([\d,]+) bytes in ([\d,]+) blocks", text):
            counter = possible if kind == "possibly" else lost
            counter.blocks += int(blocks.replace(",", ""))
            counter.size += int(size.replace(",", ""))
    return processes, lost, possible


def run(program, wrapper, folder):
    subprocess.run(["rm", "-rf", folder / "cloned"], check=True)
    with open(folder / "said", "wb") as said, open(folder / "errors", "ab") as errors:
        child = subprocess.Popen(
            [str(word) for word in (*wrapper, *program.command)],
            cwd=folder,
            env={**os.environ, **program.environment},
            stdin=subprocess.DEVNULL,
            stdout=said,
            stderr=errors,
        )
        if program.drive:
            program.drive(child)
        status = child.wait()
    return status, (folder / "said").read_bytes()


def compare(build, folder, name, program):
    tools = {
        "own": lambda to: [build / "tools/k42mc", "run", "--output", to, "--"],
        "valgrind": lambda to: [
            "valgrind", "--leak-check=full", "--show-leak-kinds=definite,indirect", "--errors-for-leak-kinds=none",
            "--trace-children=yes", f"--log-file={to}/%p.log",
        ],
    }  # fmt: skip
    expected = run(program, [], folder)
    for tool, wrapper in tools.items():
        to = folder / "reports" / name.replace(" ", "-") / tool
        subprocess.run(["rm", "-rf", to], check=True)
        to.mkdir(parents=True)
        found = run(program, wrapper(to), folder)
        if found[0] != expected[0] or (not program.drive and found[1] != expected[1]):
            print(f"{name} says something else by {tool}", file=sys.stderr)
        yield lost_by_own(to) if tool == "own" else lost_by_valgrind(to)


def versions():
    packages = ["bash", "clang-14", "coreutils", "dpkg", "g++-12", "gawk", "gdb", "git", "grep", "imagemagick", "man-db", "perl"]
    packages += ["python3.11", "redis-server", "ruby3.1", "sed", "sqlite3", "tar", "valgrind", "vim"]
    query = ["dpkg-query", "-W", "-f", "${Package} ${Version}\n", *packages]
    return subprocess.run(query, capture_output=True, text=True, check=True).stdout.splitlines()


def main():
    build, folder = (pathlib.Path(word).resolve() for word in sys.argv[1:3])
    folder.mkdir(parents=True, exist_ok=True)
    programs = make_files(folder)
    print("| program | does | processes | `k42mc run`: sites / blocks / bytes | valgrind: the same | possibly: blocks / bytes |")
    print("|---|---|---|---|---|---|")
    for name, program in programs.items():
        if sys.argv[3:] and name not in sys.argv[3:]:
            continue
        (count, own, _), (count_there, lost, possible) = compare(build, folder, name, program)
        processes = f"{count}" if count == count_there else f"{count}, {count_there}"
        print(f"| {name} | {program.task} | {processes} | {own} | {lost} | {possible.blocks:,} / {possible.size:,} |", flush=True)
    print("\n" + ", ".join(versions()))


main()
