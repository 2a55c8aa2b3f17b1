// The device store with its numbered changes. The input is a sequence of operations, among them writes of any
// bytes to any tree. As long as there was none of these, who is told of the changes knows what is in the
// store.

#include "input.h"
#include "require.h"
#include "root.h"

#include "change_log.h"
#include "device_store.h"
#include "make_device.h"

#include <orvdevmgmt/device_writer.h>
#include <orvstore/notify.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

using namespace orv::devMgmt;
using orv::Error;
using orv::fuzz::Input;
using orv::fuzz::require;
namespace store = orv::store;

namespace {

constexpr std::size_t kMostOperations = 24;
constexpr unsigned kDeviceIds = 4;
constexpr unsigned kRounds = 4; ///< in which all that can be written here is told

std::vector<std::string> all_fields()
{
    std::vector<std::string> fields;
    for (std::size_t i = 0; i < kFieldCount; ++i)
        fields.emplace_back(field_name(i));
    return fields;
}

/// What somebody knows who has been told of all changes.
std::map<std::string, std::string> g_known;

void told(DevInfoChangeType type, const Device& device, const std::string& field)
{
    require(is_device_id(device.did), "who is told of a device can name it");
    require(field.empty() == (type != DevInfoChangeType::updated), "a field has changed, or all of a device");
    if (type == DevInfoChangeType::removed)
        g_known.erase(device.did);
    else
        g_known[device.did] = encode_device(device);
}

void clear_tree(store::Write& transaction, std::size_t tree)
{
    store::Cursor cursor(transaction, tree);
    for (bool found = cursor.first(); found; found = cursor.next())
        require(cursor.remove() == Error::none, "the store can be emptied");
}

void empty_store()
{
    store::Write transaction(device_environment());
    require(transaction.error() == Error::none, "the store can be written to");
    for (const std::size_t tree : {kDevices, kMacIndex, kChanges})
        clear_tree(transaction, tree);
    require(transaction.commit() == Error::none, "the store can be emptied");
}

void open_store()
{
    require(init() == 0 && set_on_dev_info_change(all_fields(), told) == 0, "the store can be opened");
    g_known.clear();
    std::vector<Device> devices;
    if (get_devices(devices) == 0)
        for (const Device& device : devices)
            g_known[device.did] = encode_device(device);
}

void tell_changes()
{
    for (unsigned round = 0; round < kRounds; ++round) {
        store::notify::wake();
        store::notify::read();
    }
}

Device make(Input& input)
{
    const std::uint8_t what = input.byte();
    Device device = orv::test::make_device("d" + std::to_string(what % kDeviceIds));
    device.display_name = std::string(input.bytes(what >> 5U));
    device.traffic_blocked = (what & 16U) != 0 ? 1 : 0;
    if ((what & 8U) != 0)
        device.macs[orv::sockutl::macaddr("02:00:00:00:00:0" + std::to_string(what & 7U))] = {
            orv::sockutl::address("192.168.1.20")};
    return device;
}

std::string number_key(char prefix, std::uint8_t number)
{
    std::string key(9, '\0');
    key.front() = prefix;
    key.back() = static_cast<char>(number);
    return key;
}

std::string make_key(Input& input)
{
    const std::uint8_t kind = input.byte();
    switch (kind % 4) {
    case 0:
        return "s";
    case 1:
        return number_key('c', input.byte());
    case 2:
        return number_key('r', input.byte());
    default:
        return std::string(input.bytes(kind >> 3U));
    }
}

void write_anything(Input& input, std::size_t tree)
{
    const std::string key = make_key(input);
    const std::string value(input.bytes(input.byte()));
    store::Write transaction(device_environment());
    if (transaction.error() == Error::none && transaction.put(tree, key, value) == Error::none)
        require(transaction.commit() == Error::none, "what was written can be committed");
}

void check_store(bool is_sound)
{
    tell_changes();
    std::vector<Device> devices;
    require(get_devices(devices) == 0, "devices can be listed, whatever is among them");
    std::map<std::string, std::string> there;
    for (const Device& device : devices)
        there[device.did] = encode_device(device);
    require(!is_sound || there == g_known, "who is told of all changes knows all devices");
    std::string did;
    (void)get_device_id_by_mac(orv::sockutl::macaddr("02:00:00:00:00:01"), did); // it may be nobody's
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    orv::fuzz::make_root();
    orv::fuzz::log_nothing();
    open_store();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    uninit();
    require(init() == 0, "the store can be opened");
    empty_store();
    uninit();
    open_store();
    Input input(data, size);
    bool is_sound = true;
    for (std::size_t i = 0; i < kMostOperations && !input.is_empty(); ++i) {
        const std::uint8_t operation = input.byte();
        switch (operation % 8) {
        case 0:
        case 1:
        case 2:
            write_anything(input, operation % 8);
            is_sound = false;
            break;
        case 3:
        case 4:
            (void)put_device(make(input)); // what is there may make no sense
            break;
        case 5:
            (void)remove_device("d" + std::to_string(input.byte() % kDeviceIds)); // it may not be there
            break;
        case 6:
            tell_changes();
            break;
        default:
            uninit();
            open_store();
            break;
        }
    }
    check_store(is_sound);
    return 0;
}
