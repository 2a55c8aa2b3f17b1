// Record, index and log change in one transaction, so they cannot disagree.

#include "device_store.h"

#include "change_log.h"
#include "device_fields.h"
#include "device_record.h"

#include <orvbase/error_number.h>
#include <orvbase/without_throwing.h>
#include <orvdevmgmt/device_writer.h>
#include <orvutils/log_format.h>
#include <orvutils/store_limit.h>

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace orv::devMgmt {

namespace {

using store::Cursor;
using store::Environment;
using store::Transaction;
using store::Write;

/// The marks of removed devices alone may take a quarter of the least.
constexpr StoreLimit kLimit = {"/devmgmt/max_store_mib", 64, 16, 96};
constexpr std::size_t kMacSize = 6;
constexpr int kOutOfMemory = -static_cast<int>(Error::input_output);

std::string mac_prefix(const sockutl::macaddr& mac)
{
    return {mac.bytes().begin(), mac.bytes().end()};
}

bool are_possible(const decltype(Device::macs)& macs)
{
    return std::all_of(macs.begin(), macs.end(), [](const auto& entry) {
        const auto& [mac, addresses] = entry;
        return mac.is_valid() && std::all_of(addresses.begin(), addresses.end(), is_ip_address);
    });
}

/// The name of the first member that no device can have; null for a possible device.
const char* impossible_member(const Device& device)
{
    if (!is_device_id(device.did) || device.did.size() > kMaxDeviceIdSize)
        return kTextFields.front().name;
    for (const TextField& field : kTextFields)
        if (!is_utf8(device.*field.member))
            return field.name;
    if (!are_possible(device.macs))
        return kMacsField;
    return device.traffic_blocked == 0 || device.traffic_blocked == 1 ? nullptr : kTrafficBlockedField;
}

bool is_possible(const Device& device)
{
    const char* member = impossible_member(device);
    if (member)
        ORV_LOG(log::kError, "device store: refusing a device for its {}", member);
    return !member;
}

void report(store::Severity severity, const std::string& text)
{
    ORV_LOG(static_cast<int>(severity), "{}", text);
}

/// Removes a device from the index by looking through all of it: for a malformed record, which does not say
/// where it is indexed.
Error sweep_index(Write& transaction, std::string_view did)
{
    Cursor cursor(transaction, kMacIndex);
    for (bool found = cursor.first(); found; found = cursor.next()) {
        if (cursor.key().size() < kMacSize || cursor.key().substr(kMacSize) != did)
            continue;
        if (const Error error = cursor.remove(); error != Error::none)
            return error;
    }
    return cursor.error();
}

/// Removes a device from the index, by its stored record; null for a malformed one.
Error clear_index(Write& transaction, const std::string& did, const Device* stored)
{
    if (!stored)
        return sweep_index(transaction, did);
    for (const auto& entry : stored->macs) {
        const Error error = transaction.remove(kMacIndex, mac_prefix(entry.first) + did);
        if (error != Error::none && error != Error::no_such_key)
            return error;
    }
    return Error::none;
}

Error write_index(Write& transaction, const Device& device)
{
    for (const auto& entry : device.macs)
        if (const Error error = transaction.put(kMacIndex, mac_prefix(entry.first) + device.did, {});
            error != Error::none)
            return error;
    return Error::none;
}

/// A transaction that changes devices.
class Writing {
public:
    explicit Writing(Write::Kind kind = Write::Kind::adding) : m_transaction(device_environment(), kind) {}

    /// Why not, if it has not begun.
    [[nodiscard]] Error begin()
    {
        return m_transaction.error() != Error::none ? m_transaction.error() : m_log.begin();
    }

    /// Storing what is there already is no change.
    [[nodiscard]] Error put(const Device& device, const std::string& bytes)
    {
        std::string_view found;
        const Error looked_up = m_transaction.get(kDevices, device.did, found);
        if (looked_up != Error::none && looked_up != Error::no_such_key)
            return looked_up;
        const std::string record(found); // what is found is gone after the first change
        History history;
        std::string_view old_bytes;
        if (split_record(record, history, old_bytes) && old_bytes == bytes)
            return Error::none;
        m_has_changed = true;
        const Error error =
            looked_up == Error::none ? replace(device, old_bytes, history) : add(device, history);
        return error == Error::none ? m_transaction.put(kDevices, device.did, encode_record(history, bytes))
                                    : error;
    }

    [[nodiscard]] Error remove(const std::string& did, bool with_mark = true)
    {
        std::string_view found;
        Error error = m_transaction.get(kDevices, did, found);
        if (error != Error::none)
            return error;
        const std::string record(found);
        History history;
        std::string_view bytes;
        Device device;
        const bool is_sound = split_record(record, history, bytes) && decode_device(bytes, device);
        m_has_changed = true;
        error = m_transaction.remove(kDevices, did);
        if (error == Error::none)
            error = clear_index(m_transaction, did, is_sound ? &device : nullptr);
        return error == Error::none ? m_log.remove(did, record, with_mark) : error;
    }

    /// Removes all but these devices.
    [[nodiscard]] Error remove_all_but(const Device* devices, std::size_t count)
    {
        std::unordered_set<std::string_view> staying;
        for (std::size_t i = 0; i < count; ++i)
            staying.insert(devices[i].did);
        std::vector<std::string> leaving;
        {
            Cursor cursor(m_transaction, kDevices);
            for (bool found = cursor.first(); found; found = cursor.next())
                if (staying.count(cursor.key()) == 0)
                    leaving.emplace_back(cursor.key());
            if (cursor.error() != Error::none)
                return cursor.error();
        }
        for (const std::string& did : leaving)
            if (const Error error = remove(did); error != Error::none)
                return error;
        return Error::none;
    }

    [[nodiscard]] Error commit()
    {
        if (!m_has_changed)
            return Error::none;
        const Error error = m_log.finish();
        return error == Error::none ? m_transaction.commit() : error;
    }

private:
    /// With the history of what stood in its place, if there was something.
    [[nodiscard]] Error add(const Device& device, History& history)
    {
        const Error error = m_log.add(device.did, history);
        return error == Error::none ? write_index(m_transaction, device) : error;
    }

    /// Writes down what is different. In the place of a malformed record the device is a new one.
    [[nodiscard]] Error replace(const Device& device, std::string_view old_bytes, History& history)
    {
        Device before;
        const bool is_sound = decode_device(old_bytes, before);
        const Fields fields = is_sound ? changed_fields(before, device) : Fields();
        if (is_sound && !fields[kMacsNumber])
            return m_log.update(device.did, fields, history);
        const Error error = clear_index(m_transaction, device.did, is_sound ? &before : nullptr);
        if (error != Error::none || !is_sound)
            return error != Error::none ? error : add(device, history);
        const Error indexed = write_index(m_transaction, device);
        return indexed == Error::none ? m_log.update(device.did, fields, history) : indexed;
    }

    Write m_transaction;
    ChangeLog m_log{m_transaction};
    bool m_has_changed = false;
};

Error put(const Device* devices, std::size_t count, Others others, std::string& refused)
{
    std::vector<std::string> encoded;
    encoded.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        encoded.push_back(encode_device(devices[i]));
        if (is_possible(devices[i]) && encoded.back().size() <= kMaxRecordSize)
            continue;
        refused = devices[i].did;
        return Error::invalid_argument;
    }
    Writing writing;
    Error error = writing.begin();
    for (std::size_t i = 0; error == Error::none && i < count; ++i)
        error = writing.put(devices[i], encoded[i]);
    if (error == Error::none && others == Others::go)
        error = writing.remove_all_but(devices, count);
    return error == Error::none ? writing.commit() : error;
}

Error remove_once(const std::string& did, bool with_mark)
{
    Writing writing(Write::Kind::removing);
    Error error = writing.begin();
    if (error == Error::none)
        error = writing.remove(did, with_mark);
    return error == Error::none ? writing.commit() : error;
}

/// In a store without room for a mark the device can be removed all the same.
Error remove(const std::string& did)
{
    if (did.empty() || did.size() > kMaxDeviceIdSize)
        return Error::no_such_key;
    const Error error = remove_once(did, /*with_mark=*/true);
    return error == Error::input_output ? remove_once(did, /*with_mark=*/false) : error;
}

int result(Error error)
{
    return error == Error::none ? 0 : base::fail(error);
}

bool decode_stored(std::string_view did, std::string_view record, Device& device)
{
    History history;
    std::string_view bytes;
    if (split_record(record, history, bytes) && decode_device(bytes, device) && device.did == did)
        return true;
    ORV_LOG(log::kError, "device store: skipping device {}, its record is malformed", did);
    return false;
}

} // namespace

store::Environment& device_environment()
{
    // Lives as long as the process: it holds what the operating system releases anyhow.
    static auto* instance = [] {
        store::Layout layout{"var/devices", {"devices", "macs", "changes"}, kLimit.read(), true, report};
        layout.when_damaged = store::WhenDamaged::set_aside; // the device manager finds the devices again
        return new Environment(std::move(layout));
    }();
    return *instance;
}

Error read_device(Transaction& transaction, std::string_view did, Device& device)
{
    std::string_view record;
    if (did.empty() || did.size() > kMaxDeviceIdSize)
        return Error::no_such_key;
    if (const Error error = transaction.get(kDevices, did, record); error != Error::none)
        return error;
    return decode_stored(did, record, device) ? Error::none : Error::input_output;
}

Error read_devices(Transaction& transaction, std::vector<Device>& devices)
{
    devices.reserve(devices.size() + transaction.entries(kDevices));
    Cursor cursor(transaction, kDevices);
    for (bool found = cursor.first(); found; found = cursor.next()) {
        devices.emplace_back();
        if (!decode_stored(cursor.key(), cursor.value(), devices.back()))
            devices.pop_back();
    }
    return cursor.error();
}

Error find_by_mac(Transaction& transaction, const sockutl::macaddr& mac, std::string& did)
{
    const std::string prefix = mac_prefix(mac);
    Cursor cursor(transaction, kMacIndex);
    if (!cursor.seek(prefix) || cursor.key().substr(0, kMacSize) != prefix)
        return cursor.error() != Error::none ? cursor.error() : Error::no_such_key;
    did = cursor.key().substr(kMacSize);
    return Error::none;
}

const store::Failure& failure()
{
    return device_environment().failure();
}

Error measure(store::Usage& usage)
{
    return device_environment().measure(usage);
}

int put_device(const Device& device)
{
    return base::without_throwing(kOutOfMemory, [&] {
        std::string refused;
        return result(put(&device, 1, Others::stay, refused));
    });
}

int put_devices(const std::vector<Device>& devices, Others others, std::string& refused)
{
    return base::without_throwing(
        kOutOfMemory, [&] { return result(put(devices.data(), devices.size(), others, refused)); });
}

int remove_device(const std::string& did)
{
    return base::without_throwing(kOutOfMemory, [&] { return result(remove(did)); });
}

} // namespace orv::devMgmt
