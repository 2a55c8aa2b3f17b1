// The handlers of the client commands. Each takes what the dispatcher has checked by the command table, reads
// or changes the stores or asks another daemon over the exchange, and returns. Nothing here waits, but for
// the disk, for a store that another process is writing or a key that it has locked (a second at most), and
// for the firewall script.
//
// A section for each family: registration, features, devices, the router's identity, the router's interfaces
// and firewall, satellites, vulnerability assessment, reports. The helpers that all of them use come first.
// What a helper has to say, it says in the name of the handler that it works for.

#include "commandsproc.h"

#include "device_view.h"
#include "exclusion.h"
#include "formatters.h"
#include "orvex.h"
#include "state.h"

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvdiagnosis/orvdiagnosis.h>
#include <orvutils/error.h>
#include <orvutils/featureutl.h>
#include <orvutils/keys.h>
#include <orvutils/leases.h>
#include <orvutils/log_format.h>
#include <orvutils/script.h>
#include <orvutils/setmgmt.h>
#include <orvutils/sockutl.h>
#include <orvutils/subs.h>
#include <orvutils/version.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <numeric>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_set>

namespace orv::brokerd {
namespace {

constexpr char kEmptyPayload[] = "{}";
constexpr unsigned kVaMaxExclusions = 16; ///< patterns accepted, unless a settings key says otherwise

Result send_empty_message(const char* name)
{
    return orvex_send_msg(name, kEmptyPayload) == 0 ? kDone : kFailed;
}

/// A number without a sign; the largest one for a number that is too large, and none for any other text.
std::optional<std::uint64_t> to_unsigned(std::string_view text)
{
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc::invalid_argument || rest != end)
        return std::nullopt;
    return error == std::errc::result_out_of_range ? std::numeric_limits<std::uint64_t>::max() : number;
}

/// Reads a number as the exchange writes result codes into an answer's type: optional blanks and sign,
/// decimal digits, anything behind them. False when there is none or it is out of range.
bool text_to_int(const char* text, int& value)
{
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text, &end, 10);
    if (end == text || errno == ERANGE || number < INT_MIN || number > INT_MAX)
        return false;
    value = static_cast<int>(number);
    return true;
}

bool answer_code(const Message* answer, int& code, log::Caller caller = log::caller())
{
    if (text_to_int(answer->type, code))
        return true;
    ORV_LOG_AS(caller, log::kError, "Failed to convert value {:s} of type to int", answer->type);
    return false;
}

TextPtr duplicate(const char* text)
{
    return TextPtr(strdup(text));
}

/// Sends a request that `conn` waits for. The context goes along, to be freed by the callback; it is freed
/// here when nothing is sent.
template <typename Context, typename Deleter>
Result send_request(const char* name, const JsonPtr& payload, ResponseCallback callback,
                    std::unique_ptr<Context, Deleter> context, Connection* conn, int epfd)
{
    const TextPtr text = dump(payload.get());
    if (!text || orvex_send_req(name, text.get(), callback, context.get(), conn, epfd) != 1)
        return kFailed;
    (void)context.release(); // the callback's from here on
    return kPending;
}

/// The same without a context.
Result send_request(const char* name, const char* payload, ResponseCallback callback, Connection* conn,
                    int epfd)
{
    const int sent = orvex_send_req(name, payload, callback, /*arg=*/nullptr, conn, epfd);
    return sent == 1 ? kPending : kFailed;
}

/// Does something at the end of its scope, whichever way that is left.
template <typename Action>
class AtEnd {
public:
    explicit AtEnd(Action action) : m_action(std::move(action)) {}
    AtEnd(const AtEnd&) = delete;
    AtEnd& operator=(const AtEnd&) = delete;
    ~AtEnd() { m_action(); }

private:
    Action m_action;
};

/// Leaves a key's value as a JSON string.
Result get_key_as_string(const path& key, json_t*& out)
{
    std::string value;
    if (setMgmt::getKey(key, value) < 0)
        return kFailed;
    return respond(out, JsonPtr(json_string(value.c_str())));
}

} // namespace

// ---- registration

Result process_start_cloud_registration(json_t* data)
{
    const TextPtr payload = dump(data);
    if (!payload)
        return kFailed;
    orvex_send_req("start_cloud_registration", payload.get(), epollfd);
    return kDone;
}

Result process_register(json_t* data, json_t*& out)
{
    constexpr std::size_t kCheckOnly = JSON_VALIDATE_ONLY | JSON_STRICT;
    if (json_unpack_ex(data, /*error=*/nullptr, kCheckOnly, "{s:s}", "router_id") == 0) {
        ORV_LOG(log::kInfo, "Starting router_id registration");
        return kPending;
    }
    if (json_unpack_ex(data, /*error=*/nullptr, kCheckOnly, "{s:s,s:s,s:s}", "token", "mac", "redeem") == 0) {
        ORV_LOG(log::kInfo, "Starting token, mac, redeem registration");
        return kPending;
    }
    set_out(out, JsonPtr(build_error_response(kErrorSchema, "JSON did not match registration schema")));
    return kFailed;
}

Result process_start_registration(json_t* data, json_t*& out)
{
    // A wrong shape is answered with status 0: the error object says what is wrong.
    if (process_register(data, out) != kPending || process_start_cloud_registration(data) == kDone)
        return kDone;
    set_out(out, JsonPtr(build_error_response(kErrorCommand, kInvalidCommand)));
    return kFailed;
}

// ---- features

namespace {

JsonPtr text_value(std::string_view text)
{
    return JsonPtr(text.empty() ? json_string("") : json_stringn(text.data(), text.size()));
}

int set_status(json_t* statuses, const char* name, featureutl::FeatureStatus status)
{
    return json_object_set_new(statuses, name,
                               text_value(featureutl::feature_status_to_str(status)).release());
}

/// 0, also for what is no feature's name; -1 without memory.
int add_feature(json_t* statuses, const char* name)
{
    const auto feature = featureutl::str_to_feature(name);
    if (feature == featureutl::Feature::unknown)
        return 0;
    const auto status = featureutl::get_feature(feature);
    return status == featureutl::FeatureStatus::unknown ? 0 : set_status(statuses, name, status);
}

/// Sets a feature and adds what is read back. 0, also for what is no feature or no status or cannot be set;
/// -1 without memory.
int set_feature(json_t* statuses, const char* name, const char* text, log::Caller caller = log::caller())
{
    const auto status = featureutl::str_to_feature_status(text);
    const auto feature = featureutl::str_to_feature(name);
    if (status == featureutl::FeatureStatus::unknown || feature == featureutl::Feature::unknown)
        return 0;
    if (featureutl::set_feature(feature, status) != 0)
        return set_status(statuses, name, featureutl::get_feature(feature));
    ORV_LOG_AS(caller, log::kError, "Failed setting feature {} to {}", featureutl::feature_to_str(feature),
               featureutl::feature_status_to_str(status));
    return 0;
}

} // namespace

Result process_get_feature(const json_t* data, json_t*& out)
{
    if (!json_is_array(data)) {
        ORV_LOG(log::kError, "Invalid parameters for get_feature");
        return kFailed;
    }
    JsonPtr statuses(json_object());
    if (!statuses)
        return kFailed;

    std::size_t index = 0;
    json_t* element = nullptr;
    json_array_foreach(data, index, element)
    {
        const char* name = json_string_value(element);
        if (name && add_feature(statuses.get(), name) != 0)
            return kFailed;
    }
    return respond(out, std::move(statuses));
}

Result process_set_feature(const json_t* data, json_t*& out)
{
    if (!json_is_object(data)) {
        ORV_LOG(log::kError, "Invalid parameters for get_feature"); // one message for both commands
        return kFailed;
    }
    JsonPtr statuses(json_object());
    if (!statuses)
        return kFailed;

    const char* name = nullptr;
    json_t* value = nullptr;
    json_object_foreach(const_cast<json_t*>(data), name, value)
    {
        const char* text = json_string_value(value);
        if (text && set_feature(statuses.get(), name, text) != 0)
            return kFailed;
    }
    return respond(out, std::move(statuses));
}

Result process_get_features_list(json_t*& out)
{
    auto features = featureutl::list_features();
    std::sort(features.begin(), features.end());

    JsonPtr names(json_array());
    int failed = names ? 0 : -1;
    for (auto it = features.begin(); it != features.end() && failed == 0; ++it)
        failed = json_array_append_new(names.get(), text_value(featureutl::feature_to_str(*it)).release());
    if (failed != 0) {
        ORV_LOG(log::kError, "orv::json::to_json() failed");
        return kFailed;
    }
    set_out(out, std::move(names));
    return kDone;
}

// ---- devices

namespace {

/// Devices, and in which order they are listed, by index: one that is asked for again is there once.
struct Listing {
    std::vector<devMgmt::Device> devices;
    std::vector<std::size_t> order;
};

Listing list_devices(const json_t* ids)
{
    Listing listing;
    // What is not found is not kept, so nobody can fill this.
    std::unordered_map<std::string_view, std::size_t> found;
    std::size_t index = 0;
    json_t* element = nullptr;
    json_array_foreach(ids, index, element)
    {
        const char* did = json_string_value(element);
        if (!did)
            continue;
        auto place = found.find(did);
        if (place == found.end()) {
            devMgmt::Device device;
            if (devMgmt::get_device(did, device) == 0)
                continue;
            listing.devices.push_back(std::move(device));
            place = found.emplace(did, listing.devices.size() - 1).first;
        }
        listing.order.push_back(place->second);
    }
    return listing;
}

bool list_all_devices(Listing& listing)
{
    if (devMgmt::get_devices(listing.devices) < 0)
        return false;
    listing.order.resize(listing.devices.size());
    std::iota(listing.order.begin(), listing.order.end(), std::size_t{0});
    return true;
}

// A member that finds no place, such as a text that is not UTF-8, is left out; the device is not, as long as
// there is memory for it.

JsonPtr macs_to_json(const devMgmt::Device& device)
{
    JsonPtr macs(json_array());
    for (const auto& [mac, addresses] : device.macs)
        json_array_append_new(macs.get(),
                              json_pack("{s:s,s:s}", "mac", mac.to_string(/*upper_case=*/false).c_str(), "ip",
                                        first_v4_text(addresses).c_str()));
    return macs;
}

JsonPtr device_to_json(const devMgmt::Device& device)
{
    JsonPtr object(json_object());
    const auto set_text = [&](const char* key, const std::string& text) {
        json_object_set_new(object.get(), key, json_string(text.c_str()));
    };
    json_object_set_new(object.get(), "macs", macs_to_json(device).release());
    set_text("did", device.did);
    set_text("display_name", device.display_name);
    set_text("device_type", device.device_type);
    set_text("device_manufacturer", device.device_manufacturer);
    set_text("device_os", device.device_os);
    set_text("device_os_version", device.device_os_version);
    json_object_set_new(object.get(), "traffic_blocked", json_integer(device.traffic_blocked));
    set_text("last_va_scan_ts", device.last_va_scan_ts);
    return object;
}

bool find_device(const char* did, devMgmt::Device& device, log::Caller caller = log::caller())
{
    if (devMgmt::get_device(did, device) != 0)
        return true;
    ORV_LOG_AS(caller, log::kError, "device_id={:s} not found", did);
    return false;
}

bool find_friendly_name(const char* did, std::string& name, log::Caller caller = log::caller())
{
    if (setMgmt::getKey(given_name_key(did), name) >= 0)
        return true;
    devMgmt::Device device;
    if (!find_device(did, device, caller))
        return false;
    name = device.friendly_name;
    return true;
}

/// A rename on its way.
struct FriendlyNameData {
    TextPtr device_id; ///< null for the router itself
    TextPtr name;
};

Result send_rename(TextPtr device_id, const char* name, const JsonPtr& payload, Connection* conn, int epfd)
{
    std::unique_ptr<FriendlyNameData> context(new (std::nothrow)
                                                  FriendlyNameData{std::move(device_id), duplicate(name)});
    if (!context || !context->name)
        return kFailed;
    return send_request("broker-devmgmt:set_friendly_name", payload, set_friendly_name_cb, std::move(context),
                        conn, epfd);
}

Result store_device_name(const char* did, const char* name, log::Caller caller = log::caller())
{
    if (setMgmt::setKey(given_name_key(did), name) < 0)
        return kFailed;
    ORV_LOG_AS(caller, log::kInfo, "Set name={:s} for device_id={:s}", name, did);
    return kDone;
}

Result store_router_name(const char* name, log::Caller caller = log::caller())
{
    if (setMgmt::setKey(kRegistrationTuvoNameKey, name) < 0) {
        ORV_LOG_AS(caller, log::kError, "failed to set tuvo_name={:s}", name);
        return kFailed;
    }
    ORV_LOG_AS(caller, log::kInfo, "Set tuvo_name={:s}", name);
    return kDone;
}

/// What the device-management daemon's answer says: its result code travels as the answer's type.
bool is_confirmed(const Message* answer, log::Caller caller = log::caller())
{
    int code = 0;
    if (!answer_code(answer, code, caller))
        return false;
    if (code == 0)
        return true;
    ORV_LOG_AS(caller, log::kError, "Received error response from cloud");
    return false;
}

/// A change of a device's traffic on its way.
struct TrafficBlockedData {
    TextPtr device_id;
    int traffic_blocked = 0;
};

// The queue of online-status requests for the leases daemon: texts under an index, and their number.
const std::string kLeasesRequestsKey = "/tmp/daemons/orvleases-ng/requests";
const std::string kLeasesCountKey = kLeasesRequestsKey + "/count";
constexpr std::uint64_t kMaxLeasesRequests = 100;
/// They share their store with all other volatile settings, so their bytes are limited to a part of it. Small
/// requests come on top unmeasured, for which all values would have to be read: no more than 6 MiB of them.
constexpr std::size_t kMaxLeasesSize = std::size_t{8} * 1024 * 1024;
constexpr std::size_t kSmallLeasesRequest = std::size_t{64} * 1024;

/// What the queue's requests take up together, in bytes.
std::size_t leases_size()
{
    std::vector<std::string> names;
    if (setMgmt::enumSubkeys(kLeasesRequestsKey, names) < 0)
        return 0;
    std::size_t size = 0;
    for (const std::string& name : names)
        size += setMgmt::getKeyValue(fmt::format("{:s}/{:s}", kLeasesRequestsKey, name), "").size();
    return size;
}

/// How many requests there are said to be. A negative number, which nobody here writes, counts as one that is too
/// large.
std::uint64_t leases_count()
{
    const std::string text = setMgmt::getKeyValue(kLeasesCountKey, "");
    const bool is_negative = !text.empty() && text.front() == '-';
    const std::uint64_t count = to_unsigned(std::string_view(text).substr(is_negative ? 1 : 0)).value_or(0);
    return is_negative && count != 0 ? std::numeric_limits<std::uint64_t>::max() : count;
}

/// Whether there is no place for one more request.
bool is_leases_queue_full(std::uint64_t count, std::size_t size)
{
    return count >= kMaxLeasesRequests ||
           (size > kSmallLeasesRequest && count > 0 && leases_size() + size > kMaxLeasesSize);
}

/// The index for the next request, so many bytes long. A full queue is emptied: what is old is of no use to the
/// leases daemon.
std::uint64_t next_leases_index(std::size_t size, log::Caller caller)
{
    const std::uint64_t count = leases_count();
    if (!is_leases_queue_full(count, size))
        return count;
    if (setMgmt::deleteKey(kLeasesRequestsKey) < 0)
        ORV_LOG_AS(caller, log::kError, "Failed to delete key '{:s}': ", kLeasesRequestsKey);
    return 0;
}

void store_leases_request(const char* text, log::Caller caller)
{
    const std::uint64_t index = next_leases_index(std::strlen(text), caller);
    if (setMgmt::setKey(fmt::format("{:s}/{:d}", kLeasesRequestsKey, index), text) < 0) {
        ORV_LOG_AS(caller, log::kError, "Failed to set key for req '{:s}': {}", text, _get_orverrno());
        return;
    }
    if (setMgmt::setKey(kLeasesCountKey, fmt::format_int(index + 1).str()) < 0) {
        ORV_LOG_AS(caller, log::kError, "Failed to set key '{:s}': {}", kLeasesCountKey, _get_orverrno());
        return;
    }
    ORV_LOG_AS(caller, log::kDebug, "Saved req '{:s}' at index {:d}", text, index);
}

void queue_leases_request(const char* text, log::Caller caller = log::caller())
{
    if (setMgmt::lockKey(kLeasesRequestsKey) < 0) {
        ORV_LOG_AS(caller, log::kError, "Failed to lock key '{:s}': ", kLeasesRequestsKey);
        return;
    }
    const AtEnd unlock([&] {
        if (setMgmt::unlockKey(kLeasesRequestsKey) < 0)
            ORV_LOG_AS(caller, log::kError, "Failed to unlock key '{:s}': ", kLeasesRequestsKey);
    });
    store_leases_request(text, caller);
}

} // namespace

Result process_get_devices(json_t* data, json_t*& out)
{
    Listing listing;
    if (json_array_size(data) > 0)
        listing = list_devices(data);
    else if (!list_all_devices(listing))
        return kFailed;

    const std::string own_id = setMgmt::getKeyValue(kDeviceIdKey, "");
    JsonPtr list(json_array());
    if (!list)
        return kFailed;
    std::vector<JsonPtr> objects(listing.devices.size());
    for (const std::size_t i : listing.order) {
        if (listing.devices[i].owner != own_id)
            continue;
        if (!objects[i])
            objects[i] = device_to_json(listing.devices[i]);
        json_array_append(list.get(), objects[i].get());
    }
    set_out(out, std::move(list));
    return kDone;
}

Result process_set_device_name(json_t* data, Connection* conn, int epfd)
{
    const char* did = nullptr;
    const char* name = nullptr;
    if (json_unpack(data, "{s:s,s:s}", "device_id", &did, "name", &name) != 0)
        return kFailed;
    ORV_LOG(log::kInfo, "device_id={:s} name={:s}", did, name);
    if (*did == '\0') {
        ORV_LOG(log::kError, "No device_id provided");
        return kFailed;
    }
    if (*name == '\0') {
        ORV_LOG(log::kError, "Empty string friendly_name provided");
        return kFailed;
    }

    std::string current;
    if (!find_friendly_name(did, current))
        return kFailed;
    if (current == name) {
        ORV_LOG(log::kInfo, "Current device name is same as given name.");
        return kDone;
    }
    TextPtr copy = duplicate(did);
    if (!copy) // a rename without an id would be one of the router
        return kFailed;
    const JsonPtr payload(
        json_pack("{s:{s:s},s:s}", "connect_destination", "device_id", did, "friendly_name", name));
    return send_rename(std::move(copy), name, payload, conn, epfd);
}

Result set_friendly_name_cb(const Message* answer, json_t*& /*out*/, void* arg)
{
    const std::unique_ptr<FriendlyNameData> context(static_cast<FriendlyNameData*>(arg));
    if (!is_confirmed(answer))
        return kFailed;
    return context->device_id ? store_device_name(context->device_id.get(), context->name.get())
                              : store_router_name(context->name.get());
}

Result process_set_device_traffic_blocked(json_t* data, Connection* conn, int epfd)
{
    const char* did = nullptr;
    json_int_t wanted = 0; // wide, so that no other number is taken for 0 or 1
    if (json_unpack(data, "{s:s,s:I}", "device_id", &did, "traffic_blocked", &wanted) != 0)
        return kFailed;
    ORV_LOG(log::kInfo, "device_id={:s} traffic_blocked={:d}", did, wanted);
    if (*did == '\0') {
        ORV_LOG(log::kError, "No device_id provided");
        return kFailed;
    }
    if (wanted != 0 && wanted != 1) {
        ORV_LOG(log::kError, "Invalid value for traffic_blocked");
        return kFailed;
    }
    const int blocked = static_cast<int>(wanted);

    devMgmt::Device device;
    if (!find_device(did, device))
        return kFailed;
    if (device.traffic_blocked == blocked) {
        ORV_LOG(log::kInfo, "Current device traffic_blocked is same as given traffic_blocked.");
        return kDone;
    }
    std::unique_ptr<TrafficBlockedData> context(new (std::nothrow)
                                                    TrafficBlockedData{duplicate(did), blocked});
    if (!context || !context->device_id)
        return kFailed;
    const JsonPtr payload(
        json_pack("{s:{s:s},s:i}", "connect_destination", "device_id", did, "blocked", blocked));
    return send_request("broker-devmgmt:set_traffic_status", payload, set_device_traffic_blocked_cb,
                        std::move(context), conn, epfd);
}

Result set_device_traffic_blocked_cb(const Message* answer, json_t*& /*out*/, void* arg)
{
    // Nothing is stored here: the record changes when the device-management daemon reports it.
    const std::unique_ptr<TrafficBlockedData> context(static_cast<TrafficBlockedData*>(arg));
    if (!is_confirmed(answer))
        return kFailed;
    ORV_LOG(log::kInfo, "Set traffic_blocked={:d} for device_id={:s}", context->traffic_blocked,
            context->device_id.get());
    return kDone;
}

Result process_set_device_online_status(json_t* data)
{
    if (log::can_log(log::kDefaultChannel, log::kInfo)) {
        const TextPtr shown = dump(data, JSON_ENCODE_ANY);
        ORV_LOG(log::kInfo, "set_device_online_status: {}", shown ? shown.get() : "");
    }
    const OrvleasesMode mode = get_orvleases_mode();
    if (mode != OrvleasesMode::ng) {
        ORV_LOG(log::kWarning, "orvleases mode is {}, ignoring set_device_online_status",
                orvleases_mode_to_str(mode));
        return kFailed;
    }
    const TextPtr text = dump(data);
    if (!text || orvex_send_msg("broker-devmgmt:set_online_status", text.get()) != 0)
        return kFailed;
    queue_leases_request(text.get());
    return kDone; // the message is out, whatever became of the queue
}

// ---- the router's identity

namespace {

bool is_registered()
{
    std::string value;
    return setMgmt::getKey(kUserTokenKey, value) >= 1 && setMgmt::getKey(kDeviceIdKey, value) > 0;
}

/// Keeps a value for the time after the registration. Succeeds whether or not it could be kept.
Result keep_for_later(const path& key, const std::string& value, const char* failure,
                      log::Caller caller = log::caller())
{
    ORV_LOG_AS(caller, log::kError, "Router is not registered.");
    if (setMgmt::setKey(key, value) < 0)
        ORV_LOG_AS(caller, log::kError, "{}", failure);
    ORV_LOG_AS(caller, log::kInfo, "Set key {} with value {:s}", key, value);
    return kDone;
}

struct RegistrationIdentity {
    std::string name;
    std::string mac;
};

bool read_identity(RegistrationIdentity& identity, log::Caller caller = log::caller())
{
    if (setMgmt::getKey(kRegistrationTuvoNameKey, identity.name) < 0) {
        ORV_LOG_AS(caller, log::kError, "Router name missing.");
        return false;
    }
    if (setMgmt::getKey(kRegistrationMacKey, identity.mac) < 0) {
        ORV_LOG_AS(caller, log::kError, "Router registration mac missing.");
        return false;
    }
    return true;
}

Result send_register_tuvo(const JsonPtr& payload, ResponseCallback callback, const std::string& value,
                          Connection* conn, int epfd)
{
    TextPtr context = duplicate(value.c_str());
    if (!context)
        return kFailed;
    return send_request("broker-devmgmt:register_tuvo", payload, callback, std::move(context), conn, epfd);
}

bool is_valid_feature_set_level(const std::string& level)
{
    static const std::vector<const char*> levels{"velm-light-1.0", "velm-light-1.1", "velm-basic-1.0",
                                                 "velm-basic-1.1", "velm-pro"};
    return std::find(levels.begin(), levels.end(), level) != levels.end();
}

/// Stores what the answer has confirmed: any object with a "result" does, whatever the result.
Result store_confirmed(const Message* answer, void* arg, const path& key, const char* what,
                       log::Caller caller = log::caller())
{
    const TextPtr value(static_cast<char*>(arg));
    const JsonPtr root = parse_payload(answer);
    if (!json_object_get(root.get(), "result"))
        return kFailed;
    if (setMgmt::setKey(key, value.get()) < 0) {
        ORV_LOG_AS(caller, log::kError, "failed to set {:s}={:s}", what, value.get());
        return kFailed;
    }
    ORV_LOG_AS(caller, log::kInfo, "Set {:s}={:s}", what, value.get());
    return kDone;
}

} // namespace

Result process_get_router_name(json_t*& out)
{
    return get_key_as_string(kRegistrationTuvoNameKey, out);
}

Result process_get_router_model(json_t*& out)
{
    return get_key_as_string(kRegistrationDeviceModelKey, out);
}

Result process_get_router_feature_set_level(json_t*& out)
{
    return get_key_as_string(kRegistrationFeatureSetLevelKey, out);
}

Result process_set_router_name(const std::string& name, Connection* conn, int epfd)
{
    if (name.empty()) {
        ORV_LOG(log::kInfo, "Router name is empty string.");
        return kFailed;
    }
    if (!is_registered())
        return keep_for_later(kRegistrationTuvoNameKey, name, "Could not save router name for a future use.");
    if (setMgmt::getKeyValue(kRegistrationTuvoNameKey, "") == name) {
        ORV_LOG(log::kInfo, "Current router name is same as given name.");
        return kDone;
    }
    const JsonPtr payload(json_pack("{s:s}", "friendly_name", name.c_str()));
    return send_rename(/*device_id=*/nullptr, name.c_str(), payload, conn, epfd);
}

Result process_set_router_model(const std::string& model, Connection* conn, int epfd)
{
    if (!is_registered())
        return keep_for_later(kRegistrationDeviceModelKey, model,
                              "Could not save router model for a future use.");
    if (setMgmt::getKeyValue(kRegistrationDeviceModelKey, "") == model) {
        ORV_LOG(log::kInfo, "Current router model is same as given model.");
        return kDone;
    }
    RegistrationIdentity identity;
    if (!read_identity(identity))
        return kFailed;
    const JsonPtr payload(json_pack("{s:[s],s:s,s:s}", "macs", identity.mac.c_str(), "tuvo_detected_name",
                                    identity.name.c_str(), "device_model", model.c_str()));
    return send_register_tuvo(payload, set_router_model_cb, model, conn, epfd);
}

Result process_set_router_feature_set_level(const std::string& level, Connection* conn, int epfd)
{
    if (!is_valid_feature_set_level(level)) {
        ORV_LOG(log::kError, "Invalid feature set level");
        return kFailed;
    }
    if (!is_registered()) { // unlike name and model, a level is not kept for later
        ORV_LOG(log::kError, "Router is not registered.");
        return kFailed;
    }
    if (setMgmt::getKeyValue(kRegistrationFeatureSetLevelKey, "") == level) {
        ORV_LOG(log::kInfo, "Current router feature set level same as stored one.");
        return kDone;
    }
    RegistrationIdentity identity;
    if (!read_identity(identity))
        return kFailed;
    // The level goes as an array of one, unlike the model.
    const JsonPtr payload(json_pack("{s:[s],s:s,s:[s]}", "macs", identity.mac.c_str(), "tuvo_detected_name",
                                    identity.name.c_str(), "feature_set_level", level.c_str()));
    return send_register_tuvo(payload, set_feature_set_level_cb, level, conn, epfd);
}

Result set_router_model_cb(const Message* answer, json_t*& /*out*/, void* arg)
{
    return store_confirmed(answer, arg, kRegistrationDeviceModelKey, "router device_model");
}

Result set_feature_set_level_cb(const Message* answer, json_t*& /*out*/, void* arg)
{
    return store_confirmed(answer, arg, kRegistrationFeatureSetLevelKey, "feature_set_level");
}

// ---- the router's interfaces

namespace {

bool is_interface_type(const char* type)
{
    return std::strcmp(type, "wan") == 0 || std::strcmp(type, "lan") == 0 || std::strcmp(type, "guest") == 0;
}

void set_interface(const char* name, const char* type, log::Caller caller)
{
    if (setMgmt::setKey(kNetworkInterfacesKey / name, type) < 0)
        ORV_LOG_AS(caller, log::kError, "failed to set interface name={:s} type={:s}", name, type);
    else
        ORV_LOG_AS(caller, log::kInfo, "Set interface name={:s} type={:s}", name, type);
}

/// Stores one entry of the list. Its name counts as one of the list's also when its type is bad: the stored value
/// stays.
void process_interface(const json_t* entry, std::unordered_set<std::string_view>& listed, log::Caller caller)
{
    const char* name = json_string_value(json_object_get(entry, "name"));
    if (!name) {
        ORV_LOG_AS(caller, log::kError, "could not extract interface name");
        return;
    }
    listed.insert(name);

    const char* type = json_string_value(json_object_get(entry, "type"));
    if (!type) {
        ORV_LOG_AS(caller, log::kError, "could not extract interface type");
        return;
    }
    if (!is_interface_type(type)) {
        ORV_LOG_AS(caller, log::kWarning, "invalid interface type for '{:s}', ignoring", name);
        return;
    }
    set_interface(name, type, caller);
}

void delete_interface(const std::string& name, log::Caller caller)
{
    if (setMgmt::deleteKey(kNetworkInterfacesKey / name) < 0)
        ORV_LOG_AS(caller, log::kError, "failed to delete previous interface '{:s}'' key: {}", name,
                   _get_orverrno());
}

/// Called with the list locked, so that nobody sees it half-written; one durable step for all of it.
void replace_interfaces(const json_t* list, std::size_t size, log::Caller caller = log::caller())
{
    setMgmt::Batch batch;
    std::vector<std::string> previous;
    (void)setMgmt::enumSubkeys(kNetworkInterfacesKey, previous); // what cannot be listed is not deleted
    std::unordered_set<std::string_view> listed;
    for (std::size_t i = 0; i < size; ++i)
        if (const json_t* entry = json_array_get(list, i))
            process_interface(entry, listed, caller);
        else
            ORV_LOG_AS(caller, log::kError, "invalid interface {:d}", i);
    for (const std::string& name : previous)
        if (listed.count(name) == 0)
            delete_interface(name, caller);
    if (batch.commit() < 0)
        ORV_LOG_AS(caller, log::kError, "failed to store the interfaces: {}", _get_orverrno());
}

} // namespace

Result process_get_router_interfaces(json_t*& out)
{
    JsonPtr list(json_array());
    std::vector<std::string> names;
    if (!list || setMgmt::enumSubkeys(kNetworkInterfacesKey, names) < 0)
        return kFailed;
    for (const auto& name : names) {
        const std::string type = setMgmt::getKeyValue(kNetworkInterfacesKey / name, "");
        json_t* entry = json_pack("{s:s,s:s}", "name", name.c_str(), "type", type.c_str());
        if (json_array_append_new(list.get(), entry) != 0)
            return kFailed;
    }
    set_out(out, std::move(list));
    return kDone;
}

Result process_set_router_interfaces(json_t* data)
{
    if (!data) {
        ORV_LOG(log::kInfo, "No interfaces list provided. Skipping...");
        return kDone;
    }
    const std::size_t size = json_array_size(data);
    if (size == 0) {
        ORV_LOG(log::kError, "interfaces json object needs to be a non-empty array.");
        return kFailed;
    }
    ORV_LOG(log::kInfo, "Found {:d} interfaces", size);
    if (setMgmt::lockKey(kNetworkInterfacesKey) < 0) {
        ORV_LOG(log::kWarning, "Failed to lock {}, orverrno: {}", kNetworkInterfacesKey, _get_orverrno());
        return kFailed;
    }

    const log::Caller caller = log::caller();
    const AtEnd unlock([&] {
        if (setMgmt::unlockKey(kNetworkInterfacesKey) < 0)
            ORV_LOG_AS(caller, log::kWarning, "Failed to unlock {}, orverrno: {}", kNetworkInterfacesKey,
                       _get_orverrno());
    });
    replace_interfaces(data, size);
    return kDone;
}

Result process_reapply_firewall_rules()
{
    static const auto commands = [] {
        const path script = common_directory(common_path::firewall) / "orv_init_fw.sh";
        return std::vector<std::vector<std::string>>{{script.str()}};
    }();
    if (exec_script(commands, "/bin/sh", /*flags=*/0) >= 0)
        return kDone;
    ORV_LOG(log::kError, "Error running reapply_firewall_rules script {}", _get_orverrno());
    return kFailed;
}

// ---- satellites

namespace {

/// The id of the device with that MAC, unless it is the router's own: the router never removes itself.
bool find_satellite(const std::string& mac_text, const sockutl::macaddr& mac, std::string& did, json_t*& out,
                    log::Caller caller = log::caller())
{
    if (devMgmt::get_device_id_by_mac(mac, did) < 0) {
        ORV_LOG_AS(caller, log::kError, "failed to get device id for mac '{}': {}", mac_text,
                   _get_orverrno());
        set_out(out, JsonPtr(json_pack("{s:s,s:i}", "error", "not found", "code", -2)));
        return false;
    }
    ORV_LOG_AS(caller, log::kDebug, "mac '{}' has device id '{:s}'", mac_text, did);
    std::string own_id;
    if (setMgmt::getKey(kDeviceIdKey, own_id) < 0) {
        ORV_LOG_AS(caller, log::kError, "failed to get self device id: {}", _get_orverrno());
        return false;
    }
    if (!did.empty() && did != own_id)
        return true;
    ORV_LOG_AS(caller, log::kError, "invalid/empty device id: '{:s}'", did);
    return false;
}

Result send_remove_satellite(const std::string& did, Connection* conn, int epfd,
                             log::Caller caller = log::caller())
{
    const JsonPtr payload(json_pack("{s:[s]}", "device_ids", did.c_str()));
    const TextPtr text = dump(payload.get());
    if (!text)
        return kFailed;
    ORV_LOG_AS(caller, log::kInfo, "sending remove satellite request for device id '{:s}'", did);
    return send_request("broker-devmgmt:remove_satellites", text.get(), remove_satellite_cb, conn, epfd);
}

} // namespace

Result process_remove_satellite(const json_t* data, Connection* conn, int epfd, json_t*& out)
{
    const char* text = json_string_value(json_object_get(data, "mac"));
    if (!text)
        return kFailed;
    const sockutl::macaddr mac(text);
    if (!mac.is_valid()) {
        ORV_LOG(log::kError, "invalid mac: '{:s}'", text);
        return kFailed;
    }
    const std::string mac_text = mac.to_string(/*upper_case=*/false);
    std::string did;
    if (!find_satellite(mac_text, mac, did, out))
        return kFailed;
    if (send_remove_satellite(did, conn, epfd) != kPending)
        return kFailed;

    // On the lists before the answer: neither scan nor discovery shall treat it again, whatever the cloud
    // says. A list that cannot be written has been told of, and changes nothing about the request.
    (void)blacklist_add(kVaBlacklistSatellitesKey, mac_text);
    (void)blacklist_add(kDiscoveryBlacklistSatellitesKey, mac_text);
    return kPending;
}

Result remove_satellite_cb(const Message* answer, json_t*& /*out*/, void* /*arg*/)
{
    int code = 0;
    if (!answer_code(answer, code))
        return kFailed;
    if (code != 0) {
        ORV_LOG(log::kError, "received timeout/error from cloud: {}", *answer);
        return kFailed;
    }
    ORV_LOG(log::kInfo, "successfully sent remove satellite cloud request");
    return kDone;
}

namespace {

/// The pieces between the commas; an empty text has none.
std::unordered_set<std::string> split(const std::string& text)
{
    std::unordered_set<std::string> pieces;
    if (text.empty())
        return pieces;
    std::size_t begin = 0;
    for (std::size_t end = text.find(','); end != std::string::npos; end = text.find(',', begin)) {
        pieces.insert(text.substr(begin, end - begin));
        begin = end + 1;
    }
    pieces.insert(text.substr(begin));
    return pieces;
}

} // namespace

std::optional<std::unordered_set<std::string>> get_key_with_sep(const path& key)
{
    std::string text;
    if (setMgmt::getKey(key, text) < 0) {
        const auto error = static_cast<Error>(_get_orverrno());
        if (error != Error::no_such_key && error != Error::no_value) {
            ORV_LOG(log::kError, "getKey('{}'): {}", key, _get_orverrno());
            return std::nullopt;
        }
        text.clear();
    }

    const auto entries = split(text);
    ORV_LOG(log::kDebug, "Entries of '{}': {}", key, fmt::join(entries, ","));
    return entries;
}

int blacklist_add(const path& key, const std::string& entry)
{
    if (setMgmt::lockKey(key) < 0) {
        ORV_LOG(log::kError, "lockKey('{}'): {}", key, _get_orverrno());
        return kFailed;
    }
    // The lock stays, on purpose: the list is this daemon's from now on.
    auto entries = get_key_with_sep(key);
    if (!entries)
        return kFailed;
    if (!entries->insert(entry).second) {
        ORV_LOG(log::kTrace, "Entry '{}' already present", entry);
        return kDone;
    }
    if (setMgmt::setKey(key, fmt::format("{}", fmt::join(*entries, ","))) < 0) {
        ORV_LOG(log::kError, "setKey('{}'): {}", key, _get_orverrno());
        return kFailed;
    }
    ORV_LOG(log::kDebug, "Added entry '{}' to '{}'", entry, key);
    return kDone;
}

// ---- vulnerability assessment

Result process_va_start()
{
    return send_empty_message("orvvad:va_network_scan_start");
}

Result process_va_stop()
{
    return send_empty_message("orvvad:va_scan_stop");
}

Result process_va_self_scan_start()
{
    return send_empty_message("orvvad:va_self_scan_start");
}

Result process_va_status(Connection* conn, int epfd)
{
    return send_request("orvvad:va_scan_status", kEmptyPayload, get_va_scan_status_cb, conn, epfd);
}

Result get_va_scan_status_cb(const Message* answer, json_t*& out, void* /*arg*/)
{
    // The scanner's object goes to the client unchanged; where there is none, the client gets no answer.
    set_out(out, parse_payload(answer));
    return out ? kDone : kFailed;
}

Result process_va_set_schedule(const json_t* data, Connection* conn, int epfd)
{
    const TextPtr payload = dump(data);
    if (!payload) {
        ORV_LOG(log::kError, "Failed to build payload");
        return kFailed;
    }
    const Result sent =
        send_request("orvtuvosettings:va_set_schedule", payload.get(), va_set_schedule_cb, conn, epfd);
    if (sent != kPending)
        ORV_LOG(log::kError, "Failed to send set_schedule request");
    return sent;
}

Result va_set_schedule_cb(const Message* answer, json_t*& out, void* /*arg*/)
{
    constexpr int kScheduleError = 2;
    int code = 0;
    if (text_to_int(answer->type, code)) {
        if (code != kScheduleError)
            return kDone;
        JsonPtr error(json_pack("{s:s%}", "error", answer->data, static_cast<std::size_t>(answer->datalen)));
        if (error) {
            set_out(out, std::move(error));
            return kFailed;
        }
        ORV_LOG(log::kError, "failed to pack error response");
    }
    // Not valid JSON, and kept so: the client then gets no answer, and its connection is closed.
    set_out(out, JsonPtr(json_loads("{\"error\", \"internal error\"}", /*flags=*/0, /*error=*/nullptr)));
    return kFailed;
}

namespace {

Result refuse_exclusions(json_t*& out, const std::string& message, log::Caller caller = log::caller())
{
    ORV_LOG_AS(caller, log::kError, "{}", message);
    set_out(out, JsonPtr(json_string(message.c_str())));
    return kFailed;
}

} // namespace

Result process_va_set_exclusions(const json_t* data, json_t*& out)
{
    if (!json_is_array(data))
        return kFailed;

    const std::size_t size = json_array_size(data);
    const std::uint64_t most = to_unsigned(setMgmt::getKeyValue(kVaBlacklistExclusionsKey / "max_size", ""))
                                   .value_or(kVaMaxExclusions);
    if (size > most)
        return refuse_exclusions(
            out, fmt::format("input size {} is greater than the maximum allowed ({})", size, most));

    std::unordered_set<std::string> entries;
    for (std::size_t i = 0; i < size; ++i) {
        const char* text = json_string_value(json_array_get(data, i));
        if (!text)
            return refuse_exclusions(out, fmt::format("expected string value at index {}", i));
        if (!va_validate_exclusion(text))
            return refuse_exclusions(out, fmt::format("invalid value '{}' at index {}", text, i));
        entries.insert(text);
    }
    const std::string value = fmt::format("{}", fmt::join(entries, ","));
    if (setMgmt::setKey(kVaBlacklistExclusionsKey, value) < 0) {
        ORV_LOG(log::kError, "setKey('{}'): {}", kVaBlacklistExclusionsKey, _get_orverrno());
        return kFailed;
    }
    ORV_LOG(log::kInfo, "Set entries of '{}' to: {}", kVaBlacklistExclusionsKey, value);
    return kDone;
}

Result process_va_get_exclusions(json_t*& out)
{
    const auto entries = get_key_with_sep(kVaBlacklistExclusionsKey);
    if (!entries)
        return kFailed;
    JsonPtr list(json_array());
    for (const auto& entry : *entries)
        if (json_array_append_new(list.get(), json_string(entry.c_str())) != 0)
            return kFailed;
    if (!list)
        return kFailed;
    set_out(out, std::move(list));
    return kDone;
}

Result process_get_va_cloud_trigger(json_t*& out)
{
    std::string value;
    if (setMgmt::getKey(kVaCloudTriggerKey, value) < 0)
        return kFailed;
    set_out(out, JsonPtr(json_boolean(value == "1")));
    return kDone;
}

// ---- reports

namespace {

constexpr char kReleaseVersionDefault[] = "2.0.0.0";

/// Goes on without the lock when it cannot be had.
template <typename Action>
void with_subscription_locked(const Action& action, log::Caller caller = log::caller())
{
    if (setMgmt::lockKey(kSubscriptionPath) < 0)
        ORV_LOG_AS(caller, log::kWarning, "Failed to lock {} orverrno: {}", kSubscriptionPath,
                   _get_orverrno());
    const AtEnd unlock([&] {
        if (setMgmt::unlockKey(kSubscriptionPath) < 0)
            ORV_LOG_AS(caller, log::kWarning, "Failed to unlock {} orverrno: {}", kSubscriptionPath,
                       _get_orverrno());
    });
    action();
}

bool read_status(std::string& status)
{
    return setMgmt::getKey(subs::status_key(kSubscriptionName), status) >= 0;
}

bool read_expiry(std::string& expiry)
{
    return setMgmt::getKey(subs::expiry_key(kSubscriptionName), expiry) >= 0;
}

bool read_subscription(std::string& status, std::string& expiry)
{
    return read_status(status) && read_expiry(expiry);
}

JsonPtr subscription_to_json(const std::string& status_text, const std::string& expiry)
{
    const subs::Status status = subs::status_from_str(status_text);
    if (status > subs::Status::expired)
        return JsonPtr(json_pack("{s:s,s:s}", "status", "none", "expiry", expiry.c_str()));
    const char* text = subs::status_to_str(status).data();
    if (status == subs::Status::valid && expiry == "0")
        return JsonPtr(json_pack("{s:s}", "status", text));
    return JsonPtr(json_pack("{s:s,s:s}", "status", text, "expiry", expiry.c_str()));
}

bool read_number(const path& key, unsigned long long& number)
{
    std::string text;
    if (setMgmt::getKey(key, text) < 0)
        return false;
    char* end = nullptr;
    number = std::strtoull(text.c_str(), &end, 0);
    return *end == '\0';
}

/// The subscription and the outcome of its last update, null when something of it cannot be read.
JsonPtr subscription_update_to_json()
{
    std::string status;
    std::string expiry;
    unsigned long long updated = 0;
    std::string error;
    if (!read_subscription(status, expiry) || !read_number(kSubscriptionPath / "last_update_ts", updated) ||
        setMgmt::getKey(kSubscriptionPath / "last_error", error) < 0)
        return nullptr;
    JsonPtr object = subscription_to_json(status, expiry);
    const char* outcome = error == "0" ? "success" : "failed";
    if (!object ||
        json_object_set_new(object.get(), "subscription_update_ts",
                            json_integer(static_cast<json_int_t>(updated))) != 0 ||
        json_object_set_new(object.get(), "subscription_update_error", json_string(error.c_str())) != 0 ||
        json_object_set_new(object.get(), "subscription_update_status", json_string(outcome)) != 0)
        return nullptr;
    return object;
}

} // namespace

Result process_get_version_info(json_t*& out)
{
    const std::string version = get_release_version().value_or(kReleaseVersionDefault);
    const std::string patch = get_patch_version();
    json_error_t error{};
    JsonPtr info(json_pack_ex(&error, /*flags=*/0, "{s:s,s:s}", "version", version.c_str(), "patch_level",
                              patch.c_str()));
    if (!info)
        ORV_LOG(log::kError, "Failed to pack info into json: version={:s} patch={:s} {:s}", version, patch,
                error.text);
    return respond(out, std::move(info));
}

Result process_get_subscription_status(json_t*& out)
{
    std::string status;
    std::string expiry;
    bool has_status = false;
    bool has_expiry = false;
    with_subscription_locked([&] {
        has_status = read_status(status);
        has_expiry = read_expiry(expiry);
    });
    return has_status && has_expiry ? respond(out, subscription_to_json(status, expiry)) : kFailed;
}

Result process_update_subscription_status(Connection* conn, int epfd)
{
    return send_request("update_subscription", kEmptyPayload, update_subscription_cb, conn, epfd);
}

Result update_subscription_cb(const Message* /*answer*/, json_t*& out, void* /*arg*/)
{
    // What the update did is in the settings store; the answer only says that it is over.
    JsonPtr object;
    with_subscription_locked([&] { object = subscription_update_to_json(); });
    return respond(out, std::move(object));
}

Result process_get_diagnosis_report(json_t*& out)
{
    diagnosis::Manager manager;
    manager.add(diagnosis::get_defaults());
    return respond(out, JsonPtr(manager.report()));
}

Result process_get_status_report(json_t*& out)
{
    static const std::vector<diagnosis::RecordId> records{
        {"agent", "version"}, {"agent", "registered"}, {"agent", "subscription"},
        {"agent", "enabled"}, {"va", "scheduled"},
    };
    diagnosis::Manager manager;
    manager.add(diagnosis::get_defaults(records));
    return respond(out, JsonPtr(manager.collect()));
}

} // namespace orv::brokerd
