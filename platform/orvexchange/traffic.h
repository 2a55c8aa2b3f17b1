#pragma once

#include "wire.h"

#include <orvexchange/publisher.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace orv::exchange {

/// Makes sense of the messages that a monitor sees. Answers name their request only by sender and serial, so
/// the last kMaxRequests requests are remembered.
class TrafficReader {
public:
    static constexpr std::size_t kMaxRequests = 1024;

    /// Nothing for messages that are not the exchange's, or not well-formed. The result points into `message`
    /// and into this reader, until its next call.
    [[nodiscard]] std::optional<OrvexTraffic> read(DBusMessage& message);

private:
    struct Seen {
        std::string sender;
        std::uint32_t serial;
        std::string name;
    };
    [[nodiscard]] std::optional<OrvexTraffic> read_call(DBusMessage& message, OrvexTraffic traffic);
    [[nodiscard]] std::optional<OrvexTraffic> read_reply(DBusMessage& message, OrvexTraffic traffic);

    std::deque<Seen> m_requests;
    Seen m_answered;
};

} // namespace orv::exchange
