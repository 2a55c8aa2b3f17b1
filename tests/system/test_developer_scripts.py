"""The developers' scripts, each in a tree of its own where what it calls is put in its way."""

import contextlib
import functools
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import world
from world import Client, wait_until

SCRIPTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts")


class Tree(unittest.TestCase):
    """A source tree with little more than one script in it."""

    def setUp(self):
        self.tree = tempfile.mkdtemp(prefix="orv-scripts-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.tree, ignore_errors=True)
        self.scratch = self.path("scratch")
        os.mkdir(self.scratch)

    def path(self, *parts):
        return os.path.join(self.tree, *parts)

    def take(self, name):
        """Copies a script of the real tree into this one."""
        os.makedirs(self.path("scripts"), exist_ok=True)
        shutil.copy(os.path.join(SCRIPTS, name), self.path("scripts", name))

    def put(self, name, text=""):
        """Makes a script of the test's own."""
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with open(self.path(name), "w") as file:
            file.write("#!/bin/sh\n" + text)
        os.chmod(self.path(name), 0o755)

    def environment(self, **extra):
        environment = dict(os.environ, TMPDIR=self.scratch, **extra)
        environment["PATH"] = self.path("stubs") + ":" + environment["PATH"]
        return environment

    def execute(self, name, *arguments, **extra):
        return subprocess.run([self.path("scripts", name), *arguments], env=self.environment(**extra),
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=world.DEADLINE, text=True, check=False)


class Run(Tree):
    def setUp(self):
        super().setUp()
        self.take("run")
        self.put("scripts/setup")
        self.put("scripts/build")
        os.makedirs(self.path("build", "release"))
        os.symlink(world.BIN, self.path("build", "release", "bin"))
        self.script = None
        self.addCleanup(self.kill_all)

    def start(self, *arguments, **extra):
        """Runs the script as a terminal does, all that it starts being in one process group."""
        self.kill_all()
        with open(self.path("output"), "wb") as output:
            self.script = subprocess.Popen([self.path("scripts", "run"), *arguments], env=self.environment(**extra),
                                           stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                           start_new_session=True)

    def start_serving(self, **extra):
        self.start("--churn", "0", **extra)
        wait_until(self.serves, "the daemon serves")

    def serves(self):
        if self.script.poll() is not None:
            raise AssertionError("scripts/run ended with %d: %s" % (self.script.returncode, self.output()))
        try:
            with Client() as client:
                return client.call("get_services_status") == ({"status": 1}, 0)
        except (ConnectionRefusedError, ConnectionResetError, EOFError):
            return False

    def output(self):
        with open(self.path("output")) as output:
            return output.read()

    def signal_all(self, number):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.script.pid, number)

    def kill_all(self):
        if self.script is not None:
            self.signal_all(signal.SIGKILL)
            self.script.wait(world.DEADLINE)

    def check_end(self, status):
        """It ends with this status, and nothing is left of it."""
        self.assertEqual(self.script.wait(world.DEADLINE), status, self.output())
        # What a script that was stopped had just called may take another moment to end.
        wait_until(self.is_group_empty, "all processes have ended", deadline=3)
        self.assertEqual(os.listdir(self.scratch), [])

    def is_group_empty(self):
        try:
            os.killpg(self.script.pid, 0)
        except ProcessLookupError:
            return True
        return False

    def test_whatever_ends_it_leaves_neither_processes_nor_files(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            with self.subTest(signal=number.name):
                self.start_serving()
                self.signal_all(number)
                self.check_end(128 + number)

    def test_being_told_alone_is_enough(self):
        self.start_serving()
        self.script.send_signal(signal.SIGTERM)
        self.check_end(128 + signal.SIGTERM)

    def test_impatience_leaves_neither_processes_nor_files(self):
        for pause in (0, 0.002, 0.005, 0.01):
            with self.subTest(pause=pause):
                self.start_serving()
                for _ in range(8):
                    self.signal_all(signal.SIGINT)
                    time.sleep(pause)  # how fast the user is, not something to wait for
                self.check_end(128 + signal.SIGINT)

    def test_a_stop_during_the_start_leaves_neither_processes_nor_files(self):
        for name in ("run", "run/exchange.skt", "var", "run/orvbrokerd.version"):
            with self.subTest(name=name):
                self.start("--churn", "0")
                wait_until(functools.partial(self.has_made, name), "the start is under way")
                self.signal_all(signal.SIGINT)
                self.check_end(128 + signal.SIGINT)

    def has_made(self, name):
        return any(os.path.exists(os.path.join(self.scratch, root, name)) for root in os.listdir(self.scratch))

    def test_a_simulated_agent_that_refuses_its_options_ends_it_all(self):
        self.start("--devices", "x")
        self.check_end(1)
        self.assertIn("see orvagentsim --help", self.output())
        self.assertIn("scripts/run: the simulated agent did not start", self.output())

    def test_a_daemon_that_cannot_start_ends_it_all(self):
        with contextlib.closing(world.World()) as other:
            other.start()
            self.start("--churn", "0")
            self.check_end(1)

    def test_help_is_all_that_is_printed_and_done(self):
        for option in ("--help", "-h"):
            self.start(option)
            self.check_end(0)
            self.assertTrue(self.output().startswith("Usage: scripts/run [OPTION]..."), self.output())

    def test_an_exchange_of_the_environment_is_none_of_its_business(self):
        self.start_serving(ORVEX_ADDRESS="unix:path=/nowhere")
        with Client() as client:
            self.assertEqual(client.call("va_status")[1], 0)
        self.signal_all(signal.SIGINT)
        self.check_end(128 + signal.SIGINT)


class Format(Tree):
    GOOD = "int one();\n"
    BAD = "int   one( );\n"

    def setUp(self):
        super().setUp()
        self.take("format")

    def track(self, text):
        with open(self.path("one.h"), "w") as file:
            file.write(text)
        subprocess.run(["git", "init", "-q", self.tree], check=True)
        subprocess.run(["git", "-C", self.tree, "add", "one.h"], check=True)

    def check(self, **extra):
        return self.execute("format", "--check", **extra).returncode == 0

    def test_the_check_passes_for_formatted_sources_only(self):
        self.track(self.GOOD)
        self.assertTrue(self.check())
        self.track(self.BAD)
        self.assertFalse(self.check())
        self.assertEqual(self.execute("format").returncode, 0)
        self.assertTrue(self.check())

    def test_the_check_fails_where_git_lists_nothing(self):
        self.assertFalse(self.check(), "no repository")
        subprocess.run(["git", "init", "-q", self.tree], check=True)
        self.assertFalse(self.check(), "no sources")
        self.track(self.GOOD)
        self.put("stubs/git", "echo 'fatal: detected dubious ownership' >&2\nexit 128\n")
        self.assertFalse(self.check(), "a repository of somebody else's")


class Setup(Tree):
    def setUp(self):
        super().setUp()
        self.take("setup")
        self.take("install-packages")
        self.put("stubs/apt-get", 'echo "${DEBIAN_FRONTEND:-dialog} $*" >>"%s"\n' % self.path("calls"))
        self.put("stubs/sudo", 'exec env -i PATH="$PATH" "$@"\n')

    def calls(self, user, is_installed=False):
        """What apt-get was told, and how it may ask."""
        self.put("stubs/id", "echo %d\n" % user)
        self.put("stubs/dpkg-query", "echo '%s'\n" % ("install ok installed" if is_installed else "unknown"))
        with open(self.path("calls"), "w+") as calls:
            result = self.execute("setup")
            self.assertEqual(result.returncode, 0, result.stderr)
            return calls.read().splitlines()

    def test_it_never_asks_whoever_runs_it(self):
        for user in (0, 1000):
            update, install = self.calls(user)
            self.assertEqual(update, "noninteractive update -qq")
            self.assertTrue(install.startswith("noninteractive install -y "), install)
            self.assertIn("git", install.split())

    def test_it_does_nothing_when_all_is_there(self):
        self.assertEqual(self.calls(1000, is_installed=True), [])


class Test(Tree):
    def setUp(self):
        super().setUp()
        self.take("test")
        self.put("scripts/setup")
        for name in ("scripts/build", "scripts/slowly", "stubs/ctest"):
            self.put(name, 'echo "%s $*" >>"%s"\n' % (name, self.path("calls")))
        self.put("stubs/nproc", "echo 4\n")

    def calls(self, *arguments):
        with open(self.path("calls"), "w+") as calls:
            result = self.execute("test", *arguments)
            self.assertEqual(result.returncode, 0, result.stderr)
            return calls.read().splitlines()

    def test_it_tests_what_is_shipped_and_what_has_sanitizers(self):
        self.assertEqual(self.calls("-R", "Buffer"), [
            "scripts/build release", "scripts/build asan",
            "stubs/ctest --preset release --parallel 4 -R Buffer", "stubs/ctest --preset asan --parallel 4 -R Buffer"])

    def test_repeated_tests_are_so_until_one_fails(self):
        self.assertEqual(self.calls("--repeat", "20", "-R", "Buffer")[2:], [
            "stubs/ctest --preset %s --parallel 4 --repeat until-fail:20 -R Buffer" % preset for preset in ("release", "asan")])

    def test_slow_tests_are_those_of_what_is_shipped_with_more_patience(self):
        self.assertEqual(self.calls("--slow", "--repeat", "2", "-R", "Buffer"), [
            "scripts/build slow",
            "scripts/slowly ctest --preset slow --parallel 1 --repeat until-fail:2 -R Buffer"])

    def test_a_wrong_count_is_told(self):
        for arguments in (("--repeat",), ("--repeat", "0"), ("--repeat", "x")):
            result = self.execute("test", *arguments)
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertIn("how often?", result.stderr)


class Slowly(Tree):
    # Uses so much of a processor, and tells how long that took.
    WORK = """
import time
begin = time.monotonic()
while time.process_time() < 0.05:
    pass
print(time.monotonic() - begin)
"""

    def setUp(self):
        super().setUp()
        self.take("slowly")

    def check_slow(self):
        result = self.execute("slowly", sys.executable, "-S", "-E", "-c", self.WORK)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertGreater(float(result.stdout), 0.05 * 5)
        return result.stderr

    def test_a_command_has_a_small_share_of_a_processor(self):
        self.check_slow()

    def test_so_it_has_where_no_control_group_can_be_made(self):
        self.put("stubs/mkdir", "exit 1\n")
        self.assertEqual(self.check_slow(), "scripts/slowly: no control group can be made, so a busy loop takes the time\n")

    def test_it_ends_as_the_command_does_and_leaves_no_group_behind(self):
        self.check_end(lambda script: None, "exit 3", 3)

    def test_it_ends_at_once_when_told_to_and_leaves_nothing_behind(self):
        for number, status in ((signal.SIGTERM, 143), (signal.SIGHUP, 129)):
            self.check_end(lambda script, number=number: script.send_signal(number), "echo $$; exec sleep 100", status)

    def check_end(self, act, text, status):
        with subprocess.Popen([self.path("scripts", "slowly"), "sh", "-c", text], env=self.environment(),
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True) as script:
            pid = script.stdout.readline().strip() if "echo" in text else None
            act(script)
            self.assertEqual(script.wait(world.DEADLINE), status)
        if pid:
            world.wait_until(lambda: not os.path.exists("/proc/" + pid) or world.state_of(int(pid)) == "Z", "the command has ended")
        name = "orv-slowly-%d" % script.pid
        if not pid:
            self.assertFalse(any(name in names for _, names, _ in os.walk("/sys/fs/cgroup")))


class Build(Tree):
    def test_a_configuration_that_fails_is_shown_and_is_the_end(self):
        self.take("build")
        self.put("stubs/cmake", 'echo "$*"\necho broken >&2\nexit 1\n')
        result = self.execute("build", "debug")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (1, "", "--preset debug\nbroken\n"))


if __name__ == "__main__":
    world.main()
