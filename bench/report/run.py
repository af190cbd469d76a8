#!/usr/bin/env python3
"""Measures the library against its floors; see docs/performance.md. Started by scripts/bench."""

import argparse
import json
import os
import random
import re
import sys

import plan
import runner
import table


def read_command_line():
    parser = argparse.ArgumentParser(prog="bench", description=__doc__)
    parser.add_argument("--programs", required=True, help="folder of the benchmark programs")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--only", default="", help="regular expression for the names of what is measured")
    parser.add_argument("--line", choices=("hook", "relay"), default="hook", help="what joins the two ends")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31), help="of the order")
    parser.add_argument("--output", default="bench.json", help="file for all figures")
    parser.add_argument("--compare", metavar="FILE", help="show gains and losses against the figures in that file")
    return parser.parse_args()


def main():
    asked = read_command_line()
    schedulings = [plan.ORDINARY]
    if runner.may_use_real_time():
        schedulings.insert(0, plan.REAL_TIME)
    else:
        print("No right to real-time scheduling: measuring without it only.", file=sys.stderr)
    cases = [case for case in plan.line_cases() + plan.part_cases() if re.search(asked.only, case.key)]
    results = runner.run_all(
        runner.Programs(asked.programs, asked.line), cases, asked.rounds, asked.seed, schedulings, os.isatty(2)
    )
    rows = list(table.rows(cases, results))
    print(table.text(rows))
    with open(asked.output, "w", encoding="utf-8") as file:
        raw = {f"{key}, {scheduling}": figures for (key, scheduling), figures in results.items()}
        json.dump({"seed": asked.seed, "line": asked.line, "rows": rows, "figures": raw}, file, indent=1)
    return 1 if any(row.get("failed") for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
