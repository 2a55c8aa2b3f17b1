// What is stored of devices, as bytes and as JSON. The input's first byte says what the rest is. Whatever can
// be read is written and read again, and must be the same then.

#include "input.h"
#include "require.h"

#include "device_record.h"

#include <orvdevmgmt/device_writer.h>
#include <orvutils/json.h>

#include <cstdint>
#include <string>
#include <string_view>

using namespace orv::devMgmt;
using orv::JsonPtr;
using orv::fuzz::Input;
using orv::fuzz::require;

namespace {

void try_device(std::string_view bytes)
{
    Device device;
    if (!decode_device(bytes, device))
        return;
    require(device.traffic_blocked == 0 || device.traffic_blocked == 1, "traffic is blocked or it is not");
    Device other;
    require(!decode_device(std::string(bytes) + '\0', other), "nothing comes after a device");
    require(!decode_device(bytes.substr(0, bytes.size() - 1), other), "nothing is missing of a device");
    const std::string written = encode_device(device);
    Device again;
    require(decode_device(written, again), "a device can be read that was written");
    require(changed_fields(device, again).none(), "a device stays the same");
    require(encode_device(again) == written, "equal devices have equal bytes");
    const JsonPtr json(device_to_json(device));
    require(json != nullptr, "each device has a JSON form");
}

void try_record(std::string_view bytes)
{
    History history;
    std::string_view device;
    if (!split_record(bytes, history, device)) {
        require(history.born == 0, "nothing is taken from a malformed history");
        return;
    }
    try_device(device);
    const std::string written = encode_record(history, device);
    History again;
    std::string_view rest;
    require(split_record(written, again, rest) && rest == device, "a record can be read that was written");
    require(again.born == history.born && again.changed == history.changed, "a history stays the same");
}

void try_change(std::string_view bytes)
{
    Change change;
    if (decode_change(bytes, change))
        require(encode_change(change) == bytes, "a change stays the same");
}

void try_mark(std::string_view bytes)
{
    Mark mark;
    if (!decode_mark(bytes, mark))
        return;
    require(encode_mark(mark) == bytes, "a mark stays the same");
    try_record(mark.record);
}

void try_state(std::string_view bytes)
{
    LogState state;
    if (decode_state(bytes, state))
        require(encode_state(state) == bytes, "the state stays the same");
}

void try_json(std::string_view text)
{
    const JsonPtr json = orv::parse_json(text);
    if (!json)
        return;
    Device device;
    std::string error;
    if (!device_from_json(json.get(), "router-1", device, error)) {
        require(!error.empty(), "what is refused is explained");
        require(device.did.empty() && device.macs.empty(), "nothing is taken from what is refused");
        return;
    }
    const JsonPtr shown(device_to_json(device));
    Device again;
    require(device_from_json(shown.get(), "", again, error), "a device can be read that was shown");
    require(changed_fields(device, again).none(), "a device stays the same");
    if (is_device_id(device.did))
        try_device(encode_device(device));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const std::uint8_t kind = input.byte();
    const std::string copy(input.rest()); // of exactly its size: a sanitizer sees what reads beyond it
    switch (kind) {
    case 'r':
        try_record(copy);
        break;
    case 'c':
        try_change(copy);
        break;
    case 'm':
        try_mark(copy);
        break;
    case 's':
        try_state(copy);
        break;
    default:
        try_json(copy);
        break;
    }
    return 0;
}
