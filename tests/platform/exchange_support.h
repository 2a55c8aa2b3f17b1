#pragma once

#include <orvexchange/publisher.h>

#include <gtest/gtest.h>

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct DBusConnection;
struct DBusMessage;

constexpr std::chrono::seconds kPatience{20}; ///< what should happen has this long to do so

/// An agent's root of its own with the bus of orvexchanged in it. ORV_ROOT points to it.
class Bus {
public:
    Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus();

    /// Returns when the bus can be reached. False when it ended instead.
    bool start();
    /// Ends it for good or evil, and waits for its end.
    void kill();
    /// A bus that hangs, until resume().
    void suspend();
    void resume();
    /// Changes a limit of the private configuration, which start() must have written, for the next start().
    void change_limit(const std::string& name, const std::string& value);
    /// Makes it read its configuration, which change_limit() must have written before start(), once more.
    void reload();
    [[nodiscard]] const std::string& root() const { return m_root; }
    [[nodiscard]] std::string socket() const { return m_root + "/run/exchange.skt"; }
    [[nodiscard]] std::string address() const { return "unix:path=" + socket(); }

private:
    std::string m_root;
    pid_t m_process = -1;
};

/// Catches what is logged from here on, until it is asked for: every line as often as it was logged.
void capture_log();
std::string captured_log();

struct UnrefMessage {
    void operator()(DBusMessage* message) const;
};
using RawMessage = std::unique_ptr<DBusMessage, UnrefMessage>;

/// A participant that knows nothing of the library: bare libdbus, with blocking calls.
class RawPeer {
public:
    /// Owns the name of this participant, unless empty.
    explicit RawPeer(const std::string& address, const std::string& participant = {});
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;
    ~RawPeer() { leave(); }
    void leave();

    [[nodiscard]] std::string unique_name() const;
    /// Returns when the bus has worked through all that was sent before.
    void sync();
    /// Whether someone owns the participant's name.
    bool is_there(const std::string& participant);

    /// Claims any bus name; false when that is refused.
    bool claim(const std::string& bus_name);

    /// Sends it, and returns its serial.
    std::uint32_t send(const RawMessage& message);
    void emit(const std::string& name, const std::string& data, std::uint64_t identifier = 1);
    /// Calls Request, Message or another method on a participant with (name, data).
    std::uint32_t call(const std::string& participant, const char* member, const std::string& name,
                       const std::string& data, bool wants_reply = true);
    void answer(DBusMessage& request, const std::string& type, const std::string& data);
    void answer_with_error(DBusMessage& request, const std::string& text);

    /// The next message that is not the bus's own signal. Null when none comes in time.
    RawMessage receive(std::chrono::milliseconds within = kPatience);

private:
    DBusConnection* m_connection = nullptr;
};

/// Messages for send().
/// @{
RawMessage raw_call(const std::string& participant, const char* member,
                    const char* interface = "net.orvane.Exchange1");
RawMessage raw_signal(const char* member);
RawMessage raw_reply(DBusMessage& request);
RawMessage raw_reply(std::uint32_t serial);
void add_text(DBusMessage& message, const std::string& text);
void add_count(DBusMessage& message, std::uint32_t count);
void add_bytes(DBusMessage& message, const std::string& bytes);
void add_number(DBusMessage& message, std::uint64_t number);
void add_descriptor(DBusMessage& message, int fd);
/// @}

/// The bytes in which a message that was never sent would pass over the socket.
std::string marshalled(DBusMessage& message);

/// What a received message holds.
/// @{
std::string member_of(const RawMessage& message);
bool wants_reply(const RawMessage& message);
std::uint32_t reply_serial_of(const RawMessage& message);
std::string error_of(const RawMessage& message); ///< its name, empty for anything but an error
std::string text_of(const RawMessage& message);  ///< its only argument, empty when it has another
struct RawContent {
    std::string text;
    std::uint64_t number = 0;
    std::string bytes;
};
/// Of signature "say" or "tay"; nothing when it has another.
std::optional<RawContent> content_of(const RawMessage& message);
/// @}

/// A message as a callback saw it.
struct Received {
    std::string type;
    std::string from;
    std::uint64_t id = 0;
    std::string data;
};
std::ostream& operator<<(std::ostream& out, const Received& received);

/// Answers to requests, in the order in which they came. Its address is the callback's argument.
struct Answers {
    std::vector<Received> all;
    std::function<void(const Message&)> also; ///< called from the callback
    static void take(void* self, const Message* message);
};

struct LeaveExchange {
    void operator()(Orvex* orvex) const { orvex_uninit(orvex); }
};
using OrvexPtr = std::unique_ptr<Orvex, LeaveExchange>;

/// Serves the handle, whenever its descriptor says so, until the condition holds. False after kPatience.
bool serve_until(Orvex* orvex, const std::function<bool()>& condition);
bool is_readable(int fd, std::chrono::milliseconds within);
int open_descriptors();
/// Time that is left until the timer among this process's descriptors rings. Nothing when none is set.
std::optional<std::chrono::milliseconds> time_to_alarm();

/// A bus, and "broker" on it, which is what the tests are about.
class ExchangeTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    [[nodiscard]] static OrvexPtr join(const char* name, int auto_reconnect = 1);
    /// Joins anew with this time for each request.
    void rejoin_with_request_time(std::chrono::milliseconds time);
    bool serve_until(const std::function<bool()>& condition)
    {
        return ::serve_until(m_broker.get(), condition);
    }
    int subscribe(std::vector<const char*> names);
    /// Subscribes, and waits until the bus has worked through it: only then other connections' events count.
    bool subscribe_and_wait(std::vector<const char*> names);
    int request(const char* name, const std::string& data = "{}");

    Bus m_bus;
    OrvexPtr m_broker;
    Answers m_answers;
    /// What the event callback of join() got.
    static std::vector<Received> s_received;
    /// Called from it.
    static std::function<void(const Message&)> s_also;
};
