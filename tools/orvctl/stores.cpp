// The stores' libraries keep why a store could not be opened. Here that becomes one message.

#include "stores.h"

#include "exit_status.h"
#include "logging.h"
#include "output.h"

#include <orvbase/root.h>
#include <orvdevmgmt/device_writer.h>
#include <orvkarma/outbox.h>
#include <orvutils/setmgmt.h>
#include <orvutils/settings_failure.h>

#include <unistd.h>

#include <cerrno>
#include <string>

namespace orvctl {
namespace {

using orv::store::Failure;

struct Access {
    const char* name;
    const char* directory; ///< below the agent's root
    bool (*open)(bool is_failure_logged);
    const Failure& (*failure)();
    void (*close)();
};

const Access& access_to(Store store)
{
    static constexpr Access kSettings{"settings store", "var/settings",
                                      [](bool is_failure_logged) {
                                          return (is_failure_logged ? orv::setMgmt::init()
                                                                    : orv::setMgmt::try_to_init()) >= 0;
                                      },
                                      orv::setMgmt::failure, orv::setMgmt::uninit};
    static constexpr Access kDevices{"device store", "var/devices",
                                     [](bool is_failure_logged) {
                                         return (is_failure_logged ? orv::devMgmt::init()
                                                                   : orv::devMgmt::try_to_init()) == 0;
                                     },
                                     orv::devMgmt::failure, orv::devMgmt::uninit};
    static constexpr Access kTelemetry{"telemetry outbox", "var/telemetry",
                                       [](bool is_failure_logged) {
                                           return (is_failure_logged ? orv::karma::outbox::open()
                                                                     : orv::karma::outbox::try_to_open()) ==
                                                  orv::Error::none;
                                       },
                                       orv::karma::outbox::failure, orv::karma::outbox::close};
    switch (store) {
    case Store::settings:
        return kSettings;
    case Store::devices:
        return kDevices;
    case Store::telemetry:
        break;
    }
    return kTelemetry;
}

std::string about_the_root()
{
    return std::string(" (ORV_ROOT names the agent's root directory, else it is ") +
           orv::base::default_root() + ")";
}

/// The directory of a store that is not there, else nothing. All else shows when it is opened.
std::string missing(const Access& access)
{
    const std::string directory = orv::base::root_path(access.directory);
    return ::access((directory + "/data.mdb").c_str(), F_OK) == -1 && errno == ENOENT ? directory : "";
}

std::string to_text(const Failure& failure)
{
    switch (failure.kind) {
    case Failure::Kind::none: // it was opened, and could not be read
        return "with ORV_LOG_LEVEL=0 the reason is logged";
    case Failure::Kind::directory:
        return failure.path + ": " + failure.reason + about_the_root();
    case Failure::Kind::damage:
        return failure.path + " is damaged: " + failure.reason;
    case Failure::Kind::data_file:
    case Failure::Kind::lock_file:
    case Failure::Kind::busy:
    case Failure::Kind::store:
        break;
    }
    return failure.path + ": " + failure.reason;
}

} // namespace

OpenedStore::OpenedStore(Store store, Use use)
    : m_store(store), m_missing(use == Use::reading ? missing(access_to(store)) : ""),
      m_open(m_missing.empty() && access_to(store).open(is_log_wanted()))
{
}

OpenedStore::~OpenedStore()
{
    if (m_open)
        access_to(m_store).close();
}

int OpenedStore::report_closed() const
{
    const Access& access = access_to(m_store);
    if (!m_missing.empty())
        complain(std::string("there is no ") + access.name + " yet: " + m_missing + about_the_root());
    else
        complain(std::string("cannot open the ") + access.name + ": " + to_text(access.failure()));
    return kUnavailable;
}

} // namespace orvctl
