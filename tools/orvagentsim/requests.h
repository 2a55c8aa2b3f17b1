#pragma once

#include "agent.h"
#include "call.h"
#include "exchange.h"
#include "scanner.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvagentsim {

/// Those of the four participants that remember something from one call to the next.
struct Participants {
    Agent agent;
    Scanner scanner;
};

/// Does what a call asks for. Empty when the answer comes later, by Exchange::answer().
using Handler = std::optional<Reply> (*)(Participants& participants, const Call& call);

/// One row of the table of all that can be asked of the participants.
struct Request {
    Participant participant;
    const char* name;
    Handler process;
    Handler fail; ///< what --fail makes of it; null: refused with a text, and nothing done
};

[[nodiscard]] const std::vector<Request>& requests();

/// Null when the participant knows no such request.
[[nodiscard]] const Request* find_request(Participant participant, std::string_view name);

/// "va_scan_status" of "orvvad:va_scan_status".
[[nodiscard]] std::string without_participant(const std::string& name);

/// Whether some participant knows the request, given as NAME or PARTICIPANT:NAME.
[[nodiscard]] bool is_request(const std::string& name);

} // namespace orvagentsim
