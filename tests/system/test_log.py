"""The daemon's log when nobody reads it, and when somebody makes it repeat itself."""

import fcntl
import os
import re
import signal
import subprocess
import time

import world

F_GETPIPE_SZ = 1032  # Linux's, which Python knows from 3.10 on
LOST = re.compile(r"^\S+ \S+ +\d+     1 \[log\]: (\d+) lines lost$", re.MULTILINE)


class Unread(world.TestCase):
    """Standard error is a pipe that nobody reads."""

    def setUp(self):
        super().setUp()
        self.one = self.world()
        self.one.start_bus()
        self.reader, writer = os.pipe()
        self.addCleanup(os.close, self.reader)
        self.one.adopt(subprocess.Popen([world.program("orvbrokerd")], env=self.one.environment(),
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=writer))
        os.close(writer)
        world.wait_until(self.one.answers, "the daemon answers")

    def test_the_daemon_serves_and_stops_and_tells_what_was_lost(self):
        room = fcntl.fcntl(self.reader, F_GETPIPE_SZ)
        slowest = 0
        with world.Client() as client:
            for _ in range(room // 50):  # each request costs more than that
                begin = time.monotonic()
                self.assertEqual(client.call("get_services_status"), ({"status": 1}, 0))
                slowest = max(slowest, time.monotonic() - begin)
        self.assertLess(slowest, 5)
        seen = os.read(self.reader, room).decode()
        # Told by the next line, or within a second by the daemon's timer. A short line may find room where a long one did not.
        for _ in range(1000):
            if sum(map(int, LOST.findall(seen))) >= 100:
                break
            with world.Client() as client:
                client.call("no_such_command")
            seen += os.read(self.reader, room).decode()
        self.assertGreaterEqual(sum(map(int, LOST.findall(seen))), 100)
        with world.Client() as client:
            for _ in range(room // 50):
                client.call("get_services_status")
        self.one.daemon.send_signal(signal.SIGTERM)
        self.assertEqual(self.one.end_of(self.one.daemon), 0)


class Garbage(world.ServedTestCase):
    def test_a_client_can_neither_flood_the_log_nor_forge_lines_in_it(self):
        before = len(self.served.log())
        forged = b"2026-01-01 00:00:00.000    4711     0 [a.cpp:1][f()]: forged"
        for _ in range(3):
            with world.Client() as client:
                client.send(b"\x1b]0;title\x07\r" + forged + b"x" * 4000000 + b"\n")
                client.expect_close()
        log = self.served.log()[before:]
        self.assertLess(len(log), 100000)
        self.assertEqual(re.findall("[\x00-\x09\x0b-\x1f\x7f]", log), [])
        self.assertFalse([line for line in log.splitlines() if line.startswith("2026-01-01 00:00:00.000")])


class Signals(world.ServedTestCase):
    def test_a_hang_up_is_an_orderly_stop(self):
        self.served.daemon.send_signal(signal.SIGHUP)
        self.assertEqual(self.served.end_of(self.served.daemon), 0)
        self.assertEqual(self.served.messages()[-1], "stop orv broker daemon")


if __name__ == "__main__":
    world.main()
