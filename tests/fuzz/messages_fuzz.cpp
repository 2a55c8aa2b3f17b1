// What arrives from the message bus. The input is a message as it passes over the socket, or not quite; a
// header that is read by itself must say the same as the message that libdbus makes of it. Its bytes are
// names and targets as well.

#include "require.h"

#include "frame.h"
#include "wire.h"

#include <dbus/dbus.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using namespace orv::exchange;
using orv::fuzz::require;

namespace {

void try_header(const std::vector<char>& bytes, DBusMessage* message)
{
    if (bytes.size() < kFramePrefix)
        return;
    const std::optional<FrameSize> size = frame_size(bytes.data());
    if (message && size)
        require(size->total <= bytes.size(), "a message is as long as it says");
    if (!size || size->header > bytes.size())
        return;
    const std::vector<char> header(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size->header));
    const FrameHeader read = read_frame_header(header.data(), header.size());
    require(std::memchr(read.sender, '\0', sizeof read.sender), "a sender ends");
    require(*read.sender == '\0' || dbus_validate_bus_name(read.sender, nullptr), "a sender is a name");
    if (!message)
        return;
    const FrameHeader held = frame_header_of(*message);
    require(read.type == held.type && read.serial == held.serial && read.wants_reply == held.wants_reply &&
                read.reply_serial == held.reply_serial && std::strcmp(read.sender, held.sender) == 0,
            "a header is read as libdbus reads it");
}

void try_content(const std::optional<Content>& content)
{
    if (!content)
        return;
    require(std::strlen(content->name) <= kOrvexMaxName, "names are not too long");
    require(std::strlen(content->from) <= kOrvexMaxName, "names are not too long");
    require(is_payload(content->data.data, content->data.size), "payloads are not too long");
    const std::string payload(content->data.data, content->data.size); // all of it is there
    const MessagePtr event = make_event(is_name(content->name) ? content->name : "x", "from",
                                        content->identifier, {payload.data(), payload.size()});
    require(event != nullptr, "what was read can be sent");
    const std::optional<Content> again = read_event(*event);
    require(again && std::string_view(again->data.data, again->data.size) == payload,
            "a payload stays the same");
}

void try_message(DBusMessage& message)
{
    try_content(read_event(message));
    try_content(read_named(message));
    try_content(read_respond(message));
    (void)sender_of(message);
}

void try_text(const std::string& text)
{
    if (is_name(text.c_str()))
        require(make_event(text.c_str(), text.c_str(), 1, {}) != nullptr, "a name can be sent");
    const std::optional<Target> target = parse_target(text.c_str());
    if (!target)
        return;
    require(is_participant(target->participant) && is_name(target->name.c_str()), "a target can be named");
    require(make_request(*target, {}) != nullptr, "a target can be addressed");
    require(make_match_call("AddMatch", match_rule(target->name)) != nullptr, "an event can be asked for");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto* text = reinterpret_cast<const char*>(data);
    const std::vector<char> bytes(text, text + size);
    DBusMessage* message = nullptr;
    if (!bytes.empty())
        message = dbus_message_demarshal(bytes.data(), static_cast<int>(size), nullptr);
    try_header(bytes, message);
    if (message) {
        try_message(*message);
        dbus_message_unref(message);
    }
    try_text(std::string(text, size));
    return 0;
}
