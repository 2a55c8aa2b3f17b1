"""Many clients."""

import resource

import world
from world import Client

REQUEST = '{"type": "command", "name": "get_services_status"}\n'
ANSWER = '{"data": {"status": 1}, "status": 0}'


def raise_descriptor_limit(wanted):
    """For this process and the daemon that it starts; the usual soft limit is hardly above 1000."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(wanted, hard) if hard != -1 else wanted, hard))


class ManyClients(world.TestCase):
    def setUp(self):
        super().setUp()
        raise_descriptor_limit(4096)
        self.one = self.world()
        self.one.log_level = "2"
        self.one.start()

    def test_ten_thousand_connections_leave_no_descriptor_behind(self):
        before = self.one.descriptors()
        for number in range(10000):
            client = Client()
            if number % 4 == 1:
                client.send('{"type": "comm')
            elif number % 4 == 2:
                client.send(REQUEST)
            elif number % 4 == 3:
                client.send("garbage\n")
            client.close()
        world.wait_until(lambda: self.one.descriptors() == before, "all connections are closed")

    def test_a_thousand_clients_at_once_are_all_answered(self):
        before = self.one.descriptors()
        clients = [Client() for _ in range(1000)]
        for client in clients:
            client.send(REQUEST)
        for client in clients:
            self.assertEqual(client.frame(), ANSWER)
        for client in reversed(clients):
            client.send(REQUEST)
            self.assertEqual(client.frame(), ANSWER)
        for client in clients:
            client.close()
        world.wait_until(lambda: self.one.descriptors() == before, "all connections are closed")
        self.one.stop_daemon()

    def test_more_clients_than_descriptors_wait_for_their_turn(self):
        limited = self.world()
        self.one.stop_daemon()
        limited.log_level = "2"
        limited.start_bus()
        limited.start_daemon()
        resource.prlimit(limited.daemon.pid, resource.RLIMIT_NOFILE, (limited.descriptors() + 20, 4096))
        clients = [Client() for _ in range(25)]  # the backlog takes what is beyond the limit
        for client in clients:
            client.send(REQUEST)
        limited.wait_for_log("failed to accept client")
        for client in clients:
            self.assertEqual(client.frame(), ANSWER)
            client.close()
        with Client() as client:
            client.send(REQUEST)
            self.assertEqual(client.frame(), ANSWER)


if __name__ == "__main__":
    world.main()
