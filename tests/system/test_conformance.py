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
        self.assertEqual(sources.missing_tests(name for _, names, _ in self.rows for name in names), [])
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

    def missing(self, *names):
        return sources.missing_tests(names, self.root)

    def test_macros_at_the_beginning_of_a_line_are_tests(self):
        self.put("tests/unit/a_test.cpp", "TEST(Plain, One)\n{\n}\n\nTEST_F(Fixture, Two)\nTEST_P(Values, Three)\n")
        self.put("libs/client/tests/b_test.cpp", "TEST(Client, Four)\n// TEST(Client, Five)\n  TEST(Client, Six)\n")
        self.put("tests/unit/notes.txt", "TEST(Client, Seven)\n")
        self.assertEqual(self.missing("Plain.One", "Fixture.Two", "Values.Three", "Client.Four"), [])
        names = ["Client.Five", "Client.Six", "Client.Seven", "Plain.Two"]
        self.assertEqual(self.missing(*names), names)

    def test_methods_of_the_python_tests_here_are_tests_inherited_ones_too(self):
        self.assertEqual(self.missing("system.test_conformance Inherited." + self.id().rpartition(".")[2],
                                      "system.test_conformance Names." + self.id().rpartition(".")[2]), [])
        names = ["system.test_conformance Names.put", "system.test_conformance Names.test_it", "system.test_it A.test_it",
                 "system.test_conformance", "test_conformance Names." + self.id().rpartition(".")[2]]
        self.assertEqual(self.missing(*names), names)


class Inherited(Names):
    pass


if __name__ == "__main__":
    world.main()
