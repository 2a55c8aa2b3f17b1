// The router's software names the interfaces that count, the kernel says how they are. Whether the exchange
// can be reached is found out by connecting to it, without waiting: the kernel answers for whoever listens.

#include "records.h"

#include <orvbase/descriptor.h>
#include <orvexchange/address.h>
#include <orvutils/keys.h>
#include <orvutils/setmgmt.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

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
    if (address && address->sa_family == AF_INET)
        bytes = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    if (address && address->sa_family == AF_INET6)
        bytes = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (!bytes || !inet_ntop(address->sa_family, bytes, text.data(), text.size()))
        return "";
    return text.data();
}

/// Null for what is not UTF-8.
json_t* text_or_null(const std::string& text)
{
    json_t* value = json_string(text.c_str());
    return value ? value : json_null();
}

/// {"name", "type", "state": "up"|"down"|"absent", "addresses": [...]}
JsonPtr interface_object(const std::string& name, const ifaddrs* interfaces)
{
    const std::string type = setMgmt::getKeyValue(kNetworkInterfacesKey / name, "");
    const char* state = "absent";
    JsonPtr addresses{json_array()};
    for (const ifaddrs* entry = interfaces; entry; entry = entry->ifa_next) {
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

/// Whether somebody listens there. EAGAIN is a listener with a full queue.
bool is_listening(const sockaddr_un& address)
{
    const base::Descriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!client.is_open())
        return false;
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    return connect(client.get(), name, sizeof address) == 0 || errno == EAGAIN;
}

json_t* address()
{
    return json_string(orvex_address().c_str());
}

json_t* reachable()
{
    const auto path = orvex_socket_path(orvex_address());
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
