"""What is installed: it runs from there, and its documents and scripts tell the truth."""

import glob
import os
import re
import shutil
import subprocess
import tempfile

import world

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PROGRAMS = ["orvagentsim", "orvbrokerd", "orvctl", "orvexchanged"]
NOT_RUNNING = "the broker daemon is not running (nobody listens on its socket in this network namespace)\n"
PAGES = ["man1/orvagentsim.1", "man1/orvctl.1", "man1/orvexchanged.1", "man8/orvbrokerd.8"]


def output_of(*command, **options):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    return result.returncode, result.stdout


class Installed(world.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.prefix = tempfile.mkdtemp(prefix="orv-install-", dir="/tmp")
        cls.addClassCleanup(shutil.rmtree, cls.prefix, ignore_errors=True)
        subprocess.run(["cmake", "--install", world.BUILD, "--prefix", cls.prefix], stdout=subprocess.DEVNULL, check=True)

    def at(self, *pieces):
        return os.path.join(self.prefix, *pieces)

    def read(self, *pieces):
        with open(self.at(*pieces), encoding="utf-8") as file:
            return file.read()

    def test_the_programs_are_there_and_run(self):
        self.assertEqual(sorted(os.listdir(self.at("bin"))), PROGRAMS)
        for program in PROGRAMS:
            status, text = output_of(self.at("bin", program), "--help")
            self.assertEqual(status, 0, program)
            self.assertIn(program, text)

    def test_the_notices_of_the_libraries_go_with_the_programs(self):
        with open(os.path.join(SOURCE, "NOTICES"), encoding="utf-8") as notices:
            self.assertEqual(self.read("share", "doc", "orvbrokerd", "NOTICES"), notices.read())

    def test_each_program_has_a_clean_manual_page(self):
        for page in PAGES:
            self.assertEqual(output_of("mandoc", "-T", "lint", "-W", "warning", self.at("share", "man", page)), (0, ""))
            self.assertIn(".Nm " + re.split(r"[/.]", page)[1] + "\n", self.read("share", "man", page))

    def test_the_manual_page_of_orvctl_has_all_its_sub_commands_and_options(self):
        orvctl = self.at("bin", "orvctl")
        _, page = output_of("mandoc", "-T", "ascii", self.at("share", "man", "man1", "orvctl.1"))
        page = re.sub(".\b", "", page)
        script = self.read("share", "bash-completion", "completions", "orvctl")
        for path in re.findall(r"^ *'( [^']*)'\) words='-", script, re.MULTILINE):
            self.assertEqual(output_of(orvctl, *path.split(), "--help")[0], 0)
            self.assertRegex(page, r"(?m)^ +(\w+, )?" + path.strip() + r"\b")
        options = set(re.findall(r"(?<=[' ])--?[a-z]+", " ".join(re.findall(r"words='(-[^']*)'", script))))
        self.assertIn("--timestamps", options)
        for option in options:
            self.assertRegex(page, r"[\s,]" + option + r"\b")

    def test_the_completion_scripts_are_those_of_orvctl(self):
        for shell, path in (("bash", "bash-completion/completions/orvctl"), ("zsh", "zsh/site-functions/_orvctl"),
                            ("fish", "fish/vendor_completions.d/orvctl.fish")):
            self.assertEqual(output_of(self.at("bin", "orvctl"), "completion", shell), (0, self.read("share", path)))

    def test_programs_in_c_and_cpp_are_built_with_the_installed_client_library(self):
        cache = world.configured()
        sanitizers = ["-fsanitize=address,undefined"] if cache.get("ORV_SANITIZE") == "ON" else []
        (package,) = glob.glob(self.at("lib*", "**", "orvbroker-client.pc"), recursive=True)
        status, flags = output_of("pkg-config", "--cflags", "--libs", package)
        self.assertEqual(status, 0, flags)
        for source, compiler in (("client.c", ["C"]), ("client.cpp", ["CXX", "-std=c++17"])):
            program = self.at(source + ".program")
            command = [cache["CMAKE_%s_COMPILER" % compiler[0]], *cache["CMAKE_%s_FLAGS" % compiler[0]].split(), *compiler[1:],
                       *sanitizers, "-o", program, os.path.join(SOURCE, "examples", source), *flags.split()]
            self.assertEqual(output_of(*command), (0, ""))
            self.assertEqual(output_of(*cache["ORV_EMULATOR"].split(), program, "call", "get_services_status"), (3, "orvbrokerd: " + NOT_RUNNING))

    def test_the_daemon_works_on_the_installed_bus_configuration(self):
        one = self.world()
        os.mkdir(os.path.join(one.root, "etc"))
        with open(os.path.join(one.root, "etc", "exchange.conf"), "w") as file:
            file.write(self.read("etc", "exchange.conf").replace(world.default_root(), one.root))
        one.start()
        # The bus takes the largest payload: it answers, and does not hang up, that nobody is there to get it.
        result = one.orvctl("exchange", "request", "nobody:x", "-", input="x" * ((4 << 20) - 4))
        self.assertIn("net.orvane.exchange.nobody", result.stdout)
        self.assertEqual(one.orvctl("status").returncode, 0)
        self.assertFalse(os.path.exists(os.path.join(one.root, "run", "exchange-private.conf")))

    def test_the_limits_of_the_installed_bus_are_those_of_a_private_one(self):
        with open(os.path.join(SOURCE, "tools", "orvexchanged", "orvexchanged")) as script:
            private = re.findall(r"<limit .*", script.read())
        self.assertGreater(len(private), 0)
        self.assertEqual(re.findall(r"<limit .*", self.read("etc", "exchange.conf")), private)

    def test_the_init_script_starts_installed_programs_on_a_root_kept_in_memory(self):
        with tempfile.TemporaryDirectory(prefix="orv-init-", dir="/tmp") as volatile:
            script = self.read("share", "orvbrokerd", "openwrt", "orvbrokerd.init")
            script = script.replace("ROOT=" + world.default_root(), "ROOT=" + self.prefix).replace("=/tmp/orvane", "=" + volatile)
            stubs = ("procd_open_instance() { :; }\nprocd_close_instance() { :; }\n"
                     'procd_set_param() { [ "$1" != command ] || echo "$2"; }\n')
            status, text = output_of("sh", "-eu", "-s", input=stubs + script + "start_service\nstart_service\n")
            self.assertEqual(status, 0, text)
            started = text.splitlines()
            self.assertEqual(started, [self.at("bin", "orvexchanged"), self.at("bin", "orvbrokerd")] * 2)
            for name in ("run", "tmp"):
                self.assertEqual(os.readlink(self.at(name)), os.path.join(volatile, name))
                os.unlink(self.at(name))

    def test_the_units_start_installed_programs(self):
        for unit in ("orvexchanged", "orvbrokerd"):
            (command,) = re.findall(r"^ExecStart=(.+)$", self.read("share/orvbrokerd/systemd", unit + ".service"), re.M)
            self.assertTrue(os.access(command.replace(world.default_root(), self.prefix), os.X_OK), command)

    def test_the_init_script_is_clean(self):
        path = self.at("share", "orvbrokerd", "openwrt", "orvbrokerd.init")
        self.assertEqual(output_of("shellcheck", path), (0, ""))


if __name__ == "__main__":
    world.main()
