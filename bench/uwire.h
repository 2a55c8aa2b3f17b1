#pragma once

// What the benchmark programs share: addresses, framings, a latency histogram and readings of another
// process's CPU time.

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace uwire {

// ---- time and failure ------------------------------------------------------

/// On the monotonic clock.
std::uint64_t now_ns();
[[noreturn]] void die(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// ---- sockets ---------------------------------------------------------------

/// "@name"        abstract AF_UNIX stream socket
/// "/path"        AF_UNIX stream socket
/// "tcp:PORT"     127.0.0.1:PORT, TCP_NODELAY set
/// Returns -1 with errno set when the connection cannot be made.
int connect_to(const std::string& address);
int must_connect(const std::string& address);
int listen_on(const std::string& address, int backlog);

void write_all(int fd, const char* data, std::size_t size);
void raise_fd_limit();

// ---- framings --------------------------------------------------------------

/// A framing turns the text given on the command line into request bytes, and
/// finds the end of one answer or event in what was received.
class Framing {
public:
    virtual ~Framing() = default;
    /// Blocking exchange a new connection needs before its first request.
    virtual void greet(int /*fd*/) {}
    virtual std::string encode(const std::string& text) = 0;
    /// Length of the whole frame that starts at data, or 0 if more is needed.
    virtual std::size_t frame(const char* data, std::size_t size) = 0;
    /// How many frames answer a subscription; -1 when the peer decides.
    virtual int subscription_acks() const { return -1; }
};

/// newline-len32   TEXT '\n'  ->  32-bit length, then that many bytes. The
///                 byte order is taken from the first answer (the reading that
///                 gives the smaller length); newline-len32le / -len32be fix it.
/// echo            TEXT       ->  the same number of bytes
/// line            TEXT '\n'  ->  up to and with '\n'
/// nul             TEXT '\0'  ->  up to and with '\0'
/// resp            redis: "CMD ARG rest of the text"
/// mqtt            MQTT 3.1.1: "ping", "sub TOPIC", "pub TOPIC TEXT",
///                 "pub1 TOPIC TEXT" (QoS 1, answered by PUBACK)
/// dbus            "call DEST PATH IFACE MEMBER", "match RULE",
///                 "signal PATH IFACE MEMBER TEXT", "event NAME TEXT" (an event
///                 of the agent's message exchange)
std::unique_ptr<Framing> make_framing(const std::string& name, std::size_t echo_size);
const char* framing_names();

/// Reads until one whole frame is in; returns its length (blocking).
std::size_t read_frame(int fd, Framing& framing, std::vector<char>& buffer);

// ---- numbers ---------------------------------------------------------------

/// Log-linear histogram of nanoseconds; a bucket is at most 1.6 % wide. It holds
/// no pointers, so it may live in memory that processes share.
class Histogram {
public:
    void add(std::uint64_t ns);
    void merge(const Histogram& other);
    std::uint64_t count() const { return m_count; }
    double percentile_us(double p) const;
    double max_us() const { return static_cast<double>(m_max) / 1e3; }

private:
    static constexpr unsigned kSubBits = 7;
    static constexpr unsigned kSub = 1u << kSubBits;
    static std::size_t index(std::uint64_t ns);
    static std::uint64_t value(std::size_t index);
    std::array<std::uint64_t, std::size_t{64} * kSub> m_buckets{};
    std::uint64_t m_count = 0, m_max = 0;
};

/// CPU time used so far by all threads of these processes, in nanoseconds.
std::uint64_t cpu_ns(const std::vector<int>& pids);
/// With the children waited for.
std::uint64_t own_cpu_ns();

} // namespace uwire
