#pragma once

#include "copy.h"

#include <cstdint>
#include <memory>
#include <string>

namespace orv::store {

/// Keeps the copy of a store's data file that takes its place when it is damaged. One process at a time renews
/// it, a piece per call, and only when there is something new.
class CopyKeeper {
public:
    explicit CopyKeeper(const Layout& layout) : m_layout(layout) {}

    /// To be called now and then.
    void look_after(Opened& opened, const std::string& directory);
    /// The store is closed, or going to be.
    void forget() { m_copy.reset(); }

private:
    [[nodiscard]] bool is_due(const Opened& opened, const std::string& directory);
    void go_on(Opened& opened, const std::string& directory);
    void note_result(bool has_failed);

    const Layout& m_layout;
    std::unique_ptr<Copy> m_copy;
    std::uint64_t m_commit = 0;   ///< the last one that was seen
    std::int64_t m_commit_ms = 0; ///< when it was seen first
    std::int64_t m_looked_ms = 0; ///< when the copy was looked at last
    bool m_has_failed = false;
};

} // namespace orv::store
