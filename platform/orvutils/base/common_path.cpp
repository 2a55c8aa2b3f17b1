// The directories that the platform defines. The running agent's is made by whoever needs it first; that of
// the scripts is installed.

#include <orvutils/path.h>

#include <orvbase/root.h>
#include <orvutils/log_format.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <ostream>

namespace orv::detail {

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

void print_common_path(std::ostream& out, common_path which)
try {
    const std::string directory = base::root_path(relative_path(which));
    if (which == common_path::run && !base::make_directories(directory, base::kDataDirectoryMode))
        ORV_LOG(log::kDebug, "cannot create {}: {}, ignoring", directory, std::strerror(errno));
    out << directory;
} catch (const std::bad_alloc&) {
    out.setstate(std::ios::failbit); // what is printed is not complete
}

} // namespace orv::detail
