#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace orv::base {

/// The absolute path of something below the agent's root directory: /opt/orvane, or what the environment
/// variable ORV_ROOT names. An empty `relative` gives the root itself.
[[nodiscard]] std::string root_path(std::string_view relative);

/// Creates a directory with all its parents; those that are there already stay as they are. False with errno
/// set on failure.
[[nodiscard]] bool make_directories(const std::string& directory, mode_t mode);

/// What lies below the root is reached by its owner alone.
constexpr mode_t kDataDirectoryMode = 0700;

} // namespace orv::base
