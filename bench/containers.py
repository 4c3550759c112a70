"""Runs the containers' benchmark and makes tables of it."""
import json
import math
import pathlib
import statistics
import subprocess

import raw

TO_NS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
# Who stands beside whom, and the part of the best one's time to stay below. The prefix table has a goal for matches in
# tables of routes, and one peer.
C_PEERS = ("GSList", "GQueue", "GTree", "GHashTable", "tsearch")
GOALS = {"typed": 1.0, "C": 0.8}
PX_GOAL = 0.7


def run(program, quick):
    out = pathlib.Path(program).parent / "times.json"
    arguments = ["--benchmark_filter=/1000/"] if quick else []
    subprocess.run(
        [
            program,
            "--benchmark_enable_random_interleaving=true",
            f"--benchmark_repetitions={2 if quick else 3}",
            f"--benchmark_min_time={0.01 if quick else 0.05}",
            f"--benchmark_out={out}",
            "--benchmark_out_format=json",
            *arguments,
        ],
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
        check=True,
    )
    with open(out, encoding="utf-8") as file:
        return json.load(file)["benchmarks"]


def medians(runs):
    """{(family, operation, elements): {contestant: nanoseconds an element}}"""
    times = {}
    for run_ in runs:
        if run_["run_type"] == "iteration":
            times.setdefault(run_["run_name"], []).append(run_["real_time"] * TO_NS[run_["time_unit"]])
    table = {}
    raw.keep("containers, ns", "all", times)
    for name, repetitions in times.items():
        family, operation, contestant, n = name.split("/")[:4]
        table.setdefault((family, operation, int(n)), {})[contestant] = statistics.median(repetitions) / int(n)
    return table


def is_peer(name, ours):
    return name not in GOALS and (name in C_PEERS) == (ours == "C")


def best_peers(table):
    """{(family, ours, elements): (ratio to the best peer, its name)}, by geometric mean over the operations"""
    groups = {}
    for (family, _, n), times in table.items():
        for ours in GOALS:
            for peer, time in times.items():
                if ours in times and is_peer(peer, ours):
                    groups.setdefault((family, ours, n), {}).setdefault(peer, []).append(times[ours] / time)
    return {
        key: max((math.exp(statistics.fmean(map(math.log, ratios))), peer) for peer, ratios in peers.items())
        for key, peers in groups.items()
    }


def row(cells):
    return "| " + " | ".join(str(cell) for cell in cells) + " |"


def tables(program, quick):
    table = medians(run(program, quick))
    yield "## Containers"
    yield ""
    yield "Beside the best peer: our time as a part of its, geometric mean over the operations that both have."
    yield ""
    yield row(["", "ours", "elements", "best peer", "ratio", "goal"])
    yield row(["---"] * 6)
    for (family, ours, n), (ratio, peer) in sorted(best_peers(table).items()):
        goal = PX_GOAL if family.startswith("PX ") else "" if family == "PX" else GOALS[ours]
        yield row([family, ours, f"{n:,}", peer, f"{ratio:.2f}", goal])
    yield ""
    yield "Nanoseconds an element, and how many times as long the peers take:"
    yield ""
    yield row(["", "operation", "elements", "typed", "C", "times as long"])
    yield row(["---"] * 6)
    for (family, operation, n), times in sorted(table.items()):
        cells = [family, operation, f"{n:,}"]
        cells += [f"{times[ours]:.1f}" if ours in times else "" for ours in GOALS]
        peers = [
            f"{peer} {time / times[ours]:.2f}"
            for peer, time in sorted(times.items())
            for ours in GOALS
            if ours in times and is_peer(peer, ours)
        ]
        yield row(cells + [", ".join(peers)])
    yield ""
