// The stores' libraries keep why a store could not be opened. Here that becomes one message; what they tell
// their log meanwhile is left out.
#include "stores.h"

#include "exit_status.h"
#include "logging.h"
#include "output.h"

#include <orvbase/root.h>
#include <orvdevmgmt/device_writer.h>
#include <orvkarma/outbox.h>
#include <orvutils/setmgmt.h>
#include <orvutils/settings_failure.h>

#include <string>

namespace orvctl {
namespace {

using orv::store::Failure;

struct Access {
    const char* name;
    bool (*open)();
    const Failure& (*failure)();
    void (*close)();
};

const Access& access_to(Store store)
{
    static constexpr Access kSettings{"settings store", [] { return orv::setMgmt::init() >= 0; },
                                      orv::setMgmt::failure, orv::setMgmt::uninit};
    static constexpr Access kDevices{"device store", [] { return orv::devMgmt::init() == 0; },
                                     orv::devMgmt::failure, orv::devMgmt::uninit};
    static constexpr Access kTelemetry{"telemetry outbox",
                                       [] { return orv::karma::outbox::open() == orv::Error::none; },
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

bool open(Store store)
{
    const LogSilence silence;
    return access_to(store).open();
}

std::string to_text(const Failure& failure)
{
    switch (failure.kind) {
    case Failure::Kind::none: // it was opened, and could not be read
        return "with ORV_LOG_LEVEL=0 the reason is logged";
    case Failure::Kind::directory:
        return failure.path + ": " + failure.reason +
               " (ORV_ROOT names the agent's root directory, else it is " + orv::base::default_root() + ")";
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

OpenedStore::OpenedStore(Store store) : m_store(store), m_open(open(store)) {}

OpenedStore::~OpenedStore()
{
    if (m_open)
        access_to(m_store).close();
}

int report_closed(Store store)
{
    const Access& access = access_to(store);
    complain(std::string("cannot open the ") + access.name + ": " + to_text(access.failure()));
    return kUnavailable;
}

} // namespace orvctl
