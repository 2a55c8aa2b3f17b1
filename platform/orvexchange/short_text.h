#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstring>
#include <utility>

namespace orv::exchange {

/// A text of bounded length that needs no memory: why something fails has to be told without any, too. What
/// is longer is cut off.
class ShortText {
public:
    ShortText() = default;
    template <typename... Arguments>
    explicit ShortText(fmt::format_string<Arguments...> format, Arguments&&... arguments)
    {
        *fmt::format_to_n(m_text, kSize - 1, format, std::forward<Arguments>(arguments)...).out = '\0';
    }

    [[nodiscard]] const char* c_str() const { return m_text; }
    [[nodiscard]] bool empty() const { return *m_text == '\0'; }
    void clear() { *m_text = '\0'; }
    [[nodiscard]] bool operator==(const ShortText& other) const
    {
        return std::strcmp(m_text, other.m_text) == 0;
    }

private:
    static constexpr std::size_t kSize = 256;
    char m_text[kSize] = "";
};

} // namespace orv::exchange
