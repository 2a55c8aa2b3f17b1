#pragma once

#include "copy.h"

#include <cstdint>
#include <memory>
#include <string>

namespace orv::store {

/// Keeps the copy of a store's data file that takes its place when it is damaged. One process at a time renews
/// it, and only when there is something new: a piece per call, or all at once where the store is small or is
/// never left alone.
class CopyKeeper {
public:
    explicit CopyKeeper(const Layout& layout) : m_layout(layout) {}

    /// To be called now and then.
    void look_after(Opened& opened, const std::string& directory);
    /// The store is closed, or going to be.
    void forget() { m_copy.reset(); }

private:
    enum class Due { not_yet, in_pieces, at_once };

    [[nodiscard]] Due due(Opened& opened, const std::string& directory);
    void go_on(Opened& opened, const std::string& directory);
    void make_at_once(Opened& opened, const std::string& directory);
    void finish(Opened& opened, Copy::Progress result);

    const Layout& m_layout;
    std::unique_ptr<Copy> m_copy;
    std::uint64_t m_commit = 0;   ///< the last one that was seen
    std::int64_t m_commit_ms = 0; ///< when it was seen first
    std::int64_t m_looked_ms = 0; ///< when the copy was looked at last
    Copy::Progress m_last_result = Copy::Progress::done;
};

} // namespace orv::store
