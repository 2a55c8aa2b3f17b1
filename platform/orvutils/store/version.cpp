// The versions stand in etc/release, which the installation writes: lines "version=..." and "patch=...".

#include <orvutils/version.h>

#include <orvbase/io.h>
#include <orvbase/root.h>

#include <algorithm>
#include <string_view>

namespace orv {

namespace {

constexpr std::size_t kMaxReleaseSize = 4096; ///< bytes

std::optional<std::string> read_release_line(std::string_view name)
{
    const std::string text = base::read_text(base::root_path("etc/release"), kMaxReleaseSize);
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        std::string_view line = std::string_view(text).substr(begin, end - begin);
        begin = end + 1;
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos || line.substr(0, equals) != name)
            continue;
        if (line.back() == '\r')
            line.remove_suffix(1);
        return std::string(line.substr(equals + 1));
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> get_release_version()
{
    auto version = read_release_line("version");
    if (version && version->empty())
        version.reset();
    return version;
}

std::string get_patch_version()
{
    return read_release_line("patch").value_or("");
}

} // namespace orv
