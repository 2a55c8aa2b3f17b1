"""What a client sees on the socket, byte for byte."""

import json
import socket
import time

import world
from world import Client


def command(name, data=None):
    """A request line without its line feed; data is JSON text."""
    return '{"type": "command", "name": "%s"%s}' % (name, "" if data is None else ', "data": ' + data)


DONE = '{"data": null, "status": 0}'
FAILED = '{"data": null, "status": -1}'
POKE = " "  # a byte that means nothing in front of a request


class CommandAnswers(world.ServedTestCase):
    def check_answered_and_open(self, request, answer):
        with Client() as client:
            self.assertEqual(client.ask(request), answer, request)
            self.assertEqual(client.ask(command("no_such_command")), DONE)

    def check_answered_and_closed(self, request, answer):
        with Client() as client:
            self.assertEqual(client.ask(request), answer, request)
            client.expect_close()

    def check_closed_without_answer(self, request):
        with Client() as client:
            client.send(request + (b"\n" if isinstance(request, bytes) else "\n"))
            client.expect_close()

    def check_settings(self, conversation):
        """Commands one after the other on one connection, each with its answer and a key's value after it."""
        with Client() as client:
            for request, answer, key, value in conversation:
                self.assertEqual(client.ask(request), answer, request)
                self.assertEqual(self.served.setting(key), value, request)

    def test_services_are_switched_and_their_status_is_told(self):
        key = "/protection/enabled"
        self.check_settings([
            (command("get_services_status"), '{"data": {"status": 1}, "status": 0}', key, None),
            (command("disable_services"), DONE, key, "0"),
            (command("get_services_status"), '{"data": {"status": 0}, "status": 0}', key, "0"),
            (command("enable_services"), DONE, key, "1"),
            (command("get_services_status"), '{"data": {"status": 1}, "status": 0}', key, "1"),
        ])

    def test_a_services_status_of_another_value_is_a_failure(self):
        for value in ("2", "", "true", "01", " 1", "1\n"):
            self.served.set_setting("/protection/enabled", value)
            self.check_answered_and_closed(command("get_services_status"), FAILED)

    def test_pro_features_are_switched(self):
        key = "/protection/pro_features_enabled"
        self.check_settings([
            (command("pro_features_enable"), DONE, key, "1"),
            (command("pro_features_disable"), DONE, key, "0"),
        ])

    def test_the_va_cloud_trigger_takes_booleans_and_integers(self):
        key = "/va/cloud_trigger"
        self.check_settings([
            (command("set_va_cloud_trigger", data), DONE, key, value)
            for data, value in (("true", "1"), ("false", "0"), ("5", "1"), ("0", "0"), ("-1", "1"),
                                ("9223372036854775807", "1"))])

    def test_the_va_cloud_trigger_takes_nothing_else(self):
        for data in ('"1"', "1.0", "null", "[]", "{}", '"true"'):
            self.check_answered_and_closed(command("set_va_cloud_trigger", data), FAILED)
        self.check_answered_and_closed(command("set_va_cloud_trigger"), FAILED)
        self.assertIsNone(self.served.setting("/va/cloud_trigger"))

    def test_scan_messages_are_handed_over(self):
        for name in ("va_start", "va_stop", "va_self_scan_start"):
            self.check_answered_and_open(command(name), DONE)

    def test_a_cloud_registration_takes_an_object_or_an_array(self):
        for data in ("{}", '{"router_id": "r1"}', "[1, 2]"):
            self.check_answered_and_open(command("start_cloud_registration", data), DONE)
        for data in ("null", '"text"', "0", "true"):
            self.check_answered_and_closed(command("start_cloud_registration", data), FAILED)
        self.check_answered_and_closed(command("start_cloud_registration"), FAILED)

    def test_a_scan_status_without_a_scanner_closes_without_an_answer(self):
        # The bus says that there is no such receiver: no JSON, hence nothing that could be handed on.
        self.check_closed_without_answer(command("va_status"))

    def test_an_unknown_command_is_answered_with_success(self):
        for name in ("no_such_command", "", "GET_SERVICES_STATUS", "get_services_status ", "get_services_statu",
                     "subscribe"):
            self.check_answered_and_open(command(name), DONE)

    def test_unneeded_data_and_unknown_members_are_ignored(self):
        self.check_answered_and_open(command("enable_services", '{"a": [1]}'), DONE)
        self.check_answered_and_open('{"x": 1, "name": "enable_services", "type": "command", "y": null}', DONE)

    def test_blanks_around_tokens_do_not_matter(self):
        self.check_answered_and_open('\t {"type"  :\r"command","name":"enable_services"}  \r', DONE)

    def test_a_missing_or_mistyped_name_is_a_failure(self):
        for kind in ("command", "subscribe"):
            for name in ("", ', "name": 5', ', "name": null', ', "name": ["enable_services"]'):
                self.check_answered_and_closed('{"type": "%s"%s}' % (kind, name), FAILED)

    def test_an_unknown_type_is_a_failure(self):
        for kind in ("", "Command", "unsubscribe", "commands"):
            self.check_answered_and_closed('{"type": "%s", "name": "enable_services"}' % kind, FAILED)

    def test_a_missing_or_mistyped_type_closes_without_an_answer(self):
        for request in ('{"name": "enable_services"}', '{"type": 1, "name": "x"}', '{"type": null, "name": "x"}',
                        '{"type": ["command"], "name": "x"}', "{}", "[]", '["command"]'):
            self.check_closed_without_answer(request)
        self.served.wait_for_log("""no 'type' field in json: {"name": "enable_services"}""")
        self.served.wait_for_log("""'type' is not a valid string in json: {"type": 1, "name": "x"}""")

    def test_garbage_closes_without_an_answer(self):
        for request in (b"", b"   ", b"hello", b"{", b"nul", b"5", b'"text"', b"\xff\xfe\x00\x01", b"{}{}",
                        b'{"type": "command", "name": "enable_services"', b"{'type': 'command'}",
                        b'{"type": "command", "name": "\xc3\x28"}', b'{"type": "command", "name": "a\x01"}',
                        command("get_services_status\\u0000").encode()):
            self.check_closed_without_answer(request)
        self.served.wait_for_log("failed to load json: hello")

    def test_deep_nesting_closes_without_an_answer(self):
        for depth in (2049, 100000):
            data = "[" * depth + "]" * depth
            self.check_closed_without_answer(command("set_va_cloud_trigger", data))

    def test_a_nul_byte_ends_the_text_of_its_line(self):
        with Client() as client:
            client.send(command("get_services_status").encode() + b"\0 what follows is not looked at\n")
            self.assertEqual(client.frame(), '{"data": {"status": 1}, "status": 0}')
            self.assertEqual(client.ask(command("no_such_command")), DONE)
        self.check_closed_without_answer(b'{"type": "comm\0and", "name": "enable_services"}')
        self.check_closed_without_answer(b"\0")

    def test_the_length_word_counts_the_text_in_native_byte_order(self):
        with Client() as client:
            client.send(command("get_services_status") + "\n")
            text = b'{"data": {"status": 1}, "status": 0}'
            expected = len(text).to_bytes(4, world.sys.byteorder) + text
            self.assertEqual(client.receive(len(expected)), expected)


class Framing(world.ServedTestCase):
    def settle(self):
        """Has the daemon do all that other clients' input so far gave it to do: it serves in order of arrival."""
        for _ in range(3):
            with Client() as other:
                other.call("no_such_command")

    def test_of_two_requests_in_one_segment_the_second_waits_for_more_bytes(self):
        with Client() as client:
            client.send(command("get_services_status") + "\n" + command("disable_services") + "\n")
            self.assertEqual(client.frame(), '{"data": {"status": 1}, "status": 0}')
            self.settle()
            self.assertFalse(client.has_input())
            self.assertIsNone(self.served.setting("/protection/enabled"))
            client.send(POKE)
            self.assertEqual(client.frame(), DONE)
            self.assertEqual(self.served.setting("/protection/enabled"), "0")

    def test_a_request_is_put_together_from_single_bytes(self):
        with Client() as client:
            for byte in command("get_services_status").encode() + b"\n":
                client.send(bytes([byte]))
            self.assertEqual(client.frame(), '{"data": {"status": 1}, "status": 0}')

    def test_a_request_without_its_line_feed_is_never_processed(self):
        with Client() as client:
            client.send(command("disable_services"))
            self.settle()
            self.assertFalse(client.has_input())
        self.settle()
        self.assertIsNone(self.served.setting("/protection/enabled"))

    def test_half_requests_and_silence_do_not_keep_others_waiting(self):
        silent = [Client() for _ in range(50)]
        for number, client in enumerate(silent):
            if number % 2:
                client.send('{"type": "comm')
        with Client() as client:
            self.assertEqual(client.ask(command("enable_services")), DONE)
        for number, client in enumerate(silent):
            client.send('and", "name": "x"}\n' if number % 2 else command("x") + "\n")
            self.assertEqual(client.frame(), DONE)
            client.close()

    def test_four_mebibytes_without_a_line_feed_close_the_connection(self):
        with Client() as client, Client() as other:
            with self.assertRaises((BrokenPipeError, ConnectionResetError)):
                for _ in range(96):  # 6 MiB
                    client.send(b"x" * 65536)
                    self.assertEqual(other.ask(command("no_such_command")), DONE)
        self.settle()

    def test_a_request_of_nearly_four_mebibytes_is_answered(self):
        with Client() as client:
            request = command("enable_services", '"%s"' % ("x" * (4 * 1024 * 1024 - 200)))
            self.assertEqual(client.ask(request), DONE)

    def test_a_client_that_dies_with_its_answer_pending_harms_nobody(self):
        descriptors = self.served.descriptors()
        for _ in range(50):
            client = Client()
            client.send(command("get_services_status") + "\n")
            client.close()
        for _ in range(20):
            client = Client()
            client.send(command("va_status") + "\n")
            client.close()
        world.wait_until(lambda: self.served.descriptors() == descriptors, "all descriptors are closed")

    def test_a_client_that_only_ends_its_sending_side_is_closed(self):
        with Client() as client:
            client.socket.shutdown(socket.SHUT_WR)
            client.expect_close()

    def test_a_client_that_does_not_read_is_answered_in_full_when_it_does(self):
        requests = 3000
        with Client() as slow, Client() as other:
            for number in range(requests):
                slow.send(command("no_such_command") + "\n")
                if number % 100 == 0:
                    self.assertEqual(other.ask(command("no_such_command")), DONE)
            # Requests that arrived together wait for further bytes: one for each readable event.
            end = time.monotonic() + world.DEADLINE
            for _ in range(requests):
                while not slow.has_input():
                    self.assertLess(time.monotonic(), end)
                    slow.send(POKE)
                    self.settle()
                self.assertEqual(slow.frame(), DONE)
            self.settle()
            self.assertFalse(slow.has_input())


class Subscriptions(world.ServedTestCase):
    def test_any_event_name_can_be_subscribed_to(self):
        for event in ("devices_list_updated", "va_status_changed", "no_such_event", ""):
            with Client() as client:
                client.subscribe(event)
                self.served.wait_for_log("process %s subscription" % event)

    def test_what_a_subscriber_sends_is_discarded(self):
        with Client() as client:
            client.subscribe("no_such_event")
            for text in (command("disable_services") + "\n", "garbage\n", "\n", "x" * 100000):
                client.send(text)
            with Client() as other:
                self.assertEqual(other.ask(command("no_such_command")), DONE)
            self.assertFalse(client.has_input())
        self.served.wait_for_log("unsubscribe from no_such_event")
        self.assertIsNone(self.served.setting("/protection/enabled"))

    def test_a_subscriber_may_send_without_end(self):
        with Client() as client:
            client.subscribe("no_such_event")
            for _ in range(100):  # more than any buffer's bound
                client.send(b"x" * 65536)
            with Client() as other:
                self.assertEqual(other.ask(command("no_such_command")), DONE)
            self.assertFalse(client.has_input())

    def test_a_subscription_without_a_name_is_refused_and_closed(self):
        with Client() as client:
            self.assertEqual(client.ask('{"type": "subscribe"}'), FAILED)
            client.expect_close()

    def test_a_changed_subscription_reaches_each_subscriber_once(self):
        with Client() as first, Client() as second:
            first.subscribe("subscription_changed")
            second.subscribe("subscription_changed")
            self.served.set_setting("/tmp/subscription/global/status", "expired")
            self.served.set_setting("/tmp/subscription/global/expiry", "1700000000")
            self.served.set_setting("/tmp/subscription/refresh", "1")
            for client in (first, second):
                self.assertEqual(json.loads(client.frame()), {"status": "expired", "expiry": 1700000000})
            self.served.set_setting("/tmp/subscription/refresh", "1")
            self.served.wait_for_log('skipping already reported subscription: '
                                     '{"status": "expired", "expiry": 1700000000}')
            self.assertFalse(first.has_input())

    def test_subscription_states_that_are_not_reported(self):
        with Client() as client:
            client.subscribe("subscription_changed")
            for status, expiry, message in (("none", "0", "ignoring status: 'none'"),
                                            ("nonsense", "0", "failed to load subscription data"),
                                            ("valid", "soon", "failed to load subscription data")):
                logged = self.served.messages().count(message)
                self.served.set_setting("/tmp/subscription/global/status", status)
                self.served.set_setting("/tmp/subscription/global/expiry", expiry)
                self.served.set_setting("/tmp/subscription/refresh", "1")
                self.served.wait_for_log(message, logged + 1)
            self.served.set_setting("/tmp/subscription/global/expiry", "0")
            self.served.set_setting("/tmp/subscription/refresh", "1")
            self.assertEqual(client.frame(), '{"status": "valid"}')

    def test_one_leaving_subscriber_takes_all_subscriptions_of_its_event_along(self):
        with Client() as stays:
            stays.subscribe("subscription_changed")
            with Client() as leaves:
                leaves.subscribe("subscription_changed")
            self.served.wait_for_log("unsubscribe from subscription_changed")
            with Client() as late:
                late.subscribe("subscription_changed")
                self.served.set_setting("/tmp/subscription/global/status", "expired")
                self.served.set_setting("/tmp/subscription/global/expiry", "5")
                self.served.set_setting("/tmp/subscription/refresh", "1")
                self.assertEqual(late.frame(), '{"status": "expired", "expiry": 5}')
                self.assertFalse(stays.has_input())


if __name__ == "__main__":
    world.main()
