"""The ledger of a long run: what was confirmed, what was told, what was disturbed when, and which rule was broken."""

import collections
import contextlib
import json
import threading
import time


class Ledger:
    """A file with a line for all that happens, counts of it, and the rules that were broken."""

    def __init__(self, path):
        self.path = path
        self.counts = collections.Counter()
        self.broken = []  # (seconds since the beginning, rule, what)
        self.longest = collections.Counter()  # seconds from a request to its answer, by kind
        self._begin = time.monotonic()
        self._lock = threading.Lock()
        self._file = open(path, "w", encoding="utf-8", buffering=1 << 16)  # pylint: disable=consider-using-with

    def seconds(self):
        return time.monotonic() - self._begin

    def note(self, what, **more):
        """A line, and one more of these."""
        with self._lock:
            self.counts[what] += 1
            self._file.write(json.dumps({"at": round(self.seconds(), 3), "what": what, **more}) + "\n")

    def count(self, what):
        with self._lock:
            self.counts[what] += 1

    def took(self, kind, seconds):
        with self._lock:
            self.longest[kind] = max(self.longest[kind], seconds)

    def breaks(self, rule, what):
        """A rule does not hold."""
        with self._lock:
            self.broken.append((self.seconds(), rule, what))
            self._file.write(json.dumps({"at": round(self.seconds(), 3), "what": "BROKEN", "rule": rule, "how": what}) + "\n")

    def close(self):
        with self._lock:
            self._file.close()


class Disturbances:
    """What is disturbed now, and until when it was: whoever fails meanwhile has a reason."""

    SETTLING = 1.5  # seconds in which it may still be felt afterwards

    def __init__(self, ledger):
        self._ledger = ledger
        self._open = collections.Counter()
        self._end = {}
        self._lock = threading.Lock()

    @contextlib.contextmanager
    def of(self, kind, name):
        """Disturbs "daemon", "exchange" or "stores"."""
        self._ledger.note("disturbance", kind=kind, name=name)
        with self._lock:
            self._open[kind] += 1
        try:
            yield
        finally:
            with self._lock:
                self._open[kind] -= 1
                self._end[kind] = time.monotonic()
            self._ledger.note("end of disturbance", kind=kind, name=name)

    def since(self, begin, *kinds):
        """Whether one of these was, at some time from then on."""
        with self._lock:
            return any(self._open[kind] or self._end.get(kind, float("-inf")) + self.SETTLING >= begin for kind in kinds)


class Register:
    """One thing that is written and read: what it may be now. More than one value while nobody knows what has become of
    a write. What another process carries out may still come after a reading, until the next write is confirmed."""

    RULE = "what was confirmed is there"

    def __init__(self, ledger, name, *values, late=False):
        self._ledger = ledger
        self._late = late
        self.name = name
        self.values = list(values)

    def writes(self, value):
        """Before the request is sent."""
        self.values = [other for other in self.values if other != value] + [value]

    def confirmed(self, value):
        self.values = [value]
        self._ledger.note("confirmed", name=self.name, value=value)

    def unknown(self, value):
        """It was refused, or nobody has told: done or not."""
        self._ledger.note("unconfirmed", name=self.name, value=value)

    def read(self, value):
        self._ledger.count("values read")
        if value not in self.values:
            self._ledger.breaks(self.RULE, "%s is %r, not %s" % (self.name, value, " or ".join(map(repr, self.values))))
            self.values = [value]
        elif not self._late:
            self.values = [value]


class Sequence:
    """What one subscriber is told of a numbered sequence: each once, in their order, none left out, but where the exchange
    itself was away in between."""

    RULE = "no event is missed, told twice or in another order"

    def __init__(self, ledger, name):
        self._ledger = ledger
        self._name = name
        self._may_miss = False
        self.last = None

    def may_miss(self):
        """From now on, until settled(), some may be left out."""
        self._may_miss = True

    def settled(self, last):
        """All up to this one have to be there; False while they are not."""
        if self.last is None or self.last < last:
            return False
        self._may_miss = False
        return True

    def told(self, number):
        self._ledger.count("events told")
        if self.last is not None and (number <= self.last or (number > self.last + 1 and not self._may_miss)):
            self._ledger.breaks(self.RULE, "%s: %d after %d" % (self._name, number, self.last))
        self.last = number
