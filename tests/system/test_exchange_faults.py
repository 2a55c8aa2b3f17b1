"""What a participant of the exchange may do wrong, and the bus: the daemon serves on."""

import json
import os
import signal
import socket
import struct
import threading
import time

import world
from test_agentsim import Agent
from world import Client, wait_until

FAILED = (None, -1)
TIME_OUT_KEY = "/exchange/request_timeout_ms"
SEND_BUFFER = 4 << 20  # what one client's buffer holds, length words included
MAX_PAYLOAD = (4 << 20) - 4
RENAME = {"device_id": "d1", "name": "new name"}
GIVEN_NAME_KEY = "/tmp/daemons/orvbrokerd/d1/friendly_name"


def request(name, *data):
    return json.dumps({"type": "command", "name": name, **({"data": data[0]} if data else {})}) + "\n"


class Faults(world.ServedTestCase):
    def asking(self, name, *data):
        """A client that waits for an answer."""
        client = Client()
        self.addCleanup(client.close)
        client.send(request(name, *data))
        return client

    def asked(self, other, request_name):
        """The request has reached the other participant."""
        kind, name, _ = other.receive()
        self.assertEqual((kind, name), ("Request", request_name))

    def check_answered(self, client, data, status):
        """A client gets this answer, and is closed."""
        self.assertEqual(json.loads(client.frame()), {"data": data, "status": status})
        client.expect_close()

    def check_serving(self):
        with Client() as client:
            self.assertEqual(client.call("get_services_status"), ({"status": 1}, 0))

    def wait_for_exchange(self, other):
        """The daemon has worked through all that this participant has sent to it."""
        count = self.served.messages().count("failed to process registration_status_changed event")
        other.emit("registration_status_changed", "no result")
        self.served.wait_for_log("failed to process registration_status_changed event", count + 1)

    def wait_for_subscriptions(self, scanner):
        """The bus has taken what the daemon has subscribed to: a request that it sent afterwards is there."""
        client = self.asking("va_status")
        self.asked(scanner, "va_scan_status")
        scanner.answer(0, "0", "{}")
        self.check_answered(client, {}, 0)


class Answers(Faults):
    def test_types_that_are_no_success_fail_the_renaming_of_a_device(self):
        self.device_writer(self.served).put("d1")
        manager = self.participant(self.served, "broker-devmgmt")
        not_a_number = "Failed to convert value %s of type to int"
        refused = "Received error response from cloud"
        for number, (kind, message) in enumerate((
                ("", not_a_number % ""), ("success", not_a_number % "success"), ("-", not_a_number % "-"),
                ("\u0660", not_a_number % "\u0660"), ("9" * 30, not_a_number % ("9" * 30)),
                ("2147483648", not_a_number % "2147483648"), ("9" * 127, not_a_number % ("9" * 127)),
                ("9" * 128, refused), ("0" * 100000, refused), ("-1", refused), ("1", refused), ("2", refused), ("2147483647", refused))):
            client = self.asking("set_device_name", RENAME)
            self.asked(manager, "set_friendly_name")
            count = self.served.messages().count(message)
            manager.answer(number, kind, "{}")
            self.check_answered(client, None, -1)
            self.served.wait_for_log(message, count + 1)
            self.assertIsNone(self.served.setting(GIVEN_NAME_KEY))
        self.assertEqual(self.served.messages().count("malformed answer from broker-devmgmt"), 2)

    def test_types_that_are_no_success_fail_the_blocking_of_a_device(self):
        self.device_writer(self.served).put("d1")
        manager = self.participant(self.served, "broker-devmgmt")
        for number, kind in enumerate(("", "success", "9" * 30, "-1", "2")):
            client = self.asking("set_device_traffic_blocked", {"device_id": "d1", "traffic_blocked": 1})
            self.asked(manager, "set_traffic_status")
            manager.answer(number, kind)
            self.check_answered(client, None, -1)

    def test_types_that_are_no_number_leave_a_schedule_unanswered(self):
        settings = self.participant(self.served, "orvtuvosettings")
        for number, kind in enumerate(("", "success", "99999999999999999999", "-99999999999999999999")):
            client = self.asking("va_set_schedule", {"enabled": True})
            self.asked(settings, "va_set_schedule")
            settings.answer(number, kind)
            client.expect_close()
        self.check_serving()

    def test_only_two_is_an_error_of_a_schedule(self):
        settings = self.participant(self.served, "orvtuvosettings")
        for number, (kind, data, answer) in enumerate((
                ("0", "", (None, 0)), ("-1", "busy", (None, 0)), ("3", "busy", (None, 0)),
                ("2", "busy", ({"error": "busy"}, -1)), ("2", "", ({"error": ""}, -1)),
                ("2", "\u00e9\n", ({"error": "\u00e9\n"}, -1)))):
            client = self.asking("va_set_schedule", {"enabled": True})
            self.asked(settings, "va_set_schedule")
            settings.answer(number, kind, data)
            self.check_answered(client, *answer)

    def test_an_error_text_that_is_no_text_leaves_a_schedule_unanswered(self):
        settings = self.participant(self.served, "orvtuvosettings")
        client = self.asking("va_set_schedule", {})
        self.asked(settings, "va_set_schedule")
        settings.answer(0, "2", b"\xff\xfe")
        client.expect_close()
        self.served.wait_for_log("failed to pack error response")

    def test_data_that_is_not_json_leaves_a_scan_status_unanswered(self):
        scanner = self.participant(self.served, "orvvad")
        for number, data in enumerate((b"", b"idle", b"5", b'"idle"', b"{", b'{"a": 1} {', b"\xff\xfe", b'{"a": "\xff"}',
                                       b"\0", b"[" * 100000, b"x" * MAX_PAYLOAD)):
            client = self.asking("va_status")
            self.asked(scanner, "va_scan_status")
            scanner.answer(number, "0", data)
            client.expect_close()
        self.check_serving()

    def test_any_json_object_or_array_is_a_scan_status(self):
        scanner = self.participant(self.served, "orvvad")
        for number, (kind, status) in enumerate((("0", {}), ("2", []), ("no number", {"\u00e9": [1, {"a": None}]}))):
            client = self.asking("va_status")
            self.asked(scanner, "va_scan_status")
            scanner.answer(number, kind, json.dumps(status, ensure_ascii=False))
            self.check_answered(client, status, 0)

    def test_an_answer_larger_than_the_send_buffer_is_cut_there(self):
        scanner = self.participant(self.served, "orvvad")
        text = '["%s"]' % ("x" * (MAX_PAYLOAD - 4))
        client = self.asking("va_status")
        self.asked(scanner, "va_scan_status")
        scanner.answer(0, "0", text)
        with client.socket.makefile("rb") as stream:
            received = stream.read()
        expected = ('{"data": %s, "status": 0}' % text).encode()
        self.assertEqual(received[:4], struct.pack("=I", len(expected)))
        self.assertEqual(len(received), SEND_BUFFER)
        self.assertTrue(expected.startswith(received[4:]))
        self.check_serving()

    def test_only_an_object_with_a_result_stores_a_model(self):
        for key, value in (("user_token", "t"), ("device_id", "r1"), ("tuvo_name", "Router"),
                           ("mac", "02:00:00:00:00:01")):
            self.served.set_setting("/registration/" + key, value)
        manager = self.participant(self.served, "broker-devmgmt")
        for number, data in enumerate((b"", b"ok", b"[]", b'["result"]', b'{"Result": 1}', b"\xff", b"x" * MAX_PAYLOAD)):
            client = self.asking("set_router_model", "M1")
            self.asked(manager, "register_tuvo")
            manager.answer(number, "0", data)
            self.check_answered(client, None, -1)
            self.assertIsNone(self.served.setting("/registration/device_model"))
        client = self.asking("set_router_model", "M1")
        self.asked(manager, "register_tuvo")
        manager.answer(number + 1, "2", '{"result": false}')
        self.check_answered(client, None, 0)
        self.assertEqual(self.served.setting("/registration/device_model"), "M1")

    def test_an_unusable_registration_result_reaches_nobody(self):
        agent = self.participant(self.served, "orvagent")
        with Client() as subscriber, Client() as client:
            subscriber.subscribe("cloud_registration_status")
            received = 0
            for data in (b"", b"ok", b'"ok"', b"[]", b'{"result": 0}', b'{"result": "refused"}', b"\xff",
                         b'{"result": "no", "reason": 5}', b"x" * MAX_PAYLOAD, b'{"result": "ok"}'):
                self.assertEqual(client.call("start_cloud_registration", {"router_id": "r1"}), (None, 0))
                while agent.receive()[1] != "start_cloud_registration":  # telemetry comes, too
                    received += 1
                agent.answer(received, "0", data)
                received += 1
            self.served.wait_for_log("failed to process cloud_registration_status event", 9)
            self.assertEqual(subscriber.frame(), '{"successful": true}')

    def test_an_answer_of_another_signature_is_none(self):
        settings = self.participant(self.served, "orvtuvosettings")
        client = self.asking("va_set_schedule", {})
        self.asked(settings, "va_set_schedule")
        settings.malformed(0)
        self.check_answered(client, {"error": "malformed answer"}, -1)
        self.served.wait_for_log("malformed answer from orvtuvosettings")

    def test_an_error_is_told_in_its_own_words(self):
        settings = self.participant(self.served, "orvtuvosettings")
        client = self.asking("va_set_schedule", {})
        self.asked(settings, "va_set_schedule")
        settings.error(0, "not today")
        self.check_answered(client, {"error": "not today"}, -1)


class Participants(Faults):
    def test_one_that_dies_before_answering_fails_what_waits_for_it(self):
        settings = self.participant(self.served, "orvtuvosettings")
        scanner = self.participant(self.served, "orvvad")
        schedule = self.asking("va_set_schedule", {})
        status = self.asking("va_status")
        self.asked(settings, "va_set_schedule")
        self.asked(scanner, "va_scan_status")
        settings.kill()
        scanner.kill()
        answer = json.loads(schedule.frame())
        self.assertEqual(answer["status"], -1)
        self.assertRegex(answer["data"]["error"], "disconnected")
        schedule.expect_close()
        status.expect_close()
        self.check_serving()

    def test_a_second_answer_is_nobodys(self):
        settings = self.participant(self.served, "orvtuvosettings")
        first = self.asking("va_set_schedule", {"first": True})
        self.asked(settings, "va_set_schedule")
        settings.answer(0, "2", "the first")
        self.check_answered(first, {"error": "the first"}, -1)
        second = self.asking("va_set_schedule", {"second": True})
        self.asked(settings, "va_set_schedule")
        settings.answer(0, "2", "the first again")
        self.wait_for_exchange(settings)
        self.assertFalse(second.has_input())
        settings.answer(1, "2", "the second")
        self.check_answered(second, {"error": "the second"}, -1)

    def test_one_that_never_answers_is_waited_for_as_long_as_the_setting_says(self):
        self.served.set_setting(TIME_OUT_KEY, "200")
        self.served.restart_daemon()
        settings = self.participant(self.served, "orvtuvosettings")
        clients = [self.asking("va_set_schedule", {}) for _ in range(3)]
        for client in clients:
            self.asked(settings, "va_set_schedule")
            self.check_answered(client, {"error": "timed out"}, -1)
        late = self.asking("va_set_schedule", {})
        self.asked(settings, "va_set_schedule")
        settings.answer(0, "0")  # too late, and not for this one
        self.check_answered(late, {"error": "timed out"}, -1)

    def test_commands_are_answered_while_others_wait(self):
        self.participant(self.served, "orvvad")
        waiting = [self.asking("va_status") for _ in range(50)]
        for _ in range(50):
            self.check_serving()
        self.assertFalse(any(client.has_input() for client in waiting))

    def test_what_nobody_has_subscribed_to_is_unknown(self):
        self.served.orvctl("exchange", "message", "orvbrokerd:no_such_thing", "{}")
        self.served.wait_for_log("unknown no_such_thing event")

    def test_an_event_of_another_signature_is_one_log_line(self):
        other = self.participant(self.served, "test")
        other.do("emit-malformed")
        self.wait_for_exchange(other)
        self.assertEqual(sum("malformed event from" in text for text in self.served.messages()), 1)


class Leaving(Faults):
    def descriptor(self):
        """The descriptor of the client that connected last."""
        connected = [text for text in self.served.messages() if text.startswith("new client socket")]
        return connected[-1].split()[3]

    def leave(self, client):
        before = self.served.descriptors()
        client.close()
        wait_until(lambda: self.served.descriptors() == before - 1, "the daemon has seen it leave")

    def successor(self, of):
        """A client that got the descriptor of one that left."""
        client = Client()
        self.addCleanup(client.close)
        client.call("no_such_command")
        self.assertEqual(self.descriptor(), of)
        return client

    def test_nothing_is_written_to_the_next_client_on_the_same_descriptor(self):
        scanner = self.participant(self.served, "orvvad")
        for number in range(20):
            client = self.asking("va_status")
            self.asked(scanner, "va_scan_status")
            descriptor = self.descriptor()
            self.leave(client)
            following = self.successor(descriptor)
            scanner.answer(number, "0", '{"state": "of another"}')
            self.wait_for_exchange(scanner)
            self.assertFalse(following.has_input())
            self.assertEqual(following.call("get_services_status"), ({"status": 1}, 0))
            following.close()

    def test_the_next_client_on_the_same_descriptor_gets_its_own_answer(self):
        scanner = self.participant(self.served, "orvvad")
        client = self.asking("va_status")
        self.asked(scanner, "va_scan_status")
        descriptor = self.descriptor()
        self.leave(client)
        following = self.successor(descriptor)
        following.send(request("va_status"))
        self.asked(scanner, "va_scan_status")
        scanner.answer(0, "0", '{"state": "of another"}')
        self.wait_for_exchange(scanner)
        self.assertFalse(following.has_input())
        scanner.answer(1, "0", '{"state": "own"}')
        self.check_answered(following, {"state": "own"}, 0)

    def test_the_answer_has_its_effect_without_its_client(self):
        self.device_writer(self.served).put("d1")
        manager = self.participant(self.served, "broker-devmgmt")
        client = self.asking("set_device_name", RENAME)
        self.asked(manager, "set_friendly_name")
        self.leave(client)
        manager.answer(0, "0", "{}")
        self.served.wait_for_log("Set name=new name for device_id=d1")
        self.assertEqual(self.served.setting(GIVEN_NAME_KEY), "new name")

    def test_a_client_may_leave_while_it_waits_for_two(self):
        scanner = self.participant(self.served, "orvvad")
        client = self.asking("va_status")
        self.asked(scanner, "va_scan_status")
        client.send(request("va_status"))
        self.asked(scanner, "va_scan_status")
        self.leave(client)
        scanner.answer(1, "0", "{}")
        scanner.answer(0, "0", "{}")
        self.wait_for_exchange(scanner)
        self.check_serving()

    def test_the_first_of_two_answers_closes_and_the_second_is_dropped(self):
        scanner = self.participant(self.served, "orvvad")
        client = self.asking("va_status")
        self.asked(scanner, "va_scan_status")
        client.send(request("va_status"))
        self.asked(scanner, "va_scan_status")
        scanner.answer(1, "0", '{"a": 2}')
        self.check_answered(client, {"a": 2}, 0)
        scanner.answer(0, "0", '{"a": 1}')
        self.wait_for_exchange(scanner)
        self.check_serving()

    def test_the_daemon_may_stop_while_clients_wait(self):
        scanner = self.participant(self.served, "orvvad")
        clients = [self.asking("va_status") for _ in range(5)]
        for _ in clients:
            self.asked(scanner, "va_scan_status")
        self.served.stop_daemon()
        for client in clients:
            client.expect_close()


class Storm(Faults):
    def test_a_hundred_thousand_events_reach_who_reads_and_fill_one_buffer_of_who_does_not(self):
        batches, batch, size = 100, 1000, 1000
        self.served.stop_daemon()
        self.served.log_level = "1"
        # Freed memory counts as free under a sanitizer, too.
        self.served.start_daemon(ASAN_OPTIONS="quarantine_size_mb=1")
        other = self.participant(self.served, "orvvad")
        with Client() as deaf, Client() as listener:
            deaf.subscribe("va_status_changed")
            listener.subscribe("va_status_changed")
            self.wait_for_subscriptions(other)
            memory = self.served.resident_kib()
            for number in range(batches):
                # A batch fits into a client's buffer, so that nobody who reads can miss anything.
                other.do("storm\tva_status_changed\t%d\t%d\t%d" % (number * batch, batch, size))
                for event in range(number * batch, (number + 1) * batch):
                    self.assertEqual(listener.frame(), str(event).zfill(size))
            self.assertLess(self.served.resident_kib() - memory, 32 * 1024)
            for event in range(batch):
                self.assertEqual(deaf.frame(), str(event).zfill(size))
            self.check_serving()


class Bus(Faults):
    def test_the_daemon_serves_and_comes_back_when_the_bus_restarts_under_load(self):
        load = Load()
        self.addCleanup(load.stop)
        with Client() as subscriber:
            subscriber.subscribe("va_status_changed")
            for number in range(1, 4):
                scanner = self.participant(self.served, "orvvad")
                settings = self.participant(self.served, "orvtuvosettings")
                scanner.emit("va_status_changed", "before")
                self.assertEqual(subscriber.frame(), "before")
                waiting = [self.asking("va_set_schedule", {}) for _ in range(20)]
                unanswerable = [self.asking("va_status") for _ in range(20)]
                for _ in waiting:
                    self.asked(settings, "va_set_schedule")
                    self.asked(scanner, "va_scan_status")
                self.served.kill_bus()
                for client in waiting:
                    self.check_answered(client, {"error": "the exchange is gone"}, -1)
                for client in unanswerable:
                    client.expect_close()
                self.served.start_bus()
                self.served.wait_for_log("back on the exchange", number, deadline=6)
                following = self.participant(self.served, "test")
                following.emit("va_status_changed", "after")
                self.assertEqual(subscriber.frame(), "after")
        load.stop()
        self.assertEqual(load.failure, None)
        self.assertGreater(load.answered, 100)

    def check_answers_and_stop(self):
        """Everybody is answered at once, and so is the signal to stop."""
        end = time.monotonic() + 2.5  # several attempts to reach the bus
        while time.monotonic() < end:
            start = time.monotonic()
            self.check_serving()
            self.assertLess(time.monotonic() - start, 1)
        start = time.monotonic()
        self.served.stop_daemon()
        self.assertLess(time.monotonic() - start, 2)

    def test_a_listener_in_its_place_that_accepts_nobody_holds_up_nobody(self):
        self.served.kill_bus()
        with world.CrowdedListener(os.path.join(self.served.root, "run", "exchange.skt")):
            self.served.wait_for_log("cannot reach the exchange: too many wait for it already")
            self.check_answers_and_stop()

    def test_a_bus_that_is_stopped_holds_up_nobody(self):
        for restart in (False, True):
            if restart:
                self.served.start_daemon()
                self.served.kill_bus()
                self.served.start_bus()
            self.served.bus.send_signal(signal.SIGSTOP)
            self.check_answers_and_stop()
            self.served.bus.send_signal(signal.SIGCONT)

    def test_the_daemon_waits_five_seconds_at_its_start_and_says_for_what(self):
        self.served.stop_daemon()
        self.served.kill_bus()
        with world.CrowdedListener(os.path.join(self.served.root, "run", "exchange.skt")):
            start = time.monotonic()
            self.assertEqual(self.served.end_of(self.served.launch()), 1)
            waited = time.monotonic() - start
        self.assertGreater(waited, 4)
        self.assertLess(waited, 8)
        self.assertIn("cannot reach the exchange: too many wait for it already", self.served.messages())

    def test_a_bus_that_is_away_for_long_is_met_within_six_seconds(self):
        self.served.kill_bus()
        self.turn_away(6)  # the time between two attempts has doubled to its longest by then
        self.served.start_bus()
        self.served.wait_for_log("back on the exchange", deadline=6)
        scanner = self.participant(self.served, "orvvad")
        client = self.asking("va_status")
        self.asked(scanner, "va_scan_status")
        scanner.answer(0, "0", "{}")
        self.check_answered(client, {}, 0)

    def turn_away(self, count):
        """Listens in the bus's place and closes that many connections."""
        path = os.path.join(self.served.root, "run", "exchange.skt")
        os.unlink(path)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
            listener.settimeout(world.DEADLINE)
            listener.bind(path)
            listener.listen()
            for _ in range(count):
                listener.accept()[0].close()
        os.unlink(path)


class Load:
    """Clients, one after the other, that call a command which needs no bus."""

    def __init__(self):
        self.answered = 0
        self.failure = None
        self._is_stopped = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        try:
            while not self._is_stopped.is_set():
                with Client() as client:
                    answer = client.call("get_services_status")
                if answer != ({"status": 1}, 0):
                    raise AssertionError("answered with %r" % (answer,))
                self.answered += 1
        except Exception as failure:  # whatever it is, the test wants to know
            self.failure = failure

    def stop(self):
        self._is_stopped.set()
        self._thread.join(world.DEADLINE)


class Telemetry(Faults):
    def outbox(self):
        lines = self.served.orvctl("telemetry", "list").stdout.splitlines()
        return [json.loads(line) for line in lines]

    def states(self):
        return [event["data"]["agent_state"] for event in self.outbox()]

    def test_it_waits_for_the_agent_and_is_sent_by_the_timer(self):
        with Client() as client:
            client.call("enable_services")
            client.call("disable_services")
        self.assertEqual(self.states(), ["deployed", "activated", "deactivated"])
        self.served.stop_daemon()
        agent = Agent(self.served)
        self.addCleanup(agent.stop)
        self.served.start_daemon()
        self.assertEqual(len(self.outbox()), 3)
        agent.wait_for_log("telemetry event 3: tuvo_agent_status")  # five seconds after the start
        wait_until(lambda: not self.outbox(), "the outbox is empty")

    def test_a_refused_event_stays_and_keeps_its_identifier(self):
        agent = self.participant(self.served, "orvagent")
        with Client() as client:
            client.call("enable_services")
        kind, name, data = agent.receive()
        self.assertEqual((kind, name), ("Request", "telemetry_event"))
        kept = self.outbox()
        self.assertIn(json.loads(data)["id"], [event["id"] for event in kept])
        agent.answer(0, "2", "not today")
        self.wait_for_exchange(agent)
        self.assertEqual(self.outbox(), kept)


if __name__ == "__main__":
    world.main()
