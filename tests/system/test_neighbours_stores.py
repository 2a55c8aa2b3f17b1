"""Whatever becomes of a store, or of a process that uses it, a bystander is served, SIGTERM works, and afterwards all is
as before."""

import os

import bystander
import neighbours
import world
from world import Client


class Rows(world.TestCase):
    """A test for each of the rows of stores and of devices."""


bystander.add_tests(Rows, neighbours.ROWS["stores"] + neighbours.ROWS["devices"])


class Full(world.TestCase):
    def test_what_fills_a_store_to_its_last_page_can_be_deleted(self):
        one = self.world()
        one.start_bus()
        neighbours.with_full_store(one)
        self.assertNotEqual(one.orvctl("settings", "set", "/tmp/more", "x" * 100000).returncode, 0)
        self.assertEqual(one.orvctl("settings", "delete", "/tmp/full").returncode, 0)
        one.set_setting("/tmp/more", "x" * 100000)

    def test_a_hundred_large_online_status_requests_leave_room_for_all_else(self):
        one = self.world()
        one.log_level = "2"
        one.start_bus()
        neighbours.with_leases(one)
        line = neighbours.command("set_device_online_status", {"text": neighbours.LARGE_ONLINE})
        for _ in range(100):
            world.wait_until(lambda: self.is_passed_on(line), "it is passed on")
        queued = os.stat(neighbours.data_file(one, "tmp/settings")).st_size
        self.assertLess(queued, 24 << 20)
        one.set_setting("/tmp/more", "x" * 100000)
        with Client() as client:
            self.assertEqual(client.call("set_router_name", "name"), (None, 0))
        self.assertEqual([text for text in one.messages(level=0) if text.startswith("store ")], [])

    def is_passed_on(self, line):
        """Not always, as the bus takes its time for a megabyte."""
        with Client() as client:
            client.send(line)
            return client.frame() == '{"data": null, "status": 0}'


if __name__ == "__main__":
    world.main()
