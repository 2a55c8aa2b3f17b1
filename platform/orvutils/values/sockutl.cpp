// Socket and MAC addresses and their texts. An address holds zeros wherever its kind leaves bytes unused, so
// what bind() and connect() get is well defined; two of a kind are compared by the bytes that tell them
// apart.

#include <orvutils/sockutl.h>

#include <orvbase/error_number.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace orv::sockutl {

namespace {

constexpr std::size_t kNameOffset = offsetof(sockaddr_un, sun_path);
constexpr std::size_t kNameCapacity = sizeof(sockaddr_un::sun_path);

/// The length of a Unix-domain address, 0 if the name does not fit. Both kinds have one byte beside the text:
/// the NUL before an abstract name, the NUL after a path.
unsigned make_local(sockaddr_un& local, std::string_view name, bool abstract)
{
    if (name.empty() || name.size() + 1 > kNameCapacity)
        return 0;
    local.sun_family = AF_UNIX;
    std::memcpy(local.sun_path + (abstract ? 1 : 0), name.data(), name.size());
    return static_cast<unsigned>(kNameOffset + 1 + name.size());
}

std::string_view local_name(const sockaddr_un& local, unsigned length)
{
    const bool abstract = local.sun_path[0] == '\0';
    return {local.sun_path + (abstract ? 1 : 0), length - kNameOffset - 1};
}

const char* family_name(sa_family_t family)
{
    switch (family) {
    case AF_UNIX:
        return "unix";
    case AF_INET:
        return "inet";
    default:
        return "inet6";
    }
}

/// The bytes that tell an address from others of its family.
std::string_view identity(const sockaddr* any, unsigned length)
{
    const char* begin = reinterpret_cast<const char*>(any);
    if (length == 0)
        return {};
    if (any->sa_family == AF_INET)
        return {begin + offsetof(sockaddr_in, sin_addr), sizeof(in_addr)};
    if (any->sa_family == AF_INET6)
        return {begin + offsetof(sockaddr_in6, sin6_addr), sizeof(in6_addr)};
    return {begin + kNameOffset, length - kNameOffset};
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool parse_mac(std::string_view text, std::array<std::uint8_t, 6>& bytes)
{
    constexpr std::size_t kTextSize = 17;
    if (text.size() != kTextSize || (text[2] != ':' && text[2] != '-'))
        return false;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const char* group = text.data() + 3 * i;
        const int high = hex_digit(group[0]);
        const int low = hex_digit(group[1]);
        if (high < 0 || low < 0 || (i + 1 < bytes.size() && group[2] != text[2]))
            return false;
        bytes[i] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return true;
}

} // namespace

address::address(const char* text)
{
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    sockaddr_un local{};
    if (!text)
        text = "";
    if (*text == ':' && text[1] != ':') { // "::1" is IPv6
        m_length = make_local(local, text + 1, true);
        m_storage.local = local;
    } else if (*text == '/') {
        m_length = make_local(local, text, false);
        m_storage.local = local;
    } else if (inet_pton(AF_INET, text, &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        m_storage.v4 = v4;
        m_length = sizeof v4;
    } else if (inet_pton(AF_INET6, text, &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        m_storage.v6 = v6;
        m_length = sizeof v6;
    }
    if (m_length == 0)
        base::set_error(Error::invalid_argument);
}

std::string address::to_string(bool with_family) const
{
    if (!is_valid())
        return {};
    std::string text;
    if (with_family)
        text.append(family_name(m_storage.any.sa_family)).append(" ");
    if (m_storage.any.sa_family == AF_UNIX) {
        if (m_storage.local.sun_path[0] == '\0')
            text.push_back(':');
        return text.append(local_name(m_storage.local, m_length));
    }
    const void* bytes = is_v4() ? static_cast<const void*>(&m_storage.v4.sin_addr) : &m_storage.v6.sin6_addr;
    char buffer[INET6_ADDRSTRLEN] = {};
    if (inet_ntop(m_storage.any.sa_family, bytes, buffer, sizeof buffer))
        text.append(buffer);
    return text;
}

bool operator<(const address& a, const address& b)
{
    const auto family_a = a.m_storage.any.sa_family;
    const auto family_b = b.m_storage.any.sa_family;
    if (family_a != family_b)
        return family_a < family_b;
    return identity(&a.m_storage.any, a.m_length) < identity(&b.m_storage.any, b.m_length);
}

bool operator==(const address& a, const address& b)
{
    return a.m_storage.any.sa_family == b.m_storage.any.sa_family &&
           identity(&a.m_storage.any, a.m_length) == identity(&b.m_storage.any, b.m_length);
}

macaddr::macaddr(const char* text)
{
    std::array<std::uint8_t, 6> bytes{};
    m_valid = text && parse_mac(text, bytes);
    if (m_valid)
        m_bytes = bytes;
    else
        base::set_error(Error::invalid_argument);
}

std::string macaddr::to_string(bool upper_case) const
{
    if (!m_valid)
        return {};
    const char* digits = upper_case ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string text(17, ':');
    for (std::size_t i = 0; i < m_bytes.size(); ++i) {
        text[3 * i] = digits[m_bytes[i] >> 4U];
        text[3 * i + 1] = digits[m_bytes[i] & 0xfU];
    }
    return text;
}

} // namespace orv::sockutl
