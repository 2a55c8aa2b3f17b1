// The outcome of a registration is derived from its request alone, so that a test knows it beforehand and the
// same router gets the same identity each time.

#include "registration.h"

#include <orvtools/json.h>
#include <orvutils/keys.h>
#include <orvutils/setmgmt.h>
#include <orvutils/sockutl.h>

#include <algorithm>

namespace orvagentsim {
namespace {

constexpr char kMalformed[] = "malformed registration request";
constexpr char kRouterMac[] = "02:0e:5d:00:00:01";

std::string without_colons(std::string mac)
{
    mac.erase(std::remove(mac.begin(), mac.end(), ':'), mac.end());
    return mac;
}

bool has_text(const char* text)
{
    return text && *text != '\0';
}

/// A value that may have been set before the registration stays.
bool set_unless_there(const orv::path& key, const char* value)
{
    std::string present;
    return orv::setMgmt::getKey(key, present) > 0 || orv::setMgmt::setKey(key, value) == 0;
}

bool store_mac(const std::string& mac)
{
    if (mac.empty())
        return set_unless_there(orv::kRegistrationMacKey, kRouterMac);
    return orv::setMgmt::setKey(orv::kRegistrationMacKey, mac) == 0;
}

} // namespace

std::optional<Registration> read_registration(const json_t* data, std::string& failure)
{
    if (const char* id = orvtools::string_member(data, "router_id"); has_text(id))
        return Registration{id, std::string("token-") + id, ""};

    const char* token = orvtools::string_member(data, "token");
    const char* mac_text = orvtools::string_member(data, "mac");
    if (!has_text(token) || !has_text(mac_text) || !has_text(orvtools::string_member(data, "redeem"))) {
        failure = kMalformed;
        return std::nullopt;
    }
    const orv::sockutl::macaddr mac(mac_text);
    if (!mac.is_valid()) {
        failure = "invalid mac";
        return std::nullopt;
    }
    const std::string text = mac.to_string(false);
    return Registration{"router-" + without_colons(text), token, text};
}

bool store_registration(const Registration& registration)
{
    // The identifier and the token come last: whoever finds them finds all the rest.
    return set_unless_there(orv::kRegistrationTuvoNameKey, "Home Router") &&
           set_unless_there(orv::kRegistrationDeviceModelKey, "OR-2000") &&
           set_unless_there(orv::kRegistrationFeatureSetLevelKey, "velm-basic-1.1") &&
           store_mac(registration.mac) &&
           orv::setMgmt::setKey(orv::kDeviceIdKey, registration.device_id) == 0 &&
           orv::setMgmt::setKey(orv::kUserTokenKey, registration.user_token) == 0;
}

} // namespace orvagentsim
