// libdbus makes and reads the messages; the connection is ours, since libdbus' own connects with a blocking
// socket: a listener whose queue is full would stop the whole daemon, and an attempt of our own beforehand
// would take the last place in that queue itself.
//
// A client sends a NUL byte and "AUTH EXTERNAL" with its user's number, the bus, which knows that number from
// the kernel, answers "OK", the client says "BEGIN", and from then on messages follow each other without
// anything between. The passing of descriptors is not asked for, so none can come.
//
// One message at a time is held as it is read; what follows it waits in the socket until it was taken out.
// Its length is known from its first bytes, so the room for it is made at once and given back afterwards. A
// message for which there is no room, or which is larger than any that counts, is read past; its header says
// whom to tell.

#include "link.h"

#include <orvutils/log_format.h>

#include <dbus/dbus.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace orv::exchange {
namespace {

/// Room that is always there: many small messages, or the header of a large one.
constexpr std::size_t kInputSize = 8192;
/// Bytes that are read in one pass, at most: a message of megabytes leaves the caller time for its other
/// work.
constexpr std::size_t kMaxReadAtOnce = std::size_t{256} * 1024;
/// A line of the greeting is shorter.
constexpr std::size_t kMaxGreeting = 1024;
constexpr char kBegin[] = "BEGIN\r\n";

struct FreeEntries {
    void operator()(DBusAddressEntry** entries) const { dbus_address_entries_free(entries); }
};

struct SocketName {
    sockaddr_un address{};
    socklen_t size = 0;
};

/// The name of a Unix socket's entry in a D-Bus address.
std::optional<SocketName> socket_name(DBusAddressEntry* entry)
{
    const char* path = dbus_address_entry_get_value(entry, "path");
    const char* abstract = dbus_address_entry_get_value(entry, "abstract");
    const char* text = path ? path : abstract;
    if (std::strcmp(dbus_address_entry_get_method(entry), "unix") != 0 || !text)
        return std::nullopt;
    SocketName name;
    const std::size_t offset = path ? 0 : 1; // an abstract name begins with a NUL byte
    const std::size_t length = std::strlen(text);
    if (length + 1 > sizeof name.address.sun_path)
        return std::nullopt;
    name.address.sun_family = AF_UNIX;
    std::memcpy(name.address.sun_path + offset, text, length);
    name.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length + 1);
    return name;
}

/// 0, or the error's number.
int connect_to(const SocketName& name, base::Descriptor& to)
{
    base::Descriptor fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!fd.is_open())
        return errno;
    int result = 0;
    do
        result = connect(fd.get(), reinterpret_cast<const sockaddr*>(&name.address), name.size);
    while (result != 0 && errno == EINTR);
    if (result != 0)
        return errno;
    to = std::move(fd);
    return 0;
}

/// Connects to the first entry of an address where that succeeds. As connect_to().
int connect_to(const std::string& address, base::Descriptor& to)
{
    DBusAddressEntry** parsed = nullptr;
    int count = 0;
    if (!dbus_parse_address(address.c_str(), &parsed, &count, nullptr))
        return EINVAL;
    const std::unique_ptr<DBusAddressEntry*, FreeEntries> entries(parsed);
    int error = EAFNOSUPPORT;
    for (int i = 0; i < count && error != 0; ++i)
        if (const auto name = socket_name(parsed[i]))
            error = connect_to(*name, to);
    return error;
}

bool is_interrupted(ssize_t result)
{
    return result < 0 && errno == EINTR;
}

} // namespace

void Link::Free::operator()(char* bytes) const
{
    std::free(bytes); // NOLINT(cppcoreguidelines-no-malloc): libdbus' blocks come from malloc, and ours grow
}

Opened Link::open(const std::string& address, ShortText& error)
{
    const int failure = connect_to(address, m_socket);
    if (failure == EAGAIN) {
        error = ShortText{"too many wait for it already"};
        return Opened::full;
    }
    if (failure == EINVAL || failure == EAFNOSUPPORT) {
        error = ShortText{"{} is no address of a Unix socket", address};
        return Opened::failed;
    }
    if (failure != 0) {
        error = ShortText{"{}", std::strerror(failure)};
        return Opened::failed;
    }
    epoll_event event{};
    event.events = m_registered = EPOLLIN;
    event.data.u32 = m_tag;
    if (resize(kInputSize) && epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_socket.get(), &event) == 0 && greet())
        return Opened::connected;
    error = ShortText{"{}", std::strerror(errno)};
    return Opened::failed;
}

Link::~Link()
{
    write_out();
    // A child that has not got to its exec() yet keeps the socket open, and with it epoll's entry.
    if (m_socket.is_open())
        (void)epoll_ctl(m_epoll, EPOLL_CTL_DEL, m_socket.get(), nullptr);
}

bool Link::greet()
{
    char user[16];
    std::snprintf(user, sizeof user, "%lu", static_cast<unsigned long>(geteuid()));
    char line[64];
    char* at = line;
    *at++ = '\0';
    at += std::snprintf(at, 32, "AUTH EXTERNAL ");
    for (const char* digit = user; *digit != '\0'; ++digit)
        at += std::snprintf(at, 3, "%02x", static_cast<unsigned>(*digit));
    *at++ = '\r';
    *at++ = '\n';
    return write_whole(line, static_cast<std::size_t>(at - line));
}

/// What belongs to the greeting. Nothing else is in the socket's buffer then, so it fits.
bool Link::write_whole(const char* text, std::size_t size)
{
    ssize_t written = 0;
    do
        written = ::send(m_socket.get(), text, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    while (is_interrupted(written));
    return written == static_cast<ssize_t>(size);
}

// ---- writing

std::uint32_t Link::take_serial()
{
    if (++m_serial == 0)
        ++m_serial;
    return m_serial;
}

bool Link::send(DBusMessage& message, std::uint32_t serial)
{
    char* bytes = nullptr;
    int size = 0;
    if (m_is_mute)
        return true; // as lost as what is on its way already: the connection's end is read next
    if (m_queued > kMaxQueued)
        return false;
    dbus_message_set_serial(&message, serial);
    if (!dbus_message_marshal(&message, &bytes, &size))
        return false;
    Output output{Block{bytes}, static_cast<std::size_t>(size)};
    if (output.size > kMaxQueued - m_queued)
        return false;
    const std::size_t added = output.size;
    try {
        m_output.push_back(std::move(output));
    } catch (const std::bad_alloc&) {
        return false;
    }
    m_queued += added;
    if (m_output.size() == 1)
        write_out();
    return true;
}

void Link::write_out()
{
    while (m_is_let_in && !m_is_mute && !m_output.empty()) {
        const Output& first = m_output.front();
        const ssize_t written = ::send(m_socket.get(), first.bytes.get() + m_written, first.size - m_written,
                                       MSG_NOSIGNAL | MSG_DONTWAIT);
        if (is_interrupted(written))
            continue;
        if (written < 0) {
            // What the other end has sent before it left is still read, and then its end.
            m_is_mute = errno != EAGAIN && errno != ENOBUFS && errno != ENOMEM;
            return;
        }
        m_written += static_cast<std::size_t>(written);
        m_queued -= static_cast<std::size_t>(written);
        if (m_written == first.size) {
            m_output.pop_front();
            m_written = 0;
        }
    }
}

// ---- reading

void Link::handle(std::uint32_t events)
{
    m_is_hung_up = (events & (EPOLLHUP | EPOLLERR)) != 0;
    if ((events & EPOLLOUT) != 0)
        write_out();
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0)
        read_in();
}

void Link::read_in()
{
    std::size_t allowance = kMaxReadAtOnce;
    while (!m_is_over && allowance > 0 && !has_news() && read_once(allowance)) {
    }
}

/// False when there is nothing more to be read now. A read that leaves room has emptied the socket, and what
/// is left then, where the other end has gone, is its end.
bool Link::read_once(std::size_t& allowance)
{
    if (!make_room()) {
        if (!has_frame())
            end(); // not even room for a header; else the message is given up, as pop() tells
        return false;
    }
    const std::size_t room = std::min(m_capacity - m_end, allowance);
    const ssize_t size = recv(m_socket.get(), m_input.get() + m_end, room, MSG_DONTWAIT);
    if (is_interrupted(size))
        return true;
    if (size < 0 && (errno == EAGAIN || errno == ENOMEM || errno == ENOBUFS))
        return false;
    if (size <= 0) {
        m_is_over = true;
        return false;
    }
    m_end += static_cast<std::size_t>(size);
    allowance -= static_cast<std::size_t>(size);
    const std::size_t skipped = std::min(m_skip, held());
    m_skip -= skipped;
    consume(skipped);
    if (!m_is_let_in)
        take_greeting();
    return m_is_hung_up || static_cast<std::size_t>(size) == room;
}

/// The bus's word on our greeting; messages may follow it at once.
void Link::take_greeting()
{
    const char* text = m_input.get() + m_begin;
    const void* line_end = std::memchr(text, '\n', held());
    if (!line_end) {
        if (held() > kMaxGreeting)
            end();
        return;
    }
    const bool is_let_in = held() > 3 && std::memcmp(text, "OK ", 3) == 0;
    m_is_refused = !is_let_in;
    consume(static_cast<std::size_t>(static_cast<const char*>(line_end) + 1 - text));
    if (!is_let_in || !write_whole(kBegin, sizeof kBegin - 1))
        return end();
    m_is_let_in = true;
    write_out();
}

std::optional<FrameSize> Link::next_frame() const
{
    if (!m_is_let_in || m_skip != 0 || held() < kFramePrefix)
        return std::nullopt;
    return frame_size(m_input.get() + m_begin);
}

/// Whether pop() has something to work with: a whole message, or the header of one that is not to be held, or
/// what is no message at all.
bool Link::has_frame() const
{
    if (!m_is_let_in || m_skip != 0 || held() < kFramePrefix)
        return false;
    const auto size = next_frame();
    if (!size)
        return true;
    const bool is_held = size->total <= kMaxFrame && !m_lacks_memory;
    return held() >= (is_held ? size->total : size->header);
}

/// Makes room to read into: for all of the message that is coming in, when it is one to be held.
bool Link::make_room()
{
    const auto size = next_frame();
    std::size_t wanted = kInputSize;
    if (size)
        wanted = std::max(wanted, size->total <= kMaxFrame && !m_lacks_memory ? size->total : size->header);
    if (m_begin > 0) {
        std::memmove(m_input.get(), m_input.get() + m_begin, held());
        m_end = held();
        m_begin = 0;
    }
    if (wanted <= m_capacity || resize(wanted))
        return m_end < m_capacity;
    m_lacks_memory = true;
    wanted = std::max(kInputSize, size->header);
    return (wanted <= m_capacity || resize(wanted)) && m_end < m_capacity;
}

bool Link::resize(std::size_t capacity)
{
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): it grows and shrinks without a second block beside it
    auto* bytes = static_cast<char*>(std::realloc(m_input.get(), capacity));
    if (!bytes)
        return false;
    (void)m_input.release(); // realloc() has it
    m_input.reset(bytes);
    m_capacity = capacity;
    return true;
}

void Link::consume(std::size_t size)
{
    m_begin += size;
    if (m_begin < m_end)
        return;
    m_begin = m_end = 0;
    if (m_capacity > kInputSize)
        (void)resize(kInputSize); // else it is kept
}

std::optional<Arrival> Link::pop()
{
    if (m_is_hung_up)
        read_in(); // so that what it said last and its end are seen in one pass
    if (!has_frame())
        return std::nullopt;
    const auto size = next_frame();
    if (!size || size->total > DBUS_MAXIMUM_MESSAGE_LENGTH) {
        end();
        return std::nullopt;
    }
    if (size->total > kMaxFrame)
        return lose(Arrival::Loss::too_large, *size);
    if (m_lacks_memory)
        return lose(Arrival::Loss::no_memory, *size);
    DBusError error = DBUS_ERROR_INIT;
    Arrival arrival;
    arrival.size = size->total;
    arrival.message.reset(
        dbus_message_demarshal(m_input.get() + m_begin, static_cast<int>(size->total), &error));
    if (!arrival.message) {
        const bool is_malformed = !dbus_error_has_name(&error, DBUS_ERROR_NO_MEMORY);
        dbus_error_free(&error);
        if (!is_malformed)
            return lose(Arrival::Loss::no_memory, *size);
        end();
        return std::nullopt;
    }
    consume(size->total);
    return arrival;
}

Arrival Link::lose(Arrival::Loss loss, const FrameSize& size)
{
    Arrival arrival;
    arrival.loss = loss;
    arrival.size = size.total;
    arrival.header = read_frame_header(m_input.get() + m_begin, size.header);
    const std::size_t there = std::min(held(), size.total);
    m_skip = size.total - there;
    m_lacks_memory = false;
    consume(there);
    return arrival;
}

bool Link::has_news() const
{
    return has_frame() || m_is_over;
}

bool Link::has_ended() const
{
    return m_is_over && !has_frame();
}

void Link::end()
{
    m_is_over = m_is_mute = true;
    m_begin = m_end = 0;
}

void Link::update_interest()
{
    const std::uint32_t wanted = EPOLLIN | (m_is_let_in && !m_is_mute && !m_output.empty() ? EPOLLOUT : 0U);
    if (wanted == m_registered)
        return;
    epoll_event event{};
    event.events = wanted;
    event.data.u32 = m_tag;
    if (epoll_ctl(m_epoll, EPOLL_CTL_MOD, m_socket.get(), &event) == 0)
        m_registered = wanted;
    else
        ORV_LOG(log::kError, "cannot watch the exchange's socket: {}", std::strerror(errno));
}

} // namespace orv::exchange
