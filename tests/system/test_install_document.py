"""The installation on a router, as docs/porting.md has it, command for command, under a stand-in for procd."""

import glob
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile

import machine
import services
import world
from test_installed import execute, files_below
from world import Client, wait_until

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PRESET = "cmake --preset release -DORV_BUILD_TESTS=OFF"

# What procd does with an instance: its environment and limits, and starting it again. Each is a process group.
RC_COMMON = r"""#!/bin/sh
script=$1
action=$2
procd_open_instance() { command= settings= limits=; }
procd_set_param() {
    kind=$1
    shift
    case $kind in
    command) command=$* ;;
    env) settings=$* ;;
    limits)
        for limit; do
            values=${limit#*=}
            limits="$limits --${limit%%=*}=${values% *}:${values#* }"
        done
        ;;
    esac
}
procd_close_instance() {
    again="while :; do env $settings prlimit $limits $command; sleep 1; done"
    setsid sh -c "$again" </dev/null >>/root/daemons.log 2>&1 &
    echo $! >>/root/instances
}
. "$script"
name=$(basename "$script")
case $action in
start) start_service ;;
stop)
    while read -r group; do kill -TERM "-$group"; done </root/instances
    rm /root/instances
    ;;
enable) mkdir -p /etc/rc.d && ln -sf "../init.d/$name" "/etc/rc.d/S$START$name" ;;
disable) rm -f "/etc/rc.d/S$START$name" ;;
esac
"""


def blocks():
    """The shell commands of the section, one text for each block."""
    with open(os.path.join(SOURCE, "docs", "porting.md"), encoding="utf-8") as file:
        section = re.search(r"(?ms)^## From a package to a running daemon\n(.*?)^## ", file.read())[1]
    return re.findall(r"(?ms)^```sh\n(.*?)^```", section)


class Document(machine.TestCase):
    def setUp(self):
        super().setUp()
        self.scratch = tempfile.mkdtemp(prefix="orv-document-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.scratch, ignore_errors=True)
        self.root = world.default_root()
        self.cross, self.build, self.install, self.upgrade, self.remove = blocks()
        execute("cpack", "-G", "TGZ", "-B", self.scratch, "--config", os.path.join(world.BUILD, "CPackConfig.cmake"))
        for archive in glob.glob(os.path.join(self.scratch, "*.tar.gz")):
            shutil.copy(archive, self.at("tmp"))
        with open(self.at("etc/rc.common"), "w", encoding="ascii") as file:
            file.write(RC_COMMON if services.bounds_memory() else RC_COMMON.replace("for limit; do", 'for limit in "$1"; do'))
        os.chmod(self.at("etc/rc.common"), 0o755)
        os.makedirs(self.at("etc/init.d"), exist_ok=True)
        self.addCleanup(self.end_instances)

    def end_instances(self):
        try:
            with open(self.at("root/instances"), encoding="ascii") as file:
                groups = [int(line) for line in file]
        except FileNotFoundError:
            return
        for group in groups:
            try:
                os.killpg(group, signal.SIGKILL)
            except ProcessLookupError:
                pass

    def follow(self, block):
        return self.run_there("sh", "-eu", "-c", block.replace("/opt/orvane", self.root))

    def test_the_router_is_brought_up_upgraded_and_cleaned(self):
        shown = self.follow(self.install)
        self.assertIn('{"data": {"status": 1}, "status": 0}\n', shown)
        self.assertTrue(os.path.islink(self.at("etc/rc.d/S95orvbrokerd")))
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 1}, 0))
        self.assertEqual(os.readlink(self.at(self.root, "run")), "/tmp/orvane/run")
        orvctl = self.root + "/bin/orvctl"
        self.run_there(orvctl, "call", "disable_services")

        shown = self.follow(self.upgrade)
        self.assertIn('{"data": {"status": 0}, "status": 0}\n', shown)
        self.assertEqual(json.loads(self.run_there(orvctl, "status"))["daemon"]["state"], "running")

        self.follow(self.remove)

        def gone():
            try:
                Client().close()
            except ConnectionRefusedError:
                return True
            return False

        wait_until(gone, "the daemon is gone")
        self.assertEqual(sorted(os.listdir(self.at(self.root))), ["run", "tmp", "var"])
        self.assertIn("settings/data.mdb", files_below(self.at(self.root, "var")))
        self.assertFalse(os.path.lexists(self.at("etc/rc.d/S95orvbrokerd")))

    def test_the_commands_that_build_are_those_of_the_tree(self):
        self.assertEqual(self.build.splitlines(), [PRESET, "cmake --build --preset release",
                                                   "(cd build/release && cpack -G TGZ)"])
        self.assertEqual(self.cross.splitlines(), ["scripts/cross", "(cd build/armmusl && cpack -G TGZ)"])
        self.assertTrue(os.access(os.path.join(SOURCE, "scripts", "cross"), os.X_OK))
        listed = subprocess.run(["cmake", "--list-presets"], cwd=SOURCE, stdout=subprocess.PIPE, text=True, check=True).stdout
        self.assertIn('"release"', listed)


if __name__ == "__main__":
    world.main()
