"""orvctl exchange: how it ends when the bus, or what is behind it, does not play its part."""

import os
import select
import signal
import socket
import subprocess
import threading
import time

import world

OK, FAILED, USAGE, UNAVAILABLE = 0, 1, 2, 3
GONE = "orvctl: the message exchange has gone\n"
JOIN_TIME = 5  # seconds after which it gives up joining
LARGE = "x" * ((4 << 20) - 4)  # much more than a socket's buffer takes


def without_log(text):
    """What orvctl itself says; the exchange's library logs to standard error as well."""
    return "".join(line for line in text.splitlines(keepends=True) if line.startswith("orvctl: "))


class Proxy:
    """Stands between one program and the bus, passes on some bytes each way, and then nothing more."""

    def __init__(self, one, to_bus=1 << 30, until=None):
        """Passes on that many bytes to the bus, or everything up to a piece from the bus that holds `until`."""
        self.to_bus, self.until = to_bus, until
        self.before_last = lambda: None
        self.path = os.path.join(one.root, "run", "proxy.skt")
        self.environment = {"ORVEX_ADDRESS": "unix:path=" + self.path}
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(self.path)
        self.listener.listen(1)
        self.bus = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.bus.connect(os.path.join(one.root, "run", "exchange.skt"))
        self.client = None
        self.is_mute = threading.Event()
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        self.client, _ = self.listener.accept()
        self.listener.close()
        while self.to_bus > 0:
            if self.client in select.select([self.client, self.bus], [], [])[0]:
                data = self.client.recv(min(65536, self.to_bus))
                if not data:
                    return
                self.to_bus -= len(data)
                self.bus.sendall(data)
                continue
            data = self.bus.recv(65536)
            if self.until is not None and self.until in data:
                self.before_last()
                self.to_bus = 0
            self.client.sendall(data)
        self.is_mute.set()

    def wait_until_mute(self):
        if not self.is_mute.wait(world.DEADLINE):
            raise AssertionError("the client has not sent enough")

    def close_client(self):
        self.client.shutdown(socket.SHUT_RDWR)
        self.client.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.bus.close()
        if self.client is not None:
            self.client.close()


class WithoutDaemon(world.TestCase):
    def setUp(self):
        super().setUp()
        self.one = self.world()
        self.one.start_bus()

    def start(self, *arguments, **extra):
        return subprocess.Popen([world.program("orvctl"), "exchange", *arguments],
                                env=self.one.environment(**extra), stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def finish(self, process):
        """Its exit status and what it wrote, once it has ended."""
        stdout, stderr = process.communicate(timeout=world.DEADLINE)
        return process.returncode, stdout, without_log(stderr)

    def orvctl(self, *arguments, **options):
        result = self.one.orvctl("exchange", *arguments, **options)
        return result.returncode, result.stdout, without_log(result.stderr)


class BusGone(WithoutDaemon):
    def test_a_bus_that_goes_while_a_large_payload_is_written_is_no_success(self):
        for verb in ("publish", "message"):
            with Proxy(self.one, to_bus=1 << 20) as proxy:
                process = self.start(verb, "a:b", "-", **proxy.environment)
                process.stdin.write(LARGE)
                process.stdin.close()
                process.stdin = None
                proxy.wait_until_mute()
                proxy.close_client()
                self.assertEqual(self.finish(process), (UNAVAILABLE, "", GONE), verb)
            os.unlink(proxy.path)

    def test_a_bus_that_goes_before_a_small_payload_is_written_is_no_success(self):
        for verb in ("publish", "message"):
            for _ in range(10):
                start = time.monotonic()
                outcome = self.lose_bus_before_the_payload(verb)
                if time.monotonic() - start < JOIN_TIME:  # else it may have given up before: another try on a busy machine
                    break
            self.assertEqual(outcome, (UNAVAILABLE, "", GONE), verb)

    def lose_bus_before_the_payload(self, verb):
        """It is stopped when it is about to learn that it has joined, and learns with that that the bus has gone."""
        with Proxy(self.one, until=b"\0:1.") as proxy:
            process = self.start(verb, "a:b", **proxy.environment)

            def stop():
                process.send_signal(signal.SIGSTOP)
                os.waitid(os.P_PID, process.pid, os.WSTOPPED | os.WNOWAIT)

            proxy.before_last = stop
            proxy.wait_until_mute()
            proxy.close_client()
            process.send_signal(signal.SIGCONT)
            outcome = self.finish(process)
        os.unlink(proxy.path)
        return outcome

    def test_a_bus_that_goes_while_an_answer_is_waited_for_is_no_answer(self):
        for options in ((), ("--json",)):
            receiver = self.participant(self.one, "there")
            process = self.start("request", "there:x", *options)
            self.assertEqual(receiver.receive()[:2], ("Request", "x"))
            self.one.kill_bus()
            self.assertEqual(self.finish(process), (UNAVAILABLE, "", GONE))
            self.one.start_bus()

    def test_a_receiver_that_goes_is_an_answer_of_type_2(self):
        receiver = self.participant(self.one, "there")
        process = self.start("request", "there:x")
        self.assertEqual(receiver.receive()[:2], ("Request", "x"))
        receiver.kill()
        status, stdout, stderr = self.finish(process)
        self.assertEqual((status, stderr), (FAILED, 'orvctl: the answer is of type "2"\n'))
        self.assertNotEqual(stdout, "")


class TimeLimit(WithoutDaemon):
    """Each verb keeps to --timeout whatever it is that does not let it join."""

    def check_all_time_out(self):
        for verb, expected in (("request", "timed out waiting for the answer"),
                               ("message", "timed out before the exchange had taken all of it"),
                               ("publish", "timed out before the exchange had taken all of it"),
                               ("monitor", "timed out before the exchange could be listened to")):
            start = time.monotonic()
            status, stdout, stderr = self.orvctl(verb, "a:b", "--timeout", "0.3")
            self.assertLess(time.monotonic() - start, 2)
            self.assertEqual((status, stdout), (UNAVAILABLE, ""), verb)
            self.assertIn("orvctl: " + expected, stderr)

    def test_with_a_listener_that_accepts_nobody(self):
        self.one.kill_bus()
        with world.CrowdedListener(os.path.join(self.one.root, "run", "exchange.skt")):
            self.check_all_time_out()

    def test_with_a_stopped_bus(self):
        self.one.bus.send_signal(signal.SIGSTOP)
        self.check_all_time_out()


class LargePayloads(WithoutDaemon):
    def test_a_bus_that_does_not_read_is_timed_out(self):
        for setting in (None, "50"):  # what bounds requests has no say in it
            if setting:
                self.one.set_setting("/exchange/request_timeout_ms", setting)
            with Proxy(self.one, to_bus=1 << 20) as proxy:
                self.assertEqual(self.orvctl("publish", "a", "-", "--timeout", "0.5", input=LARGE, env=proxy.environment),
                                 (UNAVAILABLE, "", "orvctl: timed out before the exchange had taken all of it\n"))
            os.unlink(proxy.path)

    def test_a_payload_that_is_too_large_is_a_usage_error_that_says_so(self):
        for verb in ("publish", "message", "request"):
            self.assertEqual(self.orvctl(verb, "a:b", "-", input=LARGE + "x"),
                             (USAGE, "", "orvctl: standard input is longer than can be sent (4194300 bytes)\n"), verb)

    def test_a_large_payload_is_delivered_though_nobody_reads_the_output(self):
        receiver = self.participant(self.one, "there")
        process = self.start("message", "there:x", "-")
        process.stdout.close()
        process.stdin.write(LARGE)
        process.stdin.close()
        self.assertEqual(process.stderr.read(), "")
        self.assertEqual(process.wait(world.DEADLINE), OK)
        process.stderr.close()
        self.assertEqual(receiver.receive(), ("Message", "x", LARGE))


class OnATerminal(WithoutDaemon):
    def monitor(self, *sending):
        """What a monitor on a terminal shows of something sent."""
        shown = []
        thread = threading.Thread(
            target=lambda: shown.append(self.one.orvctl_on_terminal("exchange", "monitor", "--count", "1")))
        thread.start()
        world.wait_until(lambda: thread.join(0.02) or not thread.is_alive(), "the monitor sees it",  # from some moment on
                         meanwhile=lambda: self.assertEqual(self.orvctl(*sending)[0], OK))
        ((status, text),) = shown
        self.assertEqual(status, OK)
        return text

    def test_traffic_cannot_steer_the_terminal(self):
        evil = "\033[2J\u009b2J\x7f\r\n\t\u00e9"
        for sending, expected in ((["publish", evil, evil], r'event \?\[2J\?2J\?\?\? \u00e9 \S+ "\\u001b\[2J\?2J\?\\u000d\\u000a\\u0009\u00e9"'),
                                  (["message", "there:" + evil, '{"a":\t"\u009b",\r\n"b":1}'],
                                   r'message \?\[2J\?2J\?\?\? \u00e9 \S+ -> there \{"a": "\?",  "b":1\}')):
            text = self.monitor(*sending)
            self.assertRegex(text, r"^\S+ " + expected + r"\n$")
            self.assertEqual([c for c in text[:-1] if c < " " or "\x7f" <= c < "\xa0"], [])

    def test_complaints_cannot_steer_the_terminal(self):
        receiver = self.participant(self.one, "there")
        thread = threading.Thread(target=lambda: (receiver.receive(), receiver.answer(0, "\u009b2J", "[]")))
        thread.start()
        status, shown = self.one.orvctl_on_terminal("exchange", "request", "there:x")
        thread.join()
        self.assertEqual((status, shown), (FAILED, '[]\norvctl: the answer is of type "?2J"\n'))


class Names(WithoutDaemon):
    def test_a_name_that_cannot_be_is_a_usage_error_with_and_without_a_bus(self):
        for _ in range(2):
            for verb in ("request", "message", "publish"):
                for name in ("", "x" * 128):
                    status, stdout, stderr = self.orvctl(verb, name)
                    self.assertEqual((status, stdout), (USAGE, ""), (verb, name))
                    self.assertIn("1 to 127 bytes", stderr)
            for verb in ("request", "message"):
                for name in (":x", "a b:x", "there:"):
                    self.assertEqual(self.orvctl(verb, name)[:2], (USAGE, ""), (verb, name))
            if self.one.bus is not None:
                self.one.kill_bus()

    def test_the_longest_names_are_sent(self):
        for verb, name in (("message", "x" * 127), ("publish", "x" * 127), ("publish", "any: name")):
            self.assertEqual(self.orvctl(verb, name), (OK, "", ""))


if __name__ == "__main__":
    world.main()
