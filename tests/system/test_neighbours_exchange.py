"""Whatever the bus and its participants do, a bystander is served, SIGTERM works, and afterwards all is as before."""

import os
import shutil
import signal

import bystander
import neighbours
import world
from world import Client


class Rows(world.TestCase):
    """A test for each of the rows of the exchange."""


bystander.add_tests(Rows, neighbours.ROWS["exchange"])


class Refusals(world.TestCase):
    def setUp(self):
        super().setUp()
        self.one = self.world()

    def refuse_and_let(self):
        """A subscriber whose subscription the bus has refused, while it would take the next one."""
        self.one.start_bus()
        neighbours.with_one_match_rule(self.one)
        subscriber = Client()
        self.addCleanup(subscriber.close)
        subscriber.subscribe("va_status_changed")
        world.wait_until(lambda: "the exchange refuses a subscription" in self.one.log(), "the refusal is told")
        os.unlink(os.path.join(self.one.root, "etc", "exchange.conf"))
        shutil.copy(os.path.join(self.one.root, "run", "exchange-private.conf"),
                    os.path.join(self.one.root, "etc", "exchange.conf"))
        return subscriber

    def test_a_subscription_that_the_bus_has_refused_is_asked_for_again_with_the_next_one(self):
        subscriber = self.refuse_and_let()
        self.one.bus.send_signal(signal.SIGHUP)  # it reads its configuration again
        scanner = self.participant(self.one, "orvvad")

        def is_told():
            with Client() as other:
                other.subscribe("orvagent_started")
                scanner.emit("va_status_changed", "{}")
                return subscriber.has_input()

        world.wait_until(is_told, "the subscriber has the event")
        self.assertEqual(subscriber.frame(), "{}")

    def test_a_subscription_that_the_bus_has_refused_is_asked_for_again_when_it_is_back(self):
        subscriber = self.refuse_and_let()
        self.one.kill_bus()
        self.one.start_bus()
        self.one.wait_for_log("back on the exchange")
        scanner = self.participant(self.one, "orvvad")
        scanner.emit("va_status_changed", "{}")
        self.assertEqual(subscriber.frame(), "{}")

    def test_an_event_of_16_mb_is_refused_where_it_is_sent(self):
        one = self.one
        one.start()
        with Client() as subscriber:
            subscriber.subscribe("va_status_changed")
            result = one.orvctl("exchange", "publish", "va_status_changed", "-", input='"%s"' % ("x" * (16 << 20)))
            self.assertNotEqual(result.returncode, 0)
            self.assertRegex(result.stderr, "4194300")
            self.assertEqual(one.orvctl("exchange", "publish", "va_status_changed", '{"a": 1}').returncode, 0)
            self.assertEqual(subscriber.frame(), '{"a": 1}')


if __name__ == "__main__":
    world.main()
