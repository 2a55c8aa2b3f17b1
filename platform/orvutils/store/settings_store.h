#pragma once

#include "settings_key.h"

#include <orvstore/journal.h>
#include <orvstore/transaction.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// How the settings store is laid out, for the sources that work on it.
///
/// There are two environments: one for the keys from "/tmp" down, one for all others. The tree of values maps
/// a key to a record: the number of the commit that wrote it, then the value. The numbers tell a watcher
/// which keys were written since it looked last; removed keys are in the journal of removals, and durable keys
/// that were written over with the value that they had are in the volatile environment's journal of rewrites.
namespace orv::detail {

enum SettingsTree : std::size_t {
    kValues,
    kRemovals,
    kRewrites, ///< in the volatile environment only
};

/// Removals that a watcher can lag behind; beyond that it takes its key, if it is not there, for changed.
constexpr store::Journal kRemovalJournal{kRemovals, 512};

/// A durable key whose value is written over with itself is only told of, here, as that must not wear the
/// flash.
constexpr store::Journal kRewriteJournal{kRewrites, 512};

[[nodiscard]] store::Environment& settings_environment(const SettingsKey& key);
[[nodiscard]] store::Environment& durable_settings();
[[nodiscard]] store::Environment& volatile_settings();

/// Tells whoever watches these durable keys that they were written, without writing them.
[[nodiscard]] Error tell_rewrites(const std::vector<std::string>& keys);

struct SettingsRecord {
    std::uint64_t commit = 0;
    std::string_view value;
};

/// Looks a key up in a snapshot of its environment. Error::no_such_key when it has no value.
[[nodiscard]] Error read_record(store::Transaction& transaction, const SettingsKey& key,
                                SettingsRecord& record);

/// To be called when the store was opened or is going to be closed, for the monitored keys.
void settings_opened();
void settings_closing();

} // namespace orv::detail
