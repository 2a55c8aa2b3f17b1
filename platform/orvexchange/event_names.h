#pragma once

#include <orvexchange/orvexchange.h>

#include <cstddef>
#include <vector>

namespace orv::exchange {

/// The events that a participant receives: names of at most kOrvexMaxName bytes, in order, each once. Up to
/// kSure of them are taken without any memory, so that no list that a daemon gives gets lost.
class EventNames {
public:
    struct Name {
        char text[kOrvexMaxName + 1];
    };

    static constexpr std::size_t kSure = 16;

    EventNames() { m_names.reserve(kSure); }

    /// Takes a list in the place of the last one; with an exception for lack of memory the last one stays.
    void assign(const char* const* names, std::size_t count);
    [[nodiscard]] bool contains(const char* name) const;

    [[nodiscard]] auto begin() const { return m_names.begin(); }
    [[nodiscard]] auto end() const { return m_names.end(); }

private:
    std::vector<Name> m_names;
};

} // namespace orv::exchange
