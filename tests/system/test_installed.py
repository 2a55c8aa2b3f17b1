"""Installed where it belongs, and started by the service files' own commands.

The agent's root directory lies in a mount namespace of the test's own, so that the programs are where they expect to be,
and nothing has to be told where that is."""

import json
import os
import re
import shutil
import subprocess
import tempfile

import services
import world
from world import Client

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
# Below the root, what each component consists of.
RUNTIME = ["bin/orvbrokerd", "bin/orvexchanged", "etc/exchange.conf", "share/doc/orvbrokerd/NOTICES",
           "share/man/man1/orvexchanged.1", "share/man/man8/orvbrokerd.8", "share/orvbrokerd/openwrt/orvbrokerd.init",
           "share/orvbrokerd/systemd/orvbrokerd.service", "share/orvbrokerd/systemd/orvbrokerd.tmpfiles.conf",
           "share/orvbrokerd/systemd/orvexchanged.service"]
TOOLS = ["bin/orvctl", "share/bash-completion/completions/orvctl", "share/fish/vendor_completions.d/orvctl.fish",
         "share/man/man1/orvctl.1", "share/zsh/site-functions/_orvctl"]
DEVELOPMENT = ["bin/orvagentsim", "include/orvbroker/client.h", "include/orvbroker/client_c.h",
               "include/orvbroker/deadline.h", "lib/liborvbroker_client.a", "lib/pkgconfig/orvbroker-client.pc",
               "share/man/man1/orvagentsim.1"]
COMPONENTS = {"runtime": RUNTIME, "tools": TOOLS, "development": DEVELOPMENT}
# What is not in a package, and stays when the package goes.
DATA = {"run", "tmp", "var"}
LIMIT = 240  # seconds


def files_below(directory):
    return sorted(os.path.relpath(os.path.join(path, name), directory)
                  for path, _, names in os.walk(directory) for name in names)


def execute(*command, **options):
    """Runs a command that must succeed; returns what it says."""
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, timeout=LIMIT,
                            **options)
    if result.returncode != 0:
        raise AssertionError("%s ended with %d: %s" % (" ".join(command), result.returncode, result.stdout))
    return result.stdout


def install(directory, *components):
    """Installs components, or all of them, below another directory than the file system's root."""
    for options in (("--component", one) for one in components) if components else ((),):
        execute("cmake", "--install", world.BUILD, *options, env=dict(os.environ, DESTDIR=directory))


class Scratch(world.TestCase):
    def setUp(self):
        super().setUp()
        self.scratch = tempfile.mkdtemp(prefix="orv-installed-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.scratch, ignore_errors=True)
        self.root = world.default_root()

    def mount(self, *arguments):
        execute("mount", *arguments)
        self.addCleanup(subprocess.run, ["umount", "-l", arguments[-1]], check=True)


class Components(Scratch):
    def test_each_component_has_its_files_and_no_others(self):
        for component, files in COMPONENTS.items():
            staged = os.path.join(self.scratch, component)
            install(staged, component)
            # lib may be lib64.
            found = [re.sub(r"^lib\w+/", "lib/", name) for name in files_below(staged + self.root)]
            self.assertEqual(sorted(found), files, component)
            self.assertEqual(files_below(staged), [os.path.join(self.root[1:], name)
                                                   for name in files_below(staged + self.root)])

    def test_all_together_are_what_is_installed(self):
        install(self.scratch)
        found = [re.sub(r"^lib\w+/", "lib/", name) for name in files_below(self.scratch + self.root)]
        self.assertEqual(found, sorted(RUNTIME + TOOLS + DEVELOPMENT))

    def test_the_routers_archives_hold_the_components_without_the_simulator(self):
        execute("cpack", "-G", "TGZ", "-B", self.scratch, "--config", os.path.join(world.BUILD, "CPackConfig.cmake"))
        archives = sorted(name for name in os.listdir(self.scratch) if name.endswith(".tar.gz"))
        self.assertEqual([name.rsplit("-", 1)[1] for name in archives], ["runtime.tar.gz", "tools.tar.gz"])
        for archive, files in zip(archives, (RUNTIME, TOOLS)):
            unpacked = os.path.join(self.scratch, archive + ".d")
            os.mkdir(unpacked)
            execute("tar", "-xzf", os.path.join(self.scratch, archive), "-C", unpacked)
            self.assertEqual(files_below(unpacked + self.root), files)
            self.assertEqual(os.listdir(unpacked), [self.root.split("/")[1]])
            listed = execute("tar", "-tvzf", os.path.join(self.scratch, archive))
            self.assertEqual({line.split()[1] for line in listed.splitlines()}, {"root/root"})


class Router(Scratch):
    """A router's file system, as far as the agent is concerned."""

    def setUp(self):
        super().setUp()
        above = os.path.dirname(self.root)
        self.mount("-t", "tmpfs", "-o", "mode=755", "none", above)
        self.services = {}
        self.addCleanup(self.kill_all)

    def at(self, *pieces):
        return os.path.join(self.root, *pieces)

    def put_in_place(self, *components):
        """What a package manager does: new files are moved over the old ones."""
        staged = tempfile.mkdtemp(dir=self.scratch)
        install(staged, *components)
        execute("cp", "-a", "--remove-destination", staged + self.root, os.path.dirname(self.root))

    def remove(self, *components):
        """Removes the components' files, and the directories that are then empty."""
        for name in sum((COMPONENTS[component] for component in components), []):
            os.unlink(self.at(name))
        for path, _, _ in os.walk(self.root, topdown=False):
            if os.path.relpath(path, self.root).split(os.sep)[0] not in DATA and not os.listdir(path):
                os.rmdir(path)

    def start_units(self, *names):
        for name in names:
            unit = self.at("share/orvbrokerd/systemd", name + ".service")
            self.services[name] = services.Service(unit, os.path.join(self.scratch, name + ".log"))
            self.services[name].start()

    def kill_all(self):
        for service in self.services.values():
            service.kill()

    def orvctl(self, *arguments, status=0, **options):
        environment = {"PATH": os.environ["PATH"], "ORV_LOG_LEVEL": "0"}
        result = subprocess.run([self.at("bin/orvctl"), *arguments], env=environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                                timeout=world.DEADLINE, **options)
        self.assertEqual(result.returncode, status, result.stderr)
        return result.stdout

    def log(self, name):
        with open(os.path.join(self.scratch, name + ".log"), encoding="utf-8", errors="replace") as file:
            return file.read()


class Running(Router):
    """The daemons, started by their units."""

    def setUp(self):
        super().setUp()
        self.put_in_place("runtime", "tools")
        self.start_units("orvexchanged", "orvbrokerd")


class Served(Running):
    def test_the_units_start_it_and_it_answers(self):
        # They are up when they have told so: nobody waits.
        self.assertEqual(json.loads(self.orvctl("call", "get_services_status")), {"data": {"status": 1}, "status": 0})
        status = json.loads(self.orvctl("status"))
        self.assertEqual(status["daemon"]["state"], "running")
        self.assertEqual(status["exchange"]["address"], "unix:path=%s/run/exchange.skt" % self.root)
        self.assertTrue(status["exchange"]["reachable"])
        for name in DATA:
            self.assertEqual(os.stat(self.at(name)).st_mode & 0o777, 0o700, name)
        self.assertFalse(os.path.exists(self.at("run/exchange-private.conf")))

    def test_the_units_stop_it_in_order(self):
        for name in ("orvbrokerd", "orvexchanged"):
            self.services[name].stop()
        self.assertIn("stop orv broker daemon", self.log("orvbrokerd"))
        self.orvctl("call", "get_services_status", status=3)

    def test_what_it_may_not_be_given_it_does_not_have(self):
        for name, kept in (("orvbrokerd", 1 << 12 | 1 << 13), ("orvexchanged", 0)):
            with open("/proc/%d/status" % self.services[name].process.pid, encoding="ascii") as file:
                status = dict(line.split(":", 1) for line in file.read().splitlines())
            self.assertEqual(int(status["CapEff"], 16), kept, name)
            self.assertEqual(status["NoNewPrivs"].strip(), "1")

    def test_its_limits_leave_room_for_hundreds_of_clients(self):
        clients = [Client() for _ in range(500)]
        for client in clients:
            self.assertEqual(client.call("get_services_status"), ({"status": 1}, 0))
            self.addCleanup(client.close)

    def test_who_asks_for_more_memory_than_the_unit_gives_fails_alone(self):
        running = self.services["orvbrokerd"].process
        greedy = [Client() for _ in range(80)]
        for client in greedy:
            self.addCleanup(client.close)
            try:
                client.send(b"x" * ((4 << 20) - 1))  # no line feed: it has to be kept
            except (BrokenPipeError, ConnectionResetError):
                pass
        # All that was sent is read before a later client is served.
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 1}, 0))
        self.assertIsNone(running.poll())
        with open("/proc/%d/status" % running.pid, encoding="ascii") as status:
            resident = int(re.search(r"VmRSS:\s+(\d+) kB", status.read())[1])
        if services.bounds_memory():
            self.assertRegex(self.log("orvbrokerd"), r"no memory for \d+ bytes in the receive buffer")
            self.assertLess(resident, int(self.services["orvbrokerd"].unit.one("MemoryMax")[:-1]) << 10)
        for client in greedy:
            client.close()
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 1}, 0))

    def test_the_firewall_script_runs_with_the_privileges_that_are_left(self):
        os.makedirs(self.at("lib/firewall"))
        with open(self.at("lib/firewall/orv_init_fw.sh"), "w", encoding="ascii") as script:
            script.write("ip link set lo up && ip address add 192.0.2.7/32 dev lo && "
                         "echo 1 >/proc/sys/net/ipv4/conf/lo/forwarding\n")
        self.assertEqual(json.loads(self.orvctl("call", "reapply_firewall_rules"))["status"], 0)
        self.assertIn("192.0.2.7", execute("ip", "address", "show", "dev", "lo"))


class LargeStores(Router):
    def test_with_the_highest_limits_of_the_stores_it_keeps_events_copies_the_settings_and_serves(self):
        self.put_in_place("runtime", "tools")
        for key in ("/devmgmt/max_store_mib", "/karma/max_store_mib"):
            self.orvctl("settings", "set", key, "100000")
        self.start_units("orvexchanged", "orvbrokerd")
        stores = json.loads(self.orvctl("status"))["stores"]
        self.assertEqual([stores[name]["limit"] >> 20 for name in ("devices", "telemetry")], [90, 15])
        self.assertNotEqual(self.orvctl("telemetry", "list"), "")

        copy = self.at("var/settings/data.mdb.copy")

        def is_copied():  # a piece per pass of the daemon's loop, and each answer ends one
            with Client() as client:
                return client.call("get_services_status")[1] == 0 and os.path.exists(copy)

        world.wait_until(is_copied, "the settings are copied")
        clients = [Client() for _ in range(12)]  # 4 MiB each
        for client in clients:
            self.addCleanup(client.close)
            client.send(b"x" * ((4 << 20) - 1))  # no line feed: it has to be kept
        with Client() as client:  # all that was sent is read before
            self.assertEqual(client.call("get_services_status"), ({"status": 1}, 0))
        for line in ("no memory", "Cannot allocate", "cannot renew"):
            self.assertNotIn(line, self.log("orvbrokerd"))


class Upgrade(Running):
    def test_a_version_is_put_over_a_running_one_and_nothing_is_lost(self):
        self.orvctl("settings", "set", "/registration/tuvo_name", "before the upgrade")
        self.orvctl("settings", "set", "/tmp/volatile", "too")
        self.orvctl("device", "put", '{"did": "d1", "owner": "", "macs": {"aa:bb:cc:00:00:01": []}, "display_name": "TV"}')
        self.orvctl("call", "disable_services")
        before = self.orvctl("telemetry", "list")
        self.assertNotEqual(before, "")  # nobody is there to confirm them
        running = self.services["orvbrokerd"].process.pid

        self.put_in_place("runtime", "tools")
        self.assertTrue(os.readlink("/proc/%d/exe" % running).endswith(" (deleted)"))
        self.assertEqual(json.loads(self.orvctl("call", "get_services_status"))["data"], {"status": 0})

        with Client() as client:
            for name in ("orvexchanged", "orvbrokerd"):
                self.services[name].restart()
            client.expect_close()
        # Clients reconnect at once: the new one has told that it is up.
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 0}, 0))
        self.assertFalse(os.readlink("/proc/%d/exe" % self.services["orvbrokerd"].process.pid).endswith(" (deleted)"))
        self.assertEqual(self.orvctl("settings", "get", "/registration/tuvo_name"), "before the upgrade\n")
        self.assertEqual(self.orvctl("settings", "get", "/tmp/volatile"), "too\n")
        self.assertEqual(json.loads(self.orvctl("device", "show", "d1"))["display_name"], "TV")
        after = self.orvctl("telemetry", "list")
        self.assertEqual(after[:len(before)], before)

    def test_removing_it_leaves_nothing_but_data(self):
        for name in ("orvbrokerd", "orvexchanged"):
            self.services[name].stop()
        self.remove("runtime", "tools")
        self.assertEqual(set(os.listdir(self.root)), DATA)


if __name__ == "__main__":
    world.main()
