// At each of the daemon's waits, what has happened since the last one is told to the model, in its order, and
// both are compared; then the next step of the plan is taken, and the daemon goes on. The order is read from
// the daemon's log: a request's line and its status, a subscription that ends, a request of its own.
// Everything else is done by the simulation itself and known to it.
//
// A pass in which something failed on purpose excuses what was to be sent in it, and lets the model take over
// what the daemon then holds; a pass in which nothing failed excuses nothing.

#include "world.h"

#include "support/stage.h"

#include "evhandler.h"
#include "make_device.h"
#include "orvbrokerd.h"
#include "orvex.h"

#include "state.h"
#include "subevhandlers.h"

#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string_view>

namespace orv::simulation {

using brokerd::g_connections;
using fake::Fake;

namespace {

constexpr char kAllowedUids[] = "/daemons/orvbrokerd/allowed_uids";
constexpr char kSubscriptionStatus[] = "/tmp/subscription/global/status";
constexpr char kSubscriptionExpiry[] = "/tmp/subscription/global/expiry";
constexpr char kTelemetryTimer[] = "timer1";
constexpr char kDevicesTimer[] = "timer2";
constexpr std::size_t kBacklog = 8;     ///< who may wait to be accepted
constexpr unsigned kSettledAfter = 400; ///< passes
constexpr uid_t kStranger = 4711;
constexpr int kSmallSendBuffer = 4096; ///< bytes: answers go out in pieces

constexpr std::string_view kOften = "throwing new";
constexpr std::array kMemory{"malloc", "realloc", "new", "strdup", kOften.data(), "watch"};
constexpr std::array kFallible{
    "recv(client",
    "send(client",
    "accept(",
    "epoll_ctl(MOD",
    "epoll_ctl(ADD",
    "epoll_ctl(DEL",
    "close(",
    "getsockopt(",
    "orvex_send_request",
    "orvex_send_message",
    "orvex_send_response",
    "orvex_subscribe",
    "orvex_get_fd",
    "MonitoredKey::get_fd",
    "timer_tick",
    "setMgmt::getKey",
    "setMgmt::setKey",
    "setMgmt::",
    "devMgmt::get_device",
    "devMgmt::get_devices",
    "karma::",
    "subs::load",
    "diagnosis::",
    "featureutl::",
    "exec_script",
};
constexpr std::array kErrors{EIO, EMFILE, ENOMEM, ECONNRESET, ENOENT, EAGAIN, EINTR};
constexpr unsigned kLastingErrors = kErrors.size() - 1; ///< no signal interrupts each call

/// Descriptors open in this process.
std::size_t count_descriptors()
{
    const Fake::Paused paused;
    std::size_t count = 0;
    DIR* directory = opendir("/proc/self/fd");
    if (!directory)
        return 0;
    while (readdir(directory))
        ++count;
    closedir(directory);
    return count - 3; // ".", ".." and its own
}

bool begins(const std::string& text, std::string_view beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

std::string cut_between(const std::string& text, std::string_view before, std::string_view after)
{
    return text.substr(before.size(), text.size() - before.size() - after.size());
}

template <typename Values>
auto pick(const Values& values, unsigned n)
{
    return values[n % std::size(values)];
}

std::map<std::string, devMgmt::Device>& prepare(Fake& platform)
{
    for (unsigned i = 0; i < kDevices; i += 2) {
        devMgmt::Device device = test::make_device(device_id(i));
        device.macs[sockutl::macaddr("02:00:00:00:00:0" + std::to_string(i))];
        platform.devices[device.did] = device;
    }
    platform.settings["/registration/device_id"] = "router-1";
    return platform.devices;
}

} // namespace

World::World(const Plan& plan, const std::string& root, Belief belief, bool is_verbose)
    : m_plan(plan), m_is_verbose(is_verbose), m_platform(std::make_unique<Fake>()),
      m_model(prepare(*m_platform), belief)
{
    m_platform->root = root;
}

World::~World() = default;

void World::run()
{
    m_first_descriptors = count_descriptors();
    m_platform->on_wait([this] {
        begin();
        at_wait();
    });
    char name[] = "orvbrokerd";
    char* arguments[] = {name, nullptr};
    int status = 0;
    {
        const Fake::Inside inside;
        status = brokerd::daemon_main(1, arguments);
    }
    check_end(status);
    std::printf("%016llx\n", static_cast<unsigned long long>(m_digest));
}

// ---- what is said

void World::write(const std::string& line)
{
    for (const char c : line)
        m_digest = (m_digest ^ static_cast<unsigned char>(c)) * 1099511628211U;
    if (m_is_verbose)
        std::printf("%s\n", line.c_str());
}

void World::fail(const std::string& rule, const std::string& what)
{
    std::printf("violated: %s: %s\n", rule.c_str(), what.c_str());
    std::fflush(stdout);
    _exit(1);
}

void World::require(bool holds, const std::string& rule, const std::string& what)
{
    if (!holds)
        fail(rule, what);
}

std::string World::title(const Peer& peer)
{
    return "client " + std::to_string(peer.client.number);
}

// ---- passes

void World::begin()
{
    m_own_descriptors = count_descriptors();
    m_told = m_platform->watch_callback;
    m_platform->watch_callback = [this](const path& key, void* user) { return notified(key, user); };
    observe();
    m_failed_before = m_platform->failed();
}

void World::wait_again()
{
    m_platform->on_wait([this] { at_wait(); });
}

void World::at_wait()
{
    end_pass();
    ++m_pass;
    m_model.begin_pass(m_pass);
    bool goes_on = true;
    while (goes_on && m_next_step < m_plan.steps.size()) {
        const Step& step = m_plan.steps[m_next_step++];
        write("- " + to_text(step));
        act(step);
        goes_on = step.joined;
    }
    if (goes_on && m_next_step == m_plan.steps.size())
        settle();
    else
        wait_again();
}

void World::observe()
{
    const Fake::Paused paused;
    for (const fake::LogLine& line : m_platform->take_logs()) {
        write(std::to_string(line.level) + " " + line.function + ": " + line.text);
        observe(line);
    }
}

void World::observe(const fake::LogLine& line)
{
    constexpr std::string_view kReceived = "received event on client socket ";
    constexpr std::string_view kStatus = "last operation status is ";
    constexpr std::string_view kSent = "successfully sent ";
    constexpr std::string_view kAccepted = "new client socket ";
    const std::string& text = line.text;
    if (begins(text, kAccepted)) {
        // Its descriptor may be one that another connection had when this pass began.
        require(!m_connecting.empty(), "nobody is accepted who has not come");
        m_owners[std::atoi(text.c_str() + kAccepted.size())] = m_connecting.front();
    } else if (begins(text, kReceived)) {
        const auto owner = m_owners.find(std::atoi(text.c_str() + kReceived.size()));
        require(owner != m_owners.end(), "no event of a connection that is gone is handled", text);
        m_current = owner->second;
    } else if (begins(text, kStatus)) {
        m_model.handled(m_current->client, std::atoi(text.c_str() + kStatus.size()));
    } else if (begins(text, "failed to load json: ") || begins(text, "no 'type' field in json: ") ||
               begins(text, "'type' is not a valid string in json: ")) {
        m_model.unusable(m_current->client);
    } else if (line.function == "unsubscribe") {
        m_model.unsubscribed(m_current->client);
    } else if (begins(text, kSent) && text.find(" request: ") != std::string::npos) {
        const std::string name = text.substr(kSent.size(), text.find(" request: ") - kSent.size());
        m_model.sent(++m_requests_seen, name, m_current ? &m_current->client : nullptr);
    } else if (line.function == "process_cached_events" && begins(text, "send json: ")) {
        m_model.devices_told(cut_between(text, "send json: ", ""));
    }
}

/// In the middle of a pass, before something that others are told of.
void World::catch_up()
{
    observe();
    for (const auto& peer : m_peers)
        if (peer->is_served() && !is_connected(*peer))
            m_model.forget(peer->client);
}

void World::end_pass()
{
    const Fake::Paused paused;
    observe();
    for (const std::string& call : m_platform->take_calls())
        write("  " + call);
    const bool has_failed = m_platform->failed() != m_failed_before || m_is_uncertain;
    m_failed_before = m_platform->failed();
    m_is_uncertain = false;
    if (has_failed)
        excuse();
    find_ended();
    find_accepted();
    check_descriptors();
    check_buffers();
    check_tables();
    const auto complaints = m_model.take_complaints();
    if (has_failed) {
        put_model_right();
        return;
    }
    if (!complaints.empty())
        fail("what is done is what should be", complaints.front());
    compare();
}

/// A connection's name goes with it, and another one may have its descriptor.
bool World::is_connected(const Peer& peer) const
{
    return g_connections.count(peer.fd) != 0 && m_platform->name(peer.fd) == peer.name;
}

brokerd::Connection& World::connection(const Peer& peer) const
{
    return *g_connections.at(peer.fd);
}

World::Peer* World::peer_of(const brokerd::Connection* conn) const
{
    for (const auto& [fd, known] : g_connections)
        if (known == conn) {
            const auto owner = m_owners.find(fd);
            return owner == m_owners.end() ? nullptr : owner->second;
        }
    return nullptr;
}

void World::find_ended()
{
    for (const auto& peer : m_peers)
        if (peer->is_served() && !is_connected(*peer))
            ended(*peer);
}

void World::ended(Peer& peer)
{
    write(title(peer) + " has no connection any more");
    peer.is_gone = true;
    if (const auto owner = m_owners.find(peer.fd); owner != m_owners.end() && owner->second == &peer)
        m_owners.erase(owner);
    if (m_current == &peer)
        m_current = nullptr;
    const Client& client = peer.client;
    const bool is_over =
        peer.has_left || client.is_dropped || client.may_be_dropped || peer.is_excused || peer.is_broken;
    require(is_over || client.is_last, "nobody's connection ends without a reason", title(peer));
    m_model.forget(peer.client);
    if (peer.socket.is_open())
        read(peer);
    if (is_over)
        return;
    const auto missing = client.inbox.missing();
    require(!missing, "the last answer comes before the end", title(peer) + ": " + missing.value_or(""));
    require(peer.socket.bytes().empty(), "all frames are whole", title(peer));
}

void World::find_accepted()
{
    std::string name = "client" + std::to_string(m_accepted + 1);
    for (; m_platform->fd(name) != -1; name = "client" + std::to_string(m_accepted + 1)) {
        ++m_accepted;
        require(!m_connecting.empty(), "nobody is accepted who has not come");
        Peer& peer = *m_connecting.front();
        m_connecting.pop_front();
        peer.name = name;
        peer.fd = m_platform->fd(name);
        accepted(peer);
    }
}

void World::accepted(Peer& peer)
{
    const bool is_stranger = m_platform->peer_uid && m_platform->settings.count(kAllowedUids) != 0;
    if (is_connected(peer)) {
        write(title(peer) + " is " + peer.name);
        require(!is_stranger || peer.is_excused, "strangers are refused", title(peer));
        m_owners[peer.fd] = &peer;
        if (peer.client.number % 2 == 0)
            setsockopt(peer.fd, SOL_SOCKET, SO_SNDBUF, &kSmallSendBuffer, sizeof kSmallSendBuffer);
        return;
    }
    write(title(peer) + " is refused");
    require(is_stranger || peer.is_excused, "who may connect is accepted", title(peer));
    peer.is_gone = true;
}

// ---- after a fault

/// What was to be sent in this pass may be missing, and connections that were there may end in it.
void World::excuse()
{
    write("something has failed");
    for (const auto& peer : m_peers) {
        if (peer->is_gone)
            continue;
        peer->is_excused = true;
        peer->client.inbox.excuse(m_pass);
    }
}

/// From here on the daemon's state is taken for right, as long as it makes sense.
void World::put_model_right()
{
    for (auto* table : {&m_model.subscribers, &m_model.receivers})
        table->clear();
    for (const auto& [event, conns] : brokerd::g_client_subscriptions)
        for (const auto* conn : conns)
            m_model.subscribers[event].push_back(&peer_of(conn)->client);
    for (const auto& [event, callbacks] : brokerd::g_exchange_subscriptions)
        for (const auto& callback : callbacks)
            for (const auto* conn : callback.second)
                m_model.receivers[event].push_back(&peer_of(conn)->client);
    m_model.doubt();
    m_model.changes.clear();
    m_model.changes.insert(brokerd::g_events_cache.begin(), brokerd::g_events_cache.end());
    m_model.last_told.reset();
    if (brokerd::g_last_reported) {
        const TextPtr text = dump(brokerd::g_last_reported.get());
        m_model.last_told = text.get();
    }
    const auto setting = m_platform->settings.find("/protection/enabled");
    m_model.is_protected = setting == m_platform->settings.end() || setting->second == "1";
    m_requests_seen = m_platform->last_request;

    for (const auto& peer : m_peers) {
        if (!peer->is_served())
            continue;
        const brokerd::Connection& conn = connection(*peer);
        peer->client.is_subscriber = conn.mode == brokerd::kSubscriberMode;
        peer->client.event = conn.subscription;
        peer->client.is_last = conn.close_after_send;
        pollfd state{conn.fd, POLLRDHUP, 0};
        (void)poll(&state, 1, 0);
        const bool is_cut = (state.revents & (POLLHUP | POLLRDHUP)) != 0; // by the daemon, or by the client
        peer->is_excused = is_cut || conn.close_requested;
        peer->may_hang = peer->may_hang || conn.tx.pending() > 0;
    }
    for (Peer* peer : m_connecting)
        peer->is_excused = false;
}

// ---- comparing

void World::compare()
{
    for (const auto& peer : m_peers) {
        if (!peer->is_served())
            continue;
        const brokerd::Connection& conn = connection(*peer);
        const Client& client = peer->client;
        require(conn.close_after_send == client.is_last || client.may_be_dropped,
                "a failure and an answer of the exchange are the last on their connection", title(*peer));
        require((conn.mode == brokerd::kSubscriberMode) == client.is_subscriber,
                "who has subscribed is a subscriber", title(*peer));
    }
    const auto names = [](const std::vector<Client*>& clients) {
        std::string text;
        for (const Client* client : clients)
            text += " " + std::to_string(client->number);
        return text;
    };
    std::map<std::string, std::string> wanted;
    std::map<std::string, std::string> there;
    for (const auto& [event, clients] : m_model.subscribers)
        wanted[event] = names(clients);
    for (const auto& [event, clients] : m_model.receivers)
        wanted["exchange " + event] = names(clients);
    for (const auto& [event, conns] : brokerd::g_client_subscriptions)
        for (const auto* conn : conns)
            there[event] += " " + std::to_string(peer_of(conn)->client.number);
    for (const auto& [event, callbacks] : brokerd::g_exchange_subscriptions)
        for (const auto& callback : callbacks)
            for (const auto* conn : callback.second)
                there["exchange " + event] += " " + std::to_string(peer_of(conn)->client.number);
    if (wanted == there)
        return;
    std::string what = "should be";
    for (const auto& [event, text] : wanted)
        what += " (" + event + ":" + text + ")";
    what += ", is";
    for (const auto& [event, text] : there)
        what += " (" + event + ":" + text + ")";
    fail("nobody is silenced but by the one rule", what);
}

void World::check_tables()
{
    for (const auto& [event, conns] : brokerd::g_client_subscriptions) {
        require(!conns.empty(), "no event is kept that nobody has subscribed to", event);
        for (const auto* conn : conns)
            require(peer_of(conn), "no table names a connection that is gone", event);
    }
    for (const auto& [event, callbacks] : brokerd::g_exchange_subscriptions)
        for (const auto& callback : callbacks)
            for (const auto* conn : callback.second)
                require(peer_of(conn), "no table names a connection that is gone", "exchange " + event);
    for (const auto& [fd, conn] : g_connections) {
        require(conn->fd == fd, "a connection stands under its descriptor", std::to_string(fd));
        require(m_owners.count(fd) != 0, "a connection is somebody's", std::to_string(fd));
    }
}

void World::check_buffers()
{
    for (const auto& [fd, conn] : g_connections)
        for (const ConnectionBuffer* buffer : {&conn->rx, &conn->tx}) {
            const bool fits = buffer->pending() <= buffer->capacity() &&
                              buffer->capacity() <= brokerd::kBufferMaximumSize &&
                              buffer->capacity() > brokerd::kBufferInitialSize / 2; // it may begin with less
            require(fits, "buffers stay within their bounds", std::to_string(fd));
        }
    for (const auto& peer : m_peers)
        if (peer->is_served())
            peer->is_broken =
                peer->is_broken || connection(*peer).tx.pending() == brokerd::kBufferMaximumSize;
}

void World::check_descriptors()
{
    const auto clients = std::count_if(m_peers.begin(), m_peers.end(),
                                       [](const auto& peer) { return peer->socket.is_open(); });
    const std::size_t wanted = m_own_descriptors + g_connections.size() + static_cast<std::size_t>(clients);
    const std::size_t there = count_descriptors();
    require(wanted == there, "no descriptor is lost",
            std::to_string(there) + " in place of " + std::to_string(wanted));
}

// ---- steps

void World::act(const Step& step)
{
    switch (step.act) {
    case Act::connect:
        return connect(step);
    case Act::ask:
    case Act::say:
    case Act::read:
    case Act::shut_down:
    case Act::leave:
        return act_as_client(step, m_slots[step.who]);
    case Act::event:
        return event(step);
    case Act::answer:
        return answer(step, /*twice=*/false);
    case Act::answer_twice:
        return answer(step, /*twice=*/true);
    case Act::renew_exchange:
        return m_platform->renew_exchange_fd();
    case Act::device:
        return change_device(step);
    case Act::subscription:
        return change_subscription(step);
    case Act::tell_devices:
        return m_platform->expire(kDevicesTimer);
    case Act::retry_telemetry:
        m_platform->outbox.clear();
        for (unsigned n = 0; n < step.amount % 3; ++n)
            m_platform->outbox.push_back(R"({"id": "kept-)" + std::to_string(n) + "\"}");
        return m_platform->expire(kTelemetryTimer);
    case Act::pass_time:
        m_platform->now += step.amount % 200;
        return;
    case Act::interrupt:
        return m_platform->on_wait_fail(EINTR);
    case Act::admission:
        if (step.what % 2 == 0)
            m_platform->settings[kAllowedUids] = "5,6";
        else
            m_platform->settings.erase(kAllowedUids);
        if (step.amount % 2 == 0)
            m_platform->peer_uid = kStranger;
        else
            m_platform->peer_uid.reset();
        return;
    case Act::fail_call:
    case Act::fail_calls:
    case Act::fail_memory:
    case Act::fail_all_memory:
    case Act::fail_json_memory:
        return fail_something(step);
    case Act::relent:
        return relent();
    case Act::idle:
        return;
    }
}

void World::act_as_client(const Step& step, Peer* peer)
{
    if (!peer || !peer->socket.is_open())
        return;
    if (step.act == Act::read)
        return read(*peer);
    if (step.act == Act::leave)
        return end_client(*peer);
    if (peer->has_left)
        return;
    if (step.act == Act::ask)
        return ask(*peer, step);
    if (step.act == Act::say)
        return send(*peer, step.amount % 4 == 0 ? peer->outgoing.size() : step.amount % 64);
    peer->socket.shut_down_writing();
    peer->has_left = true;
}

void World::connect(const Step& step)
{
    Peer*& slot = m_slots[step.who];
    if (m_connecting.size() == kBacklog)
        return;
    if (slot && slot->socket.is_open()) {
        if (!slot->is_gone)
            return;
        end_client(*slot);
    }
    m_peers.push_back(std::make_unique<Peer>(static_cast<unsigned>(m_peers.size()) + 1));
    slot = m_peers.back().get();
    slot->socket.connect();
    require(slot->socket.is_open(), "the daemon can be reached", title(*slot));
    m_connecting.push_back(slot);
}

void World::ask(Peer& peer, const Step& step)
{
    Request request = make_request(step.what, step.amount);
    write(title(peer) + " will ask " + request.line.substr(0, 200));
    peer.outgoing += request.line + "\n";
    peer.unsent.push_back(std::move(request));
    send(peer, step.amount % 4 == 0 ? step.what % 32 : peer.outgoing.size());
}

void World::send(Peer& peer, std::size_t count)
{
    const std::size_t sent = peer.socket.send(peer.outgoing.substr(0, count));
    const auto end = peer.outgoing.begin() + static_cast<std::ptrdiff_t>(sent);
    for (auto lines = std::count(peer.outgoing.begin(), end, '\n'); lines > 0; --lines) {
        peer.client.unhandled.push_back(std::move(peer.unsent.front()));
        peer.unsent.pop_front();
    }
    peer.outgoing.erase(0, sent);
    write(title(peer) + " sends " + std::to_string(sent) + " bytes");
}

void World::read(Peer& peer)
{
    while (const auto frame = peer.socket.frame()) {
        if (peer.is_broken)
            continue;
        write(title(peer) + " receives " + *frame);
        if (!peer.client.inbox.receive(*frame))
            fail("everybody receives what is his, and nothing else",
                 title(peer) + " received " + frame->substr(0, 300));
    }
}

void World::end_client(Peer& peer)
{
    read(peer);
    peer.socket.close();
    peer.has_left = true;
    write(title(peer) + " leaves");
}

// ---- the exchange

void World::deliver(const std::string& type, const std::string& data)
{
    m_platform->deliver([=] {
        {
            const Fake::Paused paused;
            catch_up();
            m_model.exchange_event(type, data);
        }
        const fake::MessageRecord message(type, data, /*id=*/7);
        {
            const Fake::Inside inside;
            m_platform->event_callback(message.get());
        }
        observe();
    });
}

void World::event(const Step& step)
{
    const std::string number = std::to_string(step.amount);
    switch (step.what % 8) {
    case 0:
    case 1:
        return deliver("va_status_changed", R"({"n": )" + number + "}");
    case 2:
        return deliver("va_status_changed", step.amount % 2 == 0 ? "" : "no JSON \x01 at all");
    case 3:
        return deliver("orvagent_started", "{}");
    case 4:
    case 5:
        return deliver("guster_user_agent", R"({"user_agent": "agent )" + std::to_string(step.amount % 5) +
                                                R"(", "src_ip": "10.0.0.1", "src_mac": "02:00:00:00:00:0)" +
                                                std::to_string(step.amount % 3) + "\"}");
    case 6:
        return deliver("guster_user_agent", step.amount % 2 == 0 ? R"({"src_ip": "10.0.0.1"})" : "{");
    default:
        return deliver(step.amount % 2 == 0 ? "registration_status_changed" : "nobody's",
                       step.amount % 4 == 0 ? R"({"result": "ok"})"
                                            : R"({"result": "bad", "reason": "why"})");
    }
}

void World::answer(const Step& step, bool twice)
{
    if (m_platform->requests.empty())
        return;
    const fake::Request& request =
        m_platform->requests[step.what % static_cast<unsigned>(m_platform->requests.size())];
    std::string data = R"({"token": )" + std::to_string(request.number) + "}";
    if (request.name == "start_cloud_registration")
        data = step.amount % 3 == 0 ? R"({"result": "bad", "reason": "why"})" : R"({"result": "ok"})";
    if (step.amount % 5 == 0)
        data = pick(std::array{"", "{", "null", "5"}, step.what);
    const std::string type = pick(std::array{"0", "0", "0", "1", "x"}, step.amount);
    const unsigned number = request.number;
    deliver_answer(number, type, data);
    if (twice)
        deliver_answer(number, type, data);
}

void World::deliver_answer(unsigned number, const std::string& type, const std::string& data)
{
    m_platform->deliver([=] {
        auto& requests = m_platform->requests;
        const auto found = std::find_if(requests.begin(), requests.end(),
                                        [=](const fake::Request& sent) { return sent.number == number; });
        if (found == requests.end())
            return; // the library has no such request any more
        const fake::Request request = *found;
        requests.erase(found);
        {
            const Fake::Paused paused;
            catch_up();
            m_is_uncertain = !m_model.answered(number, data) || m_is_uncertain;
        }
        const fake::MessageRecord message(type, data);
        {
            const Fake::Inside inside;
            request.callback(request.arg, message.get());
        }
        observe();
    });
}

// ---- devices and settings

void World::change_device(const Step& step)
{
    const std::string id = device_id(step.what);
    const auto& fields = brokerd::g_dev_info_fields;
    devMgmt::Device device = test::make_device(id);
    device.macs[sockutl::macaddr("02:00:00:00:00:0" + id.substr(id.size() - 1))];
    device.display_name = "TV " + std::to_string(step.amount);
    auto type = devMgmt::DevInfoChangeType::updated;
    std::string field = fields[step.amount % fields.size()];
    if (m_platform->devices.count(id) == 0)
        type = devMgmt::DevInfoChangeType::added;
    else if ((step.amount >> 8) % 4 == 0)
        type = devMgmt::DevInfoChangeType::removed;
    if (type != devMgmt::DevInfoChangeType::updated)
        field.clear();
    if (type == devMgmt::DevInfoChangeType::removed)
        m_platform->devices.erase(id);
    else
        m_platform->devices[id] = device;
    m_changes.push_back({type, device, field});
    m_platform->notify_watch();
}

void World::change_subscription(const Step& step)
{
    m_platform->settings[kSubscriptionStatus] =
        pick(std::array{"valid", "valid", "expired", "none"}, step.what);
    m_platform->settings[kSubscriptionExpiry] = std::to_string(step.amount % 3 * 1000);
    m_is_subscription_changed = true;
    m_platform->notify_watch();
}

bool World::notified(const path& key, void* user)
{
    for (const Change& change : std::exchange(m_changes, {})) {
        {
            const Fake::Paused paused;
            catch_up();
            m_model.device_changed(change.type, change.device, change.field);
        }
        m_platform->change_device(change.type, change.device, change.field);
        observe();
    }
    if (!std::exchange(m_is_subscription_changed, false))
        return true;
    {
        const Fake::Paused paused;
        catch_up();
        m_model.subscription_changed(m_platform->settings[kSubscriptionStatus],
                                     std::atoll(m_platform->settings[kSubscriptionExpiry].c_str()));
    }
    const Fake::Inside inside;
    return m_told(key, user);
}

// ---- faults

void World::fail_something(const Step& step)
{
    const int once = 1 + static_cast<int>(step.amount % 4);
    switch (step.act) {
    case Act::fail_call:
        return m_platform->fail(pick(kFallible, step.what), once, pick(kErrors, step.amount >> 4));
    case Act::fail_calls:
        return m_platform->fail_from(pick(kFallible, step.what), once,
                                     kErrors[(step.amount >> 4) % kLastingErrors]);
    case Act::fail_memory:
        // Only objects are asked for often.
        return m_platform->fail_memory(pick(kMemory, step.what),
                                       1 + step.amount % (pick(kMemory, step.what) == kOften ? 16 : 4));
    case Act::fail_all_memory:
        return m_platform->fail_memory(pick(kMemory, step.what), 1, /*onwards=*/true);
    default:
        return m_platform->fail_json_allocation(1 + step.amount % 24, step.what % 4 == 0);
    }
}

void World::relent()
{
    (void)m_platform->forget_failures(); // what never came is none of our concern
    for (const char* kind : kMemory)
        m_platform->fail_memory(kind, 0);
    m_platform->fail_json_allocation(0);
}

// ---- the end

/// Nothing fails any more, and everybody goes on: nobody must be left without what is his.
void World::settle()
{
    if (m_closing > 0)
        return close_world();
    if (m_settling++ == 0) {
        write("- settle");
        relent();
        m_platform->settings.erase(kAllowedUids);
        for (const auto& peer : m_peers)
            if (peer->socket.is_open() && !peer->has_left && !peer->client.is_subscriber) {
                peer->unsent.push_back({Asked::nothing, test::command("last"), {}, {}});
                peer->outgoing += peer->unsent.back().line + "\n";
            }
    }
    m_platform->now += 2;
    if (m_settling == 8)
        for (unsigned i = 0; i < m_platform->requests.size(); ++i)
            deliver_answer(m_platform->requests[i].number, "0", R"({"late": true})");
    if (m_settling == 12)
        trigger_all_events();
    settle_peers();
    const std::string left = unsettled();
    if (m_settling >= 16 && left.empty())
        return close_world();
    require(m_settling < kSettledAfter, "everybody is served in the end", left);
    wait_again();
}

void World::settle_peers()
{
    for (const auto& peer : m_peers) {
        if (!peer->socket.is_open())
            continue;
        read(*peer);
        if (peer->has_left || peer->is_gone)
            continue;
        // One request is taken at a time, so the others wait for more to arrive: a blank is enough.
        if (peer->outgoing.empty() && !peer->client.unhandled.empty())
            (void)peer->socket.send(" ");
        send(*peer, peer->outgoing.size());
    }
}

std::string World::unsettled() const
{
    if (!m_connecting.empty())
        return title(*m_connecting.front()) + " is not accepted";
    for (const auto& peer : m_peers) {
        if (peer->is_gone || peer->is_broken)
            continue;
        const Client& client = peer->client;
        if (peer->has_left || client.is_dropped)
            return title(*peer) + " is still connected";
        if (client.is_subscriber && peer->may_hang)
            continue; // it may be silenced, and then nothing sends it what was left
        if (client.is_last)
            return title(*peer) + " has had its last answer and is still connected";
        if (!client.is_subscriber && !client.unhandled.empty())
            return title(*peer) + " waits for the answer to " + client.unhandled.front().line.substr(0, 200);
        if (const auto missing = client.inbox.missing())
            return title(*peer) + " waits for " + *missing;
    }
    return {};
}

void World::trigger_all_events()
{
    deliver("va_status_changed", R"({"settled": true})");
    deliver("orvagent_started", "{}");
    deliver("guster_user_agent",
            R"({"user_agent": "settled", "src_ip": "10.0.0.9", "src_mac": "02:00:00:00:00:09"})");
    m_platform->settings[kSubscriptionStatus] = "valid";
    m_platform->settings[kSubscriptionExpiry] = "4242";
    m_is_subscription_changed = true;
    devMgmt::Device device = test::make_device(device_id(1));
    device.macs[sockutl::macaddr("02:00:00:00:00:01")];
    m_platform->devices[device.did] = device;
    m_changes.push_back({devMgmt::DevInfoChangeType::updated, device, "macs"});
    m_platform->notify_watch();
    m_platform->expire(kDevicesTimer);
}

void World::close_world()
{
    if (m_closing++ == 0) {
        write("- close");
        for (const auto& peer : m_peers)
            if (peer->socket.is_open() && m_plan.ending % 2 == 0)
                end_client(*peer);
    }
    if (m_closing < 4)
        return wait_again();
    require(m_plan.ending % 2 != 0 || g_connections.empty(), "who has left is forgotten");
    if (m_plan.ending >= 2)
        return m_platform->on_wait_fail(EBADF);
    m_platform->raise_stop();
}

void World::check_end(int status)
{
    for (const auto& line : m_platform->take_logs())
        write(std::to_string(line.level) + " " + line.function + ": " + line.text);
    for (const std::string& call : m_platform->take_calls())
        write("  " + call);
    require(status == 0, "the daemon ends well");
    require(g_connections.empty() && brokerd::g_client_subscriptions.empty() &&
                brokerd::g_exchange_subscriptions.empty(),
            "nothing is left of the connections");
    for (const auto& peer : m_peers) {
        if (!peer->socket.is_open())
            continue;
        read(*peer);
        (void)peer->socket.bytes();
        require(peer->socket.is_closed(), "all connections end with the daemon", title(*peer));
    }
    m_peers.clear();
    m_platform.reset();
    // The stop descriptor came with the platform.
    require(count_descriptors() + 1 == m_first_descriptors, "no descriptor is lost",
            std::to_string(count_descriptors()) + " in place of " + std::to_string(m_first_descriptors));
}

} // namespace orv::simulation
