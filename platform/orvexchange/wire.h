#pragma once

#include <orvexchange/orvexchange.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct DBusMessage;

/// The exchange's messages on D-Bus: names, building, reading. The table of them is in README.md.
namespace orv::exchange {

constexpr char kObject[] = "/net/orvane/exchange";
constexpr char kInterface[] = "net.orvane.Exchange1";
constexpr std::string_view kBusNamePrefix = "net.orvane.exchange.";
constexpr char kDefaultParticipant[] = "orvagent"; ///< receives requests with a bare name

constexpr char kErrorBadArguments[] = "net.orvane.Exchange1.Error.BadArguments";
constexpr char kErrorNotJoined[] = "net.orvane.Exchange1.Error.NotJoined";
constexpr char kErrorUnanswered[] = "net.orvane.Exchange1.Error.Unanswered";

struct Unref {
    void operator()(DBusMessage* message) const;
};
using MessagePtr = std::unique_ptr<DBusMessage, Unref>;

/// A payload, owned by someone else.
struct Bytes {
    const char* data = "";
    std::size_t size = 0;
};

/// Whether a payload may be sent: at most kOrvexMaxPayload bytes, null only when empty.
[[nodiscard]] bool is_payload(const char* data, std::size_t length);
/// Whether a text may name an event or a request: 1 to kOrvexMaxName bytes of UTF-8.
[[nodiscard]] bool is_name(const char* text);
/// Whether a text may name a participant: what D-Bus takes as the end of a bus name.
[[nodiscard]] bool is_participant(const std::string& text);
[[nodiscard]] std::string bus_name(const std::string& participant);
/// The match rule with which the bus delivers one event.
[[nodiscard]] std::string match_rule(std::string_view event);

/// Where "participant:request" or a bare "request" goes.
struct Target {
    std::string participant;
    std::string name;
};
[[nodiscard]] std::optional<Target> parse_target(const char* text);

/// Builders. Names must have been checked. Null when memory is short.
/// @{
[[nodiscard]] MessagePtr make_event(const char* name, const char* from, std::uint64_t identifier, Bytes data);
[[nodiscard]] MessagePtr make_request(const Target& target, Bytes data);
[[nodiscard]] MessagePtr make_one_way(const Target& target, Bytes data);
[[nodiscard]] MessagePtr make_respond(const char* receiver, std::uint64_t identifier, Bytes data);
[[nodiscard]] MessagePtr make_answer(const char* receiver, std::uint32_t serial, const char* type,
                                     Bytes data);
[[nodiscard]] MessagePtr make_text_answer(DBusMessage& call, const char* text);
[[nodiscard]] MessagePtr make_empty_answer(DBusMessage& call);
[[nodiscard]] MessagePtr make_error(const char* receiver, std::uint32_t serial, const char* error,
                                    const char* text);
/// @}

/// Calls to the bus itself.
/// @{
[[nodiscard]] MessagePtr make_hello();
[[nodiscard]] MessagePtr make_name_claim(const std::string& bus_name);
[[nodiscard]] MessagePtr make_match_call(const char* member, const std::string& rule);
[[nodiscard]] MessagePtr make_monitor_call();
/// @}

/// What a message of the exchange holds; the pointers are into the message.
struct Content {
    const char* name = ""; ///< of an event, request or one-way message; the type of an answer
    const char* from = ""; ///< only an event says so itself
    std::uint64_t identifier = 0;
    Bytes data;
};

/// Readers. Nothing when the message has other arguments, or some beyond the limits.
/// @{
[[nodiscard]] std::optional<Content> read_event(DBusMessage& message);
[[nodiscard]] std::optional<Content> read_named(DBusMessage& message); ///< Request, its answer, Message
[[nodiscard]] std::optional<Content> read_respond(DBusMessage& message);
/// @}

/// The sender's unique bus name, "" when there is none.
[[nodiscard]] const char* sender_of(DBusMessage& message);

} // namespace orv::exchange
