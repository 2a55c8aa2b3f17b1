// What the C interface adds to the C++ one: texts that end with a NUL byte, null clients, and no exceptions.
// What both share is in client_test.cpp.

#include "fake_server.h"

#include <orvbroker/client.h>
#include <orvbroker/client_c.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <string>

namespace {

constexpr int kGenerous = 20000;
constexpr int kShort = 50;

/// Set to make the n-th allocation from now on fail, and all after it; below 0 for none.
int s_allocations_left = -1;

bool may_allocate()
{
    if (s_allocations_left < 0)
        return true;
    if (s_allocations_left == 0)
        return false;
    --s_allocations_left;
    return true;
}

struct Free {
    void operator()(orvbroker_client* client) const { orvbroker_free(client); }
};
using Client = std::unique_ptr<orvbroker_client, Free>;

Client connected_to(const FakeServer& server)
{
    Client client(orvbroker_new());
    EXPECT_EQ(orvbroker_connect_to(client.get(), server.name().c_str(), kGenerous), ORVBROKER_OK);
    return client;
}

void answer(int fd, std::string_view envelope)
{
    (void)receive_line(fd);
    send_frame(fd, envelope);
}

std::string data_of(const Client& client)
{
    std::size_t length = 0;
    const char* data = orvbroker_data(client.get(), &length);
    EXPECT_EQ(std::strlen(data), length);
    return data;
}

TEST(CClient, SendsACommandAndKeepsItsAnswerUntilTheNextOne)
{
    const FakeServer server([](int fd) {
        const std::string first = receive_line(fd);
        send_frame(fd, R"({"data": )" + orvbroker::quote(first) + R"(, "status": 0})");
        const std::string second = receive_line(fd);
        send_frame(fd, R"({"data": )" + orvbroker::quote(second) + R"(, "status": -1})");
    });
    const Client client = connected_to(server);
    EXPECT_EQ(data_of(client), "null");
    ASSERT_EQ(orvbroker_call(client.get(), "do", "[1]", kGenerous), ORVBROKER_OK);
    EXPECT_EQ(orvbroker_status(client.get()), 0);
    EXPECT_EQ(data_of(client), orvbroker::quote(R"({"type": "command", "name": "do", "data": [1]})"));
    ASSERT_EQ(orvbroker_call(client.get(), "do", nullptr, kGenerous), ORVBROKER_OK);
    EXPECT_EQ(orvbroker_status(client.get()), -1);
    EXPECT_EQ(data_of(client), orvbroker::quote(R"({"type": "command", "name": "do"})"));
    EXPECT_EQ(orvbroker_call(client.get(), "do", nullptr, kGenerous), ORVBROKER_CONNECTION_LOST);
    EXPECT_EQ(orvbroker_status(client.get()), -1); // of the last answer
}

TEST(CClient, SubscribesAndReceivesEvents)
{
    const FakeServer server([](int fd) {
        answer(fd, R"({"data": null, "status": 0})");
        send_frame(fd, R"({"a": 1})");
        (void)receive_line(fd);
    });
    const Client client = connected_to(server);
    EXPECT_STREQ(orvbroker_event(client.get(), nullptr), "");
    ASSERT_EQ(orvbroker_subscribe(client.get(), "news", kGenerous), ORVBROKER_OK);
    ASSERT_EQ(orvbroker_next_event(client.get(), ORVBROKER_FOREVER), ORVBROKER_OK);
    EXPECT_STREQ(orvbroker_event(client.get(), nullptr), R"({"a": 1})");
    EXPECT_EQ(orvbroker_next_event(client.get(), kShort), ORVBROKER_TIMED_OUT);
    EXPECT_GE(orvbroker_fd(client.get()), 0);
    EXPECT_EQ(orvbroker_server_uid(client.get()), static_cast<long long>(::geteuid()));
    orvbroker_close(client.get());
    EXPECT_EQ(orvbroker_fd(client.get()), -1);
    EXPECT_EQ(orvbroker_next_event(client.get(), kShort), ORVBROKER_CONNECTION_LOST);
}

TEST(CClient, SaysNotRunningWhenNobodyListens)
{
    const Client client(orvbroker_new());
    EXPECT_EQ(orvbroker_connect_to(client.get(), "orvbroker-test-nobody", kGenerous), ORVBROKER_NOT_RUNNING);
    EXPECT_EQ(orvbroker_fd(client.get()), -1);
}

TEST(CClient, TakesANullClientForOneThatIsNotConnected)
{
    EXPECT_EQ(orvbroker_connect(nullptr, kShort), ORVBROKER_NO_MEMORY);
    EXPECT_EQ(orvbroker_call(nullptr, "do", nullptr, kShort), ORVBROKER_CONNECTION_LOST);
    EXPECT_EQ(orvbroker_subscribe(nullptr, "news", kShort), ORVBROKER_CONNECTION_LOST);
    EXPECT_EQ(orvbroker_next_event(nullptr, kShort), ORVBROKER_CONNECTION_LOST);
    EXPECT_EQ(orvbroker_status(nullptr), 0);
    EXPECT_STREQ(orvbroker_data(nullptr, nullptr), "null");
    EXPECT_STREQ(orvbroker_event(nullptr, nullptr), "");
    EXPECT_EQ(orvbroker_fd(nullptr), -1);
    EXPECT_EQ(orvbroker_server_uid(nullptr), -1);
    orvbroker_close(nullptr);
    orvbroker_free(nullptr);
}

TEST(CClient, RefusesNullTexts)
{
    const Client client(orvbroker_new());
    EXPECT_EQ(orvbroker_connect_to(client.get(), nullptr, kShort), ORVBROKER_INVALID_ARGUMENT);
    EXPECT_EQ(orvbroker_call(client.get(), nullptr, nullptr, kShort), ORVBROKER_INVALID_ARGUMENT);
    EXPECT_EQ(orvbroker_subscribe(client.get(), nullptr, kShort), ORVBROKER_INVALID_ARGUMENT);
}

TEST(CClient, HasAMessageOfItsOwnForEveryError)
{
    std::set<std::string> messages;
    for (int error = ORVBROKER_OK; error <= ORVBROKER_NO_MEMORY; ++error)
        EXPECT_TRUE(messages.insert(orvbroker_message(error)).second) << error;
    EXPECT_EQ(messages.count("unknown error"), 0U);
    EXPECT_STREQ(orvbroker_message(ORVBROKER_NO_MEMORY + 1), "unknown error");
}

TEST(CClient, TellsOfMissingMemoryAndClosesWhicheverAllocationFails)
{
    const std::string text(100, 'x'); // too long to be kept without an allocation
    int failures = 0;
    for (int left = 0;; ++left) {
        const FakeServer server([&text](int fd) {
            answer(fd, R"({"data": ")" + text + R"(", "status": 0})");
            (void)receive_line(fd);
        });
        const Client client = connected_to(server);
        s_allocations_left = left;
        const int error = orvbroker_call(client.get(), text.c_str(), nullptr, kGenerous);
        const bool has_failed = s_allocations_left == 0;
        s_allocations_left = -1;
        if (error == ORVBROKER_OK && !has_failed)
            break;
        if (error == ORVBROKER_OK)
            continue; // the last allocation of all was the last one allowed
        ++failures;
        EXPECT_EQ(error, ORVBROKER_NO_MEMORY) << left;
        EXPECT_EQ(orvbroker_fd(client.get()), -1);
        EXPECT_EQ(data_of(client), "null");
    }
    EXPECT_GT(failures, 2);
    s_allocations_left = 0;
    EXPECT_EQ(orvbroker_new(), nullptr);
    s_allocations_left = -1;
}

} // namespace

void* operator new(std::size_t size)
{
    void* memory = may_allocate() ? std::malloc(size) : nullptr;
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return may_allocate() ? std::malloc(size) : nullptr;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}
