#pragma once

#include "fake/fake.h"
#include "support/stage.h"

#include "evhandler.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orv::fuzz {

/// The daemon below its main loop, on the fake platform, for one input.
class Stage {
public:
    Stage() = default;
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;
    ~Stage();

    /// A client whose end of the connection is `client`; destroyed with the stage unless it ends before.
    using Peer = test::Stage::Ends;
    Peer connect() { return m_stage->connect(); }
    /// A client that has subscribed to an event.
    Peer subscribe(const std::string& event);

    /// The client sends that and the daemon handles it. False when the connection has ended.
    bool receive(Peer& peer, std::string_view bytes);
    /// The daemon writes what is pending, and the client takes it; checks the framing as far as it goes.
    bool drain(Peer& peer);
    void read_exchange();

    fake::Fake platform;

private:
    bool handle(Peer& peer, unsigned events);

    std::optional<test::Stage> m_stage{platform};
};

/// Ends the program when a rule does not hold, so that the fuzzer sees it.
void require(bool holds, const char* rule);

} // namespace orv::fuzz
