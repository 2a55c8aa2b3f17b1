// The text is kept as it came, so that members which nobody here knows are not lost.

#include "schedule.h"

#include "exchange.h"
#include "narration.h"

#include <orvtools/json.h>
#include <orvutils/setmgmt.h>

namespace orvagentsim {
namespace {

constexpr char kScheduleKey[] = "/va/schedule";

bool is_boolean_or_absent(const json_t* object, const char* name)
{
    const json_t* member = json_object_get(object, name);
    return !member || json_is_boolean(member);
}

} // namespace

Reply va_set_schedule(const Call& call)
{
    if (!json_is_object(call.data))
        return refusal("a schedule is a JSON object");
    for (const char* name : {"enabled", "scheduled"})
        if (!is_boolean_or_absent(call.data, name))
            return refusal(std::string(name) + " is neither true nor false");
    const std::string text = orvtools::to_text(call.data);
    if (orv::setMgmt::setKey(kScheduleKey, text) != 0)
        return refusal("settings store not writable");
    narrate(name_of(Participant::settings), "scan schedule: {}", text);
    return success("{}");
}

} // namespace orvagentsim
