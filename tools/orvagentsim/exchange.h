#pragma once

#include "call.h"
#include "loop.h"

#include <orvexchange/publisher.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace orvagentsim {

/// Whom the program plays.
enum class Participant : std::size_t { device_manager, scanner, settings, agent };
constexpr std::size_t kParticipants = 4;

/// A participant's name on the exchange.
[[nodiscard]] const char* name_of(Participant participant);

/// The four participants' ends of the exchange, each a handle of its own. One that loses the exchange comes
/// back by itself.
class Exchange {
public:
    using Handler = std::function<void(Participant to, OrvexKind kind, const Message& message)>;

    /// False, with a line that says why, when the exchange cannot be reached or a name is taken.
    [[nodiscard]] bool join(Loop& loop, const Handler& handler);

    /// What cannot be sent because the exchange is away is lost, and said so.
    void publish(Participant from, const char* event, const std::string& data);
    void answer(Participant from, std::uint64_t request_id, const Reply& reply);

private:
    struct Leave {
        void operator()(Orvex* orvex) const { orvex_uninit(orvex); }
    };

    [[nodiscard]] bool join_as(Participant participant, Loop& loop, const Handler& handler);
    [[nodiscard]] Orvex* handle(Participant participant) const;

    std::array<std::unique_ptr<Orvex, Leave>, kParticipants> m_handles;
};

} // namespace orvagentsim
