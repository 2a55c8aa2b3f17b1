"""bench/bystander: a row is a line, and whoever misses a bound is told of."""

import os
import subprocess
import sys

import world

BENCH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "bench", "bystander")
ROW = "the same line over and over"


class Bench(world.TestCase):
    def bench(self, *arguments, programs=world.BIN):
        return subprocess.run([sys.executable, BENCH, *arguments], env=dict(os.environ, ORV_BIN=programs),
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=world.DEADLINE * 3, text=True, check=False)

    def programs_with(self, daemon):
        """A directory of programs, whose daemon is this script."""
        directory = os.path.join(self.world().root, "bin")
        os.mkdir(directory)
        for name in os.listdir(world.BIN):
            os.symlink(os.path.join(world.BIN, name), os.path.join(directory, name))
        path = os.path.join(directory, "orvbrokerd")
        os.unlink(path)
        with open(path, "w", encoding="ascii") as file:
            file.write("#!/bin/sh\n" + daemon)
        os.chmod(path, 0o755)
        return directory

    def test_a_row_has_its_numbers_and_its_bound(self):
        result = self.bench("--seconds", "0.1", ROW)
        heading, row = result.stdout.splitlines()[:2]
        self.assertEqual(heading.split(), ["neighbour", "requests", "p50", "p99", "max", "bound", "stop"])
        self.assertTrue(row.startswith(ROW), result)
        requests, p50, p99, longest, bound, _ = map(float, row[len(ROW):].split()[:6])
        self.assertGreater(requests, 0)
        self.assertTrue(0 <= p50 <= p99 <= longest, row)
        self.assertGreater(longest, 0, row)
        self.assertEqual(bound, 100)

    def test_a_missed_bound_is_told_and_a_failure(self):
        slow = self.programs_with("trap 'sleep 1.2; kill $pid' TERM\n"
                                  "%s \"$@\" &\npid=$!\nwait $pid\nwait $pid\n" % world.program("orvbrokerd"))
        result = self.bench("--seconds", "0", ROW, programs=slow)
        self.assertEqual(result.returncode, 1, result)
        self.assertRegex(result.stdout, ROW + ".* MISSED\n1 of 1 rows miss their bounds\n$")

    def test_a_row_that_fails_is_told_with_the_log(self):
        broken = self.programs_with("echo 'no daemon' >&2\nexit 1\n")
        result = self.bench(ROW, programs=broken)
        self.assertEqual(result.returncode, 1, result)
        self.assertRegex(result.stdout, ROW + ".* FAILED: the daemon ended with 1\n")
        self.assertIn("no daemon\n", result.stderr)

    def test_its_rows_are_listed_and_others_are_a_usage_error(self):
        result = self.bench("--list", "log")
        self.assertEqual(result.returncode, 0)
        self.assertIn(ROW, result.stdout.splitlines())
        self.assertEqual(self.bench("no such row").returncode, 2)
        self.assertIn("Exit status", self.bench("--help").stdout)


if __name__ == "__main__":
    world.main()
