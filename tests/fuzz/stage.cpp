#include "stage.h"

#include "orvbrokerd.h"
#include "orvex.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace orv::fuzz {

using fake::Fake;

void require(bool holds, const char* rule)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", rule);
    std::abort();
}

Stage::~Stage()
{
    m_stage.reset();
    require(brokerd::g_client_subscriptions.empty(), "no table names a connection that is gone");
    require(brokerd::g_exchange_subscriptions.empty(), "no table names a connection that is gone");
}

Stage::Peer Stage::subscribe(const std::string& event)
{
    Peer peer = connect();
    require(receive(peer, test::subscription(event) + "\n") && drain(peer), "a client can subscribe");
    return peer;
}

bool Stage::receive(Peer& peer, std::string_view bytes)
{
    {
        const Fake::Paused paused;
        if (send(peer.client, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
            return true; // the daemon has not taken the earlier ones yet
    }
    return handle(peer, EPOLLIN);
}

bool Stage::drain(Peer& peer)
{
    std::vector<char> taken(65536);
    while (peer.conn->tx.pending() > 0) {
        if (!handle(peer, EPOLLOUT))
            return false;
        const Fake::Paused paused;
        while (recv(peer.client, taken.data(), taken.size(), MSG_DONTWAIT) > 0) {
        }
    }
    return true;
}

bool Stage::handle(Peer& peer, unsigned events)
{
    if (brokerd::process_client_events(peer.conn, events, brokerd::epollfd) >= 0)
        return true;
    test::Stage::destroy(peer.conn);
    const Fake::Paused paused;
    close(peer.client);
    peer = {nullptr, -1};
    return false;
}

void Stage::read_exchange()
{
    (void)orvex_read_fd(brokerd::orvex); // fuzzed input may end it in any way
    platform.take_calls();
    platform.take_logs();
}

} // namespace orv::fuzz
