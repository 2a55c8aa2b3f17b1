// The cloud takes its time: a registration is answered by a timer, under the number of its request, long
// after the handler has returned. Who reads the settings store when the answer comes finds what it announces.

#include "agent.h"

#include "narration.h"
#include "registration.h"
#include "subscription.h"

#include <orvtools/json.h>

#include <ctime>

namespace orvagentsim {
namespace {

constexpr char kName[] = "orvagent";
constexpr char kNotWritable[] = "settings store not writable";
constexpr std::int64_t kSubscriptionSeconds = 365LL * 24 * 3600;
constexpr char kCloudRefused[] = "refused by the cloud";

std::string error_result(const std::string& reason)
{
    const orv::JsonPtr result{json_pack("{s:s,s:s}", "result", "error", "reason", reason.c_str())};
    return orvtools::to_text(result.get());
}

} // namespace

void Agent::announce_start()
{
    m_exchange.publish(Participant::agent, "orvagent_started", "{}");
}

std::optional<Reply> Agent::start_cloud_registration(const Call& call)
{
    std::string failure;
    const auto registration = read_registration(call.data, failure);
    if (!registration) {
        end_later(call.id, failure);
        return std::nullopt;
    }
    narrate(kName, "registration of {} begins", registration->device_id);
    m_loop.after(m_delay, [this, id = call.id, wanted = *registration] {
        const bool is_stored = store_registration(wanted) && m_home.adopt();
        end_registration(id, is_stored ? "" : kNotWritable);
    });
    return std::nullopt;
}

std::optional<Reply> Agent::fail_cloud_registration(const Call& call)
{
    end_later(call.id, kCloudRefused);
    return std::nullopt;
}

void Agent::end_later(std::uint64_t request_id, const std::string& failure)
{
    m_loop.after(m_delay, [this, request_id, failure] { end_registration(request_id, failure); });
}

/// The cloud has decided: the outcome goes to whoever asked and to all who listen.
void Agent::end_registration(std::uint64_t request_id, const std::string& failure)
{
    const bool is_ok = failure.empty();
    const Reply reply = is_ok ? success(R"({"result": "ok"})") : refusal(error_result(failure));
    if (request_id != 0)
        m_exchange.answer(Participant::agent, request_id, reply);
    m_exchange.publish(Participant::agent, "registration_status_changed", reply.data);
    narrate(kName, "registration: {}", is_ok ? "done" : failure);
}

Reply Agent::telemetry_event(const Call& call)
{
    if (!json_is_object(call.data))
        return refusal("a telemetry event is a JSON object");
    const char* type = orvtools::string_member(call.data, "type");
    narrate(kName, "telemetry event {}: {}", ++m_telemetry_events, type ? type : "(no type)");
    return success("{}");
}

Reply update_subscription(const Call& /*call*/)
{
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    const std::int64_t expiry = now + kSubscriptionSeconds;
    if (!store_subscription({orv::subs::Status::valid, expiry}, now))
        return refusal(kNotWritable);
    narrate(kName, "subscription: valid until {}", expiry);
    return success("{}");
}

Reply fail_subscription_update(const Call& /*call*/)
{
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    return refusal(store_subscription_failure(kCloudRefused, now) ? kCloudRefused : kNotWritable);
}

} // namespace orvagentsim
