// libdbus aborts a program that hands it a text which is not valid UTF-8 or a malformed bus name. Whatever
// comes from outside is therefore checked here first; the builders rely on it.

#include "wire.h"

#include <dbus/dbus.h>

#include <cstring>

namespace orv::exchange {
namespace {

constexpr char kMonitoring[] = "org.freedesktop.DBus.Monitoring";

/// A bus adds the sender to each message. Something else at the other end may not, and then has nobody to
/// address either.
const char* address_of(const char* receiver)
{
    return *receiver == '\0' ? nullptr : receiver;
}

MessagePtr make_call(const char* receiver, const char* object, const char* interface, const char* member)
{
    MessagePtr call{dbus_message_new_method_call(receiver, object, interface, member)};
    // The exchange has no activation: a participant that is not there is not waited for.
    if (call)
        dbus_message_set_auto_start(call.get(), FALSE);
    return call;
}

MessagePtr make_bus_call(const char* member)
{
    return make_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, member);
}

/// Appends arguments as dbus_message_append_args() takes them; null when that fails.
template <typename... Arguments>
MessagePtr with(MessagePtr message, Arguments... arguments)
{
    if (!message || !dbus_message_append_args(message.get(), arguments..., DBUS_TYPE_INVALID))
        return nullptr;
    return message;
}

MessagePtr with_bytes(MessagePtr message, Bytes data)
{
    const char* start = data.data ? data.data : "";
    return with(std::move(message), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &start, static_cast<int>(data.size));
}

MessagePtr make_named_call(const Target& target, const char* member, Bytes data)
{
    const char* name = target.name.c_str();
    MessagePtr call = make_call(bus_name(target.participant).c_str(), kObject, kInterface, member);
    return with_bytes(with(std::move(call), DBUS_TYPE_STRING, &name), data);
}

/// A reply whose call is no longer at hand.
MessagePtr address_reply(MessagePtr reply, const char* receiver, std::uint32_t serial)
{
    if (!reply || !dbus_message_set_destination(reply.get(), address_of(receiver)) ||
        !dbus_message_set_reply_serial(reply.get(), serial))
        return nullptr;
    dbus_message_set_no_reply(reply.get(), TRUE);
    return reply;
}

/// The arguments of a message whose signature is `signature`, read as dbus_message_get_args() does.
template <typename... Arguments>
bool read_arguments(DBusMessage& message, const char* signature, Arguments... arguments)
{
    return dbus_message_has_signature(&message, signature) &&
           dbus_message_get_args(&message, nullptr, arguments..., DBUS_TYPE_INVALID);
}

std::optional<Content> checked(Content content, int size)
{
    content.data.size = static_cast<std::size_t>(size);
    if (size == 0)
        content.data.data = "";
    if (std::strlen(content.name) > kOrvexMaxName || std::strlen(content.from) > kOrvexMaxName ||
        content.data.size > kOrvexMaxPayload)
        return std::nullopt;
    return content;
}

} // namespace

void Unref::operator()(DBusMessage* message) const
{
    dbus_message_unref(message);
}

bool is_payload(const char* data, std::size_t length)
{
    return length <= kOrvexMaxPayload && (data || length == 0);
}

bool is_name(const char* text)
{
    if (!text || *text == '\0' || strnlen(text, kOrvexMaxName + 1) > kOrvexMaxName)
        return false;
    return dbus_validate_utf8(text, nullptr) != FALSE;
}

bool is_participant(const std::string& text)
{
    return !text.empty() && text.size() <= kOrvexMaxName &&
           dbus_validate_bus_name(bus_name(text).c_str(), nullptr) != FALSE;
}

std::string bus_name(const std::string& participant)
{
    return std::string{kBusNamePrefix} + participant;
}

std::string match_rule(std::string_view event)
{
    std::string rule = "type='signal',interface='net.orvane.Exchange1',member='Event',arg0='";
    for (const char c : event)
        if (c == '\'')
            rule += R"('\'')"; // out of the quotes, an escaped quote, into them again
        else
            rule += c;
    return rule += '\'';
}

std::optional<Target> parse_target(const char* text)
{
    if (!text)
        return std::nullopt;
    const char* colon = std::strchr(text, ':');
    const char* name = colon ? colon + 1 : text;
    Target target{colon ? std::string(text, colon) : kDefaultParticipant, name};
    if (!is_participant(target.participant) || !is_name(name))
        return std::nullopt;
    return target;
}

MessagePtr make_event(const char* name, const char* from, std::uint64_t identifier, Bytes data)
{
    const dbus_uint64_t number = identifier;
    return with_bytes(with(MessagePtr{dbus_message_new_signal(kObject, kInterface, "Event")},
                           DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &from, DBUS_TYPE_UINT64, &number),
                      data);
}

MessagePtr make_request(const Target& target, Bytes data)
{
    return make_named_call(target, "Request", data);
}

MessagePtr make_one_way(const Target& target, Bytes data)
{
    MessagePtr call = make_named_call(target, "Message", data);
    if (call)
        dbus_message_set_no_reply(call.get(), TRUE);
    return call;
}

MessagePtr make_respond(const char* receiver, std::uint64_t identifier, Bytes data)
{
    const dbus_uint64_t number = identifier;
    MessagePtr call = make_call(address_of(receiver), kObject, kInterface, "Respond");
    if (call)
        dbus_message_set_no_reply(call.get(), TRUE);
    return with_bytes(with(std::move(call), DBUS_TYPE_UINT64, &number), data);
}

MessagePtr make_answer(const char* receiver, std::uint32_t serial, const char* type, Bytes data)
{
    MessagePtr reply{dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN)};
    return with_bytes(with(address_reply(std::move(reply), receiver, serial), DBUS_TYPE_STRING, &type), data);
}

MessagePtr make_text_answer(DBusMessage& call, const char* text)
{
    return with(make_empty_answer(call), DBUS_TYPE_STRING, &text);
}

MessagePtr make_empty_answer(DBusMessage& call)
{
    return MessagePtr{dbus_message_new_method_return(&call)};
}

MessagePtr make_error(const char* receiver, std::uint32_t serial, const char* error, const char* text)
{
    MessagePtr reply{dbus_message_new(DBUS_MESSAGE_TYPE_ERROR)};
    if (!reply || !dbus_message_set_error_name(reply.get(), error))
        return nullptr;
    return with(address_reply(std::move(reply), receiver, serial), DBUS_TYPE_STRING, &text);
}

MessagePtr make_hello()
{
    return make_bus_call("Hello");
}

MessagePtr make_name_claim(const std::string& bus_name)
{
    const char* name = bus_name.c_str();
    const dbus_uint32_t flags = DBUS_NAME_FLAG_DO_NOT_QUEUE;
    return with(make_bus_call("RequestName"), DBUS_TYPE_STRING, &name, DBUS_TYPE_UINT32, &flags);
}

MessagePtr make_match_call(const char* member, const std::string& rule)
{
    const char* text = rule.c_str();
    return with(make_bus_call(member), DBUS_TYPE_STRING, &text);
}

MessagePtr make_monitor_call()
{
    static constexpr const char* kRules[] = {"interface='net.orvane.Exchange1'", "type='method_return'",
                                             "type='error'"};
    const char* const* rules = kRules;
    const dbus_uint32_t flags = 0;
    MessagePtr call = make_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, kMonitoring, "BecomeMonitor");
    return with(std::move(call), DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &rules,
                static_cast<int>(std::size(kRules)), DBUS_TYPE_UINT32, &flags);
}

std::optional<Content> read_event(DBusMessage& message)
{
    Content content;
    dbus_uint64_t identifier = 0;
    int size = 0;
    if (!read_arguments(message, "sstay", DBUS_TYPE_STRING, &content.name, DBUS_TYPE_STRING, &content.from,
                        DBUS_TYPE_UINT64, &identifier, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &content.data.data,
                        &size))
        return std::nullopt;
    content.identifier = identifier;
    return checked(content, size);
}

std::optional<Content> read_named(DBusMessage& message)
{
    Content content;
    int size = 0;
    if (!read_arguments(message, "say", DBUS_TYPE_STRING, &content.name, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE,
                        &content.data.data, &size))
        return std::nullopt;
    return checked(content, size);
}

std::optional<Content> read_respond(DBusMessage& message)
{
    Content content;
    dbus_uint64_t identifier = 0;
    int size = 0;
    if (!read_arguments(message, "tay", DBUS_TYPE_UINT64, &identifier, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE,
                        &content.data.data, &size))
        return std::nullopt;
    content.identifier = identifier;
    return checked(content, size);
}

const char* sender_of(DBusMessage& message)
{
    const char* sender = dbus_message_get_sender(&message);
    return sender ? sender : "";
}

} // namespace orv::exchange
