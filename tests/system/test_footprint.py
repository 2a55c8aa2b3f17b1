"""scripts/footprint: whether a program has grown, and what the document tells."""

import os
import re
import shutil
import subprocess
import sys
import unittest

import world
from test_developer_scripts import SCRIPTS, Tree

SOURCE = os.path.dirname(SCRIPTS)
MACHINES = ("32-bit ARM, musl, all static", "x86-64, glibc, libraries static")
DOCUMENT = """# Footprint

|  | orvbrokerd | orvctl |
|---|---:|---:|
| 32-bit ARM, musl, all static | 1,000 | 3,000 |
| x86-64, glibc, libraries static | 2,000 | 4,000 |

| others | 1 | 2 | 3 |
"""


class Check(Tree):
    def setUp(self):
        super().setUp()
        self.take("footprint")
        os.mkdir(self.path("bench"))
        with open(os.path.join(SOURCE, "bench", "footprint"), encoding="utf-8") as file:
            text = file.read()
        with open(self.path("bench", "footprint"), "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(self.path("bench", "footprint"), 0o755)
        os.mkdir(self.path("docs"))
        with open(self.path("docs", "footprint.md"), "w", encoding="utf-8") as file:
            file.write(DOCUMENT)
        self.put("stubs/strip", 'cp "$3" "$2"\n')
        self.put("stubs/arm-linux-gnueabihf-strip", 'cp "$3" "$2"\n')

    def build(self, preset, **sizes):
        os.makedirs(self.path("build", preset, "bin"), exist_ok=True)
        with open(self.path("build", preset, "CMakeCache.txt"), "w", encoding="utf-8") as file:
            file.write("ORV_CROSS_ROOT:UNINITIALIZED=%s\n" % self.path("cache"))
        for name, size in sizes.items():
            with open(self.path("build", preset, "bin", name), "wb") as file:
                file.write(b"x" * size)

    def check(self, *presets):
        result = self.execute("footprint", "--check", *presets)
        return result.returncode, result.stdout, result.stderr

    def test_what_is_no_more_than_two_percent_larger_passes(self):
        self.build("release", orvbrokerd=2040, orvctl=10)
        self.build("armmusl", orvbrokerd=1020, orvctl=3060)
        self.assertEqual(self.check(), (0, "orvbrokerd, 32-bit ARM, musl, all static: 1020 bytes, at most 1020\n"
                                           "orvctl, 32-bit ARM, musl, all static: 3060 bytes, at most 3060\n"
                                           "orvbrokerd, x86-64, glibc, libraries static: 2040 bytes, at most 2040\n"
                                           "orvctl, x86-64, glibc, libraries static: 10 bytes, at most 4080\n", ""))

    def test_what_has_grown_by_more_fails(self):
        for sizes in ({"orvbrokerd": 2041, "orvctl": 4000}, {"orvbrokerd": 2000, "orvctl": 4081}):
            self.build("release", **sizes)
            status, _, errors = self.check()
            self.assertEqual(status, 1)
            self.assertEqual(errors, "scripts/footprint: %s has grown by more than 2 %%: make it smaller, or run "
                                     "scripts/footprint --write and say why\n" % ("orvctl" if sizes["orvctl"] > 4080 else "orvbrokerd"))

    def test_what_is_not_built_is_told(self):
        self.build("release", orvbrokerd=1, orvctl=1)
        status, output, _ = self.check()
        self.assertEqual(status, 0)
        self.assertIn("orvbrokerd, 32-bit ARM, musl, all static: not built, not compared\n", output)

    def test_only_what_was_built_by_the_named_presets_is_compared(self):
        self.build("release", orvbrokerd=1, orvctl=1)
        self.build("armmusl", orvbrokerd=9999, orvctl=9999)
        self.assertEqual(self.check()[0], 1)
        self.assertEqual(self.check("release")[::2], (0, ""))
        self.assertEqual(self.check("release", "armmusl")[0], 1)
        self.assertEqual(self.check("releas"), (2, "", "scripts/footprint: no such preset: releas (see scripts/footprint --help)\n"))

    def test_a_tool_that_is_missing_is_told(self):
        self.build("release", orvbrokerd=1, orvctl=1)
        os.chmod(self.path("stubs", "strip"), 0o644)
        os.rename(self.path("stubs", "strip"), self.path("stubs", "other"))
        environment = self.environment(PATH=self.path("only"))
        os.mkdir(self.path("only"))
        os.symlink(sys.executable, self.path("only", "python3"))  # by its name there may be a script that needs more
        for name in ("env", "dirname", "sh"):
            os.symlink(shutil.which(name), self.path("only", name))
        result = subprocess.run([self.path("scripts", "footprint"), "--check"], env=environment, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, timeout=world.DEADLINE, check=False)
        self.assertEqual((result.returncode, result.stderr),
                         (1, "scripts/footprint: cannot run strip: No such file or directory\n"))

    def test_nothing_built_is_no_success(self):
        self.assertEqual(self.check()[::2], (1, "scripts/footprint: nothing is built: run scripts/build first\n"))

    def test_a_document_without_a_size_is_no_success(self):
        self.build("release", orvbrokerd=1, orvctl=1)
        with open(self.path("docs", "footprint.md"), "w", encoding="utf-8") as file:
            file.write(DOCUMENT.replace("x86-64", "other"))
        self.assertEqual(self.check()[::2], (1, "scripts/footprint: docs/footprint.md does not tell how large orvbrokerd is for "
                                                "x86-64, glibc, libraries static: run scripts/footprint --write\n"))

    def test_what_was_stripped_for_it_is_gone_afterwards(self):
        self.build("release", orvbrokerd=1, orvctl=1)
        self.check()
        self.assertEqual(sorted(os.listdir(self.path("build", "release"))), ["CMakeCache.txt", "bin"])

    def test_wrong_usage(self):
        result = self.execute("footprint", "--nonsense")
        self.assertEqual((result.returncode, result.stderr),
                         (2, "scripts/footprint: no such option: --nonsense (see scripts/footprint --help)\n"))


class Document(unittest.TestCase):
    def setUp(self):
        with open(os.path.join(SOURCE, "docs", "footprint.md"), encoding="utf-8") as file:
            self.text = file.read()

    def number(self, pattern):
        return float(re.search(pattern, self.text, re.MULTILINE | re.DOTALL)[1].replace(",", ""))

    def test_it_has_a_chapter_for_each_machine(self):
        self.assertEqual(re.findall(r"^## (.*)$", self.text, re.MULTILINE), list(MACHINES))

    def test_the_router_has_room(self):
        of_router = self.text.index("## " + MACHINES[0])
        self.assertLessEqual(self.number(r"^\| 32-bit ARM[^|]*\| ([\d,]+) \|"), 480_000)
        self.assertLessEqual(self.number(r"^\| 32-bit ARM[^|]*\| [\d,]+ \| ([\d,]+) \|"), 700_000)
        self.text = self.text[of_router:self.text.index("## " + MACHINES[1])]
        self.assertLessEqual(self.number(r"The daemon, idle.*?^\| together \| ([\d,]+) \|"), 800)
        self.assertLessEqual(self.number(r"The daemon, idle.*?^\| together \| [\d,]+ \| ([\d,]+) \|"), 150)
        self.assertLessEqual(self.number(r"^Each idle connection takes ([\d.]+) kB"), 8.6)


if __name__ == "__main__":
    world.main()
