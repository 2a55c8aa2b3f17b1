"""Whatever one client or the reader of the log does, a bystander is served, SIGTERM works, and afterwards all is as
before. Stores and the exchange have programs of their own."""

import contextlib
import json
import os
import resource
import time

import bystander
import neighbours
import services
import world
from bystander import AT_ONCE, STOP, Bystander
from world import Client


class Rows(world.TestCase):
    """A test for each of the rows of clients and of the log."""


bystander.add_tests(Rows, neighbours.ROWS["clients"] + neighbours.ROWS["log"])


class AsBefore(world.ServedTestCase):
    def setUp(self):
        super().setUp()
        self.served.stop_daemon()
        self.served.log_level = "2"
        self.served.start_daemon()

    def tearDown(self):
        """As before: the same service, an orderly end."""
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 1}, 0))
        start = time.monotonic()
        self.served.stop_daemon()
        self.assertLess(time.monotonic() - start, STOP.in_tests)
        super().tearDown()

    def put_device(self):
        self.served.set_setting("/registration/device_id", "r1")
        self.device_writer(self.served).put("1", owner="r1", display_name="n" * 60)


class Greed(AsBefore):
    def test_the_cut_answer_is_the_beginning_of_the_whole_one(self):
        self.put_device()
        with Client() as client:
            listed = client.ask('{"type": "command", "name": "get_devices", "data": ["1"]}')
            element = listed[len('{"data": ['):-len('], "status": 0}')]
            neighbours.send_slowly(client, neighbours.repeated_ids(100_000))
            length = int.from_bytes(client.receive(4), "little")
            whole = '{"data": [' + ", ".join([element] * 100_000) + '], "status": 0}'
            self.assertEqual(length, len(whole))
            self.assertEqual(client.receive(4 * 1024 * 1024 - 4).decode(), whole[:4 * 1024 * 1024 - 4])
            self.assertFalse(client.has_input())

    def test_without_descriptors_it_waits_instead_of_turning_round(self):
        pid = self.served.daemon.pid
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (self.served.descriptors() + 4, 4096))
        with Bystander(pause=0.05) as other, contextlib.ExitStack() as crowd:
            other.wait_for(1)
            crowd.enter_context(neighbours.many_clients(12))
            self.served.wait_for_log("failed to accept client")
            used = neighbours.cpu_seconds(pid)
            start = time.monotonic()
            while time.monotonic() - start < 2:
                time.sleep(0.1)
            self.assertLess((neighbours.cpu_seconds(pid) - used) / (time.monotonic() - start), 0.05 * 4)
            self.assertLess(self.served.messages().count("failed to accept client"), 200)
        self.assertLess(max(other.times), AT_ONCE.in_tests)
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (1024, 4096))


class MemoryOfARequest(AsBefore):
    """What a sanitizer frees stays in its quarantine, so this is for builds without one."""

    def kept_after(self, action):
        """What the daemon needed at most and what it keeps of it, in KiB."""
        pid = self.served.daemon.pid
        before = neighbours.private_kib(pid)
        neighbours.reset_peak(pid)
        base = neighbours.peak_kib(pid)
        action()
        self.served.descriptors()  # all is over for whoever is answered now
        return neighbours.peak_kib(pid) - base, neighbours.private_kib(pid) - before

    def test_a_device_asked_for_a_quarter_million_times_is_in_memory_once(self):
        self.put_device()
        peak, kept = self.kept_after(lambda: neighbours.ask(neighbours.repeated_ids(250_000)))
        # The line and its parsed form, the answer's list of references, the send buffer.
        self.assertLess(peak, 48 * 1024)
        self.assertLess(kept, 8 * 1024)

    def test_a_line_with_a_large_parsed_form_is_given_back(self):
        _, kept = self.kept_after(lambda: neighbours.ask(neighbours.nested()))
        self.assertLess(kept, 8 * 1024)


class LackOfMemory(world.ServedTestCase):
    """A sanitizer's shadow needs more address space than there may be, so this is for builds without one."""

    def test_lack_of_memory_ends_requests_and_connections_but_not_the_daemon(self):
        """An address space a few megabytes larger than the daemon, and clients that want more."""
        pid = self.served.daemon.pid
        for extra in (1, 2, 4, 8, 16, 24):
            limit = (neighbours.size_kib(pid) + extra * 1024) * 1024
            resource.prlimit(pid, resource.RLIMIT_AS, (limit, resource.RLIM_INFINITY))
            with neighbours.many_clients(5, b'{"a": "' + b"x" * 300_000):
                for length in (*range(0, 71, 7), 14, 30, 62, 20_000, 900_000):
                    self.try_request({"type": "subscribe", "name": "n" * length})
                    self.try_request({"type": "command", "name": "set_router_name", "data": "n" * length})
                    self.try_request({"type": "command", "name": "get_router_name"})
                    self.try_request({"type": "command", "name": "va_set_exclusions", "data": ["x" * length] * 20})
            self.assertIsNone(self.served.daemon.poll(), "the daemon is still there")
        resource.prlimit(pid, resource.RLIMIT_AS, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))

    def try_request(self, request):
        """Answered or closed, whatever it is."""
        try:
            with Client() as client:
                neighbours.send_slowly(client, json.dumps(request).encode() + b"\n")
                client.socket.settimeout(world.DEADLINE)
                json.loads(client.frame())
        except (EOFError, ConnectionError):
            pass


def is_refused():
    """Whether a user's client is closed at once, without an answer."""
    program = ("import socket; client = socket.socket(socket.AF_UNIX); client.settimeout(%d); "
               "client.connect('\\0orvbrokerd-1.3.skt'); print(client.recv(1))" % world.DEADLINE)
    result = neighbours.run_as_other("-c", program)
    return result.stdout == "b''\n"


class AllowedUsers(world.ServedTestCase):
    KEY = "/daemons/orvbrokerd/allowed_uids"
    LINE = "refused a client of user %d" % neighbours.NOBODY

    def check_own_user_is_served(self):
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 1}, 0))

    def test_the_list_counts_from_the_next_client_on(self):
        with Client() as before:
            for value in ("1000", "1,2,3", "0", "none"):
                self.served.set_setting(self.KEY, value)
                self.check_own_user_is_served()
                self.assertEqual(before.call("get_services_status"), ({"status": 1}, 0))
        self.served.wait_for_log("%s is no list of user numbers: none" % self.KEY)

    def test_another_user_is_closed_at_once_unless_the_list_has_the_number(self):
        neighbours.need_second_user(self)
        self.served.set_setting(self.KEY, "1000")
        self.assertTrue(is_refused())
        self.served.wait_for_log(self.LINE)
        self.assertIn(self.LINE, self.served.messages(level=1))
        with neighbours.other_user("-c", neighbours.ASK_SERVICES) as allowed:
            self.served.set_setting(self.KEY, "1000,%d" % neighbours.NOBODY)
            allowed.stdin.write("\n")
            allowed.stdin.flush()
            self.assertEqual(allowed.stdout.readline(), '{"data": {"status": 1}, "status": 0}\n')

    def test_a_refused_user_who_comes_again_and_again_is_told_of_once_a_second(self):
        neighbours.need_second_user(self)
        self.served.set_setting(self.KEY, "1000")
        begin = time.monotonic()
        with neighbours.refused_user(), Bystander() as other:
            self.served.wait_for_log(self.LINE, count=2)
        told = self.served.messages().count(self.LINE)
        self.assertLessEqual(told, time.monotonic() - begin + 1)
        self.assertLess(max(other.times), AT_ONCE.in_tests)


class OtherUsers(world.ServedTestCase):
    """Who has the daemon's own user can do anything; the others reach nothing but the socket."""

    def test_they_reach_no_file_and_no_socket_below_the_root(self):
        neighbours.need_second_user(self)
        os.chmod(self.served.root, 0o755)
        try_all = ("import os, socket, sys\n"
                   "for name in sys.argv[1:]:\n"
                   "    for flags in (os.O_RDONLY, os.O_RDWR, os.O_WRONLY | os.O_CREAT):\n"
                   "        try:\n"
                   "            os.open(name, flags)\n"
                   "            print('opened', name)\n"
                   "        except PermissionError:\n"
                   "            pass\n"
                   "    try:\n"
                   "        socket.socket(socket.AF_UNIX).connect(name)\n"
                   "        print('connected to', name)\n"
                   "    except PermissionError:\n"
                   "        pass\n")
        names = [os.path.join(self.served.root, *name) for name in (
            ("run", "orvbrokerd.version"), ("run", "exchange.lock"), ("run", "exchange.skt"), ("run", "planted"),
            ("tmp", "locks", "settings"), ("tmp", "settings", "data.mdb"), ("tmp", "planted"),
            ("var", "settings", "data.mdb"), ("var", "planted"))]
        result = neighbours.run_as_other("-c", try_all, *names)
        self.assertEqual((result.stdout, result.stderr), ("", ""))
        self.assertEqual(result.returncode, 0)
        self.served.restart_daemon()

    def test_what_they_have_made_before_the_first_start_is_refused_with_a_line(self):
        neighbours.need_second_user(self)
        self.check_refused(lambda path: os.chown(path, neighbours.NOBODY, neighbours.NOBODY),
                           "it belongs to user %d" % neighbours.NOBODY)

    def test_what_they_can_write_to_is_refused_with_a_line(self):
        self.check_refused(lambda path: os.chmod(path, 0o777), "others can write to it")

    def check_refused(self, change, reason):
        for name in ("run", "tmp", "var"):
            one = self.world()
            one.start_bus()
            path = os.path.join(one.root, name)
            os.makedirs(path, exist_ok=True)
            change(path)
            self.assertEqual(one.end_of(one.launch()), 1)
            self.assertIn("cannot trust the directory %s: %s" % (path, reason), one.messages(level=0))


# A sanitizer's shadow needs more address space than there may be, and it keeps what is freed. An emulator is
# no smaller.
if not services.bounds_memory():
    del LackOfMemory, MemoryOfARequest
    del Rows.test_a_bystander_beside_no_memory_left


if __name__ == "__main__":
    world.main()
