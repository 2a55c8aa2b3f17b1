// A record is a version byte and then numbers of four bytes, the lowest first, and texts, each after its
// length: the text fields in their order, the blocked flag, the number of MAC addresses; of each of these its
// six bytes, the number of IP addresses and their texts.

#include "device_record.h"

#include "device_fields.h"

#include <cstdint>
#include <map>

namespace orv::devMgmt {

namespace {

constexpr std::size_t kNumberSize = 4;
constexpr std::size_t kMacSize = 6;
constexpr char kVersion = 1;

void put_number(std::string& bytes, std::uint32_t number)
{
    for (std::size_t i = 0; i < kNumberSize; ++i)
        bytes.push_back(static_cast<char>(number >> 8 * i & 0xffU));
}

void put_text(std::string& bytes, std::string_view text)
{
    put_number(bytes, static_cast<std::uint32_t>(text.size()));
    bytes.append(text);
}

/// Takes values off the front. After the first that is not there, everything is empty and is_sound() false.
class Reader {
public:
    explicit Reader(std::string_view bytes) : m_rest(bytes) {}

    std::string_view bytes(std::size_t size)
    {
        if (size > m_rest.size()) {
            m_sound = false;
            m_rest = {};
            return {};
        }
        const std::string_view taken = m_rest.substr(0, size);
        m_rest.remove_prefix(size);
        return taken;
    }

    std::uint32_t number()
    {
        std::uint32_t number = 0;
        unsigned shift = 0;
        for (const char byte : bytes(kNumberSize)) {
            number |= std::uint32_t{static_cast<unsigned char>(byte)} << shift;
            shift += 8;
        }
        return number;
    }

    std::string_view text() { return bytes(number()); }

    [[nodiscard]] bool is_sound() const { return m_sound; }
    [[nodiscard]] bool is_at_end() const { return m_sound && m_rest.empty(); }

private:
    std::string_view m_rest;
    bool m_sound = true;
};

/// The address of six bytes, by way of its text: the type is made of texts only.
sockutl::macaddr make_mac(std::string_view bytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        if (!text.empty())
            text.push_back(':');
        text.push_back(kDigits[static_cast<unsigned char>(byte) >> 4U]);
        text.push_back(kDigits[static_cast<unsigned char>(byte) & 0xfU]);
    }
    return sockutl::macaddr(text);
}

bool decode_mac(Reader& reader, Device& device)
{
    const sockutl::macaddr mac = make_mac(reader.bytes(kMacSize));
    auto& addresses = device.macs[mac];
    for (std::uint32_t count = reader.number(); count > 0 && reader.is_sound(); --count) {
        const sockutl::address address(std::string(reader.text()));
        if (!is_ip_address(address))
            return false;
        addresses.insert(addresses.end(), address);
    }
    return reader.is_sound() && mac.is_valid();
}

} // namespace

bool is_device_id(std::string_view text)
{
    return !text.empty() && text.find('\0') == std::string_view::npos && is_utf8(text);
}

std::string encode_device(const Device& device)
{
    std::string bytes(1, kVersion);
    for (const TextField& field : kTextFields)
        put_text(bytes, device.*field.member);
    put_number(bytes, static_cast<std::uint32_t>(device.traffic_blocked));
    put_number(bytes, static_cast<std::uint32_t>(device.macs.size()));
    std::map<sockutl::macaddr, const std::set<sockutl::address>*> macs;
    for (const auto& [mac, addresses] : device.macs)
        macs.emplace(mac, &addresses);
    for (const auto& [mac, addresses] : macs) {
        bytes.append(mac.bytes().begin(), mac.bytes().end());
        put_number(bytes, static_cast<std::uint32_t>(addresses->size()));
        for (const sockutl::address& address : *addresses)
            put_text(bytes, address.to_string(false));
    }
    return bytes;
}

bool decode_device(std::string_view bytes, Device& device)
{
    Reader reader(bytes);
    if (reader.bytes(1) != std::string_view(&kVersion, 1))
        return false;
    for (const TextField& field : kTextFields)
        device.*field.member = reader.text();
    const std::uint32_t blocked = reader.number();
    device.traffic_blocked = static_cast<std::int32_t>(blocked);
    device.macs.clear();
    for (std::uint32_t count = reader.number(); count > 0 && reader.is_sound(); --count)
        if (!decode_mac(reader, device))
            return false;
    return reader.is_at_end() && is_device_id(device.did) && blocked <= 1;
}

std::string encode_change(const Change& change)
{
    std::string bytes(1, static_cast<char>(change.type));
    put_text(bytes, change.did);
    put_text(bytes, change.field);
    put_text(bytes, change.record);
    return bytes;
}

bool decode_change(std::string_view bytes, Change& change)
{
    Reader reader(bytes);
    const std::string_view type = reader.bytes(1);
    change.did = reader.text();
    change.field = reader.text();
    change.record = reader.text();
    if (!reader.is_at_end() || static_cast<unsigned char>(type.front()) > 2 || !is_device_id(change.did))
        return false;
    change.type = static_cast<DevInfoChangeType>(type.front());
    return true;
}

} // namespace orv::devMgmt
