"""Telemetry where its outbox cannot be used: the daemon starts and serves, and events are sent all the same."""

import os

import world
from test_agentsim import Agent
from world import Client, wait_until

UNKEPT = "telemetry: events are sent without being kept: "


class WithoutOutbox(world.TestCase):
    def serve(self, one):
        one.start_bus()
        agent = Agent(one)
        self.addCleanup(agent.stop)
        one.start_daemon()
        return agent

    def test_what_stands_in_its_place_keeps_the_daemon_from_nothing_and_it_is_used_when_it_can_be(self):
        one = self.world()
        os.makedirs(os.path.join(one.root, "var"), exist_ok=True)
        obstacle = os.path.join(one.root, "var", "telemetry")
        with open(obstacle, "w") as file:
            file.write("in the way")
        agent = self.serve(one)
        with Client() as client:
            self.assertEqual(client.call("disable_services"), (None, 0))
        agent.wait_for_log("telemetry event 2: tuvo_agent_status")  # the first one told of the first start
        self.assertEqual(one.messages().count(UNKEPT + obstacle + ": cannot create the directory: Not a directory"), 1)
        self.assertEqual(one.log().count(UNKEPT), 1)
        self.assertNotIn("Could not read old events from file", one.log())
        os.remove(obstacle)

        def is_used():
            with Client() as client:
                client.call("enable_services")
            return "telemetry: the outbox is there, events are kept again" in one.log()

        wait_until(is_used, "events are kept again")
        wait_until(lambda: one.orvctl("telemetry", "list").stdout == "", "the outbox is empty")


if __name__ == "__main__":
    world.main()
