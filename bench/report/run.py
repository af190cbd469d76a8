#!/usr/bin/env python3
"""Measures the library against its floors; see docs/performance.md. Started by scripts/bench."""

import argparse
import json
import os
import random
import re
import sys

import plan
import plots
import runner
import table

# What stands between these two in the document is written here.
PART_BEGIN = "<!-- {}: written by scripts/bench --document -->"
PART_END = "<!-- end of {} -->"


def read_command_line():
    parser = argparse.ArgumentParser(prog="bench", description=__doc__)
    parser.add_argument("--programs", required=True, help="folder of the benchmark programs")
    parser.add_argument("--rounds", type=int, default=5, help="of what is compared with a target")
    parser.add_argument("--curve-rounds", type=int, default=2, help="of the growth curves; 0 for none")
    parser.add_argument("--only", default="", help="regular expression for the names of what is measured")
    parser.add_argument("--line", choices=("hook", "relay"), default="hook", help="what joins the two ends")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31), help="of the order")
    parser.add_argument("--output", default="bench.json", help="file for all figures")
    parser.add_argument("--plots", metavar="FOLDER", help="write the growth curves there")
    parser.add_argument("--compare", metavar="FILE", help="show gains and losses against the figures in that file")
    parser.add_argument("--document", metavar="FILE", help="put the table into this document")
    return parser.parse_args()


def schedulings():
    if runner.may_use_real_time():
        return [plan.REAL_TIME, plan.ORDINARY]
    print("No right to real-time scheduling: measuring without it only.", file=sys.stderr)
    return [plan.ORDINARY]


def save(asked, rows, results):
    raw = {f"{key}, {scheduling}": figures for (key, scheduling), figures in results.items()}
    with open(asked.output, "w", encoding="utf-8") as file:
        json.dump({"seed": asked.seed, "line": asked.line, "rows": rows, "figures": raw}, file, indent=1)


def save_plots(folder, curves, results):
    os.makedirs(folder, exist_ok=True)
    for curve in curves:
        image = plots.svg(curve, results)
        if image is not None:
            with open(os.path.join(folder, f"{curve.key}.svg"), "w", encoding="utf-8") as file:
                file.write(image)


def put_into(document, part, content):
    begin, end = PART_BEGIN.format(part), PART_END.format(part)
    with open(document, encoding="utf-8") as file:
        before, rest = file.read().split(begin)
    after = rest.split(end)[1]
    with open(document, "w", encoding="utf-8") as file:
        file.write(f"{before}{begin}\n{content}\n{end}{after}")


def main():
    asked = read_command_line()
    programs = runner.Programs(asked.programs, asked.line)
    wanted = re.compile(asked.only)
    cases = [case for case in plan.line_cases() + plan.part_cases() if wanted.search(case.key)]
    curves = [curve for curve in plan.curves() if wanted.search(curve.title)]
    if not cases and not curves:
        print(f"nothing is called {asked.only}", file=sys.stderr)
        return 2
    curve_cases = [case for curve in curves for case in curve.cases()]

    results = runner.run_all(programs, cases, asked.rounds, asked.seed, schedulings(), os.isatty(2))
    results.update(
        runner.run_all(programs, curve_cases, asked.curve_rounds, asked.seed, [plan.ORDINARY], os.isatty(2))
    )
    rows = list(table.rows(cases, results))
    print(table.text(rows))
    if beside := table.peers(cases, results):
        print(f"\nMedians of the figures themselves, which mean nothing outside this run:\n{beside}")
    save(asked, rows, results)
    if asked.compare:
        with open(asked.compare, encoding="utf-8") as file:
            print(f"\nAgainst {asked.compare}:\n{table.comparison(json.load(file)['rows'], rows)}")
    if asked.plots:
        save_plots(asked.plots, curves, results)
    if asked.document:
        put_into(asked.document, "figures", table.markdown(rows))
        put_into(asked.document, "line costs", table.line_costs(results, plan.ONE_WAY, 42))
    return 1 if any(row.get("failed") for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
