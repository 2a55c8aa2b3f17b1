#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace orv::detail {

constexpr int kScriptLimitMs = 10000;
/// How long the end of a script that was killed is waited for.
constexpr std::chrono::milliseconds kKillLimit{500};

/// As exec_script(), with the time in milliseconds that each command may take.
[[nodiscard]] int exec_script_within(const std::vector<std::vector<std::string>>& commands,
                                     const std::string& interpreter, int limit_ms);

} // namespace orv::detail
