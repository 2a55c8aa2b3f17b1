#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace orv::base {

/// The agent's root directory unless the environment names another one: /opt/orvane, or what the build was configured
/// with.
[[nodiscard]] const char* default_root();

/// The absolute path of something below the agent's root directory: default_root(), or what the environment
/// variable ORV_ROOT names. An empty `relative` gives the root itself.
[[nodiscard]] std::string root_path(std::string_view relative);

/// Creates a directory with all its parents, durably; those that are there already stay as they are. False with
/// errno set on failure.
[[nodiscard]] bool make_directories(const std::string& directory, mode_t mode);

/// Whether what lies in a directory below the root is reachable by its owner alone: every directory from the root
/// down to it must belong to this process's user or root, and others must not be able to write to it. Where one
/// can, they have perhaps planted what they like.
struct Distrust {
    std::string directory; ///< the first one that is not to be trusted; empty when all are
    std::string reason;    ///< "it belongs to user 65534"
};
[[nodiscard]] Distrust find_distrust(const std::string& directory);

/// What lies below the root is for the agent alone.
constexpr mode_t kDirectoryMode = 0700;

} // namespace orv::base
