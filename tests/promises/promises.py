#!/usr/bin/env python3
"""Keeps the map from promises to the tests that hold them.

The map stands in the Markdown files of this folder. See README.md there for their form.
"""

import argparse
import json
import re
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

FOLDER = Path(__file__).resolve().parent
ROOT = FOLDER.parent.parent


class Promise:
    """One row of the map: what is promised, under which heading, and the tests that hold it."""

    def __init__(self, place, classes):
        self.place = place
        self.classes = classes
        self.text = ''
        self.tests = []


# --- The map


def code_spans(text):
    return re.findall(r'`([^`]+)`', text)


def read_file(path):
    """The promises of one file. A row is a bullet, its tests a bullet inside it; both may go over several lines."""
    promises = []
    classes = []
    part = None
    for number, line in enumerate(path.read_text(encoding='utf-8').splitlines(), 1):
        if line.startswith('#'):
            classes = [span for span in code_spans(line) if re.fullmatch(r'\w+', span)]
            part = None
        elif line.startswith('- '):
            promises.append(Promise(f'{path.name}:{number}', classes))
            promises[-1].text = line[2:]
            part = 'text'
        elif line.startswith('  - ') and promises:
            promises[-1].tests += code_spans(line)
            part = 'tests'
        elif line.startswith('  ') and part == 'text':
            promises[-1].text += ' ' + line.strip()
        elif line.startswith('    ') and part == 'tests':
            promises[-1].tests += code_spans(line)
        elif line.strip():
            part = None
    return promises


def read_map():
    files = sorted(path for path in FOLDER.glob('*.md') if path.name != 'README.md')
    return {path.stem: read_file(path) for path in files}


# --- The tests that there are


class Tests:
    """Names of tests: "Suite.Test" for GoogleTest's, "group.Test" for others, with the program that each is in."""

    def __init__(self):
        self.program_of = {}
        self.suites = defaultdict(set)
        self.programs = defaultdict(set)
        self.open_groups = set()  # whose members' names only the build knows

    def has(self, name):
        return name in self.program_of or name.split('.')[0] in self.open_groups

    def add(self, program, suite, name):
        test = f'{suite}.{name}'
        self.program_of[test] = program
        self.suites[suite].add(test)
        self.programs[program].add(test)

    def add_alone(self, name):
        """A test that is no GoogleTest: its group counts as a program, and it serves a promise of its own."""
        self.program_of[name] = name.split('.')[0]
        self.suites[name].add(name)
        self.programs[name.split('.')[0]].add(name)


def tests_of_build(build):
    """As CTest knows them: "program.Suite.Test", for parameters "program.Instance/Suite.Test/Value"."""
    listing = subprocess.run(['ctest', '--show-only=json-v1'], cwd=build, check=True, capture_output=True, text=True)
    tests = Tests()
    for test in json.loads(listing.stdout)['tests']:
        name = test['name']
        parts = re.fullmatch(r'([^.]+)\.(?:[^/.]+/)?([^/.]+)\.([^/]+)(?:/.*)?', name, re.DOTALL)
        if parts:
            tests.add(*parts.groups())
        else:
            tests.add_alone(name)
    # Groups that this build leaves out altogether.
    tests.open_groups = tests_of_sources().open_groups - set(tests.programs)
    return tests


def tests_of_sources():
    """As the sources name them, for a build that leaves some out."""
    tests = Tests()
    for path in sorted([*(ROOT / 'tests').rglob('*.cpp'), *(ROOT / 'examples').rglob('*.cpp')]):
        text = path.read_text(encoding='utf-8')
        for suite, name in re.findall(r'^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)', text, re.M):
            tests.add(path.stem, suite, name)
    for path in (path for folder in ('tests', 'examples', 'fuzz') for path in (ROOT / folder).rglob('CMakeLists.txt')):
        for group, name in re.findall(r'^\s*add_test\(NAME (\w+)\.(\S+)', path.read_text(encoding='utf-8'), re.M):
            if '$' in name:
                tests.open_groups.add(group)
            else:
                tests.add_alone(f'{group}.{name}')
    return tests


# --- The operations of the public headers


def public_headers():
    headers = []
    for folder in ('support', 'src'):
        text = (ROOT / folder / 'CMakeLists.txt').read_text(encoding='utf-8')
        for listed in re.findall(r'set\(GSSIP_\w+_HEADERS\s+([^)]*)\)', text):
            headers += [ROOT / folder / name for name in listed.split()]
    return headers


def without_comments(text):
    text = re.sub(r'/\*.*?\*/', ' ', text, flags=re.DOTALL)
    text = re.sub(r'//[^\n]*', ' ', text)
    text = re.sub(r'"(?:[^"\\]|\\.)*"', '""', text)
    return re.sub(r'^\s*#(?:[^\n]*\\\n)*[^\n]*', ' ', text, flags=re.M)


class Header:
    """Finds what a header declares for users and for derived classes: (class or None, operation)."""

    def __init__(self, path):
        self.operations = set()
        self.scopes = []
        self.statement = ''
        for piece in re.split(r'([{};])', without_comments(path.read_text(encoding='utf-8'))):
            if piece == '{':
                self.open_scope()
            elif piece == '}':
                self.close_scope()
            elif piece == ';':
                self.declare()
                self.statement = ''
            else:
                self.statement += piece

    def inner(self):
        return self.scopes[-1] if self.scopes else {'kind': 'namespace', 'access': 'public', 'name': None}

    def take_access(self):
        """Access labels stand in front of a statement."""
        while match := re.match(r'\s*(public|protected|private)\s*:(?!:)', self.statement):
            self.inner()['access'] = match.group(1)
            self.statement = self.statement[match.end():]

    def open_scope(self):
        self.take_access()
        text = self.statement
        kind = re.search(r'\b(namespace|class|struct|enum)\b(?:\s+(?:class|GSSIP_\w+))*\s+(\w+)?', text)
        hidden = 'GSSIP_HIDDEN' in text or self.inner()['kind'] == 'hidden'
        if '(' in text.replace('__attribute__((', '') or not kind:
            self.declare()
            scope = {'kind': 'body', 'access': '', 'name': None}
        elif kind.group(1) in ('class', 'struct'):
            access = 'private' if kind.group(1) == 'class' else 'public'
            reachable = self.inner()['access'] != 'private' and not hidden
            scope = {'kind': 'class' if reachable else 'hidden', 'access': access, 'name': kind.group(2)}
        else:
            scope = {'kind': 'namespace' if kind.group(1) == 'namespace' else 'body', 'access': 'public', 'name': None}
        self.scopes.append(scope)
        self.statement = ''

    def close_scope(self):
        if self.scopes:
            self.scopes.pop()
        self.statement = ''

    def declare(self):
        self.take_access()
        scope = self.inner()
        text = self.statement.strip()
        usable = scope['kind'] in ('namespace', 'class') and scope['access'] != 'private'
        if not usable or '(' not in text or re.match(r'(friend|using|typedef|static_assert)\b', text):
            return
        if re.search(r'=\s*(delete|default)\s*$', text):
            return
        name = re.search(r'(operator\s*\(\)|operator\s*[^\s\w(]+|operator\s+\w+|~?\w+)\s*\(', text)
        if name and name.group(1) != '__attribute__':
            self.operations.add((scope['name'], name.group(1).replace(' ', '')))


def is_mentioned(promises, owner, operation):
    """Whether a row speaks of the operation: by its name in code, or, under its class's heading, as what it is."""
    plain = {owner: 'construct', f'~{owner}': 'destr', 'operator=': 'assign'}.get(operation) if owner else None
    for promise in promises:
        under = owner in promise.classes
        for span in code_spans(promise.text):
            span = re.sub(r'\(.*', '', span) if not span.startswith('operator') else span
            if span == f'{owner}::{operation}' or (span == operation and (under or owner is None)):
                return True
        if plain and under and plain in promise.text.lower():
            return True
    return False


# --- What is wrong


def faults_of_rows(promises, tests):
    seen = {}
    for promise in promises:
        if not promise.tests:
            yield f'{promise.place}: no test holds this: {promise.text}'
        if promise.text in seen:
            yield f'{promise.place}: stands already at {seen[promise.text]}'
        seen[promise.text] = promise.place
        for name in promise.tests:
            if not tests.has(name):
                yield f'{promise.place}: there is no test {name}'


def faults_of_tests(promises, tests):
    named = {name for promise in promises for name in promise.tests}
    for suite, members in sorted(tests.suites.items()):
        if not members & named:
            yield f'no promise names a test of {suite} (of {tests.program_of[min(members)]})'
    for program, members in sorted(tests.programs.items()):
        if not members & named:
            yield f'no promise names a test of the program {program}'


def faults_of_operations(promises):
    for path in public_headers():
        operations = Header(path).operations
        for owner, operation in sorted(operations, key=str):
            if not is_mentioned(promises, owner, operation):
                full = f'{owner}::{operation}' if owner else operation
                yield f'no promise speaks of {full} ({path.relative_to(ROOT)})'


def print_table(promises_of):
    print('| Subject | Promises | Tests named |\n|---|---|---|')
    total = set()
    for subject, promises in promises_of.items():
        named = {name for promise in promises for name in promise.tests}
        total |= named
        print(f'| {subject} | {len(promises)} | {len(named)} |')
    print(f'| all | {sum(map(len, promises_of.values()))} | {len(total)} |')


def main():
    parser = argparse.ArgumentParser(description='Looks whether every promise has its tests, every test its promise.')
    parser.add_argument('--build', help='the build folder whose tests count; without it those that the sources name')
    parser.add_argument('--table', action='store_true', help='print how many promises and tests there are')
    parser.add_argument('--unnamed', action='store_true', help='print the tests that no promise names')
    arguments = parser.parse_args()

    promises_of = read_map()
    promises = [promise for each in promises_of.values() for promise in each]
    tests = tests_of_build(arguments.build) if arguments.build else tests_of_sources()
    if arguments.table:
        print_table(promises_of)
    if arguments.unnamed:
        named = {name for promise in promises for name in promise.tests}
        print('\n'.join(sorted(f'{program}: {test}' for test, program in tests.program_of.items()
                               if test not in named)))
    faults = [*faults_of_rows(promises, tests), *faults_of_tests(promises, tests), *faults_of_operations(promises)]
    print('\n'.join(faults))
    print(f'{len(promises)} promises, {len(tests.program_of)} tests, {len(faults)} faults')
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
