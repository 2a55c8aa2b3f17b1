#pragma once

#include <orvbroker/deadline.h>

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// A client of the broker daemon: JSON texts in, JSON texts out, nothing needed but the C++ library.
///
///     orvbroker::Client client;
///     orvbroker::Answer answer;
///     auto error = client.connect();
///     if (error == orvbroker::Error::none)
///         error = client.call("get_services_status", "", answer);
///     if (error != orvbroker::Error::none)
///         std::cerr << orvbroker::message(error) << '\n';
///     else if (answer.status() == 0)
///         std::cout << answer.data() << '\n'; // {"status": 1}
///
/// A connection either makes calls or is subscribed to one event. The daemon itself closes a connection after
/// an answer whose status is not 0 and after every answer that came from another daemon of the agent: to go
/// on, connect again. Nothing here is thread-safe; different clients in different threads are.
namespace orvbroker {

/// The daemon's socket, in the abstract namespace: there is no file of this name.
constexpr std::string_view kSocketName = "orvbrokerd-1.3.skt";

/// The daemon's bounds for one request, its newline included, and for one answer or event, in bytes.
constexpr std::size_t kMaxRequestSize = std::size_t{4} * 1024 * 1024;
constexpr std::size_t kMaxFrameSize = std::size_t{4} * 1024 * 1024;

constexpr std::chrono::milliseconds kConnectTimeout{5000};
/// Longer than the 60 seconds after which the daemon gives up waiting for another daemon's answer.
constexpr std::chrono::milliseconds kCallTimeout{65000};
constexpr std::chrono::milliseconds kForever = std::chrono::milliseconds::max();

enum class Error {
    none,
    not_running,      ///< nobody listens on the daemon's socket
    not_permitted,    ///< the system does not let this process connect
    connection_lost,  ///< the daemon closed the connection, or it was not open
    timed_out,        ///< no answer, or no event, in time
    malformed_answer, ///< what arrived is not what the daemon sends
    refused,          ///< the daemon answered a subscription with a failure
    invalid_argument, ///< a NUL byte, a request beyond its bound, a call on a subscribed connection
    system,           ///< a system call failed; errno says why
};

/// What went wrong and what to do about it, in one line without a full stop.
[[nodiscard]] const char* message(Error error);

/// An answer as it was received, {"data": <JSON>, "status": <integer>}, and its two parts.
class Answer {
public:
    /// Takes an envelope apart. False, with the answer unchanged, when it is not one.
    [[nodiscard]] bool parse(std::string envelope);

    [[nodiscard]] const std::string& envelope() const { return m_envelope; }
    /// The JSON text of "data", "null" for a command that gives nothing back.
    [[nodiscard]] std::string_view data() const;
    /// 0 for success.
    [[nodiscard]] int status() const { return m_status; }

private:
    std::string m_envelope{R"({"data": null, "status": 0})"};
    std::size_t m_data_size = 4;
    int m_status = 0;
};

/// A JSON string: the text in double quotes, escaped. Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string quote(std::string_view text);

/// One connection to the daemon. After any error but a time-out of next_event() it is closed.
class Client {
public:
    Client() = default;
    Client(Client&& other) noexcept;
    Client& operator=(Client&& other) noexcept;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client();

    /// Connects, closing an earlier connection first. Another `socket_name` than the daemon's is for tests.
    [[nodiscard]] Error connect(std::chrono::milliseconds timeout = kConnectTimeout,
                                std::string_view socket_name = kSocketName);

    /// Sends the command `name` with the JSON text `data`, none when empty, and waits for its answer. A
    /// failed command is an answer like any other: look at its status.
    ///
    /// `data` is passed on unchecked but for its line feeds, which JSON has between its tokens only and which
    /// become blanks. The daemon closes the connection on a text that is not JSON: Error::connection_lost.
    [[nodiscard]] Error call(std::string_view name, std::string_view data, Answer& answer,
                             std::chrono::milliseconds timeout = kCallTimeout);

    /// Subscribes to an event; from then on this connection only receives.
    [[nodiscard]] Error subscribe(std::string_view event, std::chrono::milliseconds timeout = kCallTimeout);

    /// Waits for the next event and gives its text, mostly JSON. Error::timed_out leaves the connection open,
    /// and a half received event is continued by the next call.
    [[nodiscard]] Error next_event(std::string& event, std::chrono::milliseconds timeout = kForever);

    /// For a loop of one's own: watch this for input, then call next_event() with a time-out of 0.
    /// -1 while there is no connection.
    [[nodiscard]] int fd() const { return m_fd; }

    /// The user who serves the connection. The daemon's name can be taken by whoever comes first: an answer
    /// of another user than root or one's own may be anything. Empty without a connection.
    [[nodiscard]] std::optional<uid_t> server_uid() const;

    void close();

private:
    [[nodiscard]] Error exchange(const std::string& request, Answer& answer, Deadline deadline);
    [[nodiscard]] Error send(std::string_view bytes, Deadline deadline);
    [[nodiscard]] Error receive_frame(std::string& text, Deadline deadline);
    [[nodiscard]] Error fill(std::size_t size, Deadline deadline);
    [[nodiscard]] Error wait(short events, Deadline deadline) const;
    [[nodiscard]] Error fail(Error error);

    int m_fd = -1;
    bool m_subscribed = false;
    std::string m_frame; ///< what has been received of the current frame, its length word included
};

} // namespace orvbroker
