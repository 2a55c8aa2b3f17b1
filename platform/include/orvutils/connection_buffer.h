#pragma once

#include <mutex>
#include <string>

namespace orv {

enum class ConnectionBufferType : int {
    send = 0,
    receive = 1,
};

/// A byte queue between a stream socket and its user: grows from its initial size up to a maximum, and gives
/// memory above the initial size back as soon as it is empty. Neither reading nor writing ever blocks or
/// raises SIGPIPE, whatever the socket's own mode.
class ConnectionBuffer {
public:
    /// The name appears in messages about this buffer.
    ConnectionBuffer(ConnectionBufferType type, const std::string& name);
    ConnectionBuffer(const ConnectionBuffer&) = delete;
    ConnectionBuffer& operator=(const ConnectionBuffer&) = delete;
    ~ConnectionBuffer();

    /// Allocates `initial` bytes, or a little less, so that with the C library's own note they are no more;
    /// the buffer never holds more than `maximum`. False when the sizes make no sense or memory is short.
    [[nodiscard]] bool init(unsigned initial, unsigned maximum);

    /// Frees the storage and whatever is still in it. May be called in any state.
    void uninit();

    /// Reads once from the socket what it has and there is room for (flags as for recv()). Returns the number
    /// of bytes added; kWouldBlock, which is above 0, when there was nothing to read; 0 when the peer has
    /// closed the connection or the buffer is at its maximum; -1 on an error.
    [[nodiscard]] int recv(int fd, int flags);

    /// Nothing was read, and that is no end of file: the value recv() then returns.
    static constexpr int kWouldBlock = 0x7fffffff;

    /// Takes the first record that ends with `delimiter` out of the buffer and returns it without the
    /// delimiter, as a NUL-terminated text that the caller frees with delete[]. Null when there is no whole
    /// record yet. Throws std::bad_alloc when there is no memory for it, which then stays in the buffer.
    [[nodiscard]] char* get(char delimiter);

    /// Appends as much as fits below the maximum; returns the number of bytes taken, 0 when full.
    [[nodiscard]] unsigned put(const void* data, unsigned length);

    /// Writes at most `max_bytes` of what is pending. Returns the number of bytes still pending (0 when the
    /// buffer is empty), or -1 on an error. A socket that takes nothing now is no error.
    [[nodiscard]] int send(int fd, int max_bytes);

    /// Drops what the buffer holds.
    void reset();

    [[nodiscard]] unsigned pending() const { return m_length; }
    /// Bytes of storage held now.
    [[nodiscard]] unsigned capacity() const { return m_capacity; }

private:
    bool make_room(unsigned wanted);
    bool resize(unsigned capacity);
    void drop(unsigned bytes);

    std::mutex m_mutex; ///< held by reset()
    char* m_storage = nullptr;
    char* m_read = nullptr;  ///< first pending byte
    char* m_write = nullptr; ///< where the next byte goes (the storage is a ring)
    unsigned m_length = 0;   ///< pending bytes
    unsigned m_searched = 0; ///< of these, already known to hold no delimiter
    unsigned m_capacity = 0;
    unsigned m_initial = 0;
    unsigned m_maximum = 0;
    ConnectionBufferType m_type;
    std::string m_name;
};

} // namespace orv
