#!/usr/bin/env python3
"""Sees that the map's guards find what they are for."""

import contextlib
import io
import tempfile
import unittest
from pathlib import Path

import coverage
import promises


def rows_of(text):
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / 'subject.md'
        path.write_text(text, encoding='utf-8')
        return promises.read_file(path)


def tests_named(*names):
    tests = promises.Tests()
    for name in names:
        tests.add('program', *name.split('.'))
    return tests


def operations_of(text):
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / 'header.h'
        path.write_text(text, encoding='utf-8')
        return promises.Header(path).operations


class Map(unittest.TestCase):
    def test_row_over_several_lines(self):
        [row] = rows_of('## Class `gate`\n\n- It opens\n  and shuts.\n  - `A.B`,\n    `A.C`\n')
        self.assertEqual((row.text, row.tests, row.classes), ('It opens and shuts.', ['A.B', 'A.C'], ['gate']))

    def test_row_without_test(self):
        [fault] = promises.faults_of_rows(rows_of('- It opens.\n'), tests_named('A.B'))
        self.assertIn('no test holds this', fault)

    def test_row_with_a_test_that_is_not_there(self):
        [fault] = promises.faults_of_rows(rows_of('- It opens.\n  - `A.C`\n'), tests_named('A.B'))
        self.assertIn('there is no test A.C', fault)

    def test_row_with_a_test_of_a_group_that_only_the_build_knows(self):
        tests = tests_named('A.B')
        tests.open_groups.add('vectors')
        self.assertEqual(list(promises.faults_of_rows(rows_of('- It opens.\n  - `vectors.C`\n'), tests)), [])

    def test_row_twice(self):
        text = '- It opens.\n  - `A.B`\n'
        [fault] = promises.faults_of_rows(rows_of(text + text), tests_named('A.B'))
        self.assertIn('stands already', fault)

    def test_suite_without_promise(self):
        tests = tests_named('A.B', 'C.D')
        [fault] = promises.faults_of_tests(rows_of('- It opens.\n  - `A.B`\n'), tests)
        self.assertIn('no promise names a test of C', fault)

    def test_program_without_promise(self):
        tests = tests_named('A.B')
        tests.add('other', 'A', 'C')
        [fault] = promises.faults_of_tests(rows_of('- It opens.\n  - `A.B`\n'), tests)
        self.assertIn('the program other', fault)

    def test_the_map_itself_has_rows_and_operations(self):
        self.assertGreater(sum(map(len, promises.read_map().values())), 300)
        self.assertGreater(sum(len(promises.Header(path).operations) for path in promises.public_headers()), 100)


class Operations(unittest.TestCase):
    header = '''
    #define FREE(x) x
    namespace inner { struct GSSIP_EXPORT gate
    {
        explicit gate(int); // gate(double)
        virtual ~gate();
        gate(gate const&) = delete;
        template <typename T> bool open(T&& how) { return how(); }
        int operator()(int);
        static constexpr int SIZE = 4;
      protected:
        void lower();
      private:
        void hidden();
        struct GSSIP_HIDDEN innerState { void neither(); };
    }; }
    GSSIP_EXPORT int alone(int, void (*call)());
    '''

    def test_declarations_that_users_and_derived_classes_reach(self):
        self.assertEqual(operations_of(self.header), {
            ('gate', 'gate'), ('gate', '~gate'), ('gate', 'open'), ('gate', 'operator()'), ('gate', 'lower'),
            (None, 'alone')})

    def test_mention_by_name_under_the_heading_or_in_full(self):
        under = rows_of('## The `gate`\n- `open(how)` does.\n')
        self.assertTrue(promises.is_mentioned(under, 'gate', 'open'))
        self.assertFalse(promises.is_mentioned(under, 'door', 'open'))
        self.assertFalse(promises.is_mentioned(under, 'gate', 'lower'))
        self.assertTrue(promises.is_mentioned(rows_of('- `gate::open` does.\n'), 'gate', 'open'))

    def test_mention_of_constructor_and_destructor_in_words(self):
        rows = rows_of('## The `gate`\n- Constructed, it is shut.\n')
        self.assertTrue(promises.is_mentioned(rows, 'gate', 'gate'))
        self.assertFalse(promises.is_mentioned(rows, 'gate', '~gate'))


class Coverage(unittest.TestCase):
    source = 'if (rare)\n{\n    cry();\n}\nwhile (never)\n{\n    // nothing\n}\n'

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.root = Path(self.folder.name)
        self.addCleanup(setattr, coverage, 'ROOT', coverage.ROOT)
        coverage.ROOT = self.root
        (self.root / 'a.cpp').write_text(self.source, encoding='utf-8')

    def faults(self, counts, kept):
        rows = [f'SF:{self.root / "a.cpp"}'] + [f'DA:{line},{count}' for line, count in counts.items()]
        (self.root / 'lcov').write_text('\n'.join(rows), encoding='utf-8')
        (self.root / 'list').write_text(kept, encoding='utf-8')
        files = coverage.read_counts(self.root / 'lcov')
        with contextlib.redirect_stdout(io.StringIO()):
            return coverage.judge(files, coverage.read_list(self.root / 'list'))

    unreached = {1: 5, 2: 0, 3: 0, 4: 0, 5: 5, 6: 0, 8: 0}

    def test_unreached_lines_that_are_not_in_the_list(self):
        self.assertEqual(len(self.faults(self.unreached, '')), 2)

    def test_unreached_lines_in_the_list(self):
        kept = 'a.cpp\n  cry();\n      Rare.\n  while (never)\n      Never.\n'
        self.assertEqual(self.faults(self.unreached, kept), [])

    def test_line_in_the_list_that_is_reached(self):
        [fault] = self.faults({3: 1}, 'a.cpp\n  cry();\n      Rare.\n')
        self.assertIn('but reached', fault)

    def test_line_in_the_list_without_a_reason(self):
        with self.assertRaises(SystemExit):
            self.faults({3: 0}, 'a.cpp\n  cry();\n')


if __name__ == '__main__':
    unittest.main()
