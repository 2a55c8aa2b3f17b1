#pragma once

#include <orvdevmgmt/orvdevmgmt.h>

#include <string>
#include <string_view>

/// What the device store holds, as bytes. Equal contents have equal bytes.
namespace orv::devMgmt {

/// Whether a text can identify a device: it must be able to stand in JSON, so it is UTF-8 without NUL.
[[nodiscard]] bool is_device_id(std::string_view text);

[[nodiscard]] std::string encode_device(const Device& device);
/// False for bytes that are no device; `device` is then in an unspecified state.
[[nodiscard]] bool decode_device(std::string_view bytes, Device& device);

/// An entry of the journal.
struct Change {
    DevInfoChangeType type = DevInfoChangeType::updated;
    std::string did;
    std::string field;  ///< of an updated device
    std::string record; ///< of a removed device: what was stored last
};

[[nodiscard]] std::string encode_change(const Change& change);
[[nodiscard]] bool decode_change(std::string_view bytes, Change& change);

} // namespace orv::devMgmt
