// On the device store's writer interface, as the device-management daemon uses it: whoever watches the store
// is told of each change.

#include "devices.h"

#include "backup.h"
#include "exit_status.h"
#include "input.h"
#include "stores.h"
#include "texts.h"

#include <orvdevmgmt/device_writer.h>
#include <orvtools/json.h>
#include <orvutils/error.h>
#include <orvutils/keys.h>
#include <orvutils/setmgmt.h>

#include <algorithm>
#include <map>
#include <vector>

namespace orvctl {
namespace {

using orv::devMgmt::Device;

constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
/// What is typed or piped is kept until its end, which may never come.
constexpr std::size_t kMaxPipedSize = 64 * kMebibyte;
/// Of a backup, whose size is known before: eight times the largest store, as a text may be that much longer.
constexpr std::size_t kMaxBackupSize = 720 * kMebibyte;

constexpr const char* kBlanks = " \t\r\n"; ///< what JSON has between its values

int report_failure(const std::string& what)
{
    const auto error = orv::_get_orverrno();
    complain("the device store failed (error " + std::to_string(static_cast<int>(error)) + "): " + what);
    return kUnavailable;
}

int report_absence(const std::string& id)
{
    if (orv::_get_orverrno() != static_cast<int>(orv::Error::no_such_key))
        return report_failure(id);
    complain("no such device: " + id);
    return kFailed;
}

/// The device store for who adds to it, and the settings, which say how large it may become.
class WritableDevices {
public:
    /// Complains when one of them is not open; the exit status.
    [[nodiscard]] int check() const
    {
        if (!m_settings.is_open())
            return m_settings.report_closed();
        return m_devices.is_open() ? kSuccess : m_devices.report_closed();
    }

private:
    OpenedStore m_settings{Store::settings, Use::writing};
    OpenedStore m_devices{Store::devices, Use::writing};
};

int print(const Device& device, Output& output)
{
    const orv::JsonPtr json(orv::devMgmt::device_to_json(device));
    const std::string text = orvtools::to_text(json.get());
    if (text.empty()) {
        complain("cannot make JSON of the device: " + device.did);
        return kFailed;
    }
    output.json(text);
    return kSuccess;
}

/// All MAC addresses with their IP addresses, in their order.
std::string addresses_of(const Device& device)
{
    std::map<std::string, std::string> found;
    for (const auto& [mac, addresses] : device.macs) {
        std::string& text = found[mac.to_string(false)];
        for (const auto& address : addresses)
            text += " " + address.to_string(false);
    }
    std::string all;
    for (const auto& [mac, addresses] : found)
        all.append(all.empty() ? "" : ", ").append(mac).append(addresses);
    return all;
}

void print_table(const std::vector<Device>& devices, Output& output)
{
    std::vector<std::vector<std::string>> rows;
    rows.reserve(devices.size());
    for (const auto& device : devices) {
        const auto& name = device.friendly_name.empty() ? device.display_name : device.friendly_name;
        rows.push_back({device.did, name, device.device_type, device.traffic_blocked != 0 ? "yes" : "no",
                        device.owner, addresses_of(device)});
    }
    output.table({"ID", "NAME", "TYPE", "BLOCKED", "OWNER", "ADDRESSES"}, rows);
}

/// Takes the next JSON value off a text; complains when there is none.
orv::JsonPtr take_value(std::string_view& text)
{
    json_error_t error{};
    auto value = orvtools::parse_json(text, JSON_DISABLE_EOF_CHECK | JSON_DECODE_ANY, &error);
    if (!value) {
        complain("DATA is not JSON: " + std::string(error.text));
        return value;
    }
    text.remove_prefix(static_cast<std::size_t>(error.position));
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return value;
}

/// Makes devices of JSON objects that follow each other; complains about the first that is none.
int read_devices(std::string_view text, std::vector<Device>& devices)
{
    const std::string owner = orv::setMgmt::getKeyValue(orv::kDeviceIdKey, "");
    do {
        const orv::JsonPtr json = take_value(text);
        if (!json)
            return kUsage;
        std::string problem;
        devices.emplace_back();
        if (!orv::devMgmt::device_from_json(json.get(), owner, devices.back(), problem)) {
            complain("refused, " + problem);
            return kFailed;
        }
    } while (!text.empty());
    return kSuccess;
}

int put(const std::vector<Device>& devices, orv::devMgmt::Others others)
{
    std::string refused;
    if (orv::devMgmt::put_devices(devices, others, refused) == 0)
        return kSuccess;
    if (orv::_get_orverrno() != static_cast<int>(orv::Error::invalid_argument))
        return report_failure(others == orv::devMgmt::Others::go ? "restore" : "put");
    complain("refused, larger than a record can be (" + std::to_string(orv::devMgmt::kMaxRecordSize) +
             " bytes): " + refused);
    return kFailed;
}

/// A backup is one object, so that one that was cut off is none: {"devices": [...]}, a device on each line.
bool make_backup(const std::vector<Device>& devices, std::string& text)
{
    text = "{\"devices\": [";
    const char* separator = "\n";
    for (const auto& device : devices) {
        const orv::JsonPtr json(orv::devMgmt::device_to_json(device));
        const std::string line = orvtools::to_text(json.get());
        if (line.empty()) {
            complain("cannot make JSON of the device: " + device.did);
            return false;
        }
        text.append(separator).append(line);
        separator = ",\n";
    }
    text += "\n]}\n";
    return true;
}

int read_backup_devices(const std::string& file, const std::string& text, std::vector<Device>& devices)
{
    json_error_t error{};
    const orv::JsonPtr backup = orvtools::parse_json(text, 0, &error);
    const json_t* list = json_object_get(backup.get(), "devices");
    if (!json_is_array(list)) {
        complain(file + " is no backup of devices: " + (backup ? "no list of \"devices\"" : error.text));
        return kFailed;
    }
    devices.resize(json_array_size(list));
    for (std::size_t i = 0; i < devices.size(); ++i) {
        std::string problem;
        if (!orv::devMgmt::device_from_json(json_array_get(list, i), "", devices[i], problem)) {
            complain("refused, " + problem);
            return kFailed;
        }
    }
    return kSuccess;
}

} // namespace

int run_device_list(Output& output)
{
    const OpenedStore store(Store::devices, Use::reading);
    if (!store.is_open())
        return store.report_closed();
    std::vector<Device> devices;
    if (orv::devMgmt::get_devices(devices) != 0)
        return report_failure("list");
    if (output.is_for_people()) {
        print_table(devices, output);
        return kSuccess;
    }
    int status = kSuccess;
    for (const auto& device : devices)
        if (print(device, output) != kSuccess)
            status = kFailed; // the others are shown all the same
    return status;
}

int run_device_show(const std::string& id, Output& output)
{
    const OpenedStore store(Store::devices, Use::reading);
    if (!store.is_open())
        return store.report_closed();
    Device device;
    if (orv::devMgmt::get_device(id, device) == 0)
        return report_absence(id);
    return print(device, output);
}

int run_device_put(const std::string& data)
{
    // Before the stores are opened: who types it may take his time.
    std::string text = data;
    if (data == "-") {
        text.clear();
        if (!read_standard_input(text, kMaxPipedSize, "devices"))
            return kUsage;
        if (text.find_first_not_of(kBlanks) == std::string::npos)
            return kSuccess; // an empty store was listed: there is nothing to bring back
    }
    const WritableDevices store;
    if (const int status = store.check(); status != kSuccess)
        return status;
    std::vector<Device> devices;
    const int status = read_devices(text, devices);
    return status == kSuccess ? put(devices, orv::devMgmt::Others::stay) : status;
}

int run_device_backup(const std::string& file)
{
    const OpenedStore store(Store::devices, Use::reading);
    if (!store.is_open())
        return store.report_closed();
    std::vector<Device> devices;
    if (orv::devMgmt::get_devices(devices) != 0)
        return report_failure("backup");
    std::string text;
    return make_backup(devices, text) && write_backup(file, text) ? kSuccess : kFailed;
}

int run_device_restore(const std::string& file)
{
    std::string text;
    std::vector<Device> devices;
    const std::size_t limit = is_regular_file(file) ? kMaxBackupSize : kMaxPipedSize;
    if (!read_file(file, text, limit, "a backup of the devices"))
        return kFailed;
    if (const int status = read_backup_devices(file, text, devices); status != kSuccess)
        return status;
    const WritableDevices store;
    const int status = store.check();
    return status == kSuccess ? put(devices, orv::devMgmt::Others::go) : status;
}

int run_device_remove(const std::string& id)
{
    const OpenedStore store(Store::devices, Use::writing);
    if (!store.is_open())
        return store.report_closed();
    return orv::devMgmt::remove_device(id) == 0 ? kSuccess : report_absence(id);
}

} // namespace orvctl
