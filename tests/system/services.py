"""A stand-in for the service manager: it starts what a unit says, with the limits and the privileges that it says."""

import os
import signal
import socket
import struct
import subprocess
import tempfile

from world import DEADLINE, configured

_LIMITS = {"LimitNOFILE": "nofile", "LimitAS": "as", "LimitCORE": "core"}


def bounds_memory():
    """Whether the programs under test can live within a limit of address space: sanitizers and emulators take more than all."""
    return configured()["ORV_SANITIZE"] != "ON" and not configured()["ORV_EMULATOR"]


class Unit:
    """A unit file. A setting may stand several times; one that is empty is one."""

    def __init__(self, path):
        self.name = os.path.basename(path)
        self.settings = {}
        with open(path, encoding="utf-8") as file:
            for line in file.read().replace("\\\n", " ").splitlines():
                if line and line[0] not in "#;[":
                    name, _, value = line.partition("=")
                    self.settings.setdefault(name.strip(), []).append(value.strip())

    def all(self, name):
        return self.settings.get(name, [])

    def one(self, name, default=None):
        """The one value; a second one is an error."""
        values = self.all(name)
        if not values:
            return default
        (value,) = values
        return value


class Service:
    """A unit's process, perhaps within another root of the file system. It is up once it has told so."""

    def __init__(self, path, log, within="/"):
        self.unit = Unit(path)
        self.log = log
        self.within = within
        self.process = None

    def _limits(self):
        factors = {"M": 1 << 20}
        for name, limit in _LIMITS.items():
            value = self.unit.one(name)
            if value is not None and (name != "LimitAS" or bounds_memory()):
                number = int(value.rstrip("M")) * factors.get(value[-1], 1)
                yield "--%s=%d:%d" % (limit, number, number)

    def _privileges(self):
        if self.unit.one("NoNewPrivileges") == "yes":
            yield "--no-new-privs"
        capabilities = self.unit.one("CapabilityBoundingSet")
        if capabilities is not None:
            kept = "".join(",+" + name[len("CAP_"):].lower() for name in capabilities.split())
            yield from ("--bounding-set=-all" + kept, "--inh-caps=-all")

    def start(self):
        """Starts it and waits until it tells that it is up."""
        with tempfile.TemporaryDirectory(prefix="orv-notify-", dir=self.within + "/tmp") as directory, \
                socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(os.path.join(directory, "notify"))
            manager.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
            manager.settimeout(DEADLINE)
            environment = {"PATH": os.environ["PATH"], 
                           "NOTIFY_SOCKET": os.path.join("/", os.path.relpath(manager.getsockname(), self.within))}
            command = ["chroot", self.within, "prlimit", *self._limits(), "setpriv", *self._privileges(), "--",
                       *self.unit.one("ExecStart").split()]
            with open(self.log, "ab") as log:
                self.process = subprocess.Popen(command, env=environment, cwd="/", umask=int(self.unit.one("UMask"), 8),
                                                stdin=subprocess.DEVNULL, stdout=log, stderr=log)
            try:
                while not self._has_told(manager):
                    pass
            except socket.timeout:
                self.kill()
                raise AssertionError("%s has not told that it is up" % self.unit.name) from None

    def _has_told(self, manager):
        """Whether the next message tells that it is up. Like the manager unless told otherwise, this believes the
        unit's main process only."""
        credentials = struct.Struct("3i")
        text, ancillary, _, _ = manager.recvmsg(4096, socket.CMSG_SPACE(credentials.size))
        senders = [credentials.unpack(data)[0] for level, kind, data in ancillary
                   if (level, kind) == (socket.SOL_SOCKET, socket.SCM_CREDENTIALS)]
        return senders == [self.process.pid] and "READY=1" in text.decode().splitlines()

    def stop(self):
        """As the manager does; returns the exit status."""
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(int(self.unit.one("TimeoutStopSec")))

    def restart(self):
        status = self.stop()
        self.start()
        return status

    def kill(self):
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait(DEADLINE)
