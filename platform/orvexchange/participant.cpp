// A participant is away, joining or joined.
//
// Joining sends everything at once: Hello, the claim of the name, the match rules of all subscriptions. The
// bus works through them in order, so the answer to the claim says that the participant is there, and no
// subscribed event can come before it. Whether the caller waits for that (at first) or not (after the
// exchange was away) is the only difference between connecting and reconnecting. Whoever knows our unique
// name can address us sooner; nothing of that is handed over, since a caller that waits is not in
// orvex_read_fd(). A bus that accepts the connection but does not answer is waited for; a lost connection is
// tried again after a time that doubles.
//
// Answers are matched with requests by serial number in a table of our own rather than with libdbus' pending
// calls: these bring a timer each, where one alarm for the oldest deadline does.
//
// Whatever must reach the caller does so from process(). When there is something to do that no descriptor
// tells of (messages that are read but not delivered, a connection found broken while sending), settle() sets
// the alarm off at once.

#include "participant.h"

#include "traffic.h"

#include <orvexchange/address.h>
#include <orvutils/log_format.h>
#include <orvutils/setmgmt.h>

#include <dbus/dbus.h>

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

using namespace orv::exchange;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kJoinTime{5000};
constexpr milliseconds kFirstRetryDelay{100};
constexpr milliseconds kMaxRetryDelay{5000};
constexpr int kDefaultRequestTimeMs = 60000;
/// Bytes that may wait to be written; a bus that does not read must not eat the memory.
constexpr std::size_t kMaxQueued = 2 * kOrvexMaxPayload;

constexpr char kRequestTimeKey[] = "/exchange/request_timeout_ms";
constexpr char kTypeSuccess[] = "0";
constexpr char kTypeNoAnswer[] = "2";

constexpr std::uint32_t kLinkTag = 0;
constexpr std::uint32_t kAlarmTag = 1;

constexpr char kIntrospection[] =
    R"(<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node>
 <interface name="net.orvane.Exchange1">
  <signal name="Event"><arg name="name" type="s"/><arg name="from" type="s"/><arg name="identifier" type="t"/><arg name="data" type="ay"/></signal>
  <method name="Request"><arg name="name" type="s" direction="in"/><arg name="data" type="ay" direction="in"/><arg name="type" type="s" direction="out"/><arg name="data" type="ay" direction="out"/></method>
  <method name="Message"><arg name="name" type="s" direction="in"/><arg name="data" type="ay" direction="in"/><annotation name="org.freedesktop.DBus.Method.NoReply" value="true"/></method>
  <method name="Respond"><arg name="identifier" type="t" direction="in"/><arg name="data" type="ay" direction="in"/><annotation name="org.freedesktop.DBus.Method.NoReply" value="true"/></method>
 </interface>
</node>
)";

milliseconds request_time()
{
    const int value = orv::setMgmt::getKeyValue(kRequestTimeKey, kDefaultRequestTimeMs);
    return milliseconds{value > 0 ? value : kDefaultRequestTimeMs};
}

std::string error_text(DBusMessage& reply)
{
    DBusError error = DBUS_ERROR_INIT;
    if (!dbus_set_error_from_message(&error, &reply))
        return "malformed answer";
    std::string text = error.message && *error.message != '\0' ? error.message : error.name;
    dbus_error_free(&error);
    return text;
}

Bytes bytes_of(const std::string& text)
{
    return {text.data(), text.size()};
}

template <std::size_t Size>
void copy_name(char (&to)[Size], const char* from)
{
    const std::size_t length = strnlen(from, Size - 1);
    std::memcpy(to, from, length);
    to[length] = '\0';
}

Message make_message(const char* type, const char* from, std::uint64_t identifier, Bytes data)
{
    Message message{};
    copy_name(message.type, type);
    copy_name(message.from, from);
    message.request_id = identifier;
    message.datalen = static_cast<std::uint32_t>(data.size);
    message.data = data.data;
    return message;
}

bool watch_for_input(int epoll, int fd, std::uint32_t tag)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = tag;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

} // namespace

/// What can be called on a participant.
struct Orvex::Method {
    const char* interface;
    const char* member;
    void (Orvex::*process)(DBusMessage& call);
};

const Orvex::Method Orvex::kMethods[] = {
    {kInterface, "Request", &Orvex::on_request},
    {kInterface, "Message", &Orvex::on_message},
    {kInterface, "Respond", &Orvex::on_respond},
    {DBUS_INTERFACE_PEER, "Ping", &Orvex::on_ping},
    {DBUS_INTERFACE_INTROSPECTABLE, "Introspect", &Orvex::on_introspect},
};

Orvex::Orvex(std::string name, OrvexHandler handler, OrvexObserver observer, bool auto_reconnect)
    : m_name(std::move(name)), m_handler(std::move(handler)), m_observer(std::move(observer)),
      m_auto_reconnect(auto_reconnect), m_epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_retry_delay(kFirstRetryDelay), m_traffic(m_observer ? std::make_unique<TrafficReader>() : nullptr)
{
}

Orvex::~Orvex() = default;

// ---- coming and going

bool Orvex::start()
{
    if (m_epoll.get() < 0 || !m_alarm.open() || !watch_for_input(m_epoll.get(), m_alarm.fd(), kAlarmTag)) {
        complain(fmt::format("cannot set up the exchange's descriptors: {}", std::strerror(errno)));
        return false;
    }
    join();
    if (!wait_until_joined())
        return false;
    settle();
    return true;
}

void Orvex::join()
{
    std::string error;
    m_retry_at.reset();
    m_request_time = request_time();
    m_link = Link::open(orvex_address(), m_epoll.get(), kLinkTag, error);
    if (!m_link)
        return leave("cannot reach the exchange: " + error);
    m_state = State::joining;
    if (!send_join_calls())
        leave("cannot join the exchange: out of memory");
}

bool Orvex::send_join_calls()
{
    const auto hello = make_hello();
    const auto claim = m_observer ? make_monitor_call() : make_name_claim(bus_name(m_name));
    if (!hello || !claim)
        return false;
    m_hello = m_link->send(*hello).value_or(0);
    const bool has_claim = m_observer || !m_name.empty();
    m_claim = has_claim ? m_link->send(*claim).value_or(0) : m_hello;
    if (m_hello == 0 || m_claim == 0)
        return false;
    return std::all_of(m_events.begin(), m_events.end(),
                       [this](const std::string& event) { return change_match("AddMatch", event); });
}

bool Orvex::wait_until_joined()
{
    const TimePoint end = Clock::now() + kJoinTime;
    while (m_state == State::joining) {
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        if (left <= milliseconds::zero()) {
            complain("the exchange does not answer");
            return false;
        }
        m_link->update_interest();
        wait(left);
        // What comes after joining is for the caller's first pass.
        while (m_state == State::joining) {
            const MessagePtr message = m_link->pop();
            if (!message)
                break;
            dispatch(*message);
        }
    }
    return m_state == State::joined;
}

void Orvex::on_join_reply(DBusMessage& reply)
{
    if (dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_ERROR)
        return leave("the exchange refuses us: " + error_text(reply));

    const std::uint32_t serial = dbus_message_get_reply_serial(&reply);
    const char* unique_name = nullptr;
    if (serial == m_hello &&
        dbus_message_get_args(&reply, nullptr, DBUS_TYPE_STRING, &unique_name, DBUS_TYPE_INVALID))
        m_unique_name = unique_name;
    if (serial != m_claim)
        return;

    dbus_uint32_t result = DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
    if (!m_name.empty() &&
        !dbus_message_get_args(&reply, nullptr, DBUS_TYPE_UINT32, &result, DBUS_TYPE_INVALID))
        result = 0;
    if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER)
        return leave(fmt::format("the name {} is taken on the exchange", m_name));
    on_joined();
}

void Orvex::on_joined()
{
    m_state = State::joined;
    m_retry_delay = kFirstRetryDelay;
    if (!m_complaint.empty())
        ORV_LOG(orv::log::kInfo, "back on the exchange");
    m_complaint.clear();
}

void Orvex::leave(const std::string& reason)
{
    complain(reason);
    m_link.reset();
    m_state = State::away;
    m_origins.clear();
    if (m_auto_reconnect) {
        m_retry_at = Clock::now() + m_retry_delay;
        m_retry_delay = std::min(2 * m_retry_delay, kMaxRetryDelay);
    }
    for (const Request& request : m_requests.take_all())
        answer(request, kTypeNoAnswer, bytes_of(reason));
}

void Orvex::complain(const std::string& text)
{
    if (text == m_complaint)
        return;
    m_complaint = text;
    ORV_LOG(orv::log::kWarning, "{}", text);
}

// ---- one pass

int Orvex::process()
{
    if (m_processing)
        return -1;
    m_processing = true;
    wait(milliseconds::zero());
    deliver();
    if (std::exchange(m_alarm_rang, false))
        expire();
    m_processing = false;
    settle();
    return m_state == State::away && !m_retry_at ? -1 : 0;
}

void Orvex::wait(milliseconds time)
{
    std::array<epoll_event, 2> events{};
    const int count = epoll_wait(m_epoll.get(), events.data(), static_cast<int>(events.size()),
                                 static_cast<int>(time.count()));
    for (int i = 0; i < count; ++i) { // none when a signal interrupts: the caller comes again
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        if (event.data.u32 == kAlarmTag) {
            m_alarm.acknowledge();
            m_alarm_rang = true;
        } else if (m_link) {
            m_link->handle(event.events);
        }
    }
}

void Orvex::deliver()
{
    // libdbus reads some kilobytes in one pass: a flood leaves the caller time for its other work.
    while (m_link) {
        const MessagePtr message = m_link->pop();
        if (!message)
            return;
        dispatch(*message);
    }
}

void Orvex::expire()
{
    const TimePoint now = Clock::now();
    while (const auto request = m_requests.take_expired(now))
        answer(*request, kTypeNoAnswer, bytes_of("timed out"));
    if (m_retry_at && *m_retry_at <= now)
        join();
}

void Orvex::settle()
{
    if (m_processing)
        return; // once, at its end
    if (m_link) {
        m_link->update_interest();
        if (m_link->has_messages())
            m_alarm.ring_now();
    }
    if (const auto deadline = m_requests.next_deadline())
        m_alarm.ring_by(*deadline);
    if (m_retry_at)
        m_alarm.ring_by(*m_retry_at);
}

// ---- what arrives

void Orvex::dispatch(DBusMessage& message)
{
    if (dbus_message_is_signal(&message, DBUS_INTERFACE_LOCAL, "Disconnected"))
        return leave("the exchange is gone");
    if (m_observer && m_state == State::joined) {
        if (const auto traffic = m_traffic->read(message))
            m_observer(*traffic);
        return;
    }
    switch (dbus_message_get_type(&message)) {
    case DBUS_MESSAGE_TYPE_METHOD_RETURN:
    case DBUS_MESSAGE_TYPE_ERROR:
        return on_reply(message);
    case DBUS_MESSAGE_TYPE_SIGNAL:
        return on_signal(message);
    case DBUS_MESSAGE_TYPE_METHOD_CALL:
        return on_call(message);
    default:
        return; // types of the future are to be ignored
    }
}

void Orvex::on_reply(DBusMessage& reply)
{
    const std::uint32_t serial = dbus_message_get_reply_serial(&reply);
    if (m_state == State::joining && (serial == m_hello || serial == m_claim))
        return on_join_reply(reply);
    const auto request = m_requests.take(serial);
    if (!request)
        return; // too late
    const bool is_error = dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_ERROR;
    if (!request->callback) {
        if (is_error)
            ORV_LOG(orv::log::kWarning, "the exchange refuses a subscription: {}", error_text(reply));
        return;
    }
    if (is_error)
        return answer(*request, kTypeNoAnswer, bytes_of(error_text(reply)));
    if (const auto content = read_named(reply))
        return answer(*request, content->name, content->data);
    ORV_LOG(orv::log::kWarning, "malformed answer from {}", request->participant);
    answer(*request, kTypeNoAnswer, bytes_of("malformed answer"));
}

void Orvex::on_signal(DBusMessage& signal)
{
    if (m_state == State::joining || !dbus_message_is_signal(&signal, kInterface, "Event"))
        return; // the bus's own
    const auto content = read_event(signal);
    if (!content) {
        ORV_LOG(orv::log::kWarning, "malformed event from {}", sender_of(signal));
        return;
    }
    if (m_events.find(content->name) == m_events.end())
        return; // on its way when it was unsubscribed
    const std::uint64_t identifier = remember({Origin::Kind::event, sender_of(signal), content->identifier});
    hand_over(OrvexKind::event, *content, content->from, identifier);
}

void Orvex::on_call(DBusMessage& call)
{
    if (m_state == State::joining)
        return refuse(call, kErrorNotJoined, "call while joining");
    const char* interface = dbus_message_get_interface(&call); // may be left out
    for (const Method& method : kMethods)
        if (dbus_message_has_member(&call, method.member) &&
            (!interface || std::strcmp(interface, method.interface) == 0))
            return (this->*method.process)(call);
    refuse(call, DBUS_ERROR_UNKNOWN_METHOD, "unknown method");
}

void Orvex::on_request(DBusMessage& call)
{
    const auto content = read_named(call);
    if (!content)
        return refuse(call, kErrorBadArguments, "malformed request");
    const char* sender = sender_of(call);
    if (dbus_message_get_no_reply(&call))
        return hand_over(OrvexKind::message, *content, sender, 0);
    const std::uint64_t identifier =
        remember({Origin::Kind::request, sender, dbus_message_get_serial(&call)});
    hand_over(OrvexKind::request, *content, sender, identifier);
}

void Orvex::on_message(DBusMessage& call)
{
    const auto content = read_named(call);
    if (!content)
        return refuse(call, kErrorBadArguments, "malformed message");
    acknowledge(call);
    hand_over(OrvexKind::message, *content, sender_of(call), 0);
}

void Orvex::on_respond(DBusMessage& call)
{
    auto content = read_respond(call);
    if (!content)
        return refuse(call, kErrorBadArguments, "malformed answer to an event");
    if (content->identifier == 0 || content->identifier > m_published)
        return refuse(call, kErrorBadArguments, "answer to an event that never was");
    acknowledge(call);
    content->name = kTypeSuccess;
    hand_over(OrvexKind::respond, *content, sender_of(call), content->identifier);
}

void Orvex::on_ping(DBusMessage& call)
{
    acknowledge(call);
}

void Orvex::on_introspect(DBusMessage& call)
{
    (void)send(make_text_answer(call, kIntrospection));
}

void Orvex::refuse(DBusMessage& call, const char* error, const char* text)
{
    ORV_LOG(orv::log::kWarning, "{} from {}", text, sender_of(call));
    if (!dbus_message_get_no_reply(&call))
        (void)send(make_error(sender_of(call), dbus_message_get_serial(&call), error, text));
}

/// Nobody has to ask for a return of a one-way message, but those who do get it.
void Orvex::acknowledge(DBusMessage& call)
{
    if (!dbus_message_get_no_reply(&call))
        (void)send(make_empty_answer(call));
}

void Orvex::hand_over(OrvexKind kind, const Content& content, const char* from, std::uint64_t identifier)
{
    m_handler(kind, make_message(content.name, from, identifier, content.data));
}

void Orvex::answer(const Request& request, const char* type, Bytes data)
{
    if (!request.callback)
        return;
    const Message message = make_message(type, request.participant.c_str(), 0, data);
    request.callback(request.arg, &message);
}

std::uint64_t Orvex::remember(Origin origin)
{
    const Origin oldest = m_origins.add(std::move(origin));
    if (oldest.kind == Origin::Kind::request)
        (void)send(make_error(oldest.sender, static_cast<std::uint32_t>(oldest.number), kErrorUnanswered,
                              "not answered"));
    return m_origins.last_identifier();
}

// ---- what is sent

int Orvex::subscribe(std::set<std::string, std::less<>> events)
{
    if (m_observer)
        return -1;
    const auto old = std::exchange(m_events, std::move(events));
    bool is_sent = m_state == State::joined;
    for (const std::string& event : m_events)
        if (m_link && old.find(event) == old.end())
            is_sent &= change_match("AddMatch", event);
    for (const std::string& event : old)
        if (m_link && m_events.find(event) == m_events.end())
            is_sent &= change_match("RemoveMatch", event);
    settle();
    return is_sent ? 0 : -1;
}

int Orvex::send_request(const Target& target, Bytes data, void (*callback)(void*, const Message*), void* arg)
{
    if (!may_send(data.size) || m_requests.count(target.participant) >= kOrvexMaxRequests)
        return -1;
    Request request;
    request.participant = target.participant;
    request.callback = callback;
    request.arg = arg;
    return send_tracked(make_request(target, data), std::move(request));
}

int Orvex::send_one_way(const Target& target, Bytes data)
{
    return may_send(data.size) ? send(make_one_way(target, data)) : -1;
}

int Orvex::publish(const char* name, Bytes data, std::uint64_t* identifier)
{
    if (!may_send(data.size))
        return -1;
    const std::string& from = m_name.empty() ? m_unique_name : m_name;
    if (send(make_event(name, from, m_published + 1, data)) != 0)
        return -1;
    ++m_published;
    if (identifier)
        *identifier = m_published;
    return 0;
}

int Orvex::respond(std::uint64_t identifier, const char* type, Bytes data)
{
    if (!may_send(data.size))
        return -1;
    const auto origin = m_origins.take(identifier);
    if (!origin)
        return -1;
    if (origin->kind == Origin::Kind::event)
        return send(make_respond(origin->sender, origin->number, data));
    return send(make_answer(origin->sender, static_cast<std::uint32_t>(origin->number), type, data));
}

bool Orvex::may_send(std::size_t length) const
{
    return m_state == State::joined && !m_observer && m_link->queued() + length <= kMaxQueued;
}

int Orvex::send(const MessagePtr& message)
{
    const bool is_sent = message && m_link && m_link->send(*message);
    settle();
    return is_sent ? 0 : -1;
}

int Orvex::send_tracked(const MessagePtr& message, Request request)
{
    const auto serial = message && m_link ? m_link->send(*message) : std::nullopt;
    if (serial) {
        request.serial = *serial;
        request.deadline = Clock::now() + m_request_time;
        m_requests.add(std::move(request));
    }
    settle();
    return serial ? 0 : -1;
}

bool Orvex::change_match(const char* member, const std::string& event)
{
    return send_tracked(make_match_call(member, match_rule(event)), Request{}) == 0;
}
