// Two devices are compared along the one table of fields.

#include "device_fields.h"

#include <cstdint>

namespace orv::devMgmt {

namespace {

/// How long a sequence is by its first byte, and the lowest code point that needs that length.
struct Length {
    std::size_t size;
    std::uint32_t lowest;
    unsigned char bits; ///< of the first byte that belong to the code point
};

Length length_of(unsigned char first)
{
    if (first < 0x80U)
        return {1, 0, 0x7fU};
    if (first >= 0xc0U && first < 0xe0U)
        return {2, 0x80U, 0x1fU};
    if (first >= 0xe0U && first < 0xf0U)
        return {3, 0x800U, 0x0fU};
    if (first >= 0xf0U && first < 0xf8U)
        return {4, 0x10000U, 0x07U};
    return {0, 0, 0};
}

} // namespace

const char* field_name(std::size_t field)
{
    if (field < kTextFields.size())
        return kTextFields[field].name;
    return field == kMacsNumber ? kMacsField : kTrafficBlockedField;
}

Fields changed_fields(const Device& before, const Device& after)
{
    Fields fields;
    for (std::size_t i = 0; i < kTextFields.size(); ++i)
        fields[i] = before.*kTextFields[i].member != after.*kTextFields[i].member;
    fields[kMacsNumber] = before.macs != after.macs;
    fields[kTrafficBlockedNumber] = before.traffic_blocked != after.traffic_blocked;
    return fields;
}

void copy_field(std::size_t field, const Device& from, Device& to)
{
    if (field < kTextFields.size())
        to.*kTextFields[field].member = from.*kTextFields[field].member;
    else if (field == kMacsNumber)
        to.macs = from.macs;
    else
        to.traffic_blocked = from.traffic_blocked;
}

std::size_t utf8_sequence_size(std::string_view text)
{
    if (text.empty())
        return 0;
    const auto first = static_cast<unsigned char>(text.front());
    const Length length = length_of(first);
    if (length.size == 0 || length.size > text.size())
        return 0;
    std::uint32_t code = first & length.bits;
    for (const char byte : text.substr(1, length.size - 1)) {
        const auto next = static_cast<unsigned char>(byte);
        if ((next & 0xc0U) != 0x80U)
            return 0;
        code = code << 6U | (next & 0x3fU);
    }
    const bool is_surrogate = code >= 0xd800U && code <= 0xdfffU;
    return code >= length.lowest && code <= 0x10ffffU && !is_surrogate ? length.size : 0;
}

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t size = utf8_sequence_size(text);
        if (size == 0)
            return false;
        text.remove_prefix(size);
    }
    return true;
}

bool is_ip_address(sockutl::address address)
{
    const sockaddr* any = address;
    return address.is_valid() && (any->sa_family == AF_INET || any->sa_family == AF_INET6);
}

} // namespace orv::devMgmt
