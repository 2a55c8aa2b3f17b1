"""The events that clients subscribe to, from what causes them to the bytes that arrive, and the ends of subscriptions."""

import json
import socket
import struct

import world
from test_agentsim import WithAgent
from world import Client, wait_until

INTERVAL_KEY = "/daemons/orvbrokerd/cache_process_interval"
EVENTS = ("devices_list_updated", "device_discovery", "subscription_changed", "cloud_registration_status",
          "orvagent_started", "va_status_changed")
MAC1, MAC2 = "aa:bb:cc:00:00:01", "aa:bb:cc:00:00:02"


class FromTheAgent(WithAgent):
    def test_a_scan_arrives_byte_for_byte(self):
        self.agent("--delay", "5")
        changes = [self.subscriber("va_status_changed") for _ in range(3)]
        self.call("va_start")
        for state, progress in (("running", 0), ("running", 25), ("running", 50), ("running", 75), ("finished", 100)):
            for client in changes:
                self.assertEqual(client.frame(), '{"state": "%s", "scan": "network", "progress": %d}' % (state, progress))

    def test_a_registration_reaches_all_who_wait_for_it_but_no_others(self):
        self.agent("--delay", "5")
        waiting = [self.subscriber("cloud_registration_status") for _ in range(3)]
        others = [self.subscriber(event) for event in EVENTS if event != "cloud_registration_status"]
        self.call("start_registration", {"router_id": "r1"})
        for client in waiting:
            self.assertEqual(client.frame(), '{"successful": true}')
        self.served.wait_for_log("Received registration_status_changed event")
        self.assertFalse(any(client.has_input() for client in waiting + others))

    def test_a_failed_registration_tells_its_reason_in_this_order(self):
        self.agent("--delay", "5", "--fail", "start_cloud_registration")
        waiting = self.subscriber("cloud_registration_status")
        self.call("start_cloud_registration", {"router_id": "r1"})
        self.assertEqual(waiting.frame(), '{"successful": false, "error": "error", "reason": "refused by the cloud"}')

    def test_each_start_of_the_agent_is_acknowledged_and_told(self):
        started = self.subscriber("orvagent_started")
        for _ in range(3):
            agent = self.agent()
            self.assertEqual(started.frame(), "{}")
            agent.wait_for_log("orvagent_started_ack")
            agent.stop()

    def test_a_renewed_subscription_arrives_byte_for_byte(self):
        self.agent()
        changes = self.subscriber("subscription_changed")
        answer, status = self.call("update_subscription_status")
        self.assertEqual(status, 0)
        self.assertEqual(changes.frame(), '{"status": "valid", "expiry": %s}' % answer["expiry"])

    def test_user_agents_of_the_simulated_home_arrive(self):
        self.agent("--churn", "0.02")
        sightings = self.subscriber("device_discovery")

        def sighted():
            sighting = json.loads(sightings.frame())
            return sighting if "user_agent" in sighting else None

        sighting = wait_until(sighted, "a user agent", meanwhile=lambda: None)
        self.assertEqual(sorted(sighting), ["ip", "mac", "user_agent"])


class Subscription(world.ServedTestCase):
    def change(self, status, expiry):
        for key, value in (("global/status", status), ("global/expiry", str(expiry)), ("refresh", "now")):
            self.served.set_setting("/tmp/subscription/" + key, value)

    def test_the_same_state_is_never_told_twice_whoever_listens(self):
        with Client() as first:
            first.subscribe("subscription_changed")
            self.change("valid", 1700000000)
            self.assertEqual(first.frame(), '{"status": "valid", "expiry": 1700000000}')
            with Client() as second:
                second.subscribe("subscription_changed")
                text = 'skipping already reported subscription: {"status": "valid", "expiry": 1700000000}'
                self.served.set_setting("/tmp/subscription/refresh", "again")
                self.served.wait_for_log(text)
                self.change("expired", 1700000000)
                self.assertEqual(first.frame(), '{"status": "expired", "expiry": 1700000000}')
                self.assertEqual(second.frame(), '{"status": "expired", "expiry": 1700000000}')


class Devices(world.ServedTestCase):
    def setUp(self):
        super().setUp()
        self.served.set_setting(INTERVAL_KEY, "1")
        self.served.restart_daemon()
        self.store = self.device_writer(self.served)

    def subscriber(self, event):
        client = Client()
        self.addCleanup(client.close)
        client.subscribe(event)
        return client

    def wait_for_changes(self):
        """The daemon has been told of all changes so far, those of which no event tells as well."""
        changes = self.subscriber("device_discovery")
        self.store.put("barrier", macs={"ff:ff:ff:00:00:00": []})
        self.store.put("barrier", macs={"ff:ff:ff:00:00:00": []}, device_os="waited for")
        while json.loads(changes.frame()) != {"mac": "ff:ff:ff:00:00:00", "device_os": "waited for"}:
            pass
        self.store.do("remove barrier")

    def test_a_changed_field_is_told_once_for_each_address(self):
        self.store.put("d1", macs={MAC1: [], MAC2: []})
        changes = self.subscriber("device_discovery")
        for field, value in (("display_name", "TV"), ("device_type", "tv"), ("device_manufacturer", "Panorama"),
                             ("device_os", "Linux"), ("device_os_version", "5.4"), ("display_name", "\u00e9")):
            self.store.put("d1", macs={MAC1: [], MAC2: []}, **{field: value})
            frames = [json.loads(changes.frame()) for _ in range(2)]
            self.assertCountEqual(frames, [{"mac": mac, field: value} for mac in (MAC1, MAC2)])
            self.store.put("d1", macs={MAC1: [], MAC2: []})
            frames = [json.loads(changes.frame()) for _ in range(2)]
            self.assertCountEqual(frames, [{"mac": mac, field: ""} for mac in (MAC1, MAC2)])

    def test_a_block_is_told_as_text(self):
        self.store.put("d1", macs={MAC1: []})
        changes = self.subscriber("device_discovery")
        for blocked in (1, 0):
            self.store.put("d1", macs={MAC1: []}, traffic_blocked=blocked)
            self.assertEqual(changes.frame(), '{"mac": "%s", "traffic_blocked": "%d"}' % (MAC1, blocked))

    def test_changed_addresses_bring_all_fields_that_are_not_empty(self):
        rest = {"display_name": "TV", "friendly_name": "My TV", "device_os": "Linux"}
        self.store.put("d1", macs={MAC1: ["192.168.1.2"]}, **rest)
        changes = self.subscriber("device_discovery")
        for addresses, ip in ((["192.168.1.3", "fe80::1"], "192.168.1.3"), (["fe80::1"], ""), ([], "")):
            self.store.put("d1", macs={MAC1: addresses}, **rest)
            self.assertEqual(changes.frame(),
                             '{"mac": "%s", "ip": "%s", "display_name": "TV", "device_os": "Linux", '
                             '"traffic_blocked": "0", "friendly_name": "My TV"}' % (MAC1, ip))

    def test_comings_goings_and_given_names_are_no_changed_fields(self):
        changes = self.subscriber("device_discovery")
        self.served.set_setting("/tmp/daemons/orvbrokerd/d1/friendly_name", "given")
        self.store.put("d1", macs={MAC1: []})
        self.store.put("d1", macs={MAC1: []}, friendly_name="given elsewhere")
        self.store.put("d2", macs={MAC2: []})
        self.store.do("remove d2")
        self.store.put("d1", macs={MAC1: []}, friendly_name="given elsewhere", display_name="TV")
        self.assertEqual(changes.frame(), '{"mac": "%s", "display_name": "TV"}' % MAC1)
        self.assertIsNone(self.served.setting("/tmp/daemons/orvbrokerd/d1/friendly_name"))
        self.served.wait_for_log("Deleting key /tmp/daemons/orvbrokerd/d1/friendly_name")

    def test_names_of_every_kind_arrive(self):
        self.store.put("d1", macs={MAC1: []})
        changes = self.subscriber("device_discovery")
        for name in ("\u00e9", "\u96fb\u8996", "\U0001f4fa", 'quo"te\\', "\t\u0001\u007f", "a" * 4000):
            self.store.put("d1", macs={MAC1: []}, display_name=name)
            self.assertEqual(json.loads(changes.frame()), {"mac": MAC1, "display_name": name})

    def pending(self):
        """What the next list holds, by device. Nobody takes those after it."""
        with Client() as updates:
            updates.subscribe("devices_list_updated")
            events = json.loads(updates.frame())
        self.served.descriptors()  # the daemon has seen it leave
        states = {event["device_id"]: event["status"] for event in events}
        self.assertEqual(len(states), len(events))
        self.assertTrue(all(list(event) == ["device_id", "status"] for event in events))
        self.assertIn(states.pop("barrier", "removed"), ("new", "removed"))
        return states

    def test_changes_of_one_period_are_one_entry_for_each_device(self):
        for did in ("updated", "removed", "returned", "friendly"):
            self.store.put(did)
        self.wait_for_changes()
        self.pending()

        self.store.put("new")
        self.store.put("new", device_os="Linux")
        self.store.put("updated", device_os="Linux")
        self.store.put("updated", device_os="Debian")
        self.store.put("friendly", friendly_name="name")
        self.store.put("removed", device_os="Linux")
        self.store.do("remove removed")
        self.store.put("gone-at-once")
        self.store.do("remove gone-at-once")
        self.store.do("remove returned")
        self.store.put("returned")
        self.wait_for_changes()
        self.assertEqual(self.pending(), {"new": "new", "updated": "updated", "removed": "removed",
                                          "gone-at-once": "removed", "returned": "new"})

    def test_the_list_waits_for_a_subscriber_and_goes_to_all(self):
        self.store.put("d1")
        self.wait_for_changes()
        self.served.wait_for_log("no connections for devices_list_updated event", 2)
        first, second = self.subscriber("devices_list_updated"), self.subscriber("devices_list_updated")
        text = first.frame()
        self.assertIn('{"device_id": "d1", "status": "new"}', text)
        self.assertEqual(second.frame(), text)

    def test_nothing_is_told_twice(self):
        updates = self.subscriber("devices_list_updated")
        for number in range(3):
            self.store.put("d%d" % number)
            self.assertEqual(updates.frame(), '[{"device_id": "d%d", "status": "new"}]' % number)


class Ends(world.ServedTestCase):
    """Every way in which a connection ends takes it out of all tables."""

    def publish(self, data):
        result = self.served.orvctl("exchange", "publish", "va_status_changed", "-", input=data)
        self.assertEqual(result.returncode, 0, result.stderr)

    def end_by_closing(self, client):
        client.close()

    def end_by_reset(self, client):
        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        client.close()

    def end_sending(self, client):
        client.socket.shutdown(socket.SHUT_WR)

    def end_both_ways(self, client):
        client.socket.shutdown(socket.SHUT_RDWR)

    def end_with_input_unread(self, client):
        self.publish("unread")
        wait_until(client.has_input, "the event")
        client.close()

    def end_with_output_unread(self, client):
        client.send(b"x" * 100000)
        client.close()

    def end_with_both_unread(self, client):
        self.publish("y" * (3 << 20))  # more than the kernel takes
        client.send(b"x")
        wait_until(client.has_input, "the event")
        client.close()

    WAYS = (end_by_closing, end_by_reset, end_sending, end_both_ways, end_with_input_unread, end_with_output_unread,
            end_with_both_unread)

    def test_whichever_way_one_ends_the_others_get_their_events(self):
        with Client() as listener:
            listener.subscribe("va_status_changed")
            descriptors = self.served.descriptors()
            for way in self.WAYS:
                with self.subTest(way=way.__name__), Client() as client:
                    client.subscribe("va_status_changed")
                    way(self, client)
                    wait_until(lambda: self.served.descriptors() == descriptors, "the connection's end")
                    self.publish("the last")
                    while listener.frame() != "the last":
                        pass

    def test_a_refused_subscription_ends_without_a_trace(self):
        descriptors = self.served.descriptors()
        for name in ('"name": 5', '"nam": "va_status_changed"', '"name": null'):
            with Client() as client:
                self.assertEqual(client.ask('{"type": "subscribe", %s}' % name), '{"data": null, "status": -1}')
                client.expect_close()
        self.assertEqual(self.served.descriptors(), descriptors)
        with Client() as listener:
            listener.subscribe("va_status_changed")
            self.publish("1")
            self.assertEqual(listener.frame(), "1")

    def test_events_stop_with_the_last_subscriber_and_resume_with_the_next(self):
        received = "va_status_changed event received"
        for number in range(1, 4):
            with Client() as first, Client() as last:
                first.subscribe("va_status_changed")
                last.subscribe("va_status_changed")
                first.close()
                self.served.wait_for_log("unsubscribe from va_status_changed", 2 * number - 1)
                self.publish("heard")
                self.assertEqual(last.frame(), "heard")
            self.served.wait_for_log("unsubscribe from va_status_changed", 2 * number)
            self.publish("unheard")
            # This one is always listened to, and comes behind.
            self.served.orvctl("exchange", "publish", "registration_status_changed", "garbage")
            self.served.wait_for_log("failed to process registration_status_changed event", number)
            self.assertEqual(self.served.messages().count(received), number)

    def test_events_of_the_exchange_reach_those_whose_neighbour_has_left(self):
        with Client() as leaving, Client() as staying:
            leaving.subscribe("device_discovery")
            staying.subscribe("device_discovery")
            leaving.close()
            self.served.wait_for_log("unsubscribe from device_discovery")
            store = self.device_writer(self.served)
            store.put("d1", macs={MAC1: []})
            store.put("d1", macs={MAC1: []}, display_name="TV")  # the daemon's own: nobody is in its table any more
            sighting = {"src_ip": "192.168.1.2", "src_mac": MAC1, "user_agent": "A/1"}
            self.served.orvctl("exchange", "publish", "guster_user_agent", json.dumps(sighting))
            self.assertIn('"user_agent": "A/1"', staying.frame())
            with Client() as next_one:
                next_one.subscribe("device_discovery")
                store.put("d1", macs={MAC1: []}, display_name="TV 2")
                self.assertEqual(next_one.frame(), '{"mac": "%s", "display_name": "TV 2"}' % MAC1)
                self.assertFalse(staying.has_input())

    def test_a_thousand_comings_and_goings_leave_nothing_behind(self):
        descriptors = self.served.descriptors()
        for number in range(1000):
            with Client() as client:
                client.subscribe(EVENTS[number % len(EVENTS)])
                self.WAYS[number % 4](self, client)
        wait_until(lambda: self.served.descriptors() == descriptors, "all have ended")
        with Client() as listener:
            listener.subscribe("va_status_changed")
            self.publish("1")
            self.assertEqual(listener.frame(), "1")

    def test_subscribers_see_the_end_of_the_daemon(self):
        clients = [Client() for _ in EVENTS]
        for client, event in zip(clients, EVENTS):
            self.addCleanup(client.close)
            client.subscribe(event)
        self.served.stop_daemon()
        for client in clients:
            client.expect_close()


if __name__ == "__main__":
    world.main()
