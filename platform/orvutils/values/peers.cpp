// Who is at the other end of a connection. The kernel keeps the user who called connect() or listen(), so
// this cannot be forged, and stays true when that process has gone.

#include <orvutils/sockutl.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <system_error>

namespace orv::sockutl {

namespace {

constexpr uid_t kNoUser = static_cast<uid_t>(-1);

/// Reads numbers with one "," between them. False at anything else.
bool parse_list(std::string_view list, std::vector<uid_t>& uids)
{
    const char* at = list.data();
    const char* const end = at + list.size();
    for (;;) {
        uid_t uid = 0;
        const auto [next, error] = std::from_chars(at, end, uid);
        if (error != std::errc() || uid == kNoUser)
            return false;
        uids.push_back(uid);
        if (next == end)
            return true;
        if (*next != ',')
            return false;
        at = next + 1;
    }
}

} // namespace

std::optional<uid_t> peer_uid(int fd)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == -1 || peer.uid == kNoUser)
        return std::nullopt;
    return peer.uid;
}

AllowedUids::AllowedUids(std::string_view list) : m_own(geteuid()), m_everybody(list.empty())
{
    if (m_everybody)
        return;
    m_valid = parse_list(list, m_uids);
    if (!m_valid)
        m_uids.clear();
    std::sort(m_uids.begin(), m_uids.end());
}

bool AllowedUids::admit(std::optional<uid_t> uid) const
{
    if (m_everybody)
        return true;
    return uid && (*uid == 0 || *uid == m_own || std::binary_search(m_uids.begin(), m_uids.end(), *uid));
}

} // namespace orv::sockutl
