// An address holds other bytes than letters, digits and a few marks only as "%20" for a blank, which libdbus
// escapes and unescapes.

#include <orvexchange/address.h>

#include <orvbase/root.h>

#include <dbus/dbus.h>

#include <cstdlib>
#include <memory>

namespace {

struct FreeText {
    void operator()(char* text) const { dbus_free(text); }
};

struct FreeEntries {
    void operator()(DBusAddressEntry** entries) const { dbus_address_entries_free(entries); }
};

} // namespace

std::string orvex_address()
{
    const char* configured = std::getenv("ORVEX_ADDRESS");
    if (configured && *configured != '\0')
        return configured;
    const std::string socket = orv::base::root_path("run/exchange.skt");
    const std::unique_ptr<char, FreeText> escaped(dbus_address_escape_value(socket.c_str()));
    return std::string("unix:path=") + (escaped ? escaped.get() : "");
}

std::optional<std::string> orvex_socket_path(const std::string& address)
{
    DBusAddressEntry** parsed = nullptr;
    int count = 0;
    if (!dbus_parse_address(address.c_str(), &parsed, &count, nullptr))
        return std::nullopt;
    const std::unique_ptr<DBusAddressEntry*, FreeEntries> entries(parsed);
    const char* path = count > 0 ? dbus_address_entry_get_value(*parsed, "path") : nullptr;
    if (!path || std::string(dbus_address_entry_get_method(*parsed)) != "unix")
        return std::nullopt;
    return path;
}
