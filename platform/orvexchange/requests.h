#pragma once

#include "alarm.h"

#include <orvexchange/orvexchange.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>

namespace orv::exchange {

/// A call that waits for its answer.
struct Request {
    std::uint32_t serial = 0;
    TimePoint deadline;
    std::string participant;
    void (*callback)(void* arg, const Message* response) = nullptr;
    void* arg = nullptr;
};

/// The requests in flight, in the order of sending. All requests of one connection have the same time to be
/// answered in, so this is the order of their deadlines too.
class Requests {
public:
    /// Throws, with nothing changed, when memory is short.
    void add(Request request);
    /// Takes out the one that an answer belongs to, nothing when it is no longer waited for.
    [[nodiscard]] std::optional<Request> take(std::uint32_t serial);
    /// Takes out the oldest one whose deadline has passed.
    [[nodiscard]] std::optional<Request> take_expired(TimePoint now);
    [[nodiscard]] std::list<Request> take_all();
    [[nodiscard]] std::optional<TimePoint> next_deadline() const;
    /// How many are in flight to one participant.
    [[nodiscard]] std::size_t count(const std::string& participant) const;

private:
    void uncount(const std::string& participant);

    std::list<Request> m_requests;
    std::unordered_map<std::uint32_t, std::list<Request>::iterator> m_by_serial;
    std::unordered_map<std::string, std::size_t> m_counts; ///< by participant, none of them 0
};

} // namespace orv::exchange
