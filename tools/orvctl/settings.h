#pragma once

#include "options.h"

#include <string>

/// The sub-commands on the settings store, which they open themselves: the daemon need not run. Values are
/// raw text; with --json, and where lines are printed into a pipe, a key is {"key": ..., "value": ...}. Each
/// returns the exit status.
namespace orvctl {

/// Prints a key's value.
[[nodiscard]] int run_settings_get(const std::string& key, Output& output);
[[nodiscard]] int run_settings_set(const std::string& key, const std::string& value);
/// Removes a key with everything below it.
[[nodiscard]] int run_settings_delete(const std::string& key);
/// Prints the names of a key's children.
[[nodiscard]] int run_settings_list(const std::string& key, Output& output);
/// Prints every key from this one downwards with its value.
[[nodiscard]] int run_settings_tree(const std::string& key, Output& output);
/// Writes all durable settings to a file, "-" for standard output; makes them those of a file, "-" for standard
/// input. Whoever uses the store may go on.
[[nodiscard]] int run_settings_backup(const std::string& file);
[[nodiscard]] int run_settings_restore(const std::string& file);
/// Prints the key's new value after each change, `count` times, 0 for ever, or until the time is over.
[[nodiscard]] int run_settings_watch(const std::string& key, unsigned long count, const Options& options,
                                     Output& output);

} // namespace orvctl
