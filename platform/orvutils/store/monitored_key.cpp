// A watch compares the key's record with the last snapshot it has looked at. A record carries the number of
// the commit that wrote it, so a present key has changed if that number is higher than the snapshot's; a key
// that is absent now has changed if it was present, or if the journal of removals names it, that is, it came
// and went in between. After the store itself was replaced, numbers say nothing and every key counts as
// changed. A durable key that was written over with its value is named by another journal, in the volatile
// store.

#include "settings_store.h"

#include <orvbase/without_throwing.h>
#include <orvstore/notify.h>
#include <orvutils/log_format.h>

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

namespace orv::detail {

namespace {

using store::Environment;
using store::Read;
using store::Transaction;

constexpr std::size_t kEntriesAtOnce = 64;

/// What a watch has seen so far.
struct Seen {
    unsigned generation = 0; ///< of the environment; 0 before the first look
    std::uint64_t commit = 0;
    std::uint64_t removals = 0; ///< place in their journal
    bool present = false;
};

/// What a watch of a durable key has seen of the rewrites.
struct SeenRewrites {
    unsigned generation = 0; ///< of the volatile environment; 0 before the first look
    std::uint64_t commit = 0;
    std::uint64_t place = 0;
};

class KeyWatch;

std::vector<KeyWatch*>& all_watches()
{
    static auto* watches = new std::vector<KeyWatch*>;
    return *watches;
}

class KeyWatch : public store::notify::Listener {
public:
    using Callback = setMgmt::MonitoredKey::Callback;

    KeyWatch(const char* key, Callback callback, bool notify_now, void* user, bool keep)
        : m_path(key), m_callback(std::move(callback)), m_user(user), m_keep(keep), m_notify_now(notify_now)
    {
    }

    ~KeyWatch() override { cancel(); } // of one that could not be added to the listeners

    /// False when there is nothing to watch or no one to tell.
    bool start()
    {
        if (!m_callback || !m_key.parse(m_path.str()) || m_key.is_root())
            return false;
        m_environment = &settings_environment(m_key);
        store::notify::watch(*m_environment);
        if (!m_key.is_volatile())
            store::notify::watch(volatile_settings());
        (void)has_changed(); // takes the present state for seen
        all_watches().push_back(this);
        m_active = true;
        return true;
    }

    void cancel()
    {
        if (!std::exchange(m_active, false))
            return;
        auto& watches = all_watches();
        watches.erase(std::find(watches.begin(), watches.end(), this));
        store::notify::unwatch(*m_environment);
        if (!m_key.is_volatile())
            store::notify::unwatch(volatile_settings());
        store::notify::remove(*this); // may end this object's life
    }

    void look() override
    {
        if (!m_active)
            return;
        const bool changed = has_changed();
        if (!std::exchange(m_notify_now, false) && !changed)
            return;
        if (!m_callback(m_path, m_user))
            cancel();
    }

    [[nodiscard]] bool is_active() const { return m_active; }
    [[nodiscard]] bool is_kept() const { return m_keep; }

private:
    /// What was found out before memory ran out is found out again.
    bool has_changed()
    {
        const Seen seen = m_seen;
        const SeenRewrites rewrites = m_rewrites;
        try {
            const bool rewritten = !m_key.is_volatile() && was_rewritten(); // both are to be looked at
            return has_record_changed() || rewritten;
        } catch (const std::bad_alloc&) {
            m_seen = seen;
            m_rewrites = rewrites;
            throw;
        }
    }

    bool has_record_changed()
    {
        Read snapshot(*m_environment);
        if (snapshot.error() != Error::none)
            return false; // it is looked at again when the store is back
        const Seen before = m_seen;
        const unsigned generation = m_environment->generation();
        if (generation == before.generation && snapshot.id() == before.commit)
            return false;
        SettingsRecord record;
        const Error error = read_record(snapshot, m_key, record);
        if (error != Error::none && error != Error::no_such_key)
            return false;
        m_seen.generation = generation;
        m_seen.commit = snapshot.id();
        m_seen.present = error == Error::none;
        const bool removed = was_removed(snapshot);
        if (before.generation == 0)
            return false;
        if (generation != before.generation || m_seen.commit < before.commit)
            return true;
        return m_seen.present ? record.commit > before.commit : before.present || removed;
    }

    bool was_removed(Transaction& snapshot) { return is_named(kRemovalJournal, snapshot, m_seen.removals); }

    bool was_rewritten()
    {
        Read snapshot(volatile_settings());
        if (snapshot.error() != Error::none)
            return false;
        const SeenRewrites before = m_rewrites;
        const unsigned generation = volatile_settings().generation();
        if (generation == before.generation && snapshot.id() == before.commit)
            return false;
        m_rewrites.generation = generation;
        m_rewrites.commit = snapshot.id();
        const bool named = is_named(kRewriteJournal, snapshot, m_rewrites.place);
        return before.generation != 0 && (named || generation != before.generation);
    }

    /// Reads on in a journal of keys.
    bool is_named(const store::Journal& journal, Transaction& snapshot, std::uint64_t& place) const
    {
        bool named = false;
        std::vector<std::string> keys;
        do {
            keys.clear();
            bool lost = false;
            if (journal.read(snapshot, place, kEntriesAtOnce, keys, lost) != Error::none)
                return true; // unknown; one notice too many does less harm than one too few
            named = named || lost || std::find(keys.begin(), keys.end(), m_key.bytes()) != keys.end();
        } while (!keys.empty());
        return named;
    }

    path m_path;
    Callback m_callback;
    void* m_user;
    SettingsKey m_key;
    Environment* m_environment = nullptr;
    Seen m_seen;
    SeenRewrites m_rewrites;
    bool m_keep;
    bool m_notify_now;
    bool m_active = false;
};

} // namespace

void settings_opened()
{
    if (!all_watches().empty())
        store::notify::wake(); // the store may have changed while it was closed
}

void settings_closing()
{
    const std::vector<KeyWatch*> watches = all_watches();
    for (KeyWatch* watch : watches)
        if (!watch->is_kept())
            watch->cancel();
}

} // namespace orv::detail

namespace orv::setMgmt {

class MonitoredKey::Watch {
public:
    explicit Watch(std::shared_ptr<detail::KeyWatch> watch) : m_watch(std::move(watch)) {}

    [[nodiscard]] detail::KeyWatch& get() const { return *m_watch; }

private:
    std::shared_ptr<detail::KeyWatch> m_watch; ///< shared with the listeners, which may be calling it
};

MonitoredKey::MonitoredKey(const char* key, Callback callback, bool notify_now, void* user, bool keep)
{
    if (!log::open_channel(log::kORVSetMgmtChannel))
        ORV_LOG(log::kError, "Cannot open log channel {}", log::kORVSetMgmtChannel);
    auto watch = std::make_shared<detail::KeyWatch>(key, std::move(callback), notify_now, user, keep);
    m_watch = std::make_unique<Watch>(watch);
    if (!watch->start())
        return;
    store::notify::add(watch);
    if (notify_now)
        store::notify::wake();
}

MonitoredKey::~MonitoredKey()
{
    cancel();
}

int MonitoredKey::get_fd() const
{
    if (!m_watch->get().is_active())
        return -1;
    // Their copy is to be renewed even if no durable key is watched. Without memory the next call will do.
    (void)base::without_throwing(false, [] {
        detail::durable_settings().look_after();
        return true;
    });
    return store::notify::descriptor();
}

void MonitoredKey::read_notifications()
{
    store::notify::read(); // a callback may destroy this object
}

void MonitoredKey::cancel()
{
    m_watch->get().cancel();
}

} // namespace orv::setMgmt
