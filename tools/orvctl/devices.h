#pragma once

#include "output.h"

#include <string>

/// The sub-commands on the device store, which they open themselves: the daemon need not run, and learns of
/// every change. In a pipe a device is one line of JSON. Each returns the exit status.
namespace orvctl {

/// Prints all devices, whoever owns them.
[[nodiscard]] int run_device_list(Output& output);
/// Prints one device.
[[nodiscard]] int run_device_show(const std::string& id, Output& output);
/// Stores devices, new or in place of those with their ids: one JSON object or several, "-" for standard
/// input, where none at all are fine. When one of them is not of a device's shape, none is stored.
[[nodiscard]] int run_device_put(const std::string& data);
/// Removes one device.
[[nodiscard]] int run_device_remove(const std::string& id);

} // namespace orvctl
