// The directories that the platform defines. The running agent's is made by whoever needs it first; that of
// the scripts is installed.

#include <orvutils/path.h>

#include <orvbase/root.h>
#include <orvutils/log_format.h>

#include <cerrno>
#include <cstring>

namespace orv {

namespace {

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

path common_directory(common_path which)
{
    const std::string directory = base::root_path(relative_path(which));
    if (which == common_path::run && !base::make_directories(directory, base::kDirectoryMode))
        ORV_LOG(log::kDebug, "cannot create {}: {}, ignoring", directory, std::strerror(errno));
    return directory;
}

} // namespace orv
