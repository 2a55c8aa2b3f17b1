#pragma once

#include "alarm.h"
#include "event_names.h"
#include "link.h"
#include "origins.h"
#include "requests.h"
#include "short_text.h"
#include "wire.h"

#include <orvexchange/publisher.h>

#include <array>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace orv::exchange {
class TrafficReader;
}

/// One participant: the handle of the interface. Its functions answer to those of orvexchange.h and
/// orvexchange/publisher.h, with arguments that have been checked. What sends may throw std::bad_alloc, with
/// nothing changed; what receives does not.
struct Orvex {
public:
    /// Exactly one of `handler` and `observer` is set; an observer only looks on.
    Orvex(std::string name, OrvexHandler handler, OrvexObserver observer, bool auto_reconnect);
    Orvex(const Orvex&) = delete;
    Orvex& operator=(const Orvex&) = delete;
    ~Orvex();

    /// Joins the exchange, waiting for at most so long. False, with a log line, when that does not succeed.
    [[nodiscard]] bool start(std::chrono::milliseconds patience);
    [[nodiscard]] int fd() const { return m_epoll.get(); }
    [[nodiscard]] int process();

    [[nodiscard]] int subscribe(const char* const* events, std::size_t count);
    [[nodiscard]] int send_request(const orv::exchange::Target& target, orv::exchange::Bytes data,
                                   void (*callback)(void*, const Message*), void* arg);
    [[nodiscard]] int send_one_way(const orv::exchange::Target& target, orv::exchange::Bytes data);
    [[nodiscard]] int publish(const char* name, orv::exchange::Bytes data, std::uint64_t* identifier);
    [[nodiscard]] int respond(std::uint64_t identifier, const char* type, orv::exchange::Bytes data);

private:
    enum class State { away, joining, joined };
    struct Method;
    static const Method kMethods[];

    /// An error that somebody waits for, and for which there was no memory.
    struct Owed {
        orv::exchange::ShortText to;
        std::uint32_t serial = 0;
        const char* error = nullptr; ///< literals
        const char* text = nullptr;
    };
    static constexpr std::size_t kMaxOwed = 16;

    /// Subscriptions that the bus was asked for, each with the serial of that call.
    using Matches = std::map<std::string, std::uint32_t, std::less<>>;

    // Coming and going.
    void join();
    void connect();
    [[nodiscard]] bool send_join_calls();
    [[nodiscard]] bool wait_until_joined(orv::exchange::TimePoint end);
    void on_join_reply(DBusMessage& reply);
    void on_joined();
    void leave(const orv::exchange::ShortText& reason);
    void complain(const orv::exchange::ShortText& text);

    // One pass.
    void wait(std::chrono::milliseconds time);
    void deliver();
    void give_up_requests(int count);
    void expire();
    void settle(); ///< at the end of all that sends: what is to be waited for now

    // What arrives.
    void arrive(orv::exchange::Arrival& arrival);
    void dispatch(DBusMessage& message);
    void on_reply(DBusMessage& reply);
    void on_signal(DBusMessage& signal);
    void on_call(DBusMessage& call);
    void on_request(DBusMessage& call);
    void on_message(DBusMessage& call);
    void on_respond(DBusMessage& call);
    void on_ping(DBusMessage& call);
    void on_introspect(DBusMessage& call);
    void on_lost(const orv::exchange::FrameHeader& header, const char* error, const char* why);
    void on_refused_match(std::uint32_t serial, const char* why);
    void refuse(DBusMessage& call, const char* error, const char* text);
    void send_error(const char* to, std::uint32_t serial, const char* error, const char* text);
    void send_owed_errors();
    void acknowledge(DBusMessage& call);
    void hand_over(OrvexKind kind, const orv::exchange::Content& content, const char* from,
                   std::uint64_t identifier);
    static void answer(const orv::exchange::Request& request, const char* type, orv::exchange::Bytes data);
    [[nodiscard]] std::uint64_t remember(orv::exchange::Origin origin);

    // What is sent.
    [[nodiscard]] bool may_send(std::size_t length) const;
    [[nodiscard]] std::uint32_t post(const orv::exchange::MessagePtr& message);
    int send(const orv::exchange::MessagePtr& message);
    [[nodiscard]] bool change_matches();
    [[nodiscard]] bool add_matches();
    [[nodiscard]] bool add_match(const char* event);
    [[nodiscard]] bool remove_matches();
    [[nodiscard]] std::uint32_t change_match(const char* member, const std::string& event);

    const std::string m_name; ///< empty: none
    const OrvexHandler m_handler;
    const OrvexObserver m_observer;
    const bool m_auto_reconnect;

    // The link refers to the epoll descriptor, so it is destroyed before it.
    orv::base::Descriptor m_epoll;
    orv::exchange::Alarm m_alarm;
    bool m_alarm_rang = false;
    std::unique_ptr<orv::exchange::Link> m_link; ///< null exactly while the state is away
    State m_state = State::away;
    bool m_is_crowded = false; ///< the last attempt met a listener that accepts nobody at the moment
    bool m_processing = false;

    std::uint32_t m_hello = 0; ///< serial of Hello
    std::uint32_t m_claim = 0; ///< serial of the call whose answer completes joining
    std::string m_unique_name;
    std::chrono::milliseconds m_request_time{}; ///< how long an answer is waited for
    std::chrono::milliseconds m_retry_delay;
    std::optional<orv::exchange::TimePoint> m_retry_at;
    std::optional<orv::exchange::TimePoint> m_join_by; ///< set while joining
    orv::exchange::ShortText m_complaint;              ///< the last one logged, so that an outage is one line

    orv::exchange::EventNames m_events; ///< the caller's subscriptions
    Matches m_matches;                  ///< those that the bus has not refused
    Matches m_refused; ///< those that it has refused, which was told since the list was given
    std::optional<orv::exchange::TimePoint> m_subscribe_at; ///< set while the two differ
    orv::exchange::Requests m_requests;
    std::list<orv::exchange::Request> m_given_up; ///< their callers are still to be told
    orv::exchange::Origins m_origins;
    std::array<Owed, kMaxOwed> m_owed;
    std::size_t m_owed_count = 0;
    std::uint64_t m_published = 0;
    std::unique_ptr<orv::exchange::TrafficReader> m_traffic;
};
