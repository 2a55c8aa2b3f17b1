"""A long run tells a daemon that is not as good as its word from one that is: stand-ins whose faults are chosen, each of
which breaks its rule, and the run says so, keeps its ledger and ends with status 1."""

import glob
import json
import os
import shlex
import subprocess
import sys
import tempfile
import unittest

sys.path[:0] = [os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system")]
import soak  # noqa: E402  pylint: disable=wrong-import-position
import world  # noqa: E402  pylint: disable=wrong-import-position
from ledger import Disturbances, Ledger, Register, Sequence  # noqa: E402  pylint: disable=wrong-import-position
from load import ANSWERED_ONCE  # noqa: E402  pylint: disable=wrong-import-position

HERE = os.path.dirname(os.path.abspath(__file__))


class WithLedger(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="orv-soak-test-")
        self.addCleanup(directory.cleanup)
        self.ledger = Ledger(os.path.join(directory.name, "ledger"))
        self.addCleanup(self.ledger.close)

    def broken(self):
        return [what for _, _, what in self.ledger.broken]


class Registers(WithLedger):
    def test_what_was_confirmed_has_to_be_there(self):
        register = Register(self.ledger, "x", 1)
        register.writes(2)
        register.confirmed(2)
        register.read(2)
        self.assertEqual(self.broken(), [])
        register.read(1)
        self.assertEqual(self.broken(), ["x is 1, not 2"])

    def test_what_nobody_knows_of_is_known_once_it_was_read(self):
        for stored, other in ((1, 2), (2, 1)):
            register = Register(self.ledger, "x", 1)
            register.writes(2)
            register.unknown(2)
            register.read(stored)
            self.assertEqual(register.values, [stored])
            self.assertEqual(self.broken(), [])
            register.read(other)
            self.assertEqual(self.broken(), ["x is %d, not %d" % (other, stored)])
            self.ledger.broken.clear()

    def test_what_another_process_carries_out_may_come_after_a_reading(self):
        register = Register(self.ledger, "x", 1, late=True)
        register.writes(2)
        register.unknown(2)
        register.read(1)
        register.read(2)
        self.assertEqual(self.broken(), [])
        register.writes(3)
        register.confirmed(3)
        register.read(2)
        self.assertEqual(self.broken(), ["x is 2, not 3"])


class Sequences(WithLedger):
    def setUp(self):
        super().setUp()
        self.sequence = Sequence(self.ledger, "s")
        self.sequence.told(7)

    def check(self, *numbers, broken):
        for number in numbers:
            self.sequence.told(number)
        self.assertEqual(self.broken(), broken)

    def test_the_next_one_is_due(self):
        self.check(8, 9, broken=[])

    def test_one_that_is_missing_is_noticed(self):
        self.check(9, broken=["s: 9 after 7"])

    def test_one_that_comes_twice_is_noticed_also_when_some_may_be_missing(self):
        self.sequence.may_miss()
        self.check(7, broken=["s: 7 after 7"])

    def test_some_may_be_missing_until_all_is_settled(self):
        self.sequence.may_miss()
        self.check(12, broken=[])
        self.assertFalse(self.sequence.settled(13))
        self.assertTrue(self.sequence.settled(12))
        self.check(14, broken=["s: 14 after 12"])


class OfSamples(WithLedger):
    def check(self, values, noise, broken):
        soak.Samples(self.ledger).check("KiB", values, noise)
        self.assertEqual(self.broken(), broken)

    def test_the_first_fifth_is_left_out(self):
        self.assertEqual(soak.Samples(self.ledger).fifths([9, 9, 1, 3, 5, 5, 5, 5, 4, 6]), (2, 5))

    def test_two_percent_are_flat(self):
        self.check([0] * 4 + [1000] * 12 + [1019] * 4, 12, [])

    def test_more_is_not(self):
        self.check([0] * 4 + [1000] * 12 + [1021] * 4, 12, ["KiB: 1000.0 in the second fifth, 1021.0 in the last"])

    def test_a_few_pages_are_flat_however_small_the_whole(self):
        self.check([0] * 4 + [100] * 12 + [112] * 4, 12, [])

    def test_one_descriptor_more_is_not(self):
        self.check([0] * 4 + [40] * 12 + [41] * 4, 0, ["KiB: 40.0 in the second fifth, 41.0 in the last"])


class Reasons(WithLedger):
    def test_a_disturbance_is_a_reason_while_it_lasts_and_a_little_afterwards(self):
        disturbed = Disturbances(self.ledger)
        disturbed.SETTLING = 5
        self.assertFalse(disturbed.since(0, "stores"))
        with disturbed.of("stores", "test"):
            self.assertTrue(disturbed.since(1e12, "stores"))
            self.assertFalse(disturbed.since(0, "daemon", "exchange"))
        (end,) = disturbed._end.values()  # pylint: disable=protected-access
        self.assertTrue(disturbed.since(end + 4, "stores"))
        self.assertFalse(disturbed.since(end + 6, "stores"))


class StandIns(unittest.TestCase):
    """Whole runs, of real processes."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="orv-soak-test-")
        self.addCleanup(directory.cleanup)
        self.directory = directory.name

    def programs_with(self, fault):
        """A directory of programs, whose daemon has this fault."""
        library = os.path.join(self.directory, "faulty.so")
        variables = world.configured()
        subprocess.run([variables["CMAKE_C_COMPILER"], *shlex.split(variables.get("CMAKE_C_FLAGS", "")), "-Wall", "-Wextra",
                        "-shared", "-fPIC", "-D_GNU_SOURCE", "-o", library, os.path.join(HERE, "faulty.c"), "-ldl"], check=True)
        programs = os.path.join(self.directory, "bin")
        os.mkdir(programs)
        for name in os.listdir(world.BIN):
            os.symlink(os.path.join(world.BIN, name), os.path.join(programs, name))
        daemon = os.path.join(programs, "orvbrokerd")
        os.unlink(daemon)
        with open(daemon, "w", encoding="ascii") as file:
            file.write('#!/bin/sh\nLD_PRELOAD=%s FAULT="%s" exec %s "$@"\n' % (library, fault, world.program("orvbrokerd")))
        os.chmod(daemon, 0o755)
        return programs

    def check_noticed(self, fault, rule):
        result = subprocess.run(
            [sys.executable, os.path.join(HERE, "soak.py"), "0.15", "--seed", "1"], stdin=subprocess.DEVNULL,
            env=dict(os.environ, ORV_BIN=self.programs_with(fault), TMPDIR=self.directory), stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True, timeout=world.DEADLINE * 6, check=False)
        self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
        self.assertRegex(result.stdout, r"(?m)^BROKEN after [0-9.]+ s: %s: " % rule)
        (ledger,) = glob.glob(os.path.join(self.directory, "orv-soak-*", "ledger"))
        self.assertIn("the ledger and the logs are in %s; " % os.path.dirname(ledger), result.stdout)
        with open(ledger, encoding="utf-8") as file:
            self.assertIn(rule, [json.loads(line).get("rule") for line in file])

    def test_a_lost_write_is_noticed(self):
        self.check_noticed("lost write", Register.RULE)

    def test_a_missed_event_is_noticed(self):
        self.check_noticed("missed event", Sequence.RULE)

    def test_a_second_answer_is_noticed(self):
        self.check_noticed("second answer", ANSWERED_ONCE)

    def test_a_leaked_descriptor_is_noticed(self):
        self.check_noticed("leaked descriptor", soak.CLOSED)

    def test_leaked_memory_is_noticed(self):
        self.check_noticed("leaked memory", soak.FLAT)


if __name__ == "__main__":
    unittest.main()
