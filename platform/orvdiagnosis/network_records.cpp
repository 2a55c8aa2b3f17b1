#include "records.h"

#include <orvbase/root.h>
#include <orvutils/keys.h>
#include <orvutils/setmgmt.h>

#include <fmt/format.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace orv::diagnosis {
namespace {

struct InterfacesDeleter {
    void operator()(ifaddrs* interfaces) const { freeifaddrs(interfaces); }
};

/// The machine's interfaces, a list with one entry per interface and address.
using InterfacesPtr = std::unique_ptr<ifaddrs, InterfacesDeleter>;

InterfacesPtr list_interfaces()
{
    ifaddrs* interfaces = nullptr;
    return InterfacesPtr{getifaddrs(&interfaces) == 0 ? interfaces : nullptr};
}

/// Empty for anything but an IP address.
std::string address_text(const sockaddr* address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    const void* bytes = nullptr;
    if (address != nullptr && address->sa_family == AF_INET)
        bytes = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    if (address != nullptr && address->sa_family == AF_INET6)
        bytes = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (bytes == nullptr || inet_ntop(address->sa_family, bytes, text.data(), text.size()) == nullptr)
        return "";
    return text.data();
}

/// Null for what is not UTF-8.
json_t* text_or_null(const std::string& text)
{
    json_t* const value = json_string(text.c_str());
    return value != nullptr ? value : json_null();
}

/// {"name", "type", "state": "up"|"down"|"absent", "addresses": [...]}
JsonPtr interface_object(const std::string& name, const ifaddrs* interfaces)
{
    const std::string type = setMgmt::getKeyValue(kNetworkInterfacesKey / name, "");
    const char* state = "absent";
    JsonPtr addresses{json_array()};
    for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
        if (name != entry->ifa_name)
            continue;
        constexpr unsigned kUp = IFF_UP | IFF_RUNNING;
        state = (entry->ifa_flags & kUp) == kUp ? "up" : "down";
        const std::string address = address_text(entry->ifa_addr);
        if (!address.empty() && json_array_append_new(addresses.get(), json_string(address.c_str())) != 0)
            return nullptr;
    }
    return JsonPtr{json_pack("{s:o,s:o,s:s,s:o}", "name", text_or_null(name), "type", text_or_null(type),
                             "state", state, "addresses", addresses.release())};
}

/// The interfaces that the router's software has named, and what the kernel knows of them.
json_t* interfaces()
{
    std::vector<std::string> names;
    const InterfacesPtr present = list_interfaces();
    if (setMgmt::enumSubkeys(kNetworkInterfacesKey, names) < 0 || !present)
        return nullptr;
    JsonPtr list{json_array()};
    for (const auto& name : names)
        if (json_array_append_new(list.get(), interface_object(name, present.get()).release()) != 0)
            return nullptr;
    return list.release();
}

constexpr std::string_view kPathAddress = "unix:path=";

/// Addresses take other bytes than these only as "%20" for a blank.
std::string escape(std::string_view path)
{
    constexpr std::string_view kPlain =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_/.\\*";
    std::string text;
    for (const char c : path)
        if (kPlain.find(c) != std::string_view::npos)
            text += c;
        else
            text += fmt::format("%{:02x}", static_cast<unsigned char>(c));
    return text;
}

/// Where the exchange library looks for the exchange.
std::string exchange_address()
{
    if (const char* const address = std::getenv("ORVEX_ADDRESS"); address != nullptr && *address != '\0')
        return address;
    return std::string(kPathAddress) + escape(base::root_path("run/exchange.skt"));
}

/// The opposite of escape(); empty when a "%" is not followed by two digits.
std::optional<std::string> unescape(std::string_view text)
{
    constexpr int kHexadecimal = 16;
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            plain += text[i];
            continue;
        }
        const std::string_view digits = text.substr(i + 1, 2);
        unsigned char byte = 0;
        const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), byte, kHexadecimal);
        if (digits.size() != 2 || parsed.ptr != digits.data() + digits.size())
            return std::nullopt;
        plain += static_cast<char>(byte);
        i += 2;
    }
    return plain;
}

/// The path of the exchange's socket; empty for an address of another kind.
std::optional<std::string> socket_path(std::string_view address)
{
    if (address.substr(0, kPathAddress.size()) != kPathAddress)
        return std::nullopt;
    address.remove_prefix(kPathAddress.size());
    return unescape(address.substr(0, address.find_first_of(",;")));
}

/// Whether somebody listens there. EAGAIN is a listener with a full queue.
bool is_listening(const sockaddr_un& address)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return false;
    const bool is_connected =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN;
    close(fd);
    return is_connected;
}

json_t* address()
{
    return json_string(exchange_address().c_str());
}

json_t* reachable()
{
    const auto path = socket_path(exchange_address());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!path || path->size() >= sizeof address.sun_path)
        return nullptr;
    std::memcpy(address.sun_path, path->c_str(), path->size());
    return json_boolean(is_listening(address));
}

} // namespace

std::vector<Record> network_records()
{
    return {
        {{"network", "interfaces"}, interfaces},
        {{"exchange", "address"}, address},
        {{"exchange", "reachable"}, reachable},
    };
}

} // namespace orv::diagnosis
