// A path is kept in its one normal form from the start - single slashes, none at the end - so that two paths
// are equal when their texts are.

#include <orvbase/path_text.h>

namespace orv::base {

void append_path(std::string& path, std::string_view piece)
{
    if (!path.empty() && !piece.empty() && path.back() != '/')
        path.push_back('/');
    for (const char c : piece)
        if (c != '/' || path.empty() || path.back() != '/')
            path.push_back(c);
    if (path.size() > 1 && path.back() == '/')
        path.pop_back();
}

} // namespace orv::base
