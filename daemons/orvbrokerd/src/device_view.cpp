// What clients see of a device, wherever they see it.

#include "device_view.h"

#include <algorithm>

namespace orv::brokerd {

path given_name_key(const std::string& did)
{
    return kDaemonTmpPath / did / "friendly_name";
}

std::string first_v4_text(const std::set<sockutl::address>& addresses)
{
    const auto is_v4 = [](const sockutl::address& address) { return address.is_v4(); };
    const auto found = std::find_if(addresses.begin(), addresses.end(), is_v4);
    return found == addresses.end() ? std::string() : found->to_string(/*with_family=*/false);
}

} // namespace orv::brokerd
