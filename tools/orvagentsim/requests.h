#pragma once

#include "exchange.h"

#include <jansson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvagentsim {

class Simulation;

/// A request or a one-way message that has arrived.
struct Call {
    std::uint64_t id;   ///< to answer it by; 0: no answer is wanted
    const json_t* data; ///< null when the payload is no JSON
};

/// Does what a call asks for. Empty when the answer comes later, by Exchange::answer().
using Handler = std::optional<Reply> (*)(Simulation& simulation, const Call& call);

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

[[nodiscard]] inline Reply success(std::string data)
{
    return {false, std::move(data)};
}

[[nodiscard]] inline Reply refusal(std::string text)
{
    return {true, std::move(text)};
}

} // namespace orvagentsim
