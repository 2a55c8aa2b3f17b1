#include "agent.h"

#include "json.h"
#include "narration.h"
#include "registration.h"
#include "simulation.h"

namespace orvagentsim {
namespace {

constexpr char kName[] = "orvagent";

std::string error_result(const std::string& reason)
{
    const JsonPtr result{json_pack("{s:s,s:s}", "result", "error", "reason", reason.c_str())};
    return to_text(result);
}

/// The cloud has decided: the outcome goes to whoever asked and to all who listen.
void end_registration(Simulation& simulation, std::uint64_t request_id, const std::string& failure)
{
    const bool is_ok = failure.empty();
    const Reply reply = is_ok ? success(R"({"result": "ok"})") : refusal(error_result(failure));
    if (request_id != 0)
        simulation.exchange.answer(Participant::agent, request_id, reply);
    simulation.exchange.publish(Participant::agent, "registration_status_changed", reply.data);
    narrate(kName, "registration: {}", is_ok ? "done" : failure);
}

void end_later(Simulation& simulation, std::uint64_t request_id, const std::string& failure)
{
    simulation.loop.after(simulation.options.delay, [&simulation, request_id, failure] {
        end_registration(simulation, request_id, failure);
    });
}

} // namespace

void announce_start(Simulation& simulation)
{
    simulation.exchange.publish(Participant::agent, "orvagent_started", "{}");
}

std::optional<Reply> start_cloud_registration(Simulation& simulation, const Call& call)
{
    std::string failure;
    const auto registration = read_registration(call.data, failure);
    if (!registration) {
        end_later(simulation, call.id, failure);
        return std::nullopt;
    }
    narrate(kName, "registration of {} begins", registration->device_id);
    simulation.loop.after(simulation.options.delay, [&simulation, id = call.id, wanted = *registration] {
        end_registration(simulation, id, store_registration(wanted) ? "" : "settings store not writable");
    });
    return std::nullopt;
}

std::optional<Reply> fail_cloud_registration(Simulation& simulation, const Call& call)
{
    end_later(simulation, call.id, "refused by the cloud");
    return std::nullopt;
}

std::optional<Reply> telemetry_event(Simulation& simulation, const Call& call)
{
    if (!json_is_object(call.data))
        return refusal("a telemetry event is a JSON object");
    const char* const type = string_member(call.data, "type");
    narrate(kName, "telemetry event {}: {}", ++simulation.telemetry_events,
            type != nullptr ? type : "(no type)");
    return success("{}");
}

} // namespace orvagentsim
