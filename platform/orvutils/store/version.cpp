// The versions stand in etc/release, which the installation writes: lines "version=..." and "patch=...".

#include <orvutils/version.h>

#include <orvbase/root.h>

#include <fstream>
#include <string_view>

namespace orv {

namespace {

std::optional<std::string> read_release_line(std::string_view name)
{
    std::ifstream file(base::root_path("etc/release"));
    for (std::string line; std::getline(file, line);) {
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos || std::string_view(line).substr(0, equals) != name)
            continue;
        if (line.back() == '\r')
            line.pop_back();
        return line.substr(equals + 1);
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
