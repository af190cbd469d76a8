"""Runs the cases: round by round in random order, each measurement in a process of its own."""

import json
import os
import random
import subprocess
import sys
import time

from plan import ORDINARY, REAL_TIME

LONGEST_SEC = 60


class Programs:
    def __init__(self, folder, line):
        self.folder = folder
        self.line = line

    def command(self, run, scheduling):
        if run.program == "line":
            joint = ["--line", self.line]
            real_time = ["--real-time"] if scheduling == REAL_TIME else []
            return [os.path.join(self.folder, "gssip-bench-line"), *run.arguments, *joint, *real_time]
        return [
            os.path.join(self.folder, "gssip-bench-parts"),
            f"--benchmark_filter=^{run.arguments[0]}$",
            "--benchmark_format=json",
            "--benchmark_min_time=0.03",
        ]


def figures_of(run, output):
    figures = json.loads(output)
    if run.program == "parts":
        result = figures["benchmarks"][0]
        if "error_message" in result:
            raise ValueError(result["error_message"])
        return {"time_ns": result["median_ns"], "speed": 1e9 / result["median_ns"]}
    return figures


def measure(programs, run, scheduling):
    """The figures of one process, or nothing when it failed (said on the error output)."""
    command = programs.command(run, scheduling)
    try:
        done = subprocess.run(command, capture_output=True, text=True, timeout=LONGEST_SEC, check=True)
        return figures_of(run, done.stdout)
    except (subprocess.SubprocessError, ValueError, IndexError) as failure:
        said = getattr(failure, "stderr", None) or ""
        print(f"\n{type(failure).__name__}: {' '.join(command)}\n{said.strip()}", file=sys.stderr)
        return None


def may_use_real_time():
    """Found out by trying: rights alone do not tell."""
    try:
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
        os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
        return True
    except OSError:
        return False


def contenders(case):
    named = {"port": case.port, **case.peers}
    if case.floor is not None:
        named["floor"] = case.floor
    return named


def run_all(programs, cases, rounds, seed, schedulings, progress=True):
    """(case key, scheduling) to contender to the figures of each round; None where a process failed."""
    order = random.Random(seed)
    results = {}
    if rounds == 0:
        return results
    jobs = [
        (case, scheduling, name, run)
        for case in cases
        for scheduling in case.schedulings
        if scheduling in schedulings
        for name, run in contenders(case).items()
    ]
    start = time.monotonic()
    for number in range(rounds):
        order.shuffle(jobs)
        for place, (case, scheduling, name, run) in enumerate(jobs):
            if progress:
                done = number * len(jobs) + place
                print(f"\r{done} of {rounds * len(jobs)} ", end="", file=sys.stderr, flush=True)
            rounds_so_far = results.setdefault((case.key, scheduling), {}).setdefault(name, [])
            rounds_so_far.append(measure(programs, run, scheduling))
    if progress:
        print(f"\r{rounds * len(jobs)} measurements in {time.monotonic() - start:.0f} s", file=sys.stderr)
    return results
