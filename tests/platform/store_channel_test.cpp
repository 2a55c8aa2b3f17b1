// A watch and its log channel, with a log that is this file: one that opens no channel.

#include "base_support.h"

#include <orvutils/log.h>
#include <orvutils/setmgmt.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

bool g_opens = true;
std::vector<std::string> g_calls;

} // namespace

namespace orv::log {

namespace detail {
int g_threshold = kInfo;
} // namespace detail

void print(int channel, int level, Text line)
{
    const std::string text(line.data, line.size);
    g_calls.push_back(std::to_string(channel) + " " + std::to_string(level) +
                      text.substr(text.find("]: ") + 2));
}

bool open_channel(int channel)
{
    g_calls.push_back("open " + std::to_string(channel));
    return g_opens;
}

} // namespace orv::log

namespace {

using orv::setMgmt::MonitoredKey;

class ChannelTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(orv::setMgmt::init(), 0);
        g_calls.clear();
    }
    void TearDown() override { orv::setMgmt::uninit(); }

    static bool note(const orv::path& /*key*/, void* /*user*/) { return true; }

    TemporaryRoot m_root;
};

TEST_F(ChannelTest, A_watch_opens_its_log_channel)
{
    g_opens = true;
    const MonitoredKey key("/a", note, false, nullptr, false);
    EXPECT_EQ(g_calls, std::vector<std::string>{"open 1"});
}

TEST_F(ChannelTest, A_watch_without_its_log_channel_says_so_and_watches)
{
    g_opens = false;
    const MonitoredKey key("/a", note, false, nullptr, false);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"open 1", "0 0 Cannot open log channel 1\n"}));
    EXPECT_GE(key.get_fd(), 0);
}

} // namespace
