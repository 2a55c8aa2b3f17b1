// What clients see of a device, wherever they see it.

#include "device_view.h"

#include <algorithm>

namespace orv::brokerd {

std::string first_v4_text(const std::set<sockutl::address>& addresses)
{
    const auto is_v4 = [](const sockutl::address& address) { return address.is_v4(); };
    const auto found = std::find_if(addresses.begin(), addresses.end(), is_v4);
    return found == addresses.end() ? std::string() : found->to_string(false);
}

} // namespace orv::brokerd
