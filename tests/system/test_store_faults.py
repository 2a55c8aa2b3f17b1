"""Stores that are missing, read-only, full, damaged or another machine's, and a daemon killed while it writes."""

import os
import random
import shutil
import struct
import subprocess

import world
from world import Client


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


class Faults(world.TestCase):
    def setUp(self):
        super().setUp()
        self.mounts = []
        self.one = self.world()

    def run(self, result=None):
        try:
            return super().run(result)
        finally:
            for path in self.mounts:
                subprocess.run(["umount", "-l", path], check=False)
                shutil.rmtree(os.path.dirname(path), ignore_errors=True)

    def mount_on(self, path, *arguments):
        os.makedirs(path, exist_ok=True)
        mount(*arguments, path)
        self.mounts.append(path)

    def start_must_fail_with_the_store(self):
        self.assertEqual(self.one.end_of(self.one.launch()), 1)
        messages = self.one.messages()
        errors = [text for text in messages if text.startswith("orvsetmgmt error: ")]
        self.assertEqual(errors, ["orvsetmgmt error: 2"], messages)
        self.assertEqual(messages[-1], "stop orv broker daemon")

    def test_a_missing_store_is_created(self):
        self.one.start()
        self.assertTrue(os.path.isdir(os.path.join(self.one.root, "var", "settings")))
        with Client() as client:
            self.assertEqual(client.call("enable_services"), (None, 0))

    def test_a_store_that_cannot_be_created_ends_the_start(self):
        self.one.start_bus()
        with open(os.path.join(self.one.root, "var"), "w") as file:
            file.write("in the way")
        self.start_must_fail_with_the_store()

    def test_a_read_only_store_is_read_and_fails_writes(self):
        self.one.start()
        with Client() as client:
            self.assertEqual(client.call("disable_services"), (None, 0))
        self.one.stop_daemon()
        var = os.path.join(self.one.root, "var")
        self.mount_on(var, "--bind", var)
        mount("-o", "remount,bind,ro", var)
        self.one.start_daemon()
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 0}, 0))
            self.assertEqual(client.call("enable_services"), (None, -1))
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 0}, 0))
        self.assertIn("failed to set protection_enabled key to 1", self.one.messages(level=0))
        self.one.stop_daemon()

    def test_a_full_store_fails_writes_and_recovers_with_the_space(self):
        var = os.path.join(self.one.root, "var")
        self.mount_on(var, "-t", "tmpfs", "-o", "size=8m,mode=700", "tmpfs")
        self.one.start()
        filler = os.path.join(var, "filler")
        with open(filler, "wb", buffering=0) as file:
            try:
                while True:
                    file.write(b"x" * 4096)
            except OSError:
                pass
        # The store reuses pages that it has freed before, so a few writes may still find room.
        confirmed = {"status": 1}
        failures = 0
        for number in range(40):
            on = number % 2
            with Client() as client:
                data, status = client.call("enable_services" if on else "disable_services")
            self.assertIsNone(data)
            if status == 0:
                confirmed = {"status": on}
            else:
                self.assertEqual(status, -1)
                failures += 1
            with Client() as client:
                self.assertEqual(client.call("get_services_status"), (confirmed, 0))
        self.assertGreater(failures, 0)
        logged = [text for text in self.one.messages(level=0) if text.startswith("failed to set protection_enabled key")]
        self.assertEqual(len(logged), failures)

        os.unlink(filler)
        with Client() as client:
            self.assertEqual(client.call("disable_services"), (None, 0))
            self.assertEqual(client.call("get_services_status"), ({"status": 0}, 0))
        self.one.stop_daemon()

    def test_a_damaged_store_never_ends_the_daemon_by_a_signal(self):
        self.one.start()
        for number in range(30):
            self.one.set_setting("/filling/%d" % number, "x" * 500)
        self.one.stop_daemon()
        directory = os.path.join(self.one.root, "var", "settings")
        kept = directory + ".kept"
        shutil.copytree(directory, kept)
        chance = random.Random(1)
        for damage in (self.overwrite_head, self.truncate, self.empty, self.scatter, self.scatter, self.scatter):
            shutil.rmtree(directory)
            shutil.copytree(kept, directory)
            damage(os.path.join(directory, "data.mdb"), chance)
            self.check_no_signal(damage.__name__)

    def test_a_damaged_store_of_what_a_reboot_ends_does_not_keep_the_daemon_down(self):
        self.one.start()
        self.one.set_setting("/tmp/filling", "x" * 500)
        self.one.stop_daemon()
        with open(os.path.join(self.one.root, "tmp", "settings", "data.mdb"), "r+b") as file:
            file.write(b"\0" * 8192)
        self.one.start_daemon()
        warnings = [text for text in self.one.messages(level=1) if text.startswith("store tmp/settings: ")]
        self.assertEqual(len(warnings), 1, warnings)
        self.assertIsNone(self.one.setting("/tmp/filling"))
        with Client() as client:
            self.assertEqual(client.call("disable_services"), (None, 0))

    def test_damaged_settings_are_those_of_the_copy_that_the_daemon_has_made(self):
        self.one.start_bus()
        self.one.set_setting("/registration/tuvo_name", "home")
        self.one.start_daemon()
        store = os.path.join(self.one.root, "var", "settings")
        copy = os.path.join(store, "data.mdb.copy")
        # It is made a piece per pass of the daemon's loop, and each answer ends one.
        world.wait_until(lambda: self.one.answers() and os.path.exists(copy), "the daemon has made the copy")
        self.one.stop_daemon()
        with open(os.path.join(store, "data.mdb"), "r+b") as file:
            file.write(b"\0" * 8192)
        self.one.start_daemon()
        self.assertEqual(self.one.setting("/registration/tuvo_name"), "home")
        damaged = [text for text in self.one.messages(level=0) if text.startswith("store var/settings: ")]
        self.assertEqual(len(damaged), 1, damaged)

    def check_no_signal(self, what):
        """The daemon gives up in good order, or serves; it may then fail commands, and stops in good order."""
        process = self.one.daemon = self.one.launch()

        def ended_or_serves():
            if process.poll() is not None:
                return True
            try:
                with Client() as client:
                    client.call("no_such_command")
                    return True
            except (ConnectionError, EOFError):
                return False

        world.wait_until(ended_or_serves, "the daemon ends or serves")
        if process.poll() is None:
            for name in ("disable_services", "enable_services", "get_services_status"):
                with Client() as client:
                    self.assertIn(client.call(name)[1], (0, -1), what)
            self.one.stop_daemon()
        else:
            self.assertEqual(self.one.end_of(process), 1, what)

    def overwrite_head(self, path, chance):
        with open(path, "r+b") as file:
            file.write(chance.randbytes(8192))

    def truncate(self, path, _):
        os.truncate(path, os.path.getsize(path) // 2)

    def empty(self, path, _):
        os.truncate(path, 0)

    def scatter(self, path, chance):
        size = os.path.getsize(path)
        with open(path, "r+b") as file:
            for _ in range(20):
                file.seek(chance.randrange(8192, size))
                file.write(chance.randbytes(64))


class StoresOfAnotherMachine(world.TestCase):
    """Data files of a program with another word size: nobody takes them for damaged, or for empty."""

    def setUp(self):
        super().setUp()
        with open(world.program("orvbrokerd"), "rb") as program:
            self.bits = 64 if program.read(5)[4] == 2 else 32
        # The first page of such a file, as far as it tells what it is: a page's header, the magic number, the
        # version.
        header = 12 if self.bits == 64 else 16
        first_page = bytes(header) + struct.pack("=II", 0xBEEFC0DE, 1)
        self.bytes = first_page.ljust(8192, b"\0")
        self.reason = "it was written by a %d-bit program, and this is a %d-bit one" % (96 - self.bits, self.bits)
        self.one = self.world()

    def bring_in(self, store):
        """Puts such a file in the place of a store's; returns its path."""
        path = os.path.join(self.one.root, "var", store, "data.mdb")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(self.bytes)
        return path

    def check_kept(self, path):
        with open(path, "rb") as file:
            self.assertEqual(file.read(), self.bytes)
        self.assertEqual([name for name in os.listdir(os.path.dirname(path)) if name.startswith("data.mdb")], ["data.mdb"])

    def test_settings_and_devices_keep_the_daemon_from_starting_with_a_line_that_says_why(self):
        self.one.start_bus()
        for store, command in (("settings", ("settings", "get", "/protection/enabled")), ("devices", ("device", "list"))):
            path = self.bring_in(store)
            self.assertEqual(self.one.end_of(self.one.launch()), 1)
            self.assertIn("store var/%s: cannot use the data file: %s" % (store, self.reason), self.one.messages(level=0))
            result = self.one.orvctl(*command)
            self.assertEqual((result.returncode, result.stdout), (3, ""))
            self.assertRegex(result.stderr, "(?m)^orvctl: cannot open the .*: %s: %s$" % (path, self.reason))
            self.check_kept(path)
            os.rename(path, path + ".kept")
        self.one.start_daemon()
        with Client() as client:
            self.assertEqual(client.call("disable_services"), (None, 0))

    def test_telemetry_is_sent_without_being_kept(self):
        path = self.bring_in("telemetry")
        self.one.start()
        line = "telemetry: events are sent without being kept: %s: cannot use the data file: %s" % (path, self.reason)
        self.one.wait_for_log(line)
        self.check_kept(path)


class Kills(world.TestCase):
    """What was confirmed is there after kill -9, and what was under way is there whole or not at all."""

    COMMANDS = {"/protection/enabled": ("disable_services", "enable_services"),
                "/protection/pro_features_enabled": ("pro_features_disable", "pro_features_enable")}

    def test_confirmed_writes_survive_kills_in_the_middle_of_writing(self):
        one = self.world()
        one.log_level = "1"
        one.start()
        chance = random.Random(7)
        confirmed = {}
        for _ in range(25):
            under_way = self.write_and_kill(one, confirmed, chance)
            one.start_daemon()
            for key, value in confirmed.items():
                allowed = {value, under_way[1]} if key == under_way[0] else {value}
                stored = one.setting(key)
                self.assertIn(stored, allowed)
                confirmed[key] = stored
        one.stop_daemon()

    def write_and_kill(self, one, confirmed, chance):
        """Some confirmed writes, and one whose answer is not waited for; returns that one's key and value."""
        with Client() as client:
            for _ in range(chance.randrange(1, 20)):
                key, value = self.choose(chance)
                self.assertEqual(client.call(self.COMMANDS[key][value]), (None, 0))
                confirmed[key] = str(value)
            key, value = self.choose(chance)
            client.send('{"type": "command", "name": "%s"}\n' % self.COMMANDS[key][value])
            if chance.random() < 0.5:
                os.sched_yield()
            one.kill_daemon()
        return key, str(value)

    def choose(self, chance):
        return chance.choice(list(self.COMMANDS)), chance.randrange(2)


if __name__ == "__main__":
    world.main()
