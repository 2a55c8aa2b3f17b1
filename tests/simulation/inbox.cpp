#include "inbox.h"

#include <algorithm>
#include <utility>

namespace orv::simulation {

void Inbox::excuse(unsigned pass)
{
    for (auto it = m_expected.rbegin(); it != m_expected.rend() && it->pass == pass; ++it)
        it->is_certain = false;
}

bool Inbox::receive(const std::string& frame)
{
    std::vector<std::size_t> places;
    const auto reach = [&](std::size_t place) {
        if (std::find(places.begin(), places.end(), place) == places.end())
            places.push_back(place);
    };
    for (std::size_t place : m_places)
        for (; place < m_expected.size(); ++place) {
            const Expected& expected = m_expected[place];
            if (expected.is_certain ? expected.fits(frame) : expected.fits_roughly(frame))
                reach(place + 1);
            if (expected.is_certain)
                break;
        }
    m_places = std::move(places);
    return !m_places.empty();
}

std::optional<std::string> Inbox::missing() const
{
    std::optional<std::string> first;
    for (const std::size_t place : m_places) {
        const auto from = m_expected.begin() + static_cast<std::ptrdiff_t>(place);
        const auto certain =
            std::find_if(from, m_expected.end(), [](const Expected& frame) { return frame.is_certain; });
        if (certain == m_expected.end())
            return std::nullopt;
        first = certain->what;
    }
    return first ? first : "what it has received makes no sense";
}

} // namespace orv::simulation
