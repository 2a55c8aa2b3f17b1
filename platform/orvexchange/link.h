#pragma once

#include "frame.h"
#include "short_text.h"
#include "wire.h"

#include <orvbase/descriptor.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

namespace orv::exchange {

/// What has been received: a message, or why it could not be held, and what its header says.
struct Arrival {
    enum class Loss { none, too_large, no_memory };
    MessagePtr message; ///< null when it is lost
    Loss loss = Loss::none;
    FrameHeader header; ///< of a message that is lost
    std::size_t size = 0;
};

/// How an attempt to connect has ended.
enum class Opened {
    connected,
    full,  ///< somebody listens, but accepts nobody at this moment
    failed ///< nobody listens, or nothing can be done at all
};

/// One connection to the bus, driven by an epoll descriptor of its owner. Nothing here blocks, connecting
/// included, and nothing throws. It holds one message as it is read and at most kMaxQueued bytes to be
/// written.
class Link {
public:
    /// Messages of more bytes are not held: the largest payload, names and addresses fit.
    static constexpr std::size_t kMaxFrame = kOrvexMaxPayload + 8192;
    /// Bytes that may wait to be written; a bus that does not read must not eat the memory.
    static constexpr std::size_t kMaxQueued = 2 * kMaxFrame;

    explicit Link(int epoll, std::uint32_t tag) : m_epoll(epoll), m_tag(tag) {}
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    /// Writes out what was sent, as far as that does not block, and disconnects.
    ~Link();

    /// Connects; the socket appears on `epoll` with `tag` as its data. The reason of a failure is in `error`.
    [[nodiscard]] Opened open(const std::string& address, ShortText& error);

    /// The serial number for the next message. Never 0.
    [[nodiscard]] std::uint32_t take_serial();
    /// Queues a message and writes as much as the socket takes. False, with nothing done, when memory is
    /// short or too much is queued. What is sent to a bus that has gone is lost.
    [[nodiscard]] bool send(DBusMessage& message, std::uint32_t serial);
    /// Bytes that are queued and not yet written.
    [[nodiscard]] std::size_t queued() const { return m_queued; }

    /// Reads and writes what the socket is ready for; `events` are epoll's.
    void handle(std::uint32_t events);
    /// The next message received, nothing when there is none.
    [[nodiscard]] std::optional<Arrival> pop();
    /// Whether pop() would give one, or has_ended() has become true.
    [[nodiscard]] bool has_news() const;
    /// Whether the connection is at its end, and all that came before was taken out.
    [[nodiscard]] bool has_ended() const;
    /// Whether it ended because the bus does not let us in.
    [[nodiscard]] bool is_refused() const { return m_is_refused; }
    /// Tells epoll what the socket is to be watched for, if that has changed. To be called before waiting.
    void update_interest();

private:
    struct Free {
        void operator()(char* bytes) const;
    };
    using Block = std::unique_ptr<char, Free>;
    struct Output {
        Block bytes;
        std::size_t size = 0;
    };

    [[nodiscard]] bool greet();
    void read_in();
    [[nodiscard]] bool read_once(std::size_t& allowance);
    void take_greeting();
    void write_out();
    void end();
    [[nodiscard]] bool write_whole(const char* text, std::size_t size);
    [[nodiscard]] std::size_t held() const { return m_end - m_begin; }
    [[nodiscard]] std::optional<FrameSize> next_frame() const;
    [[nodiscard]] bool has_frame() const;
    [[nodiscard]] bool make_room();
    [[nodiscard]] bool resize(std::size_t capacity);
    void consume(std::size_t size);
    [[nodiscard]] Arrival lose(Arrival::Loss loss, const FrameSize& size);

    const int m_epoll;
    const std::uint32_t m_tag;
    base::Descriptor m_socket;
    std::uint32_t m_registered = 0; ///< what it is watched for
    bool m_is_let_in = false;       ///< authenticated: messages may pass
    bool m_is_refused = false;
    bool m_is_hung_up = false; ///< the other end has gone; what it said before may be there
    bool m_is_over = false;    ///< nothing more will be read
    bool m_is_mute = false;    ///< nothing more can be written

    Block m_input; ///< what was read and not taken out: m_begin to m_end
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::size_t m_skip = 0;      ///< bytes to come that belong to a message that is not held
    bool m_lacks_memory = false; ///< for the message that is coming in

    std::deque<Output> m_output;
    std::size_t m_written = 0; ///< bytes of the first one
    std::size_t m_queued = 0;
    std::uint32_t m_serial = 0;
};

} // namespace orv::exchange
