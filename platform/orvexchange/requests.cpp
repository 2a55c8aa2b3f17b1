// A list in the order of sending, which is that of the deadlines, with an index by serial number: an answer
// is found at once, and so is the request that times out next.

#include "requests.h"

#include <new>
#include <utility>

namespace orv::exchange {

/// All of it, or, when memory is short, nothing.
void Requests::add(Request request)
{
    std::list<Request> added;
    added.push_back(std::move(request));
    const auto at = added.begin();
    const auto index = m_by_serial.emplace(at->serial, at).first;
    try {
        ++m_counts[at->participant];
    } catch (const std::bad_alloc&) {
        m_by_serial.erase(index);
        throw;
    }
    m_requests.splice(m_requests.end(), added);
}

std::optional<Request> Requests::take(std::uint32_t serial)
{
    const auto found = m_by_serial.find(serial);
    if (found == m_by_serial.end())
        return std::nullopt;
    Request request = std::move(*found->second);
    m_requests.erase(found->second);
    m_by_serial.erase(found);
    uncount(request.participant);
    return request;
}

std::optional<Request> Requests::take_expired(TimePoint now)
{
    if (m_requests.empty() || m_requests.front().deadline > now)
        return std::nullopt;
    return take(m_requests.front().serial);
}

std::list<Request> Requests::take_all()
{
    m_by_serial.clear();
    m_counts.clear();
    return std::exchange(m_requests, {});
}

std::optional<TimePoint> Requests::next_deadline() const
{
    if (m_requests.empty())
        return std::nullopt;
    return m_requests.front().deadline;
}

std::size_t Requests::count(const std::string& participant) const
{
    const auto found = m_counts.find(participant);
    return found != m_counts.end() ? found->second : 0;
}

void Requests::uncount(const std::string& participant)
{
    const auto found = m_counts.find(participant);
    if (--found->second == 0)
        m_counts.erase(found);
}

} // namespace orv::exchange
