// A monitor gets copies of everybody's messages. What they are is told by the readers that participants use;
// only answers need something more, the request that they belong to.

#include "traffic.h"

#include <dbus/dbus.h>

#include <algorithm>
#include <utility>

namespace orv::exchange {
namespace {

std::string_view text(const char* value)
{
    return value ? value : std::string_view{};
}

/// A participant by its own name, anyone else by the bus name.
std::string_view short_name(std::string_view bus_name)
{
    if (bus_name.substr(0, kBusNamePrefix.size()) == kBusNamePrefix)
        bus_name.remove_prefix(kBusNamePrefix.size());
    return bus_name;
}

OrvexTraffic filled(OrvexTraffic traffic, const Content& content)
{
    traffic.name = content.name;
    traffic.data = {content.data.data, content.data.size};
    return traffic;
}

std::optional<OrvexTraffic> read_signal(DBusMessage& message, OrvexTraffic traffic)
{
    const auto content = read_event(message);
    if (!content || !dbus_message_is_signal(&message, kInterface, "Event"))
        return std::nullopt;
    traffic.kind = OrvexTraffic::Kind::event;
    traffic.from = content->from;
    traffic.id = content->identifier;
    return filled(traffic, *content);
}

} // namespace

std::optional<OrvexTraffic> TrafficReader::read(DBusMessage& message)
{
    OrvexTraffic traffic{};
    traffic.from = sender_of(message);
    traffic.to = short_name(text(dbus_message_get_destination(&message)));
    switch (dbus_message_get_type(&message)) {
    case DBUS_MESSAGE_TYPE_SIGNAL:
        return read_signal(message, traffic);
    case DBUS_MESSAGE_TYPE_METHOD_CALL:
        return read_call(message, traffic);
    case DBUS_MESSAGE_TYPE_METHOD_RETURN:
    case DBUS_MESSAGE_TYPE_ERROR:
        return read_reply(message, traffic);
    default:
        return std::nullopt;
    }
}

std::optional<OrvexTraffic> TrafficReader::read_call(DBusMessage& message, OrvexTraffic traffic)
{
    if (dbus_message_is_method_call(&message, kInterface, "Respond")) {
        const auto content = read_respond(message);
        traffic.kind = OrvexTraffic::Kind::respond;
        traffic.id = content ? content->identifier : 0;
        return content ? std::optional{filled(traffic, *content)} : std::nullopt;
    }
    const bool is_request = dbus_message_is_method_call(&message, kInterface, "Request") != FALSE;
    const bool is_message = dbus_message_is_method_call(&message, kInterface, "Message") != FALSE;
    const auto content = is_request || is_message ? read_named(message) : std::nullopt;
    if (!content)
        return std::nullopt;
    traffic.kind = is_request ? OrvexTraffic::Kind::request : OrvexTraffic::Kind::message;
    if (is_request && !dbus_message_get_no_reply(&message)) {
        traffic.id = dbus_message_get_serial(&message);
        if (m_requests.size() == kMaxRequests)
            m_requests.pop_front();
        m_requests.push_back({sender_of(message), dbus_message_get_serial(&message), content->name});
    }
    return filled(traffic, *content);
}

std::optional<OrvexTraffic> TrafficReader::read_reply(DBusMessage& message, OrvexTraffic traffic)
{
    const auto asked = std::find_if(m_requests.begin(), m_requests.end(), [&](const Seen& seen) {
        return seen.serial == dbus_message_get_reply_serial(&message) && seen.sender == traffic.to;
    });
    if (asked == m_requests.end())
        return std::nullopt;
    m_answered = std::move(*asked);
    m_requests.erase(asked);
    traffic.name = m_answered.name;
    traffic.id = m_answered.serial;
    if (const char* error = dbus_message_get_error_name(&message)) {
        const char* why = "";
        (void)dbus_message_get_args(&message, nullptr, DBUS_TYPE_STRING, &why, DBUS_TYPE_INVALID);
        traffic.kind = OrvexTraffic::Kind::error;
        traffic.type = error;
        traffic.data = why;
        return traffic;
    }
    const auto content = read_named(message);
    if (!content)
        return std::nullopt;
    traffic.kind = OrvexTraffic::Kind::answer;
    traffic.type = content->name;
    traffic.data = {content->data.data, content->data.size};
    return traffic;
}

} // namespace orv::exchange
