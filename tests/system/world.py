"""A private world for each test: a network namespace, an agent's root directory, a bus and a daemon.

Abstract socket names belong to the network namespace, so worlds of different test programs do not meet. Nothing
here waits for time to pass: every wait is for something that can be observed, with a deadline.
"""

import glob
import json
import os
import pty
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

BIN = os.environ.get("ORV_BIN", "")
BUILD = os.path.dirname(BIN.rstrip("/"))
SOCKET_NAME = "\0orvbrokerd-1.3.skt"
# The program that starts dbus-broker in place of dbus-daemon, and its configuration.
BROKER = os.environ.get("ORV_TEST_BROKER")
BROKER_CONFIGURATION = os.environ.get("ORV_TEST_BROKER_CONFIGURATION")
PATIENCE = int(os.environ.get("ORV_TEST_PATIENCE", "1"))  # more than 1 on a slow machine
DEADLINE = 30 * PATIENCE  # seconds; generous, since machines that test are busy
TEST_LIMIT = int(os.environ.get("ORV_TEST_LIMIT", "150"))  # seconds; what goes on for longer waits for what never comes, and its log tells for what
_IN_NAMESPACE = "ORV_TEST_IN_NAMESPACE"
_NOT_EMULATED = os.environ.get("ORV_TEST_NOT_EMULATED")  # the list of tests that an emulator cannot run, where there is one

# What the log library puts in front of a message, with the source's place after it.
_LOG_LINE = re.compile(
    r"^(?P<area>\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +(?P<level>\d+) )"
    r"\[(?P<file>[^\]:]*):(?P<line>\d+)\]\[(?P<function>[^\]]*)\(\)\]: (?P<text>.*)$")

_REPEATED = re.compile(r"\[log\]: last line repeated (\d+) times$")

# How the reports of AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer begin.
_SANITIZER = re.compile(r"^==\d+==ERROR: .*|^.*: runtime error: .*", re.MULTILINE)


def enter_namespaces():
    """Runs the calling program anew, in namespaces of its own, unless it is there."""
    if os.environ.get(_IN_NAMESPACE) != "1":
        os.environ[_IN_NAMESPACE] = "1"
        identity = [] if os.geteuid() == 0 else ["-r"]
        os.execvp("unshare", ["unshare", *identity, "-n", "-m", sys.executable, *sys.argv])


def main():
    """Runs the tests of the calling program, in namespaces of its own."""
    if not BIN:
        sys.exit("ORV_BIN must name the directory of the programs under test")
    enter_namespaces()
    unittest.main()


def configured():
    """What the programs under test were built with: CMake's variables."""
    with open(os.path.join(BUILD, "CMakeCache.txt"), encoding="utf-8") as file:
        return dict(re.findall(r"^([\w-]+):\w+=(.*)$", file.read(), re.MULTILINE))


def default_root():
    """The agent's root directory unless ORV_ROOT names one."""
    return configured()["ORV_ROOT"].rstrip("/")


def program(name):
    return os.path.join(BIN, name)


def wait_until(condition, what, deadline=DEADLINE, meanwhile=lambda: time.sleep(0.005)):
    """Calls condition until it gives something true, and returns that. What it waits for may need to be caused again and
    again, meanwhile."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError("not within %d s: %s" % (deadline, what))
        meanwhile()


class Lines:
    """The lines that a program writes to a pipe, each within the deadline."""

    def __init__(self, stream):
        self._stream = stream
        self._rest = b""

    def has_input(self, seconds=0.0):
        return b"\n" in self._rest or bool(select.select([self._stream], [], [], seconds)[0])

    def next(self):
        """Without its line feed; None at the end."""
        end = time.monotonic() + DEADLINE
        while b"\n" not in self._rest:
            if not select.select([self._stream], [], [], max(0, end - time.monotonic()))[0]:
                raise AssertionError("no line within %d s" % DEADLINE)
            piece = os.read(self._stream.fileno(), 65536)
            if not piece:
                return None
            self._rest += piece
        line, _, self._rest = self._rest.partition(b"\n")
        return line.decode(errors="replace")


class CrowdedListener:
    """Listens on a path, accepts nobody, and has no room for one more to wait."""

    def __init__(self, path):
        if os.path.exists(path):
            os.unlink(path)
        self.path = path
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(path)
        self.listener.listen(0)
        self.crowd = []
        while not self.crowd or self.crowd[-1].connect_ex(path) == 0:
            self.crowd.append(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for one in (self.listener, *self.crowd):
            one.close()


class Client:
    """A client at the level of bytes."""

    def __init__(self, deadline=DEADLINE):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        # A full backlog is waited for by a blocking connect only, whose bound is the kernel's.
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("@ll", deadline, 0))
        try:
            self.socket.connect(SOCKET_NAME)
        except OSError:
            self.socket.close()
            raise
        self.socket.settimeout(deadline)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data.encode() if isinstance(data, str) else data)

    def receive(self, size):
        """So many bytes."""
        data = b""
        while len(data) < size:
            piece = self.socket.recv(size - len(data))
            if not piece:
                raise EOFError("closed after %d of %d bytes" % (len(data), size))
            data += piece
        return data

    def frame(self):
        """The text of the next answer or event."""
        (length,) = struct.unpack("=I", self.receive(4))
        return self.receive(length).decode()

    def ask(self, request):
        """Sends a request line and returns the text of its answer."""
        self.send(request + "\n")
        return self.frame()

    def call(self, name, *data):
        """Calls a command; returns its answer as (data, status)."""
        request = {"type": "command", "name": name}
        if data:
            request["data"] = data[0]
        answer = json.loads(self.ask(json.dumps(request)))
        return answer["data"], answer["status"]

    def subscribe(self, event):
        answer = self.ask(json.dumps({"type": "subscribe", "name": event}))
        if answer != '{"data": null, "status": 0}':
            raise AssertionError("subscription answered with " + answer)

    def expect_close(self):
        """The daemon has closed the connection without sending anything more."""
        try:
            data = self.socket.recv(64)
        except ConnectionResetError:
            return  # it closed before it had read everything
        if data:
            raise AssertionError("data instead of the end: %r" % data)

    def has_input(self):
        """Whether something, an answer or the end, is there to be read right now."""
        return bool(select.select([self.socket], [], [], 0)[0])


def state_of(pid):
    with open("/proc/%d/stat" % pid, encoding="ascii") as stat:
        return stat.read().rsplit(") ", 1)[1][0]


def is_stopped(pid):
    try:
        return state_of(pid) == "T"
    except FileNotFoundError:
        return False


def status_of_end(process):
    """Has a process end in the orderly way, be it stopped; its exit status, None when it had to be killed."""
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
    end = time.monotonic() + DEADLINE
    while process.poll() is None and time.monotonic() < end:
        if is_stopped(process.pid):  # not otherwise: LeakSanitizer hangs when that comes while it looks round at the end
            process.send_signal(signal.SIGCONT)
        time.sleep(0.005)
    if process.poll() is not None:
        return process.poll()
    process.kill()
    process.wait(DEADLINE)
    return None


class World:
    """An agent's root directory with its bus and its daemon.

    Whatever ends otherwise than in the orderly way, or was found wrong by a sanitizer, makes the world's end an error.
    So a test that has its daemon killed, or end by itself, says so: kill_daemon(), end_of(process)."""

    def __init__(self, root=None):
        self.root = root or tempfile.mkdtemp(prefix="orv-system-", dir="/tmp")
        self.log_path = os.path.join(self.root, "daemon.log")
        self.bus = None
        self.daemon = None
        self.launched = []
        self.log_level = "4"

    # -- processes

    def environment(self, **extra):
        environment = dict(os.environ, ORV_ROOT=self.root, ORV_LOG_LEVEL=self.log_level)
        environment.pop("ORVEX_ADDRESS", None)
        environment.update(extra)
        # Of each program, whoever reads its standard error and whatever is made of its status.
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
            environment[name] = ":".join(filter(None, [environment.get(name), "log_path=" + self._reports_path()]))
        return environment

    def _reports_path(self):
        """What the names of the sanitizers' reports begin with."""
        return os.path.join(self.root, "sanitizer")

    def start_bus(self):
        path = os.path.join(self.root, "run", "exchange.skt")
        command = self._broker(path) if BROKER else [program("orvexchanged")]
        with open(os.path.join(self.root, "bus.log"), "ab") as log:
            self.bus = subprocess.Popen(command, env=self.environment(), stdout=log, stderr=log)

        def accepts():
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
                return probe.connect_ex(path) == 0

        wait_until(accepts, "the bus accepts connections")

    def _broker(self, path):
        """Another bus that serves the exchange, with the configuration that is installed."""
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(BROKER_CONFIGURATION) as configuration:
            self.write("etc/exchange.conf", configuration.read().replace("/opt/orvane", self.root))
        return ["unshare", "-m", BROKER, path, os.path.join(self.root, "etc/exchange.conf")]

    def kill_bus(self):
        self.bus.kill()
        self.bus.wait(DEADLINE)
        self.bus = None

    def launch(self, log=None, before=None, **extra):
        """Starts a daemon without waiting for it; `before` is called in its process before it runs."""
        with open(log or self.log_path, "ab") as stderr:
            process = subprocess.Popen([program("orvbrokerd")], env=self.environment(**extra), preexec_fn=before,
                                       stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr)
        self.launched.append(process)
        return process

    def adopt(self, daemon):
        """Takes for the world's daemon what was started otherwise."""
        self.daemon = daemon
        self.launched.append(daemon)

    def start_daemon(self, **extra):
        """Starts the daemon and waits until it answers."""
        self.daemon = self.launch(**extra)
        wait_until(self.answers, "the daemon answers")

    def answers(self):
        if self.daemon.poll() is not None:
            raise AssertionError("the daemon ended with %d" % self.daemon.poll())
        try:
            with Client() as client:
                client.call("no_such_command")
                return True
        except (ConnectionRefusedError, ConnectionResetError, EOFError):
            return False

    def start(self):
        self.start_bus()
        self.start_daemon()
        return self

    def end_of(self, process, deadline=DEADLINE):
        """Waits until a daemon has ended, as it is to; its exit status, which is the test's to judge."""
        status = process.wait(deadline)
        self._forget(process)
        return status

    def _forget(self, process):
        if process in self.launched:
            self.launched.remove(process)
        if process is self.daemon:
            self.daemon = None

    def stop_daemon(self):
        """Stops the daemon in the orderly way and expects success."""
        self.daemon.send_signal(signal.SIGTERM)
        status = self.end_of(self.daemon)
        if status != 0:
            raise AssertionError("the daemon ended with %d" % status)

    def kill_daemon(self):
        """Ends the daemon the hard way, as it may happen to any program."""
        self.daemon.kill()
        self.end_of(self.daemon)

    def restart_daemon(self):
        self.stop_daemon()
        self.start_daemon()

    def end(self):
        """Ends what was started here, in the orderly way, and finds nothing wrong. The directory stays."""
        problems = [problem for process in self.launched for problem in self._end_of("a process", process)]
        problems += self._end_of("the bus", self.bus) if self.bus else []
        self.daemon = self.bus = None
        self.launched = []
        problems += self.reports()
        if problems:
            raise AssertionError("; ".join(problems))

    @staticmethod
    def _end_of(name, process):
        """Ends it; what was wrong with that."""
        if process.poll() is not None:
            return ["%s had ended with %d before it was told to" % (name, process.poll())]
        status = status_of_end(process)
        if status is None:
            return [name + " did not end and had to be killed"]
        return ["%s ended with %d" % (name, status)] if status != 0 else []

    def reports(self):
        """The first lines of all that sanitizers have reported."""
        logs = glob.glob(os.path.join(glob.escape(self.root), "*.log"))
        texts = map(self.log, logs + glob.glob(glob.escape(self._reports_path()) + ".*"))
        return [found for text in texts for found in _SANITIZER.findall(text)]

    def remove(self):
        shutil.rmtree(self.root, ignore_errors=True)

    def close(self):
        try:
            self.end()
        finally:
            self.remove()

    # -- what can be seen from outside

    def descriptors(self):
        """How many descriptors the daemon has open, after it has seen all that clients did before.

        It serves in the order of arrival, so whoever is answered knows that all earlier clients were served."""
        with Client() as client:
            client.call("no_such_command")
            return len(os.listdir("/proc/%d/fd" % self.daemon.pid)) - 1

    def resident_kib(self):
        with open("/proc/%d/status" % self.daemon.pid) as status:
            return int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))

    def log(self, path=None):
        try:
            with open(path or self.log_path, encoding="utf-8", errors="replace") as log:
                return log.read()
        except FileNotFoundError:
            return ""

    def messages(self, path=None, level=4):
        """The messages up to a level, each as often as it was logged, without what the log library and the place put in
        front."""
        found = []
        for line in self.log(path).splitlines():
            match, repeated = _LOG_LINE.match(line), _REPEATED.search(line)
            if match:
                found.append((int(match["level"]), match["text"]))
            elif repeated:
                found += [found[-1]] * int(repeated[1])
        return [text for line_level, text in found if line_level <= level]

    def wait_for_log(self, text, count=1, path=None, deadline=DEADLINE):
        """Waits until some line's message is exactly this text, `count` times over."""
        wait_until(lambda: self.messages(path).count(text) >= count, "log line: " + text, deadline)

    def orvctl(self, *arguments, **options):
        """Runs orvctl to its end."""
        options.setdefault("stdin", subprocess.DEVNULL)
        if "input" in options:
            del options["stdin"]
        environment = self.environment(**options.pop("env", {}))
        return subprocess.run([program("orvctl"), *arguments], env=environment, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=DEADLINE * 3, text=True, check=False, **options)

    def orvctl_on_terminal(self, *arguments, color=False, typed=None, prompt=None, **variables):
        """Runs orvctl on a terminal of its own; returns its exit status and what the terminal showed.

        Once the prompt is shown, what is to be typed is typed."""
        master, slave = pty.openpty()
        environment = self.environment(TERM="xterm")
        environment.pop("NO_COLOR", None)
        environment.update(variables)
        process = subprocess.Popen([program("orvctl"), *arguments, *([] if color else ["--color", "never"])],
                                   env=environment, stdin=slave, stdout=slave, stderr=slave)
        os.close(slave)
        shown = b""
        while True:
            if not select.select([master], [], [], DEADLINE)[0]:
                raise AssertionError("the terminal shows nothing more after %r" % shown)
            try:
                piece = os.read(master, 65536)
            except OSError:
                break  # the last process has left the terminal
            if not piece:
                break
            shown += piece
            if typed is not None and prompt in shown:
                os.write(master, typed)
                typed = None
        os.close(master)
        return process.wait(DEADLINE), shown.decode().replace("\r\n", "\n")

    def write(self, name, text):
        """Writes a file of the agent's, by its place under the root."""
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as file:
            file.write(text)

    def setting(self, key):
        """A key's value, None when it is not there."""
        result = self.orvctl("settings", "get", key)
        return result.stdout[:-1] if result.returncode == 0 else None

    def set_setting(self, key, value):
        result = self.orvctl("settings", "set", key, value)
        if result.returncode != 0:
            raise AssertionError("settings set: " + result.stderr)


class Helper:
    """A helper program that answers each line it is told with a line of its own."""

    def __init__(self, world, *command):
        self.process = subprocess.Popen(command, env=world.environment(), stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)
        self._lines = Lines(self.process.stdout)
        self._expect("ready")

    def close(self):
        """Ends it in the orderly way and expects success, unless it has been killed."""
        if self.process.stdin.closed:
            return
        try:
            self.process.communicate(timeout=DEADLINE)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError("%s does not end" % self.process.args[0]) from None
        if self.process.returncode != 0:
            raise AssertionError("%s ended with %d" % (self.process.args[0], self.process.returncode))

    def kill(self):
        """Ends it the hard way, as it may happen to any program."""
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()

    def order(self, text):
        self.process.stdin.write((text if isinstance(text, bytes) else text.encode()) + b"\n")
        self.process.stdin.flush()

    def result(self):
        line = self._lines.next()
        if line is None:
            raise AssertionError("%s has ended" % self.process.args[0])
        return line

    def _expect(self, text):
        result = self.result()
        if result != text:
            raise AssertionError("%s says: %s" % (self.process.args[0], result))

    def do(self, text):
        self.order(text)
        self._expect("done")

    def ask(self, text):
        self.order(text)
        return self.result()


class Participant(Helper):
    """A participant of the exchange that says what it is told, be it ever so wrong."""

    def __init__(self, world, name):
        self.data_path = os.path.join(world.root, "data")
        self.received = 0  # how many things so far
        super().__init__(world, program("participant"), "unix:path=%s/run/exchange.skt" % world.root, name)

    def receive(self):
        """What comes next, as (kind, name, data)."""
        self.received += 1
        return tuple(self.ask("receive").split("\t", 2))

    def answer(self, number, kind, data=b""):
        """Answers the number-th thing received, from 0, with this type."""
        self.do("answer\t%d\t%s\t%s" % (number, kind, self._file(data)))

    def confirm(self, count):
        """Receives so many requests, and then answers all of them at once with success."""
        first = self.received
        for _ in range(count):
            self.order("receive")
            self.received += 1
        for _ in range(count):
            self.result()
        path = self._file(b"")
        for number in range(first, first + count):
            self.order("answer\t%d\t0\t%s" % (number, path))
        for _ in range(count):
            self._expect("done")

    def malformed(self, number):
        self.do("malformed\t%d" % number)

    def error(self, number, text):
        self.do("error\t%d\t%s" % (number, text))

    def emit(self, event, data=b""):
        self.do("emit\t%s\t%s" % (event, self._file(data)))

    def sync(self):
        """The bus has taken all that was sent so far; it must be there."""
        self.do("sync")

    def _file(self, data):
        with open(self.data_path, "wb") as file:
            file.write(data.encode() if isinstance(data, str) else data)
        return self.data_path


class DeviceWriter(Helper):
    """Writes the device store as the device-management daemon does."""

    def __init__(self, world):
        super().__init__(world, program("devices"))

    def put(self, did, **members):
        self.do("put " + json.dumps({"did": did, **members}))

    def show(self, did):
        """The stored device, None without one."""
        text = self.ask("show " + did)
        return None if text.startswith("failed") else json.loads(text)


def _out_of_time(*_):
    raise AssertionError("the test takes longer than %d s" % TEST_LIMIT)


def not_emulated():
    """Why which tests are not run by an emulator, by their names."""
    if not _NOT_EMULATED:
        return {}
    with open(_NOT_EMULATED, encoding="utf-8") as file:
        return dict(re.findall(r"^([^#:\n]+): (.+)$", file.read(), re.MULTILINE))


class TestCase(unittest.TestCase):
    """A test whose worlds end with it, and whose failure comes with the daemon's log."""

    def setUp(self):
        self.worlds = []
        program_name = os.path.splitext(os.path.basename(sys.argv[0]))[0]
        reason = not_emulated().get("system.%s %s" % (program_name, self.id().removeprefix("__main__.")))
        if reason:
            self.skipTest(reason)

    def participant(self, world, name):
        """A participant that ends with the test."""
        helper = Participant(world, name)
        self.addCleanup(helper.close)
        return helper

    def device_writer(self, world):
        """A writer of the device store that ends with the test."""
        helper = DeviceWriter(world)
        self.addCleanup(helper.close)
        return helper

    def run(self, result=None):
        problems = _problems(result)
        signal.signal(signal.SIGALRM, _out_of_time)
        signal.alarm(TEST_LIMIT)
        try:
            return super().run(result)
        finally:
            signal.alarm(0)
            if _problems(result) > problems:
                for world in self.worlds:
                    sys.stderr.write("--- log of %s in %s\n%s---\n" % (self.id(), world.root, world.log()[-20000:]))
            for world in self.worlds:
                world.remove()

    def quiet_world(self):
        """A world with nothing started, whose daemon logs what it logs in ordinary operation."""
        one = self.world()
        one.log_level = "2"
        return one

    def world(self, root=None):
        """A world with nothing started."""
        world = World(root)
        self.worlds.append(world)
        self.addCleanup(world.end)  # after all that is made later, and lives in it, has gone
        return world


def _problems(result):
    return len(result.failures) + len(result.errors) if result is not None else 0


class ServedTestCase(TestCase):
    """Tests on one world with a running daemon, started anew for each."""

    def setUp(self):
        super().setUp()
        self.served = self.world()
        self.served.start()
