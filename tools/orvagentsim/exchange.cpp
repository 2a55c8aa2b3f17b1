// Four handles on one bus, one for each name, since the bus knows a sender by its connection. The order of
// the names is that of the enumeration.

#include "exchange.h"

#include "narration.h"

namespace orvagentsim {
namespace {

constexpr char kTypeSuccess[] = "0";
constexpr char kTypeError[] = "2";
constexpr std::array<const char*, kParticipants> kNames{"broker-devmgmt", "orvvad", "orvtuvosettings",
                                                        "orvagent"};
constexpr std::array<Participant, kParticipants> kAll{Participant::device_manager, Participant::scanner,
                                                      Participant::settings, Participant::agent};

} // namespace

const char* name_of(Participant participant)
{
    return kNames.at(static_cast<std::size_t>(participant));
}

bool Exchange::join(Loop& loop, const Handler& handler)
{
    for (const Participant participant : kAll) {
        if (!join_as(participant, loop, handler)) {
            narrate(name_of(participant), "cannot join the exchange: is it served, and the name free?");
            return false;
        }
    }
    return true;
}

bool Exchange::join_as(Participant participant, Loop& loop, const Handler& handler)
{
    const auto receive = [participant, handler](OrvexKind kind, const Message& message) {
        handler(participant, kind, message);
    };
    Orvex* orvex = orvex_join(name_of(participant), receive, /*auto_reconnect=*/true);
    m_handles.at(static_cast<std::size_t>(participant)).reset(orvex);
    // A failed reading is the exchange gone: the handle sees to its return.
    return orvex && loop.watch(orvex_get_fd(orvex), [orvex] { (void)orvex_read_fd(orvex); });
}

Orvex* Exchange::handle(Participant participant) const
{
    return m_handles.at(static_cast<std::size_t>(participant)).get();
}

void Exchange::publish(Participant from, const char* event, const std::string& data)
{
    if (orvex_publish(handle(from), event, data.data(), data.size(), nullptr) != 0)
        narrate(name_of(from), "cannot publish {}", event);
}

void Exchange::answer(Participant from, std::uint64_t request_id, const Reply& reply)
{
    const char* type = reply.is_refusal ? kTypeError : kTypeSuccess;
    if (orvex_send_response_typed(handle(from), request_id, type, reply.data.data(), reply.data.size()) != 0)
        narrate(name_of(from), "cannot answer: whoever asked is gone");
}

} // namespace orvagentsim
