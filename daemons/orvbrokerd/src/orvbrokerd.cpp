// The spine of the daemon: start-up, the main loop, shutdown.
//
// Start-up is a table of steps, each with what is said when it fails and what it takes to undo it; when one
// fails, those before it are undone by the same table, newest first. The loop waits on one epoll instance and
// hands each ready descriptor to its owner. The exchange's descriptor is fetched anew each pass, since a
// reconnection may change it. The settings watch is taken out of epoll after each pass that had something to
// do, and put in again before the next wait; after an idle or interrupted wait it simply stays in.

#include "orvbrokerd.h"

#include "admission.h"
#include "agent_status.h"
#include "evhandler.h"
#include "orvex.h"
#include "orvexproc.h"
#include "sock.h"
#include "subevhandlers.h"
#include "within_memory.h"

#include <orvkarma/orvkarma.h>
#include <orvutils/daemon.h>
#include <orvutils/error.h>
#include <orvutils/featureutl.h>
#include <orvutils/io.h>
#include <orvutils/locking.h>
#include <orvutils/log_format.h>
#include <orvutils/setmgmt.h>
#include <orvutils/time.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <new>
#include <optional>
#include <vector>

namespace orv::brokerd {

int epollfd = -1;
Orvex* orvex = nullptr;
std::unordered_map<int, Connection*> g_connections;

namespace {

constexpr char kParticipantName[] = "orvbrokerd";
constexpr char kVersionFile[] = "orvbrokerd.version";
constexpr char kVersion[] = "1.3";
constexpr char kCacheIntervalKey[] = "/daemons/orvbrokerd/cache_process_interval";
constexpr int kCacheIntervalDefault = 5; ///< seconds
constexpr long kKarmaFirst = 5;          ///< seconds
constexpr long kKarmaPeriod = 300;       ///< seconds
constexpr char kDeployedKey[] = "/karma/tuvo_agent_status/deployed";
constexpr int kMaxEvents = 8;      ///< descriptors taken per wait
constexpr int kWaitTimeout = 1000; ///< milliseconds

int g_stop_fd = -1;
int g_server_socket = -1;
int g_karma_timer = -1;
int g_cache_timer = -1;
locking::plock g_version_lock; ///< held until the process ends

} // namespace

int daemon_main(int argc, char** argv)
{
    const auto instance = daemon::instance(argc, argv);
    g_stop_fd = instance->on_stop_pipe();
    if (g_stop_fd == -1)
        return 1;
    instance->init_hook = init;
    instance->run_hook = run;
    return instance->run();
}

// ---- start-up

namespace {

path version_file_path()
{
    return common_directory(common_path::run) / kVersionFile;
}

bool write_version_file()
{
    FILE* file = std::fopen(version_file_path().c_str(), "we"); // no child inherits it
    if (!file)
        return false;
    // Whoever can read it can lock it. It may be there from an earlier version, which left that to the umask.
    (void)fchmod(fileno(file), S_IRUSR | S_IWUSR); // the directory is closed to others as well
    // A failed write shows at closing at the latest.
    const bool written = std::fputs(kVersion, file) >= 0;
    return std::fclose(file) == 0 && written;
}

/// The guard against a second daemon.
bool lock_version_file()
{
    auto lock = locking::plock::make(version_file_path(), locking::flags::create);
    if (!lock || lock->lock(locking::type::exclusive) != locking::result::locked)
        return false;
    g_version_lock = std::move(*lock);
    return true;
}

bool create_epoll()
{
    epollfd = epoll_create(1);
    return epollfd != -1;
}

bool watch(int fd)
{
    return io::epoll_set_fd_ro(epollfd, fd) != -1;
}

bool open_server_socket()
{
    g_server_socket = create_server_socket();
    return g_server_socket != -1;
}

bool create_timer(int& timer)
{
    timer = time::timer_init(time::TimerType::monotonic);
    return timer != -1;
}

bool start_timer(int timer, long first, long period)
{
    return time::timer_start(timer, first, period, /*absolute=*/false) != -1;
}

bool start_cache_timer()
{
    const long interval = setMgmt::getKeyValue(kCacheIntervalKey, kCacheIntervalDefault);
    return start_timer(g_cache_timer, interval, interval);
}

bool register_device_callbacks()
{
    // Without them clients hear of no device; all else works, so the daemon starts even so.
    (void)devMgmt::set_on_dev_info_change(g_dev_info_fields, on_device_info_change_cb);
    (void)devMgmt::set_on_dev_info_change(g_dev_info_fields, on_device_info_change_old_cb);
    return true;
}

bool connect_to_exchange()
{
    orvex = orvex_init_eventloop(kParticipantName, orvex_callback, /*flags=*/0, /*auto_reconnect=*/1);
    return orvex != nullptr;
}

bool subscribe_to_exchange()
{
    // The library keeps the list and goes on trying by itself. Without memory to hand it over, which is told
    // to nobody, it comes with the next subscriber.
    (void)orvex_subscribe();
    return true;
}

void close_epoll()
{
    close(epollfd);
    epollfd = -1;
}

void close_stop_descriptor()
{
    close(g_stop_fd);
    g_stop_fd = -1;
}

void close_listener()
{
    (void)close_server_socket(g_server_socket); // gone either way
    g_server_socket = -1;
}

void release_timer(int& timer)
{
    time::timer_uninit(timer);
    timer = -1;
}

void unregister_device_callbacks()
{
    // One that was not registered is not there to be taken back.
    (void)devMgmt::unset_on_dev_info_change(g_dev_info_fields, on_device_info_change_old_cb);
    (void)devMgmt::unset_on_dev_info_change(g_dev_info_fields, on_device_info_change_cb);
}

enum class Says {
    nothing,
    text,
    text_and_error, ///< the text, a colon and the library's error number
};

struct Step {
    bool (*start)(); ///< leaves nothing behind when it fails
    Says says;       ///< what init() then logs
    const char* text;
    void (*undo)();
};

void nothing_to_undo() {}

constexpr std::array kSteps{
    // clang-format off
    // Another daemon that holds the file has said it all.
    Step{write_version_file, Says::nothing, "", nothing_to_undo},
    Step{lock_version_file, Says::nothing, "", nothing_to_undo}, // the lock falls with the process
    Step{create_epoll, Says::text, "failed to open epoll", close_epoll},
    Step{[] { return watch(g_stop_fd); }, Says::text, "failed to add stop exec fd to epoll", close_stop_descriptor},
    Step{open_server_socket, Says::text, "failed to open server socket", close_listener},
    Step{[] { return watch(g_server_socket); }, Says::text, "failed to add server socket to epoll", nothing_to_undo},
    Step{[] { return setMgmt::init() >= 0; }, Says::text_and_error, "orvsetmgmt error", setMgmt::uninit},
    Step{featureutl::init, Says::text_and_error, "featureutl error", featureutl::uninit},
    Step{[] { return create_timer(g_karma_timer); }, Says::text, "failed to init karma timer", [] { release_timer(g_karma_timer); }},
    Step{[] { return watch(g_karma_timer); }, Says::text, "failed to add karma fd to epoll", nothing_to_undo},
    Step{[] { return start_timer(g_karma_timer, kKarmaFirst, kKarmaPeriod); }, Says::text, "failed to start karma timer", nothing_to_undo},
    Step{[] { return create_timer(g_cache_timer); }, Says::text, "failed to init cache timer", [] { release_timer(g_cache_timer); }},
    Step{[] { return watch(g_cache_timer); }, Says::text, "failed to add cache fd to epoll", nothing_to_undo},
    Step{start_cache_timer, Says::text, "failed to start cache process timer", nothing_to_undo},
    Step{[] { return devMgmt::init() != -1; }, Says::text, "failed to init devmgmt", devMgmt::uninit},
    Step{[] { return karma::init() != -1; }, Says::text, "failed to init liborvkarma", karma::uninit},
    Step{register_device_callbacks, Says::nothing, "", unregister_device_callbacks},
    Step{connect_to_exchange, Says::text, "failed to connect to orv exchange daemon", nothing_to_undo},
    Step{subscribe_to_exchange, Says::nothing, "", nothing_to_undo}, // nothing can fail from here on
    // clang-format on
};

void say(const Step& step, log::Caller caller = log::caller())
{
    switch (step.says) {
    case Says::nothing:
        return;
    case Says::text:
        ORV_LOG_AS(caller, log::kError, "{}", step.text);
        return;
    case Says::text_and_error:
        ORV_LOG_AS(caller, log::kError, "{}: {}", step.text, _get_orverrno());
        return;
    }
}

} // namespace

bool init()
{
    ORV_LOG(log::kInfo, "start orv broker daemon");
    for (std::size_t i = 0; i < kSteps.size(); ++i) {
        bool is_done = false;
        if (within_memory([&] { is_done = kSteps[i].start(); }) && is_done)
            continue;
        say(kSteps[i]);
        while (i-- > 0)
            kSteps[i].undo();
        ORV_LOG(log::kInfo, "stop orv broker daemon");
        return false;
    }
    return true;
}

// ---- connections

namespace {

// Without a descriptor or memory for a further client the listening socket stays readable, and watching it
// on would be a busy loop. So it is left alone until a connection has ended, a wait has found nothing to do,
// or the clock shows another second: whatever else frees descriptors is seen then.

bool g_accepting = true;
std::time_t g_paused_at = 0; ///< while not accepting

bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void pause_accepting()
{
    // When it cannot be taken out it stays in, and is tried again at once.
    (void)epoll_ctl(epollfd, EPOLL_CTL_DEL, g_server_socket, /*event=*/nullptr);
    g_accepting = false;
    g_paused_at = std::time(nullptr);
}

void resume_accepting()
{
    if (!g_accepting)
        g_accepting = watch(g_server_socket);
}

} // namespace

void destroy_connection(Connection* conn)
{
    forget_connection(conn);
    // Closing alone would take it out, too; one that never got in is not there to be taken out.
    (void)epoll_ctl(epollfd, EPOLL_CTL_DEL, conn->fd, /*event=*/nullptr);
    close(conn->fd);
    conn->tx.uninit();
    conn->rx.uninit();
    delete conn;
    resume_accepting();
}

namespace {

bool init_buffers(Connection* conn)
{
    if (!conn->tx.init(kBufferInitialSize, kBufferMaximumSize))
        return false;
    if (conn->rx.init(kBufferInitialSize, kBufferMaximumSize))
        return true;
    conn->tx.uninit();
    return false;
}

bool remember(Connection* conn)
{
    try {
        g_connections[conn->fd] = conn;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

/// Takes over an accepted socket, and closes it when it cannot become a connection in the table: null then.
Connection* create_connection(int fd, log::Caller caller)
{
    auto* conn = new (std::nothrow) Connection(fd);
    if (!conn) {
        ORV_LOG_AS(caller, log::kError, "failed to create new connection");
        close(fd);
        return nullptr;
    }
    if (!init_buffers(conn)) {
        ORV_LOG_AS(caller, log::kError, "failed to init new connection");
        destroy_connection(conn);
        return nullptr;
    }
    if (!remember(conn)) {
        ORV_LOG_AS(caller, log::kError, "failed to create new connection");
        destroy_connection(conn);
        return nullptr;
    }
    return conn;
}

void accept_client(log::Caller caller)
{
    const int fd = accept(g_server_socket, /*addr=*/nullptr, /*addrlen=*/nullptr);
    if (fd < 0) {
        const int error = errno;
        ORV_LOG_AS(caller, log::kWarning, "failed to accept client");
        if (is_shortage(error))
            pause_accepting();
        return;
    }
    bool is_admitted = false;
    if (!within_memory([&] { is_admitted = admit(fd, caller); }, caller) || !is_admitted) {
        close(fd);
        return;
    }
    Connection* conn = create_connection(fd, caller);
    if (!conn)
        return;
    if (!watch(fd)) {
        ORV_LOG_AS(caller, log::kError, "failed to add client socket to epoll");
        g_connections.erase(fd);
        destroy_connection(conn);
        return;
    }
    ORV_LOG_AS(caller, log::kTrace, "new client socket {:d} is connected", fd);
}

void serve_client(const epoll_event& event)
{
    const auto found = g_connections.find(event.data.fd);
    if (found == g_connections.end())
        return;
    if (process_client_events(found->second, event.events, epollfd) >= 0)
        return;
    destroy_connection(found->second);
    g_connections.erase(found);
}

void destroy_requested_connections()
{
    for (auto it = g_connections.begin(); it != g_connections.end();) {
        if (!it->second->close_requested) {
            ++it;
            continue;
        }
        destroy_connection(it->second);
        it = g_connections.erase(it);
    }
}

} // namespace

// ---- the loop

void retry_karma_events()
{
    std::vector<json_t*> events;
    if (karma::read_events(events) != 0) {
        ORV_LOG(log::kError, "Could not read old events from file");
        return;
    }
    for (json_t* event : events)
        (void)karma::submit_karma_event(event, orvex); // what is not confirmed stays for the next time
    for (json_t* event : events)
        json_decref(event);
}

namespace {

/// Once per device, whether or not the report gets through: the outbox takes care of that.
void report_deployed_once()
{
    if (setMgmt::getKeyValue(kDeployedKey, 0) != 0)
        return;
    report_agent_status(AgentStatus::deployed, /*extra=*/nullptr);
    (void)setMgmt::setKey(kDeployedKey, "1"); // when it fails, the next start reports once more
}

int watch_exchange(log::Caller caller)
{
    const int fd = orvex_get_fd(orvex);
    if (fd < 0)
        ORV_LOG_AS(caller, log::kWarning, "failed to get orvex fd");
    else if (!watch(fd))
        ORV_LOG_AS(caller, log::kError, "failed to add orvex fd to epoll");
    return fd;
}

int watch_settings(const setMgmt::MonitoredKey& key)
{
    const int fd = key.get_fd();
    if (fd >= 0)
        (void)watch(fd); // when it fails, the next pass tries again
    return fd;
}

/// What an event's descriptor is compared with, besides those that never change.
struct Pass {
    setMgmt::MonitoredKey& key;
    log::Caller caller;
    int exchange_fd = -1;
    int settings_fd = -1;
    bool stop = false;
};

void dispatch(const epoll_event& event, Pass& pass)
{
    const int fd = event.data.fd;
    if (fd == pass.exchange_fd) {
        (void)orvex_read_fd(orvex); // an exchange that is away comes back by itself
        destroy_requested_connections();
    } else if (fd == g_server_socket) {
        accept_client(pass.caller);
    } else if (fd == g_karma_timer) {
        if (time::timer_tick(fd) > 0)
            retry_karma_events();
    } else if (fd == g_cache_timer) {
        if (time::timer_tick(fd) > 0)
            (void)process_cached_events(epollfd); // what was not sent waits for the next tick
    } else if (fd == pass.settings_fd) {
        pass.key.read_notifications(); // changes of devices come this way, too
    } else if (fd == g_stop_fd) {
        pass.stop = true;
    } else {
        serve_client(event);
    }
}

/// Waits once and handles what is ready. False when the daemon has to stop.
bool run_pass(setMgmt::MonitoredKey& key, log::Caller caller = log::caller())
{
    std::array<epoll_event, kMaxEvents> events; // epoll fills in as much as there is
    Pass pass{key, caller};
    if (!g_accepting && std::time(nullptr) != g_paused_at)
        resume_accepting();
    const auto watch_others = [&] {
        pass.exchange_fd = watch_exchange(caller);
        pass.settings_fd = watch_settings(key);
    };
    (void)within_memory(watch_others, caller); // what is not watched now is in the next pass

    const int count = epoll_wait(epollfd, events.data(), kMaxEvents, kWaitTimeout);
    if (count == -1 && errno == EINTR) {
        ORV_LOG_AS(caller, log::kWarning, "waiting on epoll was interrupted by a signal");
        return true;
    }
    if (count == -1) {
        ORV_LOG_AS(caller, log::kError, "failed to wait on epoll");
        return false;
    }
    if (count == 0) {
        resume_accepting();
        return true;
    }

    for (int i = 0; i < count; ++i) // what one event lacks memory for is no reason to leave the others
        (void)within_memory([&] { dispatch(events[static_cast<std::size_t>(i)], pass); }, caller);
    if (pass.settings_fd >= 0) // it may be gone by now: the next pass fetches what there is
        (void)epoll_ctl(epollfd, EPOLL_CTL_DEL, pass.settings_fd, /*event=*/nullptr);
    return !pass.stop;
}

void destroy_all_connections()
{
    for (auto it = g_connections.begin(); it != g_connections.end(); it = g_connections.erase(it))
        destroy_connection(it->second);
}

void shut_down(log::Caller caller = log::caller())
{
    orvex_uninit(orvex);
    orvex = nullptr;
    karma::uninit();
    unregister_device_callbacks();
    devMgmt::uninit();
    release_timer(g_karma_timer);
    release_timer(g_cache_timer);
    featureutl::uninit();
    setMgmt::uninit();
    g_accepting = true; // nobody is to be accepted any more
    destroy_all_connections();
    close_listener();
    close_epoll();
    close_stop_descriptor();
    ORV_LOG_AS(caller, log::kInfo, "stop orv broker daemon");
}

} // namespace

int run()
{
    std::optional<setMgmt::MonitoredKey> subscription_refresh; // ends last of all
    const auto tell = [](const path&, void*) {
        (void)on_subscription_changed_cb(epollfd); // it has said why, if it failed
        return true;
    };
    const bool is_ready = within_memory([&] {
        report_deployed_once();
        subscription_refresh.emplace(kSubscriptionRefreshPath.c_str(), tell, /*notify_now=*/false,
                                     /*user=*/nullptr, /*keep=*/true);
    });
    while (is_ready && run_pass(*subscription_refresh)) {
    }
    shut_down();
    return 0;
}

} // namespace orv::brokerd
