"""orvctl status: everything that is known, whatever is down."""

import json
import os
import re

import world

OK, UNAVAILABLE = 0, 3


class Status(world.TestCase):
    def setUp(self):
        super().setUp()
        self.one = self.world()

    def status(self, expected):
        result = self.one.orvctl("status")
        self.assertEqual((result.returncode, result.stderr), (expected, ""), result)
        (line,) = result.stdout.splitlines()
        return json.loads(line)

    def screen(self):
        """What a person sees: exit status, and text by title."""
        status, shown = self.one.orvctl_on_terminal("status")
        lines = dict(re.split(" {2,}", line, maxsplit=1) for line in shown.splitlines())
        return status, lines

    def test_with_all_up_it_is_a_success(self):
        self.one.start()
        seen = self.status(OK)
        self.assertEqual(list(seen), ["daemon", "exchange", "agent", "va", "devices", "telemetry", "stores"])
        self.assertEqual(seen["daemon"], {"state": "running"})
        self.assertEqual(seen["exchange"],
                         {"address": "unix:path=%s/run/exchange.skt" % self.one.root, "reachable": True})
        self.assertEqual(seen["agent"], {"version": "2.0.0.0", "registered": False, "subscription": "none",
                                         "enabled": True, "patch_level": ""})

    def test_it_shows_what_the_stores_hold(self):
        os.mkdir(os.path.join(self.one.root, "etc"))
        with open(os.path.join(self.one.root, "etc", "release"), "w") as release:
            release.write("version=3.1\npatch=7\n")
        for key, value in (("/registration/device_id", "r1"), ("/registration/user_token", "t"),
                           ("/protection/enabled", "0"), ("/tmp/subscription/global/status", "valid"),
                           ("/tmp/subscription/global/expiry", "0"), ("/va/schedule", '{"enabled": true}')):
            self.one.set_setting(key, value)
        for device in ({"did": "d1", "traffic_blocked": 1}, {"did": "d2"}, {"did": "d3"}):
            self.one.orvctl("device", "put", json.dumps(device))
        self.one.orvctl("telemetry", "clear")
        agent = {"version": "3.1", "registered": True, "subscription": "valid", "enabled": False, "patch_level": "7"}
        for start, state in ((lambda: None, UNAVAILABLE), (self.one.start, OK)):
            start()  # the daemon tells the same as the stores
            seen = self.status(state)
            self.assertEqual(seen["agent"], agent)
            self.assertEqual(seen["va"], {"scheduled": True})
            self.assertEqual(seen["devices"], {"count": 3, "blocked": 1})

    def test_without_the_daemon_it_is_not_running(self):
        self.one.start()
        self.one.stop_daemon()
        seen = self.status(UNAVAILABLE)
        self.assertEqual(seen["daemon"], {"state": "not running"})
        self.assertTrue(seen["exchange"]["reachable"])
        self.assertEqual(seen["devices"], {"count": 0, "blocked": 0})

    def test_stores_that_are_not_there_are_told_and_unknown(self):
        result = self.one.orvctl("status")
        self.assertEqual(result.returncode, UNAVAILABLE)
        self.assertEqual(result.stderr, "".join(
            "orvctl: there is no %s yet: %s/var/%s (ORV_ROOT names the agent's root directory, else it is %s)\n" %
            (name, self.one.root, directory, world.default_root()) for name, directory in
            (("settings store", "settings"), ("device store", "devices"), ("telemetry outbox", "telemetry"))))
        self.assertEqual(set(json.loads(result.stdout)["stores"].values()), {None})
        self.assertEqual(os.listdir(self.one.root), [])

    def test_without_the_bus_it_is_not_reachable(self):
        self.one.start()
        self.one.kill_bus()
        seen = self.status(UNAVAILABLE)
        self.assertEqual(seen["daemon"], {"state": "running"})
        self.assertFalse(seen["exchange"]["reachable"])

    def test_waiting_telemetry_is_counted(self):
        self.one.start()
        listed = self.one.orvctl("telemetry", "list").stdout.splitlines()
        self.assertGreater(len(listed), 0)
        self.assertEqual(self.status(OK)["telemetry"], {"waiting": len(listed)})

    def test_how_full_the_stores_are(self):
        self.one.start()
        stores = self.status(OK)["stores"]
        self.assertEqual(sorted(stores), ["devices", "settings", "telemetry", "tmp"])
        for name, mebibytes in (("settings", 60), ("tmp", 30), ("devices", 60), ("telemetry", 15)):
            self.assertEqual(stores[name]["limit"], mebibytes << 20)
            self.assertGreater(stores[name]["used"], 0)
            self.assertLess(stores[name]["used"], 1 << 20)
        data_file = os.path.join(self.one.root, "var/settings/data.mdb")
        self.assertEqual(stores["settings"]["file"], os.path.getsize(data_file))
        self.one.set_setting("/large", "x" * 100000)
        self.assertGreater(self.status(OK)["stores"]["settings"]["used"], stores["settings"]["used"] + 100000)

    def test_limits_of_stores_are_settings(self):
        self.one.orvctl("device", "put", '{"did": "d1"}')
        self.one.orvctl("telemetry", "clear")
        for devices, telemetry, shown in (("32", "8", (32, 8)), ("1", "0", (16, 2)), ("100000", "100000", (96, 16)),
                                          ("many", "", (64, 16))):
            self.one.set_setting("/devmgmt/max_store_mib", devices)
            self.one.set_setting("/karma/max_store_mib", telemetry)
            stores = self.status(UNAVAILABLE)["stores"]
            limits = [stores[name]["limit"] for name in ("devices", "telemetry")]
            self.assertEqual(limits, [(mebibytes << 20) * 15 // 16 for mebibytes in shown])

    def test_stores_that_cannot_be_opened_are_unknown(self):
        with open(os.path.join(self.one.root, "var"), "w") as file:
            file.write("in the way")
        result = self.one.orvctl("status", env={"ORV_LOG_LEVEL": ""})
        self.assertEqual(result.returncode, UNAVAILABLE)
        reason = "Not a directory (ORV_ROOT names the agent's root directory, else it is %s)" % world.default_root()
        self.assertEqual(result.stderr, "".join(
            "orvctl: cannot open the %s: %s/var/%s: %s\n" % (name, self.one.root, directory, reason) for name, directory in
            (("settings store", "settings"), ("device store", "devices"), ("telemetry outbox", "telemetry"))))
        seen = json.loads(result.stdout)
        self.assertEqual(seen["devices"], {"count": None, "blocked": None})
        self.assertEqual(seen["telemetry"], {"waiting": None})
        self.assertEqual(seen["stores"], {"settings": None, "tmp": None, "devices": None, "telemetry": None})

    def test_without_the_settings_store_alone_it_is_no_success(self):
        self.one.start()
        settings = os.path.join(self.one.root, "var/settings")
        os.rename(settings, settings + ".away")
        self.one.write("var/settings", "in the way")
        result = self.one.orvctl("status", env={"ORV_LOG_LEVEL": ""})
        self.assertRegex(result.stderr, r"\Aorvctl: cannot open the settings store: .*\n\Z")
        seen = json.loads(result.stdout)
        self.assertEqual(seen["daemon"], {"state": "running"})
        self.assertTrue(seen["exchange"]["reachable"])
        self.assertEqual(seen["devices"]["count"], 0)
        self.assertEqual([name for name, usage in seen["stores"].items() if usage is None], ["settings", "tmp"])
        self.assertEqual(result.returncode, UNAVAILABLE)

    def test_people_see_one_screen(self):
        self.one.start()
        status, lines = self.screen()
        self.assertEqual(status, OK)
        self.assertRegex(lines.pop("Telemetry"), r"^\d+ waiting$")
        self.assertEqual(lines.pop("Stores"),
                         "settings 1 of 60 MiB, tmp 1 of 30 MiB, devices 1 of 60 MiB, telemetry 1 of 15 MiB")
        self.assertEqual(lines, {
            "Daemon": "running", "Bus": "reachable, unix:path=%s/run/exchange.skt" % self.one.root,
            "Agent": "version 2.0.0.0", "Registration": "not registered", "Subscription": "none", "Services": "on",
            "Scans": "not scheduled", "Devices": "0, 0 blocked"})
        self.one.stop_daemon()
        status, lines = self.screen()
        self.assertEqual((status, lines["Daemon"], lines["Services"]), (UNAVAILABLE, "not running", "on"))


if __name__ == "__main__":
    world.main()
