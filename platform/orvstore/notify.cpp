// LMDB writes the data file with write calls, the meta page that makes a commit last of all. So inotify tells
// of a commit without the writer's help, and even of one whose writer was killed right after it. Writers have
// nothing to do.
//
// An event says only that something may have changed: listeners compare what they see with what they have
// seen. Hence nothing is lost when events are merged or the queue overflows, and nothing is told twice. A
// reading that ends half-way for lack of memory is begun again, a while later.

#include <orvstore/notify.h>

#include <orvbase/clock.h>
#include <orvbase/descriptor.h>
#include <orvbase/io.h>
#include <orvbase/without_throwing.h>

#include <sched.h>
#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace orv::store::notify {

namespace {

constexpr std::uint32_t kEvents = IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;

constexpr int kMaxYields = 100;
constexpr std::int64_t kAgainMs = 100;         ///< between two readings that find no memory
const std::string kNoMemory = "out of memory"; ///< made while there is some

struct Watched {
    Environment* environment;
    int users;
    int watch;           ///< inotify's number, -1 for none
    unsigned generation; ///< of the environment, when the watch was made
};

class Hub {
public:
    int descriptor()
    {
        const auto has_news = [this] { return maintain() || has_caught_up() || is_to_read_again(); };
        if (open() && base::without_throwing(false, has_news)) // without memory the next call will do
            wake();
        return fd();
    }

    void watch(Environment& environment)
    {
        if (Watched* known = find(environment)) {
            ++known->users;
            return;
        }
        m_watched.push_back({&environment, 1, -1, 0});
        if (open())
            (void)maintain();
    }

    void unwatch(Environment& environment)
    {
        Watched* known = find(environment);
        if (!known || --known->users > 0)
            return;
        drop(*known);
        m_watched.erase(m_watched.begin() + (known - m_watched.data()));
    }

    void add(std::shared_ptr<Listener> listener) { m_listeners.emplace(++m_last_id, std::move(listener)); }

    void remove(const Listener& listener)
    {
        const auto found = std::find_if(m_listeners.begin(), m_listeners.end(),
                                        [&](const auto& entry) { return entry.second.get() == &listener; });
        if (found != m_listeners.end())
            m_listeners.erase(found);
    }

    /// Removing a watch queues an event of its own, in this descriptor only.
    void wake()
    {
        if (!open())
            return;
        const int watch = inotify_add_watch(fd(), "/", IN_DELETE_SELF);
        if (watch < 0 || inotify_rm_watch(fd(), watch) < 0)
            complain("cannot wake up the notification descriptor");
    }

    void read()
    {
        if (m_is_reading)
            return;
        m_is_reading = true;
        m_read_ms = base::coarse_now_ms();
        m_is_unfinished = !base::without_throwing(false, [this] {
            drain();
            (void)maintain();
            catch_up();
            call_listeners();
            return true;
        });
        m_is_reading = false;
        if (m_is_unfinished && !m_watched.empty())
            m_watched.front().environment->report(Severity::error, kNoMemory);
    }

private:
    bool is_to_read_again()
    {
        if (!m_is_unfinished || m_is_reading || base::coarse_now_ms() - m_read_ms < kAgainMs)
            return false;
        m_read_ms = base::coarse_now_ms();
        return true;
    }

    /// Whether all that has been committed can be seen by now.
    bool all_is_visible()
    {
        m_is_behind = false;
        for (const Watched& watched : m_watched)
            m_is_behind = !watched.environment->catch_up() || m_is_behind;
        return !m_is_behind;
    }

    /// A writer that has lost the processor right before it makes its commit visible is given it, again and
    /// again, with all else in the caller's loop in between. One that is stopped there is asked about when
    /// the descriptor is.
    void catch_up()
    {
        if (all_is_visible()) {
            m_yields = 0;
        } else if (m_yields < kMaxYields) {
            ++m_yields;
            (void)sched_yield(); // cannot fail
            wake();
        }
    }

    bool has_caught_up() { return m_is_behind && all_is_visible(); }

    bool open()
    {
        if (m_inotify.is_open())
            return true;
        m_inotify = base::Descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (!m_inotify.is_open() && !m_has_failed)
            complain("cannot open the notification descriptor");
        m_has_failed = !m_inotify.is_open();
        return m_inotify.is_open();
    }

    [[nodiscard]] int fd() const { return m_inotify.get(); }

    /// What concerns all stores is told by the one that was watched first.
    void complain(const std::string& what) const
    {
        const char* reason = std::strerror(errno);
        if (!m_watched.empty())
            m_watched.front().environment->report(Severity::error, what + ": " + reason);
    }

    Watched* find(const Environment& environment)
    {
        for (Watched& watched : m_watched)
            if (watched.environment == &environment)
                return &watched;
        return nullptr;
    }

    void drop(Watched& watched) const
    {
        if (watched.watch >= 0)
            (void)inotify_rm_watch(fd(), watched.watch); // fails when the file is gone, and the watch with it
        watched.watch = -1;
    }

    /// Watches the data files that are open now. Tells whether that has changed anything.
    bool maintain()
    {
        bool changed = false;
        for (Watched& watched : m_watched) {
            watched.environment->look_after();
            const unsigned generation = watched.environment->generation();
            if (generation == watched.generation && (generation == 0 || watched.watch >= 0))
                continue;
            drop(watched);
            if (generation != 0)
                changed = add_watch(watched) || changed;
            watched.generation = generation;
        }
        return changed;
    }

    bool add_watch(Watched& watched)
    {
        const std::string& file = watched.environment->data_file();
        watched.watch = inotify_add_watch(fd(), file.c_str(), kEvents);
        if (watched.watch < 0 && watched.generation != watched.environment->generation())
            watched.environment->report(Severity::error,
                                        "cannot watch " + file + ": " + std::strerror(errno));
        return watched.watch >= 0;
    }

    void drain()
    {
        alignas(inotify_event) std::array<char, 4096> buffer{};
        for (;;) {
            const ssize_t size = base::read_some(fd(), buffer.data(), buffer.size());
            if (size <= 0)
                return; // empty, or not open
            for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
                inotify_event event{};
                std::memcpy(&event, buffer.data() + at, sizeof event);
                note(event);
                at += sizeof event + event.len;
            }
        }
    }

    void note(const inotify_event& event)
    {
        if ((event.mask & (IN_MODIFY | IN_Q_OVERFLOW)) == event.mask)
            return;
        for (Watched& watched : m_watched) {
            if (watched.watch != event.wd)
                continue;
            if ((event.mask & IN_IGNORED) != 0)
                watched.watch = -1;
            watched.environment->refresh(); // deleted, moved away or replaced
        }
    }

    void call_listeners()
    {
        const std::uint64_t last = m_last_id; // those that are added now have seen the present state
        for (auto next = m_listeners.begin(); next != m_listeners.end() && next->first <= last;) {
            const auto [id, listener] = *next;
            listener->look();
            next = m_listeners.upper_bound(id);
        }
    }

    base::Descriptor m_inotify;
    bool m_has_failed = false;
    bool m_is_reading = false;
    bool m_is_unfinished = false; ///< the last reading has ended half-way
    std::int64_t m_read_ms = 0;   ///< when it began
    bool m_is_behind = false;     ///< a commit is in the file and cannot be seen yet
    int m_yields = 0;             ///< for its writer
    std::vector<Watched> m_watched;
    std::uint64_t m_last_id = 0;
    std::map<std::uint64_t, std::shared_ptr<Listener>> m_listeners;
};

/// Lives as long as the process, beyond every static object that may still listen.
Hub& hub()
{
    static auto* instance = new Hub;
    return *instance;
}

} // namespace

int descriptor()
{
    return hub().descriptor();
}

void watch(Environment& environment)
{
    hub().watch(environment);
}

void unwatch(Environment& environment)
{
    hub().unwatch(environment);
}

void add(std::shared_ptr<Listener> listener)
{
    hub().add(std::move(listener));
}

void remove(const Listener& listener)
{
    hub().remove(listener);
}

void wake()
{
    hub().wake();
}

void read()
{
    hub().read();
}

} // namespace orv::store::notify
