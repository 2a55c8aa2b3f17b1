#pragma once

#include <optional>
#include <string>

namespace orv {

/// The agent's release version, from the line "version=" of etc/release; empty when there is none,
/// or when it has no text.
[[nodiscard]] std::optional<std::string> get_release_version();

/// The agent's patch version, from the line "patch=" of etc/release; an empty text when there is none.
[[nodiscard]] std::string get_patch_version();

} // namespace orv
