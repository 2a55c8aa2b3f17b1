// The spine of the daemon: start-up, the main loop, shutdown.
//
// Start-up is a table of steps, each with what it takes to undo it; when a step fails, those before it are
// undone by the same table, newest first. The loop waits on one epoll instance and hands each ready
// descriptor to its owner. The exchange's descriptor is fetched anew each pass, since a reconnection may
// change it; the settings watch is registered only while waiting.

#include "orvbrokerd.h"

#include "agent_status.h"
#include "evhandler.h"
#include "orvex.h"
#include "orvexproc.h"
#include "sock.h"
#include "subevhandlers.h"

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
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <new>
#include <sstream>

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
    std::ostringstream directory;
    orv::detail::print_common_path(directory, common_path::run);
    return path(directory.str()) / kVersionFile;
}

bool write_version_file()
{
    FILE* file = std::fopen(version_file_path().c_str(), "we");
    if (!file)
        return false;
    // A failed write shows at closing at the latest.
    const bool written = std::fputs(kVersion, file) >= 0;
    return std::fclose(file) == 0 && written;
}

/// The guard against a second daemon. It says nothing: whoever runs already has said it all.
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
    if (epollfd != -1)
        return true;
    ORV_LOG(log::kError, "failed to open epoll");
    return false;
}

bool watch(int fd, const char* failure)
{
    if (io::epoll_set_fd_ro(epollfd, fd) != -1)
        return true;
    ORV_LOG(log::kError, fmt::runtime(failure));
    return false;
}

bool watch_stop_descriptor()
{
    return watch(g_stop_fd, "failed to add stop exec fd to epoll");
}

bool open_server_socket()
{
    g_server_socket = create_server_socket();
    if (g_server_socket != -1)
        return true;
    ORV_LOG(log::kError, "failed to open server socket");
    return false;
}

bool watch_server_socket()
{
    return watch(g_server_socket, "failed to add server socket to epoll");
}

bool open_settings()
{
    if (setMgmt::init() >= 0)
        return true;
    ORV_LOG(log::kError, "orvsetmgmt error: {}", _get_orverrno());
    return false;
}

bool open_features()
{
    if (featureutl::init())
        return true;
    ORV_LOG(log::kError, "featureutl error: {}", _get_orverrno());
    return false;
}

bool create_timer(int& timer, const char* failure)
{
    timer = time::timer_init(time::TimerType::monotonic);
    if (timer != -1)
        return true;
    ORV_LOG(log::kError, fmt::runtime(failure));
    return false;
}

bool start_timer(int timer, long first, long period, const char* failure)
{
    if (time::timer_start(timer, first, period, false) != -1)
        return true;
    ORV_LOG(log::kError, fmt::runtime(failure));
    return false;
}

bool create_karma_timer()
{
    return create_timer(g_karma_timer, "failed to init karma timer");
}

bool arm_karma_timer()
{
    return watch(g_karma_timer, "failed to add karma fd to epoll") &&
           start_timer(g_karma_timer, kKarmaFirst, kKarmaPeriod, "failed to start karma timer");
}

bool create_cache_timer()
{
    return create_timer(g_cache_timer, "failed to init cache timer");
}

bool arm_cache_timer()
{
    if (!watch(g_cache_timer, "failed to add cache fd to epoll"))
        return false;
    const long interval = setMgmt::getKeyValue(kCacheIntervalKey, kCacheIntervalDefault);
    return start_timer(g_cache_timer, interval, interval, "failed to start cache process timer");
}

bool open_devices()
{
    if (devMgmt::init() != -1)
        return true;
    ORV_LOG(log::kError, "failed to init devmgmt");
    return false;
}

bool open_telemetry()
{
    if (karma::init() != -1)
        return true;
    ORV_LOG(log::kError, "failed to init liborvkarma");
    return false;
}

bool register_device_callbacks()
{
    devMgmt::set_on_dev_info_change(g_dev_info_fields, on_device_info_change_cb);
    devMgmt::set_on_dev_info_change(g_dev_info_fields, on_device_info_change_old_cb);
    return true;
}

bool connect_to_exchange()
{
    orvex = orvex_init_eventloop(kParticipantName, orvex_callback, 0, 1);
    if (!orvex) {
        ORV_LOG(log::kError, "failed to connect to orv exchange daemon");
        return false;
    }
    orvex_subscribe();
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
    close_server_socket(g_server_socket);
    g_server_socket = -1;
}

void release_timer(int& timer)
{
    time::timer_uninit(timer);
    timer = -1;
}

void unregister_device_callbacks()
{
    devMgmt::unset_on_dev_info_change(g_dev_info_fields, on_device_info_change_old_cb);
    devMgmt::unset_on_dev_info_change(g_dev_info_fields, on_device_info_change_cb);
}

struct Step {
    bool (*start)(); ///< logs its own failure, and leaves nothing behind then
    void (*undo)();
};

void nothing_to_undo() {}

constexpr std::array kSteps{
    Step{write_version_file, nothing_to_undo},
    Step{lock_version_file, nothing_to_undo}, // the lock falls with the process
    Step{create_epoll, close_epoll},
    Step{watch_stop_descriptor, close_stop_descriptor},
    Step{open_server_socket, close_listener},
    Step{watch_server_socket, nothing_to_undo},
    Step{open_settings, setMgmt::uninit},
    Step{open_features, featureutl::uninit},
    Step{create_karma_timer, [] { release_timer(g_karma_timer); }},
    Step{arm_karma_timer, nothing_to_undo},
    Step{create_cache_timer, [] { release_timer(g_cache_timer); }},
    Step{arm_cache_timer, nothing_to_undo},
    Step{open_devices, devMgmt::uninit},
    Step{open_telemetry, karma::uninit},
    Step{register_device_callbacks, unregister_device_callbacks},
    Step{connect_to_exchange, nothing_to_undo}, // the last step: nothing can fail after it
};

} // namespace

bool init()
{
    ORV_LOG(log::kInfo, "start orv broker daemon");
    for (std::size_t i = 0; i < kSteps.size(); ++i) {
        if (kSteps[i].start())
            continue;
        while (i-- > 0)
            kSteps[i].undo();
        ORV_LOG(log::kInfo, "stop orv broker daemon");
        return false;
    }
    return true;
}

// ---- connections

void destroy_connection(Connection* connection)
{
    forget_connection(connection);
    epoll_ctl(epollfd, EPOLL_CTL_DEL, connection->fd, nullptr);
    close(connection->fd);
    connection->tx.uninit();
    connection->rx.uninit();
    delete connection;
}

namespace {

bool init_buffers(Connection* connection)
{
    if (!connection->tx.init(kBufferInitialSize, kBufferMaximumSize))
        return false;
    if (connection->rx.init(kBufferInitialSize, kBufferMaximumSize))
        return true;
    connection->tx.uninit();
    return false;
}

bool remember(Connection* connection)
{
    try {
        g_connections[connection->fd] = connection;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void accept_client()
{
    const int fd = accept(g_server_socket, nullptr, nullptr);
    if (fd < 0) {
        ORV_LOG(log::kWarning, "failed to accept client");
        return;
    }
    auto* connection = new (std::nothrow) Connection(fd);
    if (!connection) {
        ORV_LOG(log::kError, "failed to create new connection");
        close(fd);
        return;
    }
    if (!init_buffers(connection)) {
        ORV_LOG(log::kError, "failed to init new connection");
        destroy_connection(connection);
        return;
    }
    if (!remember(connection)) {
        ORV_LOG(log::kError, "failed to create new connection");
        destroy_connection(connection);
        return;
    }
    if (io::epoll_set_fd_ro(epollfd, fd) == -1) {
        ORV_LOG(log::kError, "failed to add client socket to epoll");
        g_connections.erase(fd);
        destroy_connection(connection);
        return;
    }
    ORV_LOG(log::kTrace, "new client socket {:d} is connected", fd);
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
        karma::submit_karma_event(event, orvex);
    for (json_t* event : events)
        json_decref(event);
}

namespace {

/// Once per device, whether or not the report gets through: the outbox takes care of that.
void report_deployed_once()
{
    if (setMgmt::getKeyValue(kDeployedKey, 0) != 0)
        return;
    report_agent_status(AgentStatus::deployed, nullptr);
    (void)setMgmt::setKey(kDeployedKey, "1"); // when it fails, the next start reports once more
}

int watch_exchange()
{
    const int fd = orvex_get_fd(orvex);
    if (fd < 0)
        ORV_LOG(log::kWarning, "failed to get orvex fd");
    else if (io::epoll_set_fd_ro(epollfd, fd) == -1)
        ORV_LOG(log::kError, "failed to add orvex fd to epoll");
    return fd;
}

int watch_settings(const setMgmt::MonitoredKey& key)
{
    const int fd = key.get_fd();
    if (fd >= 0)
        io::epoll_set_fd_ro(epollfd, fd);
    return fd;
}

/// What an event's descriptor is compared with, besides those that never change.
struct Pass {
    setMgmt::MonitoredKey& key;
    int exchange_fd = -1;
    int settings_fd = -1;
    bool stop = false;
};

void dispatch(const epoll_event& event, Pass& pass)
{
    const int fd = event.data.fd;
    if (fd == pass.exchange_fd) {
        orvex_read_fd(orvex);
        destroy_requested_connections();
    } else if (fd == g_server_socket) {
        accept_client();
    } else if (fd == g_karma_timer) {
        if (time::timer_tick(fd) > 0)
            retry_karma_events();
    } else if (fd == g_cache_timer) {
        if (time::timer_tick(fd) > 0)
            process_cached_events(epollfd);
    } else if (fd == pass.settings_fd) {
        pass.key.read_notifications();
    } else if (fd == g_stop_fd) {
        pass.stop = true;
    } else {
        serve_client(event);
    }
}

/// Waits once and handles what is ready. False when the daemon has to stop.
bool run_pass(setMgmt::MonitoredKey& key)
{
    std::array<epoll_event, kMaxEvents> events;
    Pass pass{key};
    pass.exchange_fd = watch_exchange();
    pass.settings_fd = watch_settings(key);

    const int count = epoll_wait(epollfd, events.data(), kMaxEvents, kWaitTimeout);
    if (count == -1 && errno == EINTR) {
        ORV_LOG(log::kWarning, "waiting on epoll was interrupted by a signal");
        return true;
    }
    if (count == -1) {
        ORV_LOG(log::kError, "failed to wait on epoll");
        return false;
    }
    if (count == 0)
        return true;

    for (int i = 0; i < count; ++i)
        dispatch(events[static_cast<std::size_t>(i)], pass);
    if (pass.settings_fd >= 0)
        epoll_ctl(epollfd, EPOLL_CTL_DEL, pass.settings_fd, nullptr);
    return !pass.stop;
}

void destroy_all_connections()
{
    for (auto it = g_connections.begin(); it != g_connections.end(); it = g_connections.erase(it))
        destroy_connection(it->second);
}

void shut_down()
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
    destroy_all_connections();
    close_listener();
    close_epoll();
    close_stop_descriptor();
    ORV_LOG(log::kInfo, "stop orv broker daemon");
}

} // namespace

int run()
{
    report_deployed_once();
    setMgmt::MonitoredKey subscription_refresh(
        kSubscriptionRefreshPath.c_str(),
        [](const path&, void*) {
            on_subscription_changed_cb(epollfd);
            return true;
        },
        false, nullptr, true);

    while (run_pass(subscription_refresh)) {
    }
    shut_down();
    return 0;
}

} // namespace orv::brokerd
