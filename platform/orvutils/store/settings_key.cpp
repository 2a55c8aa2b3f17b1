// A key is parsed in one pass over its text, without allocating: that is done on every look-up.

#include "settings_key.h"

namespace orv::detail {

bool SettingsKey::parse(std::string_view text)
{
    m_size = 0;
    bool at_piece = false; // within a piece of the path
    const std::size_t limit = setMgmt::kMaxKeySize - (text.substr(0, 1) == "/" ? 1 : 0);
    for (const char c : text) {
        if (c == '\0')
            return false;
        if (c == '/') {
            at_piece = false;
            continue;
        }
        if (!at_piece && m_size != 0 && m_size < limit)
            m_bytes[m_size++] = '\0';
        if (m_size == limit)
            return false;
        m_bytes[m_size++] = c;
        at_piece = true;
    }
    m_bytes[m_size] = '\0';
    return !text.empty();
}

bool SettingsKey::is_volatile() const
{
    constexpr std::string_view kVolatile{"tmp\0", 4};
    return prefix().substr(0, kVolatile.size()) == kVolatile;
}

} // namespace orv::detail
