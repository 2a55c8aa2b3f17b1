// A path's text is in its normal form at all times: every piece goes through append_path().

#include <orvutils/path.h>

#include <orvbase/path_text.h>

namespace orv {

path::path(const char* text)
{
    if (text)
        base::append_path(m_text, text);
}

path::path(const std::string& text)
{
    base::append_path(m_text, text);
}

path path::operator/(std::string_view piece) const
{
    path result(*this);
    result /= piece;
    return result;
}

path& path::operator/=(std::string_view piece)
{
    base::append_path(m_text, piece);
    return *this;
}

} // namespace orv
