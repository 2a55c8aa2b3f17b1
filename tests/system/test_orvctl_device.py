"""orvctl on the device store, and lists of devices as people and programs read them."""

import json
import os

import world
from test_agentsim import WithAgent

OK, FAILED, USAGE, UNAVAILABLE = 0, 1, 2, 3

TV = {"did": "d1", "owner": "r1", "macs": {"aa:bb:cc:00:00:01": ["192.168.1.20", "fe80::1"]},
      "display_name": "TV", "friendly_name": "", "device_type": "tv", "device_os": "", "device_os_version": "",
      "device_manufacturer": "", "last_va_scan_ts": "", "traffic_blocked": 0}


class Devices(world.TestCase):
    """The device store, with no daemon anywhere."""

    def setUp(self):
        super().setUp()
        self.one = self.world()

    def device(self, *arguments, **options):
        result = self.one.orvctl("device", *arguments, **options)
        return result.returncode, result.stdout, result.stderr

    def listed(self):
        status, stdout, stderr = self.device("list")
        self.assertEqual((status, stderr), (OK, ""))
        return [json.loads(line) for line in stdout.splitlines()]

    def test_a_stored_device_is_shown_with_all_its_members(self):
        self.assertEqual(self.device("put", json.dumps(TV)), (OK, "", ""))
        status, stdout, stderr = self.device("show", "d1")
        self.assertEqual((status, stderr), (OK, ""))
        self.assertEqual(stdout, json.dumps(TV) + "\n")
        self.assertEqual(self.listed(), [TV])

    def test_a_device_belongs_to_this_router_unless_it_says_otherwise(self):
        self.one.set_setting("/registration/device_id", "r7")
        self.assertEqual(self.device("put", '{"did": "d2"}'), (OK, "", ""))
        self.assertEqual(self.listed()[0]["owner"], "r7")

    def test_a_device_is_replaced_and_removed(self):
        self.device("put", json.dumps(TV))
        self.assertEqual(self.device("put", json.dumps({**TV, "display_name": "Radio"})), (OK, "", ""))
        self.assertEqual([device["display_name"] for device in self.listed()], ["Radio"])
        self.assertEqual(self.device("remove", "d1"), (OK, "", ""))
        self.assertEqual(self.listed(), [])

    def test_an_absent_device_is_a_message_and_a_failure(self):
        for verb in ("remove", "show"):  # who removes makes the store
            self.assertEqual(self.device(verb, "d9"), (FAILED, "", "orvctl: no such device: d9\n"))

    def test_what_was_listed_can_be_stored_again(self):
        for number in range(3):
            self.device("put", json.dumps({**TV, "did": "d%d" % number}))
        listed = self.device("list")[1]
        other = self.world()
        result = other.orvctl("device", "put", "-", input=listed)
        self.assertEqual((result.returncode, result.stderr), (OK, ""))
        self.assertEqual(other.orvctl("device", "list").stdout, listed)

    def test_an_empty_list_can_be_stored_again(self):
        other = self.world()
        for listed in (self.device("list", "--json")[1], "\n", " \t\r\n"):
            result = other.orvctl("device", "put", "-", input=listed)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (OK, "", ""))
        self.assertEqual(other.orvctl("device", "list").stdout, "")

    def test_a_text_that_is_not_utf8_is_shown_with_replacements(self):
        for number in range(3):
            self.device("put", json.dumps({**TV, "did": "d%d" % number, "display_name": "TV-of-%d" % number}))
        path = os.path.join(self.one.root, "var/devices/data.mdb")
        with open(path, "rb") as file:
            stored = file.read()
        self.assertIn(b"TV-of-1", stored)
        with open(path, "r+b") as file:
            file.write(stored.replace(b"TV-of-1", b"TV-\xfff-1"))
        self.assertEqual([device["display_name"] for device in self.listed()], ["TV-of-0", "TV-\ufffdf-1", "TV-of-2"])
        status, stdout, stderr = self.device("show", "d1")
        self.assertEqual((status, json.loads(stdout)["display_name"], stderr), (OK, "TV-\ufffdf-1", ""))

    def test_a_record_of_another_shape_is_refused_by_its_member_and_nothing_is_stored(self):
        for member, value in (("did", ""), ("did", 7), ("macs", []), ("macs", {"nonsense": []}),
                              ("macs", {"aa:bb:cc:00:00:01": "1.2.3.4"}), ("traffic_blocked", 2),
                              ("traffic_blocked", "0"), ("display_name", 1), ("colour", "red")):
            status, stdout, stderr = self.device("put", "-", input='{"did": "before"}\n' +
                                                 json.dumps({**TV, member: value}))
            self.assertEqual((status, stdout), (FAILED, ""), member)
            self.assertRegex(stderr, "^orvctl: refused, %s: .+\n$" % member)
            self.assertEqual(self.listed(), [])
        self.assertEqual(self.device("put", "[]")[::2], (FAILED, "orvctl: refused, a device must be an object\n"))

    def test_a_record_beyond_its_bound_is_refused(self):
        status, _, stderr = self.device("put", json.dumps({**TV, "display_name": "x" * 9000}))
        self.assertEqual(status, FAILED)
        self.assertEqual(stderr, "orvctl: refused, larger than a record can be (8192 bytes): d1\n")
        self.assertEqual(self.listed(), [])

    def test_data_that_is_not_json_is_a_usage_error(self):
        for data in ("nonsense", "{", '{"did": "d1"} {', "", " "):
            status, stdout, stderr = self.device("put", data)
            self.assertEqual((status, stdout), (USAGE, ""), data)
            self.assertRegex(stderr, "^orvctl: DATA is not JSON: ")
        self.assertEqual(self.listed(), [])

    def test_wrong_command_lines_are_usage_errors(self):
        for line in ("", "nonsense", "show", "show a b", "put", "put a b", "remove", "list extra", "backup",
                     "backup a b", "restore", "restore a b"):
            status, stdout, stderr = self.device(*line.split())
            self.assertEqual((status, stdout), (USAGE, ""), line)
            self.assertRegex(stderr, r"^orvctl: .+\(see orvctl --help\)\n$")

    def test_a_store_that_cannot_be_opened_is_unavailable(self):
        with open(os.path.join(self.one.root, "var"), "w") as file:
            file.write("in the way")
        for arguments in (("list",), ("show", "d1"), ("remove", "d1"), ("put", "{}")):
            status, stdout, stderr = self.device(*arguments)
            self.assertEqual((status, stdout), (UNAVAILABLE, ""), arguments)
            self.assertIn("orvctl: cannot open the ", stderr)

    def test_a_backup_brings_everything_back_and_nothing_else(self):
        file = os.path.join(self.one.root, "backup")
        kept = [{**TV, "did": "d%d" % number, "friendly_name": "line\n\u96fb \\" * number} for number in range(3)]
        self.device("put", "-", input="\n".join(json.dumps(device) for device in kept))
        self.assertEqual(self.device("backup", file), (OK, "", ""))
        self.assertEqual(os.stat(file).st_mode & 0o777, 0o600)
        with open(file) as backup:
            self.assertEqual(json.load(backup), {"devices": kept})
        self.device("remove", "d0")
        self.device("put", json.dumps({**TV, "did": "d1", "display_name": "Radio"}))
        self.device("put", '{"did": "new"}')
        self.assertEqual(self.device("restore", file), (OK, "", ""))
        self.assertEqual(self.listed(), kept)
        self.device("remove", "d2")
        self.assertEqual(self.device("backup", file), (OK, "", ""))
        self.assertEqual(self.device("restore", file), (OK, "", ""))
        self.assertEqual(self.listed(), kept[:2])
        self.assertEqual([name for name in os.listdir(self.one.root) if name.startswith("backup")], ["backup"])

    def test_a_backup_passes_through_pipes(self):
        kept = [{**TV, "did": "d%d" % number} for number in range(3)]
        self.device("put", "-", input="\n".join(json.dumps(device) for device in kept))
        status, text, stderr = self.device("backup", "-")
        self.assertEqual((status, stderr), (OK, ""))
        self.assertEqual(json.loads(text), {"devices": kept})
        self.device("remove", "d0")
        self.device("put", '{"did": "new"}')
        self.assertEqual(self.device("restore", "-", input=text), (OK, "", ""))
        self.assertEqual(self.listed(), kept)
        self.assertEqual([name for name in os.listdir(self.one.root) if name.startswith("-")], [])

    def test_an_empty_store_is_kept_and_brought_back_too(self):
        file = os.path.join(self.one.root, "backup")
        self.device("put", json.dumps(TV))
        self.device("remove", "d1")
        self.assertEqual(self.device("backup", file), (OK, "", ""))
        self.device("put", json.dumps(TV))
        self.assertEqual(self.device("restore", file), (OK, "", ""))
        self.assertEqual(self.listed(), [])

    def test_what_is_no_whole_backup_changes_nothing(self):
        self.device("put", json.dumps(TV))
        file = os.path.join(self.one.root, "backup")
        self.device("backup", file)
        with open(file) as backup:
            whole = backup.read()
        for text, message in (("", "is no backup of devices: "), (whole[:-3], "is no backup of devices: "),
                              ("[]", 'is no backup of devices: no list of "devices"'),
                              ("{}", 'is no backup of devices: no list of "devices"'),
                              ('{"devices": [{"did": "new"}, {"did": 7}]}', "refused, did: "),
                              ('{"devices": [{"did": "new", "device_os": "%s"}]}' % ("x" * 9000),
                               "refused, larger than a record can be (8192 bytes): new")):
            with open(file, "w") as backup:
                backup.write(text)
            status, stdout, stderr = self.device("restore", file)
            self.assertEqual((status, stdout), (FAILED, ""), text)
            self.assertIn(message, stderr)
            self.assertEqual(self.listed(), [TV])

    def test_a_backup_may_be_as_large_as_the_store(self):
        self.one.set_setting("/devmgmt/max_store_mib", "16")
        file = os.path.join(self.one.root, "backup")
        with open(file, "w") as backup:
            json.dump({"devices": [{"did": "d%d" % number, "display_name": "n" * 8000} for number in range(2500)]}, backup)
        status, stdout, stderr = self.device("restore", file)
        self.assertEqual((status, stdout), (UNAVAILABLE, ""))
        self.assertIn("orvctl: the device store failed (error 2): restore\n", stderr)
        self.assertEqual(self.listed(), [])
        self.one.set_setting("/devmgmt/max_store_mib", "64")
        self.assertEqual(self.device("restore", file), (OK, "", ""))
        os.truncate(file, (720 << 20) + 1)  # which is known without reading it
        self.assertEqual(self.device("restore", file), (FAILED, "", "orvctl: %s is longer than 720 MiB\n" % file))

    def test_what_is_piped_is_kept_only_up_to_a_bound(self):
        for verb, arguments, status in (("put", ["-"], USAGE), ("restore", ["-"], FAILED)):
            with open("/dev/zero") as endless:
                self.assertEqual(self.device(verb, *arguments, stdin=endless), (
                    status, "", "orvctl: standard input is longer than can be sent (64 MiB)\n"))
        self.assertEqual(os.listdir(self.one.root), [])

    def test_no_store_is_open_while_standard_input_is_waited_for(self):
        self.assertEqual(self.device("put", "-", input="\n"), (OK, "", ""))
        self.assertEqual(os.listdir(self.one.root), [])

    def test_reading_leaves_the_settings_alone(self):
        self.device("put", json.dumps(TV))
        settings = os.path.join(self.one.root, "var/settings")
        data_file = os.path.join(settings, "data.mdb")
        os.rename(data_file, data_file + ".copy")
        with open(data_file, "wb") as file:
            file.write(b"x" * 8192)
        before = os.listdir(settings)
        self.assertEqual(self.listed(), [TV])
        self.assertEqual(self.device("show", "d1")[0], OK)
        self.assertEqual(self.device("backup", os.path.join(self.one.root, "backup")), (OK, "", ""))
        self.assertEqual(self.one.orvctl("telemetry", "clear").returncode, OK)
        self.assertEqual(self.one.orvctl("telemetry", "list").returncode, OK)
        self.assertEqual(os.listdir(settings), before)
        status, stdout, stderr = self.device("put", json.dumps(TV))  # whose repair is told
        self.assertEqual((status, stdout), (OK, ""))
        self.assertRegex(stderr, r"\A.* store var/settings: its data file was damaged .*\n\Z")

    def test_a_file_that_cannot_be_read_or_written_is_told_and_stays(self):
        self.device("put", json.dumps(TV))
        missing = os.path.join(self.one.root, "no", "backup")
        for verb, doing in (("backup", "write"), ("restore", "read")):
            self.assertEqual(self.device(verb, missing),
                             (FAILED, "", "orvctl: cannot %s %s: No such file or directory\n" % (doing, missing)))
        self.assertEqual(self.device("backup", "/dev/null"),
                         (FAILED, "", "orvctl: cannot write /dev/null: no regular file\n"))
        self.assertEqual(self.device("restore", self.one.root)[::2],
                         (FAILED, "orvctl: cannot read %s: Is a directory\n" % self.one.root))

    def test_people_see_devices_as_a_table(self):
        self.device("put", json.dumps({**TV, "friendly_name": "Big \u20ac\x1b[2J\u009b", "traffic_blocked": 1}))
        self.device("put", '{"did": "a-longer-id", "owner": "r1"}')
        self.assertEqual(self.one.orvctl_on_terminal("device", "list"), (OK, (
            "ID           NAME        TYPE  BLOCKED  OWNER  ADDRESSES\n"
            "a-longer-id                    no       r1     \n"
            "d1           Big \u20ac?[2J?  tv    yes      r1     aa:bb:cc:00:00:01 192.168.1.20 fe80::1\n")))


class BackupWhileAllRuns(WithAgent):
    def test_clients_are_told_of_what_is_different_after_a_restore_and_given_names_stay(self):
        self.served.set_setting("/daemons/orvbrokerd/cache_process_interval", "1")
        self.served.restart_daemon()
        file = os.path.join(self.served.root, "backup")
        macs = ["aa:bb:cc:00:00:%02x" % number for number in range(4)]
        devices = [{**TV, "did": "d%d" % number, "macs": {macs[number]: []}} for number in range(4)]
        self.served.orvctl("device", "put", "-", input="".join(json.dumps(device) + "\n" for device in devices[:3]))
        self.served.orvctl("device", "backup", file)
        self.served.orvctl("device", "remove", "d2")
        self.served.orvctl("device", "put", json.dumps({**devices[1], "device_os": "other"}))
        self.served.orvctl("device", "put", json.dumps(devices[3]))
        updates = self.subscriber("devices_list_updated")
        seen = {}
        while len(seen) < 4:
            seen.update({event["device_id"]: event["status"] for event in json.loads(updates.frame())})
        discoveries = self.subscriber("device_discovery")
        self.served.set_setting("/tmp/daemons/orvbrokerd/d0/friendly_name", "given")
        result = self.served.orvctl("device", "restore", file)
        self.assertEqual((result.returncode, result.stderr), (OK, ""))
        self.assertEqual(json.loads(discoveries.frame()), {"mac": macs[1], "device_os": ""})
        self.assertCountEqual(json.loads(updates.frame()), [{"device_id": "d1", "status": "updated"},
                                                            {"device_id": "d2", "status": "new"},
                                                            {"device_id": "d3", "status": "removed"}])
        self.assertFalse(discoveries.has_input())
        self.assertEqual(self.served.setting("/tmp/daemons/orvbrokerd/d0/friendly_name"), "given")


class Answers(world.ServedTestCase):
    """Lists of objects, which people see as tables."""

    def setUp(self):
        super().setUp()
        self.served.set_setting("/registration/device_id", "r1")
        self.served.orvctl("device", "put", json.dumps(TV))

    def test_the_daemon_lists_what_was_stored(self):
        (data,) = (json.loads(line)["data"] for line in self.served.orvctl("call", "get_devices").stdout.splitlines())
        self.assertEqual([(device["did"], device["macs"]) for device in data],
                         [("d1", [{"mac": "aa:bb:cc:00:00:01", "ip": "192.168.1.20"}])])

    def test_people_see_an_answer_that_is_a_list_of_objects_as_a_table(self):
        status, shown = self.served.orvctl_on_terminal("call", "get_devices", '["d1"]')
        self.assertEqual(status, OK)
        titles, row = shown.splitlines()
        self.assertEqual(titles.split()[:3], ["MACS", "DID", "DISPLAY_NAME"])
        self.assertTrue(row.startswith("aa:bb:cc:00:00:01 192.168.1.20  d1   TV "), shown)
        self.assertEqual(row[titles.index("TRAFFIC_BLOCKED")], "0")

    def test_an_empty_list_and_other_answers_stay_json(self):
        self.assertIn('"data": []', self.served.orvctl_on_terminal("call", "get_router_interfaces")[1])
        self.assertIn('"status": 1', self.served.orvctl_on_terminal("call", "get_services_status")[1])
        self.assertIn('"protection"', self.served.orvctl_on_terminal("call", "list_all_features")[1])

    def test_with_json_a_terminal_shows_the_answer_as_received(self):
        status, shown = self.served.orvctl_on_terminal("call", "get_devices", "--json")
        self.assertEqual(status, OK)
        self.assertEqual(json.loads(shown)["data"][0]["did"], "d1")


if __name__ == "__main__":
    world.main()
