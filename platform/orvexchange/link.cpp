// libdbus switches its writing watch on and off again around every message that it sends. Only what is left
// when the caller is done matters, so the change is noted and epoll told later, which for most messages means
// never.
//
// Connecting to a Unix socket is immediate: the bus need not even run for it, the kernel's queue of its
// listening socket is enough. All that follows (authentication, Hello) is ordinary reading and writing.

#include "link.h"

#include <orvutils/log_format.h>

#include <dbus/dbus.h>

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace orv::exchange {
namespace {

unsigned int watch_flags(std::uint32_t events)
{
    unsigned int flags = 0;
    if ((events & EPOLLIN) != 0)
        flags |= DBUS_WATCH_READABLE;
    if ((events & EPOLLOUT) != 0)
        flags |= DBUS_WATCH_WRITABLE;
    if ((events & EPOLLERR) != 0)
        flags |= DBUS_WATCH_ERROR;
    if ((events & EPOLLHUP) != 0)
        flags |= DBUS_WATCH_HANGUP;
    return flags;
}

} // namespace

std::unique_ptr<Link> Link::open(const std::string& address, int epoll, std::uint32_t tag, std::string& error)
{
    DBusError failure = DBUS_ERROR_INIT;
    // libdbus writes with MSG_NOSIGNAL and need not change what SIGPIPE does to the whole program.
    dbus_connection_set_change_sigpipe(FALSE);
    DBusConnection* connection = dbus_connection_open_private(address.c_str(), &failure);
    if (!connection) {
        error = failure.message;
        dbus_error_free(&failure);
        return nullptr;
    }
    std::unique_ptr<Link> link{new Link{connection, epoll, tag}};
    if (link->attach())
        return link;
    error = "cannot watch the socket";
    return nullptr;
}

Link::Link(DBusConnection* connection, int epoll, std::uint32_t tag)
    : m_connection(connection), m_epoll(epoll), m_tag(tag)
{
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
}

bool Link::attach()
{
    const auto add_watch = [](DBusWatch* watch, void* link) -> dbus_bool_t {
        return static_cast<Link*>(link)->add(watch) ? TRUE : FALSE;
    };
    const auto remove_watch = [](DBusWatch* watch, void* link) { static_cast<Link*>(link)->remove(watch); };
    const auto toggle_watch = [](DBusWatch*, void*) {}; // update_interest() looks at all of them
    return dbus_connection_set_watch_functions(m_connection, add_watch, remove_watch, toggle_watch, this,
                                               nullptr) != FALSE;
}

Link::~Link()
{
    write_out();
    dbus_connection_close(m_connection);
    (void)dbus_connection_set_watch_functions(m_connection, nullptr, nullptr, nullptr, nullptr, nullptr);
    dbus_connection_unref(m_connection);
}

std::optional<std::uint32_t> Link::send(DBusMessage& message)
{
    dbus_uint32_t serial = 0;
    if (!dbus_connection_send(m_connection, &message, &serial))
        return std::nullopt;
    return serial;
}

std::size_t Link::queued() const
{
    return static_cast<std::size_t>(dbus_connection_get_outgoing_size(m_connection));
}

void Link::handle(std::uint32_t events)
{
    const unsigned int flags = watch_flags(events);
    const std::vector<DBusWatch*> watches = m_watches; // handling one may remove all
    for (DBusWatch* watch : watches) {
        const bool is_there = std::find(m_watches.begin(), m_watches.end(), watch) != m_watches.end();
        const unsigned int ready =
            is_there ? flags & (dbus_watch_get_flags(watch) | DBUS_WATCH_ERROR | DBUS_WATCH_HANGUP) : 0;
        if (ready != 0)
            (void)dbus_watch_handle(watch, ready); // short of memory: the socket stays ready
    }
}

MessagePtr Link::pop()
{
    return MessagePtr{dbus_connection_pop_message(m_connection)};
}

bool Link::has_messages() const
{
    return dbus_connection_get_dispatch_status(m_connection) != DBUS_DISPATCH_COMPLETE;
}

void Link::update_interest()
{
    const std::uint32_t wanted = wanted_events();
    if (m_socket < 0 || wanted == m_registered)
        return;
    epoll_event event{};
    event.events = wanted;
    event.data.u32 = m_tag;
    if (epoll_ctl(m_epoll, EPOLL_CTL_MOD, m_socket, &event) == 0)
        m_registered = wanted;
    else
        ORV_LOG(log::kError, "cannot watch the exchange's socket: {}", std::strerror(errno));
}

void Link::write_out()
{
    // Before the bus has authenticated us there may be messages, but nothing that could be written.
    while (m_socket >= 0 && (wanted_events() & EPOLLOUT) != 0) {
        pollfd writable{m_socket, POLLOUT, 0};
        if (poll(&writable, 1, 0) != 1 || (writable.revents & (POLLERR | POLLHUP)) != 0)
            return;
        handle(EPOLLOUT);
    }
}

bool Link::add(DBusWatch* watch)
{
    if (m_socket < 0) {
        const int socket = dbus_watch_get_unix_fd(watch);
        epoll_event event{};
        event.data.u32 = m_tag;
        if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, socket, &event) != 0)
            return false;
        m_socket = socket;
        m_registered = 0;
    }
    m_watches.push_back(watch);
    return true;
}

void Link::remove(DBusWatch* watch)
{
    m_watches.erase(std::remove(m_watches.begin(), m_watches.end(), watch), m_watches.end());
    if (!m_watches.empty() || m_socket < 0)
        return;
    // libdbus closes the socket next: a failure leaves nothing behind.
    (void)epoll_ctl(m_epoll, EPOLL_CTL_DEL, m_socket, nullptr);
    m_socket = -1;
}

std::uint32_t Link::wanted_events() const
{
    std::uint32_t events = 0;
    for (DBusWatch* watch : m_watches) {
        if (!dbus_watch_get_enabled(watch))
            continue;
        const unsigned int flags = dbus_watch_get_flags(watch);
        events |= (flags & DBUS_WATCH_READABLE) != 0 ? EPOLLIN : 0U;
        events |= (flags & DBUS_WATCH_WRITABLE) != 0 ? EPOLLOUT : 0U;
    }
    return events;
}

} // namespace orv::exchange
