#pragma once

// A bounded multimap whose entries expire by age, as a filter for things seen lately.
//
// Expiry is lazy: an entry that has passed its lifetime still counts as existing until an add() finds the
// cache full; only then are the expired ones dropped. So a cache that never fills costs no bookkeeping at
// all.

#include <orvutils/log_format.h>

#include <atomic>
#include <ctime>
#include <iterator>
#include <list>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace orv {

/// The clock of a cache: seconds since 1970.
struct CacheClock {
    static std::time_t now() { return std::time(nullptr); }
};

/// Holds at most `capacity` pairs of a key and a value; the same pair may be held more than once. Guarded by
/// a mutex of its own. `Clock` is for tests.
template <typename K, typename V, typename Clock = CacheClock>
class Cache {
public:
    /// `lifetime`: age in seconds at which an entry may be dropped.
    Cache(unsigned capacity, int lifetime) : m_capacity(capacity), m_lifetime(lifetime) {}

    /// Appends the pair, dropping expired entries if there is no room. False when there is still none.
    [[nodiscard]] bool add(const K& key, const V& value)
    {
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (!make_space())
            return false;
        m_entries[key].push_back({value, Clock::now()});
        ++m_count;
        return true;
    }

    /// Whether the key holds an entry of that value, expired or not.
    [[nodiscard]] bool exists(const K& key, const V& value) const
    {
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        const auto found = m_entries.find(key);
        if (found == m_entries.end())
            return false;
        for (const Entry& entry : found->second)
            if (entry.value == value)
                return true;
        return false;
    }

    /// Entries held, expired ones included. May be read without the mutex.
    [[nodiscard]] unsigned count() const { return m_count; }

private:
    struct Entry {
        V value;
        std::time_t added = 0;
    };

    bool make_space()
    {
        if (m_capacity > m_count)
            return true;
        remove_expired();
        if (m_capacity > m_count)
            return true;
        ORV_LOG(log::kWarning, "Could not add entry in cache. Cache is full");
        return false;
    }

    void remove_expired()
    {
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        const std::time_t now = Clock::now();
        unsigned count = 0;
        for (auto it = m_entries.begin(); it != m_entries.end();) {
            auto& values = it->second;
            values.remove_if([&](const Entry& entry) { return now - entry.added >= m_lifetime; });
            count += static_cast<unsigned>(values.size());
            it = values.empty() ? m_entries.erase(it) : std::next(it);
        }
        m_count = count;
    }

    const unsigned m_capacity;
    std::atomic<unsigned> m_count{0};
    const int m_lifetime;
    std::unordered_map<K, std::list<Entry>> m_entries; ///< per key, oldest first
    mutable std::recursive_mutex m_mutex;
};

} // namespace orv
