#pragma once

#include <cstddef>

namespace orv::devMgmt {

/// The device store's trees: from device ids to records; an index whose keys are a MAC address and the id of
/// the device that has it, one after the other; what has changed (change_log.h).
enum DeviceTree : std::size_t { kDevices, kMacIndex, kChanges };

} // namespace orv::devMgmt
