#pragma once

#include "device_trees.h"

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvstore/transaction.h>

#include <string>
#include <string_view>
#include <vector>

namespace orv::devMgmt {

[[nodiscard]] store::Environment& device_environment();

/// A device in a snapshot. Error::no_such_key when there is none; Error::input_output, logged, for a
/// malformed record.
[[nodiscard]] Error read_device(store::Transaction& transaction, std::string_view did, Device& device);

/// Appends all devices in the order of their ids; malformed records are logged and left out.
[[nodiscard]] Error read_devices(store::Transaction& transaction, std::vector<Device>& devices);

/// The device that has a MAC address, the one with the lowest id if there are several.
[[nodiscard]] Error find_by_mac(store::Transaction& transaction, const sockutl::macaddr& mac,
                                std::string& did);

} // namespace orv::devMgmt
