#!/usr/bin/env python3
"""Lists the tests that CTest has skipped, with the reason that each printed; a test without a reason is a fault.

    skippedTests.py JUNIT_FILE...
"""
import itertools
import sys
import xml.etree.ElementTree as tree


def reason_of(output):
    """What a script says behind "SKIPPED:", or GoogleTest in the lines behind "Skipped"."""
    lines = output.splitlines()
    for at, line in enumerate(lines):
        if line.startswith("SKIPPED:"):
            return line.partition(":")[2].strip()
        if line.endswith(": Skipped"):
            told = itertools.takewhile(lambda more: more.strip() and not more.startswith("["), lines[at + 1:])
            return " ".join(part.strip() for part in told)
    return ""


def skipped_in(path):
    for case in tree.parse(path).iter("testcase"):
        if case.find("skipped") is not None:
            yield case.get("name"), reason_of(case.findtext("system-out") or "")


def main(paths):
    tests_by_reason = {}
    for path in paths:
        for name, reason in skipped_in(path):
            tests_by_reason.setdefault(reason, []).append(name)
    silent = tests_by_reason.pop("", [])
    for reason, names in sorted(tests_by_reason.items()):
        print(f"{len(names)} skipped: {reason}")
        for name in names:
            print(f"    {name}")
    for name in silent:
        print(f"skipped without a reason: {name}", file=sys.stderr)
    return 1 if silent else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
