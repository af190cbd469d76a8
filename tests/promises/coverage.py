#!/usr/bin/env python3
"""Judges which lines of the libraries the tests have reached against the list of those that they cannot reach.

The list names, under the file that it belongs to, each line by its text and says after it, in lines that are indented
further, why nothing reaches it:

    support/file.cpp
      status = 0; // the line
          The reason.

A line that stands in a file several times is named as often as it is not reached.
"""

import argparse
import sys
from collections import Counter
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
# What stands alone in a line and belongs to a statement in another.
FORM = {'{', '}', '{}', 'else', '};'}


class File:
    """What lcov's format tells of one file."""

    def __init__(self, name):
        self.name = name
        self.lines = {}
        self.branches = {}

    def text(self, number):
        return (ROOT / self.name).read_text(encoding='utf-8').splitlines()[number - 1].strip()

    def unreached(self):
        return [number for number, count in sorted(self.lines.items()) if count == 0]

    def unreached_statements(self):
        """The same without lines that belong to another; of a block without statements the line that opens it."""
        missed = self.unreached()
        statements = [number for number in missed if self.text(number) not in FORM]
        for number in missed:
            if self.text(number) in FORM and not {number - 1, number + 1} & set(statements):
                statements.append(self.opening(number))
        return sorted(set(statements))

    def opening(self, number):
        while self.text(number) in FORM or self.text(number).startswith('//'):
            number -= 1
        return number

    def untaken(self):
        """Lines with the number of branches that no instance of the code has taken."""
        return Counter(line for (line, *_), count in self.branches.items() if count == 0)


def read_counts(path):
    files = []
    for row in path.read_text(encoding='utf-8').splitlines():
        key, _, value = row.partition(':')
        if key == 'SF':
            files.append(File(str(Path(value).resolve().relative_to(ROOT))))
        elif key == 'DA':
            number, count = value.split(',')[:2]
            files[-1].lines[int(number)] = int(count)
        elif key == 'BRDA':
            line, block, branch, count = value.split(',')
            key = (int(line), block, branch)
            files[-1].branches[key] = files[-1].branches.get(key, 0) + (0 if count == '-' else int(count))
    return sorted(files, key=lambda file: file.name)


def read_list(path):
    """(file, text) with how often it is named; each must have a reason."""
    named = Counter()
    reasons = {}
    file = entry = None
    for number, row in enumerate(path.read_text(encoding='utf-8').splitlines(), 1):
        depth = len(row) - len(row.lstrip())
        if not row.strip() or row.startswith('#'):
            continue
        if depth == 0:
            file = row.strip()
        elif depth < 6:
            entry = (file, row.strip())
            named[entry] += 1
            reasons.setdefault(entry, '')
        elif entry:
            reasons[entry] += row.strip()
        else:
            sys.exit(f'{path}:{number}: a reason without a line')
    missing = [entry for entry, reason in reasons.items() if not reason]
    if missing:
        sys.exit(f'{path}: no reason for {missing}')
    return named


def percent(part, whole):
    return f'{100 * part / whole:6.2f} %' if whole else '       -'


def print_counts(name, reached, lines, taken, branches):
    print(f'{name:34} {reached:5} / {lines:4} {percent(reached, lines)}'
          f' {taken:5} / {branches:4} {percent(taken, branches)}')


def print_files(files):
    print(f'{"":34} {"lines reached":>21} {"branches taken":>21}')
    total = Counter()
    for file in files:
        counts = {'reached': len(file.lines) - len(file.unreached()), 'lines': len(file.lines),
                  'taken': len(file.branches) - sum(file.untaken().values()), 'branches': len(file.branches)}
        print_counts(file.name, **counts)
        total.update(counts)
    print_counts('all', **total)


def print_branches(files):
    print('\nBranches not taken:')
    for file in files:
        for line, count in sorted(file.untaken().items()):
            print(f'  {file.name}:{line}: {count}: {file.text(line)}')


def judge(files, named):
    print('\nLines not reached:')
    found = Counter()
    faults = []
    for file in files:
        for number in file.unreached_statements():
            text = file.text(number)
            found[(file.name, text)] += 1
            kept = found[(file.name, text)] <= named[(file.name, text)]
            print(f'  {file.name}:{number}: {text}')
            if not kept:
                faults.append(f'not reached, and not in the list: {file.name}:{number}: {text}')
    for entry, times in sorted(named.items()):
        if found[entry] < times:
            faults.append(f'in the list, but reached: {entry[0]}: {entry[1]}')
    return faults


def main():
    parser = argparse.ArgumentParser(description='Judges which lines the tests have reached.')
    parser.add_argument('--lcov', type=Path, required=True, help='what was reached, in the format of lcov')
    parser.add_argument('--list', type=Path, required=True, help='the lines that cannot be reached, with the reasons')
    arguments = parser.parse_args()
    files = read_counts(arguments.lcov)
    print_files(files)
    print_branches(files)
    faults = judge(files, read_list(arguments.list))
    print('\n' + ('\n'.join(faults) if faults else 'Every line is reached, or stands in the list with its reason.'))
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
