// A path is kept in its one normal form from the start - single slashes, none at the end - so that two paths
// are equal when their texts are. Only "/" itself ends with a slash.

#include <orvutils/path.h>

namespace orv {

namespace {

void append_collapsing(std::string& text, std::string_view more)
{
    for (const char c : more)
        if (c != '/' || text.empty() || text.back() != '/')
            text.push_back(c);
    if (text.size() > 1 && text.back() == '/')
        text.pop_back();
}

} // namespace

path::path(const char* text)
{
    if (text != nullptr)
        append_collapsing(m_text, text);
}

path::path(const std::string& text)
{
    append_collapsing(m_text, text);
}

path path::operator/(std::string_view piece) const
{
    path result(*this);
    result /= piece;
    return result;
}

path& path::operator/=(std::string_view piece)
{
    if (!m_text.empty() && !piece.empty() && m_text.back() != '/')
        m_text.push_back('/');
    append_collapsing(m_text, piece);
    return *this;
}

} // namespace orv
