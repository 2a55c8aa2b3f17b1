"""The checks that CI makes beside the tests, each in a small tree of its own."""

import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

import world

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


class Tree(unittest.TestCase):
    """A source tree with some scripts of the real one."""

    def setUp(self):
        self.tree = tempfile.mkdtemp(prefix="orv-checks-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.tree, ignore_errors=True)
        subprocess.run(["git", "init", "-q", self.tree], check=True)

    def take(self, name):
        os.makedirs(os.path.dirname(os.path.join(self.tree, name)), exist_ok=True)
        shutil.copy(os.path.join(ROOT, name), os.path.join(self.tree, name))

    def put(self, name, text="", mode=0o755):
        """Makes a file, by default a program, of the test's own."""
        path = os.path.join(self.tree, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\n" + text)
        os.chmod(path, mode)

    def execute(self, name, *arguments):
        """Runs a script of the tree, where stubs/ comes before all other programs; its status, output and errors."""
        path = os.path.join(self.tree, "stubs") + ":" + os.environ["PATH"]
        environment = dict(os.environ, TMPDIR=self.tree, PATH=path)
        result = subprocess.run([os.path.join(self.tree, name), *arguments], env=environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=world.DEADLINE, text=True,
                                check=False)
        return result.returncode, result.stdout, result.stderr


class Includes(Tree):
    """scripts/check-includes"""

    def setUp(self):
        super().setUp()
        self.take("scripts/check-includes")

    def write(self, name, *included):
        """A source with these includes, each as it is spelled: "x.h" or <x.h>."""
        path = os.path.join(self.tree, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as source:
            source.write("// What it is.\n" + "".join("#include %s\n" % each for each in included))

    def findings(self):
        """What the script tells of the files that are written; it fails when it tells something."""
        subprocess.run(["git", "-C", self.tree, "add", "--all"], check=True)
        status, output, errors = self.execute("scripts/check-includes")
        self.assertEqual((status, output), (1 if errors else 0, ""), errors)
        return errors.splitlines()

    def test_a_tree_in_order_is_passed_without_a_word(self):
        self.write("platform/include/orvutils/log.h", "<string>")
        self.write("platform/orvbase/include/orvbase/clock.h", "<ctime>")
        self.write("platform/orvstore/include/orvstore/store.h", "<orvbase/clock.h>")
        self.write("platform/orvstore/store.cpp", "<orvstore/store.h>", "<lmdb.h>")
        self.write("platform/orvutils/log.cpp", "<orvutils/log.h>", '"log_state.h"', "<orvstore/store.h>")
        self.write("platform/orvutils/log_state.h")
        self.write("platform/include/orvexchange/orvexchange.h")
        self.write("platform/orvexchange/link.h", "<orvexchange/orvexchange.h>")
        self.write("platform/orvexchange/orvexchange.cpp", '"link.h"', "<orvutils/log.h>", "<dbus/dbus.h>")
        self.write("platform/orvkarma/orvkarma.cpp", "<orvexchange/orvexchange.h>")
        self.write("libs/orvbroker-client/include/orvbroker/client.h")
        self.write("libs/orvutils/include_cpp/orvutils/orvcommon/cache.h", "<orvutils/log.h>")
        self.write("daemons/orvbrokerd/src/answer.h", "<orvutils/log.h>", "<orvutils/orvcommon/cache.h>")
        self.write("daemons/orvbrokerd/src/sock.h", '"answer.h"')
        self.write("daemons/orvbrokerd/src/main.cpp", '"sock.h"')
        self.write("tools/orvctl/main.cpp", "<orvbroker/client.h>", "<orvstore/store.h>", "<unistd.h>")
        self.write("examples/client.cpp", "<orvbroker/client.h>")
        self.write("bench/load.cpp", "<orvexchange/orvexchange.h>", "<dbus/dbus.h>", "<link.h>")  # the system's
        self.write("tests/platform/link_test.cpp", '"link.h"', '"log_state.h"', "<dbus/dbus.h>", "<lmdb.h>")
        self.assertEqual(self.findings(), [])

    def test_units_of_one_library_that_include_each_other_are_a_circle(self):
        self.write("tools/orvctl/a.h", '"b.h"')
        self.write("tools/orvctl/b.h")
        self.write("tools/orvctl/b.cpp", '"b.h"', '"c.h"')
        self.write("tools/orvctl/c.h", '"a.h"')
        self.write("tools/orvctl/main.cpp", '"a.h"', '"c.h"')
        self.assertEqual(self.findings(), ["tools/orvctl: a circle: a -> b -> c -> a"])

    def test_a_header_apart_in_its_include_folder_is_one_unit_with_its_source(self):
        self.write("libs/orvbroker-client/include/orvbroker/text.h")
        self.write("libs/orvbroker-client/src/text.cpp", "<orvbroker/text.h>", '"deadline.h"')
        self.write("libs/orvbroker-client/src/deadline.h", "<orvbroker/text.h>")
        self.assertEqual(self.findings(), ["libs/orvbroker-client: a circle: deadline -> text -> deadline"])

    def test_each_circle_is_told(self):
        for pair in ("ab", "xy"):
            self.write("tools/orvctl/%s.h" % pair[0], '"%s.h"' % pair[1])
            self.write("tools/orvctl/%s.h" % pair[1], '"%s.h"' % pair[0])
        self.assertEqual(self.findings(), [
            "tools/orvctl: a circle: a -> b -> a", "tools/orvctl: a circle: x -> y -> x"])

    def test_a_leaf_of_the_daemon_must_not_include_a_role(self):
        self.write("daemons/orvbrokerd/src/orvex.h")
        self.write("daemons/orvbrokerd/src/answer.cpp", '"orvex.h"')
        self.assertEqual(self.findings(), [
            "daemons/orvbrokerd/src/answer.cpp:2: the leaf answer must not use the role orvex"])

    def test_libraries_use_those_below_them_only(self):
        self.write("platform/orvbase/include/orvbase/clock.h")
        self.write("platform/include/orvutils/log.h")
        self.write("platform/include/orvexchange/orvexchange.h")
        self.write("libs/orvbroker-client/include/orvbroker/client.h")
        self.write("daemons/orvbrokerd/src/sock.cpp", "<orvbase/clock.h>")
        self.write("libs/orvbroker-client/src/client.cpp", "<orvutils/log.h>")
        self.write("platform/orvbase/clock.cpp", "<orvutils/log.h>")
        self.write("platform/orvdevmgmt/changes.cpp", "<orvexchange/orvexchange.h>")
        self.write("platform/orvutils/log.cpp", "<orvbroker/client.h>")
        self.assertEqual(self.findings(), [
            "daemons/orvbrokerd/src/sock.cpp:2: daemons/orvbrokerd must not use platform/orvbase "
            "(platform/orvbase/include/orvbase/clock.h)",
            "libs/orvbroker-client/src/client.cpp:2: libs/orvbroker-client must not use platform/orvutils "
            "(platform/include/orvutils/log.h)",
            "platform/orvbase/clock.cpp:2: platform/orvbase must not use platform/orvutils "
            "(platform/include/orvutils/log.h)",
            "platform/orvdevmgmt/changes.cpp:2: platform/orvdevmgmt must not use platform/orvexchange "
            "(platform/include/orvexchange/orvexchange.h)",
            "platform/orvutils/log.cpp:2: platform/orvutils must not use libs/orvbroker-client "
            "(libs/orvbroker-client/include/orvbroker/client.h)"])

    def test_nobody_but_tests_uses_tests_and_no_tool_another(self):
        self.write("tests/unit/fixture.h")
        self.write("tests/platform/one_test.cpp", '"../unit/fixture.h"')
        self.write("tools/orvctl/output.h")
        self.write("tools/orvagentsim/main.cpp", '"../../tests/unit/fixture.h"', '"../orvctl/output.h"')
        self.write("bench/wire.h")
        self.write("tools/orvctl/main.cpp", '"../../bench/wire.h"')
        self.assertEqual(self.findings(), [
            "tools/orvagentsim/main.cpp:2: tools/orvagentsim must not use tests/unit (tests/unit/fixture.h)",
            "tools/orvagentsim/main.cpp:3: tools/orvagentsim must not use tools/orvctl (tools/orvctl/output.h)",
            "tools/orvctl/main.cpp:2: tools/orvctl must not use bench (bench/wire.h)"])

    def test_another_librarys_private_header_is_found_however_it_is_spelled(self):
        self.write("platform/orvutils/root.h")
        self.write("libs/orvbroker-client/include/orvbroker/client.h")
        self.write("libs/orvbroker-client/src/deadline.h")
        self.write("platform/orvexchange/a.cpp", '"../orvutils/root.h"')
        self.write("platform/orvexchange/b.cpp", '"root.h"')
        self.write("platform/orvexchange/c.cpp", "<root.h>")
        self.write("tools/orvctl/waiting.h", '"src/deadline.h"', "<deadline.h>")
        private = "platform/orvutils/root.h is private to platform/orvutils"
        deadline = "libs/orvbroker-client/src/deadline.h is private to libs/orvbroker-client"
        self.assertEqual(self.findings(), [
            "platform/orvexchange/a.cpp:2: " + private,
            "platform/orvexchange/b.cpp:2: " + private,
            "platform/orvexchange/c.cpp:2: " + private,
            "tools/orvctl/waiting.h:2: " + deadline,
            "tools/orvctl/waiting.h:3: " + deadline])

    def test_a_folders_own_header_comes_before_one_of_the_same_name_elsewhere(self):
        self.write("platform/orvutils/root.h")
        self.write("platform/orvexchange/root.h")
        self.write("platform/orvexchange/parts/a.cpp", '"root.h"')
        self.assertEqual(self.findings(), [])

    def test_headers_of_the_bus_and_of_the_store_stand_behind_one_library_each(self):
        self.write("platform/orvstore/environment.cpp", "<lmdb.h>")
        self.write("platform/orvutils/settings.cpp", "<lmdb.h>")
        self.write("daemons/orvbrokerd/src/sock.cpp", "<lmdb.h>", "<dbus/dbus.h>")
        self.assertEqual(self.findings(), [
            "daemons/orvbrokerd/src/sock.cpp:2: LMDB stands behind platform/orvstore alone (lmdb.h)",
            "daemons/orvbrokerd/src/sock.cpp:3: D-Bus stands behind platform/orvexchange alone (dbus/dbus.h)",
            "platform/orvutils/settings.cpp:2: LMDB stands behind platform/orvstore alone (lmdb.h)"])

    def test_a_tool_keeps_out_of_detail_headers(self):
        self.write("platform/orvstore/include/orvstore/detail/pages.h")
        self.write("platform/orvstore/pages.cpp", "<orvstore/detail/pages.h>")
        self.write("tools/orvctl/stores.cpp", "<orvstore/detail/pages.h>")
        self.assertEqual(self.findings(), [
            "tools/orvctl/stores.cpp:2: a tool must not use the detail "
            "platform/orvstore/include/orvstore/detail/pages.h"])

    def test_nothing_to_look_at_is_not_nothing_to_find(self):
        self.assertEqual(self.findings(), ["scripts/check-includes: git lists no sources"])
        self.write("tools/orvctl/main.cpp")
        shutil.rmtree(os.path.join(self.tree, ".git"))
        self.assertEqual(self.execute("scripts/check-includes")[0], 1)


class Lint(Tree):
    """scripts/lint"""

    def setUp(self):
        super().setUp()
        self.take("scripts/lint")
        self.put("scripts/setup")
        self.put("stubs/cmake", "echo configuring\n")
        # Finds fault with what has "bad" in its name.
        self.put("stubs/clang-tidy", """echo '7 warnings generated.' >&2
case $* in *bad*) echo "bad: $*"; exit 1 ;; esac
""")
        self.put("stubs/shellcheck", 'case $* in *bad*) echo "bad script"; exit 1 ;; esac\n')
        self.put("tools/orvctl/main.cpp", mode=0o644)

    def lint(self, *arguments):
        subprocess.run(["git", "-C", self.tree, "add", "--all"], check=True)
        return self.execute("scripts/lint", *arguments)

    def test_it_says_nothing_where_there_is_nothing_to_say(self):
        self.put("tests/unit/one_test.cpp", mode=0o644)
        self.assertEqual(self.lint(), (0, "", ""))

    def test_it_looks_at_the_sources_of_every_folder(self):
        for folder in ("daemons/orvbrokerd/src", "libs/x", "platform/x", "tools/x", "tests/unit", "bench", "examples"):
            name = folder + "/bad.cpp"
            self.put("platform/good.cpp", mode=0o644)
            self.put(name, mode=0o644)
            status, _, errors = self.lint()
            self.assertEqual(status, 1, folder)
            self.assertIn("bad: --quiet -p build/debug " + name, errors)
            os.unlink(os.path.join(self.tree, name))

    def test_it_fails_for_a_bad_script(self):
        self.put("platform/good.cpp", mode=0o644)
        for name in ("scripts/bad", "cmake/cross/bad"):
            self.put(name)
            self.assertEqual(self.lint(), (1, "bad script\n", ""), name)
            os.unlink(os.path.join(self.tree, name))

    def test_it_looks_at_those_sources_alone_that_it_is_told(self):
        self.put("platform/bad.cpp", mode=0o644)
        self.assertEqual(self.lint("tools/orvctl/main.cpp"), (0, "", ""))

    def test_a_configuration_that_fails_is_shown_and_is_the_end(self):
        self.put("stubs/cmake", "echo broken >&2\nexit 1\n")
        self.assertEqual(self.lint(), (1, "", "broken\n"))


class Ci(Tree):
    """.ci/run"""

    def setUp(self):
        super().setUp()
        self.take(".ci/run")
        for name in (*self.NAMES, "cross"):
            self.put("scripts/" + name, 'echo "%s $*"\n' % name)

    NAMES = ("setup", "setup-cross", "format", "check-includes", "test", "footprint", "instructions", "lint")
    LAST = "== sizes\nfootprint --check release armmusl\n== instructions\ninstructions --check\n== static checks\nlint \nall passed\n"

    def test_it_passes_when_all_do(self):
        self.assertEqual(self.execute(".ci/run"), (0, "setup \nsetup-cross i686\nformat --check\ncheck-includes \ntest \n"
                                                      "== 32-bit x86\ncross --prepare i686\ncross --test i686\n"
                                                      "== the router\ncross --is-prepared armmusl\ncross armmusl\n" + self.LAST, ""))

    def test_what_cannot_be_had_for_32_bits_is_told_loudly_and_no_failure(self):
        self.put("scripts/cross", '[ "$1" = armmusl ] || exit 3\n')
        self.assertEqual(self.execute(".ci/run"), (0, "setup \nsetup-cross i686\nformat --check\ncheck-includes \ntest \n== 32-bit x86\n"
                                                      "*** NOT TESTED: the libraries for 32-bit x86 cannot be had today, so "
                                                      "nothing was built or tested for 32 bits ***\n== the router\n"
                                                      "not built: there is no tool chain for it here yet (scripts/cross "
                                                      "--prepare makes it)\n" + self.LAST.replace(" armmusl", ""), ""))

    def test_what_fails_on_32_bits_is_a_failure(self):
        for failing in ("--prepare", "--test", "armmusl"):
            self.put("scripts/cross", '[ "$1" != %s ]\n' % failing)
            self.assertEqual(self.execute(".ci/run")[0], 1, failing)

    def test_it_fails_when_anything_does_and_tells_what_the_static_checks_found(self):
        for name in (name for name in self.NAMES if name != "setup-cross"):
            with self.subTest(name=name):
                self.put("scripts/" + name, "echo bad >&2\nexit 1\n")
                status, output, errors = self.execute(".ci/run")
                self.assertEqual(status, 1)
                self.assertIn("bad\n", output + errors)
                self.assertNotIn("all passed", output)
                self.put("scripts/" + name)

    def test_being_interrupted_ends_the_static_checks_too(self):
        self.put("scripts/lint", 'sleep 100 &\necho $! >"%s/started"\nwait\n' % self.tree)
        self.put("scripts/test", 'for _ in $(seq 2000); do [ ! -s "%s/started" ] || break; sleep 0.01; done\necho ready\nexec sleep 100\n' % self.tree)
        with subprocess.Popen([os.path.join(self.tree, ".ci/run")], stdout=subprocess.PIPE, text=True,
                              start_new_session=True) as run:
            self.assertIn("ready\n", iter(run.stdout.readline, ""))
            os.killpg(run.pid, signal.SIGINT)
            self.assertEqual(run.wait(world.DEADLINE), 130)
        self.assertEqual(self.still_running(), [])

    def still_running(self):
        """Of the processes that the scripts have noted, those that do not end."""
        with open(os.path.join(self.tree, "started"), encoding="utf-8") as started:
            pids = [int(pid) for pid in started.read().split()]
        self.assertGreater(len(pids), 0)
        for pid in pids:
            world.wait_until(lambda pid=pid: self.is_over(pid), "process %d has ended" % pid)
        return [pid for pid in pids if not self.is_over(pid)]

    def test_being_told_to_end_ends_the_step_under_it_at_once(self):
        self.put("scripts/lint", "exec sleep 100\n")
        self.put("scripts/test", 'sleep 100 &\necho $! >"%s/started"\necho ready\nwait\n' % self.tree)
        with subprocess.Popen([os.path.join(self.tree, ".ci/run")], stdout=subprocess.PIPE, text=True) as run:
            self.assertIn("ready\n", iter(run.stdout.readline, ""))
            run.terminate()
            self.assertEqual(run.wait(world.DEADLINE), 143)
        self.assertEqual(self.still_running(), [])

    def is_over(self, pid):
        try:
            with open("/proc/%d/stat" % pid, encoding="utf-8") as stat:
                return stat.read().rsplit(")", 1)[1].split()[0] == "Z"
        except (FileNotFoundError, ProcessLookupError):
            return True

    def test_it_leaves_no_file_behind(self):
        before = sorted(os.listdir(self.tree))
        self.execute(".ci/run")
        self.assertEqual(sorted(os.listdir(self.tree)), before)


class Help(unittest.TestCase):
    def test_every_script_tells_how_it_is_used_and_does_nothing_else(self):
        scripts = os.path.join(ROOT, "scripts")
        for name in sorted(name for name in os.listdir(scripts) if os.path.isfile(os.path.join(scripts, name))):
            for option in ("-h", "--help"):
                result = subprocess.run([os.path.join(ROOT, "scripts", name), option], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, timeout=world.DEADLINE, text=True, check=False)
                self.assertEqual((result.returncode, result.stderr), (0, ""), name)
                self.assertRegex(result.stdout, r"\AUsage: scripts/%s\b" % name)

    def test_what_is_meant_for_no_script_is_refused(self):
        for name, argument in (("build", "relaese"), ("format", "--chek"), ("fuzz", "nothing")):
            result = subprocess.run([os.path.join(ROOT, "scripts", name), argument], stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, timeout=world.DEADLINE, text=True, check=False)
            self.assertEqual((result.returncode, result.stdout), (2, ""), name)
            self.assertIn(name, result.stderr)


class Notices(unittest.TestCase):
    """NOTICES, which goes with the programs"""

    # What the build looks for, but does not put into the programs that are installed.
    NOT_LINKED = {"PkgConfig", "Threads", "GTest", "Python3"}

    def libraries(self):
        files = subprocess.run(["git", "-C", ROOT, "ls-files", "*CMakeLists.txt", "*.cmake"], stdout=subprocess.PIPE,
                               text=True, check=True).stdout.split()
        for name in files:
            with open(os.path.join(ROOT, name), encoding="utf-8") as file:
                yield from re.findall(r"^\s*(?:find_package|pkg_check_modules)\((\w+)", file.read(), re.MULTILINE)

    def test_every_library_that_is_linked_is_named_with_its_licence(self):
        with open(os.path.join(ROOT, "NOTICES"), encoding="utf-8") as file:
            parts = re.split(r"^=+\n(.+)\n=+\n", file.read(), flags=re.MULTILINE)
        licences = dict(zip(parts[1::2], parts[2::2]))
        linked = set(self.libraries()) - self.NOT_LINKED
        self.assertTrue({"jansson", "lmdb", "dbus", "fmt", "CLI11"} <= linked, linked)
        for library in [*linked, "libstdc++ and libgcc", "musl"]:
            self.assertRegex(licences.get(library, "not named"), r"(?is)\A\s.*copyright .*(warranty|warranties)", library)
            for name in library.split(" and "):
                self.assertRegex(parts[0], r"(?m)^    %s " % re.escape(name), "the list at the top")


if __name__ == "__main__":
    world.main()
