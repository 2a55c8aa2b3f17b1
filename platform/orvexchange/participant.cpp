// A participant is away, joining or joined.
//
// Joining sends everything at once: Hello, the claim of the name, the match rules of all subscriptions. The
// bus works through them in order, so the answer to the claim says that the participant is there, and no
// subscribed event can come before it. Whether the caller waits for that (at first) or not (after the
// exchange was away) is the only difference between connecting and reconnecting. Whoever knows our unique
// name can address us sooner; nothing of that is handed over, since a caller that waits is not in
// orvex_read_fd(). A bus that accepts the connection but does not answer is waited for, up to kJoinTime; a
// lost connection, and a listener that accepts nobody, is tried again after a time that doubles.
//
// An event is subscribed to as soon as its match rule is on its way to the bus, and no longer when the bus
// refuses it: what is missing is asked for again whenever a list is given, when joining, and after a while by
// itself.
//
// Answers are matched with requests by serial number in a table of our own rather than with libdbus' pending
// calls: these bring a timer each, where one alarm for the oldest deadline does.
//
// Whatever must reach the caller does so from process(). When there is something to do that no descriptor
// tells of (messages that are read but not delivered, a connection found broken while sending), settle() sets
// the alarm off at once.
//
// No pass hands over more than kMaxPerPass messages, nor tells of more requests than that which have failed:
// the rest comes in the next one. Memory may be short at any point of a pass. A message that cannot be worked
// on is then lost with a log line, and answered with an error when it wants an answer; for that nothing but
// libdbus' own small messages is allocated.

#include "participant.h"

#include "traffic.h"

#include <orvexchange/address.h>
#include <orvutils/log_format.h>
#include <orvutils/setmgmt.h>

#include <dbus/dbus.h>

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

using namespace orv::exchange;
using std::chrono::milliseconds;

namespace {

/// A bus that does not answer in this time is tried anew. Longer than it takes one that is merely busy.
constexpr milliseconds kJoinTime{10000};
constexpr milliseconds kFirstRetryDelay{100};
constexpr milliseconds kMaxRetryDelay{5000};
/// What could not be subscribed to is asked for again after this time.
constexpr milliseconds kSubscribeDelay{1000};
constexpr int kDefaultRequestTimeMs = 60000;
/// Messages handed over in one pass.
constexpr int kMaxPerPass = 16;

constexpr char kRequestTimeKey[] = "/exchange/request_timeout_ms";
constexpr char kTypeSuccess[] = "0";
constexpr char kTypeNoAnswer[] = "2";
constexpr char kGone[] = "the exchange is gone";
constexpr char kNotLetIn[] = "the exchange does not let us in";
constexpr char kNoMemory[] = "out of memory";

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

/// The text of an error, which lives in its message.
const char* error_text(DBusMessage& error)
{
    const char* text = nullptr;
    if (dbus_message_get_args(&error, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) && *text != '\0')
        return text;
    const char* name = dbus_message_get_error_name(&error);
    return name ? name : "malformed answer";
}

Bytes bytes_of(const char* text)
{
    return {text, std::strlen(text)};
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

bool Orvex::start(milliseconds patience)
{
    const TimePoint end = Clock::now() + patience;
    if (m_epoll.get() < 0 || !m_alarm.open() || !watch_for_input(m_epoll.get(), m_alarm.fd(), kAlarmTag)) {
        complain(ShortText{"cannot set up the exchange's descriptors: {}", std::strerror(errno)});
        return false;
    }
    join();
    if (!wait_until_joined(end))
        return false;
    settle();
    return true;
}

void Orvex::join()
{
    m_retry_at.reset();
    try {
        connect();
    } catch (const std::exception&) {
        leave(ShortText{"cannot join the exchange: {}", kNoMemory});
    }
}

void Orvex::connect()
{
    ShortText error;
    m_request_time = request_time();
    auto link = std::make_unique<Link>(m_epoll.get(), kLinkTag);
    const Opened opened = link->open(orvex_address(), error);
    m_is_crowded = opened == Opened::full;
    if (opened != Opened::connected)
        return leave(ShortText{"cannot reach the exchange: {}", error.c_str()});
    m_link = std::move(link);
    m_state = State::joining;
    m_join_by = Clock::now() + kJoinTime;
    if (!send_join_calls())
        leave(ShortText{"cannot join the exchange: {}", kNoMemory});
}

bool Orvex::send_join_calls()
{
    const bool has_claim = m_observer || !m_name.empty();
    m_hello = m_claim = post(make_hello());
    if (m_hello == 0)
        return false;
    if (has_claim)
        m_claim = post(m_observer ? make_monitor_call() : make_name_claim(bus_name(m_name)));
    return m_claim != 0 && add_matches();
}

bool Orvex::wait_until_joined(TimePoint end)
{
    milliseconds delay = kFirstRetryDelay;
    while (m_state == State::joining || m_is_crowded) {
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        if (left <= milliseconds::zero()) {
            if (!m_is_crowded)
                complain(ShortText{"the exchange does not answer"});
            return false;
        }
        if (m_is_crowded) {
            (void)poll(nullptr, 0, static_cast<int>(std::min(left, delay).count())); // a signal shortens it
            delay = std::min(2 * delay, kMaxRetryDelay);
            join();
            continue;
        }
        m_link->update_interest();
        wait(left);
        // What comes after joining is for the caller's first pass.
        while (m_state == State::joining) {
            auto arrival = m_link->pop();
            if (!arrival)
                break;
            arrive(*arrival);
        }
        if (m_state == State::joining && m_link->has_ended())
            leave(ShortText{"{}", m_link->is_refused() ? kNotLetIn : kGone});
    }
    return m_state == State::joined;
}

void Orvex::on_join_reply(DBusMessage& reply)
{
    if (dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_ERROR)
        return leave(ShortText{"the exchange refuses us: {}", error_text(reply)});

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
        return leave(ShortText{"the name {} is taken on the exchange", m_name});
    on_joined();
}

void Orvex::on_joined()
{
    m_state = State::joined;
    m_join_by.reset();
    m_retry_delay = kFirstRetryDelay;
    if (!m_complaint.empty())
        ORV_LOG(orv::log::kInfo, "back on the exchange");
    m_complaint.clear();
}

void Orvex::leave(const ShortText& reason)
{
    complain(reason);
    m_link.reset();
    m_state = State::away;
    m_join_by.reset();
    m_origins.clear();
    m_owed_count = 0;
    m_matches.clear();
    m_refused.clear();
    m_subscribe_at.reset();
    if (m_auto_reconnect) {
        m_retry_at = Clock::now() + m_retry_delay;
        m_retry_delay = std::min(2 * m_retry_delay, kMaxRetryDelay);
    }
    m_given_up.splice(m_given_up.end(), m_requests.take_all());
}

void Orvex::complain(const ShortText& text)
{
    if (text == m_complaint)
        return;
    m_complaint = text;
    ORV_LOG(orv::log::kWarning, "{}", text.c_str());
}

// ---- one pass

int Orvex::process()
{
    if (m_processing)
        return -1;
    m_processing = true;
    wait(milliseconds::zero());
    send_owed_errors();
    deliver();
    if (std::exchange(m_alarm_rang, false))
        expire();
    m_processing = false;
    settle();
    return m_state == State::away && !m_retry_at && m_given_up.empty() ? -1 : 0;
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
    int left = kMaxPerPass;
    for (; left > 0 && m_link && m_given_up.empty(); --left) {
        auto arrival = m_link->pop();
        if (!arrival)
            break;
        arrive(*arrival);
    }
    if (m_link && m_link->has_ended())
        leave(ShortText{"{}", m_link->is_refused() ? kNotLetIn : kGone});
    give_up_requests(left);
}

/// Their answers come before those to later requests, so nothing is handed over until all of them are told.
void Orvex::give_up_requests(int count)
{
    for (; count > 0 && !m_given_up.empty(); --count) {
        std::list<Request> first;
        first.splice(first.end(), m_given_up, m_given_up.begin());
        answer(first.front(), kTypeNoAnswer, bytes_of(kGone));
    }
}

void Orvex::expire()
{
    const TimePoint now = Clock::now();
    for (int i = 0; i < kMaxPerPass; ++i) {
        const auto request = m_requests.take_expired(now);
        if (!request)
            break;
        answer(*request, kTypeNoAnswer, bytes_of("timed out"));
    }
    if (m_subscribe_at && *m_subscribe_at <= now) {
        m_subscribe_at.reset();
        (void)change_matches(); // else it is tried once more
    }
    if (m_join_by && *m_join_by <= now)
        leave(ShortText{"the exchange does not answer"});
    if (m_retry_at && *m_retry_at <= now)
        join();
}

void Orvex::settle()
{
    if (m_processing)
        return; // once, at its end
    if (m_link) {
        m_link->update_interest();
        if (m_link->has_news())
            m_alarm.ring_now();
    }
    if (!m_given_up.empty())
        m_alarm.ring_now();
    if (m_owed_count > 0)
        m_alarm.ring_by(Clock::now() + kFirstRetryDelay);
    if (const auto deadline = m_requests.next_deadline())
        m_alarm.ring_by(*deadline);
    if (m_subscribe_at)
        m_alarm.ring_by(*m_subscribe_at);
    if (m_join_by)
        m_alarm.ring_by(*m_join_by);
    if (m_retry_at)
        m_alarm.ring_by(*m_retry_at);
}

// ---- what arrives

void Orvex::arrive(Arrival& arrival)
{
    if (arrival.loss == Arrival::Loss::too_large)
        return on_lost(arrival.header, kErrorBadArguments, "too large");
    if (arrival.loss == Arrival::Loss::no_memory)
        return on_lost(arrival.header, DBUS_ERROR_NO_MEMORY, kNoMemory);
    try {
        dispatch(*arrival.message);
    } catch (const std::exception&) {
        on_lost(frame_header_of(*arrival.message), DBUS_ERROR_NO_MEMORY, kNoMemory);
    }
}

void Orvex::dispatch(DBusMessage& message)
{
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
    const bool is_error = dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_ERROR;
    const auto request = m_requests.take(serial);
    if (!request && is_error)
        return on_refused_match(serial, error_text(reply));
    if (!request)
        return; // too late, or the bus's consent to a subscription
    if (is_error)
        return answer(*request, kTypeNoAnswer, bytes_of(error_text(reply)));
    if (const auto content = read_named(reply))
        return answer(*request, content->name, content->data);
    ORV_LOG(orv::log::kWarning, "malformed answer from {}", request->participant);
    answer(*request, kTypeNoAnswer, bytes_of("malformed answer"));
}

/// An event whose match rule the bus refuses is not subscribed to. It is asked for again, by the next list
/// and once a second; that it is refused is told the first time since the list was given.
void Orvex::on_refused_match(std::uint32_t serial, const char* why)
{
    const auto found = std::find_if(m_matches.begin(), m_matches.end(),
                                    [serial](const auto& match) { return match.second == serial; });
    if (found == m_matches.end())
        return; // the answer to something that nobody waits for any more
    if (m_refused.insert(m_matches.extract(found)).inserted)
        ORV_LOG(orv::log::kWarning, "the exchange refuses a subscription: {}", why);
    m_subscribe_at = Clock::now() + kSubscribeDelay;
}

/// A message that could not be worked on. Whoever waits for an answer gets an error: its sender when it is a
/// call, the caller when it is itself an answer.
void Orvex::on_lost(const FrameHeader& header, const char* error, const char* why)
{
    ORV_LOG(orv::log::kWarning, "a message from {} is lost: {}", header.sender, why);
    if (m_observer && m_state == State::joined)
        return; // it is between others
    const std::uint32_t serial = header.reply_serial;
    if (header.wants_reply && header.serial != 0)
        send_error(header.sender, header.serial, error, why);
    if (header.type != DBUS_MESSAGE_TYPE_METHOD_RETURN && header.type != DBUS_MESSAGE_TYPE_ERROR)
        return;
    if (m_state == State::joining && (serial == m_hello || serial == m_claim))
        return leave(ShortText{"cannot join the exchange: {}", why});
    if (const auto request = m_requests.take(serial))
        answer(*request, kTypeNoAnswer, bytes_of(why));
    else if (header.type == DBUS_MESSAGE_TYPE_ERROR)
        on_refused_match(serial, why);
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
    if (!m_events.contains(content->name))
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
        send_error(sender_of(call), dbus_message_get_serial(&call), error, text);
}

/// Sends an error, at once or as soon as there is memory for it. Up to kMaxOwed of them wait.
void Orvex::send_error(const char* to, std::uint32_t serial, const char* error, const char* text)
{
    if (send(make_error(to, serial, error, text)) != 0 && m_owed_count < kMaxOwed)
        m_owed.at(m_owed_count++) = {ShortText{"{}", to}, serial, error, text};
}

void Orvex::send_owed_errors()
{
    while (m_owed_count > 0) {
        const Owed& owed = m_owed.at(m_owed_count - 1);
        if (send(make_error(owed.to.c_str(), owed.serial, owed.error, owed.text)) != 0)
            return;
        --m_owed_count;
    }
}

/// Nobody has to ask for a return of a one-way message, but those who do get it.
void Orvex::acknowledge(DBusMessage& call)
{
    if (!dbus_message_get_no_reply(&call))
        (void)send(make_empty_answer(call));
}

void Orvex::hand_over(OrvexKind kind, const Content& content, const char* from, std::uint64_t identifier)
{
    try {
        m_handler(kind, make_message(content.name, from, identifier, content.data));
        return;
    } catch (const std::exception&) { // the callback's own lack of memory
        ORV_LOG(orv::log::kWarning, "{} is lost: {}", content.name, kNoMemory);
    }
    const Origin* origin = kind == OrvexKind::request ? m_origins.find(identifier) : nullptr;
    if (!origin)
        return; // nobody waits, or has the answer already
    send_error(origin->sender.c_str(), static_cast<std::uint32_t>(origin->number), DBUS_ERROR_NO_MEMORY,
               kNoMemory);
    (void)m_origins.take(identifier);
}

void Orvex::answer(const Request& request, const char* type, Bytes data)
{
    const Message message = make_message(type, request.participant.c_str(), 0, data);
    try {
        request.callback(request.arg, &message);
    } catch (const std::exception&) { // the callback's own lack of memory; it has run, and runs once
        ORV_LOG(orv::log::kWarning, "an answer from {} is lost: {}", request.participant, kNoMemory);
    }
}

std::uint64_t Orvex::remember(Origin origin)
{
    const Origin oldest = m_origins.add(std::move(origin));
    if (oldest.kind == Origin::Kind::request)
        send_error(oldest.sender.c_str(), static_cast<std::uint32_t>(oldest.number), kErrorUnanswered,
                   "not answered");
    return m_origins.last_identifier();
}

// ---- what is sent

/// The list counts from now on whatever becomes of it: what is missing is asked for again.
int Orvex::subscribe(const char* const* events, std::size_t count)
{
    if (m_observer)
        return -1;
    m_events.assign(events, count);
    m_refused.clear();
    const bool is_changed = m_link && change_matches();
    settle();
    return m_state == State::joined && is_changed ? 0 : -1;
}

int Orvex::send_request(const Target& target, Bytes data, void (*callback)(void*, const Message*), void* arg)
{
    if (!may_send(data.size) || m_requests.count(target.participant) >= kOrvexMaxRequests)
        return -1;
    const MessagePtr call = make_request(target, data);
    if (!call)
        return -1;
    // It is in the table before it is sent: what was sent must not be forgotten for lack of memory.
    const std::uint32_t serial = m_link->take_serial();
    m_requests.add({serial, Clock::now() + m_request_time, target.participant, callback, arg});
    const bool is_sent = m_link->send(*call, serial);
    if (!is_sent)
        (void)m_requests.take(serial);
    settle();
    return is_sent ? 0 : -1;
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
    if (send(make_event(name, from.c_str(), m_published + 1, data)) != 0)
        return -1;
    ++m_published;
    if (identifier)
        *identifier = m_published;
    return 0;
}

int Orvex::respond(std::uint64_t identifier, const char* type, Bytes data)
{
    const Origin* origin = may_send(data.size) ? m_origins.find(identifier) : nullptr;
    if (!origin)
        return -1;
    const char* to = origin->sender.c_str();
    const int result = origin->kind == Origin::Kind::event
                           ? send(make_respond(to, origin->number, data))
                           : send(make_answer(to, static_cast<std::uint32_t>(origin->number), type, data));
    if (result == 0)
        (void)m_origins.take(identifier); // else it can be tried again, be it with less
    return result;
}

bool Orvex::may_send(std::size_t length) const
{
    return m_state == State::joined && !m_observer && m_link->queued() + length <= Link::kMaxQueued;
}

/// Sends a message; its serial, or 0.
std::uint32_t Orvex::post(const MessagePtr& message)
{
    if (!message || !m_link)
        return 0;
    const std::uint32_t serial = m_link->take_serial();
    return m_link->send(*message, serial) ? serial : 0;
}

int Orvex::send(const MessagePtr& message)
{
    const bool is_sent = post(message) != 0;
    settle();
    return is_sent ? 0 : -1;
}

/// Asks the bus for what makes its subscriptions those of the list.
bool Orvex::change_matches()
{
    const bool is_removed = remove_matches(); // first: the bus may have no more room otherwise
    const bool is_changed = add_matches() && is_removed;
    if (!is_changed)
        m_subscribe_at = Clock::now() + kSubscribeDelay;
    return is_changed;
}

/// Asks the bus for all subscriptions that it has not been asked for.
bool Orvex::add_matches()
{
    bool are_all_sent = true;
    for (const EventNames::Name& event : m_events)
        are_all_sent &= m_matches.find(event.text) != m_matches.end() || add_match(event.text);
    return are_all_sent;
}

bool Orvex::add_match(const char* event)
{
    try {
        const auto match = m_matches.emplace(event, 0).first;
        match->second = change_match("AddMatch", match->first);
        if (match->second != 0)
            return true;
        m_matches.erase(match);
    } catch (const std::exception&) { // no memory for the table: nothing was sent
    }
    return false;
}

/// Takes back all subscriptions that are not wanted any more.
bool Orvex::remove_matches()
{
    bool are_all_sent = true;
    for (auto match = m_matches.begin(); match != m_matches.end();) {
        const bool is_wanted = m_events.contains(match->first.c_str());
        const bool is_removed = !is_wanted && change_match("RemoveMatch", match->first) != 0;
        are_all_sent &= is_wanted || is_removed;
        match = is_removed ? m_matches.erase(match) : std::next(match);
    }
    return are_all_sent;
}

/// The serial of the call to the bus, or 0.
std::uint32_t Orvex::change_match(const char* member, const std::string& event)
{
    try {
        return post(make_match_call(member, match_rule(event)));
    } catch (const std::exception&) {
        return 0;
    }
}
