"""docs/conformance.md: every rule with the test that holds it, and every test that it names is there."""

import os
import re
import shutil
import tempfile
import unittest

import sources
import world

DOCUMENT = os.path.join(sources.ROOT, "docs", "conformance.md")


def rows(text):
    """Of each row of its tables the rule and the names of its tests."""
    for line in text.splitlines():
        if line.startswith("|") and line != "| rule | test |" and not re.fullmatch(r"[|-]+", line):
            rule, _, tests = line[len("| "):-len(" |")].rpartition(" | ")
            yield rule, re.findall(r"`([^`]+)`", tests), re.sub(r"`[^`]+`", "", tests)


class Document(unittest.TestCase):
    def setUp(self):
        with open(DOCUMENT, encoding="utf-8") as file:
            self.rows = list(rows(file.read()))

    def test_each_rule_names_tests_that_are_there(self):
        self.assertGreater(len(self.rows), 0)
        there = sources.test_names()
        self.assertEqual([(rule, name) for rule, names, _ in self.rows for name in names if name not in there], [])
        self.assertEqual([rule for rule, names, _ in self.rows if not names], [])

    def test_there_is_nothing_but_names_beside_a_rule(self):
        self.assertEqual([(rule, rest) for rule, _, rest in self.rows if rest.strip(", ")], [])

    def test_no_rule_stands_twice(self):
        rules = [rule for rule, _, _ in self.rows]
        self.assertEqual(sorted({rule for rule in rules if rules.count(rule) > 1}), [])


class Names(unittest.TestCase):
    """What is taken for a test's name."""

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="orv-names-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.root)

    def put(self, name, text):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)

    def names(self):
        return sorted(sources.test_names(self.root))

    def test_macros_and_methods_at_their_places_are_tests(self):
        self.put("tests/unit/a_test.cpp", "TEST(Plain, One)\n{\n}\n\nTEST_F(Fixture, Two)\nTEST_P(Values, Three)\n")
        self.put("libs/client/tests/b_test.cpp", "TEST(Client, Four)\n")
        self.put("tests/system/test_it.py", "class A(B):\n    def test_five(self):\n\nclass C:\n    def test_six(self):\n")
        self.assertEqual(self.names(), ["Client.Four", "Fixture.Two", "Plain.One", "Values.Three",
                                        "system.test_it A.test_five", "system.test_it C.test_six"])

    def test_what_is_commented_out_or_elsewhere_is_none(self):
        self.put("tests/unit/a_test.cpp", "// TEST(Plain, One)\n  TEST(Plain, Two)\n")
        self.put("tests/unit/notes.txt", "TEST(Plain, Three)\n")
        self.put("tests/system/helper.py", "class A:\n    def test_four(self):\n")
        self.put("tests/system/test_it.py", "def test_five():\n\nclass A:\n    def helper(self):\n        def test_six():\n")
        self.assertEqual(self.names(), [])


if __name__ == "__main__":
    world.main()
