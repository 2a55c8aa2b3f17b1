"""A daemon whose time of day is set: before 2000, beyond 2038 and 2106, and there and back while it runs."""

import calendar
import contextlib
import json
import os
import re
import shlex
import struct
import subprocess
import time

import world
from world import Client

MONOTONIC = 1  # as /proc tells the clock of a timer
# Clocks begin at the first; numbers of 31 and 32 bits end within a second of the others but the last.
TIMES = ("1970-01-01 00:00:00", "2500-01-01 00:00:00", "1999-12-31 23:59:59", "2106-02-07 06:28:15", "2038-01-19 03:14:07")


class SetClock(world.TestCase):
    def setUp(self):
        super().setUp()
        self.one = self.world()
        self.library = os.path.join(self.one.root, "settable_clock.so")
        self.file = os.path.join(self.one.root, "seconds_ahead")
        self.build_library()
        self.set("2001-01-01 00:00:00")
        self.one.start_bus()
        self.one.start_daemon(LD_PRELOAD=self.library, SETTABLE_CLOCK=self.file, TZ="UTC0")
        with open("/proc/%d/maps" % self.one.daemon.pid) as maps:
            self.assertIn(self.library, maps.read())

    def build_library(self):
        variables = world.configured()
        source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "settable_clock.c")
        flags = shlex.split(variables.get("CMAKE_C_FLAGS", ""))
        result = subprocess.run([variables["CMAKE_C_COMPILER"], *flags, "-shared", "-fPIC", "-D_GNU_SOURCE",
                                 "-D_FILE_OFFSET_BITS=64", "-D_TIME_BITS=64", "-o", self.library, source],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stdout)

    def set(self, text):
        self.wanted = calendar.timegm(time.strptime(text, "%Y-%m-%d %H:%M:%S"))
        with open(self.file, "wb" if not os.path.exists(self.file) else "r+b", buffering=0) as file:
            file.write(struct.pack("=q", self.wanted - int(time.time())))

    def check_stamp(self, seconds, what):
        """That this is now, as the daemon sees it: the test may have taken some time since it was set."""
        self.assertIn(seconds - self.wanted, range(-1, world.DEADLINE), what)

    def call(self, name, *data):
        with Client() as client:
            return client.call(name, *data)

    def last_stamp(self):
        """The time of the last line of the log."""
        stamp = re.findall(r"^(\d{4,}-\d\d-\d\d \d\d:\d\d:\d\d)\.\d{3} ", self.one.log(), re.MULTILINE)[-1]
        return calendar.timegm(time.strptime(stamp, "%Y-%m-%d %H:%M:%S"))

    def test_commands_the_log_reports_and_telemetry_have_the_time_whatever_it_is(self):
        for text in TIMES:
            self.set(text)
            self.assertEqual(self.call("disable_services"), (None, 0))
            self.check_stamp(self.last_stamp(), "log")
            report, status = self.call("get_diagnosis_report")
            self.assertEqual(status, 0)
            self.check_stamp(calendar.timegm(time.strptime(report["generated_at"], "%Y-%m-%dT%H:%M:%SZ")), "report")
            events = [json.loads(line) for line in self.one.orvctl("telemetry", "list").stdout.splitlines()]
            self.check_stamp(events[-1]["timestamp"], "telemetry")
            self.assertEqual(self.call("enable_services"), (None, 0))
        self.assertEqual(self.one.messages(level=1), [], "nothing to complain about")
        self.one.stop_daemon()

    def test_timers_do_not_run_by_it(self):
        clocks = []
        directory = "/proc/%d/fdinfo" % self.one.daemon.pid
        for name in os.listdir(directory):
            # A connection may end meanwhile; a timer does not.
            with contextlib.suppress(FileNotFoundError), open(os.path.join(directory, name)) as info:
                clocks += re.findall(r"^clockid: (\d+)$", info.read(), re.MULTILINE)
        self.assertGreaterEqual(len(clocks), 2)
        self.assertEqual(set(clocks), {str(MONOTONIC)})

    def test_who_waits_for_an_answer_goes_on_waiting_when_it_jumps(self):
        scanner = self.participant(self.one, "orvvad")
        with Client() as client:
            client.send('{"type": "command", "name": "va_status"}\n')
            self.assertEqual(scanner.receive()[1], "va_scan_status")
            for text in TIMES:
                self.set(text)
                self.assertEqual(self.call("get_services_status"), ({"status": 1}, 0))
            self.assertFalse(client.has_input())
            scanner.answer(0, "0", "{}")
            self.assertEqual(client.frame(), '{"data": {}, "status": 0}')


if __name__ == "__main__":
    world.main()
