"""The Debian package: what is in it, and its life in a Debian system that is this one, with all changes kept apart."""

import glob
import json
import os
import re
import shutil
import subprocess
import tempfile

import machine
import services
import world
from test_installed import DEVELOPMENT, RUNTIME, TOOLS, execute, files_below
from world import Client

SCRIPTS = ("postinst", "postrm", "prerm")
UNITS = ("orvexchanged", "orvbrokerd")
# Outside the agent's root.
DEBIAN = ["lib/systemd/system/orvbrokerd.service", "lib/systemd/system/orvexchanged.service",
          "usr/lib/tmpfiles.d/orvbrokerd.conf", "usr/share/doc/orvbrokerd/changelog.Debian.gz",
          "usr/share/doc/orvbrokerd/changelog.gz", "usr/share/doc/orvbrokerd/copyright",
          "usr/share/lintian/overrides/orvbrokerd"]


class Package(world.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp(prefix="orv-debian-", dir="/tmp")
        cls.addClassCleanup(shutil.rmtree, cls.scratch, ignore_errors=True)
        execute("cpack", "-G", "DEB", "-B", cls.scratch, "--config", os.path.join(world.BUILD, "CPackConfig.cmake"))
        (cls.package,) = glob.glob(os.path.join(cls.scratch, "*.deb"))
        cls.root = world.default_root()


class Contents(Package):
    def test_it_has_all_components_and_what_debian_wants(self):
        unpacked = os.path.join(self.scratch, "unpacked")
        execute("dpkg-deb", "-x", self.package, unpacked)
        self.assertEqual([re.sub(r"/lib\w+/", "/lib/", name) for name in files_below(unpacked) if name not in DEBIAN],
                         sorted(os.path.join(self.root[1:], name) for name in RUNTIME + TOOLS + DEVELOPMENT))
        self.assertEqual([name for name in files_below(unpacked) if name in DEBIAN], DEBIAN)
        for unit in UNITS:
            execute("cmp", os.path.join(unpacked, "lib/systemd/system", unit + ".service"),
                    unpacked + self.root + "/share/orvbrokerd/systemd/%s.service" % unit)
        listed = execute("dpkg-deb", "-c", self.package)
        self.assertEqual({line.split()[1] for line in listed.splitlines()}, {"root/root"})

    def test_its_control_file_tells_what_it_is_and_needs(self):
        fields = dict(re.findall(r"^([\w-]+): (.*)$", execute("dpkg-deb", "-f", self.package), re.MULTILINE))
        version = world.configured()["CMAKE_PROJECT_VERSION"]
        self.assertEqual((fields["Package"], fields["Version"]), ("orvbrokerd", version + "-1"))
        self.assertEqual(os.path.basename(self.package), "orvbrokerd_%s-1_%s.deb" % (version, fields["Architecture"]))
        self.assertIn("dbus-daemon", fields["Depends"].split(", "))
        self.assertRegex(fields["Depends"], r"\blibc6 \(>= ")
        self.assertRegex(fields["Maintainer"], r"^.+ <.+@.+>$")

    def test_its_scripts_are_clean(self):
        control = os.path.join(self.scratch, "control")
        execute("dpkg-deb", "-e", self.package, control)
        execute("shellcheck", *(os.path.join(control, name) for name in SCRIPTS))
        with open(os.path.join(control, "conffiles"), encoding="ascii") as file:
            self.assertEqual(file.read(), self.root + "/etc/exchange.conf\n")

    def test_lintian_has_nothing_to_say(self):
        if not shutil.which("lintian"):
            self.skipTest("NOT TESTED: lintian is not installed, so nobody has looked for what Debian does not want")
        self.assertEqual(execute("lintian", "--allow-root", self.package), "")


class System(machine.TestCase, Package):
    def setUp(self):
        super().setUp()
        shutil.copy(self.package, self.at("root/package.deb"))
        self.services = []
        self.addCleanup(lambda: [service.kill() for service in self.services])

    def dpkg(self, *arguments):
        return self.run_there("dpkg", "--force-unsafe-io", *arguments)

    def start(self):
        for name in UNITS:
            self.services.append(services.Service(self.at("lib/systemd/system", name + ".service"),
                                                  os.path.join(self.scratch, name + ".log"), within=self.system))
            self.services[-1].start()

    def orvctl(self, *arguments):
        return self.run_there(self.root + "/bin/orvctl", *arguments)

    def play_systemd(self):
        """A system where systemd runs, as far as the package's scripts can see; what they call is written down."""
        os.makedirs(self.at("run/systemd/system"))
        calls = "/run/calls"
        for name in ("systemctl", "deb-systemd-invoke"):
            if os.path.lexists(self.at("usr/bin", name)):
                os.unlink(self.at("usr/bin", name))
            with open(self.at("usr/bin", name), "w", encoding="ascii") as file:
                file.write('#!/bin/sh\necho "%s $*" >>%s\n' % (name, calls))
            os.chmod(self.at("usr/bin", name), 0o755)
        return self.at(calls)

    def left(self):
        """What the package has left in the system, whatever it is called."""
        return [name for name in files_below(self.changes) if "orv" in name and os.path.lexists(self.at(name))]

    def test_it_is_installed_upgraded_removed_and_purged(self):
        self.dpkg("-i", "/root/package.deb")
        self.assertIn("Status: install ok installed", self.dpkg("-s", "orvbrokerd"))
        self.start()
        self.orvctl("settings", "set", "/kept", "by the upgrade")
        self.orvctl("call", "disable_services")
        with open(self.at(self.root, "etc/exchange.conf"), "a", encoding="ascii") as file:
            file.write("<!-- the owner's -->\n")

        self.dpkg("-i", "/root/package.deb")
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 0}, 0))
            for service in self.services:
                service.restart()
            client.expect_close()
        self.assertEqual(json.loads(self.orvctl("call", "get_services_status")), {"data": {"status": 0}, "status": 0})
        self.assertEqual(self.orvctl("settings", "get", "/kept"), "by the upgrade\n")
        with open(self.at(self.root, "etc/exchange.conf"), encoding="ascii") as file:
            self.assertTrue(file.read().endswith("<!-- the owner's -->\n"))

        for service in reversed(self.services):
            service.stop()
        self.dpkg("-r", "orvbrokerd")
        self.assertEqual(sorted(os.listdir(self.at(self.root))), ["etc", "run", "tmp", "var"])
        self.assertTrue(os.path.isfile(self.at(self.root, "var/settings/data.mdb")))
        self.dpkg("-P", "orvbrokerd")
        self.assertEqual(self.left(), [])
        self.assertFalse(os.path.exists(self.at(self.root)))

    def test_what_it_tells_systemd(self):
        calls = self.play_systemd()

        def told():
            with open(calls, encoding="ascii") as file:
                lines = file.read().splitlines()
            os.unlink(calls)
            return lines

        self.dpkg("-i", "/root/package.deb")
        self.assertEqual(told(), ["systemctl daemon-reload"])  # nothing is started
        self.dpkg("-i", "/root/package.deb")
        self.assertEqual([line for line in told() if not line.endswith("daemon-reload")],
                         ["systemctl try-restart orvexchanged.service orvbrokerd.service"])
        wanted = self.at("etc/systemd/system/multi-user.target.wants/orvbrokerd.service")
        os.makedirs(os.path.dirname(wanted), exist_ok=True)
        os.symlink("/lib/systemd/system/orvbrokerd.service", wanted)
        self.dpkg("-r", "orvbrokerd")
        self.assertEqual(told(), ["deb-systemd-invoke stop orvbrokerd.service orvexchanged.service",
                                  "systemctl daemon-reload"])
        self.assertFalse(os.path.lexists(wanted))


if __name__ == "__main__":
    world.main()
