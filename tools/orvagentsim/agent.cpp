#include "agent.h"

#include "json.h"
#include "narration.h"
#include "registration.h"
#include "simulation.h"
#include "subscription.h"

#include <ctime>

namespace orvagentsim {
namespace {

constexpr char kName[] = "orvagent";
constexpr char kNotWritable[] = "settings store not writable";
constexpr std::int64_t kSubscriptionSeconds = 365LL * 24 * 3600;
constexpr char kCloudRefused[] = "refused by the cloud";

std::string error_result(const std::string& reason)
{
    const JsonPtr result{json_pack("{s:s,s:s}", "result", "error", "reason", reason.c_str())};
    return to_text(result.get());
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
        const bool is_stored = store_registration(wanted) && simulation.home.adopt();
        end_registration(simulation, id, is_stored ? "" : kNotWritable);
    });
    return std::nullopt;
}

std::optional<Reply> fail_cloud_registration(Simulation& simulation, const Call& call)
{
    end_later(simulation, call.id, kCloudRefused);
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

std::optional<Reply> update_subscription(Simulation& /*simulation*/, const Call& /*call*/)
{
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    const std::int64_t expiry = now + kSubscriptionSeconds;
    if (!store_subscription({orv::subs::Status::valid, expiry}, now))
        return refusal(kNotWritable);
    narrate(kName, "subscription: valid until {}", expiry);
    return success("{}");
}

std::optional<Reply> fail_subscription_update(Simulation& /*simulation*/, const Call& /*call*/)
{
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    return refusal(store_subscription_failure(kCloudRefused, now) ? kCloudRefused : kNotWritable);
}

} // namespace orvagentsim
