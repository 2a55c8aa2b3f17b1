#include "event_names.h"

#include <algorithm>
#include <cstring>

namespace orv::exchange {

namespace {

bool is_before(const EventNames::Name& one, const EventNames::Name& other)
{
    return std::strcmp(one.text, other.text) < 0;
}

bool is_same(const EventNames::Name& one, const EventNames::Name& other)
{
    return std::strcmp(one.text, other.text) == 0;
}

} // namespace

void EventNames::assign(const char* const* names, std::size_t count)
{
    m_names.reserve(count); // nothing below fails
    m_names.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t length = strnlen(names[i], kOrvexMaxName);
        std::memcpy(m_names[i].text, names[i], length);
        m_names[i].text[length] = '\0';
    }
    std::sort(m_names.begin(), m_names.end(), is_before);
    m_names.erase(std::unique(m_names.begin(), m_names.end(), is_same), m_names.end());
}

bool EventNames::contains(const char* name) const
{
    return std::any_of(m_names.begin(), m_names.end(),
                       [name](const Name& own) { return std::strcmp(own.text, name) == 0; });
}

} // namespace orv::exchange
