#pragma once

#include <orvutils/connection_buffer.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// One client connection and the framing of what goes to it.

namespace orv::brokerd {

// What a client can run into.
constexpr unsigned kBufferInitialSize = 4096;             ///< bytes, of each of a connection's two buffers
constexpr unsigned kBufferMaximumSize = 4U * 1024 * 1024; ///< bytes; a request's line must be shorter
constexpr int kMaxSendPerEvent = 16384;                   ///< bytes written to a client at a time

/// What a connection is used for. It never goes back from subscriber to command.
constexpr int kCommandMode = 0;
constexpr int kSubscriberMode = 1;

/// One client. Owned by g_connections; everything else that names one is told when it ends
/// (forget_connection()).
struct Connection {
    explicit Connection(int socket);

    /// Appends to the send buffer. What does not fit below its maximum is dropped.
    void put(const void* data, unsigned len);

    int fd;
    bool close_after_send = false; ///< ends once the send buffer has drained
    bool close_requested = false;  ///< ends after the next exchange input
    int mode = kCommandMode;
    std::string subscription; ///< name of the one event that it has subscribed to
    ConnectionBuffer rx;
    ConnectionBuffer tx;
};

/// Ends a connection whose send buffer holds less than `wanted` bytes for lack of memory: what would follow
/// makes no sense to the client. What does not fit below the buffer's maximum is dropped, as ever.
void end_if_cut(const Connection* conn, std::uint64_t wanted);

/// Appends one frame to a connection's send buffer: a 4-byte length in native byte order and the text.
void put_frame(Connection* conn, std::string_view text);

/// Watches a connection for input and output, so that what is pending gets written. `epfd` may be -1 while
/// there is no loop.
void watch_for_output(const Connection* conn, int epfd);

/// Both of the above.
void queue_frame(Connection* conn, std::string_view text, int epfd);

/// One frame to each of these connections: only appended, or watched for output as well.
void put_frames(const std::vector<Connection*>& conns, std::string_view text);
void queue_frames(const std::vector<Connection*>& conns, std::string_view text, int epfd);

} // namespace orv::brokerd
