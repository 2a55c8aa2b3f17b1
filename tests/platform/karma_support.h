#pragma once

#include "base_support.h"

#include <orvkarma/orvkarma.h>
#include <orvkarma/outbox.h>
#include <orvutils/json.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

/// The exchange as the test plays it.
struct Orvex {
    struct Request {
        std::string name;
        std::string data;
        void (*callback)(void* arg, const Message* response);
        void* argument;
    };
    std::vector<Request> requests;
    int result = 0;

    void answer(std::size_t index, const char* type) const
    {
        Message message{};
        std::snprintf(message.type, sizeof message.type, "%s", type);
        requests.at(index).callback(requests.at(index).argument, &message);
    }
};

/// While one of these lives, each commit takes 20 ms longer, or fails.
class SlowDisk {
public:
    explicit SlowDisk(bool is_failing = false);
    SlowDisk(const SlowDisk&) = delete;
    SlowDisk& operator=(const SlowDisk&) = delete;
    ~SlowDisk();

    /// Commits since it began.
    [[nodiscard]] static int commits();
};

/// An open outbox under a root of its own, and an exchange.
class KarmaTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(orv::karma::init(), 0); }
    void TearDown() override { orv::karma::uninit(); }

    static orv::JsonPtr event(const char* type = "test", const char* data = R"({"a": 1})");
    static std::string id_of(const orv::JsonPtr& event);
    /// The ids of the events in the outbox.
    static std::vector<std::string> stored();

    TemporaryRoot m_root;
    Orvex m_exchange;
};
