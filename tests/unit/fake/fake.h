#pragma once

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvexchange/orvexchange.h>
#include <orvutils/featureutl.h>
#include <orvutils/locking.h>
#include <orvutils/setmgmt.h>

#include <jansson.h>

#include <sys/epoll.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <iosfwd>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

// A platform that remembers what the daemon asked of it, in order, and does as a test tells it to.
//
// Every call of a platform function, and every system call that the daemon makes by itself, becomes one short
// text: "setMgmt::init()", "epoll_ctl(ADD, stop, IN)". Descriptors stand there by the name of what they are
// for. Any call can be made to fail, chosen by its text or by counting. Descriptors are real ones (eventfd in
// place of timers, stop pipe, exchange and settings watch), so that epoll works as always; only waiting is
// scripted: each epoll_wait() takes the next entry of a test's script, and when that is used up the daemon is
// asked to stop.

namespace orv::fake {

using Calls = std::vector<std::string>;

/// One line of the log, without its fixed-width area.
struct LogLine {
    int level = 0;
    std::string text; ///< the message, without the line's own line feed
    std::string file; ///< where it was logged
    std::string function;
    std::size_t cut = 0; ///< how long the message was of which `text` is the beginning; 0 when it is whole

    /// A message that was cut is equal to the whole one.
    friend bool operator==(const LogLine& a, const LogLine& b);
};
using Logs = std::vector<LogLine>;
std::ostream& operator<<(std::ostream& out, const LogLine& line);

/// A ready descriptor of a scripted batch, by name or by number.
struct Ready {
    Ready(std::string descriptor, unsigned mask) : name(std::move(descriptor)), events(mask) {}
    Ready(int number, unsigned mask) : fd(number), events(mask) {}

    std::string name;
    int fd = -1;
    unsigned events;
};

/// A request that the daemon has sent and nobody has answered.
struct Request {
    unsigned number = 0; ///< in the order of sending, from 1
    std::string name;
    std::string data;
    void (*callback)(void*, const Message*) = nullptr;
    void* arg = nullptr;
};

/// What on_dev_info_change callbacks are registered with.
struct ChangeCallback {
    std::vector<std::string> fields;
    devMgmt::DevInfoChangeCallback callback;
    int number; ///< in the order of registration, from 1
};

/// The platform of one test. The one that was made last is in force; without any, calls reach Linux
/// unchanged.
class Fake {
public:
    Fake();
    Fake(const Fake&) = delete;
    Fake& operator=(const Fake&) = delete;
    ~Fake();

    /// Null when none is in force, or while it is paused.
    static Fake* current();

    /// What is done while one of these lives is the test's own doing: neither recorded nor made to fail.
    class Paused {
    public:
        Paused();
        Paused(const Paused&) = delete;
        Paused& operator=(const Paused&) = delete;
        ~Paused();
    };

    /// Where the daemon's own code runs: only there `new` with exceptions can be made to fail. Tests hold one
    /// around their calls into the daemon, the fake around its callbacks; while it does its own work it holds
    /// a Calm.
    class Inside {
    public:
        Inside();
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;
        ~Inside();

    private:
        bool m_before;
    };
    class Calm {
    public:
        Calm();
        Calm(const Calm&) = delete;
        Calm& operator=(const Calm&) = delete;
        ~Calm();

    private:
        bool m_before;
    };
    [[nodiscard]] static bool is_inside();

    // ---- what the daemon did

    /// The calls since the last time.
    Calls take_calls();
    /// The lines logged since the last time.
    Logs take_logs();
    /// How many calls that can fail were made since the beginning.
    [[nodiscard]] std::size_t fallible_calls() const { return m_fallible; }
    /// How many calls and requests for memory were made to fail since the beginning.
    [[nodiscard]] std::size_t failed() const { return m_failed; }
    /// The texts of these calls.
    [[nodiscard]] const Calls& fallible() const { return m_fallible_texts; }
    /// The texts of the calls that were made to fail since the last time.
    Calls take_failed();

    /// The descriptor of that name, also when it is closed by now; -1 for a name that was never given.
    [[nodiscard]] int fd(const std::string& name) const;
    [[nodiscard]] std::string name(int fd) const;
    void name_fd(int fd, const std::string& name);

    // ---- what fails

    /// Calls whose text begins with `call` fail: only the `occurrence`-th from now on, or each from that one
    /// on. `error` is errno and the platform's error number; 0 stands for EIO and 2.
    void fail(std::string call, int occurrence = 1, int error = 0);
    void fail_from(std::string call, int occurrence = 1, int error = 0);
    /// Nothing fails any more by its text. False when something that was to fail never came.
    [[nodiscard]] bool forget_failures();
    /// The n-th call (from 1, since the beginning) fails of those that can; 0 for none. `onwards`: all later
    /// ones too.
    void fail_nth(std::size_t n, bool onwards = false);
    /// The n-th request for memory of a kind from now on gets none, 0 for never: "malloc", "realloc",
    /// "strdup", "new" (that without exceptions), "throwing new" (of any kind) or "JSON" (jansson's, and that
    /// of a text that grows). Only the code of the daemon and of the platform's values is meant, not that of
    /// other libraries; "watch" is what the library throws from making the settings watch and from asking it
    /// for its descriptor. `onwards`: all later ones too.
    void fail_memory(const std::string& kind, unsigned n = 1, bool onwards = false);
    /// Whether that has happened.
    [[nodiscard]] bool memory_failed(const std::string& kind) const;
    /// Requests for more bytes than that, of all these kinds, get none.
    void fail_memory_above(std::size_t size) { m_most_memory = size; }
    void fail_json_allocation(unsigned n, bool onwards = false) { fail_memory("JSON", n, onwards); }
    [[nodiscard]] bool json_allocation_failed() const { return memory_failed("JSON"); }

    // ---- the script of waiting; entries run with the fake paused

    /// At the next wait: does that, then gives what is ready, without waiting.
    void on_wait(std::function<void()> action);
    /// At the next wait: gives exactly this batch, after doing that.
    void on_wait_give(std::vector<Ready> batch, std::function<void()> action = nullptr);
    /// At the next wait: fails with that errno.
    void on_wait_fail(int error);

    /// At each wait for which there is no entry, when nothing is ready: does that, and stops the daemon when
    /// it is false. `patience` is how often something may be ready in a row; then the second function is
    /// called.
    void on_idle(std::function<bool()> action, int patience, std::function<void()> out_of_patience);

    // ---- descriptors that become readable

    void raise_stop();
    void expire(const std::string& timer);
    void notify_watch();

    // ---- the stores

    /// Which of them are open, as the calls of their init() and uninit() have it.
    bool settings_are_open = false;
    bool devices_are_open = false;
    bool outbox_is_open = false;

    std::map<std::string, std::string> settings; ///< by keys as "/a/b"
    std::map<std::string, int> setting_errors;   ///< keys whose every use fails with that error number
    std::optional<std::map<std::string, std::string>> before_batch; ///< the settings, while there is a batch
    const setMgmt::Batch* open_batch = nullptr;                     ///< the outermost that is not committed
    std::map<std::string, unsigned> locked;                         ///< keys that are locked, and how often
    std::optional<std::vector<featureutl::Feature>> features; ///< what is listed, none for all that there are
    std::set<featureutl::Feature> stubborn_features;          ///< keep their state whatever it is set to
    std::map<std::string, devMgmt::Device> devices;
    std::list<ChangeCallback> change_callbacks;
    std::vector<std::string> outbox; ///< telemetry events as JSON texts
    std::optional<std::string> release_version = "1.2.3";
    std::string patch_version = "4";
    std::string root;              ///< directory of the common paths, which have their numbers as names
    std::time_t now = 1700000000;  ///< what time() gives
    std::optional<uid_t> peer_uid; ///< who connects; none for this process's own user

    /// Something that happens during the next reading of the settings watch, which is readable at once.
    void notify_watch(std::function<void()> action);
    /// Tells the registered callbacks of a change, as the device library would.
    void change_device(devMgmt::DevInfoChangeType type, const devMgmt::Device& device,
                       const std::string& field);

    // ---- the exchange

    std::vector<Request> requests; ///< in flight
    std::vector<std::string> subscribed;

    /// A handle without start-up.
    Orvex* connect(void (*callback)(const Message*));
    /// An event, which arrives with the next reading of the exchange. It has an identifier in any case: 0 for
    /// one that is made up.
    void deliver(const std::string& type, const std::string& data, std::uint64_t id = 0,
                 const std::string& from = "orvagent");
    /// As after a reconnection: the exchange's descriptor is another one, under the same name.
    void renew_exchange_fd();
    /// Something that happens during the next reading of the exchange.
    void deliver(std::function<void()> action);
    /// The answer to the oldest request in flight, which arrives with the next reading of the exchange.
    void answer(const std::string& data, const std::string& type = "0");
    /// The same for the oldest event of telemetry.
    void answer_event(const std::string& type = "0");

    // ---- for the parts of the fake

    void note(std::string text);
    /// Records a call that can fail; true when it has to, with errno and error number set.
    bool fails(std::string text);
    [[nodiscard]] int error() const { return m_error; }
    int wait(int epfd, epoll_event* events, int capacity, int timeout);
    void log(int level, const std::string& line);
    std::string next_name(const std::string& kind);
    void forget_fd(int fd);
    void read_exchange();
    [[nodiscard]] bool memory_fails(const char* kind, std::size_t size = 0);
    std::size_t read_watch(); ///< how many notices there were

    unsigned last_request = 0;
    unsigned last_event = 0;                   ///< of telemetry
    std::vector<std::string> events_in_flight; ///< ids of those whose answer is due
    std::set<std::uint64_t> unanswered;        ///< identifiers that were handed out
    std::uint64_t last_made_up = 1000000;      ///< of them
    bool is_reading = false;                   ///< the exchange
    void (*event_callback)(const Message*) = nullptr;
    setMgmt::MonitoredKey::Callback watch_callback; ///< of the one watch that there can be
    std::string watch_key;
    bool keeps_watch = false;
    bool has_touched_watch = false; ///< the batch that is open
    /// A write to that key, after which its watch is readable. For all that the fake's own functions write.
    void touch(const std::string& key);
    void drop_batch();

    /// A file that plock::make() was called for, under a descriptor number that is none of the kernel's.
    struct LockFile {
        std::string file;
        std::optional<locking::type> held;
    };
    std::map<int, LockFile> lock_files;
    std::set<std::string> files_to_lock; ///< that are there

private:
    struct Failure {
        std::string call;
        int occurrence;
        bool onwards;
        int error;
    };
    using Step = std::function<int(int epfd, epoll_event*, int capacity)>;

    bool is_planned(const std::string& text);

    Calls m_calls;
    Calls m_fallible_texts;
    Calls m_failed_texts;
    Logs m_logs;
    std::map<int, std::string> m_names;
    std::map<std::string, int> m_fds;
    std::map<std::string, int> m_counts;
    std::list<Failure> m_failures;
    std::size_t m_fallible = 0;
    std::size_t m_failed = 0;
    std::size_t m_fail_nth = 0;
    bool m_fail_onwards = false;
    int m_error = 0;
    struct Shortage {
        unsigned countdown = 0;
        bool onwards = false;
        bool has_failed = false;
    };
    std::map<std::string, Shortage, std::less<>> m_memory;
    std::size_t m_most_memory = std::numeric_limits<std::size_t>::max();
    std::deque<Step> m_script;
    std::function<bool()> m_idle;
    std::function<void()> m_out_of_patience;
    int m_patience = 0;
    int m_busy = 0; ///< waits since nothing was ready
    std::deque<std::function<void()>> m_notices;
    std::deque<std::function<void()>> m_incoming;
    int m_waits_after_stop = 0;
    Fake* m_previous;
};

/// A message record as the exchange hands it out: the payload is not NUL-terminated, and ends with its
/// memory. An identifier can be answered from then on.
class MessageRecord {
public:
    MessageRecord(const std::string& type, const std::string& data, std::uint64_t id = 0,
                  const std::string& from = "orvagent");
    [[nodiscard]] const Message* get() const { return &m_message; }

private:
    Message m_message{};
    std::unique_ptr<char[]> m_data;
};

} // namespace orv::fake

/// The exchange's handle.
struct Orvex {
    int fd = -1;
};
