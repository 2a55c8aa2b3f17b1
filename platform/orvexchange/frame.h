#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

struct DBusMessage;

/// A message's beginning as it passes over the socket, for messages that are not held as a whole.
namespace orv::exchange {

/// Bytes with which every message begins; they tell its size.
constexpr std::size_t kFramePrefix = 16;
/// Longer header fields than these have nothing to do with the exchange.
constexpr std::size_t kMaxFrameHeader = 65536;

struct FrameSize {
    std::size_t header = 0; ///< the prefix, the header fields and their padding
    std::size_t total = 0;
};

/// What the first kFramePrefix bytes say. Nothing when they do not begin a message.
[[nodiscard]] std::optional<FrameSize> frame_size(const char* prefix);

/// Enough of a header to answer its message.
struct FrameHeader {
    int type = 0;
    bool wants_reply = false;
    std::uint32_t serial = 0;
    std::uint32_t reply_serial = 0; ///< 0: none
    char sender[64] = "";           ///< unique bus name; empty when there is none, or not such a one
};

/// Reads a header of `size` bytes, all of which are there. What is malformed stays as it is in an empty one.
[[nodiscard]] FrameHeader read_frame_header(const char* bytes, std::size_t size);

/// The same of a message that is held.
[[nodiscard]] FrameHeader frame_header_of(DBusMessage& message);

} // namespace orv::exchange
