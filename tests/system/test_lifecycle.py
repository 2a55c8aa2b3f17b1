"""Starting, stopping, being alone, and surviving its surroundings."""

import os
import re
import signal
import socket
import struct
import subprocess

import world
from world import Client

ENABLED = {"status": 1}
DISABLED = {"status": 0}


def server():
    """The process that serves the daemon's socket."""
    with Client() as client:
        return struct.unpack("=iII", client.socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[0]


class VersionFile(world.TestCase):
    def path(self, one):
        return os.path.join(one.root, "run", "orvbrokerd.version")

    def test_it_holds_the_version_and_nothing_else(self):
        one = self.world()
        one.start()
        with open(self.path(one), "rb") as file:
            self.assertEqual(file.read(), b"1.3")

    def test_it_is_its_owners_alone(self):
        one = self.world()
        one.start_bus()
        before = os.umask(0o022)
        try:
            for _ in range(2):  # the second time it is there, and was open to others
                one.start_daemon()
                self.assertEqual(os.stat(self.path(one)).st_mode & 0o777, 0o600)
                one.stop_daemon()
                os.chmod(self.path(one), 0o644)
        finally:
            os.umask(before)

    def test_it_is_overwritten_when_it_held_something_longer(self):
        one = self.world()
        os.makedirs(os.path.dirname(self.path(one)))
        with open(self.path(one), "wb") as file:
            file.write(b"1.2.99 and more\n")
        one.start()
        with open(self.path(one), "rb") as file:
            self.assertEqual(file.read(), b"1.3")

    def test_one_that_cannot_be_written_ends_the_start_without_a_word(self):
        one = self.world()
        one.start_bus()
        os.makedirs(self.path(one))
        self.assertEqual(one.end_of(one.launch()), 1)
        self.assertEqual(one.messages(), ["start orv broker daemon", "stop orv broker daemon"])


class StartAndStop(world.TestCase):
    def test_a_second_copy_gives_up_and_leaves_the_first_serving(self):
        one = self.world()
        one.start()
        second_log = os.path.join(one.root, "second.log")
        self.assertEqual(one.end_of(one.launch(log=second_log)), 1)
        self.assertEqual(one.messages(second_log), ["start orv broker daemon", "stop orv broker daemon"])
        self.assertEqual(len(one.log(second_log).splitlines()), 2)
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), (ENABLED, 0))

    def test_another_root_does_not_free_the_socket_name(self):
        first, second = self.world(), self.world()
        first.start()
        second.start_bus()
        self.assertEqual(second.end_of(second.launch()), 1)
        messages = second.messages()
        self.assertEqual(len([text for text in messages if text.startswith("failed to bind socket ")]), 1)
        self.assertIn("failed to open server socket", messages)
        self.assertEqual(messages[-1], "stop orv broker daemon")
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), (ENABLED, 0))

    def test_without_a_bus_the_start_is_undone(self):
        one = self.world()
        self.assertEqual(one.end_of(one.launch()), 1)
        messages = one.messages()
        self.assertEqual(messages[0], "start orv broker daemon")
        self.assertIn("failed to connect to orv exchange daemon", messages)
        after = messages[messages.index("failed to connect to orv exchange daemon") + 1:]
        self.assertTrue(after[0].startswith("closing server socket "), after)
        self.assertEqual(after[-1], "stop orv broker daemon")
        with self.assertRaises(ConnectionRefusedError):
            Client()

    def test_it_stops_in_order_at_sigterm_and_sigint(self):
        for signal_number in (signal.SIGTERM, signal.SIGINT):
            one = self.world()
            one.start()
            with Client() as client:
                one.daemon.send_signal(signal_number)
                self.assertEqual(one.end_of(one.daemon), 0)
                client.expect_close()
            self.assertEqual(one.messages(level=2)[-1], "stop orv broker daemon")
            one.close()

    def test_the_name_is_free_at_once_after_a_stop_and_after_a_kill(self):
        one = self.world()
        one.start()
        one.restart_daemon()
        one.kill_daemon()
        one.start_daemon()
        one.stop_daemon()

    def test_being_stopped_and_continued_is_at_most_a_warning(self):
        one = self.world()
        one.start()
        for _ in range(3):
            one.daemon.send_signal(signal.SIGSTOP)
            world.wait_until(lambda: self.state(one) == "T", "the daemon is stopped")
            with Client() as client:
                client.send('{"type": "command", "name": "get_services_status"}\n')
                one.daemon.send_signal(signal.SIGCONT)
                self.assertEqual(client.frame(), '{"data": {"status": 1}, "status": 0}')
        self.assertLessEqual(set(one.messages(level=1)), {"waiting on epoll was interrupted by a signal"})
        one.stop_daemon()

    def test_in_the_background_a_hang_up_is_ignored(self):
        one = self.world()
        one.start_bus()
        subprocess.run([world.program("orvbrokerd"), "-d"], env=one.environment(), check=True, timeout=world.DEADLINE)
        process = server()
        try:
            for _ in range(3):
                os.kill(process, signal.SIGHUP)
                self.assertEqual(server(), process)
        finally:
            os.kill(process, signal.SIGTERM)
        world.wait_until(lambda: not os.path.exists("/proc/%d" % process), "the daemon has ended")

    def state(self, one):
        with open("/proc/%d/stat" % one.daemon.pid) as stat:
            return stat.read().rsplit(") ", 1)[1][0]

    def test_a_first_start_and_a_stop_warn_of_nothing(self):
        one = self.world()
        one.start()
        one.stop_daemon()
        self.assertEqual(one.messages(level=1), [])

    def test_command_line_mistakes_are_usage_errors(self):
        one = self.world()
        for arguments, status in ((["--no-such-option"], 2), (["--help"], 0), (["--version"], 0)):
            result = world.subprocess.run([world.program("orvbrokerd"), *arguments], env=one.environment(),
                                          stdout=world.subprocess.PIPE, stderr=world.subprocess.PIPE,
                                          timeout=world.DEADLINE, check=False)
            self.assertEqual(result.returncode, status, (arguments, result))
            self.assertTrue(result.stdout if status == 0 else result.stderr)


class StandardStreams(world.TestCase):
    """Programs that were started with descriptors 0, 1 and 2 closed write into nobody's files."""

    def without_streams(self, one, name, *arguments):
        """Starts a program that has no standard stream at all."""
        process = subprocess.Popen(["sh", "-c", 'exec "$0" "$@" <&- >&- 2>&-', world.program(name), *arguments],
                                   env=one.environment())
        one.launched.append(process)
        return process

    def check_streams(self, process):
        for descriptor in range(3):
            self.assertEqual(os.readlink("/proc/%d/fd/%d" % (process, descriptor)), "/dev/null")

    def answers(self):
        try:
            with Client() as client:
                return client.call("get_services_status") == (ENABLED, 0)
        except (ConnectionRefusedError, EOFError):
            return False

    def check_that_the_store_is_sound(self, one):
        one.start_daemon()
        one.set_setting("/sound", "yes")
        self.assertEqual(one.setting("/sound"), "yes")
        self.assertEqual(one.messages(level=0), [])

    def test_the_daemon_runs_in_the_foreground(self):
        one = self.world()
        one.start_bus()
        one.daemon = self.without_streams(one, "orvbrokerd")
        world.wait_until(self.answers, "the daemon answers")
        self.check_streams(one.daemon.pid)
        with open(os.path.join(one.root, "run", "orvbrokerd.version"), "rb") as file:
            self.assertEqual(file.read(), b"1.3")
        one.stop_daemon()
        self.check_that_the_store_is_sound(one)

    def test_the_daemon_goes_to_the_background(self):
        one = self.world()
        one.start_bus()
        self.assertEqual(one.end_of(self.without_streams(one, "orvbrokerd", "-d")), 0)
        process = server()
        try:
            self.check_streams(process)
        finally:
            os.kill(process, signal.SIGTERM)
        world.wait_until(lambda: not os.path.exists("/proc/%d" % process), "the daemon has ended")
        self.check_that_the_store_is_sound(one)

    def test_the_simulated_agent_tells_its_tale_to_nobody(self):
        one = self.world()
        one.start_bus()
        agent = self.without_streams(one, "orvagentsim", "--churn", "0")
        world.wait_until(lambda: one.orvctl("device", "list").stdout.count("\n") == 6, "the agent is at work")
        self.check_streams(agent.pid)
        agent.send_signal(signal.SIGTERM)
        self.assertEqual(one.end_of(agent), 0)
        self.check_that_the_store_is_sound(one)

    def test_the_command_line_tool_complains_to_nobody(self):
        one = self.world()
        one.start_bus()
        one.set_setting("/sound", "not yet")
        for key in ("/missing", "/sound"):
            status = 0 if key == "/sound" else 1
            self.assertEqual(one.end_of(self.without_streams(one, "orvctl", "settings", "get", key)), status)
        self.check_that_the_store_is_sound(one)


class State(world.TestCase):
    def test_settings_survive_a_stop_and_a_kill(self):
        one = self.world()
        one.start()
        with Client() as client:
            self.assertEqual(client.call("disable_services"), (None, 0))
        one.restart_daemon()
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), (DISABLED, 0))
        one.kill_daemon()
        one.start_daemon()
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), (DISABLED, 0))

    def test_the_deployment_is_reported_at_the_first_start_only(self):
        one = self.world()
        one.start()
        self.assertEqual(one.setting("/karma/tuvo_agent_status/deployed"), "1")
        self.assertEqual(self.reported_states(one), ["deployed"])
        one.restart_daemon()
        one.kill_daemon()
        one.start_daemon()
        self.assertEqual(one.setting("/karma/tuvo_agent_status/deployed"), "1")
        self.assertEqual(self.reported_states(one), ["deployed"])

    def test_switching_the_services_is_reported(self):
        one = self.world()
        one.start()
        with Client() as client:
            for name in ("disable_services", "enable_services", "enable_services"):
                self.assertEqual(client.call(name), (None, 0))
        self.assertEqual(self.reported_states(one), ["deployed", "deactivated", "activated", "activated"])

    def reported_states(self, one):
        """The agent states that the outbox holds, since no agent is there to confirm them."""
        lines = one.orvctl("telemetry", "list").stdout.splitlines()
        return [re.search(r'"agent_state": "(\w+)"', line)[1] for line in lines]

    def test_a_bus_that_goes_and_comes_back_is_missed_by_exchange_commands_only(self):
        one = self.world()
        one.start()
        with Client() as client:
            self.assertEqual(client.call("va_start"), (None, 0))
            one.kill_bus()
            self.assertEqual(client.call("get_services_status"), (ENABLED, 0))
            self.assertEqual(client.call("disable_services"), (None, 0))

            def is_refused():
                with Client() as other:
                    return other.call("va_start") == (None, -1)

            world.wait_until(is_refused, "the loss of the bus is noticed")
            self.assertEqual(client.call("get_services_status"), (DISABLED, 0))
            one.start_bus()

            def is_accepted():
                with Client() as other:
                    return other.call("va_start") == (None, 0)

            world.wait_until(is_accepted, "the daemon is on the bus again")
            self.assertEqual(client.call("enable_services"), (None, 0))
        one.stop_daemon()

    def test_a_request_that_is_under_way_fails_with_the_bus(self):
        one = self.world()
        one.start()
        one.bus.send_signal(signal.SIGSTOP)
        with Client() as client, Client() as other:
            client.send('{"type": "command", "name": "va_status"}\n')
            one.wait_for_log("successfully sent orvvad:va_scan_status request: {}")
            self.assertEqual(other.call("get_services_status"), (ENABLED, 0))
            self.assertFalse(client.has_input())
            one.kill_bus()
            client.expect_close()
            self.assertEqual(other.call("get_services_status"), (ENABLED, 0))


if __name__ == "__main__":
    world.main()
