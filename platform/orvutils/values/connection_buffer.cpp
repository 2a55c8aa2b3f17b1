// The queue is a ring: pending bytes begin at m_read, run to the end of the storage and go on at its start.
// So neither taking a record out nor putting one in ever moves what else is pending, however full the buffer
// is, and a peer that keeps megabytes in it costs no more than others. Whenever the ring runs empty both
// positions return to the start, so that in practice it is seldom wrapped at all.
//
// A delimiter is searched for only among bytes that no earlier search has seen (m_searched): a long line that
// arrives in small pieces costs time linear in its length. It follows that a buffer is read with one
// delimiter throughout.
//
// Everything but reset() belongs to the thread that serves the connection and takes no lock.

#include <orvutils/connection_buffer.h>

#include <orvutils/log_format.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace orv {

namespace {

/// A buffer that has grown beyond this held an answer that took much memory to make.
constexpr unsigned kLarge = 64 * 1024;

/// What C libraries note beside a block. With it, one of a power of two would be of the next larger class:
/// musl takes 4656 bytes for 4096, and there are two for each connection.
constexpr unsigned kNote = 32;

/// What made a large answer is freed by now, in many small pieces. glibc keeps such memory for itself unless
/// it is told; other C libraries give it back by themselves.
void give_memory_back()
{
#ifdef __GLIBC__
    (void)malloc_trim(0);
#endif
}

/// Up to two stretches of memory, in order; unused ones are empty.
using Stretches = std::array<iovec, 2>;

/// The `length` bytes of a ring that begin at `from`.
Stretches stretches(char* storage, unsigned capacity, char* from, unsigned length)
{
    const unsigned to_end = capacity - static_cast<unsigned>(from - storage);
    const unsigned first = std::min(length, to_end);
    return {iovec{from, first}, iovec{storage, length - first}};
}

char* advance(char* storage, unsigned capacity, char* position, unsigned bytes)
{
    const unsigned to_end = capacity - static_cast<unsigned>(position - storage);
    return bytes < to_end ? position + bytes : storage + (bytes - to_end);
}

void copy_in(const Stretches& to, const char* from)
{
    for (const iovec& stretch : to) {
        std::memcpy(stretch.iov_base, from, stretch.iov_len);
        from += stretch.iov_len;
    }
}

void copy_out(char* to, const Stretches& from)
{
    for (const iovec& stretch : from) {
        std::memcpy(to, stretch.iov_base, stretch.iov_len);
        to += stretch.iov_len;
    }
}

/// The offset of the first `delimiter` in the stretches; their whole length if there is none.
unsigned find(const Stretches& in, char delimiter)
{
    std::size_t before = 0;
    for (const iovec& stretch : in) {
        const char* begin = static_cast<const char*>(stretch.iov_base);
        const void* found = std::memchr(begin, delimiter, stretch.iov_len);
        if (found)
            return static_cast<unsigned>(before +
                                         static_cast<std::size_t>(static_cast<const char*>(found) - begin));
        before += stretch.iov_len;
    }
    return static_cast<unsigned>(before);
}

} // namespace

ConnectionBuffer::ConnectionBuffer(ConnectionBufferType type, const std::string& name)
    : m_type(type), m_name(name)
{
}

ConnectionBuffer::~ConnectionBuffer()
{
    uninit();
}

bool ConnectionBuffer::init(unsigned initial, unsigned maximum)
{
    if (initial == 0 || initial > maximum || maximum >= static_cast<unsigned>(kWouldBlock))
        return false;
    uninit();
    if (initial > 16 * kNote)
        initial -= kNote;
    m_storage =
        static_cast<char*>(std::malloc(initial)); // NOLINT(cppcoreguidelines-no-malloc): grown by realloc()
    if (!m_storage)
        return false;
    m_read = m_write = m_storage;
    m_capacity = m_initial = initial;
    m_maximum = maximum;
    return true;
}

void ConnectionBuffer::uninit()
{
    std::free(m_storage); // NOLINT(cppcoreguidelines-no-malloc)
    m_storage = m_read = m_write = nullptr;
    m_length = m_searched = 0;
    m_capacity = m_initial = m_maximum = 0;
}

int ConnectionBuffer::recv(int fd, int flags)
{
    if (m_length == m_maximum)
        return 0;
    if (!make_room(1))
        return -1;
    const iovec room = stretches(m_storage, m_capacity, m_write, m_capacity - m_length)[0];
    ssize_t received = 0;
    do
        received = ::recv(fd, room.iov_base, room.iov_len, flags | MSG_DONTWAIT);
    while (received == -1 && errno == EINTR);
    if (received == -1)
        return errno == EAGAIN || errno == EWOULDBLOCK ? kWouldBlock : -1;
    m_write = advance(m_storage, m_capacity, m_write, static_cast<unsigned>(received));
    m_length += static_cast<unsigned>(received);
    return static_cast<int>(received);
}

char* ConnectionBuffer::get(char delimiter)
{
    if (m_searched == m_length)
        return nullptr;
    char* unseen = advance(m_storage, m_capacity, m_read, m_searched);
    m_searched += find(stretches(m_storage, m_capacity, unseen, m_length - m_searched), delimiter);
    if (m_searched == m_length)
        return nullptr;
    const unsigned size = m_searched;
    char* record = new char[size + std::size_t{1}];
    copy_out(record, stretches(m_storage, m_capacity, m_read, size));
    record[size] = '\0';
    drop(size + 1);
    return record;
}

unsigned ConnectionBuffer::put(const void* data, unsigned length)
{
    const unsigned wanted = std::min(length, m_maximum - m_length);
    (void)make_room(wanted); // without memory for all of it, what fits is taken
    const unsigned taken = std::min(wanted, m_capacity - m_length);
    if (taken == 0)
        return 0;
    copy_in(stretches(m_storage, m_capacity, m_write, taken), static_cast<const char*>(data));
    m_write = advance(m_storage, m_capacity, m_write, taken);
    m_length += taken;
    return taken;
}

int ConnectionBuffer::send(int fd, int max_bytes)
{
    if (m_length == 0 || max_bytes <= 0)
        return static_cast<int>(m_length);
    const unsigned limit = std::min(m_length, static_cast<unsigned>(max_bytes));
    const iovec next = stretches(m_storage, m_capacity, m_read, limit)[0];
    ssize_t sent = 0;
    do
        sent = ::send(fd, next.iov_base, next.iov_len, MSG_DONTWAIT | MSG_NOSIGNAL);
    while (sent == -1 && errno == EINTR);
    if (sent == -1 && errno != EAGAIN && errno != EWOULDBLOCK)
        return -1;
    if (sent > 0)
        drop(static_cast<unsigned>(sent));
    return static_cast<int>(m_length);
}

void ConnectionBuffer::reset()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    drop(m_length);
}

bool ConnectionBuffer::make_room(unsigned wanted)
{
    if (m_capacity - m_length >= wanted)
        return true;
    unsigned capacity = m_capacity;
    while (capacity - m_length < wanted && capacity < m_maximum)
        capacity = capacity > m_maximum / 2 ? m_maximum : capacity * 2;
    return resize(capacity);
}

/// A ring that is wrapped when it grows gets the new room in its gap: what lies before the old end moves to
/// the new.
bool ConnectionBuffer::resize(unsigned capacity)
{
    const auto begin = static_cast<unsigned>(m_read - m_storage);
    const unsigned to_end = m_capacity - begin;
    void* storage = std::realloc(m_storage, capacity); // NOLINT(cppcoreguidelines-no-malloc)
    if (!storage) {
        ORV_LOG(log::kWarning, "no memory for {} bytes in the {} buffer of {}", capacity,
                m_type == ConnectionBufferType::send ? "send" : "receive", m_name);
        return false;
    }
    m_storage = static_cast<char*>(storage);
    m_read = m_storage + begin;
    if (m_length > to_end) {
        m_read = m_storage + (capacity - to_end);
        std::memmove(m_read, m_storage + begin, to_end);
    }
    m_capacity = capacity;
    m_write = advance(m_storage, m_capacity, m_read, m_length);
    return true;
}

void ConnectionBuffer::drop(unsigned bytes)
{
    m_read = advance(m_storage, m_capacity, m_read, bytes);
    m_length -= bytes;
    m_searched = 0;
    if (m_length != 0)
        return;
    m_read = m_write = m_storage;
    if (m_capacity == m_initial)
        return;
    const bool was_large = m_capacity > kLarge;
    (void)resize(m_initial); // else it stays as large as it is
    if (was_large)
        give_memory_back();
}

} // namespace orv
