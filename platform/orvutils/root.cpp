// The agent's root directory. The environment is asked each time: that is cheap, and whoever changes ORV_ROOT
// before the first use of a library (a daemon going to the background, a test) is heard.

#include "root.h"

#include <orvutils/log_format.h>
#include <orvutils/path.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ostream>

namespace orv::detail {

namespace {

constexpr char kDefaultRoot[] = "/opt/orvane";

std::string working_directory()
{
    char directory[PATH_MAX];
    return getcwd(directory, sizeof directory) != nullptr ? directory : "/";
}

path root()
{
    const char* configured = std::getenv("ORV_ROOT");
    if (configured == nullptr || *configured == '\0')
        return kDefaultRoot;
    if (*configured == '/')
        return configured;
    return path(working_directory()) / configured;
}

bool is_directory(const std::string& name)
{
    struct stat status = {};
    return stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// One directory whose parent is there. What counts is that it is there afterwards: another process may have
/// been quicker, and on a read-only file system mkdir() may refuse what exists.
bool make_directory(const std::string& name, mode_t mode)
{
    if (mkdir(name.c_str(), mode) == 0)
        return true;
    const int error = errno;
    if (is_directory(name))
        return true;
    errno = error == EEXIST ? ENOTDIR : error;
    return false;
}

const char* relative_path(common_path which)
{
    switch (which) {
    case common_path::firewall:
        return "lib/firewall";
    case common_path::run:
        return "run";
    }
    return "";
}

} // namespace

std::string root_path(std::string_view relative)
{
    return (root() / relative).str();
}

bool make_directories(const std::string& directory, mode_t mode)
{
    if (is_directory(directory))
        return true;
    for (auto slash = directory.find('/', 1); slash != std::string::npos;
         slash = directory.find('/', slash + 1))
        if (!make_directory(directory.substr(0, slash), mode))
            return false;
    return make_directory(directory, mode);
}

void print_common_path(std::ostream& out, common_path which)
{
    const std::string directory = root_path(relative_path(which));
    // The running agent's directory is made by whoever needs it first; the scripts' directory is installed.
    if (which == common_path::run && !make_directories(directory, kDirectoryMode))
        ORV_LOG(log::kDebug, "cannot create {}: {}, ignoring", directory, std::strerror(errno));
    out << directory;
}

} // namespace orv::detail
