// A daemon that starts early, as root, below a directory that everybody can write to may find its own
// directories made by somebody else, with links in them that lead to root's files.

#include "own_directories.h"

#include <orvbase/root.h>
#include <orvutils/log_format.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace orv {

namespace {

bool is_own(const std::string& directory)
{
    if (const auto distrust = base::find_distrust(directory); !distrust.directory.empty()) {
        ORV_LOG(log::kError, "cannot trust the directory {}: {}", distrust.directory, distrust.reason);
        return false;
    }
    struct stat status {};
    if (stat(directory.c_str(), &status) == -1)
        return true; // it is made when it is needed, or what is wrong with it is told then
    const bool is_open = (status.st_mode & (S_IRWXG | S_IRWXO)) != 0;
    if (is_open && status.st_uid == geteuid() && chmod(directory.c_str(), base::kDirectoryMode) == -1)
        ORV_LOG(log::kWarning, "cannot close {} to other users: {}, ignoring", directory,
                std::strerror(errno));
    return true;
}

} // namespace

bool own_directories()
{
    bool all = true;
    for (const char* name : {"run", "tmp", "var"})
        all = is_own(base::root_path(name)) && all;
    return all;
}

} // namespace orv
