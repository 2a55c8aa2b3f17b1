"""scripts/instructions: whether the daemon executes more than it did. What counts is replaced by given figures here."""

import os
import shutil

import world
from test_developer_scripts import SCRIPTS, Tree

BENCH = os.path.join(os.path.dirname(SCRIPTS), "bench")
TABLE = """instructions       orvbrokerd   limit-json
request                {:>6}        2,000
listed device          70,000            -
"""


class Instructions(Tree):
    def setUp(self):
        super().setUp()
        self.take("instructions")
        self.put("scripts/setup")
        self.put("scripts/build", 'echo "$*" >>%s\n' % self.path("built"))
        os.mkdir(self.path("bench"))
        shutil.copy(os.path.join(BENCH, "instructions"), self.path("bench"))
        self.expected = self.path("bench", "instructions.expected")
        self.count(1000)

    def count(self, request):
        """What the measurement gives."""
        self.put("bench/count-instructions", "printf 'request\\t%d\\t2000\\nlisted device\\t70000\\t-\\n'\n" % request)

    def run_it(self, *arguments):
        result = self.execute("instructions", *arguments)
        return result.returncode, result.stdout, result.stderr

    def test_the_figures_are_printed_for_what_is_built(self):
        self.assertEqual(self.run_it(), (0, TABLE.format("1,000"), ""))
        with open(self.path("built"), encoding="utf-8") as built:
            self.assertEqual(built.read(), "release bench_instructions\n")
        self.assertFalse(os.path.exists(self.expected))

    def test_what_was_written_is_what_is_expected(self):
        self.assertEqual(self.run_it("--write"), (0, TABLE.format("1,000"), ""))
        self.assertEqual(self.run_it("--check"), (0, TABLE.format("1,000"), ""))

    def test_what_has_risen_by_no_more_than_two_percent_passes(self):
        self.run_it("--write")
        for count in (1, 1020):
            self.count(count)
            self.assertEqual(self.run_it("--check")[::2], (0, ""))

    def test_what_has_risen_by_more_fails_and_is_told(self):
        self.run_it("--write")
        self.count(1021)
        self.assertEqual(self.run_it("--check"), (
            1, TABLE.format("1,021"), "scripts/instructions: \"request\" takes 1,021 instructions, 2.1 % more than 1,000: make it "
                                      "faster, or run scripts/instructions --write and say why\n"))

    def test_a_check_changes_nothing(self):
        self.run_it("--write")
        self.count(1021)
        for _ in range(2):
            self.assertEqual(self.run_it("--check")[0], 1)

    def test_a_figure_that_nobody_expects_is_no_success(self):
        with open(self.expected, "w", encoding="utf-8") as file:
            file.write("# others\nlisted device\t70000\t-\n")
        self.assertEqual(self.run_it("--check")[::2], (
            1, "scripts/instructions: bench/instructions.expected does not tell of \"request\": run scripts/instructions --write\n"))

    def test_a_measurement_that_fails_is_no_success_and_writes_nothing(self):
        self.put("bench/count-instructions", "printf 'request\\t1\\t1\\n'\nexit 3\n")
        for arguments in ((), ("--check",), ("--write",)):
            self.assertEqual(self.run_it(*arguments), (1, "", "scripts/instructions: the measurement has failed\n"))
        self.assertFalse(os.path.exists(self.expected))

    def test_wrong_usage(self):
        for arguments, error in ((("--nonsense",), "no such option: --nonsense"),
                                 (("--check", "--write"), "one option at a time: --check --write")):
            self.assertEqual(self.run_it(*arguments),
                             (2, "", "scripts/instructions: %s (see scripts/instructions --help)\n" % error))


if __name__ == "__main__":
    world.main()
