"""What uses the daemon in a long run: clients that write and read, subscribers, writers of the device store, clients that
come and go. Each is a thread with a chance of its own, and writes down in the ledger what it was told.

A rest is when all of them have come to an end of what they do and hold nothing but their standing connections.
"""

import contextlib
import json
import random
import select
import signal
import socket
import subprocess
import threading
import time
import traceback

import world
from ledger import Register, Sequence

AT_ONCE = 15  # seconds; a request that needs no other daemon, on a machine that is busy with all this
LATER = 70  # one that does: its time limit is 60
ANSWERED_ONCE = "a request is answered once, or its connection closed with a reason, within a bound"
SUCCEEDS = "a command succeeds unless what it needs is disturbed"
SCAN_EVENT = "va_status_changed"
ROUTER = "r1"  # whose devices all are


class Gate:
    """Lets all through, or has them rest."""

    def __init__(self):
        self._change = threading.Condition()
        self._is_closed = False
        self._workers = 0
        self._resting = 0

    def enter(self):
        with self._change:
            self._workers += 1

    def leave(self):
        with self._change:
            self._workers -= 1
            self._change.notify_all()

    def is_closed(self):
        return self._is_closed

    def rest(self):
        """Called by a worker that holds nothing."""
        with self._change:
            self._resting += 1
            self._change.notify_all()
            self._change.wait_for(lambda: not self._is_closed)
            self._resting -= 1

    @contextlib.contextmanager
    def closed(self):
        with self._change:
            self._is_closed = True
            if not self._change.wait_for(lambda: self._resting == self._workers, LATER + world.DEADLINE):
                raise AssertionError("somebody does not come to rest")
        try:
            yield
        finally:
            with self._change:
                self._is_closed = False
                self._change.notify_all()


class Worker(threading.Thread):
    PAUSE = 0.01  # seconds between two steps

    def __init__(self, run):
        super().__init__(name=type(self).__name__, daemon=True)
        self.of = run
        self.ledger = run.ledger
        self.chance = random.Random("%d %s" % (run.seed, self.name))
        run.gate.enter()

    def run(self):
        try:
            while not self.of.is_over.is_set():
                if self.of.gate.is_closed():
                    self.let_go()
                    self.of.gate.rest()
                self.step()
                time.sleep(self.PAUSE)
        except Exception:  # whatever it is, it is no run that says anything
            self.ledger.breaks("the run itself", traceback.format_exc())
        finally:
            self.let_go()
            self.of.gate.leave()

    def step(self):
        raise NotImplementedError

    def let_go(self):
        """Gives up what is open."""


class Conversation:
    """Requests of one worker, on one connection as long as that may be."""

    def __init__(self, run):
        self._run = run
        self._ledger = run.ledger
        self._client = None

    def close(self):
        if self._client is None:
            return
        if self._client.has_input():
            self._expect_end("before it was closed")
        self._client.close()
        self._client = None

    def _expect_end(self, when):
        """What is there to be read is the connection's end and no second answer."""
        try:
            data = self._client.socket.recv(256)
        except ConnectionError:
            return
        if data:
            self._ledger.breaks(ANSWERED_ONCE, "more than one answer, %s: %r" % (when, data))

    def _connected(self):
        """Whether there is a connection; there is none while the daemon is away."""
        if self._client is not None and self._client.has_input():
            self._expect_end("before the next request")
            self._client.close()
            self._client = None
        if self._client is not None:
            return True
        begin = time.monotonic()
        try:
            self._client = world.Client(AT_ONCE)
        except OSError as reason:
            if not self._run.disturbed.since(begin, "daemon"):
                self._ledger.breaks(ANSWERED_ONCE, "no connection: %s" % reason)
            time.sleep(0.05)
            return False
        return True

    def ask(self, name, *data, later=False, may_be_closed=False):
        """A command's answer as (data, status), or None where the connection had a reason to end."""
        if not self._connected():
            return None
        begin = time.monotonic()
        try:
            self._client.socket.settimeout(LATER if later else AT_ONCE)
            answer = self._client.call(name, *data)
        except socket.timeout:
            self._drop()
            self._ledger.breaks(ANSWERED_ONCE, "%s was not answered within %.0f s" % (name, time.monotonic() - begin))
            return None
        except (OSError, EOFError) as reason:
            self._drop()
            if not may_be_closed and not self._run.disturbed.since(begin, "daemon"):
                self._ledger.breaks(ANSWERED_ONCE, "%s was not answered, but: %s" % (name, reason))
            self._ledger.count("requests ended by the connection")
            return None
        except (ValueError, KeyError) as reason:
            self._drop()
            self._ledger.breaks(ANSWERED_ONCE, "%s was answered with something else: %s" % (name, reason))
            return None
        self._ledger.count("requests answered")
        self._ledger.took("answered later" if later else "answered at once", time.monotonic() - begin)
        if answer[1] != 0:
            self._closed_after(name)
        elif later:  # it may be closed, or not
            self._drop()
        return answer

    def _closed_after(self, name):
        """After any other status than 0 the connection's end follows."""
        self._ledger.count("requests refused")
        self._client.socket.settimeout(AT_ONCE)
        try:
            if self._client.socket.recv(1):
                self._ledger.breaks(ANSWERED_ONCE, "more than one answer to %s" % name)
        except socket.timeout:
            self._ledger.breaks(ANSWERED_ONCE, "%s failed and its connection was not closed" % name)
        except OSError:
            pass
        self._drop()

    def _drop(self):
        self._client.close()
        self._client = None


class Writing(Worker):
    """A worker that writes registers."""

    def __init__(self, run):
        super().__init__(run)
        self.conversation = Conversation(run)

    def let_go(self):
        self.conversation.close()

    def write(self, register, value, name, *data, later=False, needs=("stores",), may_fail_unseen=False):
        """Has a command write; `needs` is what it may fail for."""
        register.writes(value)
        begin = time.monotonic()
        answer = self.conversation.ask(name, *data, later=later)
        if answer is None:
            register.unknown(value)
            return
        is_disturbed = self.of.disturbed.since(begin, *needs)
        if answer[1] == 0 and not (may_fail_unseen and is_disturbed):
            register.confirmed(value)
            return
        register.unknown(value)
        if answer[1] != 0 and not is_disturbed:
            self.ledger.breaks(SUCCEEDS, "%s: %r" % (name, answer))

    def read(self, register, name, *data, value_of=lambda data: data):
        """Reading needs nothing that is ever disturbed."""
        answer = self.conversation.ask(name, *data)
        if answer is None:
            return
        if answer[1] != 0:
            self.ledger.breaks(SUCCEEDS, "%s: %r" % (name, answer))
            return
        register.read(value_of(answer[0]))


class Settings(Writing):
    """Settings by the daemon's commands."""

    FEATURES = ("device_discovery", "user_agent_detection", "traffic_blocking", "va_scan", "va_self_scan", "satellites")

    def __init__(self, run):
        super().__init__(run)
        self.services = Register(self.ledger, "services", 0, 1)
        self.trigger = Register(self.ledger, "cloud trigger", False)
        self.exclusions = Register(self.ledger, "exclusions", [])
        self.interfaces = Register(self.ledger, "interfaces", {})
        self.features = {name: Register(self.ledger, name, "disabled", "enabled") for name in self.FEATURES}

    def prepare(self):
        """What has to be there to be read."""
        self.write(self.trigger, False, "set_va_cloud_trigger", False)

    def step(self):
        what = self.chance.choice(("services", "trigger", "exclusions", "interfaces", "features", "features", "token"))
        getattr(self, "use_" + what)(self.chance.random() < 0.4)

    def check(self):
        for what in ("services", "trigger", "exclusions", "interfaces", "features"):
            getattr(self, "use_" + what)(False)
        self.let_go()

    def use_services(self, is_written):
        if is_written:
            on = self.chance.randrange(2)
            self.write(self.services, on, "enable_services" if on else "disable_services")
        self.read(self.services, "get_services_status", value_of=lambda data: data["status"])

    def use_trigger(self, is_written):
        if is_written:
            on = self.chance.random() < 0.5
            self.write(self.trigger, on, "set_va_cloud_trigger", on)
        self.read(self.trigger, "get_va_cloud_trigger")

    def use_exclusions(self, is_written):
        if is_written:
            count = self.chance.randrange(5)
            patterns = sorted({"02:00:00:00:%02x:%02x" % (number, self.chance.randrange(256)) for number in range(count)})
            self.write(self.exclusions, patterns, "va_set_exclusions", patterns)
        self.read(self.exclusions, "va_get_exclusions", value_of=sorted)

    def use_interfaces(self, is_written):
        """Whether the list was stored, only the log tells."""
        if is_written:
            listed = {"eth%d" % number: self.chance.choice(("wan", "lan", "guest"))
                      for number in range(1 + self.chance.randrange(4))}
            data = [{"name": name, "type": kind} for name, kind in listed.items()]
            self.write(self.interfaces, listed, "set_router_interfaces", data, may_fail_unseen=True)
        self.read(self.interfaces, "get_router_interfaces",
                  value_of=lambda data: {entry["name"]: entry["type"] for entry in data})

    def use_features(self, is_written):
        name = self.chance.choice(self.FEATURES)
        register = self.features[name]
        if is_written:
            state = self.chance.choice(("enabled", "disabled"))
            register.writes(state)
            begin = time.monotonic()
            answer = self.conversation.ask("set_feature", {name: state})
            if answer is not None and answer == ({name: state}, 0):
                register.confirmed(state)
            else:
                register.unknown(state)
                if answer is not None and not self.of.disturbed.since(begin, "stores"):
                    self.ledger.breaks(SUCCEEDS, "set_feature: %r" % (answer,))
        self.read(register, "get_feature", [name], value_of=lambda data: data.get(name))

    def use_token(self, _):
        """An answer that can be nobody else's."""
        token = "token %d" % self.chance.randrange(1 << 30)
        answer = self.conversation.ask("va_set_exclusions", [token])
        if answer not in (None, ("invalid value '%s' at index 0" % token, -1)):
            self.ledger.breaks(ANSWERED_ONCE, "another's answer: %r to %s" % (answer, token))


class Devices(Writing):
    """Devices by the daemon's commands, which other daemons of the agent carry out; nobody else writes these."""

    PAUSE = 0.03
    NEEDS = ("exchange", "stores")

    def __init__(self, run):
        super().__init__(run)
        self.ids = ["own-%d" % number for number in range(3)]
        self.blocked = {did: Register(self.ledger, did + " blocked", 0, late=True) for did in self.ids}
        self.names = {did: Register(self.ledger, did + " named", "", late=True) for did in self.ids}
        self._count = 0

    def step(self):
        did = self.chance.choice(self.ids)
        what = self.chance.randrange(6)
        if what == 0:
            self._count += 1
            name = "name %d" % self._count
            self.write(self.names[did], name, "set_device_name", {"device_id": did, "name": name}, later=True, needs=self.NEEDS)
        elif what == 1:
            value = self.chance.randrange(2)
            self.write(self.blocked[did], value, "set_device_traffic_blocked",
                       {"device_id": did, "traffic_blocked": value}, later=True, needs=self.NEEDS)
        elif what == 2:
            begin = time.monotonic()
            answer = self.conversation.ask("va_status", later=True, may_be_closed=True)
            if answer is None and not self.of.disturbed.since(begin, "exchange", "daemon"):
                self.ledger.breaks(SUCCEEDS, "va_status was closed")
        elif what == 3:
            begin = time.monotonic()
            answer = self.conversation.ask("va_set_schedule", {"enabled": True, "scheduled": False}, later=True, may_be_closed=True)
            if answer != (None, 0) and not self.of.disturbed.since(begin, "exchange", "stores", "daemon"):
                self.ledger.breaks(SUCCEEDS, "va_set_schedule: %r" % (answer,))
        else:
            self.look(did)

    def look(self, did):
        self.read(self.blocked[did], "get_devices", [did], value_of=lambda data: data[0]["traffic_blocked"] if data else "gone")

    def check(self):
        for did in self.ids:
            self.look(did)
            self.names[did].read((self.of.store.show(did) or {}).get("friendly_name", "gone"))
        self.let_go()


class Store(Worker):
    """Writes the device store as the device-management daemon does, and settings as orvctl does; its program is killed now
    and then in the middle of it."""

    PAUSE = 0.05
    NAMED = tuple("named-%d" % number for number in range(4))
    MOST_GUESTS = 6

    def __init__(self, run):
        super().__init__(run)
        self._writer = None
        self._lock = threading.Lock()
        self.tried = dict.fromkeys(self.NAMED, 0)  # the number in the name that was written last
        self.registers = {did: Register(self.ledger, did, "name 0") for did in self.NAMED}
        self.keys = {"/soak/%d" % number: Register(self.ledger, "/soak/%d" % number, None) for number in range(3)}
        self.guests = {}  # identifier: whether it is there, None when nobody knows
        self._count = 0

    def writer(self):
        while self._writer is None:
            begin = time.monotonic()
            try:
                self._writer = world.DeviceWriter(self.of.home)
            except AssertionError:  # it cannot open the stores
                if not self.of.disturbed.since(begin, "stores"):
                    raise
        return self._writer

    def close(self):
        if self._writer is not None:
            self._writer.close()
            self._writer = None

    def show(self, did):
        with self._lock:
            return self.writer().show(did)

    def order(self, text):
        """Whether it was done; None when the program was killed over it."""
        begin = time.monotonic()
        with self._lock:
            writer = self.writer()
            writer.order(text)
            if self.ident and self.chance.random() < 0.02:
                with self.of.disturbed.of("stores", "a writer is killed"):
                    writer.kill()
                    self._writer = None
                return None
            is_done = writer.result() == "done"
        if not is_done and not self.of.disturbed.since(begin, "stores"):
            self.ledger.breaks(SUCCEEDS, "not written: " + text)
        return is_done

    def put(self, did, **members):
        return self.order("put " + json.dumps({"did": did, "owner": ROUTER, **members}))

    def prepare(self):
        """That a device comes is no change of it."""
        for did in self.NAMED:
            self.put_named(did, "name 0")

    def put_named(self, did, name):
        mac = "02:aa:00:00:00:%02x" % self.NAMED.index(did)
        return self.put(did, macs={mac: ["10.0.0.1"]}, display_name=name)

    def step(self):
        self.chance.choice((self.name_one, self.name_one, self.come, self.go, self.set_key))()

    def name_one(self):
        did = self.chance.choice(self.NAMED)
        register = self.registers[did]
        self.tried[did] += 1
        name = "name %d" % self.tried[did]
        register.writes(name)
        if self.put_named(did, name):
            register.confirmed(name)
        else:
            register.unknown(name)
        self.look(did)

    def look(self, did):
        self.registers[did].read((self.show(did) or {}).get("display_name", "gone"))

    def come(self):
        if sum(map(bool, self.guests.values())) >= self.MOST_GUESTS:
            return
        self._count += 1
        did = "guest-%d" % self._count
        self.guests[did] = None
        if self.put(did):
            self.guests[did] = True

    def go(self):
        there = [did for did, is_there in self.guests.items() if is_there]
        if len(there) < 2:
            return
        did = self.chance.choice(there)
        self.guests[did] = None
        if self.order("remove " + did):
            self.guests[did] = False

    def set_key(self):
        key, register = self.chance.choice(list(self.keys.items()))
        value = str(self.chance.randrange(1 << 30))
        register.writes(value)
        begin = time.monotonic()
        process = self.orvctl("settings", "set", key, value)
        kind = self.chance.randrange(4)
        if kind == 0:
            with self.of.disturbed.of("stores", "orvctl is killed"):
                time.sleep(self.chance.random() * 0.01)
                process.kill()
                process.communicate()
        elif kind == 1:
            with self.of.disturbed.of("stores", "orvctl is stopped"):
                process.send_signal(signal.SIGSTOP)
                time.sleep(self.chance.random() * 0.2)
                process.send_signal(signal.SIGCONT)
        _, errors = process.communicate(timeout=world.DEADLINE)
        if process.returncode == 0:
            register.confirmed(value)
        else:
            register.unknown(value)
            if kind != 0 and not self.of.disturbed.since(begin, "stores"):
                self.ledger.breaks(SUCCEEDS, "settings set: " + errors)
        self.look_at(key)

    def look_at(self, key):
        begin = time.monotonic()
        process = self.orvctl("settings", "get", key)
        value, errors = process.communicate(timeout=world.DEADLINE)
        if process.returncode in (0, 1):
            self.keys[key].read(value[:-1] if process.returncode == 0 else None)
        elif not self.of.disturbed.since(begin, "stores"):
            self.ledger.breaks(SUCCEEDS, "settings get: " + errors)

    def orvctl(self, *arguments):
        return subprocess.Popen([world.program("orvctl"), *arguments], env=self.of.home.environment(),
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def forget(self):
        """Those who have gone, which everybody has been told."""
        self.guests = {did: True for did, is_there in self.guests.items() if is_there}

    def check(self):
        for did in self.NAMED:
            self.look(did)
        for key in self.keys:
            self.look_at(key)


class Publisher(Worker):
    """A participant of the exchange that emits numbered events."""

    PAUSE = 0.03

    def __init__(self, run):
        super().__init__(run)
        self._participant = None
        self._is_killed = threading.Event()
        self.number = 0  # of the last one that was tried
        self.emitted = 0  # and of the last one that the bus has surely been given

    def step(self):
        if self._is_killed.is_set():
            self.kill_now()
            self._is_killed.clear()
        try:
            if self._participant is None:
                self._participant = world.Participant(self.of.home, "soak")
                self._participant.data_path = self.of.path("data")  # where the disk is never full
            self.number += 1
            self._participant.emit(SCAN_EVENT, '{"number": %d}' % self.number)
            if self.number % 10 == 0:
                self._participant.emit("guster_user_agent", json.dumps({
                    "src_ip": "10.0.0.2", "src_mac": "02:bb:00:00:00:%02x" % self.chance.randrange(8),
                    "user_agent": "Player/%d" % self.chance.randrange(8)}))
            self._participant.sync()
            self.emitted = self.number
            self.ledger.count("events emitted")
        except (AssertionError, OSError):
            self.kill_now()
            if not self.of.disturbed.since(time.monotonic() - 1, "exchange"):
                self.ledger.breaks("the run itself", "an event could not be emitted")
            time.sleep(0.05)

    def kill(self):
        """The next step is that of a new one."""
        self._is_killed.set()

    def kill_now(self):
        if self._participant is not None:
            self._participant.kill()
            self._participant = None


class Subscriptions(Worker):
    """Standing subscribers. Those of the scanner's events are three: of theirs all have to be told to each, whoever else
    comes and goes. Of the devices' events there is one each, since the end of one ends them for the others."""

    PAUSE = 0
    EVENTS = (SCAN_EVENT, SCAN_EVENT, SCAN_EVENT, "device_discovery", "devices_list_updated")
    DEVICES_RULE = "the last change of a device is told"

    def __init__(self, run):
        super().__init__(run)
        self._clients = {}  # place in EVENTS: the connection
        self.sequences = {}  # place: what it was told
        self._named_before = {}  # what is no more told of each, since it was before the subscription
        self.told_names = {}
        self._guests_before = set()
        self.told_guests = {}

    def step(self):
        self.read(0.02)
        if len(self._clients) < len(self.EVENTS):
            self.subscribe()

    def let_go(self):
        """Standing subscriptions stay; somebody goes on to read them."""

    def is_complete(self):
        return len(self._clients) == len(self.EVENTS)

    def subscribe(self):
        for place, event in enumerate(self.EVENTS):
            if place not in self._clients:
                before, guests = dict(self.of.store.tried), set(self.of.store.guests)
                try:
                    client = world.Client(AT_ONCE)
                    client.subscribe(event)
                except (OSError, EOFError):
                    return
                self._clients[place] = client
                if event == SCAN_EVENT:
                    self.sequences[place] = Sequence(self.ledger, "subscriber %d" % place)
                elif event == "device_discovery":
                    self._named_before, self.told_names = before, {}
                else:
                    self._guests_before, self.told_guests = guests, {}

    def read(self, seconds):
        """What comes within that time."""
        by_socket = {client.socket: place for place, client in self._clients.items()}
        for ready in select.select(list(by_socket), [], [], seconds)[0]:
            place = by_socket[ready]
            begin = time.monotonic()
            try:
                text = self._clients[place].frame()
            except (OSError, EOFError) as reason:
                if not self.of.disturbed.since(begin, "daemon"):
                    self.ledger.breaks(ANSWERED_ONCE, "a subscriber's connection ended: %s" % reason)
                self._clients.pop(place).close()
                continue
            self.take(place, text)

    def take(self, place, text):
        event = self.EVENTS[place]
        if event == SCAN_EVENT:
            number = json.loads(text).get("number")
            if number is not None:  # the simulated scanner has events of its own
                self.sequences[place].told(number)
        elif event == "device_discovery":
            self.take_change(json.loads(text))
        else:
            for entry in json.loads(text):
                self.take_entry(entry["device_id"], entry["status"])

    def take_change(self, change):
        self.ledger.count("events told")
        if change["mac"].startswith("02:aa:") and "display_name" in change:
            did = Store.NAMED[int(change["mac"][-2:], 16)]
            number = int(change["display_name"].split()[1])
            if number <= self.told_names.get(did, 0):
                self.ledger.breaks(Sequence.RULE, "%s: name %d after %d" % (did, number, self.told_names[did]))
            self.told_names[did] = number

    def take_entry(self, did, status):
        self.ledger.count("events told")
        if not did.startswith("guest-"):
            return
        allowed = {None: ("new", "removed"), "new": ("removed",), "removed": ()}[self.told_guests.get(did)]
        if status not in allowed:
            self.ledger.breaks(Sequence.RULE, "%s is %s after %s" % (did, status, self.told_guests.get(did)))
        self.told_guests[did] = status

    def may_miss(self):
        for sequence in self.sequences.values():
            sequence.may_miss()

    def not_told(self, last_number):
        """What is still to come, while nothing changes any more."""
        missing = ["event %d to subscriber %d" % (last_number, place) for place, sequence in self.sequences.items()
                   if not sequence.settled(last_number)]
        for did, register in self.of.store.registers.items():
            number = self.of.store.tried[did]
            if register.values == ["name %d" % number] and number not in (self._named_before.get(did, 0), self.told_names.get(did)):
                missing.append("name %d of %s" % (number, did))
        for did, is_there in self.of.store.guests.items():
            if did not in self._guests_before and is_there is not None:
                if self.told_guests.get(did) != ("new" if is_there else "removed"):
                    missing.append("%s is %s" % (did, "there" if is_there else "gone"))
        return missing

    def close(self):
        for client in self._clients.values():
            client.close()
        self._clients.clear()


class Churn(Worker):
    """Clients that come and go, as they should and as they should not."""

    PAUSE = 0.02

    def __init__(self, run):
        super().__init__(run)
        self._clients = []

    def let_go(self):
        for client in self._clients:
            client.close()
        self._clients.clear()

    def step(self):
        self.ledger.count("clients that came and went")
        try:
            getattr(self, self.chance.choice(("say_nothing", "say_half", "say_nonsense", "say_much", "subscribe", "ask_and_leave",
                                              "read_nothing")))()
        except (OSError, EOFError):
            time.sleep(0.02)  # the daemon is away, or has closed
        while len(self._clients) > 20 or (self._clients and self.chance.random() < 0.3):
            self._clients.pop(self.chance.randrange(len(self._clients))).close()

    def client(self):
        client = world.Client(AT_ONCE)
        self._clients.append(client)
        return client

    def say_nothing(self):
        self.client()

    def say_half(self):
        self.client().send('{"type": "command", "name": "get_')

    def say_nonsense(self):
        self.client().send(self.chance.choice(('nonsense\n', '{}\n', '{"type": 5}\n', '[1, 2]\n', '{"type": "subscribe"}\n',
                                               '\0\n', '{"type": "command", "name": "no such thing"}\n')))

    def say_much(self):
        self.client().send('{"type": "command", "name": "%s"}\n' % ("n" * self.chance.randrange(1 << 18)))

    def subscribe(self):
        """Of these events the others go on to be told."""
        self.client().subscribe(self.chance.choice((SCAN_EVENT, "orvagent_started", "no_such_event")))

    def ask_and_leave(self):
        self.client().send('{"type": "command", "name": "%s"}\n' % self.chance.choice((
            "get_devices", "va_status", "get_diagnosis_report", "get_status_report", "va_start", "list_all_features")))

    def read_nothing(self):
        client = self.client()
        for _ in range(20):
            client.send('{"type": "command", "name": "get_devices"}\n')
            time.sleep(0.001)
