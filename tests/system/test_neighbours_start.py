"""What the daemon does at its start while another process is stopped in the middle of opening or writing a store."""

import signal
import time

import bystander
import neighbours
import world
from bystander import STOP, WAITING


class Start(world.TestCase):
    def setUp(self):
        super().setUp()
        self.one = self.world()
        self.one.start()
        self.one.stop_daemon()

    def holder(self, process):
        return "process %d (python" % process.pid

    def logged_since(self, before):
        return [text for text in self.one.messages(level=1)[before:] if text.startswith(("store ", "telemetry"))]

    def check_start(self, store, is_ended):
        """It says why it waits, and then ends, or serves without the store."""
        before = len(self.one.messages(level=1))
        with neighbours.stopped_with_lock(self.one, store) as holder:
            start = time.monotonic()
            self.one.daemon = self.one.launch()
            if is_ended:
                self.assertEqual(self.one.end_of(self.one.daemon), 1)
            else:
                world.wait_until(self.one.answers, "the daemon answers")
            self.assertLess(time.monotonic() - start, WAITING.in_tests)
            told = self.logged_since(before)
            self.assertEqual(len(told), 2, told)
            self.assertTrue(told[0].startswith("store %s: waiting for %s" % (store, self.holder(holder))), told)
            self.assertIn("it is being opened or written by " + self.holder(holder), told[1])
            if not is_ended:
                self.one.stop_daemon()
        self.one.start_daemon()
        self.assertTrue(bystander.is_as_before(self.one))

    def test_it_ends_after_a_while_and_says_for_whom_it_waited(self):
        for store in ("var/settings", "tmp/settings", "var/devices"):
            with self.subTest(store):
                self.check_start(store, is_ended=True)
                self.one.stop_daemon()

    def test_the_outbox_of_telemetry_is_done_without(self):
        self.check_start("var/telemetry", is_ended=False)

    def test_it_can_be_stopped_while_it_waits(self):
        for store, status in (("var/settings", 1), ("var/telemetry", 0)):
            with neighbours.stopped_with_lock(self.one, store) as holder:
                process = self.one.launch()
                world.wait_until(lambda name=store, pid=holder.pid:
                                 "store %s: waiting for process %d" % (name, pid) in self.one.log(), "it waits")
                start = time.monotonic()
                process.send_signal(signal.SIGTERM)
                self.assertEqual(self.one.end_of(process), status)
                self.assertLess(time.monotonic() - start, STOP.in_tests)

    def test_an_outbox_that_is_done_without_is_not_waited_for_with_each_event(self):
        with neighbours.stopped_with_lock(self.one, "var/telemetry"):
            self.one.start_daemon()
            with bystander.Bystander() as other, neighbours.Doing(neighbours.Lines(*neighbours.SWITCHES)) as doing:
                world.wait_until(lambda: doing.rounds >= 40, "its status is switched")
            self.assertLess(max(other.times), WAITING.in_tests)
            told = [text for text in self.one.messages(level=1) if "waiting for" in text]
            self.assertEqual(len(told), 1, told)


if __name__ == "__main__":
    world.main()
