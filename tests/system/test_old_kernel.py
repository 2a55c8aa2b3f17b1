"""A kernel and file systems without what the programs use where it is there: all of it works as elsewhere."""

import ctypes
import errno
import os
import subprocess
import sys

import kernel
import world
from test_agentsim import Agent
from world import Client, wait_until

DONE = (None, 0)
FAILED = (None, -1)
MAC = "02:aa:00:00:00:01"
SCRIPT = "lib/firewall/orv_init_fw.sh"
CALLS = "import sys; sys.path.insert(0, %r); import test_old_kernel; test_old_kernel.tell_what_is_refused()"


def age():
    kernel.refuse(kernel.OLD)


def tell_what_is_refused():
    """Prints the calls of an old kernel that fail as they should."""
    libc = ctypes.CDLL(None, use_errno=True)
    with open("/proc/self/exe", "rb") as file:
        arguments = {"pidfd_open": (os.getpid(), 0), "close_range": (1000, 1000, 0), "getrandom": (None, 0, 0),
                     "fallocate": (file.fileno(), 0, 0, 1)}
        for call, error in kernel.OLD.items():
            if libc.syscall(kernel.number_of(call), *arguments[call]) == -1 and ctypes.get_errno() == error:
                print(call)


class OldKernel(world.TestCase):
    def setUp(self):
        super().setUp()
        told = subprocess.run([sys.executable, "-c", CALLS % os.path.dirname(os.path.abspath(__file__))], preexec_fn=age,
                              stdout=subprocess.PIPE, text=True, check=True)
        self.assertEqual(told.stdout.split(), list(kernel.OLD))
        self.one = self.world()
        self.one.start_bus()

    def call(self, name, *data):
        with Client() as client:
            return client.call(name, *data)

    def write_script(self, text):
        self.one.write(SCRIPT, text)

    def test_commands_scripts_stores_and_telemetry_work(self):
        agent = Agent(self.one)
        self.addCleanup(agent.stop)
        self.one.start_daemon(before=age)
        agent.wait_for_log("telemetry event [0-9]+: tuvo_agent_status")
        wait_until(lambda: self.one.orvctl("telemetry", "list", preexec_fn=age).stdout == "", "the outbox is empty")
        self.check_settings()
        self.check_devices()
        self.check_scripts()
        self.one.stop_daemon()
        self.one.start_daemon(before=age)
        self.assertEqual(self.call("get_services_status"), ({"status": 0}, 0))
        self.assertEqual(self.one.messages(level=1), [], "nothing to complain about")
        self.one.stop_daemon()

    def check_settings(self):
        self.assertEqual(self.call("disable_services"), DONE)
        self.assertEqual(self.call("get_services_status"), ({"status": 0}, 0))
        result = self.one.orvctl("settings", "set", "/tmp/some", "value", preexec_fn=age)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(self.one.setting("/tmp/some"), "value")

    def check_devices(self):
        self.put_device("TV")
        devices, status = self.call("get_devices")
        self.assertEqual((status, [device["display_name"] for device in devices if device["did"] == "d1"]), (0, ["TV"]))
        with Client() as client:
            client.subscribe("device_discovery")
            self.put_device("Radio")
            frames = (client.frame() for _ in range(1000))  # the agent's devices are among them
            self.assertIn('{"mac": "%s", "display_name": "Radio"}' % MAC, frames)

    def put_device(self, name):
        device = '{"did": "d1", "display_name": "%s", "macs": {"%s": []}}' % (name, MAC)
        result = self.one.orvctl("device", "put", device, preexec_fn=age)
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def check_scripts(self):
        """They run, with none of the daemon's descriptors, and those that fail are noticed."""
        descriptors = os.path.join(self.one.root, "descriptors")
        self.write_script('ls /proc/self/fd >"%s"\n' % descriptors)
        self.assertEqual(self.call("reapply_firewall_rules"), DONE)
        with open(descriptors) as file:
            self.assertEqual([line.strip() for line in file], ["0", "1", "2", "3"])  # the last one is that of ls
        self.assertEqual(self.one.messages(level=1), [], "nothing to complain about")
        for text in ("exit 1\n", "kill -9 $$\n"):
            self.write_script(text)
            self.assertEqual(self.call("reapply_firewall_rules"), FAILED)
            os.truncate(self.one.log_path, 0)  # of these failures
        self.write_script("exit 0\n")
        self.assertEqual(self.call("reapply_firewall_rules"), DONE)


if __name__ == "__main__":
    world.main()
