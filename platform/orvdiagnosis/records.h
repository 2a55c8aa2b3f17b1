#pragma once

#include <orvdiagnosis/orvdiagnosis.h>
#include <orvutils/json.h>
#include <orvutils/path.h>

#include <optional>
#include <string>
#include <vector>

/// The records by what they are about. A value that cannot be found out is null: a diagnosis is wanted most
/// when something is broken.
namespace orv::diagnosis {

/// "agent", "va" and "devices": from the stores.
[[nodiscard]] std::vector<Record> agent_records();
/// "network" and "exchange": the router's interfaces, the message exchange.
[[nodiscard]] std::vector<Record> network_records();
/// "system": the machine, from /proc.
[[nodiscard]] std::vector<Record> system_records();

/// The agent's release version, "2.0.0.0" when it has none.
[[nodiscard]] std::string agent_version();

/// A setting's value, an empty text when it has none; nothing when the store cannot be read.
[[nodiscard]] std::optional<std::string> read_setting(const path& key);

} // namespace orv::diagnosis
