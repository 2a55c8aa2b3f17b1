// Identifiers follow each other without a gap, so an origin is found by its distance from the last one, and
// one that was answered stays in its place, empty.

#include "origins.h"

#include <utility>

namespace orv::exchange {

Origin Origins::add(Origin origin)
{
    Origin oldest;
    if (m_origins.size() == kMaxOrigins) {
        oldest = std::move(m_origins.front());
        m_origins.pop_front();
    }
    m_origins.push_back(std::move(origin));
    ++m_last;
    return oldest;
}

std::optional<Origin> Origins::take(std::uint64_t identifier)
{
    if (identifier > m_last || m_last - identifier >= m_origins.size())
        return std::nullopt;
    const auto newer = static_cast<std::size_t>(m_last - identifier);
    Origin& origin = m_origins[m_origins.size() - 1 - newer];
    if (origin.kind == Origin::Kind::answered)
        return std::nullopt;
    return std::exchange(origin, {});
}

} // namespace orv::exchange
