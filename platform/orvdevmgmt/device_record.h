#pragma once

#include "device_fields.h"

#include <orvdevmgmt/orvdevmgmt.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

/// What the device store holds, as bytes. Equal contents have equal bytes.
namespace orv::devMgmt {

/// Whether a text can identify a device: it must be able to stand in JSON, so it is UTF-8 without NUL.
[[nodiscard]] bool is_device_id(std::string_view text);

/// A device as bytes, without its history.
[[nodiscard]] std::string encode_device(const Device& device);
/// False for bytes that are no device; `device` is then in an unspecified state.
[[nodiscard]] bool decode_device(std::string_view bytes, Device& device);

/// The numbers of a device's changes, 0 for one that is not known or has never happened.
struct History {
    std::uint64_t born = 0; ///< tells two devices apart that had the same id one after the other
    std::array<std::uint64_t, kFieldCount> changed{}; ///< each field's last change since then
};

/// A record is a history and a device.
[[nodiscard]] std::string encode_record(const History& history, std::string_view device);
/// Takes a record apart. A bare device, as stores held it once, has no history. False for bytes whose history
/// is malformed; the device's bytes are not looked at.
[[nodiscard]] bool split_record(std::string_view record, History& history, std::string_view& device);

/// A change that has happened to a device. Its number is what it is stored under.
struct Change {
    DevInfoChangeType type = DevInfoChangeType::updated;
    std::size_t field = 0;  ///< of an updated device
    std::uint64_t born = 0; ///< as in the device's history
    std::uint64_t died = 0; ///< the number of the device's removal, 0 while it is there
    std::string did;
};

[[nodiscard]] std::string encode_change(const Change& change);
[[nodiscard]] bool decode_change(std::string_view bytes, Change& change);

/// What is kept of a removed device: its id and its last record.
struct Mark {
    std::string_view did;
    std::string_view record;
};

[[nodiscard]] std::string encode_mark(const Mark& mark);
[[nodiscard]] bool decode_mark(std::string_view bytes, Mark& mark);

/// How far the store has come.
struct LogState {
    std::uint64_t identity = 0;   ///< the store's own, 0 for one that nobody has written to since it has one
    std::uint64_t last = 0;       ///< number of the last change
    std::uint64_t dropped = 0;    ///< number of the last removal of which no mark is kept any more
    std::uint64_t mark_count = 0; ///< marks that are kept
    std::uint64_t mark_bytes = 0; ///< what these take
};

[[nodiscard]] std::string encode_state(const LogState& state);
[[nodiscard]] bool decode_state(std::string_view bytes, LogState& state);

} // namespace orv::devMgmt
