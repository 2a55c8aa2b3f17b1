// Record, index and journal change in one transaction, so they cannot disagree.

#include "device_store.h"

#include "device_fields.h"
#include "device_record.h"

#include <orvbase/error_number.h>
#include <orvdevmgmt/device_writer.h>
#include <orvutils/log_format.h>

#include <algorithm>
#include <utility>

namespace orv::devMgmt {

namespace {

using store::Cursor;
using store::Environment;
using store::Transaction;
using store::Write;

constexpr std::size_t kMapSize = std::size_t{64} * 1024 * 1024;
constexpr std::size_t kMacSize = 6;

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

/// Removes a device from the index, by its stored record.
Error clear_index(Write& transaction, const std::string& did, std::string_view record)
{
    Device device;
    if (!decode_device(record, device))
        return sweep_index(transaction, did);
    for (const auto& entry : device.macs) {
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

Error append_change(Write& transaction, const Change& change)
{
    return kChangeJournal.append(transaction, encode_change(change));
}

/// Tells the journal what a new record means for its device. A malformed old one counts as none.
Error log_put(Write& transaction, std::string_view old_record, const Device& device)
{
    Device before;
    if (!decode_device(old_record, before))
        return append_change(transaction, {DevInfoChangeType::added, device.did, {}, {}});
    for (const std::string& field : changed_fields(before, device))
        if (const Error error =
                append_change(transaction, {DevInfoChangeType::updated, device.did, field, {}});
            error != Error::none)
            return error;
    return Error::none;
}

Error put(const Device& device)
{
    const std::string record = encode_device(device);
    if (!is_possible(device) || record.size() > kMaxRecordSize)
        return Error::invalid_argument;
    Write transaction(device_environment());
    if (transaction.error() != Error::none)
        return transaction.error();
    std::string_view found;
    const Error looked_up = transaction.get(kDevices, device.did, found);
    if (looked_up != Error::none && looked_up != Error::no_such_key)
        return looked_up;
    if (found == record)
        return Error::none;
    const std::string old_record(found);
    Error error = transaction.put(kDevices, device.did, record);
    if (error == Error::none && looked_up == Error::none)
        error = clear_index(transaction, device.did, old_record);
    if (error == Error::none)
        error = write_index(transaction, device);
    if (error == Error::none)
        error = log_put(transaction, old_record, device);
    return error == Error::none ? transaction.commit() : error;
}

Error remove(const std::string& did)
{
    if (did.empty() || did.size() > kMaxDeviceIdSize)
        return Error::no_such_key;
    Write transaction(device_environment(), Write::Kind::removing);
    if (transaction.error() != Error::none)
        return transaction.error();
    std::string_view record;
    Error error = transaction.get(kDevices, did, record);
    if (error != Error::none)
        return error;
    const Change change{DevInfoChangeType::removed, did, {}, std::string(record)};
    error = transaction.remove(kDevices, did);
    if (error == Error::none)
        error = clear_index(transaction, did, change.record);
    if (error == Error::none)
        error = append_change(transaction, change);
    return error == Error::none ? transaction.commit() : error;
}

int result(Error error)
{
    return error == Error::none ? 0 : base::fail(error);
}

bool decode_stored(std::string_view did, std::string_view record, Device& device)
{
    if (decode_device(record, device) && device.did == did)
        return true;
    ORV_LOG(log::kError, "device store: skipping device {}, its record is malformed", did);
    return false;
}

} // namespace

store::Environment& device_environment()
{
    // Lives as long as the process: it holds what the operating system releases anyhow.
    static auto* instance = [] {
        store::Layout layout{"var/devices", {"devices", "macs", "changes"}, kMapSize, true, report};
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
    return result(put(device));
}

int remove_device(const std::string& did)
{
    return result(remove(did));
}

} // namespace orv::devMgmt
