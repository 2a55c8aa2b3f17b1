"""The device commands and the device store together: what is listed, changed, blocked, reported and survived."""

import contextlib
import json
import re
import signal
import time

import world
from test_agentsim import WithAgent
from world import Client

INTERVAL_KEY = "/daemons/orvbrokerd/cache_process_interval"
QUEUE = "/tmp/daemons/orvleases-ng/requests"
ROUTER = "r1"
MAC1, MAC2, MAC3 = "aa:bb:cc:00:00:01", "aa:bb:cc:00:00:02", "aa:bb:cc:00:00:03"
FAILED = (None, -1)


class WithDevices(WithAgent):
    def setUp(self):
        super().setUp()
        self.store = self.device_writer(self.served)
        self.served.set_setting("/registration/device_id", ROUTER)

    def put(self, did, **members):
        self.store.put(did, owner=ROUTER, **members)

    def listed(self, *data):
        devices, status = self.call("get_devices", *data)
        self.assertEqual(status, 0)
        return devices

    def ids(self, *data):
        return [device["did"] for device in self.listed(*data)]


class Listing(WithDevices):
    def test_a_device_is_listed_with_its_members_in_order(self):
        self.put("d1", macs={MAC1: ["fe80::1", "192.168.1.20", "10.0.0.5"]}, display_name="TV", friendly_name="My TV",
                 device_type="tv", device_os="Linux", device_os_version="5.4", device_manufacturer="Panorama",
                 last_va_scan_ts="1700000000", traffic_blocked=1)
        with Client() as client:
            answer = client.ask('{"type": "command", "name": "get_devices"}')
        self.assertRegex(answer, r'"ip": "(192\.168\.1\.20|10\.0\.0\.5)"')
        ip = json.loads(answer)["data"][0]["macs"][0]["ip"]
        self.assertEqual(answer, '{"data": [{"macs": [{"mac": "%s", "ip": "%s"}], "did": "d1", "display_name": "TV", '
                                 '"device_type": "tv", "device_manufacturer": "Panorama", "device_os": "Linux", '
                                 '"device_os_version": "5.4", "traffic_blocked": 1, '
                                 '"last_va_scan_ts": "1700000000"}], "status": 0}' % (MAC1, ip))

    def test_no_one_and_many_addresses(self):
        many = {"02:00:00:00:01:%02x" % number: ["192.168.2.%d" % number] for number in range(1, 200)}
        self.put("none")
        self.put("one", macs={MAC1: ["192.168.1.1"]})
        self.put("many", macs=many)
        self.put("without", macs={MAC2: []})
        self.put("ipv6", macs={MAC3: ["fe80::1", "2001:db8::1"]})
        macs = {device["did"]: {mac["mac"]: mac["ip"] for mac in device["macs"]} for device in self.listed()}
        self.assertEqual(macs, {"none": {}, "one": {MAC1: "192.168.1.1"}, "without": {MAC2: ""}, "ipv6": {MAC3: ""},
                                "many": {mac: addresses[0] for mac, addresses in many.items()}})

    def test_names_of_every_kind_are_listed_as_they_are(self):
        names = ["", "\u00e9", "\u96fb\u8996\u6a5f", "\U0001f4fa", 'quo"te\\/', "\t\n\u0001\u007f", "\u202eabc", "a" * 4000]
        for number, name in enumerate(names):
            self.put("d%d" % number, display_name=name)
        self.assertEqual([device["display_name"] for device in self.listed()], names)

    def test_a_name_that_is_not_utf8_is_left_out(self):
        self.put("d1", display_name="name", device_type="tv")
        record = self.store.ask("record d1")
        self.store.do("plant d1 " + record.replace(b"name".hex(), b"\xff\xfe\xfd\xfc".hex()))
        device = self.listed()[0]
        self.assertNotIn("display_name", device)
        self.assertEqual(device["device_type"], "tv")

    def test_devices_of_other_routers_are_not_listed(self):
        self.put("own")
        self.store.put("other", owner="r2")
        self.store.put("nobodys")
        self.assertEqual(self.ids(), ["own"])
        self.assertEqual(self.ids(["other", "own", "nobodys"]), ["own"])
        self.assertEqual(self.ids(["other"]), [])

    def test_a_router_without_identifier_owns_what_nobody_owns(self):
        self.put("own")
        self.store.put("nobodys")
        self.served.orvctl("settings", "delete", "/registration/device_id")
        self.assertEqual(self.ids(), ["nobodys"])

    def test_identifiers_choose_in_their_order_twice_if_asked_twice(self):
        for did in ("a", "b", "c"):
            self.put(did)
        self.assertEqual(self.ids(["c", "a", "c"]), ["c", "a", "c"])
        self.assertEqual(self.ids(["x", 5, None, {}, "", "b", "y" * 5000]), ["b"])
        self.assertEqual(self.ids(["x"]), [])
        for everything in ([], {}, {"a": 1}, "a", 5, True, None):
            self.assertEqual(self.ids(everything), ["a", "b", "c"])

    def test_two_thousand_devices_are_listed_whole(self):
        self.served.orvctl("settings", "delete", "/registration/device_id")
        self.store.do("crowd d 2000 02:00:00")
        devices = self.listed()
        self.assertEqual(sorted(device["did"] for device in devices), sorted("d%d" % number for number in range(2000)))
        self.assertEqual(len({device["macs"][0]["mac"] for device in devices}), 2000)

    def test_a_malformed_record_is_skipped_with_a_log_line(self):
        for did in ("a", "b", "c"):
            self.put(did, display_name=did * 100)
        record = self.store.ask("record b")
        for bad in ("00", "ff" * 300, record[:-2], record + "00", record[:20]):
            self.store.do("plant b " + bad)
            text = "device store: skipping device b, its record is malformed"
            logged = self.served.messages().count(text)
            self.assertEqual(self.ids(), ["a", "c"])
            self.served.wait_for_log(text, logged + 1)
            self.assertEqual(self.ids(["b", "a"]), ["a"])
            self.assertEqual(self.call("set_device_name", {"device_id": "b", "name": "n"}), FAILED)
        self.put("b")
        self.assertEqual(self.ids(), ["a", "b", "c"])


class Naming(WithDevices):
    def rename(self, did, name):
        return self.call("set_device_name", {"device_id": did, "name": name})

    def friendly_name(self, did):
        return self.store.show(did)["friendly_name"]

    def test_a_rename_reaches_the_device_store_by_way_of_the_device_manager(self):
        agent = self.agent()
        self.put("d1", display_name="TV")
        for name in ("My TV", "\u96fb\u8996 \U0001f4fa", 'quo"te\\', "a" * 2000):
            self.assertEqual(self.rename("d1", name), (None, 0))
            self.assertEqual(self.friendly_name("d1"), name)
            logged = "Set name=%s for device_id=d1" % name
            if len(logged) < 1000:
                self.served.wait_for_log(logged)
        cut = re.compile(r"Set name=a{1900,}\.\.\. \(2[0-9]{3} bytes\)")
        world.wait_until(lambda: any(map(cut.fullmatch, self.served.messages())), "the line that is too long")
        agent.wait_for_log("d1 is called 'My TV'")

    def test_the_present_name_is_given_without_asking_anybody(self):
        self.put("d1", friendly_name="My TV")
        with Client() as client:
            self.assertEqual(client.call("set_device_name", {"device_id": "d1", "name": "My TV"}), (None, 0))
            self.served.wait_for_log("Current device name is same as given name.")
            self.assertEqual(client.call("no_such_command"), (None, 0))  # an asking one would be closed

    def test_the_name_last_given_here_counts_before_that_of_the_record(self):
        self.put("d1", friendly_name="of the record")
        self.served.set_setting("/tmp/daemons/orvbrokerd/d1/friendly_name", "given here")
        self.assertEqual(self.rename("d1", "given here"), (None, 0))
        self.assertEqual(self.rename("d1", "of the record"), FAILED)  # which is asked for, of nobody
        self.served.wait_for_log("Received error response from cloud")

    def test_what_cannot_be_renamed(self):
        self.agent()
        self.put("d1")
        for did, name, message in (("", "n", "No device_id provided"), ("d1", "", "Empty string friendly_name provided"),
                                   ("d2", "n", "device_id=d2 not found")):
            self.assertEqual(self.rename(did, name), FAILED)
            self.served.wait_for_log(message)
        for data in ({}, [], "d1", None, 5, {"device_id": "d1"}, {"device_id": 1, "name": "n"},
                     {"device_id": "d1", "name": None}):
            self.assertEqual(self.call("set_device_name", data), FAILED)
        self.assertEqual(self.friendly_name("d1"), "")

    def test_a_refused_rename_changes_nothing(self):
        self.agent("--fail", "set_friendly_name")
        self.put("d1", friendly_name="before")
        self.assertEqual(self.rename("d1", "after"), FAILED)
        self.assertEqual(self.friendly_name("d1"), "before")
        self.assertIsNone(self.served.setting("/tmp/daemons/orvbrokerd/d1/friendly_name"))

    def test_a_device_that_goes_while_it_is_renamed(self):
        manager = self.participant(self.served, "broker-devmgmt")
        for number, (kind, answer) in enumerate((("2", FAILED), ("0", (None, 0)))):
            self.put("d1")
            with Client() as client:
                client.send('{"type": "command", "name": "set_device_name", "data": {"device_id": "d1", "name": "n"}}\n')
                self.assertEqual(json.loads(manager.receive()[2]),
                                 {"connect_destination": {"device_id": "d1"}, "friendly_name": "n"})
                self.store.do("remove d1")
                manager.answer(number, kind, "no such device")
                self.assertEqual(json.loads(client.frame()), {"data": answer[0], "status": answer[1]})
        self.assertEqual(self.listed(), [])


class Blocking(WithDevices):
    def block(self, did, blocked):
        return self.call("set_device_traffic_blocked", {"device_id": did, "traffic_blocked": blocked})

    def test_a_device_is_blocked_and_free_again(self):
        self.agent()
        self.put("d1", macs={MAC1: []})
        changes = self.subscriber("device_discovery")
        for blocked in (1, 0, 1):
            self.assertEqual(self.block("d1", blocked), (None, 0))
            self.assertEqual(self.listed()[0]["traffic_blocked"], blocked)
            self.assertEqual(changes.frame(), '{"mac": "%s", "traffic_blocked": "%d"}' % (MAC1, blocked))
            self.served.wait_for_log("Set traffic_blocked=%d for device_id=d1" % blocked)

    def test_the_present_state_is_set_without_asking_anybody(self):
        self.put("d1", traffic_blocked=1)
        self.assertEqual(self.block("d1", 1), (None, 0))
        self.served.wait_for_log("Current device traffic_blocked is same as given traffic_blocked.")

    def test_what_cannot_be_blocked(self):
        self.agent()
        self.put("d1")
        for did, blocked, message in (("", 1, "No device_id provided"), ("d1", 2, "Invalid value for traffic_blocked"),
                                      ("d1", -1, "Invalid value for traffic_blocked"),
                                      ("d1", 1 << 32, "Invalid value for traffic_blocked"),
                                      ("d2", 1, "device_id=d2 not found")):
            logged = self.served.messages().count(message)
            self.assertEqual(self.block(did, blocked), FAILED)
            self.served.wait_for_log(message, logged + 1)
        for blocked in (True, "1", 1.0, None):
            self.assertEqual(self.block("d1", blocked), FAILED)
        self.assertEqual(self.listed()[0]["traffic_blocked"], 0)

    def test_a_refused_block_changes_nothing(self):
        self.agent("--fail", "set_traffic_status")
        self.put("d1")
        self.assertEqual(self.block("d1", 1), FAILED)
        self.assertEqual(self.listed()[0]["traffic_blocked"], 0)

    def test_a_device_that_goes_while_it_is_blocked(self):
        manager = self.participant(self.served, "broker-devmgmt")
        self.put("d1")
        with Client() as client:
            client.send('{"type": "command", "name": "set_device_traffic_blocked", '
                        '"data": {"device_id": "d1", "traffic_blocked": 1}}\n')
            manager.receive()
            self.store.do("remove d1")
            manager.answer(0, "0", "{}")
            self.assertEqual(client.frame(), '{"data": null, "status": 0}')
        self.assertEqual(self.listed(), [])


class OnlineStatus(WithDevices):
    def report(self, data):
        return self.call("set_device_online_status", data)

    def use_queue(self):
        self.served.set_setting("/leases/mode", "orvleases-ng")

    def test_without_a_queue_a_report_is_refused_and_sent_to_nobody(self):
        manager = self.participant(self.served, "broker-devmgmt")
        self.assertEqual(self.report({"mac": MAC1, "online": True}), FAILED)
        self.served.wait_for_log("orvleases mode is orvleases-orv, ignoring set_device_online_status")
        self.assertIsNone(self.served.setting(QUEUE + "/count"))
        self.use_queue()
        self.assertEqual(self.report({"mac": MAC2, "online": True}), (None, 0))
        self.assertEqual(manager.receive(), ("Message", "set_online_status", '{"mac": "%s", "online": true}' % MAC2))

    def test_reports_reach_the_device_manager_and_the_queue_in_order(self):
        agent = self.agent()
        self.use_queue()
        reports = [{"mac": MAC1, "online": True}, [MAC2, False], {}]
        for report in reports:
            self.assertEqual(self.report(report), (None, 0))
        agent.wait_for_log("online status: {\"mac\": \"%s\", \"online\": true}" % MAC1)
        self.assertEqual(self.served.setting(QUEUE + "/count"), "3")
        for index, report in enumerate(reports):
            self.assertEqual(self.served.setting("%s/%d" % (QUEUE, index)), json.dumps(report))
            self.served.wait_for_log("Saved req '%s' at index %d" % (json.dumps(report), index))

    def test_a_report_is_queued_while_the_device_manager_is_away(self):
        self.use_queue()
        self.assertEqual(self.report({"a": 1}), (None, 0))
        self.assertEqual(self.served.setting(QUEUE + "/0"), '{"a": 1}')

    def test_the_one_that_is_too_many_empties_the_queue(self):
        self.use_queue()
        for number in range(100):
            self.assertEqual(self.report([number]), (None, 0))
        self.assertEqual(self.served.setting(QUEUE + "/count"), "100")
        self.assertEqual(self.served.setting(QUEUE + "/99"), "[99]")
        self.assertEqual(self.report([100]), (None, 0))
        self.assertEqual(self.served.setting(QUEUE + "/count"), "1")
        self.assertEqual(self.served.setting(QUEUE + "/0"), "[100]")
        for index in (1, 99, 100):
            self.assertIsNone(self.served.setting("%s/%d" % (QUEUE, index)))

    def test_a_report_succeeds_while_somebody_holds_the_queue_but_is_not_in_it(self):
        self.use_queue()
        self.assertEqual(self.report(["before"]), (None, 0))
        self.store.do("lock " + QUEUE)
        self.assertEqual(self.report(["meanwhile"]), (None, 0))
        self.served.wait_for_log("Failed to lock key '%s': " % QUEUE)
        self.assertEqual(self.served.setting(QUEUE + "/count"), "1")
        self.store.kill()  # the lock falls with its holder
        self.assertEqual(self.report(["after"]), (None, 0))
        self.assertEqual(self.served.setting(QUEUE + "/1"), '["after"]')

    def test_what_has_no_text_is_refused(self):
        self.use_queue()
        for data in (None, 5, "online", True):
            self.assertEqual(self.report(data), FAILED)
        with Client() as client:
            self.assertEqual(client.call("set_device_online_status"), FAILED)
        self.assertIsNone(self.served.setting(QUEUE + "/count"))

    def test_without_a_bus_a_report_fails_and_is_not_queued(self):
        self.use_queue()
        self.served.kill_bus()
        self.served.wait_for_log("the exchange is gone")
        self.assertEqual(self.report({"a": 1}), FAILED)
        self.assertIsNone(self.served.setting(QUEUE + "/count"))


class Changes(WithDevices):
    COUNT = 10000

    def setUp(self):
        super().setUp()
        self.served.set_setting(INTERVAL_KEY, "1")
        self.served.log_level = "1"
        self.served.restart_daemon()

    def test_ten_thousand_changes_are_one_event_with_one_entry_for_each_device(self):
        for number in range(10):
            self.put("d%d" % number, macs={"02:00:00:00:00:%02x" % number: []})
        discoveries = self.subscriber("device_discovery")
        last = self.COUNT // 10 - 1
        for number in range(10):
            # Those that come together are told as one, with the present name; none is told twice, the last one always.
            # Nobody takes the list meanwhile, so its period goes on.
            self.store.do("rename d%d name %d" % (number, self.COUNT // 10))
            names = [-1]
            while names[-1] != last:
                change = json.loads(discoveries.frame())
                self.assertEqual(change["mac"], "02:00:00:00:00:%02x" % number)
                names.append(int(change["display_name"][len("name"):]))
            self.assertEqual(names, sorted(set(names)))
        updates = self.subscriber("devices_list_updated")
        events = json.loads(updates.frame())
        self.assertCountEqual(events, [{"device_id": "d%d" % number, "status": "new"} for number in range(10)])
        self.assertFalse(discoveries.has_input())
        self.put("last")
        self.assertEqual(updates.frame(), '[{"device_id": "last", "status": "new"}]')

    def test_a_thousand_new_devices_are_one_event(self):
        self.store.do("crowd d 1000 02:00:00")
        discoveries = self.subscriber("device_discovery")
        self.put("d0", macs={MAC1: []})
        while MAC1 not in discoveries.frame():
            pass
        events = json.loads(self.subscriber("devices_list_updated").frame())
        self.assertCountEqual([event["device_id"] for event in events], ["d%d" % number for number in range(1000)])

    def asleep(self):
        """The daemon stopped, until the end of a with statement."""
        @contextlib.contextmanager
        def stopped():
            self.served.daemon.send_signal(signal.SIGSTOP)
            try:
                yield
            finally:
                self.served.daemon.send_signal(signal.SIGCONT)
        return stopped()

    def test_a_daemon_that_slept_through_many_changes_tells_of_what_has_changed_and_forgets_no_given_name(self):
        for number in range(3):
            self.put("d%d" % number, macs={"02:00:00:00:00:%02x" % number: []})
            self.served.set_setting("/tmp/daemons/orvbrokerd/d%d/friendly_name" % number, "given")
        updates = self.subscriber("devices_list_updated")
        seen = set()
        while len(seen) < 3:
            seen |= {event["device_id"] for event in json.loads(updates.frame())}
        discoveries = self.subscriber("device_discovery")
        with self.asleep():
            self.store.do("rename d0 name 5000")
            self.put("d1", macs={"02:00:00:00:00:01": []}, friendly_name="new")
        self.assertEqual(json.loads(discoveries.frame()), {"mac": "02:00:00:00:00:00", "display_name": "name4999"})
        self.assertEqual(updates.frame(), '[{"device_id": "d0", "status": "updated"}]')
        self.assertFalse(discoveries.has_input())
        self.assertEqual([self.served.setting("/tmp/daemons/orvbrokerd/d%d/friendly_name" % number)
                          for number in range(3)], ["given", None, "given"])

    def test_thousands_of_devices_that_came_and_went_while_the_daemon_slept_keep_nobody_waiting(self):
        updates = self.subscriber("devices_list_updated")
        with self.asleep():
            self.store.do("crowd d 2000 02:00:00")
            self.store.do("clear")
        began = time.monotonic()
        self.assertEqual(self.call("get_services_status")[1], 0)
        self.assertLess(time.monotonic() - began, 1)
        self.put("last")
        states = {}
        while "last" not in states:
            for event in json.loads(updates.frame()):
                self.assertIn((states.get(event["device_id"]), event["status"]),
                              ((None, "new"), ("new", "removed"), (None, "removed")))
                states[event["device_id"]] = event["status"]
        self.assertEqual(states.pop("last"), "new")
        self.assertEqual(states, {"d%d" % number: "removed" for number in range(2000)})


class Writers(WithDevices):
    def test_a_writer_that_is_killed_again_and_again_leaves_whole_records_and_a_store_that_works(self):
        self.put("stable", display_name="here")
        for number in range(30):
            writer = self.device_writer(self.served)
            self.assertEqual(writer.ask("churn d1"), "churning")
            for _ in range(20):
                names = {device["did"]: device["display_name"] for device in self.listed()}
                self.assertEqual(names.pop("stable"), "here")
            writer.kill()
            self.put("written %d" % number)
            self.assertIn("written %d" % number, self.ids())
        self.assertNotIn("malformed", self.served.log())

    def test_changes_are_told_after_a_writer_was_killed(self):
        self.put("d1", macs={MAC1: []})
        changes = self.subscriber("device_discovery")
        for number in range(10):
            writer = self.device_writer(self.served)
            writer.ask("churn other")
            writer.kill()
            self.put("d1", macs={MAC1: []}, display_name="name %d" % number)
            self.assertEqual(changes.frame(), '{"mac": "%s", "display_name": "name %d"}' % (MAC1, number))

    def test_a_device_whose_identifier_is_no_text_is_refused_and_the_others_are_told(self):
        self.served.set_setting(INTERVAL_KEY, "1")
        self.served.restart_daemon()
        updates = self.subscriber("devices_list_updated")
        self.assertEqual(self.store.ask(b"crowd \xff\xfe 1 02:00:00"), "failed 1")
        self.put("d1")
        self.assertEqual(updates.frame(), '[{"device_id": "d1", "status": "new"}]')


if __name__ == "__main__":
    world.main()
