"""Events from the exchange as subscribed clients see them, and a look at the exchange itself."""

import json
import select
import signal
import subprocess

import world
from world import Client


class Monitor:
    """A running 'orvctl exchange monitor' that is known to see everything from here on."""

    def __init__(self, served):
        self.process = subprocess.Popen([world.program("orvctl"), "exchange", "monitor"], env=served.environment(),
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self._lines = world.Lines(self.process.stdout)
        world.wait_until(lambda: self._lines.has_input(0.01), "the monitor sees something",
                         meanwhile=lambda: served.orvctl("exchange", "publish", "test_probe"))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def find(self, **members):
        """The next thing on the exchange that has these members."""
        def is_seen():
            line = self._lines.next()
            if line is None:
                raise AssertionError("the monitor has ended")
            seen = json.loads(line)
            return seen if all(seen[name] == value for name, value in members.items()) else None

        return world.wait_until(is_seen, "seen on the exchange: %r" % members, meanwhile=lambda: None)


class Events(world.ServedTestCase):
    def publish(self, event, data="{}"):
        result = self.served.orvctl("exchange", "publish", event, "-", input=data)
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def test_a_scan_state_reaches_each_subscriber_byte_for_byte(self):
        with Client() as first, Client() as second:
            first.subscribe("va_status_changed")
            second.subscribe("va_status_changed")
            for data in ('{"state":  "running"}', "not JSON", "", "\u00e9\n\t"):
                self.publish("va_status_changed", data)
                self.assertEqual(first.frame(), data)
                self.assertEqual(second.frame(), data)

    def test_a_large_event_arrives_whole(self):
        data = "x" * (3 << 20)
        with Client() as client, Client() as other:
            client.subscribe("va_status_changed")
            self.publish("va_status_changed", data)
            self.assertEqual(other.call("no_such_command"), (None, 0))
            self.assertEqual(client.frame(), data)

    def test_events_keep_their_order(self):
        with Client() as client:
            client.subscribe("va_status_changed")
            for number in range(20):
                self.publish("va_status_changed", str(number))
            self.assertEqual([client.frame() for _ in range(20)], [str(number) for number in range(20)])

    def test_a_started_agent_is_acknowledged_and_told(self):
        with Monitor(self.served) as monitor, Client() as client:
            client.subscribe("orvagent_started")
            self.publish("orvagent_started", "whatever")
            self.assertEqual(client.frame(), "{}")
            event = monitor.find(kind="event", name="orvagent_started")
            answer = monitor.find(kind="respond", id=event["id"])
            self.assertEqual(answer["data"], "orvagent_started_ack")

    def test_a_user_agent_is_told_once_for_each_device(self):
        def seen(mac, agent, **more):
            return json.dumps({"src_ip": "192.168.1.2", "src_mac": mac, "user_agent": agent, **more})

        with Client() as client:
            client.subscribe("device_discovery")
            self.publish("guster_user_agent", seen("aa:bb:cc:00:00:01", "A/1", x=1))
            self.assertEqual(json.loads(client.frame()), {"ip": "192.168.1.2", "mac": "aa:bb:cc:00:00:01",
                                                          "user_agent": "A/1", "x": 1})
            self.publish("guster_user_agent", seen("aa:bb:cc:00:00:01", "A/1"))
            self.served.wait_for_log("device with mac aa:bb:cc:00:00:01 already has user-agent A/1")
            self.publish("guster_user_agent", seen("aa:bb:cc:00:00:01", "A/2"))
            self.assertEqual(json.loads(client.frame())["user_agent"], "A/2")
            self.publish("guster_user_agent", seen("aa:bb:cc:00:00:02", "A/1"))
            self.assertEqual(json.loads(client.frame())["mac"], "aa:bb:cc:00:00:02")

    def test_unusable_user_agents_are_dropped(self):
        with Client() as client:
            client.subscribe("device_discovery")
            for data in ("", "garbage", "[]", "5", '{"src_ip": "1.2.3.4", "mac": "m", "user_agent": "a"}',
                         '{"src_mac": "m", "user_agent": "a"}', '{"src_ip": "i", "src_mac": 5, "user_agent": "a"}',
                         '{"src_ip": "i", "src_mac": "m"}', "[" * 5000):
                self.publish("guster_user_agent", data)
            self.publish("guster_user_agent", '{"src_ip": "i", "src_mac": "m", "user_agent": "last"}')
            self.assertEqual(json.loads(client.frame()), {"ip": "i", "mac": "m", "user_agent": "last"})

    def test_a_registration_result_is_noted_in_the_log(self):
        for data, message in (('{"result": "ok"}', "Received registration_status_changed event"),
                              ('{"result": "refused", "reason": "why"}', "cloud_registration error: refused (why)"),
                              ('{"result": "refused"}', "failed to process registration_status_changed event")):
            self.publish("registration_status_changed", data)
            self.served.wait_for_log(message)

    def test_a_failed_registration_request_is_an_unusable_answer(self):
        """Nobody plays the agent here, so the answer is the bus's error text."""
        with Client() as subscriber, Client() as client:
            self.assertEqual(client.call("start_cloud_registration", {}), (None, 0))
            self.served.wait_for_log("failed to find connections for cloud_registration_status event")
            subscriber.subscribe("cloud_registration_status")
            self.assertEqual(client.call("start_cloud_registration", {}), (None, 0))
            self.served.wait_for_log("failed to process cloud_registration_status event")
            self.assertFalse(subscriber.has_input())

    def test_scan_commands_reach_the_exchange(self):
        with Monitor(self.served) as monitor, Client() as client:
            for command, message in (("va_start", "va_network_scan_start"), ("va_stop", "va_scan_stop"),
                                     ("va_self_scan_start", "va_self_scan_start")):
                self.assertEqual(client.call(command), (None, 0))
                seen = monitor.find(kind="message", name=message)
                self.assertEqual((seen["to"], seen["data"]), ("orvvad", {}))

    def test_registration_data_goes_out_as_one_line_of_the_daemons_own(self):
        with Monitor(self.served) as monitor, Client() as client:
            client.send('{"type":"command","name":"start_cloud_registration","data":{"b":[1,2],"a":"\\u00e9"}}\n')
            self.assertEqual(client.frame(), '{"data": null, "status": 0}')
            seen = monitor.find(kind="request", name="start_cloud_registration")
            self.assertEqual((seen["to"], seen["data"]), ("orvagent", {"b": [1, 2], "a": "\u00e9"}))

    def test_a_subscriber_that_never_reads_disturbs_nobody(self):
        data = "x" * (1 << 20)
        self.served.stop_daemon()
        self.served.start_daemon(ASAN_OPTIONS="quarantine_size_mb=1")  # freed memory counts as free there, too
        with Client() as deaf, Client() as listener:
            deaf.subscribe("va_status_changed")
            listener.subscribe("va_status_changed")
            memory = self.served.resident_kib()
            for _ in range(20):  # five times what one client's buffer holds
                self.publish("va_status_changed", data)
                self.assertEqual(listener.frame(), data)
                with Client() as other:
                    self.assertEqual(other.call("no_such_command"), (None, 0))
            self.assertLess(self.served.resident_kib() - memory, 32 * 1024)
            self.assertEqual(deaf.frame(), data)

    def test_subscriptions_outlive_the_bus(self):
        with Client() as client:
            client.subscribe("va_status_changed")
            self.publish("va_status_changed", "before")
            self.assertEqual(client.frame(), "before")
            self.served.kill_bus()
            self.served.start_bus()
            # The daemon comes back by itself; until then events pass it by.
            world.wait_until(client.has_input, "an event", meanwhile=lambda: self.publish("va_status_changed", "after"))
            self.assertEqual(client.frame(), "after")

    def test_an_event_without_subscribers_is_not_even_received(self):
        self.publish("va_status_changed", "1")
        self.publish("registration_status_changed", "garbage")
        self.served.wait_for_log("failed to process registration_status_changed event")
        self.assertNotIn("va_status_changed event received", self.served.messages())
        self.assertNotIn("unknown va_status_changed event", self.served.messages())


class Orvctl(world.ServedTestCase):
    def orvctl(self, *arguments, **options):
        result = self.served.orvctl("exchange", *arguments, **options)
        return result.returncode, result.stdout, result.stderr

    def test_a_request_without_a_receiver_fails_with_the_reason(self):
        status, stdout, stderr = self.orvctl("request", "nobody:x")
        self.assertEqual(status, 1)
        self.assertIn("does not exist", stdout)
        self.assertEqual(stderr, 'orvctl: the answer is of type "2"\n')
        status, stdout, _ = self.orvctl("request", "nobody:x", "--json")
        self.assertEqual(json.loads(stdout)["type"], "2")

    def test_a_request_that_nobody_answers_times_out(self):
        status, stdout, stderr = self.orvctl("request", "orvbrokerd:x", "--timeout", "0.1")
        self.assertEqual((status, stdout, stderr), (3, "", "orvctl: timed out waiting for the answer\n"))

    def test_names_that_cannot_be_are_usage_errors(self):
        for verb in ("request", "message", "publish"):
            for name in ("", "x" * 200):
                status, stdout, stderr = self.orvctl(verb, name)
                self.assertEqual((status, stdout), (2, ""), (verb, name))
                self.assertIn("1 to 127 bytes", stderr)

    def test_the_monitor_shows_what_is_asked_for(self):
        process = subprocess.Popen([world.program("orvctl"), "exchange", "monitor", "wanted", "there:one", "--count",
                                    "3"], env=self.served.environment(), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        world.wait_until(lambda: select.select([process.stdout], [], [], 0.01)[0], "the monitor sees something",
                         meanwhile=lambda: self.orvctl("publish", "wanted", "[1]"))
        self.orvctl("publish", "unwanted")
        self.orvctl("message", "there:another", "1")
        self.orvctl("message", "there:one", "no JSON")
        self.orvctl("message", "wanted:x", "2")
        stdout, stderr = process.communicate(timeout=world.DEADLINE)
        self.assertEqual((process.returncode, stderr), (0, ""))
        seen = [json.loads(line) for line in stdout.splitlines()]
        self.assertEqual(list(seen[0]), ["time", "kind", "name", "from", "to", "type", "id", "data"])
        shown = [(row["kind"], row["name"], row["to"], row["data"]) for row in seen]
        self.assertEqual(shown[0], ("event", "wanted", "", [1]))
        others = [row for row in shown if row != shown[0]]
        self.assertEqual(others, [("message", "one", "there", "no JSON"), ("message", "x", "wanted", 2)][:len(others)])
        self.assertGreaterEqual(len(others), 1)

    def test_the_monitor_shows_a_request_with_its_answer(self):
        with Monitor(self.served) as monitor:
            self.orvctl("request", "nobody:x", "[1]")
            request = monitor.find(kind="request", name="x")
            self.assertEqual((request["to"], request["data"]), ("nobody", [1]))
            answer = monitor.find(kind="error", name="x")
            self.assertEqual((answer["to"], answer["id"]), (request["from"], request["id"]))

    def test_everything_says_so_when_there_is_no_bus(self):
        self.served.kill_bus()
        for arguments in (["request", "a:b"], ["message", "a:b"], ["publish", "a"], ["monitor"]):
            status, stdout, stderr = self.orvctl(*arguments)
            self.assertEqual((status, stdout), (3, ""), arguments)
            self.assertIn("orvctl: cannot reach the message exchange", stderr)

    def test_a_monitor_ends_with_its_bus(self):
        with Monitor(self.served) as monitor:
            self.served.kill_bus()
            monitor.process.communicate(timeout=world.DEADLINE)
            self.assertEqual(monitor.process.returncode, 3)


if __name__ == "__main__":
    world.main()
