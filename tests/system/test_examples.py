"""The example clients do what they are there to show."""

import os
import signal
import subprocess

import world
from world import Client

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")
CLIENTS = {
    "shell": ["sh", os.path.join(EXAMPLES, "client.sh")],
    "python": [world.sys.executable, os.path.join(EXAMPLES, "client.py")],
    "c++": [world.program("example_client")],
    "c": [world.program("example_client_c")],
}
SUCCESS, FAILED, USAGE, UNAVAILABLE = range(4)


class Examples(world.TestCase):
    def setUp(self):
        super().setUp()
        self.served = self.world()
        self.served.start()

    def start(self, name, *arguments):
        environment = self.served.environment(PATH=world.BIN + os.pathsep + os.environ["PATH"])
        # A session of its own, so that what a client has started can be ended with it.
        process = subprocess.Popen([*CLIENTS[name], *arguments], env=environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, start_new_session=True)
        self.addCleanup(process.communicate)
        self.addCleanup(self.end, process)
        return process

    def end(self, process):
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass  # it has ended by itself

    def check(self, arguments, status, output="", errors=None):
        """What each of the clients prints, and how it ends."""
        for name in CLIENTS:
            with self.subTest(client=name):
                process = self.start(name, *arguments)
                printed, complained = process.communicate(timeout=world.DEADLINE)
                self.assertEqual((printed, process.returncode), (output, status), complained)
                if errors is not None:
                    self.assertEqual(complained, errors)
                self.assertEqual(complained == "", status == SUCCESS)

    def test_a_command_prints_the_data_of_its_answer(self):
        self.check(["call", "get_services_status"], SUCCESS, '{"status": 1}\n')
        self.check(["call", "set_va_cloud_trigger", "true"], SUCCESS, "null\n")
        self.check(["call", "get_va_cloud_trigger"], SUCCESS, "true\n")
        self.check(["call", "set_router_name", '"the \\"status\\": 5"'], SUCCESS, "null\n")
        self.check(["call", "get_router_name"], SUCCESS, '"the \\"status\\": 5"\n')

    def test_a_command_that_fails_says_so_on_standard_error(self):
        self.check(["call", "get_router_model"], FAILED, errors="null\n")
        self.check(["call", "va_set_exclusions", '["aa"]'], FAILED, errors="\"invalid value 'aa' at index 0\"\n")

    def test_a_wrong_command_line_is_explained(self):
        for arguments in ([], ["call"], ["subscribe"], ["nonsense", "x"], ["call", "x", "1", "2"]):
            self.check(arguments, USAGE)

    def test_data_that_is_not_json_is_told(self):
        for name, status in (("shell", USAGE), ("python", USAGE), ("c++", UNAVAILABLE), ("c", UNAVAILABLE)):
            process = self.start(name, "call", "set_va_cloud_trigger", "{x")
            printed, complained = process.communicate(timeout=world.DEADLINE)
            self.assertEqual((printed, process.returncode), ("", status), name)
            self.assertEqual(complained.count("\n"), 1, complained)

    def test_a_missing_daemon_is_told(self):
        self.served.stop_daemon()
        self.check(["call", "get_services_status"], UNAVAILABLE)

    def wait_for_subscriber(self, event, count):
        self.served.wait_for_log("process %s subscription" % event, count)
        with Client() as client:  # answered after the subscription is complete
            client.call("no_such_command")

    def publish(self, event, data):
        result = self.served.orvctl("exchange", "publish", event, data)
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_a_subscription_prints_each_event(self):
        for count, name in enumerate(CLIENTS, 1):
            with self.subTest(client=name):
                process = self.start(name, "subscribe", "va_status_changed")
                self.wait_for_subscriber("va_status_changed", count)
                for data in ('{"state": "running"}', '{"state": "done", "text": "a\\\\b  c"}'):
                    self.publish("va_status_changed", data)
                    self.assertEqual(process.stdout.readline(), data + "\n")
                self.end(process)

    def test_a_subscription_ends_with_the_daemon(self):
        subscribers = [self.start(name, "subscribe", "va_status_changed") for name in ("python", "c++", "c")]
        self.wait_for_subscriber("va_status_changed", 3)
        self.served.stop_daemon()
        for process in subscribers:
            self.assertEqual(process.wait(world.DEADLINE), UNAVAILABLE)

    def test_the_shell_client_subscribes_anew_when_the_daemon_is_back(self):
        process = self.start("shell", "subscribe", "va_status_changed")
        for count in (1, 2):
            self.wait_for_subscriber("va_status_changed", count)
            self.publish("va_status_changed", '{"round": %d}' % count)
            self.assertEqual(process.stdout.readline(), '{"round": %d}\n' % count)
            self.served.restart_daemon()


if __name__ == "__main__":
    world.main()
