#pragma once

#include <orvbase/error.h>
#include <orvstore/failure.h>
#include <orvstore/usage.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// The outbox: telemetry events that the agent has not confirmed yet, on disk. Every change is on disk when
/// the function returns.
namespace orv::karma::outbox {

constexpr std::size_t kMaxEvents = 1000;
constexpr std::size_t kMaxIdSize = 255;
constexpr std::size_t kMaxEventSize = std::size_t{256} * 1024;

[[nodiscard]] Error open();
/// The same. When it fails, the reason is not logged, but for whom it waited is.
[[nodiscard]] Error try_to_open();
[[nodiscard]] bool is_open();
/// Why open() has failed.
[[nodiscard]] const store::Failure& failure();
/// How full the store is.
[[nodiscard]] Error measure(store::Usage& usage);
void close();

struct Entry {
    std::string id;
    std::string text; ///< the event as JSON
};

/// All entries, no more than kMaxEvents, in the order of their ids, which is that of their making.
[[nodiscard]] Error read(std::vector<Entry>& entries);

/// The id of the last entry; Error::no_such_key when the outbox is empty.
[[nodiscard]] Error last_id(std::string& id);

/// Adds an event unless its id is there already. When there is no room the oldest ones go, with a log line.
[[nodiscard]] Error put(std::string_view id, std::string_view text);

/// Removes events, all with one wait for the disk; it is no error when some are not there.
[[nodiscard]] Error remove(const std::vector<std::string_view>& ids);

/// Removes all events.
[[nodiscard]] Error clear();

} // namespace orv::karma::outbox
