#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orv::sockutl {

/// A socket address, made from its text:
///   ":NAME"         an abstract Unix-domain name
///   "/PATH"         a Unix-domain socket in the file system
///   "192.168.1.20"  IPv4
///   "fe80::1"       IPv6
/// Ordered by family and then by its bytes, so that addresses can be members of a set.
class address {
public:
    address() = default;
    explicit address(const char* text);
    explicit address(const std::string& text) : address(text.c_str()) {}

    /// False when the text was no address; orv::_get_orverrno() is then 1.
    [[nodiscard]] bool is_valid() const { return m_length != 0; }
    [[nodiscard]] bool is_v4() const { return m_length != 0 && m_storage.any.sa_family == AF_INET; }

    operator sockaddr*() { return &m_storage.any; } // NOLINT(google-explicit-constructor)
    /// The length to pass to bind() and connect().
    operator unsigned int() const { return m_length; } // NOLINT(google-explicit-constructor)

    /// The address's text, as the constructor takes it; the family's name and a blank before it if asked for
    /// ("inet 192.168.1.20"). Empty for an invalid address.
    [[nodiscard]] std::string to_string(bool with_family) const;

    friend bool operator<(const address& a, const address& b);
    friend bool operator==(const address& a, const address& b);
    friend bool operator!=(const address& a, const address& b) { return !(a == b); }

private:
    union {
        sockaddr any;
        sockaddr_un local;
        sockaddr_in v4;
        sockaddr_in6 v6;
    } m_storage{};
    unsigned int m_length = 0;
};

/// A MAC address: six bytes.
class macaddr {
public:
    macaddr() = default;
    /// From six groups of two hexadecimal digits with ":" (or all with "-") between them, in either case.
    explicit macaddr(const char* text);
    explicit macaddr(const std::string& text) : macaddr(text.c_str()) {}

    [[nodiscard]] bool is_valid() const { return m_valid; }

    /// "aa:bb:cc:00:00:01", in upper case if asked for. Empty for an invalid address.
    [[nodiscard]] std::string to_string(bool upper_case) const;

    [[nodiscard]] const std::array<std::uint8_t, 6>& bytes() const { return m_bytes; }

    friend bool operator==(const macaddr& a, const macaddr& b)
    {
        return a.m_valid == b.m_valid && a.m_bytes == b.m_bytes;
    }
    friend bool operator!=(const macaddr& a, const macaddr& b) { return !(a == b); }
    friend bool operator<(const macaddr& a, const macaddr& b) { return a.m_bytes < b.m_bytes; }

private:
    std::array<std::uint8_t, 6> m_bytes{};
    bool m_valid = false;
};

/// The user on the other end of a connected Unix-domain socket: who connected, or, for a client, who listens.
/// One system call. Empty when that cannot be told: no such socket, or its other end is no process.
[[nodiscard]] std::optional<uid_t> peer_uid(int fd);

/// Who may connect, as a list "0,1000,..." of user numbers says. Root and this process's own user always may;
/// without a list, everybody may.
class AllowedUids {
public:
    /// Everybody.
    AllowedUids() = default;

    /// Those of the list; everybody for an empty one. A list that is anything but decimal numbers with one
    /// "," between them admits nobody else than root and this process's own user: see is_valid(). Throws
    /// std::bad_alloc.
    explicit AllowedUids(std::string_view list);

    /// False when the text was no such list: worth a line.
    [[nodiscard]] bool is_valid() const { return m_valid; }

    /// Whether nobody need be asked who he is.
    [[nodiscard]] bool admit_everybody() const { return m_everybody; }

    /// Whether this user may connect. One that cannot be told may only where everybody may.
    [[nodiscard]] bool admit(std::optional<uid_t> uid) const;

private:
    std::vector<uid_t> m_uids; ///< in ascending order
    uid_t m_own = 0;           ///< this process's, at the time of its making
    bool m_everybody = true;
    bool m_valid = true;
};

} // namespace orv::sockutl

template <>
struct std::hash<orv::sockutl::macaddr> {
    std::size_t operator()(const orv::sockutl::macaddr& mac) const noexcept
    {
        std::uint64_t value = 0;
        for (auto byte : mac.bytes())
            value = value << 8U | byte;
        return std::hash<std::uint64_t>()(value);
    }
};
