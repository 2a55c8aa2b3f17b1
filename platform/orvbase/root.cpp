// The agent's root directory. The environment is asked each time: that is cheap, and whoever changes ORV_ROOT
// before the first use of a library (a daemon going to the background, a test) is heard.

#include <orvbase/root.h>

#include <orvbase/descriptor.h>
#include <orvbase/path_text.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

namespace orv::base {

namespace {

std::string working_directory()
{
    char directory[PATH_MAX];
    return getcwd(directory, sizeof directory) ? directory : "/";
}

std::string root()
{
    const char* configured = std::getenv("ORV_ROOT");
    if (!configured || *configured == '\0')
        return default_root();
    std::string directory = *configured == '/' ? "" : working_directory();
    append_path(directory, configured);
    return directory;
}

bool is_directory(const std::string& name)
{
    struct stat status {};
    return stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// So that what is on disk below it can be found after a power cut.
void sync_parent(const std::string& name)
{
    const std::string parent = name.substr(0, name.rfind('/') + 1);
    const Descriptor directory(
        open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.is_open())
        (void)fsync(directory.get()); // as durable as the file system makes it
}

/// Why a directory is not to be trusted; empty when it is, or is not there.
std::string why_not_trusted(const std::string& name)
{
    struct stat status {};
    if (stat(name.c_str(), &status) < 0)
        return {};
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return "it belongs to user " + std::to_string(status.st_uid);
    const bool is_group_trusted = status.st_gid == 0 || status.st_gid == getegid();
    if ((status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && !is_group_trusted))
        return "others can write to it";
    return {};
}

/// One directory whose parent is there. What counts is that it is there afterwards: another process may have
/// been quicker, and on a read-only file system mkdir() may refuse what exists.
bool make_directory(const std::string& name, mode_t mode)
{
    if (mkdir(name.c_str(), mode) == 0) {
        sync_parent(name);
        return true;
    }
    const int error = errno;
    if (is_directory(name))
        return true;
    errno = error == EEXIST ? ENOTDIR : error;
    return false;
}

} // namespace

const char* default_root()
{
    return ORV_DEFAULT_ROOT;
}

std::string root_path(std::string_view relative)
{
    std::string path = root();
    append_path(path, relative);
    return path;
}

Distrust find_distrust(const std::string& directory)
{
    const std::string top = root();
    if (directory.compare(0, top.size(), top) != 0)
        return {};
    for (std::size_t end = top.size(); end != std::string::npos;) {
        const std::string name = directory.substr(0, std::max<std::size_t>(end, 1));
        if (std::string reason = why_not_trusted(name); !reason.empty())
            return {name, std::move(reason)};
        end = end >= directory.size() ? std::string::npos
                                      : std::min(directory.find('/', end + 1), directory.size());
    }
    return {};
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
