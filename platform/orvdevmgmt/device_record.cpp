// A device is a version byte and then numbers of four bytes, the lowest first, and texts, each after its
// length: the text fields in their order, the blocked flag, the number of MAC addresses; of each of these its
// six bytes, the number of IP addresses and their texts.
//
// A record is another version byte, the history and a device. Of the history: numbers of eight bytes for the
// birth and for each field that has changed, after two bytes that tell which these are.

#include "device_record.h"

#include <orvdevmgmt/device_writer.h>

#include <map>

namespace orv::devMgmt {

namespace {

constexpr std::size_t kMacSize = 6;
constexpr char kDeviceVersion = 1;
constexpr char kRecordVersion = 2;
constexpr char kStateVersion = 1;
static_assert(kFieldCount <= 16, "two bytes tell which fields have changed");

template <typename Number>
void put_number(std::string& bytes, Number number)
{
    for (std::size_t i = 0; i < sizeof number; ++i)
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

    template <typename Number = std::uint32_t>
    Number number()
    {
        Number number = 0;
        unsigned shift = 0;
        for (const char byte : bytes(sizeof number)) {
            number = static_cast<Number>(number | Number{static_cast<unsigned char>(byte)} << shift);
            shift += 8;
        }
        return number;
    }

    std::string_view text() { return bytes(number()); }

    std::string_view rest() { return bytes(m_rest.size()); }

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

/// Whether a device can be looked up by this text.
bool is_key(std::string_view did)
{
    return is_device_id(did) && did.size() <= kMaxDeviceIdSize;
}

} // namespace

bool is_device_id(std::string_view text)
{
    return !text.empty() && text.find('\0') == std::string_view::npos && is_utf8(text);
}

std::string encode_device(const Device& device)
{
    std::string bytes(1, kDeviceVersion);
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
    if (reader.bytes(1) != std::string_view(&kDeviceVersion, 1))
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

std::string encode_record(const History& history, std::string_view device)
{
    std::string bytes(1, kRecordVersion);
    put_number(bytes, history.born);
    std::uint16_t changed = 0;
    for (std::size_t i = 0; i < kFieldCount; ++i)
        changed = static_cast<std::uint16_t>(changed | (history.changed[i] != 0 ? 1U << i : 0U));
    put_number(bytes, changed);
    for (const std::uint64_t number : history.changed)
        if (number != 0)
            put_number(bytes, number);
    return bytes.append(device);
}

bool split_record(std::string_view record, History& history, std::string_view& device)
{
    history = {};
    device = record;
    if (record.empty() || record.front() == kDeviceVersion)
        return !record.empty();
    Reader reader(record);
    if (reader.bytes(1) != std::string_view(&kRecordVersion, 1))
        return false;
    history.born = reader.number<std::uint64_t>();
    const auto changed = reader.number<std::uint16_t>();
    for (std::size_t i = 0; i < kFieldCount; ++i)
        if ((changed >> i & 1U) != 0)
            history.changed[i] = reader.number<std::uint64_t>();
    device = reader.rest();
    const bool is_sound = reader.is_sound() && changed >> kFieldCount == 0;
    if (!is_sound)
        history = {};
    return is_sound;
}

std::string encode_change(const Change& change)
{
    std::string bytes(1, static_cast<char>(change.type));
    bytes.push_back(static_cast<char>(change.field));
    put_number(bytes, change.born);
    put_number(bytes, change.died);
    return bytes.append(change.did);
}

bool decode_change(std::string_view bytes, Change& change)
{
    Reader reader(bytes);
    const auto type = reader.number<unsigned char>();
    change.field = reader.number<unsigned char>();
    change.born = reader.number<std::uint64_t>();
    change.died = reader.number<std::uint64_t>();
    change.did = reader.rest();
    if (!reader.is_sound() || type > 2 || change.field >= kFieldCount || !is_key(change.did))
        return false;
    change.type = static_cast<DevInfoChangeType>(type);
    return true;
}

std::string encode_mark(const Mark& mark)
{
    std::string bytes;
    put_text(bytes, mark.did);
    return bytes.append(mark.record);
}

bool decode_mark(std::string_view bytes, Mark& mark)
{
    Reader reader(bytes);
    mark.did = reader.text();
    mark.record = reader.rest();
    return reader.is_sound() && is_key(mark.did);
}

std::string encode_state(const LogState& state)
{
    std::string bytes(1, kStateVersion);
    for (const std::uint64_t number :
         {state.identity, state.last, state.dropped, state.mark_count, state.mark_bytes})
        put_number(bytes, number);
    return bytes;
}

bool decode_state(std::string_view bytes, LogState& state)
{
    Reader reader(bytes);
    if (reader.bytes(1) != std::string_view(&kStateVersion, 1))
        return false;
    for (std::uint64_t* number :
         {&state.identity, &state.last, &state.dropped, &state.mark_count, &state.mark_bytes})
        *number = reader.number<std::uint64_t>();
    return reader.is_at_end() && state.identity != 0;
}

} // namespace orv::devMgmt
