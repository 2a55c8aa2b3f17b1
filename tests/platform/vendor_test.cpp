// The device and the telemetry library on somebody else's liborvutils, which is this file: they need nothing
// of it but what platform/include declares, and nothing of the one from here. How the two are brought
// together is in docs/porting.md.

#include "base_support.h"

#include <orvbase/error_number.h>
#include <orvdevmgmt/device_writer.h>
#include <orvdevmgmt/orvdevmgmt.h>
#include <orvkarma/orvkarma.h>
#include <orvstore/notify.h>
#include <orvutils/error.h>
#include <orvutils/json.h>
#include <orvutils/log.h>
#include <orvutils/setmgmt.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace {

std::string g_log;
int g_error = 0; ///< the vendor's own number

} // namespace

// ---- the vendor's library

namespace orv {

int _get_orverrno()
{
    return g_error;
}

namespace log {

namespace detail {
int g_threshold = kTrace;
} // namespace detail

void print(int /*channel*/, int /*level*/, Text line)
{
    g_log.append(line.data + kPrefixAreaSize, line.size - kPrefixAreaSize);
}

} // namespace log

namespace setMgmt {

int getKeyValue(const std::string& /*key*/, int fallback)
{
    return fallback;
}

/// The closed library's descriptor and orvstore's, behind one.
class MonitoredKey::Watch {
public:
    Watch() : m_closed(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), m_both(epoll_create1(EPOLL_CLOEXEC))
    {
        add(m_closed);
        add(store::notify::descriptor());
    }

    [[nodiscard]] int fd() const
    {
        (void)store::notify::descriptor(); // looks after the stores; the number stays
        return m_both;
    }
    [[nodiscard]] int closed() const { return m_closed; }

private:
    void add(int fd) const
    {
        epoll_event event{};
        event.events = EPOLLIN;
        ASSERT_EQ(epoll_ctl(m_both, EPOLL_CTL_ADD, fd, &event), 0);
    }

    Fd m_closed;
    Fd m_both;
};

MonitoredKey::MonitoredKey(const char* /*key*/, Callback /*callback*/, bool /*notify_now*/, void* /*user*/,
                           bool /*keep*/)
    : m_watch(std::make_unique<Watch>())
{
}

MonitoredKey::~MonitoredKey() = default;

int MonitoredKey::get_fd() const
{
    return m_watch->fd();
}

void MonitoredKey::read_notifications()
{
    std::uint64_t count = 0;
    (void)!read(m_watch->closed(), &count, sizeof count);
    store::notify::read();
}

} // namespace setMgmt
} // namespace orv

// ---- the exchange

int orvex_send_request(Orvex* /*orvex*/, const char* /*name*/, const char* /*data*/, std::size_t /*length*/,
                       void (* /*response_callback*/)(void* arg, const Message* response), void* /*arg*/)
{
    return -1;
}

namespace {

using namespace orv;

std::vector<std::string>& told()
{
    static std::vector<std::string> changes;
    return changes;
}

void tell(devMgmt::DevInfoChangeType type, const devMgmt::Device& device, const std::string& field)
{
    told().push_back(std::to_string(static_cast<int>(type)) + " " + device.did + " " + field);
}

bool is_readable(int fd, int milliseconds)
{
    pollfd watched{fd, POLLIN, 0};
    return poll(&watched, 1, milliseconds) > 0;
}

class VendorTest : public testing::Test {
protected:
    void SetUp() override { g_log.clear(); }

    TemporaryRoot m_root;
};

TEST_F(VendorTest, Changes_of_devices_come_through_the_descriptor_of_its_monitored_keys)
{
    ASSERT_EQ(devMgmt::init(), 0) << g_log;
    ASSERT_EQ(devMgmt::set_on_dev_info_change({"display_name"}, tell), 0);
    setMgmt::MonitoredKey key("/tmp/subscription/refresh", nullptr, false, nullptr, true);
    key.read_notifications();
    EXPECT_FALSE(is_readable(key.get_fd(), 0));
    devMgmt::Device device;
    device.did = "d1";
    ASSERT_EQ(devMgmt::put_device(device), 0) << g_log;
    device.display_name = "TV";
    ASSERT_EQ(devMgmt::put_device(device), 0) << g_log;
    ASSERT_TRUE(is_readable(key.get_fd(), 20000));
    key.read_notifications();
    EXPECT_EQ(told(), (std::vector<std::string>{"0 d1 ", "1 d1 display_name"}));
    EXPECT_FALSE(is_readable(key.get_fd(), 0));
    devMgmt::uninit();
}

TEST_F(VendorTest, Its_log_is_told_what_the_libraries_have_to_tell)
{
    spill(m_root.path() + "/var", "in the way");
    EXPECT_EQ(devMgmt::init(), -1);
    EXPECT_EQ(karma::init(), 0) << "what is sent is not kept, then";
    const std::string reason = "cannot create the directory: Not a directory\n";
    EXPECT_NE(g_log.find("()]: store var/devices: " + reason), std::string::npos) << g_log;
    EXPECT_NE(g_log.find("()]: telemetry: events are sent without being kept: " + m_root.path() +
                         "/var/telemetry: " + reason),
              std::string::npos)
        << g_log;
}

TEST_F(VendorTest, Its_error_number_is_its_own_and_theirs_is_the_bases)
{
    g_error = 4;
    std::string id;
    ASSERT_EQ(devMgmt::get_device_id_by_mac(sockutl::macaddr("aa:bb:cc:00:00:01"), id), -1) << "not open";
    EXPECT_EQ(_get_orverrno(), 4);
    EXPECT_EQ(base::error_number(), 2);
}

TEST_F(VendorTest, Events_are_kept_without_an_exchange)
{
    ASSERT_EQ(karma::init(), 0) << g_log;
    const JsonPtr data(json_object());
    const JsonPtr event(karma::build_karma_event_json("test", data.get()));
    EXPECT_EQ(karma::submit_karma_event(event.get(), nullptr), -1);
    std::vector<json_t*> events;
    EXPECT_EQ(karma::read_events(events), 0);
    EXPECT_EQ(events.size(), 1U);
    for (json_t* one : events)
        json_decref(one);
    karma::uninit();
}

} // namespace
