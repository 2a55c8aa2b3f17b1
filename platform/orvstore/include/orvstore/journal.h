#pragma once

#include <orvstore/transaction.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace orv::store {

/// A tree of an environment that holds the last entries of a log, numbered from 1 on. Writers append in the
/// transaction of the change that they log; every reader keeps its own place and reads on from there.
class Journal {
public:
    /// `tree` is its number in the layout, `capacity` how many entries are kept.
    constexpr Journal(std::size_t tree, std::uint64_t capacity) : m_tree(tree), m_capacity(capacity) {}

    [[nodiscard]] constexpr std::uint64_t capacity() const { return m_capacity; }

    /// Appends an entry and drops the oldest one when there are too many.
    [[nodiscard]] Error append(Write& transaction, std::string_view entry) const;

    /// The place of a reader that has read everything.
    [[nodiscard]] Error end(Transaction& transaction, std::uint64_t& place) const;

    /// Reads at most `limit` entries on from `place` and moves it on. `lost` tells that entries from that
    /// place on are not there any more; nothing is read then and `place` goes to the end.
    [[nodiscard]] Error read(Transaction& transaction, std::uint64_t& place, std::size_t limit,
                             std::vector<std::string>& entries, bool& lost) const;

private:
    std::size_t m_tree;
    std::uint64_t m_capacity;
};

} // namespace orv::store
