// A lack of memory at any point: each operation again and again, with the first, the second ... allocation
// failing, once or from then on. No exception comes out, callbacks run as often as they should, and
// afterwards all is as before.

#include "exchange_support.h"

#include <dbus/dbus.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <new>
#include <string>

namespace {

/// Lets allocations fail while it lives: the one of that number, from 0, or that one and all later ones.
class Shortage {
public:
    enum class Kind { once, lasting };
    Shortage(int number, Kind kind)
    {
        s_left = number;
        s_kind = kind;
        s_is_on = true;
        s_has_struck = false;
    }
    Shortage(const Shortage&) = delete;
    Shortage& operator=(const Shortage&) = delete;
    ~Shortage() { s_is_on = false; }

    static bool has_struck() { return s_has_struck; }
    /// Whether the allocation that is about to be made fails.
    static bool strikes()
    {
        if (!s_is_on || s_left-- > 0)
            return false;
        s_is_on = s_kind == Kind::lasting;
        s_left = 0;
        s_has_struck = true;
        return true;
    }

private:
    static bool s_is_on;
    static bool s_has_struck;
    static Kind s_kind;
    static int s_left;
};

bool Shortage::s_is_on = false;
bool Shortage::s_has_struck = false;
Shortage::Kind Shortage::s_kind = Shortage::Kind::once;
int Shortage::s_left = 0;

void* allocate(std::size_t size)
{
    return Shortage::strikes() ? nullptr : std::malloc(size == 0 ? 1 : size); // NOLINT
}

} // namespace

void* operator new(std::size_t size)
{
    if (void* block = allocate(size))
        return block;
    throw std::bad_alloc{};
}

void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept
{
    return allocate(size);
}

void operator delete(void* block) noexcept
{
    std::free(block); // NOLINT
}

void operator delete(void* block, std::size_t /*size*/) noexcept
{
    std::free(block); // NOLINT
}

// The linker sends here what the library calls of libdbus that allocates, and realloc().
extern "C" {
#define WRAP(result, name, parameters, arguments, failure)                                                   \
    result __real_##name parameters;                                                                         \
    result __wrap_##name parameters                                                                          \
    {                                                                                                        \
        return Shortage::strikes() ? (failure) : __real_##name arguments;                                    \
    }
WRAP(void*, realloc, (void* old, std::size_t size), (old, size), nullptr)
WRAP(DBusMessage*, dbus_message_new, (int type), (type), nullptr)
WRAP(DBusMessage*, dbus_message_new_method_call,
     (const char* bus, const char* path, const char* interface, const char* method),
     (bus, path, interface, method), nullptr)
WRAP(DBusMessage*, dbus_message_new_method_return, (DBusMessage * call), (call), nullptr)
WRAP(DBusMessage*, dbus_message_new_signal, (const char* path, const char* interface, const char* name),
     (path, interface, name), nullptr)
WRAP(dbus_bool_t, dbus_message_set_destination, (DBusMessage * message, const char* to), (message, to), FALSE)
WRAP(dbus_bool_t, dbus_message_set_reply_serial, (DBusMessage * message, dbus_uint32_t serial),
     (message, serial), FALSE)
WRAP(dbus_bool_t, dbus_message_set_error_name, (DBusMessage * message, const char* name), (message, name),
     FALSE)
WRAP(dbus_bool_t, dbus_message_marshal, (DBusMessage * message, char** bytes, int* size),
     (message, bytes, size), FALSE)
WRAP(dbus_bool_t, dbus_parse_address,
     (const char* address, DBusAddressEntry*** entries, int* count, DBusError* error),
     (address, entries, count, error), FALSE)
WRAP(char*, dbus_address_escape_value, (const char* value), (value), nullptr)
#undef WRAP

DBusMessage* __real_dbus_message_demarshal(const char* bytes, int size, DBusError* error);
DBusMessage* __wrap_dbus_message_demarshal(const char* bytes, int size, DBusError* error)
{
    if (!Shortage::strikes())
        return __real_dbus_message_demarshal(bytes, size, error);
    dbus_set_error_const(error, DBUS_ERROR_NO_MEMORY, "out of memory");
    return nullptr;
}

dbus_bool_t __wrap_dbus_message_append_args(DBusMessage* message, int first, ...)
{
    va_list arguments;
    va_start(arguments, first);
    const dbus_bool_t result =
        Shortage::strikes() ? FALSE : dbus_message_append_args_valist(message, first, arguments);
    va_end(arguments);
    return result;
}
}

namespace {

using std::chrono::milliseconds;

struct Counted {
    int calls = 0;
    char type = 0;
    static void take(void* self, const Message* message)
    {
        auto& counted = *static_cast<Counted*>(self);
        ++counted.calls;
        counted.type = *message->type;
    }
};

class ExchangeMemory : public ExchangeTest, public testing::WithParamInterface<Shortage::Kind> {
protected:
    /// Does it with each allocation failing, until it needs no more of them. Its argument is the number.
    static void at_each_allocation(const std::function<void(int number)>& work)
    {
        testing::internal::CaptureStderr();
        int number = 0;
        do
            work(number++);
        while (Shortage::has_struck() && !testing::Test::HasFailure() && number < 1000);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_GT(number, 3) << "nothing has failed";
        EXPECT_LT(number, 1000);
        if (testing::Test::HasFailure())
            std::cerr << "at number " << number - 1 << "\n" << log;
    }
    int read_with_shortage(int number)
    {
        EXPECT_TRUE(is_readable(orvex_get_fd(m_broker.get()), kPatience));
        const Shortage shortage(number, GetParam());
        return orvex_read_fd(m_broker.get());
    }
    /// The bus has worked through all that was sent.
    void serve_all()
    {
        Counted barrier;
        ASSERT_EQ(orvex_send_request(m_broker.get(), "nobody:x", "", 0, Counted::take, &barrier), 0);
        ASSERT_TRUE(serve_until([&] { return barrier.calls == 1; }));
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, ExchangeMemory,
                         testing::Values(Shortage::Kind::once, Shortage::Kind::lasting));

TEST_P(ExchangeMemory, ARequestIsSentOrRefusedAndAnsweredOnceIfItWasSent)
{
    const std::string name = "a-participant-whose-name-needs-memory:a-request-whose-name-does-so-too";
    int sent = 0;
    at_each_allocation([&](int number) {
        Counted counted;
        int result = 0;
        {
            const Shortage shortage(number, GetParam());
            result = orvex_send_request(m_broker.get(), name.c_str(), "", 0, Counted::take, &counted);
        }
        EXPECT_EQ(result, Shortage::has_struck() ? -1 : 0);
        serve_all();
        EXPECT_EQ(counted.calls, result == 0 ? 1 : 0);
        sent += result == 0 ? 1 : 0;
    });
    EXPECT_EQ(sent, 1);
}

TEST_P(ExchangeMemory, MessagesAndEventsAreSentOrRefused)
{
    at_each_allocation([&](int number) {
        const Shortage shortage(number, GetParam());
        const int result = orvex_send_message(m_broker.get(), "nobody-with-a-long-name:x", "", 0);
        EXPECT_EQ(result, Shortage::has_struck() ? -1 : 0);
    });
    at_each_allocation([&](int number) {
        const Shortage shortage(number, GetParam());
        const int result = orvex_publish(m_broker.get(), "event", "", 0, nullptr);
        EXPECT_EQ(result, Shortage::has_struck() ? -1 : 0);
    });
    serve_all();
}

TEST_P(ExchangeMemory, AListThatCouldNotBeAskedForIsAskedForByTheNextCall)
{
    RawPeer peer(m_bus.address());
    at_each_allocation([&](int number) {
        const std::string event = "an-event-whose-name-needs-memory-" + std::to_string(number);
        int result = 0;
        std::vector<const char*> names{event.c_str(), "end"};
        {
            const Shortage shortage(number, GetParam());
            result = orvex_subscribe(m_broker.get(), names.data(), static_cast<int>(names.size()));
        }
        EXPECT_EQ(result, Shortage::has_struck() ? -1 : 0);
        EXPECT_EQ(orvex_subscribe(m_broker.get(), names.data(), static_cast<int>(names.size())), 0);
        serve_all();
        s_received.clear();
        peer.emit(event, "");
        peer.emit("end", "");
        ASSERT_TRUE(serve_until([] { return !s_received.empty() && s_received.back().type == "end"; }));
        EXPECT_EQ(s_received.size(), 2U);
    });
}

TEST_P(ExchangeMemory, AListThatCouldNotBeAskedForIsAskedForAfterAWhile)
{
    RawPeer peer(m_bus.address());
    const char* name = "an-event-whose-name-needs-memory";
    int last = 0;
    at_each_allocation([&](int number) {
        EXPECT_EQ(orvex_subscribe(m_broker.get(), nullptr, 0), 0);
        const Shortage shortage(number, GetParam());
        if (orvex_subscribe(m_broker.get(), &name, 1) != 0)
            last = number;
    });
    for (const int number : {0, last}) { // be it the very first
        EXPECT_EQ(orvex_subscribe(m_broker.get(), nullptr, 0), 0);
        serve_all();
        s_received.clear();
        {
            const Shortage shortage(number, GetParam());
            EXPECT_EQ(orvex_subscribe(m_broker.get(), &name, 1), -1);
        }
        EXPECT_TRUE(serve_until([&] {
            peer.emit(name, "");
            return !s_received.empty();
        })) << number;
    }
}

TEST_P(ExchangeMemory, ASubscriptionThatIsRefusedOnceThereWasMemoryToAskForItIsTold)
{
    m_broker.reset();
    m_bus.kill();
    m_bus.change_limit("max_match_rules_per_connection", "1");
    ASSERT_TRUE(m_bus.start());
    m_broker = join("broker");
    ASSERT_NE(m_broker, nullptr);
    std::vector<const char*> names{"end"};
    ASSERT_EQ(orvex_subscribe(m_broker.get(), names.data(), 1), 0);
    names.push_back("refused");
    testing::internal::CaptureStderr();
    {
        const Shortage shortage(0, GetParam());
        EXPECT_EQ(orvex_subscribe(m_broker.get(), names.data(), 2), -1);
    }
    const auto end =
        std::chrono::steady_clock::now() + milliseconds{2500}; // it has been refused twice by then
    EXPECT_TRUE(serve_until([&] { return std::chrono::steady_clock::now() > end; }));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("the exchange refuses a subscription: "), std::string::npos);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}

TEST_P(ExchangeMemory, ALongListNeedsMemoryAndTheFormerOneStaysWithout)
{
    RawPeer peer(m_bus.address());
    const char* former = "former";
    EXPECT_EQ(orvex_subscribe(m_broker.get(), &former, 1), 0);
    std::vector<const char*> names(17, "of-many");
    {
        const Shortage shortage(0, GetParam());
        EXPECT_EQ(orvex_subscribe(m_broker.get(), names.data(), static_cast<int>(names.size())), -1);
    }
    serve_all();
    s_received.clear();
    peer.emit(former, "");
    EXPECT_TRUE(serve_until([&] { return !s_received.empty(); }));
    EXPECT_EQ(orvex_subscribe(m_broker.get(), names.data(), static_cast<int>(names.size())), 0);
    serve_all();
    s_received.clear();
    peer.emit(former, "");
    peer.emit("of-many", "");
    ASSERT_TRUE(serve_until([&] { return !s_received.empty(); }));
    EXPECT_EQ(s_received.front().type, "of-many");
}

TEST_P(ExchangeMemory, AnAnswerThatCouldNotBeSentCanBeSentAgain)
{
    RawPeer peer(m_bus.address());
    at_each_allocation([&](int number) {
        s_received.clear();
        const std::uint32_t serial = peer.call("broker", "Request", "x", "");
        ASSERT_TRUE(serve_until([] { return s_received.size() == 1; }));
        int result = 0;
        {
            const Shortage shortage(number, GetParam());
            result = orvex_send_response(m_broker.get(), 0, s_received[0].id, "", 0);
        }
        EXPECT_EQ(result, Shortage::has_struck() ? -1 : 0);
        EXPECT_EQ(orvex_send_response(m_broker.get(), 0, s_received[0].id, "", 0), result == 0 ? -1 : 0);
        EXPECT_EQ(reply_serial_of(peer.receive()), serial);
    });
    EXPECT_EQ(peer.receive(milliseconds{50}), nullptr);
}

TEST_P(ExchangeMemory, AnAnswerThatComesReachesItsCallbackOnce)
{
    RawPeer agent(m_bus.address(), "orvagent");
    at_each_allocation([&](int number) {
        Counted counted;
        ASSERT_EQ(orvex_send_request(m_broker.get(), "x", "", 0, Counted::take, &counted), 0);
        agent.answer(*agent.receive(), "0", std::string(100, 'x'));
        agent.sync();
        EXPECT_EQ(read_with_shortage(number), 0);
        const bool has_struck = Shortage::has_struck();
        ASSERT_TRUE(serve_until([&] { return counted.calls > 0; }));
        EXPECT_EQ(counted.calls, 1);
        EXPECT_TRUE(has_struck || counted.type == '0');
        serve_all();
        EXPECT_EQ(counted.calls, 1);
    });
}

TEST_P(ExchangeMemory, ARequestToUsIsHandedOverOrRefused)
{
    RawPeer peer(m_bus.address());
    const std::string name = "a-request-whose-name-needs-memory-wherever-it-is-kept";
    at_each_allocation([&](int number) {
        s_received.clear();
        const std::uint32_t serial = peer.call("broker", "Request", name, std::string(100, 'x'));
        peer.sync();
        EXPECT_EQ(read_with_shortage(number), 0);
        RawMessage reply;
        ASSERT_TRUE(serve_until([&] {
            if (!s_received.empty())
                (void)orvex_send_response(m_broker.get(), 0, s_received[0].id, "", 0);
            return (reply = peer.receive(milliseconds{1})) != nullptr;
        }));
        EXPECT_EQ(reply_serial_of(reply), serial);
        EXPECT_EQ(error_of(reply), s_received.empty() ? "org.freedesktop.DBus.Error.NoMemory" : "");
    });
    EXPECT_EQ(s_received.size(), 1U) << "the last time nothing has failed";
    const auto is_ready = [this](int within) {
        return is_readable(orvex_get_fd(m_broker.get()), milliseconds{within});
    };
    for (int pass = 0; pass < 10 && is_ready(150); ++pass)
        EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
    EXPECT_FALSE(is_ready(300)) << "no refusal is sent again and again";
}

TEST_P(ExchangeMemory, AMessageOrEventIsHandedOverOrLostAndTheNextOneComes)
{
    RawPeer peer(m_bus.address());
    ASSERT_TRUE(subscribe_and_wait({"event"}));
    at_each_allocation([&](int number) {
        s_received.clear();
        (void)peer.call("broker", "Message", "message", "", false);
        peer.emit("event", std::string(100, 'x'));
        peer.sync();
        EXPECT_EQ(read_with_shortage(number), 0);
        peer.emit("event", "last");
        ASSERT_TRUE(serve_until([&] { return !s_received.empty() && s_received.back().data == "last"; }));
        EXPECT_LE(s_received.size(), 3U);
    });
    EXPECT_EQ(s_received.size(), 3U);
}

TEST_P(ExchangeMemory, ALargeMessageIsHandedOverOrRefusedAndTheNextOneComes)
{
    RawPeer peer(m_bus.address());
    at_each_allocation([&](int number) {
        s_received.clear();
        const std::uint32_t large =
            peer.call("broker", "Request", "large", std::string(std::size_t{1} << 20U, 'x'));
        RawMessage refusal;
        bool has_struck = false;
        const auto is_done = [&] {
            if (!refusal)
                refusal = peer.receive(milliseconds{1});
            return refusal || !s_received.empty();
        };
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!is_done()) { // a megabyte comes in several passes
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            (void)read_with_shortage(number);
            has_struck |= Shortage::has_struck();
            if (has_struck && !is_done()) {
                ASSERT_TRUE(serve_until(is_done));
            }
        }
        EXPECT_EQ(reply_serial_of(refusal), refusal ? large : 0);
        EXPECT_EQ(error_of(refusal), s_received.empty() ? "org.freedesktop.DBus.Error.NoMemory" : "");
        (void)peer.call("broker", "Message", "small", "", false);
        ASSERT_TRUE(serve_until([] { return !s_received.empty() && s_received.back().type == "small"; }));
    });
}

TEST_P(ExchangeMemory, JoiningSucceedsOrFailsAndLeavesNothing)
{
    m_broker.reset();
    int descriptors = 0;
    at_each_allocation([&](int number) {
        OrvexPtr joined;
        if (number == 0)
            descriptors = open_descriptors();
        {
            const Shortage shortage(number, GetParam());
            joined.reset(orvex_join(
                "a-participant-whose-name-needs-memory", [](OrvexKind, const Message&) {}, true));
        }
        EXPECT_TRUE(joined || Shortage::has_struck());
        joined.reset();
        EXPECT_EQ(open_descriptors(), descriptors);
    });
    m_broker = join("broker");
    EXPECT_NE(m_broker, nullptr);
}

TEST_P(ExchangeMemory, ItComesBackAfterTheExchangeWasAway)
{
    ASSERT_TRUE(subscribe_and_wait({"an-event-whose-name-needs-memory"}));
    at_each_allocation([&](int number) {
        m_bus.kill();
        ASSERT_TRUE(m_bus.start());
        {
            const Shortage shortage(number, GetParam());
            (void)orvex_read_fd(m_broker.get()); // finds it gone
        }
        ASSERT_TRUE(is_readable(orvex_get_fd(m_broker.get()), kPatience));
        {
            const Shortage shortage(number, GetParam());
            (void)orvex_read_fd(m_broker.get()); // connects
        }
        s_received.clear();
        RawPeer peer(m_bus.address());
        ASSERT_TRUE(serve_until([&] {
            peer.emit("an-event-whose-name-needs-memory", "");
            return !s_received.empty();
        }));
    });
}

} // namespace
