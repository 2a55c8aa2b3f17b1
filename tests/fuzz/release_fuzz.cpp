// The release file, of any bytes: the versions are those that are found in another way.

#include "require.h"
#include "root.h"

#include <orvutils/version.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

using orv::fuzz::require;

namespace {

constexpr std::size_t kMostRead = 4096; ///< bytes of it

std::string g_file;

std::optional<std::string> find(const std::string& text, const std::string& beginning)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line.compare(0, beginning.size(), beginning) == 0) {
            if (line.back() == '\r')
                line.pop_back();
            return line.substr(beginning.size());
        }
    return std::nullopt;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    const std::string directory = orv::fuzz::make_root() + "/etc";
    std::filesystem::create_directory(directory);
    g_file = directory + "/release";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::ofstream(g_file, std::ios::binary) << text;
    const std::string read = text.substr(0, kMostRead);
    const std::string version = find(read, "version=").value_or("");
    require(orv::get_release_version().value_or("") == version,
            "the version is the first line's that has one");
    require(orv::get_patch_version() == find(read, "patch=").value_or(""),
            "the patch is the first line's, too");
    return 0;
}
