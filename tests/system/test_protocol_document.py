"""The client protocol's document tells the truth: its examples run as they stand there, in their order.

Every chapter of the document gets a world of its own: a bus, a simulated agent, a daemon. The forms of the examples
are explained in the document itself, under "Reading the examples".
"""

import contextlib
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

import world
from test_agentsim import Agent
from world import Client

DOCUMENT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs", "protocol.md")
AGENT_OPTIONS = ("--devices", "3", "--churn", "0", "--delay", "10", "--seed", "1")

PLACEHOLDERS = {"number": r"-?[0-9]+(?:\.[0-9]+)?", "text": r'[^"\\]*', "json": r".+?"}
CLOSE, CLOSED, NOTHING = "(close)", "(closed)", "(nothing)"

_STEP = re.compile(r"^(?P<connection>[A-Z]?)(?P<direction>[<>$]) ?(?P<text>.*)$")
_BYTES = re.compile(r"^(?P<direction>[<> ]) (?P<hex>[0-9a-f]{2}(?: [0-9a-f]{2})*)(?:   .*)?$")


class Block:
    """A fenced block: its language, its lines, where it stands."""

    def __init__(self, language, line):
        self.language, self.line, self.lines = language, line, []

    def error(self, text):
        return AssertionError("protocol.md, block at line %d: %s" % (self.line, text))


class Section:
    """A heading of the third level with the blocks below it, up to the next heading."""

    def __init__(self, title):
        self.title, self.blocks = title, []


class Chapter(Section):
    """A heading of the second level; what stands before its first section is its own."""

    def __init__(self, title):
        super().__init__(title)
        self.sections = []

    def all_blocks(self):
        return self.blocks + [block for section in self.sections for block in section.blocks]


def read_document():
    """The document's chapters."""
    chapters, place, block = [], Section(""), None
    with open(DOCUMENT, encoding="utf-8") as document:
        for number, line in enumerate(document.read().splitlines(), 1):
            if line.startswith("```"):
                if block is None:
                    block = Block(line[3:], number)
                    place.blocks.append(block)
                else:
                    block = None
            elif block is not None:
                block.lines.append(line)
            elif line.startswith("## "):
                place = Chapter(line[3:])
                chapters.append(place)
            elif line.startswith("### "):
                place = Section(line[4:].strip("`"))
                chapters[-1].sections.append(place)
    return chapters


def read_steps(block):
    """An example's lines as [connection, direction, text], continuations joined."""
    steps = []
    for line in block.lines:
        step = _STEP.match(line)
        if step:
            steps.append([step["connection"], step["direction"], step["text"]])
        elif line.startswith("  ") and steps:
            steps[-1][2] += " " + line.strip()
        else:
            raise block.error("not a line of an example: " + line)
    return steps


def pattern(text):
    """What a text with placeholders stands for, as a regular expression."""
    pieces = re.split(r"\{\{([a-z]+)\}\}", text)
    return "".join(PLACEHOLDERS[piece] if number % 2 else re.escape(piece) for number, piece in enumerate(pieces))


def settle():
    """Has the daemon do all that was given to it so far: it serves in the order of arrival."""
    for _ in range(3):
        with Client() as client:
            client.call("no_such_command")


class Conversation:
    """Runs one example. What follows each other in one direction on one connection is sent at once."""

    def __init__(self, served, block):
        self.served, self.block = served, block
        self.clients, self.unsent = {}, {}

    def run(self):
        try:
            for connection, direction, text in read_steps(self.block):
                if direction == ">" and text != CLOSE:
                    self.unsent[connection] = self.unsent.get(connection, "") + text + "\n"
                    continue
                self.flush()
                if direction == "$":
                    self.execute(text)
                elif text == CLOSE:
                    self.clients.pop(connection).close()
                    settle()
                else:
                    self.expect(connection, text)
            self.flush()
            self.expect_silence(self.clients)
        finally:
            for client in self.clients.values():
                client.close()

    def flush(self):
        for connection, text in self.unsent.items():
            if connection not in self.clients:
                self.clients[connection] = Client()
            self.clients[connection].send(text)
        self.unsent.clear()

    def execute(self, command):
        path = world.BIN + os.pathsep + os.environ["PATH"]
        result = subprocess.run(["sh", "-c", command], env=self.served.environment(PATH=path), text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                timeout=world.DEADLINE, check=False)
        if result.returncode != 0:
            raise self.block.error("%s: exit status %d: %s" % (command, result.returncode, result.stdout))

    def expect(self, connection, text):
        if text == NOTHING:
            self.expect_silence([connection])
        elif text == CLOSED:
            self.clients[connection].expect_close()
            self.clients.pop(connection).close()
        else:
            try:
                frame = self.clients[connection].frame()
            except (EOFError, OSError) as error:
                raise self.block.error("%s\n  instead of: %s" % (error, text)) from error
            if not re.fullmatch(pattern(text), frame):
                raise self.block.error("received: %s\n  instead of: %s" % (frame, text))

    def expect_silence(self, connections):
        settle()
        for connection in connections:
            if self.clients[connection].has_input():
                raise self.block.error("there is more to receive on connection '%s'" % connection)


def run_bytes(block):
    """Runs a transcript of bytes. The document shows length words as a little-endian machine sends them."""
    steps = []
    for line in block.lines:
        step = _BYTES.match(line)
        if not step:
            raise block.error("not a line of a transcript: " + line)
        if step["direction"] != " ":
            steps.append([step["direction"], b""])
        steps[-1][1] += bytes.fromhex(step["hex"])
    with Client() as client, client.socket.makefile("rb") as stream:
        for direction, data in steps:
            if direction == ">":
                client.send(data)
                continue
            expected = int.from_bytes(data[:4], "little").to_bytes(4, sys.byteorder) + data[4:]
            received = stream.read(len(expected))
            if received != expected:
                raise block.error("received: %s" % received.hex(" "))


class Document(world.TestCase):
    @contextlib.contextmanager
    def running_world(self):
        served = self.world()
        served.start_bus()
        served.set_setting("/daemons/orvbrokerd/cache_process_interval", "1")
        with Agent(served, *AGENT_OPTIONS):
            served.start_daemon()
            yield served
            served.stop_daemon()

    def run_blocks(self, served, blocks):
        for block in blocks:
            with self.subTest(line=block.line):
                if block.language == "bytes":
                    run_bytes(block)
                else:
                    Conversation(served, block).run()

    def test_every_example_runs_as_written(self):
        for chapter in read_document():
            blocks = [block for block in chapter.all_blocks() if block.language in ("example", "bytes")]
            if blocks:
                with self.running_world() as served:
                    self.run_blocks(served, blocks)

    def test_the_c_program_connects_calls_and_prints_the_answer(self):
        (block,) = [block for chapter in read_document() for block in chapter.all_blocks() if block.language == "c"]
        with self.running_world(), tempfile.TemporaryDirectory(prefix="orv-system-") as folder:
            source, built = os.path.join(folder, "client.c"), os.path.join(folder, "client")
            with open(source, "w", encoding="utf-8") as file:
                file.write("\n".join(block.lines) + "\n")
            subprocess.run([os.environ.get("CC", "cc"), "-std=c11", "-Wall", "-Wextra", "-Werror", "-o", built, source],
                           check=True, timeout=world.DEADLINE * 2)
            output = subprocess.run([built], stdout=subprocess.PIPE, check=True, timeout=world.DEADLINE, text=True)
            self.assertEqual(output.stdout, '{"data": {"status": 1}, "status": 0}\n')


class Completeness(unittest.TestCase):
    """Each command and event has its section, whose examples use it; nothing else has one."""

    def listed(self, what):
        result = subprocess.run([world.program("orvctl"), what, "--json"], stdout=subprocess.PIPE, check=True,
                                timeout=world.DEADLINE, text=True)
        return [json.loads(line)["name"] for line in result.stdout.splitlines()]

    def documented(self, kind, chapters):
        """The names that have a section, checked to be used in it."""
        names = []
        for section in (section for chapter in chapters for section in chapter.sections):
            request = '"type": "%s", "name": "%s"' % (kind, section.title)
            examples = [line for block in section.blocks if block.language == "example" for line in block.lines]
            self.assertTrue(any(request in line for line in examples), "no example in section " + section.title)
            names.append(section.title)
        return names

    def chapters(self, *titles):
        found = [chapter for chapter in read_document() if chapter.title.split(":")[0] in titles]
        self.assertTrue(found)
        return found

    def test_every_command_has_its_section(self):
        self.assertEqual(sorted(self.documented("command", self.chapters("Commands"))), sorted(self.listed("commands")))

    def test_every_event_has_its_section(self):
        self.assertEqual(sorted(self.documented("subscribe", self.chapters("Events"))), sorted(self.listed("events")))


if __name__ == "__main__":
    world.main()
