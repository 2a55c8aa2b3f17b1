"""The firewall script: one that works, and the ways in which it can fail the daemon."""

import os
import time

import world
from world import Client

SCRIPT = "lib/firewall/orv_init_fw.sh"
DONE = (None, 0)
FAILED = (None, -1)
SCRIPT_LIMIT = 10  # seconds


class Script(world.ServedTestCase):
    def write(self, text):
        self.served.write(SCRIPT, text)

    def path(self, name):
        return os.path.join(self.served.root, name)

    def call(self):
        with Client() as client:
            return client.call("reapply_firewall_rules")

    def check_errors_are_logged(self, count=1):
        """One line for each failure, and no other."""
        prefix = "Error running reapply_firewall_rules script "
        self.assertEqual(len([text for text in self.served.messages(level=0) if text.startswith(prefix)]), count)

    def test_a_script_that_works_is_run_each_time(self):
        self.write('echo run >>"%s"\n' % self.path("runs"))
        for _ in range(3):
            self.assertEqual(self.call(), DONE)
        with open(self.path("runs")) as runs:
            self.assertEqual(runs.read(), "run\n" * 3)

    def test_a_script_has_none_of_the_daemons_descriptors(self):
        self.write('ls -l /proc/self/fd >"%s"\n' % self.path("descriptors"))
        self.assertEqual(self.call(), DONE)
        with open(self.path("descriptors")) as descriptors:
            self.assertNotIn("socket:", descriptors.read())

    def test_a_missing_script_fails(self):
        self.assertEqual(self.call(), FAILED)
        self.check_errors_are_logged()

    def test_a_script_that_fails_or_dies_fails(self):
        for text in ("exit 1\n", "exit 127\n", "kill -9 $$\n", "if\n"):
            self.write(text)
            self.assertEqual(self.call(), FAILED)
        self.check_errors_are_logged(4)
        self.write("exit 0\n")
        self.assertEqual(self.call(), DONE)
        self.check_errors_are_logged(4)

    def test_a_script_that_writes_much_does_not_hang(self):
        self.write("i=0; while [ $i -lt 20000 ]; do echo 0123456789; i=$((i+1)); done\n")
        self.assertEqual(self.call(), DONE)

    def test_a_script_that_hangs_is_killed_with_all_it_started_and_the_daemon_serves_on(self):
        fifo = self.path("fifo")
        os.mkfifo(fifo)
        # Whoever holds the pipe's other end shows by its end that it is gone, the child as well as the shell.
        self.write('exec 9>"%s"\n(trap "" TERM HUP; sleep 1000) &\nsleep 1000\n' % fifo)
        with Client() as client, Client() as other:
            start = time.monotonic()
            client.send('{"type": "command", "name": "reapply_firewall_rules"}\n')
            with open(fifo, "rb") as end:
                other.send('{"type": "command", "name": "get_services_status"}\n')
                self.assertEqual(client.frame(), '{"data": null, "status": -1}')
                self.assertGreaterEqual(time.monotonic() - start, SCRIPT_LIMIT)
                self.assertEqual(end.read(), b"")
            self.assertEqual(other.frame(), '{"data": {"status": 1}, "status": 0}')
        self.check_errors_are_logged()
        self.write("exit 0\n")
        self.assertEqual(self.call(), DONE)


if __name__ == "__main__":
    world.main()
