"""The daemon and the simulated agent together: what a client starts at one end comes back to it at the other."""

import json
import re
import signal
import subprocess
import tempfile

import world
from world import Client, wait_until

REGISTRATION = {"router_id": "r1"}


class Agent:
    """A running orvagentsim. Its home does not change unless it is told to."""

    def __init__(self, served, *options):
        fd, self.log_path = tempfile.mkstemp(prefix="agentsim-", suffix=".log", dir=served.root)
        if "--churn" not in options:
            options += ("--churn", "0")
        with open(fd, "ab") as log:
            self.process = subprocess.Popen([world.program("orvagentsim"), *options], env=served.environment(),
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.wait_for_log(r"orvagentsim +ready")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        """Ends it in the orderly way and expects success, unless it has been killed."""
        if self.process.returncode is not None:
            return
        status = world.status_of_end(self.process)
        if status != 0:
            raise AssertionError("orvagentsim ended with %s: %s" % (status, self.log()))

    def kill(self):
        """Ends it the hard way, as it may happen to any program."""
        self.process.kill()
        self.process.wait(world.DEADLINE)

    def log(self):
        with open(self.log_path, encoding="utf-8") as log:
            return log.read()

    def wait_for_log(self, pattern):
        def is_there():
            if self.process.poll() is not None:
                raise AssertionError("orvagentsim ended with %d: %s" % (self.process.returncode, self.log()))
            return re.search(pattern, self.log())

        return wait_until(is_there, "in orvagentsim's log: " + pattern)


class WithAgent(world.ServedTestCase):
    def agent(self, *options):
        agent = Agent(self.served, *options)
        self.addCleanup(agent.stop)
        return agent

    def subscriber(self, event):
        client = Client()
        self.addCleanup(client.close)
        client.subscribe(event)
        return client

    def call(self, name, *data):
        with Client() as client:
            return client.call(name, *data)

    def request(self, name, data):
        """What the daemon asks for by a command can be asked for directly too."""
        result = self.served.orvctl("exchange", "request", name, json.dumps(data))
        self.assertEqual(result.returncode, 0, result.stderr)

    def frames_until(self, client, last):
        """The events that a subscriber gets, up to this one."""
        frames = []
        while not frames or frames[-1] != last:
            frames.append(json.loads(client.frame()))
        return frames


class Registration(WithAgent):
    def test_a_registration_stores_the_keys_and_reaches_the_subscriber(self):
        self.agent("--delay", "10")
        outcome = self.subscriber("cloud_registration_status")
        self.assertEqual(self.call("start_cloud_registration", REGISTRATION), (None, 0))
        self.assertEqual(outcome.frame(), '{"successful": true}')
        self.assertEqual(self.served.setting("/registration/device_id"), "r1")
        self.assertNotIn(self.served.setting("/registration/user_token"), (None, ""))
        self.served.wait_for_log("Received registration_status_changed event")

    def test_a_registration_that_is_to_fail_tells_the_subscriber_why(self):
        self.agent("--delay", "10", "--fail", "start_cloud_registration")
        outcome = self.subscriber("cloud_registration_status")
        self.call("start_cloud_registration", REGISTRATION)
        self.assertEqual(json.loads(outcome.frame()),
                         {"successful": False, "error": "error", "reason": "refused by the cloud"})
        self.assertIsNone(self.served.setting("/registration/device_id"))

    def test_an_agent_that_starts_is_acknowledged_and_announced(self):
        started = self.subscriber("orvagent_started")
        agent = self.agent()
        self.assertEqual(started.frame(), "{}")
        agent.wait_for_log("orvagent_started_ack")

    def test_telemetry_reaches_the_agent_and_leaves_the_outbox(self):
        agent = self.agent()
        self.call("disable_services")
        agent.wait_for_log("telemetry event [0-9]+: tuvo_agent_status")
        wait_until(lambda: self.served.orvctl("telemetry", "list").stdout == "", "the outbox is empty")


class Scans(WithAgent):
    def test_a_scan_is_seen_from_its_start_to_its_end(self):
        self.agent("--delay", "10")
        changes = self.subscriber("va_status_changed")
        for command, scan in (("va_start", "network"), ("va_self_scan_start", "self")):
            self.assertEqual(self.call(command), (None, 0))
            finished = {"state": "finished", "scan": scan, "progress": 100}
            seen = self.frames_until(changes, finished)
            self.assertEqual([each["progress"] for each in seen], [0, 25, 50, 75, 100])
            self.assertEqual(self.call("va_status"), (finished, 0))

    def test_a_scan_can_be_stopped(self):
        self.agent("--delay", "60000")
        changes = self.subscriber("va_status_changed")
        self.call("va_start")
        self.assertEqual(json.loads(changes.frame())["state"], "running")
        self.assertEqual(self.call("va_status")[0]["state"], "running")
        self.call("va_stop")
        self.assertEqual(json.loads(changes.frame())["state"], "stopped")


class Devices(WithAgent):
    def setUp(self):
        super().setUp()
        # Changes are told once a second instead of every five.
        self.served.set_setting("/daemons/orvbrokerd/cache_process_interval", "1")
        self.served.restart_daemon()

    def test_the_devices_of_an_agent_that_starts_are_announced(self):
        updates = self.subscriber("devices_list_updated")
        self.agent("--devices", "3")
        seen = []
        while len(seen) < 3:
            seen += json.loads(updates.frame())
        self.assertEqual(sorted(each["device_id"] for each in seen), ["sim-1", "sim-2", "sim-3"])
        self.assertEqual({each["status"] for each in seen}, {"new"})

    def test_a_removed_satellite_disappears(self):
        self.agent("--devices", "4")
        updates = self.subscriber("devices_list_updated")
        self.request("broker-devmgmt:remove_satellites", {"device_ids": ["sim-3"]})
        gone = {"device_id": "sim-3", "status": "removed"}
        wait_until(lambda: gone in json.loads(updates.frame()), "the removal is told")

    def test_blocked_traffic_is_told_for_the_device(self):
        self.agent("--devices", "1")
        changes = self.subscriber("device_discovery")
        self.request("broker-devmgmt:set_traffic_status", {"connect_destination": {"device_id": "sim-1"}, "blocked": 1})
        change = json.loads(changes.frame())
        self.assertEqual(change["traffic_blocked"], "1")
        self.assertRegex(change["mac"], "^02:")

    def test_churn_brings_changes_and_user_agents(self):
        self.agent("--churn", "0.02")
        changes = self.subscriber("device_discovery")
        missing = {"display_name", "device_os_version", "ip", "user_agent"}
        while missing:
            missing -= set(json.loads(changes.frame()))


class Subscription(WithAgent):
    def test_a_renewed_subscription_is_told(self):
        self.agent()
        changes = self.subscriber("subscription_changed")
        self.request("update_subscription", {})
        change = json.loads(changes.frame())
        self.assertEqual(change["status"], "valid")
        self.assertEqual(str(change["expiry"]), self.served.setting("/tmp/subscription/global/expiry"))


class Stopping(WithAgent):
    def test_it_ends_with_success_when_told_to_stop(self):
        agent = self.agent("--churn", "0.02")
        agent.process.send_signal(signal.SIGTERM)
        self.assertEqual(agent.process.wait(world.DEADLINE), 0)
        self.assertRegex(agent.log(), "stopped\n$")

    def test_a_question_to_an_agent_that_is_gone_ends_the_connection_and_the_next_agent_answers(self):
        agent = self.agent()
        agent.kill()
        with Client() as client:
            client.send('{"type": "command", "name": "va_status"}\n')
            client.expect_close()
        self.agent()
        self.assertEqual(self.call("va_status")[1], 0)


if __name__ == "__main__":
    world.main()
