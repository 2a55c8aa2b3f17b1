"""scripts/mutate and scripts/coverage, on a small tree whose tests see one function's results and not another's."""

import os
import shutil
import signal
import subprocess
import tempfile
import unittest

import world

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
CMAKE = """cmake_minimum_required(VERSION 3.25)
project(small LANGUAGES CXX)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_SKIP_INSTALL_RULES ON)
enable_testing()
add_executable(small_test tests/small_test.cpp platform/seen.cpp platform/unseen.cpp tools/orvctl/tool.cpp)
add_test(NAME small COMMAND small_test)
"""
SEEN = """int seen(int value)
{
    if (value > 2)
        return value + 10;
    return 7;
}
"""
UNSEEN = """int unseen(int value)
{
    if (value > 100)
        return value + 10;
    return 8;
}
"""
TOOL = """int tool(int value)
{
    if (value != 3)
        return 5;
    return 6;
}
"""
TEST = """int seen(int);
int unseen(int);
int tool(int);
int main()
{
    unseen(3);
    tool(3);
    return seen(2) == 7 && seen(3) == 13 && seen(4) == 14 ? 0 : 1;
}
"""
# With the seed 1, each kind of change that there is in one of these small sources.
ALL = "8"


class Tree(unittest.TestCase):
    """The tree is made and built once, and each test changes what it needs."""

    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp(prefix="orv-measuring-", dir="/tmp")
        cls.addClassCleanup(shutil.rmtree, cls.scratch, ignore_errors=True)
        cls.tree = os.path.join(cls.scratch, "tree")
        os.mkdir(cls.tree)
        subprocess.run(["git", "init", "-q", cls.tree], check=True)
        for name in ("mutate", "coverage", "measure"):
            path = os.path.join(SOURCE, "scripts", name)
            copy = shutil.copytree if os.path.isdir(path) else shutil.copy
            os.makedirs(os.path.join(cls.tree, "scripts"), exist_ok=True)
            copy(path, os.path.join(cls.tree, "scripts", name))

    def setUp(self):
        shutil.rmtree(os.path.join(self.tree, "tests"), ignore_errors=True)
        for name, text in (("CMakeLists.txt", CMAKE), ("platform/seen.cpp", SEEN), ("platform/unseen.cpp", UNSEEN),
                           ("tools/orvctl/tool.cpp", TOOL), ("tests/small_test.cpp", TEST)):
            self.put(name, text)

    def put(self, name, text):
        path = os.path.join(self.tree, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)

    def execute(self, name, *arguments):
        """A script's status, output and errors. Both work in the same place, so that the tree is built once."""
        work = os.path.join(self.scratch, "work")
        result = subprocess.run([os.path.join(self.tree, "scripts", name), "--work", work, *arguments],
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                timeout=world.DEADLINE * 6, check=False)
        return result.returncode, result.stdout, result.stderr

    def check_refused(self, name, arguments, words):
        status, output, errors = self.execute(name, *arguments)
        self.assertEqual((status, output), (2, ""), errors)
        self.assertRegex(errors, r"(?m)^scripts/%s: " % name)
        self.assertIn(words, errors)


class Mutate(Tree):
    def mutate(self, *arguments):
        return self.execute("mutate", *arguments)

    def test_wrong_usage_is_refused(self):
        for arguments, words in (((), "how many mistakes?"), (("0",), "argument N"), (("--sed", "1", "5"), "--sed"),
                                 (("--jobs", "none", "5"), "--jobs"), (("5", "6"), "6")):
            self.check_refused("mutate", arguments, words)

    def test_a_tree_without_such_sources_is_refused(self):
        self.check_refused("mutate", ("--only", "platform/nothing", "5"), "no source of the daemon or the platform")
        self.check_refused("mutate", ("--only", "tools", "5"), "no source of the daemon or the platform")

    def test_a_tree_that_does_not_build_or_pass_is_refused(self):
        self.put("platform/seen.cpp", SEEN + "unfinished\n")
        self.check_refused("mutate", ("5",), "error: ")
        self.put("platform/seen.cpp", SEEN.replace("7", "9"))
        self.check_refused("mutate", ("5",), "these tests fail without any mistake:\nsmall")

    def test_mistakes_that_a_test_sees_are_caught(self):
        status, output, errors = self.mutate("--only", "platform/seen.cpp", ALL)
        self.assertEqual(status, 0, output + errors)
        self.assertIn("noticed: 100.0 % of 8\n", output)
        with open(os.path.join(self.tree, "platform", "seen.cpp"), encoding="utf-8") as file:
            self.assertEqual(file.read(), SEEN)

    def test_mistakes_that_no_test_sees_survive_and_are_told(self):
        status, output, errors = self.mutate("--only", "platform/unseen.cpp", ALL)
        self.assertEqual(status, 1, output + errors)
        self.assertIn("noticed: 0.0 % of 8\n", output)
        self.assertIn("platform/unseen.cpp:3: condition negated\n  - if (value > 100)\n  + if (!(value > 100))\n", output)
        self.assertIn("platform/unseen.cpp:4: return value (no test comes here)\n", output)
        with open(os.path.join(self.scratch, "work", "result.txt"), encoding="utf-8") as file:
            self.assertTrue(output.endswith(file.read()))

        # A test that is written then is tried on these alone.
        self.put("tests/small_test.cpp", TEST.replace("unseen(3);", "if (unseen(3) != 8) return 1;"))
        status, output, errors = self.mutate("--survivors", "--only", "platform/unseen.cpp")
        self.assertEqual(status, 1, output + errors)
        self.assertNotIn("condition negated\n  -", output)
        self.assertIn("return value (no test comes here)\n", output)

    def test_a_change_that_is_known_to_do_nothing_is_not_tried(self):
        self.put("tests/equivalent-mutations.txt", "".join(
            "platform/unseen.cpp\n- %s\n+ %s\n    Nobody asks for large values.\n\n" % change for change in (
                ("if (value > 100)", "if (value >= 100)"), ("if (value > 100)", "if (!(value > 100))"))))
        status, output, errors = self.mutate("--only", "platform/unseen.cpp", ALL)
        self.assertEqual(status, 1, output + errors)
        self.assertIn("noticed: 0.0 % of 6\n", output)
        self.assertRegex(output, r"all +0 +6 +0 +2\n")

        self.put("platform/unseen.cpp", UNSEEN.replace("100", "200"))
        self.check_refused("mutate", ("5",), "the source has no such line any more")
        self.put("tests/equivalent-mutations.txt", "platform/unseen.cpp\n- if (value > 200)\n+ if (value)\n")
        self.check_refused("mutate", ("5",), "equivalent-mutations.txt:1: an entry has a line of the source and a reason")

    def test_the_same_seed_makes_the_same_mistakes(self):
        one, other, third = (self.mutate("--list", "--seed", seed, "9") for seed in ("1", "1", "2"))
        self.assertEqual(one[::2], (0, ""))
        self.assertEqual(one[1].count("\n  + "), 9)
        self.assertEqual(one, other)
        self.assertNotEqual(one, third)

    def test_a_run_that_was_stopped_goes_on(self):
        state = os.path.join(self.scratch, "work", "state.jsonl")
        whole = self.mutate("--only", "platform/seen.cpp", "--seed", "3", "5")[1]
        with open(state, encoding="utf-8") as file:
            lines = file.readlines()
        with open(state, "w", encoding="utf-8") as file:
            file.writelines(lines[:3] + [lines[3][:20]])
        status, output, errors = self.mutate("--resume")
        self.assertEqual(status, 0, output + errors)
        self.assertEqual(output, whole)
        self.put("platform/seen.cpp", SEEN.replace("10", "11"))
        self.check_refused("mutate", ("--resume",), "the tree is not the one of the run that was stopped")
        os.unlink(state)
        self.check_refused("mutate", ("--resume",), "there is no run to go on with")


class Coverage(Tree):
    UNREACHED = "platform/unseen.cpp\n= if (value > 100)\n- return value + 10;\n    Nobody asks for large values.\n"

    def coverage(self, *arguments):
        return self.execute("coverage", *arguments)

    def test_wrong_usage_is_refused(self):
        for arguments, words in ((("--chek",), "--chek"), (("all",), "all"), (("--jobs", "0"), "--jobs"),
                                 (("--tests", "nothing"), "there are no such tests")):
            self.check_refused("coverage", arguments, words)

    def test_it_tells_what_is_run_of_each_source(self):
        status, output, errors = self.coverage()
        self.assertEqual((status, errors), (0, ""), output)
        self.assertRegex(output, r"\nplatform/seen\.cpp +3 +100\.0% +2 +100\.0%\n")
        self.assertRegex(output, r"\nplatform/unseen\.cpp +3 +66\.7% +2 +50\.0%\n")
        self.assertRegex(output, r"\nall +9 +77\.8% +6 +66\.7%\n")
        report = os.path.join(self.scratch, "work", "report")
        with open(os.path.join(report, "table.txt"), encoding="utf-8") as file:
            self.assertTrue(output.startswith(file.read()))
        self.assertTrue(os.path.exists(os.path.join(report, "index.html")))

    def test_a_line_that_is_not_run_must_be_listed_and_one_that_is_run_must_not(self):
        status, output, errors = self.coverage("--check")
        self.assertEqual((status, errors), (1, ""), output)
        self.assertEqual(output.splitlines()[-2:], [
            "platform/unseen.cpp:4: no test runs this line, and tests/unreached.txt does not list it: "
            "return value + 10;",
            "tools/orvctl: 66.7 of 100 lines are run, at least 94 must be"])

        self.put("tests/unreached.txt", self.UNREACHED)
        self.put("tests/small_test.cpp", TEST.replace("tool(3)", "tool(3); tool(4)"))
        status, output, errors = self.coverage("--check")
        self.assertEqual((status, errors), (0, ""), output)

        self.put("tests/unreached.txt", self.UNREACHED + "\nplatform/seen.cpp\n- return 7;\n    Why not?\n")
        status, output, errors = self.coverage("--check", "--report")
        self.assertEqual((status, errors), (1, ""), output)
        self.assertEqual(output.splitlines()[-1], "tests/unreached.txt: unreached.txt:6: a test runs line 5: return 7;")

        self.put("tests/unreached.txt", self.UNREACHED.replace("100", "200"))
        status, output, errors = self.coverage("--check", "--report")
        self.assertEqual((status, errors), (1, ""), output)
        self.assertIn("unreached.txt:1: the source has no such lines any more: return value + 10;", output)

    def test_a_test_that_fails_is_a_failure(self):
        self.put("tests/small_test.cpp", TEST.replace("7", "9"))
        status, output, errors = self.coverage()
        self.assertEqual((status, errors), (1, ""), output)
        self.assertEqual(output.splitlines()[-1], "failed: small")

    def test_what_is_killed_has_counted(self):
        self.put("tests/small_test.cpp", "#include <csignal>\n#include <unistd.h>\n#include <sys/wait.h>\n" + TEST.replace(
            "unseen(3);", "if (fork() == 0) { unseen(101); raise(%d); }\n    wait(nullptr);" % signal.SIGKILL))
        status, output, errors = self.coverage()
        self.assertEqual((status, errors), (0, ""), output)
        self.assertRegex(output, r"\nplatform/unseen\.cpp +3 +66\.7% ")


if __name__ == "__main__":
    world.main()
