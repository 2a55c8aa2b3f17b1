"""A copy of the tree, built apart by clang with counters in the code, and what its tests run of it.

Counters are kept in files that are mapped into memory: a process that is killed, or that ends without a word, has
counted as well. See "Source-based Code Coverage" of clang's documentation.
"""

import contextlib
import ctypes
import functools
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

# Processes that run at a time count in the same memory.
FLAGS = ("-O0 -fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic "
         "-mllvm -runtime-counter-relocation")
DISCARD = "/dev/null"


class Test:
    """One of CTest's: itself the key of what is known of it."""

    def __init__(self, name, command, environment, timeout, directory):
        self.name = name
        self.command = command
        self.environment = environment
        self.timeout = timeout
        self.directory = directory


class Unfit(Exception):
    """The tree cannot be measured; says why."""


def call(command, **options):
    """What it prints; Unfit with its last words when it fails."""
    try:
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                                errors="replace", stdin=subprocess.DEVNULL, **options)
    except OSError as error:
        raise Unfit("cannot run %s: %s" % (command[0], error.strerror)) from error
    if result.returncode != 0:
        words = result.stdout.strip().splitlines()
        telling = [line for line in words if re.search(r"\berror:|FAILED|fatal", line)] or words
        raise Unfit("%s failed:\n%s" % (" ".join(command[:3]), "\n".join(telling[:12])))
    return result.stdout


def adopt_orphans():
    """Processes that a test leaves behind become children of this one, so that they can be ended: see end_children()."""
    pr_set_child_subreaper = 36
    ctypes.CDLL(None).prctl(pr_set_child_subreaper, 1, 0, 0, 0)


def end_children(but=()):
    """Ends all that the tests have left."""
    for _ in range(20):
        left = [pid for pid in children_of(os.getpid()) if pid not in but]
        if not left:
            return
        for pid in left:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
            with contextlib.suppress(ChildProcessError):
                os.waitpid(pid, 0)


def children_of(parent):
    found = []
    for name in os.listdir("/proc"):
        if name.isdigit():
            with contextlib.suppress(OSError):
                with open("/proc/%s/stat" % name, encoding="utf-8", errors="replace") as stat:
                    if int(stat.read().rsplit(")", 1)[1].split()[1]) == parent:
                        found.append(int(name))
    return found


@functools.lru_cache(maxsize=None)
def llvm(name):
    """A program of LLVM: that of the compiler's version, or the one that has the plain name."""
    version = re.search(r"version (\d+)", call(["clang++", "--version"])).group(1)
    for candidate in (name + "-" + version, name):
        if shutil.which(candidate):
            return candidate
    raise Unfit("%s is not there: scripts/setup installs it" % name)


class Build:
    """The copy in WORK/tree, built in WORK/build."""

    def __init__(self, root, work, jobs):
        self.root = os.path.abspath(root)
        self.work = os.path.abspath(work)
        self.tree = os.path.join(self.work, "tree")
        self.build = os.path.join(self.work, "build")
        self.jobs = jobs

    # ---- copy and build

    def files(self):
        listed = call(["git", "-C", self.root, "ls-files", "-z", "--cached", "--others", "--exclude-standard"])
        return sorted(name for name in listed.split("\0") if name and os.path.isfile(os.path.join(self.root, name)))

    def copy(self):
        """Brings the copy to the state of the tree; what is the same keeps its age. Returns what tells this state."""
        if not os.path.isfile(os.path.join(self.root, "CMakeLists.txt")):
            raise Unfit("%s is no tree that can be built" % self.root)
        names = self.files()
        state = hashlib.sha256()
        for name in names:
            source, copy = os.path.join(self.root, name), os.path.join(self.tree, name)
            with open(source, "rb") as file:
                data = file.read()
            state.update(name.encode() + b"\0" + data + b"\0")
            if not is_same(copy, data, os.stat(source).st_mode):
                os.makedirs(os.path.dirname(copy), exist_ok=True)
                shutil.copy(source, copy)
        kept = set(names)
        for directory, folders, files in os.walk(self.tree):
            if directory == self.tree and ".git" in folders:
                folders.remove(".git")
            for file in files:
                path = os.path.join(directory, file)
                if os.path.relpath(path, self.tree) not in kept:
                    os.unlink(path)
        # Some tests ask git which files there are.
        if not os.path.isdir(os.path.join(self.tree, ".git")):
            call(["git", "init", "-q", self.tree])
        call(["git", "-C", self.tree, "add", "--all"])
        return state.hexdigest()

    def configure(self):
        if os.path.exists(os.path.join(self.build, "build.ninja")):
            return
        command = ["cmake", "-G", "Ninja", "-S", self.tree, "-B", self.build, "-DCMAKE_BUILD_TYPE=Debug",
                   "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++"]
        command += ["-DCMAKE_%s_FLAGS_DEBUG=%s -Wno-unused-command-line-argument" % (language, FLAGS)
                    for language in ("C", "CXX")]
        if shutil.which("ccache"):
            # It cannot keep what is built with precompiled headers.
            command += ["-DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON", "-DCMAKE_C_COMPILER_LAUNCHER=ccache",
                        "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"]
        call(command)

    def make(self, targets=("all",)):
        return call(["cmake", "--build", self.build, "-j", str(self.jobs), "--target", *targets],
                    env=self.environment())

    def environment(self, profile=DISCARD, **more):
        environment = dict(os.environ, LLVM_PROFILE_FILE=profile, **more)
        environment.pop("CCACHE_BASEDIR", None)  # with it, a build elsewhere would name its sources another way
        return environment

    # ---- tests

    def tests(self):
        found = []
        listed = json.loads(call(["ctest", "--test-dir", self.build, "--show-only=json-v1"]))
        for test in listed["tests"]:
            if "command" not in test:
                raise Unfit("%s is not built" % test["name"])
            properties = {each["name"]: each["value"] for each in test.get("properties", [])}
            environment = dict(each.split("=", 1) for each in properties.get("ENVIRONMENT", []))
            found.append(Test(test["name"], test["command"], environment, float(properties.get("TIMEOUT", 300)),
                              properties.get("WORKING_DIRECTORY", self.build)))
        return found

    def start(self, test, output, command=None, profile=DISCARD):
        return subprocess.Popen(command or test.command, cwd=test.directory, stdin=subprocess.DEVNULL, stdout=output,
                                stderr=output, start_new_session=True,
                                env=self.environment(profile, **test.environment))

    def run_counted(self, test, folder):
        """Runs one test, its counters going to the folder; whether it passes, its output, and how long it took."""
        os.makedirs(folder, exist_ok=True)
        began = time.monotonic()
        with tempfile.TemporaryFile(mode="w+", errors="replace") as output:
            process = self.start(test, output, profile=os.path.join(folder, "%m%c.profraw"))
            try:
                status = process.wait(test.timeout * 2)
            except subprocess.TimeoutExpired:
                status = None
            finally:
                end_group(process)
            output.seek(0)
            return status == 0, output.read(), time.monotonic() - began

    # ---- what the counters tell

    def merge(self, profiles, merged):
        """One profile of several; whether there is one."""
        profiles = [path for path in profiles if os.path.getsize(path)]
        if not profiles:
            return False
        with tempfile.NamedTemporaryFile("w", dir=self.work) as names:
            names.write("\n".join(profiles))
            names.flush()
            call([llvm("llvm-profdata"), "merge", "--sparse", "--failure-mode=all", "-o", merged,
                  "--input-files=" + names.name])
        return True

    def programs(self):
        """All that is built and counts."""
        folder = os.path.join(self.build, "bin")
        paths = [os.path.join(folder, name) for name in sorted(os.listdir(folder))] if os.path.isdir(folder) else []
        return [path for path in paths if counts(path)]

    def name_of(self, path):
        """A source's name in the tree, however it got into the program."""
        path = os.path.normpath(path)
        for folder in (self.tree, self.build):
            if path.startswith(folder + os.sep):
                return path[len(folder) + 1:]
        return path

    def lines(self, programs, merged):
        """How often each line was run, and which ways branches went: {path: (line -> count, [(line, count)])}."""
        objects = [part for path in programs[1:] for part in ("-object", path)]
        exported = call([llvm("llvm-cov"), "export", "--format=lcov", "--skip-expansions", "-instr-profile", merged,
                         programs[0], *objects])
        found = {}
        lines, branches = {}, []
        for line in exported.splitlines():
            word, _, rest = line.partition(":")
            if word == "SF":
                lines, branches = found.setdefault(self.name_of(rest), ({}, []))
            elif word == "DA":
                number, count = rest.split(",")[:2]
                lines[int(number)] = int(count)
            elif word == "BRDA":
                number, _, _, count = rest.split(",")
                branches.append((int(number), 0 if count == "-" else int(count)))
        return found


def counts(path):
    """Whether a file is a program with counters."""
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF" and b"__llvm_covmap" in file.read()


def is_same(path, data, mode):
    try:
        with open(path, "rb") as file:
            return file.read() == data and os.stat(path).st_mode & 0o111 == mode & 0o111
    except FileNotFoundError:
        return False


def end_group(process):
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()


class Progress:
    """A line that changes on a terminal, and one line now and then elsewhere."""

    def __init__(self):
        self.terminal = sys.stderr.isatty()
        self.last = 0.0

    def tell(self, text):
        now = time.monotonic()
        if self.terminal:
            sys.stderr.write("\r\033[K" + text[:shutil.get_terminal_size().columns - 1])
        elif now - self.last >= 30 or self.last == 0.0:
            sys.stderr.write(text + "\n")
            self.last = now
        sys.stderr.flush()

    def clear(self):
        if self.terminal:
            sys.stderr.write("\r\033[K")
            sys.stderr.flush()
