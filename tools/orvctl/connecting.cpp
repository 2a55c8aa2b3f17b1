// An abstract socket's name belongs to whoever binds it first, so any user can play the daemon while it is
// not running. The kernel tells who it is.

#include "connecting.h"

#include "output.h"

#include <unistd.h>

#include <string>

namespace orvctl {
namespace {

void warn_of_stranger(const orvbroker::Client& client)
{
    static bool s_warned = false;
    const auto uid = client.server_uid();
    if (s_warned || !uid || *uid == 0 || *uid == ::geteuid())
        return;
    s_warned = true;
    complain("warning: what answers is run by user " + std::to_string(*uid) +
             ", neither by root nor by you: it may not be the broker daemon");
}

} // namespace

orvbroker::Error connect(orvbroker::Client& client, std::chrono::milliseconds timeout)
{
    const orvbroker::Error error = client.connect(timeout);
    if (error == orvbroker::Error::none)
        warn_of_stranger(client);
    return error;
}

} // namespace orvctl
