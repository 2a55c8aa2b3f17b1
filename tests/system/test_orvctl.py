"""The command-line client: what it prints, where, and how it ends."""

import errno
import fcntl
import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import termios
import threading
import time

import kernel
import neighbours
import world

OK, FAILED, USAGE, UNAVAILABLE = 0, 1, 2, 3
DONE = '{"data": null, "status": 0}'
F_GETPIPE_SZ = 1032  # Linux's, which Python knows from 3.10 on


def frame(text):
    data = text.encode() if isinstance(text, str) else text
    return struct.pack("=I", len(data)) + data


class FakeDaemon:
    """Listens in the daemon's place and answers the first client's first line with given bytes."""

    def __init__(self, *pieces, close=False, user=None):
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(world.SOCKET_NAME)
        listening_user = os.geteuid()  # the one whom clients see
        os.seteuid(listening_user if user is None else user)
        self.listener.listen(8)
        os.seteuid(listening_user)
        self.pieces = pieces
        self.close = close
        self.client = None
        self.request = None
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        try:
            self.client, _ = self.listener.accept()
            self.client.settimeout(world.DEADLINE)
            with self.client.makefile("rb") as lines:
                self.request = lines.readline()
            for piece in self.pieces:
                self.client.sendall(piece)
            if self.close:
                self.client.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # the client has gone, or none came before the end

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.listener.shutdown(socket.SHUT_RDWR)  # which ends a waiting accept, too
        self.thread.join(world.DEADLINE)
        self.listener.close()
        if self.client is not None:
            self.client.close()


def forbid_connecting():
    """Has the kernel refuse connect(), as a security policy would."""
    kernel.refuse({"connect": errno.EPERM})


class WithoutDaemon(world.TestCase):
    def setUp(self):
        super().setUp()
        self.one = self.world()

    def check(self, arguments, status, stdout=None, stderr=None, **options):
        result = self.one.orvctl(*arguments, **options)
        self.assertEqual(result.returncode, status, (arguments, result))
        if stdout is not None:
            self.assertEqual(result.stdout, stdout)
        if stderr is not None:
            self.assertRegex(result.stderr, stderr)
        return result

    def test_wrong_command_lines_are_usage_errors_on_standard_error(self):
        for line in ("", "nonsense", "call", "call a b c", "call a --nonsense", "call a --timeout", "subscribe",
                     "call a --timeout 0", "call a --timeout -1", "call a --timeout nan", "call a --timeout x",
                     "subscribe a --count 0", "subscribe a --count -1", "subscribe a --count x",
                     "--color blue commands", "settings", "settings nonsense", "settings get", "settings set /a",
                     "settings set /a b c", "settings delete", "settings watch", "commands extra", "exchange", "exchange request",
                     "exchange request a b c", "exchange publish", "exchange monitor --count 0", "telemetry",
                     "telemetry nonsense", "telemetry clear all"):
            self.check(line.split(), USAGE, stdout="", stderr=r"^orvctl: .+\(see orvctl --help\)\n$")

    def test_data_that_is_not_json_is_a_usage_error(self):
        for data in ("nonsense", "{", "{'a': 1}", "[1,]", '"\\u0000"', "1 2"):
            self.check(["call", "x", data], USAGE, stdout="", stderr="^orvctl: DATA is not JSON: .+ \\(line 1, column")
        self.check(["call", "x", "-"], USAGE, stdout="", stderr="DATA is not JSON", input="")
        self.check(["call", "x", "-"], USAGE, stdout="", stderr="DATA is not JSON", input="{}{}")
        self.check(["call", "x", "-"], USAGE, stdout="", stderr="4 MiB", input=" " * (5 << 20))

    def test_help_and_version_succeed_and_end_with_examples(self):
        for line in ("", "call", "commands", "events", "subscribe", "settings", "settings backup", "settings get", "settings restore", "settings set",
                     "settings delete", "settings list", "settings tree", "settings watch", "exchange",
                     "exchange request", "exchange message", "exchange publish", "exchange monitor", "telemetry",
                     "telemetry list", "telemetry clear"):
            result = self.check([*line.split(), "--help"], OK, stderr="^$")
            self.assertRegex(result.stdout, r"\nExamples:\n  orvctl ")
        self.check(["--version"], OK, stdout="orvctl 1.3\n", stderr="^$")
        self.assertIn("Exit status: 0 success, 1", self.one.orvctl("--help").stdout)

    def test_the_catalogue_is_printed_without_a_daemon(self):
        commands = [json.loads(line) for line in self.check(["commands"], OK).stdout.splitlines()]
        self.assertIn("get_services_status", [row["name"] for row in commands])
        for row in commands:
            self.assertEqual(list(row), ["name", "summary", "data", "answer"])
            self.assertTrue(all(row.values()), row)
        events = [json.loads(line)["name"] for line in self.check(["events"], OK).stdout.splitlines()]
        self.assertEqual(events, ["devices_list_updated", "device_discovery", "subscription_changed",
                                  "cloud_registration_status", "orvagent_started", "va_status_changed"])

    def test_an_absent_daemon_is_not_running(self):
        for arguments in (["call", "x"], ["subscribe", "x"]):
            self.check(arguments, UNAVAILABLE, stdout="", stderr="^orvctl: the broker daemon is not running")

    def test_an_absent_bus_is_told_in_one_message_unless_more_is_to_be_logged(self):
        for level, logged in (("", ""), ("1", r".+\]: cannot reach the exchange: .+\n")):
            self.check(["exchange", "request", "a:b"], UNAVAILABLE, stdout="", env={"ORV_LOG_LEVEL": level},
                       stderr=r"\A%sorvctl: cannot reach the message exchange: .+\n\Z" % logged)

    def test_a_forbidden_connection_is_not_permitted(self):
        with FakeDaemon():
            for arguments in (["call", "x"], ["subscribe", "x"]):
                self.check(arguments, UNAVAILABLE, stdout="", stderr="^orvctl: not permitted",
                           preexec_fn=forbid_connecting)

    def test_a_daemon_that_closes_is_a_lost_connection(self):
        for pieces in ((), (b"\x10\0",), (frame(DONE)[:-1],)):
            with FakeDaemon(*pieces, close=True):
                self.check(["call", "x"], UNAVAILABLE, stdout="", stderr="^orvctl: connection lost")
        with FakeDaemon(frame(DONE), close=True):
            self.check(["subscribe", "x"], UNAVAILABLE, stdout="", stderr="^orvctl: connection lost")

    def test_a_daemon_that_does_not_answer_is_timed_out(self):
        for pieces in ((), (frame(DONE)[:-1],)):
            with FakeDaemon(*pieces):
                self.check(["call", "x", "--timeout", "0.05"], UNAVAILABLE, stdout="", stderr="^orvctl: timed out")

    def test_a_wrong_answer_is_malformed(self):
        for piece in (frame("{}"), frame(""), frame("\xff\xfe"), b"\xff\xff\xff\xff"):
            with FakeDaemon(piece):
                self.check(["call", "x"], UNAVAILABLE, stdout="", stderr="^orvctl: malformed answer")

    def test_an_answer_is_printed_exactly_as_received(self):
        for text in (DONE, '{"data":  {"b":1,"a":[1.0, 1e3]}, "status": 0}', '{"data": "\\u00e9\u00e9", "status": 0}'):
            with FakeDaemon(frame(text)):
                self.check(["call", "get_services_status"], OK, stdout=text + "\n", stderr="^$")

    def test_a_server_of_the_own_user_is_not_warned_of(self):
        with FakeDaemon(frame(DONE)):
            self.check(["call", "get_services_status"], OK, stdout=DONE + "\n", stderr="^$")

    def test_a_server_of_another_user_is_warned_of_once(self):
        neighbours.need_second_user(self)
        warning = ("^orvctl: warning: what answers is run by user %d, neither by root nor by you: "
                   "it may not be the broker daemon\n$" % neighbours.NOBODY)
        with FakeDaemon(frame(DONE), user=neighbours.NOBODY):
            self.check(["call", "get_services_status"], OK, stdout=DONE + "\n", stderr=warning)
        with FakeDaemon(frame(DONE), close=True, user=neighbours.NOBODY):
            result = self.one.orvctl("status", "--timeout", "0.2")  # which asks more than once
            self.assertEqual(result.stderr.count("neither by root"), 1, result)

    def test_any_status_but_zero_is_a_failure(self):
        for status in (-1, 1, 2, 255, 256):
            text = '{"data": {"error": "busy"}, "status": %d}' % status
            with FakeDaemon(frame(text)):
                self.check(["call", "get_services_status"], FAILED, stdout=text + "\n", stderr="^$")

    def test_name_and_data_go_out_as_given_on_one_line(self):
        for arguments, data, request in (
                (["call", 'a"b'], None, b'{"type": "command", "name": "a\\"b"}\n'),
                (["call", "x", "[1,2]"], None, b'{"type": "command", "name": "x", "data": [1,2]}\n'),
                (["call", "x", "--", "-1"], None, b'{"type": "command", "name": "x", "data": -1}\n'),
                (["call", "x", "-"], '{"a":\n "b"}', b'{"type": "command", "name": "x", "data": {"a":  "b"}}\n'),
                (["call", "commands"], None, b'{"type": "command", "name": "commands"}\n')):
            with FakeDaemon(frame('{"data": 1, "status": 0}')) as daemon:
                options = {"input": data} if data else {}
                self.check(arguments, OK, stdout='{"data": 1, "status": 0}\n', stderr="^$", **options)
                self.assertEqual(daemon.request, request)

    def test_events_are_printed_exactly_as_received_until_there_were_enough(self):
        events = ['[{"device_id": "d1",  "status": "new"}]', "{}", '\t{"b":1,"a":[1.0, 1e3], "b":"\\u00e9\u00e9"} ', '"text"',
                  '{"nul": "\\u0000"}', "123456789012345678901234567890"]
        with FakeDaemon(frame(DONE), *(frame(text) for text in events), frame("one more")) as daemon:
            self.check(["subscribe", "x", "--count", "6"], OK, stdout="\n".join(events) + "\n", stderr="^$")
            self.assertEqual(daemon.request, b'{"type": "subscribe", "name": "x"}\n')

    def test_each_event_is_one_json_line(self):
        events = {'{"a":\n 1,\r\n"b":\r[]}\n': {"a": 1, "b": []}, "[\n\n]": [], '{"a": 1}\n{"b": 2}': '{"a": 1}\n{"b": 2}',
                  "not JSON at all": "not JSON at all", "two\nlines": "two\nlines", "one\rreturn": "one\rreturn", "": "",
                  "\n": "\n", b'{"a": "\xff"}': '{"a": "\ufffd"}', "\0": "\0"}
        for options in ([], ["--json"], ["--timestamps"]):
            with FakeDaemon(frame(DONE), *map(frame, events)):
                result = self.check(["subscribe", "x", "--count", str(len(events)), *options], OK, stderr="^$")
            lines = [json.loads(line) for line in result.stdout.splitlines()]
            data = [line["data"] for line in lines] if "--timestamps" in options else lines
            self.assertEqual(data, list(events.values()))

    def test_timestamps_wrap_each_event(self):
        with FakeDaemon(frame(DONE), frame('{"a": 1}'), frame("no\nJSON")):
            result = self.check(["subscribe", "x", "--count", "2", "--timestamps"], OK, stderr="^$")
        first, second = (json.loads(line) for line in result.stdout.splitlines())
        self.assertRegex(first.pop("time"), r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        self.assertEqual(first, {"event": "x", "data": {"a": 1}})
        self.assertEqual(second["data"], "no\nJSON")

    def test_a_subscription_ends_with_its_time(self):
        for options, status in (((), OK), (("--count", "2"), FAILED)):
            for seconds in ("0.3", "3", "30"):  # the first that is enough for this machine
                with FakeDaemon(frame(DONE), frame("{}")):
                    result = self.world().orvctl("subscribe", "x", "--timeout", seconds, *options)
                if result.stdout:
                    break
            self.assertEqual((result.returncode, result.stdout, result.stderr), (status, "{}\n", ""))

    def test_the_time_of_a_subscription_includes_what_comes_before_its_first_event(self):
        for pieces in ((), (frame(DONE)[:-1],)):
            with FakeDaemon(*pieces):
                begin = time.monotonic()
                self.check(["subscribe", "x", "--timeout", "0.1"], UNAVAILABLE, stdout="", stderr="^orvctl: timed out")
                self.assertLess(time.monotonic() - begin, world.DEADLINE)

    def test_a_refused_subscription_is_told(self):
        with FakeDaemon(frame('{"data": null, "status": -1}')):
            self.check(["subscribe", "x"], UNAVAILABLE, stdout="", stderr="refused")


def is_full(pipe):
    """Whether a pipe of the usual size holds as much as it can."""
    (waiting,) = struct.unpack("@i", fcntl.ioctl(pipe, termios.FIONREAD, bytes(4)))
    return waiting >= fcntl.fcntl(pipe, F_GETPIPE_SZ)


class ClosedPipes(world.TestCase):
    def start(self, *arguments):
        one = self.world()
        return subprocess.Popen([world.program("orvctl"), *arguments], env=one.environment(),
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def check_quiet_end(self, process):
        self.assertEqual(process.stderr.read(), b"")
        self.assertEqual(process.wait(world.DEADLINE), OK)
        process.stderr.close()

    def test_a_subscription_ends_at_once_when_nobody_reads_any_more(self):
        with FakeDaemon(frame(DONE), frame("{}")):
            process = self.start("subscribe", "x")
            self.assertEqual(process.stdout.readline(), b"{}\n")
            process.stdout.close()
            self.check_quiet_end(process)  # though no further event comes

    def test_a_flood_of_events_ends_when_nobody_reads_any_more(self):
        with FakeDaemon(frame(DONE), frame("{}") * 20000):
            process = self.start("subscribe", "x")
            process.stdout.close()
            self.check_quiet_end(process)

    def test_a_list_into_a_closed_pipe_ends_quietly(self):
        process = self.start("commands")
        process.stdout.close()
        self.check_quiet_end(process)

    def test_output_that_cannot_be_written_is_a_failure(self):
        one = self.world()
        for line in ("commands", "--help", "call --help", "--version", "completion bash"):
            with open("/dev/full", "w") as full:
                result = subprocess.run([world.program("orvctl"), *line.split()], env=one.environment(), stdout=full,
                                        stderr=subprocess.PIPE, text=True, timeout=world.DEADLINE, check=False)
            self.assertEqual((result.returncode, result.stderr),
                             (FAILED, "orvctl: cannot write: No space left on device\n"), line)

    def test_a_pipe_that_does_not_block_takes_all_the_output(self):
        one = self.world()
        value = "x" * 500000  # several pipes full
        with FakeDaemon(frame('{"data": "%s", "status": 0}' % value)):
            reading, writing = os.pipe()
            os.set_blocking(writing, False)
            process = subprocess.Popen([world.program("orvctl"), "call", "x"], env=one.environment(),
                                       stdin=subprocess.DEVNULL, stdout=writing, stderr=subprocess.PIPE)
            os.close(writing)
            world.wait_until(lambda: is_full(reading) or process.poll() is not None, "the pipe is full")
            with process, open(reading, "rb") as output:
                self.assertEqual(json.loads(output.read())["data"], value)
                self.assertEqual(process.stderr.read(), b"")
            self.assertEqual(process.returncode, OK)

    def test_an_interrupt_ends_a_subscription(self):
        with FakeDaemon(frame(DONE), frame("{}")):
            process = self.start("subscribe", "x")
            self.assertEqual(process.stdout.readline(), b"{}\n")
            process.send_signal(signal.SIGINT)
            self.assertEqual(process.wait(world.DEADLINE), -signal.SIGINT)
            process.stdout.close()
            process.stderr.close()


class OnATerminal(world.TestCase):
    def run_on_terminal(self, *arguments, **options):
        return self.world().orvctl_on_terminal(*arguments, **options)

    def test_an_answer_is_indented_and_coloured(self):
        text = '{"data": {"name": "a:\\"b\\"", "n": -1.5}, "status": 0}'
        with FakeDaemon(frame(text)):
            status, shown = self.run_on_terminal("call", "x", color=True)
        self.assertEqual(status, OK)
        self.assertIn('  "data": {\n    "name": "a:\\"b\\"",\n    "n": -1.5\n  },\n', re.sub("\033\\[\\d*m", "", shown))
        self.assertIn("\033[34m\"name\"\033[0m: \033[32m", shown)
        with FakeDaemon(frame(text)):
            self.assertEqual(self.run_on_terminal("call", "x", "--json"), (OK, text + "\n"))

    def test_colours_are_refused_by_a_variable_that_is_not_empty(self):
        for value, colored in (("", True), ("1", False)):
            status, shown = self.run_on_terminal("commands", color=True, NO_COLOR=value)
            self.assertEqual((status, "\033[" in shown), (OK, colored), value)

    def test_an_event_cannot_steer_the_terminal(self):
        for event, expected in (("\033[2Jx", '"\\u001b[2Jx"'), ("\u009b2J\x7f\u00e9", '"?2J?\u00e9"'),
                                ('{"a":\t"\u009b2J\x7f\u00e9",\r"b": []}', '{\n  "a": "?2J?\u00e9",\n  "b": []\n}')):
            for options in ([], ["--timestamps"]):
                with FakeDaemon(frame(DONE), frame(event)):
                    status, shown = self.run_on_terminal("subscribe", "x", "--count", "1", *options)
                self.assertEqual(status, OK)
                self.assertTrue(shown.endswith(expected + "\n"), shown)
                self.assertEqual([c for c in shown if c != "\n" and (c < " " or "\x7f" <= c < "\xa0")], [])

    def test_reading_standard_input_is_announced(self):
        with FakeDaemon(frame(DONE)) as daemon:
            status, _ = self.run_on_terminal("call", "set_va_cloud_trigger", "-", typed=b"true\n\x04",
                                             prompt=b"reading JSON from standard input")
            self.assertEqual(status, OK)
            self.assertEqual(daemon.request, b'{"type": "command", "name": "set_va_cloud_trigger", "data": true }\n')

    def test_the_catalogue_is_read_by_people(self):
        status, shown = self.run_on_terminal("commands")
        self.assertEqual(status, OK)
        lines = shown.splitlines()
        at = lines.index("get_services_status  Tell whether the protection is on")
        self.assertEqual(lines[at + 1:at + 3], ["    data: none", '    answer: {"status": 0|1}'])


class WithDaemon(world.ServedTestCase):
    def orvctl(self, *arguments, **options):
        result = self.served.orvctl(*arguments, **options)
        self.assertEqual(result.stderr, "", (arguments, result))
        return result.returncode, result.stdout

    def test_commands_are_called(self):
        self.assertEqual(self.orvctl("call", "get_services_status"), (OK, '{"data": {"status": 1}, "status": 0}\n'))
        self.assertEqual(self.orvctl("call", "set_va_cloud_trigger", "true"), (OK, DONE + "\n"))
        self.assertEqual(self.orvctl("settings", "get", "/va/cloud_trigger"), (OK, "1\n"))
        self.assertEqual(self.orvctl("call", "set_va_cloud_trigger", "-", input="false"), (OK, DONE + "\n"))
        self.assertEqual(self.orvctl("settings", "get", "/va/cloud_trigger"), (OK, "0\n"))
        self.assertEqual(self.orvctl("call", "set_va_cloud_trigger"), (FAILED, '{"data": null, "status": -1}\n'))

    def test_an_unknown_name_is_noted(self):
        result = self.served.orvctl("call", "get_service_status")
        self.assertEqual((result.returncode, result.stdout), (OK, DONE + "\n"))
        self.assertRegex(result.stderr, '^orvctl: note: no command "get_service_status" is known')

    def test_every_listed_command_that_needs_data_refuses_to_be_called_without(self):
        """An unknown one would be answered with null and success."""
        for line in self.orvctl("commands")[1].splitlines():
            row = json.loads(line)
            if row["data"] != "none" and "optional" not in row["data"]:
                self.assertEqual(self.orvctl("call", row["name"])[0], FAILED, row)

    def test_every_listed_command_that_answers_gives_more_than_null(self):
        for line in self.orvctl("commands")[1].splitlines():
            row = json.loads(line)
            if row["data"] == "none" and row["answer"] != "none":
                self.assertNotEqual(self.served.orvctl("call", row["name"]).stdout, DONE + "\n", row)

    def test_events_are_printed_as_they_arrive(self):
        process = subprocess.Popen([world.program("orvctl"), "subscribe", "subscription_changed", "--count", "1"],
                                   env=self.served.environment(), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.served.wait_for_log("process subscription_changed subscription")
        self.served.set_setting("/tmp/subscription/global/status", "expired")
        self.served.set_setting("/tmp/subscription/global/expiry", "5")
        self.served.set_setting("/tmp/subscription/refresh", "1")
        with process:
            self.assertEqual(process.communicate(timeout=world.DEADLINE),
                             ('{"status": "expired", "expiry": 5}\n', ""))
        self.assertEqual(process.returncode, OK)


class Telemetry(world.ServedTestCase):
    def orvctl(self, *arguments):
        result = self.served.orvctl("telemetry", *arguments)
        return result.returncode, result.stdout, result.stderr

    def test_the_outbox_is_listed_and_emptied(self):
        status, stdout, stderr = self.orvctl("list")
        self.assertEqual((status, stderr), (OK, ""))
        (event,) = (json.loads(line) for line in stdout.splitlines())
        self.assertIn("tuvo_agent_status", json.dumps(event))
        self.assertEqual(self.orvctl("clear"), (OK, "", ""))
        self.assertEqual(self.orvctl("list"), (OK, "", ""))
        self.assertEqual(self.orvctl("clear"), (OK, "", ""))

    def test_an_outbox_that_cannot_be_opened_is_unavailable(self):
        self.served.stop_daemon()
        other = self.world()
        with open(os.path.join(other.root, "var"), "w") as file:
            file.write("in the way")
        result = other.orvctl("telemetry", "list")
        self.assertEqual((result.returncode, result.stdout), (UNAVAILABLE, ""))
        self.assertIn("orvctl: cannot open the telemetry outbox: %s/var/telemetry: Not a directory" % other.root,
                      result.stderr)


class Settings(world.TestCase):
    """The settings store, with no daemon anywhere."""

    def setUp(self):
        super().setUp()
        self.one = self.world()

    def orvctl(self, *arguments, **options):
        result = self.one.orvctl("settings", *arguments, **options)
        return result.returncode, result.stdout, result.stderr

    def test_values_are_raw_text(self):
        for value in ("1", "", "two words", "line\nfeed", "\u00e9 \u20ac", '{"json": [1]}', "[a,b]", "'quoted'"):
            self.assertEqual(self.orvctl("set", "/test/key", value), (OK, "", ""))
            self.assertEqual(self.orvctl("get", "/test/key"), (OK, value + "\n", ""))
            self.assertEqual(json.loads(self.orvctl("get", "/test/key", "--json")[1]),
                             {"key": "/test/key", "value": value})

    def test_a_value_that_begins_with_a_dash_needs_two_dashes_before_it_unless_a_digit_follows(self):
        for value in ("-1", "-5 and more", "-"):
            self.assertEqual(self.orvctl("set", "/test/key", value), (OK, "", ""))
            self.assertEqual(self.orvctl("get", "/test/key"), (OK, value + "\n", ""))
        for value in ("-1", "-a", "-.5", "--", "--json"):
            self.assertEqual(self.orvctl("set", "/test/key", "--", value), (OK, "", ""))
            self.assertEqual(self.orvctl("get", "/test/key"), (OK, value + "\n", ""))
        for value in ("-a", "-.5", "--no-option"):
            self.assertEqual(self.orvctl("set", "/test/key", value)[0], USAGE)

    def test_an_absent_key_is_a_message_and_a_failure(self):
        for verb in ("delete", "get", "list", "tree"):  # who deletes makes the store
            self.assertEqual(self.orvctl(verb, "/no/such"), (FAILED, "", "orvctl: no such key: /no/such\n"))
        self.orvctl("set", "/a/b", "1")
        self.assertEqual(self.orvctl("get", "/a"), (FAILED, "", "orvctl: the key has children but no value: /a\n"))

    def test_a_key_beyond_its_bound_is_a_usage_error(self):
        status, stdout, stderr = self.orvctl("set", "/" + "k" * 600, "1")
        self.assertEqual((status, stdout), (USAGE, ""))
        self.assertIn("511 bytes", stderr)

    def test_a_key_that_can_have_no_value_is_a_usage_error(self):
        for key in ("", "/", "//", "/" + "k" * 600):
            for verb in (("set", key, "1"), ("delete", key), ("watch", key, "--timeout", "0.1")):
                status, stdout, stderr = self.orvctl(*verb)
                self.assertEqual((status, stdout), (USAGE, ""), verb)
                self.assertIn("orvctl: not a usable key or value", stderr)

    def test_keys_are_listed_and_shown_as_a_tree(self):
        for key, value in (("/a/y", "2"), ("/a/x/deep", "1"), ("/b", "3")):
            self.orvctl("set", key, value)
        self.assertEqual(self.orvctl("list", "/a"), (OK, "x\ny\n", ""))
        self.assertEqual(self.orvctl("list", "/a", "--json")[1],
                         '{"key": "/a/x", "value": null}\n{"key": "/a/y", "value": "2"}\n')
        self.assertEqual(self.orvctl("tree", "/a")[1],
                         '{"key": "/a/x/deep", "value": "1"}\n{"key": "/a/y", "value": "2"}\n')
        self.assertEqual(self.orvctl("list"), (OK, "a\nb\n", ""))
        self.assertEqual(self.orvctl("tree")[1],
                         '{"key": "/a/x/deep", "value": "1"}\n{"key": "/a/y", "value": "2"}\n'
                         '{"key": "/b", "value": "3"}\n')

    def test_keys_and_values_cannot_steer_the_terminal(self):
        self.orvctl("set", "/a/\u009b2J", "\033[2J\n\u009b2J\u00e9")
        self.assertEqual(self.one.orvctl_on_terminal("settings", "tree", "/a"), (OK, "/a\n  ?2J = ?[2J??2J\u00e9\n"))

    def test_a_key_is_removed_with_everything_below_it(self):
        for key in ("/a", "/a/b", "/a/b/c", "/ab"):
            self.orvctl("set", key, "1")
        self.assertEqual(self.orvctl("delete", "/a"), (OK, "", ""))
        self.assertEqual(self.orvctl("list"), (OK, "ab\n", ""))

    def watch(self, *options):
        return subprocess.Popen([world.program("orvctl"), "settings", "watch", "/w", *options],
                                env=self.one.environment(ORV_LOG_LEVEL="0"), stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def await_watch(self, process):
        """The watch begins at some moment: changes the key until it has told of a change; returns how often."""
        number = 0

        def change():
            nonlocal number
            self.orvctl("set", "/w", str(number))
            number += 1

        world.wait_until(lambda: select.select([process.stdout], [], [], 0.01)[0], "the watch tells of a change", meanwhile=change)
        first = json.loads(process.stdout.readline())
        self.assertEqual(first["key"], "/w")
        self.assertRegex(first["value"], r"^\d+$")
        return number

    def test_a_watch_prints_each_change(self):
        self.orvctl("set", "/w", "before")
        process = self.watch("--count", "2")
        number = self.await_watch(process)
        self.orvctl("delete", "/w")
        rest, errors = process.communicate(timeout=world.DEADLINE)
        self.assertEqual(errors, "")
        self.assertIn(json.loads(rest)["value"], [None, str(number - 1)])
        self.assertEqual(process.returncode, OK)

    def test_a_watch_tells_of_changes_in_a_store_that_replaced_its_own(self):
        self.orvctl("set", "/w", "before")
        with self.watch() as process:
            self.await_watch(process)
            os.rename(os.path.join(self.one.root, "var/settings"), os.path.join(self.one.root, "var/old"))
            self.orvctl("set", "/w", "after")
            limit = threading.Timer(world.DEADLINE, process.kill)
            limit.start()
            self.assertIn('{"key": "/w", "value": "after"}\n', iter(process.stdout.readline, ""))
            limit.cancel()
            process.kill()

    def test_a_watch_ends_with_its_time(self):
        self.orvctl("set", "/other", "1")
        self.assertEqual(self.orvctl("watch", "/w", "--timeout", "0.1"), (OK, "", ""))
        self.assertEqual(self.orvctl("watch", "/w", "--timeout", "0.1", "--count", "1"), (FAILED, "", ""))

    def test_who_only_looks_creates_nothing(self):
        backup = os.path.join(self.one.root, "backup")
        for store, directory, commands in (
                ("settings store", "settings", (("settings", "get", "/a"), ("settings", "list"), ("settings", "tree"),
                                                ("settings", "watch", "/a"), ("settings", "backup", backup))),
                ("device store", "devices", (("device", "list"), ("device", "show", "d1"), ("device", "backup", backup))),
                ("telemetry outbox", "telemetry", (("telemetry", "list"),))):
            for command in commands:
                result = self.one.orvctl(*command)
                self.assertEqual((result.returncode, result.stdout, result.stderr), (UNAVAILABLE, "", (
                    "orvctl: there is no %s yet: %s/var/%s (ORV_ROOT names the agent's root directory, else it is %s)\n" %
                    (store, self.one.root, directory, world.default_root()))), command)
        self.assertEqual(os.listdir(self.one.root), [])

    def test_a_store_that_cannot_be_opened_is_unavailable(self):
        with open(os.path.join(self.one.root, "var"), "w") as file:
            file.write("in the way")
        self.check_closed("%s/var/settings: Not a directory (ORV_ROOT names the agent's root directory, else it is "
                          "%s)" % (self.one.root, world.default_root()))

    def test_a_backup_brings_all_settings_back(self):
        file = os.path.join(self.one.root, "settings.backup")
        for key, value in (("/a", "1"), ("/a/b", "two\nlines"), ("/tmp/x", "volatile")):
            self.orvctl("set", key, value)
        self.assertEqual(self.orvctl("backup", file), (OK, "", ""))
        self.assertEqual(os.stat(file).st_mode & 0o777, 0o600)
        self.orvctl("set", "/a", "2")
        self.orvctl("set", "/c", "3")
        self.orvctl("delete", "/a/b")
        self.assertEqual(self.orvctl("restore", file), (OK, "", ""))
        self.assertEqual(self.orvctl("get", "/a"), (OK, "1\n", ""))
        self.assertEqual(self.orvctl("get", "/a/b"), (OK, "two\nlines\n", ""))
        self.assertEqual(self.orvctl("get", "/c")[0], FAILED)
        self.assertEqual(self.orvctl("get", "/tmp/x"), (OK, "volatile\n", ""))
        status, text, stderr = self.orvctl("backup", "-")
        self.assertEqual((status, stderr), (OK, ""))
        self.orvctl("set", "/a", "2")
        self.assertEqual(self.orvctl("restore", "-", input=text), (OK, "", ""))
        self.assertEqual(self.orvctl("get", "/a"), (OK, "1\n", ""))

    def test_what_is_no_backup_changes_nothing(self):
        file = os.path.join(self.one.root, "settings.backup")
        self.orvctl("set", "/a", "1")
        self.orvctl("backup", file)
        with open(file, "r+") as damaged:
            damaged.truncate(os.path.getsize(file) - 1)
        status, _, stderr = self.orvctl("restore", file)
        self.assertEqual(status, FAILED)
        self.assertIn("is no backup of the settings, or not a whole one", stderr)
        self.assertEqual(self.orvctl("restore", file + ".absent")[::2],
                         (FAILED, "orvctl: cannot read %s.absent: No such file or directory\n" % file))
        self.assertEqual(self.orvctl("backup", self.one.root + "/no/such/file")[0], FAILED)
        self.assertEqual(self.orvctl("get", "/a"), (OK, "1\n", ""))

    def test_a_file_beyond_any_backup_is_refused_before_it_is_all_read(self):
        self.orvctl("set", "/a", "1")
        file = os.path.join(self.one.root, "settings.backup")
        with open(file, "wb") as sparse:
            sparse.truncate(97 << 20)
        self.assertEqual(self.orvctl("restore", file), (FAILED, "", "orvctl: %s is longer than 96 MiB\n" % file))
        self.assertEqual(self.orvctl("get", "/a"), (OK, "1\n", ""))

    def check_closed(self, reason):
        """The one message says the reason; with a log level the libraries' own lines are there, too."""
        for arguments in (("get", "/a"), ("set", "/a", "1"), ("list",), ("tree",), ("watch", "/a")):
            result = self.one.orvctl("settings", *arguments, env={"ORV_LOG_LEVEL": ""})
            self.assertEqual((result.returncode, result.stdout), (UNAVAILABLE, ""), arguments)
            self.assertEqual(result.stderr, "orvctl: cannot open the settings store: %s\n" % reason)
        logged = self.one.orvctl("settings", "get", "/a", env={"ORV_LOG_LEVEL": "0"}).stderr
        self.assertRegex(logged, r"\]: store var/settings: cannot .*\norvctl: cannot open the settings store: ")

    def data_file(self):
        return os.path.join(self.one.root, "var/settings/data.mdb")

    def test_a_damaged_store_is_said_to_be_damaged(self):
        self.orvctl("set", "/a", "1")
        with open(self.data_file(), "r+b") as file:
            file.write(b"\xff" * 8192)
        self.check_closed("%s is damaged: no store's first page" % self.data_file())

    def test_a_store_that_cannot_be_listed_is_no_success(self):
        for key in ("/a/b/some-name", "/a/c"):
            self.orvctl("set", key, "1")
        with open(self.data_file(), "rb") as file:
            stored = file.read()
        self.assertIn(b"some-name", stored)
        with open(self.data_file(), "r+b") as file:
            file.write(stored.replace(b"some-name", b"some/name"))
        self.assertEqual(self.orvctl("list", "/a"), (OK, "b\nc\n", ""))
        for verb, key in (("list", "/a/b"), ("tree", "/a/b"), ("tree", "/a"), ("tree", "/")):
            status, stdout, stderr = self.orvctl(verb, key)
            self.assertEqual((status, stdout), (UNAVAILABLE, ""), (verb, key))
            self.assertIn("orvctl: the settings store failed (error 2): /a/b\n", stderr)


if __name__ == "__main__":
    world.main()
