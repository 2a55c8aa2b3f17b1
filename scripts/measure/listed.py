"""What is known and has a reason: lists in the tree that go by the text of a line, not by its number.

A list is made of entries with an empty line between; lines that begin with "#" are for the reader. An entry names a
source, then lines of it, then gives the reason, indented:

    platform/orvstore/lock.cpp
    - the line, or the statement in one line
    + what becomes of it                        (in a list of changes only)
        The reason.
"""

import os


class Wrong(Exception):
    """A list that cannot be read; says where and why."""


class Entry:
    def __init__(self, path, where):
        self.path = path
        self.where = where
        self.lines = []  # of the source, each with its mark
        self.before = []
        self.after = []
        self.reason = []


def read(path):
    entries = []
    entry = None
    if not os.path.exists(path):
        return entries
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            line = line.rstrip()
            where = "%s:%d" % (os.path.basename(path), number)
            if line.startswith("#"):
                continue
            if not line:
                entry = None
            elif entry is None:
                entry = Entry(line, where)
                entries.append(entry)
            elif line.startswith(("- ", "+ ", "= ")):
                text = " ".join(line[2:].split())
                entry.lines.append((line[0], text))
                {"-": entry.before, "+": entry.after, "=": []}[line[0]].append(text)
            elif line[0] == " ":
                entry.reason.append(line.strip())
            else:
                raise Wrong("%s: neither a line of the source nor a reason" % where)
    for entry in entries:
        if not entry.before or not entry.reason:
            raise Wrong("%s: an entry has a line of the source and a reason" % entry.where)
    return entries


class Changes:
    """Changes of the code that nobody can see."""

    def __init__(self, path):
        self.entries = read(path)
        self.known = {(entry.path, " ".join(entry.before), " ".join(entry.after)) for entry in self.entries}

    def has(self, path, before, after):
        return (path, before, after) in self.known

    def stale(self, texts):
        """Entries of these sources whose line is gone."""
        plain = {path: " ".join(text.split()) for path, text in texts.items()}
        return ["%s: %s" % (entry.where, entry.before[0]) for entry in self.entries
                if " ".join(entry.before) not in plain.get(entry.path, "")]


class Lines:
    """Lines that no test runs. An entry may begin with lines that are run, marked with "=", to tell one place from
    others that look alike."""

    def __init__(self, path):
        self.entries = read(path)

    def places(self, entry, text):
        """The numbers of the lines that an entry means, for each place that looks like it."""
        plain = [(number, " ".join(line.split())) for number, line in enumerate(text, 1) if line.strip()]
        wanted = entry.lines
        for start in range(len(plain) - len(wanted) + 1):
            if all(plain[start + at][1] == line for at, (_, line) in enumerate(wanted)):
                yield [plain[start + at][0] for at, (mark, _) in enumerate(wanted) if mark == "-"]

    def unlisted(self, path, text, counts):
        known = set()
        for entry in self.entries:
            if entry.path == path:
                for numbers in self.places(entry, text):
                    known.update(numbers)
        return [number for number, count in sorted(counts.items()) if not count and number not in known]

    def problems(self, sources):
        """Of the list itself: lines that are gone, or are run."""
        found = []
        for entry in self.entries:
            text, counts = sources.get(entry.path, ([], {}))
            places = list(self.places(entry, text))
            if not places:
                found.append("%s: the source has no such lines any more: %s" % (entry.where, entry.before[0]))
            for numbers in places:
                run = [number for number in numbers if counts.get(number)]
                if run:
                    found.append("%s: a test runs line %d: %s" % (entry.where, run[0], text[run[0] - 1].strip()))
        return found
