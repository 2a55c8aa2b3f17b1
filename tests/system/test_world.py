"""What the tests stand on: nothing that goes wrong in a world stays unseen, also after a test's last look."""

import os
import signal
import subprocess
import unittest.mock

import world

SERVING = 'trap "exit %d" TERM; echo ready; while :; do sleep 0.05; done'


class End(unittest.TestCase):
    def setUp(self):
        self.one = world.World()
        self.addCleanup(self.one.remove)

    def adopt(self, *command):
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                                   env=self.one.environment())
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        self.one.adopt(process)
        return process

    def check_error(self, text):
        with self.assertRaisesRegex(AssertionError, text):
            self.one.end()

    def test_a_daemon_that_serves_to_the_end_is_none(self):
        self.one.start()
        self.one.end()

    def test_a_daemon_that_was_killed_unseen_is_one(self):
        self.one.start()
        self.one.daemon.kill()
        self.one.daemon.wait(world.DEADLINE)
        self.check_error("^a process had ended with -9 before it was told to$")

    def test_a_daemon_that_has_ended_with_success_unseen_is_one(self):
        self.one.start()
        self.one.daemon.send_signal(signal.SIGTERM)
        self.one.daemon.wait(world.DEADLINE)
        self.check_error("^a process had ended with 0 before it was told to$")

    def test_a_daemon_that_the_test_has_killed_is_none(self):
        self.one.start()
        self.one.kill_daemon()
        self.one.end()

    def test_a_daemon_that_is_stopped_is_none(self):
        self.one.start()
        self.one.daemon.send_signal(signal.SIGSTOP)
        self.one.end()

    def test_another_status_than_success_is_one(self):
        process = self.adopt("sh", "-c", SERVING % 3)
        self.assertEqual(process.stdout.readline(), "ready\n")
        self.check_error("^a process ended with 3$")

    def test_what_does_not_end_is_one_and_is_killed(self):
        process = self.adopt("sh", "-c", 'trap "" TERM; echo ready; while :; do sleep 0.05; done')
        self.assertEqual(process.stdout.readline(), "ready\n")
        with unittest.mock.patch("world.DEADLINE", 0.1):
            self.check_error("^a process did not end and had to be killed$")
        self.assertEqual(process.poll(), -signal.SIGKILL)

    def test_a_bus_that_has_died_is_one(self):
        self.one.start_bus()
        self.one.bus.kill()
        self.one.bus.wait(world.DEADLINE)
        self.check_error("^the bus had ended with -9 before it was told to$")

    def test_a_report_of_a_sanitizer_is_one_wherever_it_stands(self):
        self.one.write("daemon.log", "start\n==42==ERROR: AddressSanitizer: heap-use-after-free on address\n==42==ABORTING\n")
        self.one.write("agentsim-1.log", "a.cpp:3:4: runtime error: signed integer overflow\n")
        self.one.write("sanitizer.43", "\n==43==ERROR: LeakSanitizer: detected memory leaks\n")
        with self.assertRaises(AssertionError) as raised:
            self.one.end()
        self.assertCountEqual(str(raised.exception).split("; "), [
            "==42==ERROR: AddressSanitizer: heap-use-after-free on address",
            "a.cpp:3:4: runtime error: signed integer overflow",
            "==43==ERROR: LeakSanitizer: detected memory leaks"])

    def test_sanitizers_are_told_to_report_where_it_is_looked(self):
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
            path = os.path.join(self.one.root, "sanitizer")
            self.assertEqual(self.one.environment(**{name: "a=1"})[name], "a=1:log_path=" + path)


class Test(world.TestCase):
    """Such an end is a failure of the test, and so is none at all."""

    def test_one_that_goes_on_for_ever_is_ended(self):
        class Inner(world.TestCase):
            def runTest(self):
                while True:
                    pass

        result = unittest.TestResult()
        self.addCleanup(signal.alarm, 0)
        with unittest.mock.patch("world.TEST_LIMIT", 1), unittest.mock.patch("sys.stderr"):
            Inner().run(result)
        ((_, told),) = result.failures + result.errors
        self.assertIn("the test takes longer than 1 s", told)

    def test_its_worlds_end_with_it(self):
        class Inner(world.TestCase):
            def runTest(self):
                self.world().start_bus()
                self.worlds[0].bus.kill()
                self.worlds[0].bus.wait(world.DEADLINE)

        result = unittest.TestResult()
        with unittest.mock.patch("sys.stderr"):
            Inner().run(result)
        ((_, told),) = result.failures + result.errors
        self.assertIn("the bus had ended with -9 before it was told to", told)


if __name__ == "__main__":
    world.main()
