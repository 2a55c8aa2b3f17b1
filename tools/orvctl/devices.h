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
/// input, where none at all are fine. All together or, when one of them cannot be a device, none.
[[nodiscard]] int run_device_put(const std::string& data);
/// Writes all devices, as they are at one moment, to a file.
[[nodiscard]] int run_device_backup(const std::string& file);
/// Makes the store hold what it held then: stores the file's devices and removes all others, all together or not
/// at all. Whoever watches the store is told of what is different.
[[nodiscard]] int run_device_restore(const std::string& file);
/// Removes one device.
[[nodiscard]] int run_device_remove(const std::string& id);

} // namespace orvctl
