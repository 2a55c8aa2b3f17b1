"""A bystander who only wants to be served, and what is watched while one neighbour of the daemon misbehaves.

Used by the tests and by the benchmark bench/bystander.
"""

import contextlib
import mmap
import os
import re
import time
import traceback

import world

REQUEST = '{"type": "command", "name": "get_services_status"}\n'
STATUSES = ('{"data": {"status": 1}, "status": 0}', '{"data": {"status": 0}, "status": 0}')



class Bound:
    """What holds on the machine that the bounds were set for, and in tests, in seconds: machines that test are shared
    and sanitizers slow, so that tests only tell what freezes from what does not."""

    def __init__(self, seconds, slack):
        self.seconds = seconds
        self.in_tests = seconds * slack * world.PATIENCE


AT_ONCE = Bound(0.1, slack=20)
WAITING = Bound(1.0, slack=4)  # a write waits for another process's lock
ONE_LINE = Bound(1.0, slack=20)  # one line keeps the JSON library busy
STOP = Bound(1.0, slack=20)


class Bystander:
    """Asks for get_services_status on one connection, again and again, and notes how long each answer takes.

    It does so in a process of its own, so that whatever else is done in this one is no part of the times. Where
    connections may end it is to reconnect, and the time counts from the request until an answer or the end."""

    _COUNT, _STOP, _FIRST = 0, 1, 2
    _MOST = 1 << 18  # times that are kept

    def __init__(self, pause=0.002, reconnecting=False):
        self._pause = pause
        self._reconnecting = reconnecting
        self._shared = memoryview(mmap.mmap(-1, 8 * (self._FIRST + self._MOST))).cast("d")
        self._failure, told = os.pipe()
        self._pid = os.fork()
        if self._pid == 0:
            self._be_bystander(told)
        os.close(told)

    def _be_bystander(self, told):
        """In the process of its own: never returns."""
        try:
            os.closerange(3, told)  # the ends of others' connections and pipes
            self._ask()
        except BaseException:  # whatever it is, the test has to hear of it
            os.write(told, traceback.format_exc().encode()[-4000:])
        finally:
            os._exit(0)

    def _ask(self):
        client = world.Client()
        while self._shared[self._STOP] == 0:
            start = time.monotonic()
            try:
                client = client or world.Client()
                client.send(REQUEST)
                answer = client.frame()
                if answer not in STATUSES:
                    raise AssertionError("answered " + answer)
            except (ConnectionError, EOFError):
                if not self._reconnecting:
                    raise
                client.close()
                client = None
            if self.count < self._MOST:
                self._shared[self._FIRST + self.count] = time.monotonic() - start
                self._shared[self._COUNT] += 1
            time.sleep(self._pause)
        if client:
            client.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        """Lets it go; the times are there afterwards, and what went wrong."""
        if not self._pid:
            return
        self._shared[self._STOP] = 1
        with open(self._failure, "rb") as failure:
            self._failure = failure.read().decode()  # until it has ended
        os.waitpid(self._pid, 0)
        self._pid = 0

    @property
    def count(self):
        """How many answers so far."""
        return int(self._shared[self._COUNT])

    def wait_for(self, more):
        """Until it has got so many answers more."""
        wanted = self.count + more
        world.wait_until(lambda: self.count >= wanted or self._has_ended(), "the bystander is answered")

    def _has_ended(self):
        return bool(self._pid) and os.waitid(os.P_PID, self._pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None

    @property
    def times(self):
        """Seconds, one for each answer."""
        self.end()
        if self._failure:
            raise AssertionError("the bystander: " + self._failure)
        return list(self._shared[self._FIRST:self._FIRST + self.count])

    @property
    def longest(self):
        """Seconds."""
        return max(self.times)


def percentile(times, share):
    ordered = sorted(times)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


class Neighbour:
    """One who misbehaves. act(home) is a context that lasts as long as it does so, and gives something whose
    `rounds` tell how often it has; it can be entered again. prepare(home) starts the daemon, whose bus is there, for
    it; if something is to be closed in the end, that is what it returns. What the log must hold in the end (a regular
    expression) shows that the daemon has met it. Its rounds are watched until there were so many at least. What takes many
    seconds is for the benchmark alone."""

    def __init__(self, name, act, bound, prepare, reconnecting, logged, rounds, costly):
        self.name = name
        self.act = contextlib.contextmanager(act)
        self.bound = bound
        self.prepare = prepare
        self.reconnecting = reconnecting
        self.logged = logged
        self.rounds = rounds
        self.costly = costly


class Observed:
    """What a bystander has seen."""

    def __init__(self, times, stop):
        self.times = times
        self.stop = stop  # seconds from the stop signal to the daemon's end


def is_as_before(home):
    """Whether the daemon reads and writes."""
    try:
        with world.Client() as client:
            return client.call("enable_services") == (None, 0) and client.call("get_services_status")[1] == 0
    except (ConnectionError, EOFError):
        return False


def observe(home, neighbour, seconds=0.0):
    """Watches the daemon of a world beside a neighbour, for so long at least, afterwards, and when it is to stop while
    the neighbour is there again."""
    home.start_bus()
    with contextlib.closing(neighbour.prepare(home) or contextlib.ExitStack()):
        return _observe(home, neighbour, seconds)


def _observe(home, neighbour, seconds):
    with Bystander(reconnecting=neighbour.reconnecting) as bystander:
        bystander.wait_for(5)
        with neighbour.act(home) as doing:
            end = time.monotonic() + seconds
            bystander.wait_for(5)
            world.wait_until(lambda: doing.rounds >= neighbour.rounds and time.monotonic() >= end, neighbour.name)
            if neighbour.logged:
                world.wait_until(lambda: re.search(neighbour.logged, home.log()), "in the log: " + neighbour.logged)
        bystander.wait_for(5)
    times = bystander.times
    world.wait_until(lambda: is_as_before(home), "all is as before")
    with neighbour.act(home) as doing:
        world.wait_until(lambda: doing.rounds >= 1, neighbour.name)
        start = time.monotonic()
        home.stop_daemon()
        stop = time.monotonic() - start
    return Observed(times, stop)


def add_tests(case, neighbours):
    """A test for each neighbour, in a class of tests with worlds."""
    for one in neighbours:
        if one.costly:
            continue

        def test(self, one=one):
            seen = observe(self.quiet_world(), one)
            self.assertLess(max(seen.times), one.bound.in_tests)
            self.assertLess(seen.stop, STOP.in_tests)
        name = "".join(letter if letter.isalnum() else "_" for letter in one.name)
        setattr(case, "test_a_bystander_beside_" + name, test)
