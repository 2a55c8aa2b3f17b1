// Identifiers follow each other without a gap, so an origin is found by its distance from the last one, and
// one that was answered stays in its place, empty.

#include "origins.h"

#include <utility>

namespace orv::exchange {

Origin Origins::add(Origin origin)
{
    m_origins.push_back(std::move(origin)); // the only thing that needs memory
    ++m_last;
    if (m_origins.size() <= kMaxOrigins)
        return {};
    Origin oldest = std::move(m_origins.front());
    m_origins.pop_front();
    return oldest;
}

const Origin* Origins::find(std::uint64_t identifier) const
{
    if (identifier > m_last || m_last - identifier >= m_origins.size())
        return nullptr;
    const auto newer = static_cast<std::size_t>(m_last - identifier);
    const Origin& origin = m_origins[m_origins.size() - 1 - newer];
    return origin.kind == Origin::Kind::answered ? nullptr : &origin;
}

std::optional<Origin> Origins::take(std::uint64_t identifier)
{
    const Origin* origin = find(identifier);
    if (!origin)
        return std::nullopt;
    return std::exchange(m_origins[m_origins.size() - 1 - static_cast<std::size_t>(m_last - identifier)], {});
}

} // namespace orv::exchange
