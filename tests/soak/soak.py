"""Keeps real processes busy for long, disturbs them, and has all that they promise written down: the rules that hold are
those of RULES. Run by scripts/soak."""

import argparse
import contextlib
import os
import random
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import traceback

sys.path[:0] = [os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system")]
import neighbours  # noqa: E402  pylint: disable=wrong-import-position
import world  # noqa: E402  pylint: disable=wrong-import-position
from ledger import Disturbances, Ledger, Register, Sequence  # noqa: E402  pylint: disable=wrong-import-position
import load  # noqa: E402  pylint: disable=wrong-import-position

FLAT = "memory is flat"
CLOSED = "descriptors are given back"
ENDS = "what is told to stop ends in order"
RULES = (Register.RULE, Sequence.RULE, load.ANSWERED_ONCE, load.SUCCEEDS, FLAT, CLOSED, ENDS)
TOLERANCE = 0.02  # by which memory may differ
NOISE = 12  # KiB: three pages more or less are no leak, however small the whole
# Under this load the heap takes minutes to take its shape, between whose pieces is as much as in them. So the first fifth of
# the long life, at most so many seconds, is left out, and in a run of less than SHORT, and in the short lives after a start,
# the heap may use so many KiB more.
SHAPING = 300
SHORT = 1500
SHAPING_KIB = 384
SETTLED = 30  # seconds within which all has to be told once nothing is disturbed any more
GIVEN_BACK = 10  # seconds within which the descriptors of those who left are
# What is freed in small pieces, glibc keeps for the next ones and never gives back: of a daemon that needs no more than before
# it has ever more pages in use. That is not what is looked for here.
ALLOCATOR = {"GLIBC_TUNABLES": "glibc.malloc.tcache_count=0:glibc.malloc.mxfast=0"}
LONG_LIFE = 0.6  # of the time the daemon is not started again
DISK = "48m"


class Simulator:
    """The other daemons of the agent, in a home that does not change by itself: ever new devices would have the daemon
    remember ever more user agents, up to its bound."""

    def __init__(self, run):
        self._run = run
        self.process = None

    def start(self):
        with open(self._run.path("agentsim.log"), "ab") as log:
            self.process = subprocess.Popen(
                [world.program("orvagentsim"), "--churn", "0", "--delay", "20", "--seed", str(self._run.seed)],
                env=self._run.home.environment(ORV_LOG_LEVEL="0"), stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def kill(self):
        self.process.kill()
        self.process.wait(world.DEADLINE)

    def ensure(self):
        """It ends with the bus."""
        if self.process.poll() is not None:
            self.start()

    def status(self):
        return world.status_of_end(self.process) if self.process.poll() is None else 0


class Samples:
    """The daemon's memory and descriptors whenever all was at rest."""

    def __init__(self, ledger, average=statistics.mean):
        self._ledger = ledger
        self._average = average
        self.private = []
        self.pss = []
        self.descriptors = []

    def take(self, home):
        """The least of some looks: what it is surely not about to give back."""
        pid = home.daemon.pid
        looks = []
        for _ in range(3):
            tidy_up()
            home.descriptors()  # it has seen who asked leave
            with open("/proc/%d/smaps_rollup" % pid, encoding="ascii") as rollup:
                fields = dict(re.findall(r"^(\w+): +(\d+) kB$", rollup.read(), re.MULTILINE))
            looks.append((int(fields["Anonymous"]), int(fields["Pss"])))  # others are the pages of files
        private, pss = min(looks)
        self.private.append(private)
        self.pss.append(pss)
        self.descriptors.append(home.descriptors())
        self._ledger.note("sample", pid=pid, private=self.private[-1], pss=self.pss[-1], descriptors=self.descriptors[-1])

    def fifths(self, values):
        """The averages of the second and of the last fifth."""
        size = max(1, len(values) // 5)
        second, last = values[size:2 * size] if len(values) > 2 else values[:1], values[-size:]
        return self._average(second), self._average(last)

    def check(self, name, values, noise):
        second, last = self.fifths(values)
        if last - second > max(noise, TOLERANCE * second):
            self._ledger.breaks(FLAT if noise else CLOSED, "%s: %.1f in the second fifth, %.1f in the last" % (name, second, last))


class Run:
    """A world, those who use it, and who disturbs it."""

    def __init__(self, seconds, seed, directory):
        self.seconds = seconds
        self.seed = seed
        self.directory = directory
        self.chance = random.Random(seed)
        self.ledger = Ledger(self.path("ledger"))
        self.disturbed = Disturbances(self.ledger)
        self.gate = load.Gate()
        self.is_over = threading.Event()
        self.lives = 1
        root = self.path("root")
        os.mkdir(root, 0o700)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=700,size=" + DISK, "tmpfs", root], check=True)
        self.home = world.World(root)
        self.home.log_path = self.path("daemon.log")
        self.home.log_level = "1"
        self.simulator = Simulator(self)
        self.settings, self.devices, self.store = load.Settings(self), load.Devices(self), load.Store(self)
        self.publisher, self.subscriptions, self.churn = load.Publisher(self), load.Subscriptions(self), load.Churn(self)
        self.workers = (self.settings, self.devices, self.store, self.publisher, self.subscriptions, self.churn)
        self.shaping, self.long_life = Samples(self.ledger), Samples(self.ledger)
        # Each of these is another heap: one that has taken an odd shape says nothing of the others.
        self.after_starts = Samples(self.ledger, statistics.median)

    def path(self, name):
        return os.path.join(self.directory, name)

    # -- beginning and end

    def prepare(self):
        self.home.start_bus()
        for key, value in (("/registration/device_id", load.ROUTER), ("/daemons/orvbrokerd/cache_process_interval", "1")):
            self.home.set_setting(key, value)
        self.home.start_daemon(**ALLOCATOR)
        self.simulator.start()
        for did in self.devices.ids:
            self.store.put(did)
        self.store.prepare()
        self.settings.prepare()
        self.subscriptions.subscribe()
        for worker in self.workers:
            worker.start()

    def close(self):
        self.is_over.set()
        for worker in self.workers:
            if worker.is_alive():
                worker.join(load.LATER)
        with contextlib.suppress(AssertionError, OSError):
            self.store.close()
        self.publisher.kill_now()
        self.subscriptions.close()
        self.churn.let_go()
        if self.simulator.process is not None:
            status = self.simulator.status()
            if status != 0:
                self.ledger.breaks(ENDS, "the simulated agent ended with %s" % status)
        try:
            self.home.end()
        except AssertionError as problem:
            self.ledger.breaks(ENDS, str(problem))
        shutil.copy(self.path("root/bus.log"), self.path("bus.log"))
        subprocess.run(["umount", "-l", self.path("root")], check=True)
        self.ledger.close()

    # -- disturbances

    def some_time(self, longest):
        time.sleep(self.chance.random() * longest)

    def bus_killed(self):
        with self.disturbed.of("exchange", "the bus is killed"):
            self.home.kill_bus()
            self.subscriptions.may_miss()
            self.some_time(1)
            self.home.start_bus()
            self.simulator.ensure()
            self.back_on_the_exchange()

    def back_on_the_exchange(self):
        """All subscribers are told what is emitted now, and the agent answers."""
        def is_back():
            answer = ask("va_status")
            return answer is not None and answer[1] == 0

        self.simulator.ensure()
        world.wait_until(lambda: self.simulator.ensure() or is_back(), "the daemon is back on the exchange", SETTLED)

    def bus_stopped(self):
        with self.disturbed.of("exchange", "the bus is stopped"), neighbours.stopped(self.home.bus):
            self.some_time(1.5)

    def agent_killed(self):
        with self.disturbed.of("exchange", "the agent is killed"), self.disturbed.of("stores", "the agent is killed"):
            self.simulator.kill()
            self.some_time(0.5)
            self.simulator.start()
            self.back_on_the_exchange()

    def agent_stopped(self):
        with self.disturbed.of("exchange", "the agent is stopped"), self.disturbed.of("stores", "the agent is stopped"), \
                neighbours.stopped(self.simulator.process):
            self.some_time(1.5)

    def publisher_killed(self):
        self.ledger.note("disturbance", kind="exchange", name="the publisher is killed")
        self.publisher.kill()

    def writer_stopped(self):
        """In the middle of its writing; then it is killed."""
        store, order = self.chance.choice((("var/settings", "storm /storm"), ("tmp/settings", "storm /tmp/storm"),
                                           ("var/devices", "churn storm")))
        with self.disturbed.of("stores", "a writer of %s is stopped, then killed" % store), \
                neighbours.stopped_while_writing(self.home, store, order):
            self.some_time(1.5)

    def disk_full(self):
        with self.disturbed.of("stores", "the disk is full"):
            filler = self.path("root/filler")
            with open(filler, "wb", buffering=0) as file:
                with contextlib.suppress(OSError):
                    while True:
                        file.write(b"x" * 65536)
                with contextlib.suppress(OSError):
                    while True:
                        file.write(b"x" * 512)
            self.some_time(1.5)
            os.unlink(filler)

    def daemon_again(self):
        """Stopped in the orderly way, or killed."""
        is_killed = self.chance.random() < 0.6
        with self.disturbed.of("daemon", "the daemon is killed" if is_killed else "the daemon is told to stop"):
            if is_killed:
                self.home.kill_daemon()
            else:
                try:
                    self.home.stop_daemon()
                except AssertionError as problem:
                    self.ledger.breaks(ENDS, str(problem))
            self.some_time(0.3)
            self.home.start_daemon(**ALLOCATOR)
            self.lives += 1

    # -- rests

    def rest(self, samples):
        """Comes to rest, has all that was confirmed read again, waits for all that is to be told, and looks at the daemon."""
        with self.gate.closed():
            self.simulator.ensure()
            self.back_on_the_exchange()
            self.wait_for_subscriptions()
            for worker in (self.settings, self.devices, self.store):
                worker.check()
            self.wait_for_events()
            self.wait_for_descriptors()
            samples.take(self.home)
            self.store.forget()
        self.ledger.note("rest")

    def wait_for_subscriptions(self):
        end = time.monotonic() + SETTLED
        while not self.subscriptions.is_complete():
            self.subscriptions.read(0)
            self.subscriptions.subscribe()
            if time.monotonic() > end:
                self.ledger.breaks(load.ANSWERED_ONCE, "nobody can subscribe")
                return

    def wait_for_events(self):
        """All up to now are told; another one shows it where the last may have gone with the bus."""
        end = time.monotonic() + SETTLED
        self.publisher.step()
        last = self.publisher.emitted
        next_one = time.monotonic() + 0.5
        while True:
            self.subscriptions.read(0.05)
            missing = self.subscriptions.not_told(last)
            if not missing:
                return
            if time.monotonic() > end:
                self.ledger.breaks(Sequence.RULE, "not within %d s: %s" % (SETTLED, ", ".join(missing[:5])))
                return
            if time.monotonic() > next_one:
                self.publisher.step()
                next_one += 0.5

    def wait_for_descriptors(self):
        """Those of the standing subscribers, and what it had at first."""
        expected = self.descriptors_at_rest()
        end = time.monotonic() + GIVEN_BACK
        while self.home.descriptors() != expected:
            if time.monotonic() > end:
                self.ledger.breaks(CLOSED, "%d, not %d at rest" % (self.home.descriptors(), expected))
                return
            time.sleep(0.05)

    def descriptors_at_rest(self):
        at_first = self.shaping.descriptors + self.long_life.descriptors
        return at_first[0] if at_first else self.home.descriptors()

    # -- the whole

    def samples_at(self, seconds, is_long_life):
        if not is_long_life:
            return self.after_starts
        return self.shaping if seconds < min(SHAPING, self.seconds * LONG_LIFE / 5) else self.long_life

    def go(self, progress):
        disturb = [self.bus_killed, self.bus_stopped, self.agent_killed, self.agent_stopped, self.publisher_killed,
                   self.writer_stopped, self.writer_stopped, self.disk_full]
        between_rests = min(15.0, max(1.0, self.seconds / 30))
        begin = time.monotonic()
        while time.monotonic() - begin < self.seconds and not self.ledger.broken:
            is_long_life = time.monotonic() - begin < self.seconds * LONG_LIFE
            if not is_long_life:
                self.daemon_again()
            end = time.monotonic() + between_rests * (1 if is_long_life else 0.7)
            while time.monotonic() < end:
                self.some_time(1)
                self.chance.choice(disturb)()
            self.rest(self.samples_at(time.monotonic() - begin, is_long_life))
            progress(time.monotonic() - begin)
        if not self.ledger.broken:
            noise = NOISE if self.seconds >= SHORT else SHAPING_KIB
            self.long_life.check("KiB of private memory in one life", self.long_life.private, noise)
            self.after_starts.check("KiB of private memory after starts", self.after_starts.private, SHAPING_KIB)
            for samples in (self.long_life, self.after_starts):
                samples.check("descriptors", samples.descriptors, 0)


def ask(name):
    """A command on a connection of its own; None when that ended."""
    try:
        with world.Client(load.AT_ONCE) as client:
            return client.call(name)
    except (OSError, EOFError, ValueError):
        return None


def tidy_up():
    """Has the daemon give back what it can: it does so with the buffer of a long line."""
    neighbours.ask(neighbours.command("n" * (1 << 20)))


def told(run, seconds):
    counts = run.ledger.counts
    return ("%5.0f s  %7d requests, %6d events, %6d clients came and went, %4d disturbances, %3d starts, %5d KiB, %d broken"
            % (seconds, counts["requests answered"], counts["events told"], counts["clients that came and went"],
               counts["disturbance"], run.lives, (run.shaping.private + run.long_life.private + run.after_starts.private or [0])[-1],
               len(run.ledger.broken)))


def summary(run):
    counts, longest = run.ledger.counts, run.ledger.longest
    rows = [(name, counts[key]) for name, key in (
        ("requests answered", "requests answered"), ("  of them with a failure", "requests refused"),
        ("requests that ended with their connection", "requests ended by the connection"), ("writes confirmed", "confirmed"),
        ("writes of which nobody knows", "unconfirmed"), ("values read and compared", "values read"),
        ("events emitted", "events emitted"), ("events told", "events told"),
        ("clients that came and went", "clients that came and went"), ("disturbances", "disturbance"))]
    rows += [("starts of the daemon", run.lives), ("rests", counts["rest"]),
             ("longest answer at once, s", "%.3f" % longest["answered at once"]),
             ("longest answer later, s", "%.3f" % longest["answered later"])]
    for samples, when in ((run.long_life, "in one life"), (run.after_starts, "after starts")):
        for name, values in (("private memory, KiB", samples.private), ("PSS, KiB", samples.pss), ("descriptors", samples.descriptors)):
            if values:
                second, last = samples.fifths(values)
                change = (last - second) / second * 100
                rows.append(("%s, %s" % (name, when), "%.1f -> %.1f (%+.2f %%, %d samples)" % (second, last, change, len(values))))
    return "\n".join("%-44s %s" % row for row in rows)


def parse_options():
    parser = argparse.ArgumentParser(
        prog="scripts/soak", formatter_class=argparse.RawDescriptionHelpFormatter,
        description="Keeps the daemon, the bus and a simulated agent busy for so many minutes: clients that write, read,\n"
                    "subscribe, come and go; and disturbs them: the bus and the agent are killed and stopped, writers of\n"
                    "the stores stopped and killed in the middle of it, the disk is full, and in the last two fifths of\n"
                    "the time the daemon is told to stop or killed. All is written into a ledger. What has to hold:\n\n"
                    + "\n".join("  * " + rule for rule in RULES),
        epilog="Exit status: 0 all holds, 1 a rule was broken, 2 usage. The first broken rule ends the run; its ledger and\n"
               "logs are kept then, and their place is told. The same seed chooses the same steps, but not their moments.\n"
               "ORV_BIN names the directory of the programs.")
    parser.add_argument("minutes", type=float, metavar="MINUTES", help="fractions are allowed")
    parser.add_argument("--seed", type=int, metavar="N", help="what is chosen by chance depends on it (another one each time)")
    return parser.parse_args()


def main():
    options = parse_options()
    if not options.minutes > 0:
        sys.exit("soak.py: for how many minutes?")
    world.enter_namespaces()
    seed = options.seed if options.seed is not None else int.from_bytes(os.urandom(3), "big")
    print("seed %d" % seed, flush=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    directory = tempfile.mkdtemp(prefix="orv-soak-")
    try:
        run = Run(options.minutes * 60, seed, directory)
    except Exception:
        shutil.rmtree(directory, ignore_errors=True)
        raise
    # What helpers complain about when they are disturbed is nobody's concern.
    with open(os.path.join(directory, "stderr.log"), "ab") as complaints:
        os.dup2(complaints.fileno(), 2)
    try:
        run.prepare()
        run.go(lambda seconds: print(told(run, seconds), flush=True))
    except Exception:  # whatever it is, it is no run that says anything
        run.ledger.breaks("the run itself", traceback.format_exc())
    finally:
        run.close()
        is_good = not run.ledger.broken
        if is_good:
            shutil.rmtree(directory)
    print(summary(run))
    for seconds, rule, what in run.ledger.broken[:20]:
        print("BROKEN after %.1f s: %s: %s" % (seconds, rule, what))
    if not is_good:
        print("the ledger and the logs are in %s; again with: scripts/soak %g --seed %d" % (directory, options.minutes, seed))
    return 0 if is_good else 1


if __name__ == "__main__":
    sys.exit(main())
