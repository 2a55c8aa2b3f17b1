"""Completion scripts, run by the shells that they are for."""

import json
import shutil
import subprocess

import world

# Puts the words where bash would, with the cursor behind the last one, and prints what is offered.
COMPLETE_IN_BASH = """
source /dev/stdin
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
_orvctl
printf '%s\\n' "${COMPREPLY[@]}"
"""


class Completion(world.TestCase):
    def setUp(self):
        super().setUp()
        self.one = self.world()

    def script(self, shell):
        result = self.one.orvctl("completion", shell)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        return result.stdout

    def offered(self, *words):
        """What bash offers for the last word."""
        result = subprocess.run(["bash", "-c", COMPLETE_IN_BASH, "bash", "orvctl", *words], input=self.script("bash"),
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
        self.assertEqual((result.returncode, result.stderr), (0, ""), words)
        return result.stdout.split()

    def names(self, listing):
        return [json.loads(line)["name"] for line in self.one.orvctl(listing).stdout.splitlines()]

    def test_every_command_and_event_is_offered(self):
        commands, events = self.names("commands"), self.names("events")
        self.assertEqual((len(commands), len(events)), (38, 6))
        self.assertEqual(self.offered("call", ""), commands)
        self.assertEqual(self.offered("subscribe", ""), events)
        for name in commands:
            self.assertIn(name, self.offered("call", name[:-1]))
        for name in events:
            self.assertIn(name, self.offered("subscribe", name[:-1]))

    def test_every_offered_sub_command_is_one(self):
        offered = self.offered("")
        self.assertIn("status", offered)
        for name in offered:
            self.assertEqual(self.one.orvctl(name, "--help").returncode, 0, name)
            if name in ("call", "subscribe", "completion"):
                continue  # whose words are arguments
            for below in self.offered(name, ""):
                self.assertEqual(self.one.orvctl(name, below, "--help").returncode, 0, (name, below))

    def test_every_offered_option_is_one_of_its_sub_command(self):
        for words in ((), ("call",), ("subscribe",), ("settings",), ("settings", "watch"), ("device", "put"),
                      ("exchange", "monitor"), ("completion",)):
            options = self.offered(*words, "-")
            self.assertEqual(len(options), len(set(options)))
            for option in ("--help", "--json", "--color", "--timeout"):
                self.assertIn(option, options)
            shown = self.one.orvctl(*words, "--help").stdout + self.one.orvctl("--help").stdout
            for option in options:
                self.assertIn(option, shown, words)
        self.assertIn("--count", self.offered("subscribe", "--"))
        self.assertNotIn("--count", self.offered("call", "--"))

    def test_options_and_their_values_are_passed_over(self):
        self.assertEqual(self.offered("--json", "--timeout", "5", "sta"), ["status"])
        self.assertEqual(self.offered("--timeout", "=", "5", "sta"), ["status"])
        self.assertEqual(self.offered("call", "--timeout", "5", "get_dev"), ["get_devices"])
        self.assertEqual(self.offered("--color", ""), ["always", "auto", "never"])
        self.assertEqual(self.offered("--color", "="), ["always", "auto", "never"])
        self.assertEqual(self.offered("--color", "=", "n"), ["never"])
        self.assertEqual(self.offered("--timeout", ""), [])

    def test_nothing_is_offered_after_the_first_argument(self):
        self.assertEqual(self.offered("call", "get_devices", ""), [])
        self.assertEqual(self.offered("call", "settings", ""), [])
        self.assertEqual(self.offered("device", "show", ""), [])
        self.assertEqual(self.offered("nonsense", ""), [])

    def test_the_bash_script_is_clean(self):
        result = subprocess.run(["shellcheck", "-s", "bash", "-"], input=self.script("bash"), text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        self.assertEqual((result.returncode, result.stdout), (0, ""))

    def test_each_script_offers_every_name(self):
        for shell in ("bash", "zsh", "fish"):
            script = self.script(shell)
            for name in self.names("commands") + self.names("events"):
                self.assertIn(name, script, shell)

    def test_another_shell_is_a_usage_error(self):
        result = self.one.orvctl("completion", "tcsh")
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn("neither bash nor zsh nor fish", result.stderr)


# zsh and fish are not needed to build or run anything: what follows is tested where they are installed.
def _check_of(shell):
    def check(self):
        result = subprocess.run([shell, "-n"], input=self.script(shell), text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, check=False)
        self.assertEqual((result.returncode, result.stdout), (0, ""))
    return check


def _complete_in_fish(self):
    for line, names in (("orvctl call ", self.names("commands")), ("orvctl subscribe ", self.names("events")),
                        ("orvctl --timeout 5 sta", ["status"]), ("orvctl settings wa", ["watch"]),
                        ("orvctl call x ", []), ("orvctl --color n", ["never"])):
        result = subprocess.run(["fish", "--no-config", "-c", "source; complete -C %r" % line],
                                input=self.script("fish"), text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, check=False)
        offered = [offer.split("\t")[0] for offer in result.stdout.splitlines()]
        self.assertEqual((sorted(offered), result.stderr), (sorted(names), ""), line)


for _shell in ("zsh", "fish"):
    if shutil.which(_shell):
        setattr(Completion, "test_the_%s_script_has_no_syntax_error" % _shell, _check_of(_shell))
if shutil.which("fish"):
    Completion.test_fish_offers_every_name = _complete_in_fish

if __name__ == "__main__":
    world.main()
