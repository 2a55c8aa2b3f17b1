"""Neighbours of the daemon that are greedy, hostile, broken, slow or stopped.

What they do, and each of them as a row for the tests and for the benchmark bench/bystander: a context that lasts as
long as it misbehaves.
"""

import contextlib
import fcntl
import json
import os
import resource
import signal
import socket
import struct
import subprocess
import sys
import threading

import world
from bystander import AT_ONCE, ONE_LINE, WAITING, Neighbour

F_SETPIPE_SZ = 1031  # Linux's, which Python knows from 3.10 on
NOBODY = 65534
SEND_BUFFER = 4 << 20  # what one client's buffer holds, length words included

def send_slowly(client, data, seconds=60):
    """Sends even where the other side takes its time."""
    client.socket.settimeout(seconds)
    client.socket.sendall(data)


# -- greedy requests

def repeated_ids(count=1_048_000):
    """One device asked for again and again: as often as a line can."""
    return b'{"type":"command","name":"get_devices","data":[%s]}\n' % b",".join([b'"1"'] * count)


def nested(count=130_000):
    """A line whose parsed form is many times its size."""
    return (json.dumps({"type": "command", "name": "no_such_command"})[:-1] + ', "data": [' +
            ",".join(['{"a":[[]]}'] * count) + "]}\n").encode()


def interfaces(count, name="if"):
    entries = [{"name": "%s%d" % (name, number), "type": "lan"} for number in range(count)]
    return (json.dumps({"type": "command", "name": "set_router_interfaces", "data": entries}) + "\n").encode()


@contextlib.contextmanager
def stopped(process):
    """A process that a debugger, a terminal or the kernel has stopped."""
    process.send_signal(signal.SIGSTOP)
    try:
        yield process
    finally:
        process.send_signal(signal.SIGCONT)


@contextlib.contextmanager
def many_clients(count, line=b""):
    """Clients that connect and send an unfinished line each."""
    clients = []
    try:
        for _ in range(count):
            client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            client.setblocking(False)
            if client.connect_ex(world.SOCKET_NAME) != 0:
                client.close()
                break
            with contextlib.suppress(OSError):
                client.send(line)
            clients.append(client)
        yield clients
    finally:
        for client in clients:
            client.close()


def cpu_seconds(pid):
    with open("/proc/%d/schedstat" % pid, encoding="ascii") as schedstat:
        return int(schedstat.read().split()[0]) / 1e9


def private_kib(pid):
    with open("/proc/%d/smaps_rollup" % pid, encoding="ascii") as rollup:
        return sum(int(line.split()[1]) for line in rollup if line.startswith("Private_Dirty:"))


def peak_kib(pid):
    with open("/proc/%d/status" % pid, encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmHWM:"))


def reset_peak(pid):
    with open("/proc/%d/clear_refs" % pid, "w", encoding="ascii") as file:
        file.write("5\n")


def size_kib(pid):
    with open("/proc/%d/status" % pid, encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmSize:"))


def has_second_user():
    """In the user namespace that somebody else than root needs for these tests there is no second user."""
    with open("/proc/self/uid_map", encoding="ascii") as users:
        return any(int(line.split()[2]) > NOBODY for line in users)


def need_second_user(test):
    if not has_second_user():
        test.skipTest("NOT TESTED: this user namespace has no second user, so nobody has tried what another one can do")


def command(name, *data):
    """A line with a request."""
    return (json.dumps({"type": "command", "name": name, **({"data": data[0]} if data else {})}) + "\n").encode()


def ask(line):
    """Sends a line on a connection of its own, and reads the answer, as far as it fits the daemon's send buffer."""
    with world.Client() as client:
        send_slowly(client, line)
        with contextlib.suppress(EOFError):
            length = int.from_bytes(client.receive(4), "little")
            client.receive(min(length, SEND_BUFFER - 4))


class Doing:
    """Does something again and again in a thread of its own, whatever becomes of the daemon meanwhile."""

    def __init__(self, action):
        self.rounds = 0
        self._action = action
        self._failure = None
        self._is_over = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._is_over.set()
        self._thread.join(world.DEADLINE * 2)
        if self._failure:
            raise self._failure

    def _run(self):
        try:
            while not self._is_over.is_set():
                try:
                    self._action()
                except (ConnectionError, EOFError, BrokenPipeError):
                    self._is_over.wait(0.01)
                self.rounds += 1
        except Exception as failure:  # whatever it is, the test has to hear of it
            self._failure = failure


class Lines:
    """Lines sent one after the other, each on a connection of its own."""

    def __init__(self, *lines):
        self._lines = lines
        self._next = 0

    def __call__(self):
        self._next += 1
        ask(self._lines[self._next % len(self._lines)])


ROWS = {"clients": [], "log": [], "stores": [], "devices": [], "exchange": []}


def start_daemon(home):
    home.start_daemon()


def row(kind, name, bound=AT_ONCE, prepare=start_daemon, reconnecting=False, logged=None, rounds=1, costly=False):
    """Makes a neighbour of a generator function."""
    def add(act):
        ROWS[kind].append(Neighbour(name, act, bound, prepare, reconnecting, logged, rounds, costly))
        return act
    return add


# -- clients

def with_device(home):
    home.set_setting("/registration/device_id", "r1")
    home.start_daemon()
    writer = world.DeviceWriter(home)
    writer.put("1", owner="r1", display_name="n" * 3000)  # with it the answer's length just finds room in 32 bits
    writer.close()


def row_of_lines(kind, name, *lines, **more):
    """A neighbour who sends these lines; each is a function, since some are large."""
    @row(kind, name, **more)
    def act(_):
        with Doing(Lines(*(line() for line in lines))) as doing:
            yield doing


row_of_lines("clients", "1,048,000 repeated ids", repeated_ids, bound=ONE_LINE, prepare=with_device)
row_of_lines("clients", "3 MB of nested JSON", nested, bound=ONE_LINE)
row_of_lines("clients", "5,000 interfaces", lambda: interfaces(5_000), lambda: interfaces(4_999))
row_of_lines("clients", "100,000 interfaces", lambda: interfaces(100_000), bound=ONE_LINE, costly=True)
row_of_lines("clients", "100,000 interfaces, each time others", lambda: interfaces(100_000),
             lambda: interfaces(100_000, "eth"), bound=ONE_LINE, costly=True)
row_of_lines("clients", "settings switched to and fro", lambda: command("pro_features_enable"),
             lambda: command("pro_features_disable"))


@row("clients", "lines that never end")
def unfinished_lines(_):
    def crowd():
        with contextlib.ExitStack() as stack:
            for _ in range(5):
                client = stack.enter_context(world.Client())
                send_slowly(client, b'{"a": "' + b"x" * 3_000_000)

    with Doing(crowd) as doing:
        yield doing


@row("clients", "connections without end")
def churning_clients(_):
    def come_and_go():
        with many_clients(50, b'{"type": "comm'):
            pass

    with Doing(come_and_go) as doing:
        yield doing


@row("clients", "no descriptor left", reconnecting=True, logged="failed to accept client")
def no_descriptors(home):
    pid = home.daemon.pid
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (len(os.listdir("/proc/%d/fd" % pid)) + 4, before[1]))
    try:
        with many_clients(12), Doing(lambda: world.wait_until(lambda: "failed to accept client" in home.log(),
                                                              "it has no descriptor left")) as doing:
            yield doing
    finally:
        with contextlib.suppress(ProcessLookupError):
            resource.prlimit(pid, resource.RLIMIT_NOFILE, before)


@row("clients", "no memory left", reconnecting=True, logged="no memory|out of memory|failed to init new connection")
def no_memory(home):
    pid = home.daemon.pid
    resource.prlimit(pid, resource.RLIMIT_AS, ((size_kib(pid) + 4 * 1024) * 1024, resource.RLIM_INFINITY))
    lines = Lines(command("va_set_exclusions", ["x" * 20_000] * 40), command("set_router_name", "n" * 900_000),
                  command("get_status_report"))
    try:
        with many_clients(20, b'{"a": "' + b"x" * 150_000), Doing(lines) as doing:
            yield doing
    finally:
        with contextlib.suppress(ProcessLookupError):
            resource.prlimit(pid, resource.RLIMIT_AS, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))


# Connects and is closed, again and again.
_REFUSED = """
import socket
while True:
    with socket.socket(socket.AF_UNIX) as client:
        try:
            client.connect("\\0orvbrokerd-1.3.skt")
            client.recv(1)
        except OSError:
            pass
"""


# Waits for a line, and asks.
ASK_SERVICES = """
import socket, struct
input()
client = socket.socket(socket.AF_UNIX)
client.connect("\\0orvbrokerd-1.3.skt")
client.sendall(b'{"type": "command", "name": "get_services_status"}\\n')
length, = struct.unpack("=I", client.recv(4, socket.MSG_WAITALL))
print(client.recv(length, socket.MSG_WAITALL).decode(), flush=True)
"""


def _as_other(arguments):
    """Python as another user, where there is one."""
    others = ["setpriv", "--reuid", str(NOBODY), "--regid", str(NOBODY), "--clear-groups"] if has_second_user() else []
    return [*others, sys.executable, "-S", "-E", *arguments]


def run_as_other(*arguments):
    return subprocess.run(_as_other(arguments), cwd="/", stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=world.DEADLINE, text=True, check=False)


@contextlib.contextmanager
def other_user(*arguments):
    process = subprocess.Popen(_as_other(arguments), cwd="/", stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        yield process
    finally:
        process.kill()
        process.communicate()


def refused_user():
    """One who does not take no for an answer."""
    return other_user("-c", _REFUSED)


def with_allowed_users(home):
    home.set_setting("/daemons/orvbrokerd/allowed_uids", "1000")
    home.start_daemon()


@row("clients", "a user who is refused", prepare=with_allowed_users,
     logged=r" 1 \[.*refused a client of user 65534" if has_second_user() else None)
def refused(_):
    with refused_user(), Doing(lambda: ask(command("get_router_name"))) as doing:
        yield doing


# -- the log

class UnreadPipe:
    """Standard error of a daemon: a small pipe that nobody reads."""

    def __init__(self, home):
        self.reader, writer = os.pipe()
        fcntl.fcntl(writer, F_SETPIPE_SZ, 4096)
        home.adopt(subprocess.Popen([world.program("orvbrokerd")], env=home.environment(ORV_LOG_LEVEL="4"),
                                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=writer))
        os.close(writer)
        world.wait_until(home.answers, "the daemon answers")

    def close(self):
        os.close(self.reader)


class InBackground:
    """A daemon in the background, as far as worlds use a process."""

    def __init__(self, home):
        subprocess.run([world.program("orvbrokerd"), "-d"], env=home.environment(ORV_LOG_LEVEL="4"), check=True,
                       stdin=subprocess.DEVNULL, timeout=world.DEADLINE)
        with world.Client() as client:
            credentials = client.socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
        self.pid = struct.unpack("=iII", credentials)[0]

    def poll(self):
        try:
            return 0 if world.state_of(self.pid) == "Z" else None  # whoever is its parent now may take his time
        except FileNotFoundError:
            return 0

    def send_signal(self, number):
        os.kill(self.pid, number)

    def kill(self):
        self.send_signal(signal.SIGKILL)

    def wait(self, deadline):
        """Its status is its parent's to know."""
        world.wait_until(lambda: self.poll() == 0, "the daemon has ended", deadline)
        return 0


class StuckSyslog:
    """A daemon in the background, and a syslog daemon that has stopped reading."""

    def __init__(self, home):
        devices = os.path.join(home.root, "dev")
        os.mkdir(devices)
        subprocess.run(["mount", "--rbind", "/dev", devices], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/dev"], check=True)
        for name in os.listdir(devices):
            if name != "log":
                os.symlink(os.path.join(devices, name), os.path.join("/dev", name))
        self._devices = devices
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind("/dev/log")
        home.adopt(InBackground(home))

    def close(self):
        self._socket.close()
        for path in ("/dev", self._devices):
            subprocess.run(["umount", "-l", path], check=True)


row_of_lines("log", "a syslog that is stuck", lambda: command("no_such_command"), prepare=StuckSyslog)
row_of_lines("log", "a log that nobody reads", lambda: command("no_such_command"), prepare=UnreadPipe)
row_of_lines("log", "the same line over and over", lambda: b"garbage\n", logged="last line repeated")
row_of_lines("log", "lines of 4 MB with control characters", lambda: b"\x1b]0;title\x07\r" + b"x" * 4_000_000 + b"\n",
             bound=ONE_LINE, logged=r"\\x1b\]0;title\\x07\\x0dx.*\(40\d{5} bytes\)")


# -- stores

# Opens or writes a store, as far as its neighbours can tell, and is stopped.
_OPENER = """
import fcntl, os, signal, sys
fcntl.flock(os.open(sys.argv[1], os.O_RDONLY), fcntl.LOCK_EX)
os.kill(os.getpid(), signal.SIGSTOP)
"""




@contextlib.contextmanager
def stopped_with_lock(home, store):
    """A process that is stopped with the lock of a store, which whoever opens or writes it has meanwhile."""
    process = subprocess.Popen([sys.executable, "-S", "-E", "-c", _OPENER, os.path.join(home.root, store)])
    try:
        world.wait_until(lambda: world.is_stopped(process.pid), "it is stopped")
        yield process
    finally:
        process.kill()
        process.wait(world.DEADLINE)


def has_lock(pid, directory):
    inode = str(os.stat(directory).st_ino)
    with open("/proc/locks", encoding="ascii") as locks:
        for line in locks:
            words = line.split()
            if words[1:4] == ["FLOCK", "ADVISORY", "WRITE"] and int(words[4]) == pid and \
                    words[5].rsplit(":", 1)[1] == inode:
                return True
    return False


@contextlib.contextmanager
def stopped_while_writing(home, store, order):
    """A program that is stopped in the middle of its writing."""
    writer = world.DeviceWriter(home)
    writer.ask(order)
    directory = os.path.join(home.root, store)

    def has_stopped_there():
        writer.process.send_signal(signal.SIGSTOP)
        world.wait_until(lambda: world.is_stopped(writer.process.pid), "it is stopped")
        if has_lock(writer.process.pid, directory):
            return True
        writer.process.send_signal(signal.SIGCONT)
        return False

    try:
        world.wait_until(has_stopped_there, "it is stopped while it writes")
        yield writer.process
    finally:
        writer.kill()


SWITCHES = command("enable_services"), command("disable_services")
ONLINE = command("set_device_online_status", {"text": "x"})
LARGE_ONLINE = "x" * 900_000


def with_leases(home):
    home.set_setting("/leases/mode", "orvleases-ng")
    home.start_daemon()


STOPPED = "store %s: cannot begin to write: it is being written by process .*, which is stopped"


@row("stores", "a process stopped while it writes var/settings", bound=WAITING, logged=STOPPED % "var/settings")
def stopped_settings(home):
    with stopped_while_writing(home, "var/settings", "storm /storm"), Doing(Lines(*SWITCHES)) as doing:
        yield doing


@row("stores", "a process stopped while it writes tmp/settings", bound=WAITING, prepare=with_leases,
     logged=STOPPED % "tmp/settings")
def stopped_volatile(home):
    with stopped_while_writing(home, "tmp/settings", "storm /tmp/storm"), Doing(Lines(ONLINE)) as doing:
        yield doing


@row("stores", "a process stopped while it opens var/telemetry", bound=WAITING, logged=STOPPED % "var/telemetry")
def stopped_telemetry(home):
    with stopped_with_lock(home, "var/telemetry"), Doing(Lines(*SWITCHES)) as doing:
        yield doing


@row("stores", "a process stopped while it writes var/devices", prepare=with_device)
def stopped_devices(home):
    with stopped_while_writing(home, "var/devices", "churn other"), Doing(Lines(command("get_devices"))) as doing:
        yield doing


@row("stores", "a process stopped with the lock of a setting", bound=WAITING, logged="Failed to lock /tmp/subscription",
     rounds=3)
def stopped_key(home):
    """Several ask for it at once."""
    line = command("get_subscription_status")

    def ask_together():
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(world.Client()) for _ in range(6)]
            for client in clients:
                client.send(line)
            for client in clients:
                client.frame()

    writer = world.DeviceWriter(home)
    try:
        writer.do("lock /tmp/subscription")
        with stopped(writer.process), Doing(ask_together) as doing:
            yield doing
    finally:
        writer.close()


@row("stores", "settings written and removed without end", bound=WAITING)
def storm_of_settings(home):
    writer = world.DeviceWriter(home)
    try:
        writer.ask("storm /storm")
        with Doing(Lines(*SWITCHES)) as doing:
            yield doing
    finally:
        writer.kill()


@row("stores", "a hundred online-status requests of 0.9 MB", bound=ONE_LINE, prepare=with_leases)
def online_storm(_):
    line = command("set_device_online_status", {"text": LARGE_ONLINE})
    with Doing(lambda: [ask(line) for _ in range(20)]) as doing:
        yield doing


def with_full_store(home):
    with_leases(home)
    writer = world.DeviceWriter(home)
    writer.do("fill /tmp/full")
    writer.close()


@row("stores", "a store filled to its last page", prepare=with_full_store,
     logged="store tmp/settings: cannot write: it is full")
def full_store(_):
    with Doing(Lines(ONLINE, command("set_router_name", "n"))) as doing:
        yield doing


def data_file(home, store):
    return os.path.join(home.root, store, "data.mdb")


def flip_bytes(path):
    """One byte in each page."""
    with open(path, "r+b") as file:
        size = os.fstat(file.fileno()).st_size
        for offset in range(0, size, 4096):
            file.seek(offset + 16)
            byte = file.read(1)
            file.seek(offset + 16)
            file.write(bytes([byte[0] ^ 0x55]))


def with_damaged(store):
    def prepare(home):
        """A second start, with damage in a store."""
        home.start_daemon()
        home.orvctl("device", "put", '{"did": "d1"}')
        home.stop_daemon()
        if store == "var/settings":  # what the daemon makes when it has been idle for long
            with open(data_file(home, store), "rb") as data, open(data_file(home, store) + ".copy", "wb") as copy:
                copy.write(data.read())
        flip_bytes(data_file(home, store))
        home.start_daemon()
    return prepare


DEVICES = command("get_devices")

for _store in ("var/settings", "var/devices", "var/telemetry"):
    row_of_lines("stores", "damage in " + _store, *(lambda line=line: line for line in (*SWITCHES, DEVICES)),
                 prepare=with_damaged(_store), logged="store %s: its data file was damaged" % _store)


class OutboxInMemory:
    """A file system in the outbox's place that never waits for a disk."""

    def __init__(self, home, size="64m"):
        self._path = os.path.join(home.root, "var", "telemetry")
        os.makedirs(self._path, mode=0o700)
        os.chmod(os.path.dirname(self._path), 0o700)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=700,size=" + size, "tmpfs", self._path], check=True)
        home.start_daemon()

    def close(self):
        subprocess.run(["umount", "-l", self._path], check=True)


@row("stores", "no room for var/telemetry", prepare=lambda home: OutboxInMemory(home, size="8k"),
     logged="telemetry: events are sent without being kept")
def no_room(_):
    with Doing(Lines(*SWITCHES)) as doing:
        yield doing


# -- devices

@row("devices", "2,000 devices that come and go")
def coming_and_going(home):
    with contextlib.closing(world.DeviceWriter(home)) as writer:
        with world.Client() as subscriber:
            subscriber.subscribe("devices_list_updated")

            def come_and_go():
                writer.do("crowd d 2000 02:00:00")
                writer.do("clear")

            with Doing(come_and_go) as doing:
                yield doing


@row("devices", "changes of devices without end")
def endless_changes(home):
    with contextlib.closing(world.DeviceWriter(home)) as writer:
        with world.Client() as subscriber:
            subscriber.subscribe("device_discovery")
            writer.do("crowd d 10 02:00:00")
            with Doing(lambda: [writer.do("rename d%d name 5" % number) for number in range(10)]) as doing:
                yield doing


# -- the exchange

def socket_of_the_bus(home):
    return os.path.join(home.root, "run", "exchange.skt")


SCAN = command("va_start")
# Asks and does not wait for the answer, which needs another participant.
SCHEDULE = command("va_set_schedule", {"text": "x" * 100_000})


def ask_the_exchange():
    ask(SCAN)
    with world.Client() as client:
        send_slowly(client, SCHEDULE)


@row("exchange", "a listener in the bus's place that accepts nobody",
     logged="cannot reach the exchange: too many wait for it already")
def crowded_bus(home):
    home.kill_bus()
    try:
        with world.CrowdedListener(socket_of_the_bus(home)), Doing(lambda: ask(SCAN)) as doing:
            yield doing
    finally:
        home.start_bus()


@row("exchange", "a stopped bus")
def stopped_bus(home):
    with stopped(home.bus), Doing(ask_the_exchange) as doing:
        yield doing


@row("exchange", "half-open connections to the bus")
def half_open_connections(home):
    """They are there before the daemon, which comes back to a bus that was started again."""
    home.kill_bus()
    home.start_bus()
    with contextlib.ExitStack() as stack:
        for _ in range(200):
            one = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK))
            one.connect_ex(socket_of_the_bus(home))
        with Doing(lambda: ask(SCAN)) as doing:
            yield doing


def with_one_match_rule(home):
    """A bus that takes one match rule of each participant."""
    with open(os.path.join(home.root, "run", "exchange-private.conf"), encoding="utf-8") as file:
        text = file.read()
    home.kill_bus()
    home.write("etc/exchange.conf", text.replace('rules_per_connection">512', 'rules_per_connection">1'))
    home.start_bus()
    home.start_daemon()


@row("exchange", "a bus that refuses match rules", prepare=with_one_match_rule, logged="the exchange refuses a subscription")
def refusing_bus(_):
    def subscribe():
        with world.Client() as client:
            client.subscribe("va_status_changed")

    with Doing(subscribe) as doing:
        yield doing


@row("exchange", "events without end")
def storm_of_events(home):
    """Of which one subscriber reads nothing."""
    participant = world.Participant(home, "orvvad")
    try:
        with world.Client() as deaf:
            deaf.subscribe("va_status_changed")
            with Doing(lambda: participant.do("storm\tva_status_changed\t0\t200\t1000")) as doing:
                yield doing
    finally:
        participant.close()


@row("exchange", "events of 16 MB")
def large_events(home):
    def emit():
        participant = world.Participant(home, "orvvad")
        try:
            with contextlib.suppress(AssertionError):  # the bus has thrown it out
                participant.emit("va_status_changed", b"x" * (16 << 20))
                participant.emit("va_status_changed", "small")
        finally:
            participant.kill()

    with world.Client() as subscriber:
        subscriber.subscribe("va_status_changed")
        with Doing(emit) as doing:
            yield doing


CONFIRMED_AT_ONCE = 1000


@row("exchange", "1,000 telemetry events confirmed at once", prepare=OutboxInMemory)
def confirmations(home):
    agent = world.Participant(home, "orvagent")

    def confirm():
        with world.Client() as client:
            for _ in range(CONFIRMED_AT_ONCE):
                client.send(SWITCHES[0])
                client.frame()
        agent.confirm(CONFIRMED_AT_ONCE)

    try:
        with Doing(confirm) as doing:
            yield doing
    finally:
        agent.close()
