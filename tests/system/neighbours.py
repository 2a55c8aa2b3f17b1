"""Neighbours of the daemon that are greedy, hostile or broken, and a bystander who only wants to be served.

Used by the tests and by the benchmark: each neighbour is a context that lasts as long as it misbehaves.
"""

import contextlib
import json
import os
import resource
import signal
import socket
import subprocess
import sys
import threading
import time

import world

REQUEST = '{"type": "command", "name": "get_services_status"}\n'
STATUSES = ('{"data": {"status": 1}, "status": 0}', '{"data": {"status": 0}, "status": 0}')


class Bystander:
    """Asks for get_services_status on one connection, again and again, and notes how long each answer takes."""

    def __init__(self, pause=0.002):
        self.times = []
        self.failure = None
        self._pause = pause
        self._client = world.Client()
        self._client.send(REQUEST)
        self._client.frame()
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        self._thread.join(world.DEADLINE * 3)
        self._client.close()

    def _run(self):
        try:
            while not self._stop.is_set():
                start = time.monotonic()
                self._client.send(REQUEST)
                answer = self._client.frame()
                self.times.append(time.monotonic() - start)
                if answer not in STATUSES:
                    raise AssertionError("answered " + answer)
                self._stop.wait(self._pause)
        except Exception as failure:  # whatever it is, the test has to hear of it
            self.failure = failure

    @property
    def longest(self):
        """Seconds."""
        if self.failure:
            raise self.failure
        return max(self.times)

    def percentile(self, share):
        ordered = sorted(self.times)
        return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def send_slowly(client, data, seconds=60):
    """Sends even where the other side takes its time."""
    client.socket.settimeout(seconds)
    client.socket.sendall(data)


def receive_all(client):
    """Reads until the daemon closes, or has nothing more to say for a while; the number of bytes."""
    total = 0
    client.socket.settimeout(2)
    with contextlib.suppress(OSError):
        while True:
            piece = client.socket.recv(1 << 20)
            if not piece:
                break
            total += len(piece)
    return total


# -- greedy requests

def repeated_ids(count=250_000):
    """One device asked for again and again: the largest answer that a line can ask for."""
    return (json.dumps({"type": "command", "name": "get_devices", "data": ["1"] * count}) + "\n").encode()


def nested(count=130_000):
    """A line whose parsed form is many times its size."""
    return (json.dumps({"type": "command", "name": "no_such_command"})[:-1] + ', "data": [' +
            ",".join(['{"a":[[]]}'] * count) + "]}\n").encode()


def interfaces(count):
    entries = [{"name": "if%d" % number, "type": "lan"} for number in range(count)]
    return (json.dumps({"type": "command", "name": "set_router_interfaces", "data": entries}) + "\n").encode()


@contextlib.contextmanager
def stopped(process):
    """A process that a debugger, a terminal or the kernel has stopped."""
    process.send_signal(signal.SIGSTOP)
    try:
        yield process
    finally:
        process.send_signal(signal.SIGCONT)


@contextlib.contextmanager
def many_clients(count, line=b""):
    """Clients that connect and send an unfinished line each."""
    clients = []
    try:
        for _ in range(count):
            client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            client.setblocking(False)
            if client.connect_ex(world.SOCKET_NAME) != 0:
                client.close()
                break
            with contextlib.suppress(OSError):
                client.send(line)
            clients.append(client)
        yield clients
    finally:
        for client in clients:
            client.close()


def cpu_seconds(pid):
    with open("/proc/%d/schedstat" % pid, encoding="ascii") as schedstat:
        return int(schedstat.read().split()[0]) / 1e9


def private_kib(pid):
    with open("/proc/%d/smaps_rollup" % pid, encoding="ascii") as rollup:
        return sum(int(line.split()[1]) for line in rollup if line.startswith("Private_Dirty:"))


def peak_kib(pid):
    with open("/proc/%d/status" % pid, encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmHWM:"))


def reset_peak(pid):
    with open("/proc/%d/clear_refs" % pid, "w", encoding="ascii") as file:
        file.write("5\n")


def size_kib(pid):
    with open("/proc/%d/status" % pid, encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmSize:"))
