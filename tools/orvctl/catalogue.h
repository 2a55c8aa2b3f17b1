#pragma once

#include <string_view>
#include <vector>

/// What clients can ask the daemon for, as orvctl shows it: one row per command and event. The shapes are
/// JSON written with type names, "none" where there is no data, "optional" after what may be left out. A test
/// holds names, data and events against the daemon and against docs/protocol.md.
namespace orvctl {

struct CommandInfo {
    std::string_view name;
    std::string_view summary;
    std::string_view argument; ///< shape of the request's "data"
    std::string_view answer;   ///< shape of the answer's "data" when the status is 0
};

struct EventInfo {
    std::string_view name;
    std::string_view summary;
    std::string_view shape;
};

[[nodiscard]] const std::vector<CommandInfo>& commands();
[[nodiscard]] const std::vector<EventInfo>& events();

} // namespace orvctl
