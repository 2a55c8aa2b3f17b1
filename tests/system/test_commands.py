"""Every command with its real effect, on a router with the simulated agent, and what becomes of it when that refuses."""

import json
import re
import time

import world
from test_agentsim import REGISTRATION, WithAgent
from world import Client

DONE = (None, 0)
FAILED = (None, -1)
LINE_LIMIT = 4 << 20
SCHEDULE = {"enabled": True, "scheduled": True, "time": "03:00"}
FEATURES = ["protection", "device_discovery", "user_agent_detection", "traffic_blocking", "va_scan", "va_self_scan",
            "satellites", "telemetry"]


class Commands(WithAgent):
    def check(self, name, *data, answer=DONE):
        self.assertEqual(self.call(name, *data), answer, (name, *data))

    def register(self):
        outcome = self.subscriber("cloud_registration_status")
        self.check("start_cloud_registration", REGISTRATION)
        self.assertEqual(outcome.frame(), '{"successful": true}')
        outcome.close()
        self.served.wait_for_log("unsubscribe from cloud_registration_status")

    def registered(self, *options):
        agent = self.agent("--delay", "5", *options)
        self.register()
        return agent

    def waiting_call(self, name, *data):
        """A command whose answer comes by way of the exchange, after which the connection is closed."""
        with Client() as client:
            answer = client.call(name, *data)
            client.expect_close()
            return answer


class Catalogue(world.TestCase):
    def test_every_command_has_a_test_here(self):
        result = self.world().orvctl("commands", "--json")
        names = [json.loads(line)["name"] for line in result.stdout.splitlines()]
        self.assertEqual(len(set(names)), 38)
        tests = [test for case in (Registration, Router, Services, Devices, Scans, Reports) for test in dir(case)]
        self.assertEqual([name for name in names if not any(test.startswith("test_%s_" % name) for test in tests)], [])


class Registration(Commands):
    def test_start_cloud_registration_completes_and_changes_the_router(self):
        self.put_device_of_nobody()
        report, _ = self.call("get_status_report")
        self.assertFalse(report["agent"]["registered"])
        self.check("get_router_name", answer=FAILED)
        agent = self.registered("--devices", "2")
        agent.wait_for_log("registration: done")
        report, _ = self.call("get_status_report")
        self.assertTrue(report["agent"]["registered"])
        self.check("get_router_name", answer=("Home Router", 0))
        devices, _ = self.call("get_devices")  # which follow their router
        self.assertEqual([device["did"] for device in devices], ["sim-1", "sim-2"])
        agent.wait_for_log("telemetry event [0-9]+: tuvo_agent_status")

    def put_device_of_nobody(self):
        self.device_writer(self.served).put("d1")

    def test_start_registration_takes_an_identifier(self):
        self.agent("--delay", "5")
        outcome = self.subscriber("cloud_registration_status")
        self.check("start_registration", {"router_id": "r7"})
        self.assertEqual(outcome.frame(), '{"successful": true}')
        self.assertEqual(self.served.setting("/registration/device_id"), "r7")
        self.served.wait_for_log("Starting router_id registration")

    def test_start_registration_takes_a_token(self):
        self.agent("--delay", "5")
        outcome = self.subscriber("cloud_registration_status")
        self.check("start_registration", {"token": "t", "mac": "AA:BB:CC:DD:EE:FF", "redeem": "code"})
        self.assertEqual(outcome.frame(), '{"successful": true}')
        self.assertEqual(self.served.setting("/registration/user_token"), "t")
        self.assertEqual(self.served.setting("/registration/mac").lower(), "aa:bb:cc:dd:ee:ff")

    def test_start_registration_says_what_is_wrong(self):
        mismatch = ({"code": 2, "description": "JSON did not match registration schema"}, 0)
        with Client() as client:  # which stays connected
            for data in ({}, [], None, 5, "r1", {"router_id": 1}, {"router_id": "r1", "x": "y"},
                         {"token": "t", "mac": "m"}, {"token": 1, "mac": "m", "redeem": "r"},
                         {"token": "t", "mac": "m", "redeem": "r", "x": "y"}):
                self.assertEqual(client.call("start_registration", data), mismatch)
        self.check("start_registration", answer=({"code": 3, "description": "daemon received invalid command"}, -1))

    def test_a_registration_that_fails_changes_nothing(self):
        self.agent("--delay", "5", "--fail", "start_cloud_registration")
        outcome = self.subscriber("cloud_registration_status")
        for command in ("start_cloud_registration", "start_registration"):
            self.check(command, REGISTRATION)
            self.assertIs(json.loads(outcome.frame())["successful"], False)
        for key in ("device_id", "user_token", "tuvo_name"):
            self.assertIsNone(self.served.setting("/registration/" + key))


class Router(Commands):
    def test_set_router_name_is_kept_until_the_registration_and_told_to_the_manager_after(self):
        self.check("set_router_name", "Before")
        agent = self.registered()
        self.check("get_router_name", answer=("Before", 0))
        self.assertEqual(self.waiting_call("set_router_name", "Upstairs \u00e9"), DONE)
        agent.wait_for_log("the router is called 'Upstairs \u00e9'")
        self.check("set_router_name", "", answer=FAILED)

    def test_get_router_name_tells_the_new_name(self):
        self.check("get_router_name", answer=FAILED)
        self.registered()
        self.waiting_call("set_router_name", "New")
        self.check("get_router_name", answer=("New", 0))

    def test_set_router_model_is_confirmed_by_the_cloud(self):
        agent = self.registered()
        self.assertEqual(self.waiting_call("set_router_model", "OR-3000"), DONE)
        agent.wait_for_log('"device_model": "OR-3000"')

    def test_get_router_model_tells_the_new_model(self):
        self.check("get_router_model", answer=FAILED)
        self.check("set_router_model", "kept for later")
        self.check("get_router_model", answer=("kept for later", 0))
        self.registered()
        self.waiting_call("set_router_model", "OR-3000")
        self.check("get_router_model", answer=("OR-3000", 0))

    def test_set_router_feature_set_level_is_confirmed_by_the_cloud(self):
        self.check("set_router_feature_set_level", "velm-pro", answer=FAILED)
        agent = self.registered()
        self.assertEqual(self.waiting_call("set_router_feature_set_level", "velm-pro"), DONE)
        agent.wait_for_log(re.escape('"feature_set_level": ["velm-pro"]'))
        for level in ("velm-Pro", "velm-pro ", "", "pro"):
            self.check("set_router_feature_set_level", level, answer=FAILED)

    def test_get_router_feature_set_level_tells_the_new_level(self):
        self.check("get_router_feature_set_level", answer=FAILED)
        self.registered()
        for level in ("velm-light-1.0", "velm-light-1.1", "velm-basic-1.0", "velm-basic-1.1", "velm-pro"):
            self.assertEqual(self.waiting_call("set_router_feature_set_level", level), DONE)
            self.check("get_router_feature_set_level", answer=(level, 0))

    def test_present_values_are_set_without_asking_anybody(self):
        agent = self.registered()
        agent.stop()
        for command in ("router_name", "router_model", "router_feature_set_level"):
            value, _ = self.call("get_" + command)
            with Client() as client:
                self.assertEqual(client.call("set_" + command, value), DONE)
                self.assertEqual(client.call("no_such_command"), DONE)

    def test_what_the_manager_refuses_is_not_stored(self):
        self.registered("--fail", "set_friendly_name", "--fail", "register_tuvo")
        for command, value in (("router_name", "New"), ("router_model", "New"),
                               ("router_feature_set_level", "velm-pro")):
            before = self.call("get_" + command)
            self.assertEqual(self.waiting_call("set_" + command, value), FAILED)
            self.check("get_" + command, answer=before)

    def test_set_router_interfaces_replaces_the_list(self):
        self.check("set_router_interfaces", [{"name": "eth0", "type": "wan"}, {"name": "wl0", "type": "guest"},
                                             {"name": "old", "type": "lan"}])
        self.check("set_router_interfaces", [{"name": "eth0", "type": "lan"}, {"name": "wl0", "type": "bogus"},
                                             {"name": "br0", "type": "lan"}, {"type": "lan"}, {"name": "x"}, 5])
        self.assertEqual(self.served.setting("/network/interfaces/eth0"), "lan")
        self.assertEqual(self.served.setting("/network/interfaces/wl0"), "guest")
        self.assertIsNone(self.served.setting("/network/interfaces/old"))
        for data in ([], {}, "eth0", None):
            self.check("set_router_interfaces", data, answer=FAILED)

    def test_get_router_interfaces_lists_what_was_set(self):
        self.check("get_router_interfaces", answer=([], 0))
        interfaces = [{"name": "br0", "type": "lan"}, {"name": "eth0", "type": "wan"}]
        self.check("set_router_interfaces", interfaces[::-1])
        self.check("get_router_interfaces", answer=(interfaces, 0))
        self.served.restart_daemon()
        self.check("get_router_interfaces", answer=(interfaces, 0))

    def test_hostile_interface_names_harm_nothing_else(self):
        self.check("set_router_name", "Router")
        names = ["", "/", "..", "../../registration/tuvo_name", "a/b", "x" * 1000, "\u00e9", "eth0", "eth0"]
        self.check("set_router_interfaces", [{"name": name, "type": "lan"} for name in names])
        listed, status = self.call("get_router_interfaces")
        self.assertEqual(status, 0)
        self.assertEqual([each for each in listed if each["name"] in ("eth0", "\u00e9")],
                         [{"name": "eth0", "type": "lan"}, {"name": "\u00e9", "type": "lan"}])
        self.check("get_router_name", answer=("Router", 0))
        self.check("set_router_interfaces", [{"name": "eth0", "type": "wan"}])
        self.check("get_router_name", answer=("Router", 0))

    def test_reapply_firewall_rules_runs_the_script(self):
        self.check("reapply_firewall_rules", answer=FAILED)  # there is none; the rest is in test_firewall_script.py

    def test_get_feature_tells_the_known_ones(self):
        self.check("get_feature", ["va_scan", "no_such", 5, None, "va_scan", "telemetry"],
                   answer=({"va_scan": "enabled", "telemetry": "enabled"}, 0))
        self.check("get_feature", ["no_such"], answer=({}, 0))
        for data in ({}, "va_scan", None, 5):
            self.check("get_feature", data, answer=FAILED)

    def test_set_feature_is_kept_over_a_restart(self):
        self.check("set_feature", {"va_scan": "disabled", "no_such": "disabled", "telemetry": "off", "satellites": 0},
                   answer=({"va_scan": "disabled"}, 0))
        self.served.restart_daemon()
        self.check("get_feature", FEATURES,
                   answer=({name: "disabled" if name == "va_scan" else "enabled" for name in FEATURES}, 0))
        self.check("set_feature", {"va_scan": "enabled"}, answer=({"va_scan": "enabled"}, 0))
        self.check("set_feature", ["va_scan"], answer=FAILED)

    def test_list_all_features_lists_them_in_order(self):
        self.check("list_all_features", answer=(FEATURES, 0))


class Services(Commands):
    def test_enable_services_is_reported_to_the_agent(self):
        self.check_reported("enable_services", "activated", "1")

    def test_disable_services_is_reported_to_the_agent(self):
        self.check_reported("disable_services", "deactivated", "0")

    def check_reported(self, command, state, value):
        agent = self.participant(self.served, "orvagent")
        self.check(command)
        kind, name, data = agent.receive()
        self.assertEqual((kind, name), ("Request", "telemetry_event"))
        event = json.loads(data)
        self.assertEqual((event["type"], event["data"]), ("tuvo_agent_status", {"agent_state": state}))
        self.assertEqual(self.served.setting("/protection/enabled"), value)

    def test_get_services_status_follows_and_is_kept_over_a_restart(self):
        self.check("get_services_status", answer=({"status": 1}, 0))
        self.check("disable_services")
        self.check("get_services_status", answer=({"status": 0}, 0))
        self.served.restart_daemon()
        self.check("get_services_status", answer=({"status": 0}, 0))
        self.check("enable_services")
        self.check("get_services_status", answer=({"status": 1}, 0))

    def test_pro_features_enable_sets_their_key(self):
        self.check("pro_features_enable")
        self.assertEqual(self.served.setting("/protection/pro_features_enabled"), "1")

    def test_pro_features_disable_sets_their_key(self):
        self.check("pro_features_disable")
        self.assertEqual(self.served.setting("/protection/pro_features_enabled"), "0")


class Devices(Commands):
    """What test_devices.py tests in depth is met once here."""

    def test_get_devices_lists_the_simulated_home(self):
        self.registered("--devices", "6")
        devices, status = self.call("get_devices")
        self.assertEqual(status, 0)
        self.assertEqual([device["display_name"] for device in devices],
                         ["Phone", "Living Room TV", "Satellite", "Notebook", "Printer", "Doorbell Camera"])

    def test_set_device_name_renames_in_the_home(self):
        agent = self.registered()
        self.assertEqual(self.waiting_call("set_device_name", {"device_id": "sim-2", "name": "Big TV"}), DONE)
        agent.wait_for_log("sim-2 is called 'Big TV'")

    def test_set_device_traffic_blocked_blocks_in_the_home(self):
        self.registered()
        self.assertEqual(self.waiting_call("set_device_traffic_blocked", {"device_id": "sim-1", "traffic_blocked": 1}),
                         DONE)
        self.assertEqual(self.call("get_devices", ["sim-1"])[0][0]["traffic_blocked"], 1)

    def test_set_device_online_status_reaches_the_home(self):
        self.served.set_setting("/leases/mode", "orvleases-ng")
        agent = self.agent()
        self.check("set_device_online_status", {"online": True})
        agent.wait_for_log('online status: {"online": true}')

    def satellite(self):
        devices, _ = self.call("get_devices", ["sim-3"])
        return devices[0]["macs"][0]["mac"]

    def test_remove_satellite_removes_it_and_fills_both_block_lists(self):
        self.registered()
        updates = self.subscriber("devices_list_updated")
        mac = self.satellite()
        self.assertEqual(self.waiting_call("remove_satellite", {"mac": mac.upper()}), DONE)
        self.check("get_devices", ["sim-3"], answer=([], 0))
        for key in ("/va/blacklist/satellites", "/discovery/blacklist/satellites"):
            self.assertEqual(self.served.setting(key), mac)
        self.check("remove_satellite", {"mac": mac}, answer=({"error": "not found", "code": -2}, -1))
        while {"device_id": "sim-3", "status": "removed"} not in json.loads(updates.frame()):
            pass

    def test_remove_satellite_refuses_the_router_and_what_is_no_address(self):
        self.registered()
        self.device_writer(self.served).put("r1", macs={"aa:bb:cc:00:00:01": []})
        self.check("remove_satellite", {"mac": "aa:bb:cc:00:00:01"}, answer=FAILED)
        for mac in ("", "sim-3", "aa:bb:cc:00:00", "aa:bb:cc:00:00:0g", "aa:bb:cc:00:00:01:02", "aa:bb:cc:00:00:001",
                    5, None, "a" * 5000):
            self.check("remove_satellite", {"mac": mac}, answer=FAILED)
        for key in ("/va/blacklist/satellites", "/discovery/blacklist/satellites"):
            self.assertIsNone(self.served.setting(key))

    def test_what_the_manager_refuses_does_not_happen(self):
        self.registered("--fail", "set_friendly_name", "--fail", "set_traffic_status", "--fail", "remove_satellites")
        mac = self.satellite()
        before = self.call("get_devices")
        for command, data in (("set_device_name", {"device_id": "sim-2", "name": "n"}),
                              ("set_device_traffic_blocked", {"device_id": "sim-1", "traffic_blocked": 1}),
                              ("remove_satellite", {"mac": mac})):
            self.assertEqual(self.waiting_call(command, data), FAILED)
        self.assertEqual(self.call("get_devices"), before)
        self.assertEqual(self.served.setting("/va/blacklist/satellites"), mac)  # filled once the request was out


class Scans(Commands):
    def progress_to_the_end(self, changes):
        state = {}
        while state.get("progress") != 100:
            state = json.loads(changes.frame())
        return state

    def test_va_start_runs_a_scan(self):
        self.agent("--delay", "5")
        changes = self.subscriber("va_status_changed")
        self.check("va_start")
        self.assertEqual(self.progress_to_the_end(changes)["scan"], "network")

    def test_va_self_scan_start_runs_a_scan_of_the_router(self):
        self.agent("--delay", "5")
        changes = self.subscriber("va_status_changed")
        self.check("va_self_scan_start")
        self.assertEqual(self.progress_to_the_end(changes)["scan"], "self")

    def test_va_stop_stops_the_scan(self):
        self.agent("--delay", "60000")
        changes = self.subscriber("va_status_changed")
        self.check("va_start")
        self.check("va_stop")
        while json.loads(changes.frame())["state"] != "stopped":
            pass

    def test_va_status_is_that_of_the_scanner(self):
        self.agent()
        self.assertEqual(self.waiting_call("va_status"), ({"state": "idle", "scan": "none", "progress": 0}, 0))

    def test_va_status_of_a_scanner_that_refuses_is_none(self):
        self.agent("--fail", "va_scan_status")
        with Client() as client:
            client.send('{"type": "command", "name": "va_status"}\n')
            client.expect_close()

    def test_scans_that_the_scanner_refuses_are_handed_over_all_the_same(self):
        agent = self.agent("--fail", "va_network_scan_start", "--fail", "va_self_scan_start", "--fail", "va_scan_stop")
        for command, request in (("va_start", "va_network_scan_start"), ("va_stop", "va_scan_stop"),
                                 ("va_self_scan_start", "va_self_scan_start")):
            self.check(command)
            agent.wait_for_log("%s: refused" % request)

    def test_va_set_schedule_is_kept_by_the_settings_daemon(self):
        self.agent()
        self.assertEqual(self.waiting_call("va_set_schedule", SCHEDULE), DONE)
        self.assertEqual(json.loads(self.served.setting("/va/schedule")), SCHEDULE)
        self.assertEqual(self.waiting_call("va_set_schedule", {"enabled": "yes"}),
                         ({"error": "enabled is neither true nor false"}, -1))
        self.check("va_set_schedule", 5, answer=FAILED)

    def test_va_set_schedule_tells_why_it_is_refused(self):
        self.agent("--fail", "va_set_schedule")
        self.assertEqual(self.waiting_call("va_set_schedule", SCHEDULE),
                         ({"error": "va_set_schedule fails as it was told to"}, -1))
        self.assertIsNone(self.served.setting("/va/schedule"))

    def test_va_set_exclusions_takes_patterns_and_names_the_wrong_one(self):
        good = "aa:bb:cc:dd:ee:f[0|5]"
        self.check("va_set_exclusions", [good, good])
        self.assertEqual(self.served.setting("/va/blacklist/exclusions"), good)
        for data, message in (([good, 5], "expected string value at index 1"),
                              (["aa:bb"], "invalid value 'aa:bb' at index 0"),
                              ([good] * 17, "input size 17 is greater than the maximum allowed (16)")):
            self.check("va_set_exclusions", data, answer=(message, -1))
        self.check("va_set_exclusions", good, answer=FAILED)
        self.check("va_get_exclusions", answer=([good], 0))

    def test_va_get_exclusions_are_kept_over_a_restart(self):
        self.check("va_get_exclusions", answer=([], 0))
        patterns = ["aa:bb:cc:dd:ee:%02x" % number for number in range(15)] + ["AA:bb:0[0-3|a-f]:dd:ee:f[0|5]"]
        self.check("va_set_exclusions", patterns)
        self.served.restart_daemon()
        exclusions, status = self.call("va_get_exclusions")
        self.assertEqual((sorted(exclusions), status), (sorted(patterns), 0))
        self.served.kill_daemon()
        self.served.start_daemon()
        self.assertEqual(sorted(self.call("va_get_exclusions")[0]), sorted(patterns))
        self.check("va_set_exclusions", [])
        self.check("va_get_exclusions", answer=([], 0))

    def test_set_va_cloud_trigger_is_kept_over_a_restart(self):
        self.check("set_va_cloud_trigger", True)
        self.served.restart_daemon()
        self.assertEqual(self.served.setting("/va/cloud_trigger"), "1")

    def test_get_va_cloud_trigger_follows(self):
        self.check("get_va_cloud_trigger", answer=FAILED)
        for data, answer in ((True, True), (0, False), (-5, True), (False, False)):
            self.check("set_va_cloud_trigger", data)
            self.check("get_va_cloud_trigger", answer=(answer, 0))
        self.served.set_setting("/va/cloud_trigger", "true")
        self.check("get_va_cloud_trigger", answer=(False, 0))


class Reports(Commands):
    def set_subscription(self, **values):
        for key, value in values.items():
            self.served.set_setting("/tmp/subscription/" + key.replace("__", "/"), value)

    def test_get_subscription_status_tells_the_stored_state(self):
        self.check("get_subscription_status", answer=FAILED)
        for status, expiry, answer in (("valid", "0", {"status": "valid"}), ("expired", "0", {"status": "expired", "expiry": "0"}),
                                       ("valid", "00", {"status": "valid", "expiry": "00"}),
                                       ("valid", "soon", {"status": "valid", "expiry": "soon"}),
                                       ("nonsense", "5", {"status": "none", "expiry": "5"})):
            self.set_subscription(global__status=status, global__expiry=expiry)
            self.check("get_subscription_status", answer=(answer, 0))

    def test_update_subscription_status_answers_with_its_time(self):
        self.agent()
        before = int(time.time())
        answer, status = self.waiting_call("update_subscription_status")
        self.assertEqual(status, 0)
        self.assertEqual(list(answer), ["status", "expiry", "subscription_update_ts", "subscription_update_error",
                                        "subscription_update_status"])
        self.assertEqual((answer["status"], answer["subscription_update_error"], answer["subscription_update_status"]),
                         ("valid", "0", "success"))
        self.assertTrue(before <= answer["subscription_update_ts"] <= time.time())
        self.check("get_subscription_status", answer=({"status": "valid", "expiry": answer["expiry"]}, 0))

    def test_update_subscription_status_tells_of_the_failure(self):
        self.set_subscription(global__status="expired", global__expiry="5")
        self.agent("--fail", "update_subscription")
        answer, status = self.waiting_call("update_subscription_status")
        self.assertEqual(status, 0)
        self.assertEqual((answer["status"], answer["expiry"], answer["subscription_update_error"],
                          answer["subscription_update_status"]), ("expired", "5", "refused by the cloud", "failed"))

    def test_update_subscription_status_fails_without_whole_data(self):
        agent = self.participant(self.served, "orvagent")
        whole = {"global__status": "valid", "global__expiry": "5", "last_update_ts": "1700000000", "last_error": "0"}
        for missing in (*whole, None):
            self.served.orvctl("settings", "delete", "/tmp/subscription")
            self.set_subscription(**{key: value for key, value in whole.items() if key != missing})
            self.assertEqual(self.answered_update(agent), -1 if missing else 0, missing)
        for text, status in (("soon", -1), ("17 ", -1), ("0x10", 0)):
            self.set_subscription(last_update_ts=text)
            self.assertEqual(self.answered_update(agent), status, text)

    def answered_update(self, agent):
        with Client() as client:
            client.send('{"type": "command", "name": "update_subscription_status"}\n')
            received = agent.receive()
            while received[:2] == ("Request", "telemetry_event"):  # the daemon's own, whenever it sends them
                received = agent.receive()
            self.assertEqual(received[:2], ("Request", "update_subscription"))
            agent.answer(agent.received - 1, "2", "not looked at")
            return json.loads(client.frame())["status"]

    def test_get_version_info_tells_the_release(self):
        self.check("get_version_info", answer=({"version": "2.0.0.0", "patch_level": ""}, 0))

    def test_get_version_info_reads_the_release_file(self):
        self.served.stop_daemon()
        self.served.write("etc/release", "version=3.1.4.1\npatch=59\n")
        self.served.start_daemon()
        self.check("get_version_info", answer=({"version": "3.1.4.1", "patch_level": "59"}, 0))

    def test_get_status_report_shows_true_values(self):
        before, _ = self.call("get_status_report")
        self.assertEqual(before, {"agent": {"version": "2.0.0.0", "registered": False, "subscription": "none",
                                            "enabled": True}, "va": {"scheduled": False}})
        self.registered()
        self.check("disable_services")
        self.waiting_call("va_set_schedule", SCHEDULE)
        self.waiting_call("update_subscription_status")
        after, _ = self.call("get_status_report")
        self.assertEqual(after, {"agent": {"version": "2.0.0.0", "registered": True, "subscription": "valid",
                                           "enabled": False}, "va": {"scheduled": True}})

    def test_get_diagnosis_report_shows_true_values(self):
        self.registered("--devices", "5")
        self.waiting_call("set_device_traffic_blocked", {"device_id": "sim-1", "traffic_blocked": 1})
        self.check("set_router_interfaces", [{"name": "lo", "type": "lan"}, {"name": "nonesuch", "type": "wan"}])
        report, status = self.call("get_diagnosis_report")
        self.assertEqual(status, 0)
        self.assertEqual(report["devices"], {"count": 5, "blocked": 1})
        self.assertEqual(report["agent"]["registered"], True)
        self.assertEqual(report["exchange"]["reachable"], True)
        with open("/proc/meminfo") as meminfo:
            total = int(re.search(r"MemTotal:\s+(\d+) kB", meminfo.read()).group(1)) * 1024
        self.assertEqual(report["system"]["memory_total"], total)
        states = {each["name"]: (each["type"], each["state"]) for each in report["network"]["interfaces"]}
        self.assertEqual(states["nonesuch"], ("wan", "absent"))
        self.assertEqual(states["lo"][0], "lan")
        self.assertRegex(report["generated_at"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d.*Z$")

    def test_get_diagnosis_report_tells_that_the_exchange_is_gone(self):
        self.served.kill_bus()
        self.assertEqual(self.call("get_diagnosis_report")[0]["exchange"]["reachable"], False)


class Agentless(Commands):
    """What waits for an answer fails at once when there is nobody to give it."""

    def test_commands_that_ask_somebody_fail_without_them(self):
        for key, value in (("user_token", "t"), ("device_id", "r1"), ("tuvo_name", "Router"), ("mac", "02:00:00:00:00:01")):
            self.served.set_setting("/registration/" + key, value)
        self.device_writer(self.served).put("d1", owner="r1", macs={"aa:bb:cc:00:00:01": []})
        for command, data in (("set_router_name", "n"), ("set_router_model", "m"),
                              ("set_router_feature_set_level", "velm-pro"),
                              ("set_device_name", {"device_id": "d1", "name": "n"}),
                              ("set_device_traffic_blocked", {"device_id": "d1", "traffic_blocked": 1}),
                              ("remove_satellite", {"mac": "aa:bb:cc:00:00:01"})):
            self.check(command, data, answer=FAILED)
        answer, status = self.waiting_call("va_set_schedule", SCHEDULE)
        self.assertEqual(status, -1)
        self.assertRegex(answer["error"], "orvtuvosettings")
        self.check("update_subscription_status", answer=FAILED)

    def test_commands_that_send_something_fail_without_a_bus(self):
        self.served.set_setting("/leases/mode", "orvleases-ng")
        self.served.kill_bus()
        self.served.wait_for_log("the exchange is gone")
        for command in ("va_start", "va_stop", "va_self_scan_start", "va_status", "update_subscription_status"):
            self.check(command, answer=FAILED)
        for command in ("va_set_schedule", "set_device_online_status"):
            self.check(command, {}, answer=FAILED)
        self.check("start_cloud_registration", REGISTRATION)  # whose outcome would be an event


class Extremes(Commands):
    def test_ten_megabytes_of_data_close_the_connection_and_others_are_served(self):
        for data in (b"x" * (10 << 20), b"[" * (10 << 20)):
            with Client() as client, Client() as other:
                try:
                    client.send(b'{"type": "command", "name": "set_router_name", "data": "' + data + b'"}\n')
                except (BrokenPipeError, ConnectionResetError):
                    pass  # closed while it was still sending
                client.expect_close()
                self.assertEqual(other.call("no_such_command"), DONE)
        self.assertIsNone(self.served.setting("/registration/tuvo_name"))

    def test_data_that_just_fits_a_line_reaches_the_other_daemon_whole(self):
        agent = self.participant(self.served, "orvagent")
        text = "x" * (LINE_LIMIT - 200)
        self.check("start_cloud_registration", {"router_id": text})
        kind, name, data = agent.receive()
        self.assertEqual((kind, name), ("Request", "start_cloud_registration"))
        self.assertEqual(json.loads(data), {"router_id": text})

    def test_values_that_no_store_takes_fail_and_change_nothing(self):
        self.registered()
        for command, key in (("set_router_name", "tuvo_name"), ("set_router_model", "device_model")):
            before = self.served.setting("/registration/" + key)
            self.assertEqual(self.waiting_call(command, "x" * (2 << 20)), FAILED)
            self.assertEqual(self.served.setting("/registration/" + key), before)

    def test_every_command_survives_data_of_every_kind(self):
        result = self.served.orvctl("commands", "--json")
        names = [json.loads(line)["name"] for line in result.stdout.splitlines()]
        self.agent("--delay", "5")
        kinds = [None, True, 0, -1, 1 << 62, 1e308, "", "x" * 5000, "\u0001\U0001f4fa", [], [[]] * 100, {}, {"": {}},
                 {"device_id": "sim-1", "name": "\u00e9", "traffic_blocked": 1, "mac": "sim", "router_id": "r1"}]
        for name in names:
            for data in kinds:
                with Client() as client:
                    client.send(json.dumps({"type": "command", "name": name, "data": data}) + "\n")
                    try:
                        self.assertEqual(sorted(json.loads(client.frame())), ["data", "status"])
                    except EOFError:
                        self.assertIn(name, ("va_status", "va_set_schedule"))
        self.check("no_such_command")


if __name__ == "__main__":
    world.main()
