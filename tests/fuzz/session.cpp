// The daemon runs, and at each of its waits it is looked at what it has done: its log tells whose request was
// handled with which status, its clients' ends of the connections what they were sent. The next step is taken
// only when the daemon has nothing left to do, so that what comes can be told to be that step's.

#include "session.h"

#include "home.h"
#include "input.h"
#include "require.h"

#include "support/own_process.h"
#include "support/stage.h"

#include "client_events.h"
#include "evhandler.h"
#include "make_device.h"
#include "orvbrokerd.h"
#include "orvex.h"
#include "orvexproc.h"
#include "state.h"
#include "subevhandlers.h"

#include <orvutils/json.h>

#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace orv::fuzz {

using brokerd::g_connections;
using fake::Fake;

namespace {

constexpr char kTelemetryTimer[] = "timer1";
constexpr char kDevicesTimer[] = "timer2";
constexpr char kAllowedUids[] = "/daemons/orvbrokerd/allowed_uids";
constexpr uid_t kStranger = 4711;
constexpr std::size_t kMostConnecting = 6; ///< more would have to wait for the daemon to accept
constexpr std::size_t kMostPeers = 64;
constexpr unsigned kMostPasses = 64; ///< for one step; what fails for good may keep the daemon busy
constexpr std::array kMemory{"malloc", "realloc", "new", "strdup", "throwing new", "watch"};

std::string g_root; ///< directory of the common paths

bool begins(const std::string& text, std::string_view beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

void remove_root()
{
    std::error_code ignored;
    std::filesystem::remove_all(g_root, ignored);
}

JsonPtr parse(const std::string& text)
{
    constexpr std::size_t kAnything = JSON_ALLOW_NUL | JSON_REJECT_DUPLICATES;
    return JsonPtr(json_loadb(text.data(), text.size(), kAnything, nullptr));
}

/// The status of an answer's envelope, nothing when it is none.
std::optional<int> status_of(const json_t* root)
{
    const json_t* status = json_object_get(root, "status");
    if (json_object_size(root) != 2 || !json_object_get(root, "data") || !json_is_integer(status))
        return std::nullopt;
    return static_cast<int>(json_integer_value(status));
}

/// The client event that an exchange event may become; empty when it is none.
std::string_view client_event_of(std::string_view exchange_event)
{
    if (exchange_event == "guster_user_agent")
        return brokerd::kDeviceDiscovery;
    if (exchange_event == "orvagent_started")
        return brokerd::kOrvagentStarted;
    return exchange_event == "va_status_changed" ? brokerd::kVaStatusChanged : std::string_view();
}

} // namespace

void prepare_process()
{
    std::string name = (std::filesystem::temp_directory_path() / "orvane-fuzz-XXXXXX").string();
    if (!mkdtemp(name.data())) {
        std::perror("cannot make a directory");
        std::exit(1);
    }
    g_root = name;
    (void)std::atexit(remove_root); // it may be left
    for (int i = 0; i < 8; ++i)
        std::filesystem::create_directory(g_root + "/" + std::to_string(i));
    if (!test::set_up_process())
        std::exit(1);
}

// ---- steps as text

namespace {

struct Letter {
    char letter;
    Act act;
    const char*
        takes; ///< c: a client's digit, n: a name, t: the rest as text, d: a number, e: an error number
};

constexpr std::array kLetters{
    Letter{'>', Act::say, "ct"},    Letter{'~', Act::send, "ct"},        Letter{'!', Act::subscribe, "ct"},
    Letter{'-', Act::leave, "c"},   Letter{'|', Act::stop_sending, "c"}, Letter{'z', Act::stop_reading, "c"},
    Letter{'e', Act::event, "nt"},  Letter{'a', Act::answer, "nt"},      Letter{'A', Act::answer_all, "nt"},
    Letter{'d', Act::device, "nt"}, Letter{'t', Act::tell_devices, ""},  Letter{'k', Act::telemetry, ""},
    Letter{'r', Act::refresh, ""},  Letter{'w', Act::set, "nt"},         Letter{'x', Act::unset, "n"},
    Letter{'c', Act::clock, "d"},   Letter{'f', Act::fail, "det"},       Letter{'F', Act::fail_on, "det"},
    Letter{'m', Act::memory, "dt"}, Letter{'j', Act::json_memory, "d"},  Letter{'u', Act::stranger, ""},
    Letter{'v', Act::renew, ""},    Letter{'i', Act::interrupt, ""},
};

int to_number(std::string_view digits)
{
    constexpr int kLargest = 9999;
    int number = 0;
    for (const char digit : digits)
        if (digit >= '0' && digit <= '9')
            number = std::min(number * 10 + (digit - '0'), kLargest);
    return number;
}

void take(Step& step, char what, Input& line)
{
    switch (what) {
    case 'c':
        step.who = static_cast<unsigned>(to_number(line.until(' '))) % kClients;
        return;
    case 'n':
        step.name = line.until(' ');
        return;
    case 't':
        step.text = line.rest();
        return;
    case 'd':
        step.number = to_number(line.until(' '));
        return;
    default:
        step.error = to_number(line.until(' ')) % 134; // those that Linux has
        return;
    }
}

} // namespace

std::optional<Step> parse_step(std::string_view line)
{
    const auto found = std::find_if(kLetters.begin(), kLetters.end(), [line](const Letter& letter) {
        return line.substr(0, 1) == std::string_view(&letter.letter, 1);
    });
    if (found == kLetters.end())
        return std::nullopt;
    Step step;
    step.act = found->act;
    line.remove_prefix(line.substr(1, 1) == " " ? 2 : 1);
    Input rest(line);
    for (const char* what = found->takes; *what != '\0'; ++what)
        take(step, *what, rest);
    return step;
}

// ---- the session

Session::Session(std::uint8_t home)
{
    static std::time_t era = 1'700'000'000; // what was said lately has been forgotten by the next session
    furnish(m_platform, home);
    m_platform.root = g_root;
    m_platform.now = era += 10;
}

Session::~Session() = default;

void Session::run()
{
    while (!m_steps.empty() && fail(m_steps.front()))
        m_steps.pop_front();
    m_platform.on_wait([this] {
        m_told = m_platform.watch_callback;
        m_platform.watch_callback = [this](const path& key, void* user) { return notified(key, user); };
        at_wait();
    });
    char name[] = "orvbrokerd";
    char* arguments[] = {name, nullptr};
    {
        const Fake::Inside inside;
        (void)brokerd::daemon_main(1, arguments); // it may have failed to start
    }
    check_end();
}

void Session::at_wait()
{
    const Fake::Paused paused;
    observe();
    if (!is_quiet() && ++m_passes < kMostPasses) {
        m_platform.on_wait([this] { at_wait(); });
        return;
    }
    m_passes = 0;
    check_all_told();
    if (m_steps.empty()) {
        if (settle())
            m_platform.on_wait([this] { at_wait(); });
        return; // without another wait the daemon is asked to stop
    }
    const Step step = std::move(m_steps.front());
    m_steps.pop_front();
    if (step.act == Act::interrupt) {
        m_platform.on_wait_fail(EINTR);
        m_platform.on_wait([this] { at_wait(); });
        return;
    }
    m_platform.on_wait([this] { at_wait(); });
    act(step);
}

/// Whether the daemon has nothing to do.
bool Session::is_quiet() const
{
    pollfd daemon{brokerd::epollfd, POLLIN, 0};
    return poll(&daemon, 1, 0) <= 0;
}

bool Session::is_connected(const Peer& peer) const
{
    return !peer.name.empty() && g_connections.count(peer.fd) != 0 && m_platform.name(peer.fd) == peer.name;
}

// ---- what the daemon has done

void Session::observe()
{
    m_platform.take_calls();
    for (const fake::LogLine& line : m_platform.take_logs())
        observe(line);
    m_may_fail = m_may_fail || m_platform.failed() > 0;
    find_accepted();
    for (const auto& peer : m_peers)
        if (peer->socket.is_open() && !peer->is_deaf)
            take_frames(*peer);
    find_ended();
}

void Session::observe(const fake::LogLine& line)
{
    constexpr std::string_view kReceived = "received event on client socket ";
    constexpr std::string_view kStatus = "last operation status is ";
    constexpr std::string_view kAccepted = "new client socket ";
    constexpr std::string_view kProcess = "process ";
    constexpr std::string_view kSubscription = " subscription";
    const std::string& text = line.text;
    const auto own = [this](int fd) -> Peer*& {
        const auto place = static_cast<std::size_t>(std::max(fd, 0));
        m_owners.resize(std::max(m_owners.size(), place + 1));
        return m_owners[place];
    };
    if (begins(text, kAccepted)) {
        // Its descriptor may be one that another connection had when this pass began.
        require(!m_connecting.empty(), "nobody is accepted who has not come");
        own(std::atoi(text.c_str() + kAccepted.size())) = m_connecting.front();
    } else if (begins(text, kReceived)) {
        m_current = own(std::atoi(text.c_str() + kReceived.size()));
        require(m_current, "no event of a connection that is gone is handled");
    } else if (begins(text, kStatus)) {
        const int status = std::atoi(text.c_str() + kStatus.size());
        if (status == brokerd::kPending)
            ++m_current->requests;
        else
            m_current->statuses.push_back(status);
        m_current->may_end = m_current->may_end || status != brokerd::kDone;
        m_current->may_be_cut = m_current->may_be_cut || status == brokerd::kPending;
    } else if (line.function == "process_subscription" && begins(text, kProcess)) {
        m_current->is_subscriber = true;
        m_current->event = text.substr(kProcess.size(), text.size() - kProcess.size() - kSubscription.size());
    } else if (line.function == "handle_command" && line.level == 0) {
        m_current->may_end = m_current->may_be_cut = true; // that was no request
    }
}

void Session::find_accepted()
{
    std::string name = "client" + std::to_string(m_accepted + 1);
    for (; m_platform.fd(name) != -1; name = "client" + std::to_string(m_accepted + 1)) {
        ++m_accepted;
        require(!m_connecting.empty(), "nobody is accepted who has not come");
        Peer& peer = *m_connecting.front();
        m_connecting.pop_front();
        peer.name = name;
        peer.fd = m_platform.fd(name);
        if (is_connected(peer))
            continue;
        const bool is_stranger = m_platform.peer_uid && m_platform.settings.count(kAllowedUids) != 0;
        require(is_stranger || has_failed(), "who may connect is accepted");
        peer.may_end = true;
    }
}

void Session::find_ended()
{
    for (const auto& peer : m_peers) {
        if (peer->name.empty() || peer->is_gone || is_connected(*peer))
            continue;
        peer->is_gone = true;
        for (Peer*& owner : m_owners)
            if (owner == peer.get())
                owner = nullptr;
        require(peer->may_end || has_failed(), "nobody's connection ends without a reason");
        if (!peer->socket.is_open())
            continue;
        take_frames(*peer);
        require(peer->may_be_cut || has_failed() || peer->socket.bytes().empty(), "all frames are whole");
    }
}

void Session::take_frames(Peer& peer)
{
    while (const auto text = peer.socket.frame())
        check_frame(peer, *text);
}

bool Session::take_status(Peer& peer, int status) const
{
    while (!peer.statuses.empty()) {
        const int wanted = peer.statuses.front();
        if (wanted == status) {
            peer.statuses.pop_front();
            return true;
        }
        if (!has_failed())
            return false;
        peer.statuses.pop_front(); // that answer was lost
    }
    return false;
}

void Session::check_frame(Peer& peer, const std::string& text)
{
    peer.was_answered = true;
    const bool is_any = peer.event == brokerd::kVaStatusChanged; // passed on as it came
    const bool may_come = peer.events > 0 || has_failed();
    if (is_any && peer.is_subscriber && peer.statuses.empty() && may_come)
        return check_event(peer, text);
    const JsonPtr root = parse(text);
    require(root != nullptr, "each frame is a whole JSON text");
    const std::optional<int> status = status_of(root.get());
    if (status && take_status(peer, *status))
        return;
    if (status && peer.requests > 0) {
        peer.requests = 0; // further answers go nowhere
        return;
    }
    require(peer.statuses.empty() || has_failed(), "each request has one answer, with its status");
    require(peer.is_subscriber, "each request has one answer, and nobody gets events who has not subscribed");
    check_event(peer, text);
}

void Session::check_event(Peer& peer, const std::string& text)
{
    if (has_failed()) // it may come late
        return;
    require(peer.events > 0, "nobody gets an event but who has subscribed to it, and once only");
    --peer.events;
    require(!peer.payload || *peer.payload == text, "an event that is passed on is passed on as it came");
}

/// Called when the daemon has nothing left to do.
void Session::check_all_told()
{
    for (const auto& peer : m_peers) {
        if (peer->is_deaf)
            continue;
        const bool is_told = peer->events == 0 || peer->is_gone || !peer->socket.is_open() || has_failed();
        require(!peer->must_get || is_told, "who has subscribed to an event gets it");
        peer->events = 0;
        peer->must_get = false;
        peer->payload.reset();
    }
}

// ---- what happens to it

void Session::act(const Step& step)
{
    switch (step.act) {
    case Act::say:
    case Act::send:
    case Act::subscribe:
    case Act::leave:
    case Act::stop_sending:
    case Act::stop_reading:
        return act_as_client(step);
    case Act::event:
        return deliver(step);
    case Act::answer:
    case Act::answer_all:
        expect_events(brokerd::kCloudRegistrationStatus, m_platform.requests.size());
        for (std::size_t i = 0; i < m_platform.requests.size() && (i == 0 || step.act == Act::answer_all);
             ++i)
            answer_oldest(step.name.substr(0, kOrvexMaxName), step.text);
        return;
    case Act::device:
        return change_device(step);
    case Act::tell_devices:
        expect_events(brokerd::kDevicesListUpdated, 1);
        return m_platform.expire(kDevicesTimer);
    case Act::telemetry:
        return m_platform.expire(kTelemetryTimer);
    case Act::refresh:
        expect_events(brokerd::kSubscriptionChanged, 1);
        m_is_refreshed = true;
        return m_platform.notify_watch();
    case Act::set:
        m_platform.settings[step.name] = step.text;
        return;
    case Act::unset:
        m_platform.settings.erase(step.name);
        return;
    case Act::clock:
        m_platform.now += step.number;
        return;
    case Act::stranger:
        if (m_platform.peer_uid)
            m_platform.peer_uid.reset();
        else
            m_platform.peer_uid = kStranger;
        return;
    case Act::renew:
        return m_platform.renew_exchange_fd();
    case Act::fail:
    case Act::fail_on:
    case Act::memory:
    case Act::json_memory:
        (void)fail(step);
        return;
    case Act::interrupt:
        return;
    }
}

void Session::deliver(const Step& step)
{
    const std::string name = step.name.substr(0, kOrvexMaxName);
    if (const std::string_view event = client_event_of(name.c_str()); !event.empty()) {
        const bool is_verbatim = event == brokerd::kVaStatusChanged;
        const bool must = event != brokerd::kDeviceDiscovery; // perhaps it was seen lately, or makes no sense
        expect_events(event, 1, must, is_verbatim ? &step.text : nullptr);
    }
    m_platform.deliver(name, step.text, step.text.size());
}

/// With the next reading of the exchange, which may come after others' answers.
void Session::answer_oldest(const std::string& type, const std::string& data)
{
    m_platform.deliver([this, type, data] {
        if (m_platform.requests.empty())
            return;
        const fake::Request request = std::move(m_platform.requests.front());
        m_platform.requests.erase(m_platform.requests.begin());
        const fake::MessageRecord message(type, data);
        const Fake::Inside inside;
        request.callback(request.arg, message.get());
    });
}

/// Makes something fail from now on. False when the step is another one.
bool Session::fail(const Step& step)
{
    const int number = std::max(step.number, 1);
    switch (step.act) {
    case Act::fail:
        m_platform.fail(step.text, number, step.error);
        return true;
    case Act::fail_on:
        m_platform.fail_from(step.text, number, step.error);
        return true;
    case Act::memory:
        m_platform.fail_memory(step.text, static_cast<unsigned>(number));
        return true;
    case Act::json_memory:
        m_platform.fail_json_allocation(static_cast<unsigned>(number));
        return true;
    default:
        return false;
    }
}

void Session::act_as_client(const Step& step)
{
    if (step.act == Act::say || step.act == Act::send || step.act == Act::subscribe)
        connect(step.who);
    Peer* peer = m_clients[step.who];
    if (!peer || !peer->socket.is_open())
        return;
    switch (step.act) {
    case Act::say:
        return send(*peer, step.text + "\n");
    case Act::send:
        return send(*peer, step.text);
    case Act::subscribe:
        return send(*peer, test::subscription(step.text) + "\n");
    case Act::leave:
        peer->may_end = true;
        peer->socket.close();
        m_clients[step.who] = nullptr;
        return;
    case Act::stop_sending:
        peer->may_end = peer->may_be_cut = true;
        return peer->socket.shut_down_writing();
    default:
        peer->is_deaf = !peer->is_deaf;
        return;
    }
}

/// A client whose connection has ended makes a new one.
void Session::connect(unsigned who)
{
    Peer*& client = m_clients[who];
    const bool is_over = client && (client->is_gone || !client->socket.is_open());
    if ((client && !is_over) || m_connecting.size() >= kMostConnecting || m_peers.size() >= kMostPeers)
        return;
    if (client)
        client->socket.close();
    m_peers.push_back(std::make_unique<Peer>());
    client = m_peers.back().get();
    client->socket.connect();
    require(client->socket.is_open(), "the daemon listens");
    m_connecting.push_back(client);
}

void Session::send(Peer& peer, const std::string& bytes)
{
    (void)peer.socket.send(bytes); // as much as there is room for
}

void Session::change_device(const Step& step)
{
    using Type = devMgmt::DevInfoChangeType;
    const auto known = m_platform.devices.find(step.name);
    const bool is_known = known != m_platform.devices.end();
    const devMgmt::Device device = is_known ? known->second : test::make_device(step.name);
    const Type type = step.text == "+" ? Type::added : step.text == "-" ? Type::removed : Type::updated;
    const bool is_field = type == Type::updated;
    m_changes.push_back({type, device, is_field ? step.text : ""});
    if (is_field)
        expect_events(brokerd::kDeviceDiscovery, device.macs.size());
    m_platform.notify_watch();
}

void Session::expect_events(std::string_view event, std::size_t count, bool must, const std::string* payload)
{
    for (const auto& peer : m_peers) {
        if (!peer->is_subscriber || peer->event != event)
            continue;
        peer->events += count;
        peer->must_get = must && !peer->is_deaf && is_connected(*peer);
        if (payload && peer->events == count)
            peer->payload = *payload;
        else
            peer->payload.reset();
    }
}

bool Session::notified(const path& key, void* user)
{
    for (const Change& change : std::exchange(m_changes, {}))
        m_platform.change_device(change.type, change.device, change.field);
    if (!std::exchange(m_is_refreshed, false))
        return true;
    const Fake::Inside inside;
    return m_told(key, user);
}

// ---- the end

/// Nothing fails any more, everybody listens, every request in flight is answered, and somebody new comes.
/// False when all of that has been done.
bool Session::settle()
{
    constexpr unsigned kMostEnds = 32; // an answer may be the reason for another request
    constexpr char kQuestion[] = R"({"type":"command","name":"get_version_info"})";
    (void)m_platform.forget_failures();
    for (const char* kind : kMemory)
        m_platform.fail_memory(kind, 0);
    m_platform.fail_json_allocation(0);
    for (const auto& peer : m_peers)
        peer->is_deaf = false;
    if (!m_platform.requests.empty() && ++m_ends < kMostEnds) {
        act({Act::answer_all, 0, "0", "{}"});
        return true;
    }
    require(m_platform.requests.empty(), "all requests can be answered");
    if (m_newcomer)
        return false;
    m_platform.settings.erase(kAllowedUids);
    m_platform.peer_uid.reset();
    m_platform.now += 2; // whoever could not be accepted has been waiting
    m_peers.push_back(std::make_unique<Peer>());
    m_newcomer = m_peers.back().get();
    m_newcomer->socket.connect();
    require(m_newcomer->socket.is_open(), "the daemon listens");
    m_connecting.push_back(m_newcomer);
    send(*m_newcomer, std::string(kQuestion) + "\n");
    return true;
}

void Session::check_end()
{
    m_platform.take_logs();
    for (const auto& peer : m_peers) {
        if (has_failed() || peer->is_gone || !peer->socket.is_open())
            continue;
        take_frames(*peer);
        require(peer->statuses.empty() && peer->requests == 0, "each request has its answer at last");
        require(peer->socket.bytes().empty(), "all frames are whole");
    }
    require(!m_newcomer || m_newcomer->was_answered, "a newcomer is served");
    require(g_connections.empty(), "no connection is left");
    require(brokerd::g_client_subscriptions.empty(), "no table names a connection that is gone");
    require(brokerd::g_exchange_subscriptions.empty(), "no table names a connection that is gone");
    brokerd::g_events_cache.clear();
    brokerd::g_last_reported.reset();
    brokerd::forget_user_agents();
}

} // namespace orv::fuzz
