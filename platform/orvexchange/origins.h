#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace orv::exchange {

/// Where an answer to a received event or request goes.
struct Origin {
    enum class Kind { answered, event, request };
    Kind kind = Kind::answered;
    std::string sender;       ///< unique bus name
    std::uint64_t number = 0; ///< the event's identifier, or the request's serial
};

/// The origins of the last events and requests, by the identifiers under which the caller knows them. Most
/// are never asked for, so they are not kept until answered but until kMaxOrigins newer ones have come.
class Origins {
public:
    static constexpr std::size_t kMaxOrigins = 1024;

    /// Keeps an origin; its identifier is last_identifier() from then on. Gives back the one that had to go.
    /// Throws, with nothing changed, when memory is short.
    [[nodiscard]] Origin add(Origin origin);
    /// Identifiers are never 0 and never used again.
    [[nodiscard]] std::uint64_t last_identifier() const { return m_last; }
    /// An origin that has not been answered yet, null when there is none of that identifier.
    [[nodiscard]] const Origin* find(std::uint64_t identifier) const;
    /// Takes it out.
    [[nodiscard]] std::optional<Origin> take(std::uint64_t identifier);
    void clear() { m_origins.clear(); }

private:
    std::deque<Origin> m_origins; ///< consecutive identifiers, the last of them m_last
    std::uint64_t m_last = 0;
};

} // namespace orv::exchange
