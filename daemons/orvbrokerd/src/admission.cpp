// The listening socket's name is abstract, so no file's permissions keep anybody away from it.

#include "admission.h"

#include <orvutils/error.h>
#include <orvutils/setmgmt.h>
#include <orvutils/sockutl.h>

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

namespace orv::brokerd {
namespace {

const std::string kAllowedUidsKey = "/daemons/orvbrokerd/allowed_uids";
/// Users who are told of within a second; further ones are refused without a line.
constexpr std::size_t kUsersTold = 16;

/// The list in force, and the text that it was made of: nobody makes the same list twice.
struct Allowed {
    std::optional<std::string> text;
    sockutl::AllowedUids uids{"none"}; ///< nobody but root and the daemon's own user
};

/// A user, as far as the kernel could tell, and when he was told of.
struct Told {
    std::optional<uid_t> uid;
    std::optional<std::time_t> at; ///< empty for nobody yet
};

Allowed g_allowed;
std::array<Told, kUsersTold> g_told{};

bool is_absent(int result)
{
    return result == -static_cast<int>(Error::no_such_key) || result == -static_cast<int>(Error::no_value);
}

void read_allowed(log::Caller caller)
{
    std::string text;
    const int result = setMgmt::getKey(kAllowedUidsKey, text);
    if (result < 0 && !is_absent(result))
        return;
    if (g_allowed.text == text)
        return;
    sockutl::AllowedUids uids(text);
    if (!uids.is_valid())
        ORV_LOG_AS(caller, log::kError, "{} is no list of user numbers: {}", kAllowedUidsKey, text);
    g_allowed = {std::move(text), std::move(uids)};
}

/// Whether a second has passed, whatever else has happened to the clock.
bool is_past(std::optional<std::time_t> at, std::time_t now)
{
    return !at || now < *at || now > *at + 1;
}

/// Whether a line about this user is due.
bool is_to_be_told(std::optional<uid_t> uid)
{
    const std::time_t now = std::time(nullptr);
    auto place = std::find_if(g_told.begin(), g_told.end(),
                              [uid](const Told& told) { return told.at && told.uid == uid; });
    if (place == g_told.end())
        place = std::find_if(g_told.begin(), g_told.end(),
                             [now](const Told& told) { return is_past(told.at, now); });
    if (place == g_told.end() || !is_past(place->at, now))
        return false;
    *place = {uid, now};
    return true;
}

} // namespace

bool admit(int fd, log::Caller caller)
{
    read_allowed(caller);
    if (g_allowed.uids.admit_everybody())
        return true;
    const std::optional<uid_t> uid = sockutl::peer_uid(fd);
    if (g_allowed.uids.admit(uid))
        return true;
    if (is_to_be_told(uid))
        ORV_LOG_AS(caller, log::kWarning, "refused a client of user {}", uid ? std::to_string(*uid) : "?");
    return false;
}

} // namespace orv::brokerd
