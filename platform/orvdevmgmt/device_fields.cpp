// Two devices are compared along the one table of fields. Whether a text is UTF-8 is asked of the JSON
// library, as it is the one that would not take another.

#include "device_fields.h"

#include <jansson.h>

namespace orv::devMgmt {

std::vector<std::string> changed_fields(const Device& before, const Device& after)
{
    std::vector<std::string> names;
    for (const TextField& field : kTextFields)
        if (before.*field.member != after.*field.member)
            names.emplace_back(field.name);
    if (before.macs != after.macs)
        names.emplace_back(kMacsField);
    if (before.traffic_blocked != after.traffic_blocked)
        names.emplace_back(kTrafficBlockedField);
    return names;
}

bool is_utf8(std::string_view text)
{
    json_t* json = json_stringn(text.data(), text.size()); // null for what is not
    json_decref(json);
    return json != nullptr;
}

bool is_ip_address(sockutl::address address)
{
    const sockaddr* any = address;
    return address.is_valid() && (any->sa_family == AF_INET || any->sa_family == AF_INET6);
}

} // namespace orv::devMgmt
