#include "stores.h"

#include "exit_status.h"
#include "output.h"

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvutils/setmgmt.h>

#include <string>

namespace orvctl {

SettingsStore::SettingsStore() : m_open(orv::setMgmt::init() >= 0) {}

SettingsStore::~SettingsStore()
{
    if (m_open) {
        orv::setMgmt::uninit();
    }
}

DeviceStore::DeviceStore() : m_open(orv::devMgmt::init() == 0) {}

DeviceStore::~DeviceStore()
{
    if (m_open) {
        orv::devMgmt::uninit();
    }
}

int report_closed(const char* store)
{
    complain(
        std::string("cannot open the ") + store +
        " store: the agent's root directory (ORV_ROOT, else /opt/orvane) must be there and be writable for "
        "this user");
    return kUnavailable;
}

} // namespace orvctl
