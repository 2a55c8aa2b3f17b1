"""A machine of the test's own: this one's file system with all changes kept apart, and without the agent's root in it."""

import os
import shutil
import subprocess
import tempfile

import world


class TestCase(world.TestCase):
    def setUp(self):
        super().setUp()
        layers = tempfile.mkdtemp(prefix="orv-machine-", dir="/tmp")
        self.addCleanup(shutil.rmtree, layers, ignore_errors=True)
        self.mount("-t", "tmpfs", "-o", "mode=755", "none", layers)
        for name in ("changes", "work", "system"):
            os.mkdir(os.path.join(layers, name))
        self.changes, self.system = os.path.join(layers, "changes"), os.path.join(layers, "system")
        try:
            self.mount("-t", "overlay", "-o", "lowerdir=/,upperdir=%s,workdir=%s/work" % (self.changes, layers), "overlay",
                       self.system)
        except subprocess.CalledProcessError as reason:
            self.skipTest("NOT TESTED: no file system can be laid over this machine's, so nothing was installed: %s" % reason)
        for name in ("dev", "proc"):
            self.mount("--rbind", "/" + name, self.at(name))
        self.mount("-t", "tmpfs", "none", self.at("run"))
        self.mount("-t", "tmpfs", "-o", "mode=1777", "none", self.at("tmp"))
        self.mount("-t", "tmpfs", "-o", "mode=755", "none", self.at("root"))
        if world.configured()["ORV_EMULATOR"]:  # what stands before each program starts it by its place in the build
            os.makedirs(self.at(world.BUILD), exist_ok=True)
            self.mount("--bind", world.BUILD, self.at(world.BUILD))
        shutil.rmtree(self.at(world.default_root()), ignore_errors=True)

    def mount(self, *arguments):
        subprocess.run(["mount", *arguments], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", arguments[-1]], check=True)

    def at(self, *pieces):
        return os.path.join(self.system, *(piece.lstrip("/") for piece in pieces))

    def run_there(self, *command):
        """Runs a command there that must succeed; returns what it says."""
        result = subprocess.run(["chroot", self.system, *command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                env={"PATH": os.environ["PATH"], "ORV_LOG_LEVEL": "0", "DEBIAN_FRONTEND": "noninteractive"},
                                timeout=world.DEADLINE * 3, check=False)
        if result.returncode != 0:
            raise AssertionError("%s ended with %d: %s" % (" ".join(command), result.returncode, result.stdout))
        return result.stdout
