"""What starts the daemons: the init script of OpenWrt, run by a shell with procd's functions replaced, and the units."""

import os
import re
import shutil
import subprocess

import neighbours
import services
import world

PACKAGING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging")

# procd's functions tell what they are called with; logger prints what it is to log.
PROCD = """
procd_open_instance() { echo "instance $1"; }
procd_set_param() { echo "$*"; }
procd_close_instance() { :; }
logger() { echo "$6" >&2; }
"""


class InitScript(world.TestCase):
    def setUp(self):
        super().setUp()
        self.one = self.world()
        self.volatile = os.path.join(self.one.root, "memory")
        self.root = os.path.join(self.one.root, "root")
        os.mkdir(self.root)

    def start(self):
        with open(os.path.join(PACKAGING, "openwrt", "orvbrokerd.init"), encoding="utf-8") as file:
            script = file.read()
        self.assertIn("\nROOT=/opt/orvane\nVOLATILE=/tmp/orvane\n", script)
        script = script.replace("ROOT=/opt/orvane\nVOLATILE=/tmp/orvane\n",
                                "ROOT=%s\nVOLATILE=%s\n" % (self.root, self.volatile))
        return subprocess.run(["sh", "-c", script + PROCD + "start_service"], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=world.DEADLINE, check=False)

    def check_started(self):
        result = self.start()
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        instances = [line for line in result.stdout.splitlines() if line.startswith("instance")]
        self.assertEqual(instances, ["instance orvexchanged", "instance orvbrokerd"])
        self.assertEqual(result.stdout.count("respawn 60 1 120\n"), 2)
        self.assertEqual(result.stdout.count("term_timeout 15\n"), 2)
        known = {"instance", "command", "env", "respawn", "term_timeout", "limits", "stderr"}
        self.assertEqual({line.split()[0] for line in result.stdout.splitlines()}, known)
        limits = [line for line in result.stdout.splitlines() if line.startswith("limits")]
        self.assertEqual(limits, ["limits nofile=%s %s as=%s %s core=0 0" % (
            (descriptors,) * 2 + (self.bytes_of(memory),) * 2) for descriptors, memory in (
                self.limits_of("orvexchanged"), self.limits_of("orvbrokerd"))])

    def limits_of(self, name):
        """The unit's: both start the same daemons."""
        unit = services.Unit(os.path.join(PACKAGING, "systemd", name + ".service"))
        return unit.one("LimitNOFILE"), unit.one("LimitAS")

    def bytes_of(self, megabytes):
        return int(megabytes.rstrip("M")) << 20

    def check_refused(self, directory):
        result = self.start()
        self.assertEqual((result.returncode, result.stdout), (1, ""))
        self.assertEqual(result.stderr, "%s is not a directory of root's own: remove it; not started\n" % directory)

    def mode(self, *path):
        return os.stat(os.path.join(*path)).st_mode & 0o777

    def test_the_first_start_makes_directories_of_its_own_and_links_to_them(self):
        for _ in range(2):  # the second time they are there
            self.check_started()
            self.assertEqual(self.mode(self.volatile), 0o700)
            for name in ("run", "tmp"):
                self.assertEqual(self.mode(self.volatile, name), 0o700)
                self.assertEqual(os.readlink(os.path.join(self.root, name)), os.path.join(self.volatile, name))

    def test_directories_of_an_earlier_version_are_closed(self):
        os.makedirs(os.path.join(self.volatile, "run"), 0o755)
        os.chmod(os.path.join(self.volatile, "run"), 0o755)
        self.check_started()
        self.assertEqual(self.mode(self.volatile, "run"), 0o700)

    def test_a_directory_that_others_can_write_to_is_refused(self):
        for mode in (0o777, 0o770, 0o1777, 0o707):
            os.mkdir(self.volatile)
            os.chmod(self.volatile, mode)
            self.check_refused(self.volatile)
            os.rmdir(self.volatile)
        os.mkdir(self.volatile, 0o700)
        os.mkdir(os.path.join(self.volatile, "run"))
        os.chmod(os.path.join(self.volatile, "run"), 0o777)
        self.check_refused(os.path.join(self.volatile, "run"))

    def test_a_link_or_a_file_is_refused(self):
        elsewhere = os.path.join(self.one.root, "elsewhere")
        os.mkdir(elsewhere, 0o700)
        os.symlink(elsewhere, self.volatile)
        self.check_refused(self.volatile)
        self.assertEqual(os.listdir(elsewhere), [])
        os.unlink(self.volatile)
        with open(self.volatile, "w", encoding="ascii"):
            pass
        self.check_refused(self.volatile)

    def test_a_directory_of_another_user_is_refused(self):
        neighbours.need_second_user(self)
        os.mkdir(self.volatile, 0o700)
        os.chown(self.volatile, neighbours.NOBODY, neighbours.NOBODY)
        self.check_refused(self.volatile)

    def test_a_directory_on_the_flash_gives_way_and_what_the_owner_has_linked_stays(self):
        os.makedirs(os.path.join(self.root, "tmp", "settings"))
        elsewhere = os.path.join(self.one.root, "elsewhere")
        os.mkdir(elsewhere)
        os.symlink(elsewhere, os.path.join(self.root, "run"))
        self.check_started()
        self.assertEqual(os.readlink(os.path.join(self.root, "tmp")), os.path.join(self.volatile, "tmp"))
        self.assertEqual(os.readlink(os.path.join(self.root, "run")), elsewhere)

    def test_a_tmpfs_in_the_place_stays(self):
        mounted = os.path.join(self.root, "tmp")
        os.mkdir(mounted)
        subprocess.run(["mount", "-t", "tmpfs", "none", mounted], check=True)
        self.addCleanup(subprocess.run, ["umount", mounted], check=True)
        self.check_started()
        self.assertFalse(os.path.islink(mounted))


class Units(world.TestCase):
    def setUp(self):
        super().setUp()
        self.paths = {name: os.path.join(PACKAGING, "systemd", name + ".service") for name in ("orvbrokerd", "orvexchanged")}
        self.units = {name: services.Unit(path) for name, path in self.paths.items()}

    def test_the_daemons_are_started_again_whatever_has_ended_them_within_bounds(self):
        for unit in self.units.values():
            self.assertEqual((unit.one("Restart"), unit.one("RestartSec"), unit.one("UMask")), ("always", "1", "0077"))
            # It is reached: so many starts, a second and more apart, lie within the interval.
            self.assertLess(int(unit.one("StartLimitBurst")) * 2, int(unit.one("StartLimitIntervalSec")))

    def test_readiness_is_told(self):
        for unit in self.units.values():
            self.assertEqual(unit.one("Type"), "notify")

    def test_a_greedy_request_fails_before_the_daemon_is_ended(self):
        """What the stores map is not memory; what is left of the address space is less than what ends it."""
        broker, exchange = self.units["orvbrokerd"], self.units["orvexchanged"]
        normal, _ = self.mapped()
        self.assertLess(int(broker.one("LimitAS")[:-1]) - normal, int(broker.one("MemoryMax")[:-1]))
        self.assertLess(int(exchange.one("LimitAS")[:-1]), int(exchange.one("MemoryMax")[:-1]))

    def test_the_stores_fit_however_large_they_may_be_set(self):
        """And while the copy of settings that are full is made, with 20 MiB for the program, and some clients."""
        _, most = self.mapped()
        settings_copy = self.STORES["var/settings"] + 1
        clients = 3 * 8
        self.assertGreaterEqual(int(self.units["orvbrokerd"].one("LimitAS")[:-1]), most + settings_copy + 20 + clients)

    # In MiB; a test of the stores holds the document to them.
    STORES = {"var/settings": 64, "var/devices": 64, "var/telemetry": 16, "tmp/settings": 32}

    def mapped(self):
        """The MiB that the stores map, as the document has them: unless set otherwise, and at most."""
        with open(os.path.join(PACKAGING, "..", "docs", "operations.md"), encoding="utf-8") as file:
            text = file.read()
        limits = {name: int(size) for name, size in re.findall(r"^\| `(\w+/\w+)` \| (\d+) MiB", text, re.MULTILINE)}
        self.assertEqual(limits, self.STORES)
        highest = {name: int(size) for name, size in re.findall(
            r"^\| `/\w+/max_store_mib` \| \d+ \| .*`(var/\w+)`.*, \d+ to (\d+)", text, re.MULTILINE)}
        self.assertEqual(sorted(highest), ["var/devices", "var/telemetry"])
        return sum(limits.values()), sum({**limits, **highest}.values())

    def test_what_lies_below_the_root_can_be_written_but_for_what_is_installed(self):
        for name, unit in self.units.items():
            root = os.path.dirname(os.path.dirname(unit.one("ExecStart")))
            writable = unit.one("ReadWritePaths").split()
            read_only = [path.lstrip("-") for path in unit.one("ReadOnlyPaths").split()]
            self.assertEqual(unit.one("ProtectSystem"), "strict")  # all else is read-only

            def can_be_written(path):
                """What is said of the nearest directory above it counts."""
                said = {above: above in writable for above in writable + read_only
                        if os.path.commonpath([above, path]) == above}
                return said[max(said, key=len)] if said else False

            for directory in ("", "run", "tmp", "var"):
                self.assertTrue(can_be_written(os.path.join(root, directory).rstrip("/")), (name, directory))
            for directory in ("bin", "etc", "lib", "share"):
                self.assertFalse(can_be_written(os.path.join(root, directory)), (name, directory))
            self.assertFalse(can_be_written("/etc"), name)
        # The lock of iptables is the firewall script's.
        self.assertIn("/run", self.units["orvbrokerd"].one("ReadWritePaths").split())

    def test_the_exposure_is_what_the_document_says(self):
        with open(os.path.join(PACKAGING, "..", "docs", "security.md"), encoding="utf-8") as file:
            table = dict(re.findall(r"^\| `(\w+)\.service` \| (\d\.\d) \|", file.read(), re.MULTILINE))
        self.assertEqual(sorted(table), sorted(self.paths))
        if not shutil.which("systemd-analyze"):
            self.skipTest("NOT TESTED: systemd-analyze is not installed, so nobody has looked at the units' exposure")
        for name, path in self.paths.items():
            told = subprocess.run(["systemd-analyze", "--no-pager", "--offline=true", "security", path],
                                  stdout=subprocess.PIPE, text=True, check=True, env=dict(os.environ, LC_ALL="C")).stdout
            (score,) = re.findall(r"Overall exposure level for %s.service: (\d+\.\d)" % name, told)
            self.assertLessEqual(float(score), float(table[name]))

    def test_systemd_understands_every_line(self):
        if not shutil.which("systemd-analyze"):
            self.skipTest("NOT TESTED: systemd-analyze is not installed, so nobody has read the units")
        root = os.path.join(self.world().root, "root")
        for path in self.paths.values():
            os.makedirs(os.path.join(root, "etc/systemd/system"), exist_ok=True)
            shutil.copy(path, os.path.join(root, "etc/systemd/system"))
        for target in ("sysinit", "basic", "shutdown", "multi-user"):
            with open(os.path.join(root, "etc/systemd/system", target + ".target"), "w", encoding="ascii") as file:
                file.write("[Unit]\nDescription=Of the test\n")
        for unit in self.units.values():
            os.makedirs(root + os.path.dirname(unit.one("ExecStart")), exist_ok=True)
            shutil.copy("/bin/true", root + unit.one("ExecStart"))
        result = subprocess.run(["systemd-analyze", "verify", "--man=no", "--root=" + root,
                                 *(name + ".service" for name in self.paths)],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        own = [line for line in result.stdout.splitlines() if "orv" in line]
        self.assertEqual(own, [])


if __name__ == "__main__":
    world.main()
