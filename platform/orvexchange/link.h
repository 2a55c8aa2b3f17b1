#pragma once

#include "wire.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct DBusConnection;
struct DBusWatch;

namespace orv::exchange {

/// One connection to the bus, driven by an epoll descriptor of its owner. Nothing here blocks, and messages
/// are only ever taken out by pop().
class Link {
public:
    /// Connects; the socket appears on `epoll` with `tag` as its data. Null, with the reason in `error`, when
    /// nobody listens at the address.
    [[nodiscard]] static std::unique_ptr<Link> open(const std::string& address, int epoll, std::uint32_t tag,
                                                    std::string& error);
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    /// Writes out what was sent, as far as that does not block, and disconnects.
    ~Link();

    /// Queues a message and writes as much as the socket takes. The message's serial, or nothing when memory
    /// is short.
    [[nodiscard]] std::optional<std::uint32_t> send(DBusMessage& message);
    /// Bytes that are queued and not yet written.
    [[nodiscard]] std::size_t queued() const;

    /// Reads and writes what the socket is ready for; `events` are epoll's.
    void handle(std::uint32_t events);
    /// The next message received, null when there is none. The last one is libdbus' own "Disconnected".
    [[nodiscard]] MessagePtr pop();
    /// Whether pop() would give one.
    [[nodiscard]] bool has_messages() const;
    /// Tells epoll what the socket is to be watched for, if that has changed. To be called before waiting.
    void update_interest();

private:
    Link(DBusConnection* connection, int epoll, std::uint32_t tag);
    [[nodiscard]] bool attach();
    void write_out();
    [[nodiscard]] bool add(DBusWatch* watch);
    void remove(DBusWatch* watch);
    [[nodiscard]] std::uint32_t wanted_events() const;

    DBusConnection* m_connection;
    const int m_epoll;
    const std::uint32_t m_tag;
    std::vector<DBusWatch*> m_watches; ///< libdbus': one for reading, one for writing, of the same socket
    int m_socket = -1;                 ///< libdbus'; -1 when it is not on m_epoll
    std::uint32_t m_registered = 0;    ///< what it is watched for there
};

} // namespace orv::exchange
