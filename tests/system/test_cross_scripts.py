"""scripts/cross: what it keeps, what it says when that cannot be had, and what it leaves behind. What is kept is made by a
stand-in here."""

import os
import re
import signal
import subprocess
import unittest

import sources
import world
from test_developer_scripts import SCRIPTS, Tree

SOURCE = os.path.dirname(SCRIPTS)


def is_running(pid):
    try:
        return world.state_of(pid) != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False


class Cross(Tree):
    def setUp(self):
        super().setUp()
        for name in ("cross", "setup-cross", "install-packages"):
            self.take(name)
        self.put("scripts/setup")
        self.put("cmake/cross/packages.sh")
        self.put("cmake/cross/i686.cmake")
        self.put("stubs/g++", "echo 12\n")
        self.put("stubs/dpkg-query", "echo 'install ok installed'\n")
        self.put("stubs/cmake", 'echo "$*" >>"%s"\nmkdir -p build/i686\n' % self.path("calls"))
        self.cache = self.path("cache", "of crosses")
        self.makes("mkdir $1/lib\necho made >$1/lib/made\n")

    def makes(self, text):
        """What makes the libraries."""
        self.put("cmake/cross/make-i686", 'echo "making them"\nset -e\ndirectory="$1"\nset -- "$1" "$2"\n'
                 + text.replace("$1", '"$1"').replace("$2", '"$2"'))

    def cross(self, *arguments, **extra):
        return self.execute("cross", *arguments, "i686", ORV_CROSS_CACHE=self.cache, **extra)

    def prepare(self, status=0, **extra):
        """What it says."""
        result = self.cross("--prepare", **extra)
        self.assertEqual(result.returncode, status, result)
        return result.stdout + result.stderr

    def is_prepared(self):
        return self.cross("--is-prepared").returncode == 0

    def text(self, name):
        """What is in a file of the tree; nothing before it is there."""
        try:
            with open(self.path(name), encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def left_behind(self):
        return sorted(name for name in os.listdir(self.cache) if not name.endswith(".lock"))

    def test_what_it_needs_is_made_once(self):
        self.assertFalse(self.is_prepared())
        self.assertEqual(self.prepare(), "making the tool chain and the libraries for i686, once:\nmaking them\n")
        self.assertEqual(self.left_behind(), ["i686"])
        self.assertTrue(self.is_prepared())
        self.assertEqual(self.prepare(), "")

    def test_what_is_damaged_is_made_again(self):
        self.prepare()
        for damage in (lambda path: os.unlink(path), lambda path: self.put(path, "other"),
                       lambda path: self.put(path + "2", "more")):
            damage(os.path.join(self.cache, "i686", "lib", "made"))
            self.assertFalse(self.is_prepared())
            self.assertIn("i686 is damaged: it is made again\n", self.prepare())
            self.assertEqual(self.prepare(), "")

    def test_what_was_not_finished_is_made_again(self):
        self.prepare()
        os.unlink(os.path.join(self.cache, "i686", ".made"))
        self.assertIn("i686 was not finished: it is made again\n", self.prepare())
        self.assertEqual(self.prepare(), "")

    def test_what_is_of_another_version_is_made_again(self):
        self.prepare()
        for change in (lambda: self.put("cmake/cross/packages.sh", "# otherwise\n"), lambda: self.put("stubs/g++", "echo 13\n")):
            change()
            self.assertFalse(self.is_prepared())
            self.assertIn("i686 is of another version: it is made again\n", self.prepare())
            self.assertEqual(self.prepare(), "")

    def test_what_fails_leaves_nothing(self):
        self.makes("echo half >$1/half\necho half >$2/half\nexit 1\n")
        self.prepare(status=1)
        self.assertEqual(self.left_behind(), [])

    def test_what_is_interrupted_leaves_nothing(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            self.makes("echo half >$1/half\necho half >$2/half\necho started >'%s'\nexec sleep 100\n" % self.path("started"))
            script = subprocess.Popen([self.path("scripts", "cross"), "--prepare", "i686"], start_new_session=True,
                                      stdout=subprocess.DEVNULL, env=self.environment(ORV_CROSS_CACHE=self.cache))
            world.wait_until(lambda: os.path.exists(self.path("started")), "it is being made")
            os.killpg(script.pid, number)
            self.assertNotEqual(script.wait(world.DEADLINE), 0)
            self.assertEqual(self.left_behind(), [])
            os.unlink(self.path("started"))

    def test_being_told_to_end_is_heeded_at_once(self):
        self.makes("echo half >$1/half\nsleep 100 &\necho $! >'%s'\nwait\n" % self.path("started"))
        script = subprocess.Popen([self.path("scripts", "cross"), "--prepare", "i686"], stdout=subprocess.DEVNULL,
                                  env=self.environment(ORV_CROSS_CACHE=self.cache))
        started = world.wait_until(lambda: self.text("started"), "it is being made")
        script.terminate()
        self.assertEqual(script.wait(world.DEADLINE), 143)
        self.assertEqual(self.left_behind(), [])
        world.wait_until(lambda: not is_running(int(started)), "what it started has ended")

    def test_what_somebody_builds_with_is_not_made_again_under_him(self):
        self.put("stubs/cmake", 'mkdir -p build/i686\necho "$*" >>"%s"\nfor _ in $(seq 2000); do [ ! -e "%s" ] || break; sleep 0.01; done\n'
                 % (self.path("calls"), self.path("go on")))
        command = [self.path("scripts", "cross"), "i686"]
        environment = self.environment(ORV_CROSS_CACHE=self.cache)
        builds = subprocess.Popen(command, env=environment, stdout=subprocess.DEVNULL)
        world.wait_until(lambda: os.path.exists(self.path("calls")), "it builds")
        self.put("cmake/cross/packages.sh", "# otherwise\n")
        with subprocess.Popen([*command, "--prepare"], env=environment, stdout=subprocess.PIPE, text=True) as makes:
            self.assertEqual(makes.stdout.readline(), "waiting for another scripts/cross\n")
            self.assertTrue(os.path.exists(os.path.join(self.cache, "i686", "lib", "made")))
            self.put("go on")
            self.assertIn("i686 is of another version: it is made again\n", makes.stdout.read())
        self.assertEqual((builds.wait(world.DEADLINE), makes.returncode), (0, 0))
        self.assertTrue(self.is_prepared())

    def test_what_a_machine_left_that_went_down_is_removed(self):
        os.makedirs(os.path.join(self.cache, "work.i686.123456"))
        self.prepare()
        self.assertEqual(self.left_behind(), ["i686"])

    def test_the_second_of_two_waits_and_finds_it_made(self):
        self.makes("echo made >$1/made\necho once >>'%s'\nfor _ in $(seq 2000); do [ ! -e '%s' ] || break; sleep 0.01; done\n"
                   % (self.path("times"), self.path("go on")))
        command = [self.path("scripts", "cross"), "--prepare", "i686"]
        environment = self.environment(ORV_CROSS_CACHE=self.cache)
        first = subprocess.Popen(command, env=environment, stdout=subprocess.DEVNULL)
        world.wait_until(lambda: os.path.exists(self.path("times")), "the first one makes it")
        with subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, text=True) as second:
            self.assertEqual(second.stdout.readline(), "waiting for another scripts/cross\n")
            self.put("go on")
            self.assertEqual(second.stdout.read(), "")
        self.assertEqual((first.wait(world.DEADLINE), second.returncode), (0, 0))
        with open(self.path("times"), encoding="utf-8") as times:
            self.assertEqual(times.read(), "once\n")

    def test_too_little_space_is_told_before_anything_is_made(self):
        self.put("stubs/df", "echo; echo 'disk 100 90 10 90% /'\n")
        self.assertEqual(self.prepare(status=1), "scripts/cross: 10 MB are free below %s, and 900 are needed: ORV_CROSS_CACHE "
                         "can name another directory\n" % self.cache)
        self.assertEqual(self.left_behind(), [])

    def test_a_directory_that_cannot_be_made_is_told(self):
        self.cache = "/proc/nowhere"
        self.assertEqual(self.prepare(status=1), "scripts/cross: cannot make the directory /proc/nowhere\n")

    def test_missing_packages_are_told_by_name(self):
        self.put("stubs/dpkg-query", "echo unknown\n")
        self.put("stubs/id", "echo 1000\n")
        self.put("stubs/sudo", "echo no >&2; exit 1\n")
        self.assertIn("installing: g++-12-multilib\n", self.prepare(status=3))
        self.assertFalse(os.path.exists(self.cache))

    def test_nothing_is_installed_where_that_is_forbidden(self):
        self.put("stubs/dpkg-query", "echo unknown\n")
        self.assertNotIn("installing", self.prepare(ORV_CROSS_INSTALL="no"))

    def test_the_build_is_configured_with_what_was_made_and_anew_when_it_is_another(self):
        self.assertEqual(self.cross().returncode, 0)
        made = os.path.join(self.cache, "i686")
        configured = "--preset i686 -DORV_CROSS_ROOT=" + made
        built = "--build --preset i686"
        self.assertEqual(self.calls(), [configured, built])
        self.put("build/i686/object")
        self.assertEqual(self.cross().returncode, 0)
        self.assertEqual(self.calls(), [built])
        self.assertTrue(os.path.exists(self.path("build", "i686", "object")))
        self.put("cmake/cross/packages.sh", "# otherwise\n")
        self.assertEqual(self.cross().returncode, 0)
        self.assertEqual(self.calls(), [configured, built])
        self.assertFalse(os.path.exists(self.path("build", "i686", "object")))
        self.cache = self.path("elsewhere")
        self.assertEqual(self.cross().returncode, 0)
        self.assertEqual(self.calls(), [configured.replace(made, os.path.join(self.cache, "i686")), built])

    def calls(self):
        with open(self.path("calls"), "r+", encoding="utf-8") as calls:
            lines = calls.read().splitlines()
            calls.truncate(0)
        return lines

    def test_wrong_usage(self):
        for arguments, complaint in ((["--nonsense"], "no such option: --nonsense"), (["mips"], "no such preset: mips"),
                                     (["i686", "armmusl"], "one preset at a time")):
            result = self.execute("cross", *arguments, ORV_CROSS_CACHE=self.cache)
            self.assertEqual((result.returncode, result.stderr),
                             (2, "scripts/cross: %s (see scripts/cross --help)\n" % complaint))
        self.assertFalse(os.path.exists(self.cache))

    def test_help_names_where_it_keeps_things(self):
        result = self.execute("cross", "--help", ORV_CROSS_CACHE=self.cache)
        self.assertEqual(result.returncode, 0)
        self.assertIn("(%s)" % self.cache, result.stdout)


class Fetching(Tree):
    """What fetches packages, with a package manager that has none."""

    def setUp(self):
        super().setUp()
        for name in ("cross", "setup-cross", "install-packages"):
            self.take(name)
        for name in ("packages.sh", "make-i686", "i686.cmake"):
            self.copy("cmake/cross/" + name)
        self.put("scripts/setup")
        self.put("stubs/dpkg-query", "echo 'install ok installed'\n")
        self.put("stubs/g++", "echo 12\n")

    def copy(self, name):
        with open(os.path.join(SOURCE, name), encoding="utf-8") as file:
            self.put(name, file.read())

    def errors(self, apt_get, status):
        self.put("stubs/apt-get", apt_get)
        result = self.execute("cross", "--prepare", "i686", ORV_CROSS_CACHE=self.path("cache"))
        self.assertEqual(result.returncode, status, result)
        self.assertEqual([name for name in os.listdir(self.path("cache")) if not name.endswith(".lock")], [])
        return result.stderr

    def test_without_a_network_it_says_so_and_why(self):
        errors = self.errors("echo 'W: Failed to fetch a list: could not resolve the host'\n"
                             "echo 'E: Unable to locate package'\nexit 100\n", 3)
        self.assertEqual(errors, "W: Failed to fetch a list: could not resolve the host\nE: Unable to locate package\n" * 2
                         + "scripts/cross: cannot fetch libjansson-dev: is there a network, and do /etc/apt's sources have it?\n")

    def test_a_package_that_is_damaged_is_told(self):
        errors = self.errors('[ "$2" = update ] || echo nonsense >libjansson-dev_1_i386.deb\n', 1)
        self.assertTrue(errors.endswith("scripts/cross: cannot unpack libjansson-dev\n"), errors)

    def test_the_machines_package_manager_is_asked_with_lists_of_its_own(self):
        self.errors('cat "$APT_CONFIG" >"%s"\nexit 100\n' % self.path("configuration"), 3)
        with open(self.path("configuration"), encoding="utf-8") as file:
            settings = dict(re.findall(r'^([\w:]+) "(.*)";$', file.read(), re.MULTILINE))
        self.assertEqual(settings["APT::Architectures"], "i386")
        for name in ("Dir::State", "Dir::State::status", "Dir::Cache", "Dir::Etc::sourcelist", "Dir::Etc::sourceparts"):
            self.assertTrue(settings[name].startswith(self.path("cache") + "/work.i686."), settings)


    def adapted(self, function, text):
        """A list of where packages come from, for another architecture."""
        return subprocess.run(["sh", "-c", '. "%s"; %s' % (self.path("cmake", "cross", "packages.sh"), function)], input=text,
                              stdout=subprocess.PIPE, text=True, timeout=world.DEADLINE, check=True).stdout

    def test_what_is_for_the_machines_own_architecture_alone_is_asked_for_another(self):
        self.assertEqual(self.adapted("with_sources_of_lines", "# deb no\ndeb [arch=amd64 signed-by=/k] http://a b c\n"
                                      "deb-src http://a b c\ndeb [signed-by=/k arch=amd64,i386] http://d e\ndeb http://arch=f g\n"),
                         "deb [ signed-by=/k] http://a b c\ndeb-src [ signed-by=/k] http://a b c\n"
                         "deb [signed-by=/k ] http://d e\ndeb-src [signed-by=/k ] http://d e\n"
                         "deb http://arch=f g\ndeb-src http://arch=f g\n")
        self.assertEqual(self.adapted("with_sources_of_fields", "Types: deb\nURIs: http://a\nArchitectures: amd64\nSuites: b\n"),
                         "Types: deb deb-src\nURIs: http://a\nSuites: b\n")

    def test_a_path_that_specs_cannot_hold_is_refused(self):
        self.copy("cmake/cross/make-armmusl")
        result = subprocess.run([self.path("cmake", "cross", "make-armmusl"), "/some where/armmusl", "/nowhere"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=world.DEADLINE, check=False)
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (1, "", "scripts/cross: a compiler's specs cannot hold the path /some where/armmusl: "
                                 "ORV_CROSS_CACHE can name another directory\n"))


class BehindEmulator(Tree):
    """cmake/cross/put-behind-emulator"""

    def put_behind(self):
        return subprocess.run([os.path.join(SOURCE, "cmake", "cross", "put-behind-emulator"), self.path("stubs", "emulator"),
                               self.program], stderr=subprocess.PIPE, text=True, timeout=world.DEADLINE, check=False)

    def setUp(self):
        super().setUp()
        self.put("stubs/emulator", 'shift 2\necho "emulated: $*"\n')
        self.put("it's here/program")
        self.program = self.path("it's here", "program")
        with open(self.program, "wb") as file:
            file.write(b"\x7fELF\x01")

    def test_a_program_is_run_by_it_wherever_it_stands(self):
        self.assertEqual(self.put_behind().returncode, 0)
        run = subprocess.run([self.program, "a b"], stdout=subprocess.PIPE, text=True, timeout=world.DEADLINE, check=True)
        self.assertEqual(run.stdout, "emulated: %s a b\n" % self.path("it's here", "emulated", "program"))

    def test_what_is_behind_it_already_stays(self):
        self.put_behind()
        result = self.put_behind()
        self.assertEqual((result.returncode, result.stderr), (1, "put-behind-emulator: %s is no program\n" % self.program))
        with open(self.path("it's here", "emulated", "program"), "rb") as file:
            self.assertEqual(file.read(), b"\x7fELF\x01")


class Emulation(unittest.TestCase):
    """What behind an emulator is not run."""

    def test_each_listed_test_is_there(self):
        with open(os.path.join(SOURCE, "tests", "emulation.txt"), encoding="utf-8") as file:
            lines = [line for line in file.read().splitlines() if line and not line.startswith("#")]
        self.assertGreater(len(lines), 0)
        listed, reasons = zip(*(line.split(": ", 1) for line in lines))
        self.assertEqual(sources.missing_tests(listed), [])
        self.assertTrue(all(reasons))

    def test_what_is_listed_is_left_out_and_says_why(self):
        class Listed(world.TestCase):
            def test_it(self):
                raise AssertionError("it was run")

        was = world.not_emulated
        try:
            name = "system.%s %s" % (os.path.splitext(os.path.basename(__file__))[0], Listed("test_it").id().removeprefix("__main__."))
            world.not_emulated = lambda: {name: "it cannot"}
            result = unittest.TestResult()
            Listed("test_it").run(result)
            self.assertEqual([reason for _, reason in result.skipped], ["it cannot"])
        finally:
            world.not_emulated = was


if __name__ == "__main__":
    world.main()
