// The stores' libraries tell only their log why a store cannot be opened. A log line is no message, so the reason
// is looked for once more from outside, in the order in which the libraries meet it: the directory, the data file,
// what is in it, the lock file.
#include "stores.h"

#include "exit_status.h"
#include "logging.h"
#include "output.h"

#include <check.h>
#include <orvbase/root.h>
#include <orvdevmgmt/orvdevmgmt.h>
#include <orvkarma/outbox.h>
#include <orvutils/setmgmt.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace orvctl {
namespace {

struct Place {
    const char* name;
    std::vector<const char*> directories; ///< below the root
};

Place place_of(Store store)
{
    switch (store) {
    case Store::settings:
        return {"settings store", {"var/settings", "tmp/settings"}};
    case Store::devices:
        return {"device store", {"var/devices"}};
    case Store::telemetry:
        return {"telemetry outbox", {"var/telemetry"}};
    }
    return {"store", {}};
}

bool open(Store store)
{
    const LogSilence silence;
    switch (store) {
    case Store::settings:
        return orv::setMgmt::init() >= 0;
    case Store::devices:
        return orv::devMgmt::init() == 0;
    case Store::telemetry:
        return orv::karma::outbox::open() == orv::Error::none;
    }
    return false;
}

std::string with_reason(const std::string& name)
{
    return name + ": " + std::strerror(errno);
}

/// What is wrong with a data file; empty when nothing is found.
std::string fault_of_file(const std::string& name)
{
    const int fd = ::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1)
        return errno == ENOENT ? "" : with_reason(name);
    const auto verdict = orv::detail::check_store_file(fd);
    ::close(fd);
    const bool damaged = verdict.state == orv::detail::StoreState::damaged;
    return damaged ? name + " is damaged: " + verdict.reason : "";
}

/// What is wrong with the lock file, which readers write to as well; empty when nothing is found. On a read-only
/// file system it is not needed.
std::string fault_of_lock(const std::string& directory)
{
    const std::string name = directory + "/lock.mdb";
    const bool exists = ::access(name.c_str(), F_OK) == 0;
    const std::string& written = exists ? name : directory;
    return ::access(written.c_str(), R_OK | W_OK) == 0 || errno == EROFS ? "" : with_reason(written);
}

/// What is wrong with a store's directory, or in it; empty when nothing is found.
std::string fault_of(const std::string& directory)
{
    if (!orv::base::make_directories(directory, orv::base::kDataDirectoryMode) ||
        ::access(directory.c_str(), R_OK | X_OK) == -1) {
        return with_reason(directory) +
               " (ORV_ROOT names the agent's root directory, else it is /opt/orvane)";
    }
    const std::string fault = fault_of_file(directory + "/data.mdb");
    return fault.empty() ? fault_of_lock(directory) : fault;
}

} // namespace

OpenedStore::OpenedStore(Store store) : m_store(store), m_open(open(store)) {}

OpenedStore::~OpenedStore()
{
    if (!m_open)
        return;
    switch (m_store) {
    case Store::settings:
        orv::setMgmt::uninit();
        break;
    case Store::devices:
        orv::devMgmt::uninit();
        break;
    case Store::telemetry:
        orv::karma::outbox::close();
        break;
    }
}

int report_closed(Store store)
{
    const Place place = place_of(store);
    std::string fault;
    for (const char* directory : place.directories)
        if (fault.empty())
            fault = fault_of(orv::base::root_path(directory));
    complain(std::string("cannot open the ") + place.name + ": " +
             (fault.empty() ? "with ORV_LOG_LEVEL=0 the reason is logged" : fault));
    return kUnavailable;
}

} // namespace orvctl
