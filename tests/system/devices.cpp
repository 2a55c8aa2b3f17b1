// Writes the stores as the device-management daemon would, fast, and as nobody should. Orders come on standard
// input, one a line; each is answered with "done", or "failed" and the error. The end of its input
// is its own.
//
//     put JSON                 a device in the form of device_writer.h
//     show ID                  -> that form of a stored device
//     remove ID
//     rename ID NAME COUNT     that many changes of one field: the display name becomes NAME and a number
//     crowd PREFIX COUNT MAC   that many new devices, called PREFIX and a number; MAC is the first half of theirs;
//                              in one transaction, as the next one
//     clear                    removes all devices
//     plant ID HEX             bytes where a record is expected
//     record ID                -> the bytes of a record
//     churn ID                 puts and removes a device for ever; answers "churning" once
//     lock KEY                 the lock of a settings key, held to the end of this program
//     storm KEY                sets and removes a settings key for ever; answers "storming" once
//     fill KEY                 sets keys below this one until their store has no room for the smallest

#include "device_store.h"

#include <orvdevmgmt/device_writer.h>
#include <orvtools/json.h>
#include <orvutils/error.h>
#include <orvutils/json.h>
#include <orvutils/setmgmt.h>

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

using namespace orv::devMgmt;

namespace {

std::string outcome(bool is_good)
{
    return is_good ? "done" : "failed " + std::to_string(orv::_get_orverrno());
}

std::string put(const std::string& text)
{
    const orv::JsonPtr json = orvtools::parse_json(text);
    Device device;
    std::string error;
    if (!device_from_json(json.get(), "", device, error))
        return "failed " + error;
    return outcome(put_device(device) == 0);
}

std::string show(const std::string& id)
{
    Device device;
    if (get_device(id, device) == 0)
        return outcome(false);
    const orv::JsonPtr json(device_to_json(device));
    const std::string text = orvtools::to_text(json.get());
    return text.empty() ? "failed" : text;
}

std::string rename_often(const std::string& id, const std::string& name, unsigned count)
{
    Device device;
    if (get_device(id, device) == 0)
        return outcome(false);
    for (unsigned number = 0; number < count; ++number) {
        device.display_name = name + std::to_string(number);
        if (put_device(device) != 0)
            return outcome(false);
    }
    return outcome(true);
}

orv::sockutl::macaddr numbered_mac(const std::string& prefix, unsigned number)
{
    char text[24];
    (void)std::snprintf(text, sizeof text, ":%02x:%02x:%02x", number >> 16U & 0xffU, number >> 8U & 0xffU,
                        number & 0xffU);
    return orv::sockutl::macaddr(prefix + text);
}

std::string crowd(const std::string& prefix, unsigned count, const std::string& mac)
{
    std::vector<Device> devices(count);
    for (unsigned number = 0; number < count; ++number) {
        devices[number].did = prefix + std::to_string(number);
        devices[number].macs[numbered_mac(mac, number)];
    }
    std::string refused;
    return outcome(put_devices(devices, Others::stay, refused) == 0);
}

std::string clear()
{
    std::string refused;
    return outcome(put_devices({}, Others::go, refused) == 0);
}

std::string record(const std::string& id)
{
    orv::store::Read transaction(device_environment());
    std::string_view bytes;
    if (transaction.get(kDevices, id, bytes) != orv::Error::none)
        return outcome(false);
    std::string text;
    for (const char byte : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        const auto value = static_cast<unsigned char>(byte);
        text += {kDigits[value >> 4U], kDigits[value & 15U]};
    }
    return text;
}

std::string plant(const std::string& id, const std::string& hex)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    orv::store::Write transaction(device_environment());
    return outcome(transaction.put(kDevices, id, bytes) == orv::Error::none &&
                   transaction.commit() == orv::Error::none);
}

std::string churn(const std::string& id)
{
    Device device;
    device.did = id;
    std::cout << "churning" << std::endl;
    while (put_device(device) == 0 && remove_device(id) == 0) {
    }
    return outcome(false);
}

std::string storm(const std::string& key)
{
    std::cout << "storming" << std::endl;
    while (orv::setMgmt::setKey(key, "value") == 0 && orv::setMgmt::deleteKey(key) == 0) {
    }
    return outcome(false);
}

std::string fill(const std::string& key)
{
    unsigned number = 0;
    for (std::size_t size = orv::setMgmt::kMaxValueSize; size > 0; size /= 2)
        while (orv::setMgmt::setKey(key + "/" + std::to_string(number), std::string(size, 'x')) == 0)
            ++number;
    return outcome(number > 0);
}

std::string obey(const std::string& line)
{
    std::istringstream words(line);
    std::string verb;
    std::string id;
    std::string text;
    unsigned count = 0;
    words >> verb;
    if (verb == "put")
        return put(line.substr(verb.size()));
    if (verb == "clear")
        return clear();
    words >> id;
    if (verb == "remove")
        return outcome(remove_device(id) == 0);
    if (verb == "show")
        return show(id);
    if (verb == "lock")
        return outcome(orv::setMgmt::lockKey(id) == 0);
    if (verb == "storm")
        return storm(id);
    if (verb == "fill")
        return fill(id);
    if (verb == "record")
        return record(id);
    if (verb == "churn")
        return churn(id);
    if (verb == "plant" && words >> text)
        return plant(id, text);
    if (verb == "rename" && words >> text >> count)
        return rename_often(id, text, count);
    if (verb == "crowd" && words >> count >> text)
        return crowd(id, count, text);
    return "failed: no such order";
}

} // namespace

int main()
{
    if (orv::setMgmt::init() != 0 || init() != 0) {
        std::cerr << "devices: cannot open the stores\n";
        return 1;
    }
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);)
        std::cout << obey(line) << std::endl;
    uninit();
    orv::setMgmt::uninit();
    return 0;
}
