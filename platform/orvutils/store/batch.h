#pragma once

#include "settings_key.h"

#include <orvstore/transaction.h>

#include <optional>
#include <string>
#include <vector>

namespace orv::detail {

/// The writes of a setMgmt::Batch: a transaction per environment, begun with the first write to it.
class OpenBatch {
public:
    /// The transaction of one environment; null, with the reason, when it cannot be had.
    [[nodiscard]] store::Write* to_write(store::Environment& environment, Error& error);
    /// The same for reading what is in it; null when nothing was written there.
    [[nodiscard]] store::Transaction* to_read(const store::Environment& environment);

    /// A write has failed in a way that leaves the transactions in doubt: nothing of the batch is kept.
    void fail() { m_has_failed = true; }

    /// Keeps in mind that a value was written over with itself.
    void note_rewrite(const SettingsKey& key);

    [[nodiscard]] Error commit();

private:
    struct Part {
        const store::Environment* environment = nullptr;
        std::optional<store::Write> transaction;
        /// Why it could not be begun. What comes later is refused as well: it is only the rest of what
        /// belongs together.
        Error refusal = Error::none;
    };

    Part m_durable;
    Part m_volatile;
    std::vector<std::string> m_rewrites;
    bool m_has_failed = false;
};

/// The batch that is being written in this process; null for none.
[[nodiscard]] OpenBatch* open_batch();

/// Drops it.
void drop_batch();

} // namespace orv::detail
