// Keys and values of the settings store, and all that reads a value as something else. The input is a key on
// the first line and a value.

#include "input.h"
#include "require.h"
#include "root.h"

#include <orvutils/featureutl.h>
#include <orvutils/leases.h>
#include <orvutils/setmgmt.h>
#include <orvutils/sockutl.h>
#include <orvutils/store_limit.h>
#include <orvutils/subs.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

using orv::fuzz::Input;
using orv::fuzz::require;
namespace setMgmt = orv::setMgmt;

namespace {

/// The number that a decimal text says, in another way than the store reads it; `fallback` when it is none.
int to_number(const std::string& text, int fallback)
{
    const bool is_negative = !text.empty() && text.front() == '-';
    const std::string digits = text.substr(is_negative ? 1 : 0);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos)
        return fallback;
    std::int64_t number = 0;
    for (const char digit : digits)
        number = std::min<std::int64_t>(number * 10 + (digit - '0'), std::int64_t{1} << 32U);
    number = is_negative ? -number : number;
    const bool fits = number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max();
    return fits ? static_cast<int>(number) : fallback;
}

void set(const std::string& key, const std::string& value)
{
    require(setMgmt::setKey(key, value) == 0, "a value can be stored");
    require(setMgmt::getKeyValue(key, std::string("?")) == value, "a value stays the same");
}

void try_key(const std::string& key)
{
    std::string value;
    if (setMgmt::setKey(key, "value") != 0) {
        require(setMgmt::getKey(key, value) < 0, "what cannot be a key has no value");
        return;
    }
    require(setMgmt::getKey(key, value) == 5 && value == "value", "a value is found under its key");
    require(setMgmt::getKey("/" + key + "/", value) == 5, "slashes at the ends make no difference");
    std::vector<std::string> names;
    require(setMgmt::enumSubkeys("/", names) > 0, "a key has an ancestor below the root");
    require(setMgmt::setKey(key + "/child", "") == 0 || key.size() + 6 > setMgmt::kMaxKeySize - 1,
            "a key can have a child");
    require(setMgmt::deleteKey(key) == 0, "a key can be removed");
    require(setMgmt::getKey(key + "/child", value) < 0, "a key is removed with its children");
    require(setMgmt::deleteKey(key) < 0, "a key that was removed is gone");
}

void try_number(const std::string& value)
{
    constexpr orv::StoreLimit kLimit = {"/fuzz/number", 16, 2, 64};
    set("/fuzz/number", value);
    require(setMgmt::getKeyValue("/fuzz/number", 7) == to_number(value, 7),
            "a number is read as it is written");
    const std::size_t mebibytes = kLimit.read() / 1024 / 1024;
    require(mebibytes == static_cast<std::size_t>(std::clamp(to_number(value, 16), 2, 64)),
            "a limit stays within its own");
}

void try_enumerations(const std::string& value)
{
    using namespace orv;
    set("/leases/mode", value);
    const OrvleasesMode mode = get_orvleases_mode();
    const bool is_mode = value == "orvleases-orv" || value == "orvleases-ng";
    require(orvleases_mode_to_str(mode) == (is_mode ? value : "(unknown)"), "a mode is what its text says");

    set("/features/telemetry", value);
    const auto status = featureutl::get_feature(featureutl::Feature::telemetry);
    const bool is_status = value == "enabled" || value == "disabled";
    require(featureutl::feature_status_to_str(status) == (is_status ? value : ""),
            "a feature's state is what its text says");
    const auto feature = featureutl::str_to_feature(value);
    require(feature == featureutl::Feature::unknown || featureutl::feature_to_str(feature) == value,
            "a feature has its name");
}

void try_subscription(const std::string& value)
{
    using namespace orv::subs;
    MultiSubscription subscriptions;
    set(status_key("global").str(), value);
    if (subscriptions.load())
        require(status_to_str(subscriptions.get("global").status) == value, "a status is what its text says");
    require(setMgmt::deleteKey(status_key("global").str()) == 0, "a key can be removed");
    set(expiry_key("global").str(), value);
    if (subscriptions.load())
        require(subscriptions.get("global").expiry >= 0, "an expiry is a time");
    require(setMgmt::deleteKey(expiry_key("global").str()) == 0, "a key can be removed");
}

void try_addresses(const std::string& value)
{
    using namespace orv::sockutl;
    const address any(value);
    if (any.is_valid())
        require(address(any.to_string(false)) == any, "an address stays the same");
    const macaddr mac(value);
    if (mac.is_valid())
        require(macaddr(mac.to_string(true)) == mac && macaddr(mac.to_string(false)) == mac,
                "a MAC address stays the same");
    const AllowedUids uids(value);
    require(uids.admit(0), "root is always admitted");
    require(value.empty() == uids.admit_everybody(), "everybody is admitted only without a list");
    require(uids.is_valid() || !uids.admit(4711), "a malformed list admits nobody");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    orv::fuzz::make_root();
    orv::fuzz::log_nothing();
    require(setMgmt::init() == 0, "the store can be opened");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const std::string key(input.line());
    const std::string value(input.rest());
    try_key(key);
    try_number(value);
    try_enumerations(value);
    try_subscription(value);
    try_addresses(value);
    return 0;
}
