// What a client can send: any bytes, in pieces of any size. Whatever it is, the daemon answers with whole
// frames or ends the connection, and a client beside it is served as always.

#include "stage.h"

#include <sys/socket.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>

using namespace orv::fuzz;

namespace {

constexpr char kQuestion[] = "{\"type\":\"command\",\"name\":\"get_services_status\"}\n";

void expect_service(Stage& stage)
{
    Stage::Peer peer = stage.connect();
    require(stage.receive(peer, kQuestion), "another client is served");
    require(peer.conn->tx.pending() > 4, "another client is answered");
    require(stage.drain(peer), "another client stays connected");
    close(peer.client);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 1)
        return 0;
    const std::size_t piece = 1 + data[0];
    std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);

    Stage stage;
    Stage::Peer peer = stage.connect();
    bool alive = true;
    while (alive && !rest.empty()) {
        alive = stage.receive(peer, rest.substr(0, piece)) && stage.drain(peer);
        rest.remove_prefix(std::min(piece, rest.size()));
        stage.platform.take_calls();
        stage.platform.take_logs();
    }
    // Answers from the exchange may end the connection, or find it gone.
    while (!stage.platform.requests.empty()) {
        stage.platform.answer(size % 2 == 0 ? "{\"state\": \"idle\"}" : "no JSON", size % 3 == 0 ? "2" : "0");
        stage.read_exchange();
    }
    expect_service(stage);
    if (alive)
        close(peer.client);
    return 0;
}
