// The agent's root directory. The environment is asked each time: that is cheap, and whoever changes ORV_ROOT
// before the first use of a library (a daemon going to the background, a test) is heard.

#include <orvbase/root.h>

#include <orvbase/path_text.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace orv::base {

namespace {

constexpr char kDefaultRoot[] = "/opt/orvane";

std::string working_directory()
{
    char directory[PATH_MAX];
    return getcwd(directory, sizeof directory) ? directory : "/";
}

std::string root()
{
    const char* configured = std::getenv("ORV_ROOT");
    if (!configured || *configured == '\0')
        return kDefaultRoot;
    std::string directory = *configured == '/' ? "" : working_directory();
    append_path(directory, configured);
    return directory;
}

bool is_directory(const std::string& name)
{
    struct stat status {};
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

} // namespace

std::string root_path(std::string_view relative)
{
    std::string path = root();
    append_path(path, relative);
    return path;
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

} // namespace orv::base
