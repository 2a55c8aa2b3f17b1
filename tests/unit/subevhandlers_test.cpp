// Changes of devices and of the service subscription, as events for clients.

#include "make_device.h"
#include "support/fixture.h"

#include "orvbrokerd.h"
#include "subevhandlers.h"

#include <pthread.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

namespace {

using Table = std::unordered_map<std::string, std::string>;

/// What becomes of the list of changed devices while its mutex is held, and while it is not.
struct Watched {
    int locks = 0;
    bool is_changed_without = false;
    Table last;
};
Watched* g_watched = nullptr;

bool is_mutex_of_the_list(const pthread_mutex_t* mutex)
{
    return g_watched && mutex == orv::brokerd::g_events_cache_mutex.native_handle();
}

} // namespace

// The linker sends every call of these functions here.
extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    const int result = __real_pthread_mutex_lock(mutex);
    if (is_mutex_of_the_list(mutex)) {
        ++g_watched->locks;
        g_watched->is_changed_without =
            g_watched->is_changed_without || g_watched->last != orv::brokerd::g_events_cache;
    }
    return result;
}

int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    if (is_mutex_of_the_list(mutex))
        g_watched->last = orv::brokerd::g_events_cache;
    return __real_pthread_mutex_unlock(mutex);
}
}

namespace orv::test {
namespace {

using brokerd::g_dev_info_fields;
using brokerd::g_events_cache;
using brokerd::on_device_info_change_cb;
using brokerd::on_device_info_change_old_cb;
using brokerd::on_subscription_changed_cb;
using brokerd::process_cached_events;
using devMgmt::Device;
using devMgmt::DevInfoChangeType;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr char kMac[] = "aa:bb:cc:00:00:01";
constexpr char kOtherMac[] = "aa:bb:cc:00:00:02";

Device device()
{
    Device dev = make_device("d1");
    dev.macs[sockutl::macaddr(kMac)] = {sockutl::address("192.168.1.20")};
    dev.traffic_blocked = 1;
    return dev;
}

/// The lines that attaching all fields to an event logs.
fake::Logs attaching_lines()
{
    fake::Logs logs;
    for (const std::string& field : g_dev_info_fields)
        if (field != "macs")
            logs.push_back({3, "Attaching cached field " + field, {}, {}});
    return logs;
}

class DeviceChanges : public ServiceTest {
protected:
    /// The frames that a subscriber of device changes has received.
    std::vector<std::string> frames(Peer& peer)
    {
        EXPECT_TRUE(drain(peer));
        std::vector<std::string> all;
        while (const auto frame = peer.client.frame())
            all.push_back(*frame);
        EXPECT_EQ(peer.client.bytes(), "");
        return all;
    }
};

TEST_F(DeviceChanges, AreWatchedForTheseFieldsInThisOrder)
{
    EXPECT_THAT(g_dev_info_fields,
                ElementsAre("display_name", "device_type", "device_manufacturer", "device_os",
                            "device_os_version", "macs", "traffic_blocked", "friendly_name"));
}

// ---- at once

TEST_F(DeviceChanges, OfAFieldAreToldWithTheMacAndTheFieldsValue)
{
    Peer peer = subscribe("device_discovery");
    struct Case {
        const char* field;
        const char* value;
    };
    for (const Case& c :
         {Case{"display_name", "TV"}, Case{"device_type", "tv"}, Case{"device_manufacturer", "Acme"},
          Case{"device_os", "Linux"}, Case{"device_os_version", "6.1"}, Case{"traffic_blocked", "1"},
          Case{"no_such_field", ""}}) {
        SCOPED_TRACE(c.field);
        forget_records();
        on_device_info_change_old_cb(DevInfoChangeType::updated, device(), c.field);
        const std::string event =
            std::string(R"({"mac": ")") + kMac + R"(", ")" + c.field + R"(": ")" + c.value + "\"}";
        EXPECT_EQ(platform->take_logs(), lines({{2, "send json: " + event}}));
        EXPECT_THAT(frames(peer), ElementsAre(event));
    }
}

TEST_F(DeviceChanges, OfADeviceWithTwoMacsAreToldOncePerMac)
{
    Peer peer = subscribe("device_discovery");
    Device dev = device();
    dev.macs[sockutl::macaddr(kOtherMac)] = {};
    on_device_info_change_old_cb(DevInfoChangeType::updated, dev, "device_os");
    EXPECT_THAT(frames(peer), UnorderedElementsAre(R"({"mac": "aa:bb:cc:00:00:01", "device_os": "Linux"})",
                                                   R"({"mac": "aa:bb:cc:00:00:02", "device_os": "Linux"})"));
}

TEST_F(DeviceChanges, OfADeviceWithoutAMacAreNotToldAtOnce)
{
    Peer peer = subscribe("device_discovery");
    Device dev = device();
    dev.macs.clear();
    for (const std::string& field : g_dev_info_fields)
        on_device_info_change_old_cb(DevInfoChangeType::updated, dev, field);
    EXPECT_THAT(frames(peer), IsEmpty());
}

TEST_F(DeviceChanges, OfTheMacsAreToldWithTheAddressAndEveryFieldThatHasAValue)
{
    Peer peer = subscribe("device_discovery");
    on_device_info_change_old_cb(DevInfoChangeType::updated, device(), "macs");

    const std::string event =
        R"({"mac": "aa:bb:cc:00:00:01", "ip": "192.168.1.20", "display_name": "TV", )"
        R"("device_type": "tv", "device_manufacturer": "Acme", "device_os": "Linux", )"
        R"("device_os_version": "6.1", "traffic_blocked": "1", "friendly_name": "My TV"})";
    fake::Logs expected = attaching_lines();
    expected.push_back({2, "send json: " + event, {}, {}});
    EXPECT_EQ(platform->take_logs(), expected);
    EXPECT_THAT(frames(peer), ElementsAre(event));
}

TEST_F(DeviceChanges, OfTheMacsLeaveOutFieldsWithoutAValue)
{
    Peer peer = subscribe("device_discovery");
    Device dev;
    dev.did = "d2";
    dev.macs[sockutl::macaddr(kMac)] = {};
    on_device_info_change_old_cb(DevInfoChangeType::updated, dev, "macs");
    EXPECT_THAT(frames(peer),
                ElementsAre(R"({"mac": "aa:bb:cc:00:00:01", "ip": "", "traffic_blocked": "0"})"));
}

TEST_F(DeviceChanges, OfTheMacsTellTheFirstIpv4AddressOnly)
{
    struct Case {
        std::vector<const char*> addresses;
        std::string ip;
    };
    Peer peer = subscribe("device_discovery");
    for (const Case& c :
         {Case{{}, ""}, Case{{"fe80::1"}, ""}, Case{{"fe80::1", "192.168.1.9"}, "192.168.1.9"},
          Case{{"192.168.1.20", "10.0.0.7", "192.168.1.3"}, "10.0.0.7"},
          Case{{"10.0.0.7", "10.0.0.7"}, "10.0.0.7"}}) {
        SCOPED_TRACE(c.ip);
        Device dev;
        auto& addresses = dev.macs[sockutl::macaddr(kMac)];
        for (const char* address : c.addresses)
            addresses.insert(sockutl::address(address));
        on_device_info_change_old_cb(DevInfoChangeType::updated, dev, "macs");
        EXPECT_THAT(frames(peer), ElementsAre(R"({"mac": "aa:bb:cc:00:00:01", "ip": ")" + c.ip +
                                              R"(", "traffic_blocked": "0"})"));
    }
}

TEST_F(DeviceChanges, ThatAreNewRemovedOrOfTheFriendlyNameAreNotToldAtOnce)
{
    Peer peer = subscribe("device_discovery");
    on_device_info_change_old_cb(DevInfoChangeType::added, device(), "");
    on_device_info_change_old_cb(DevInfoChangeType::added, device(), "macs");
    on_device_info_change_old_cb(DevInfoChangeType::removed, device(), "");
    on_device_info_change_old_cb(DevInfoChangeType::removed, device(), "device_os");
    on_device_info_change_old_cb(DevInfoChangeType::updated, device(), "friendly_name");
    EXPECT_TRUE(platform->take_logs().empty());
    EXPECT_THAT(frames(peer), IsEmpty());
}

TEST_F(DeviceChanges, OfAnyOtherKindAreToldAtOnce)
{
    Peer peer = subscribe("device_discovery");
    on_device_info_change_old_cb(static_cast<DevInfoChangeType>(3), device(), "device_os");
    EXPECT_THAT(frames(peer), ElementsAre(R"({"mac": "aa:bb:cc:00:00:01", "device_os": "Linux"})"));
}

TEST_F(DeviceChanges, WithTextThatIsNoUtf8AreNotTold)
{
    Peer peer = subscribe("device_discovery");
    Device dev = device();
    dev.display_name = "\xff";
    on_device_info_change_old_cb(DevInfoChangeType::updated, dev, "display_name");
    EXPECT_THAT(frames(peer), IsEmpty());
}

TEST_F(DeviceChanges, SurviveShortMemoryWithWholeFramesOrNone)
{
    Peer peer = subscribe("device_discovery");
    for (const char* field : {"macs", "device_os"}) {
        bool failed = true;
        for (unsigned n = 1; failed; ++n) {
            SCOPED_TRACE(std::string(field) + ", " + std::to_string(n));
            platform->fail_json_allocation(n);
            on_device_info_change_old_cb(DevInfoChangeType::updated, device(), field);
            failed = platform->json_allocation_failed();
            platform->fail_json_allocation(0);
            for (const std::string& frame : frames(peer))
                EXPECT_EQ(frame.back(), '}');
        }
    }
}

// ---- collected

TEST_F(DeviceChanges, AreCollectedPerDevice)
{
    struct Case {
        std::vector<DevInfoChangeType> changes;
        const char* kind;
    };
    constexpr auto added = DevInfoChangeType::added;
    constexpr auto updated = DevInfoChangeType::updated;
    constexpr auto removed = DevInfoChangeType::removed;
    const Case cases[] = {
        {{added}, "new"},
        {{updated}, "updated"},
        {{removed}, "removed"},
        {{added, updated}, "new"},
        {{removed, updated}, "removed"},
        {{updated, updated}, "updated"},
        {{updated, removed}, "removed"},
        {{updated, added}, "new"},
        {{added, removed}, "removed"},
        {{removed, added}, "new"},
        {{added, updated, removed, updated}, "removed"},
        {{added, static_cast<DevInfoChangeType>(3)}, "new"},
    };
    for (const Case& c : cases) {
        g_events_cache.clear();
        for (const DevInfoChangeType change : c.changes)
            on_device_info_change_cb(change, device(), change == updated ? "device_os" : "");
        EXPECT_THAT(g_events_cache, ElementsAre(Pair("d1", c.kind)));
    }
    g_events_cache.clear();
    on_device_info_change_cb(static_cast<DevInfoChangeType>(3), device(), "device_os");
    EXPECT_THAT(g_events_cache, IsEmpty());
    EXPECT_TRUE(platform->take_logs().empty());
    EXPECT_TRUE(platform->take_calls().empty());
}

TEST_F(DeviceChanges, OfTheFriendlyNameDropTheNameGivenThroughTheDaemonAndAreNotCollected)
{
    const std::string key = "/tmp/daemons/orvbrokerd/d1/friendly_name";
    for (const auto change :
         {DevInfoChangeType::updated, DevInfoChangeType::added, DevInfoChangeType::removed}) {
        platform->settings[key] = "name";
        on_device_info_change_cb(change, device(), "friendly_name");
        EXPECT_EQ(platform->settings.count(key), 0U);
        EXPECT_EQ(platform->take_logs(), lines({{3, "Deleting key " + key}}));
        EXPECT_THAT(platform->take_calls(), ElementsAre("setMgmt::deleteKey(" + key + ")"));
        EXPECT_THAT(g_events_cache, IsEmpty());
    }
}

TEST_F(DeviceChanges, OfTheFriendlyNameWarnWhenTheStoredNameCannotBeDropped)
{
    on_device_info_change_cb(DevInfoChangeType::updated, device(), "friendly_name"); // there is none
    EXPECT_EQ(platform->take_logs(),
              lines({{3, "Deleting key /tmp/daemons/orvbrokerd/d1/friendly_name"},
                     {1, "failed to delete key /tmp/daemons/orvbrokerd/d1/friendly_name"}}));
}

TEST_F(DeviceChanges, WithNothingCollectedSendNothing)
{
    Peer peer = subscribe("devices_list_updated");
    EXPECT_EQ(process_cached_events(brokerd::epollfd), -1);
    EXPECT_TRUE(platform->take_logs().empty());
    EXPECT_THAT(frames(peer), IsEmpty());
}

TEST_F(DeviceChanges, CollectedAreSentAsOneList)
{
    Peer a = subscribe("devices_list_updated");
    Peer b = subscribe("devices_list_updated");
    g_events_cache["d1"] = "new";
    EXPECT_EQ(process_cached_events(brokerd::epollfd), 0);

    const std::string list = R"([{"device_id": "d1", "status": "new"}])";
    EXPECT_EQ(platform->take_logs(),
              lines({{4, "Attached device_id=d1 status=new"}, {2, "send json: " + list}}));
    EXPECT_THAT(platform->take_calls(),
                ElementsAre("epoll_ctl(MOD, client1, IN|OUT)", "epoll_ctl(MOD, client2, IN|OUT)"));
    EXPECT_THAT(frames(a), ElementsAre(list));
    EXPECT_THAT(frames(b), ElementsAre(list));
    EXPECT_THAT(g_events_cache, IsEmpty());
    EXPECT_EQ(process_cached_events(brokerd::epollfd), -1);
}

TEST_F(DeviceChanges, AreCollectedAndTakenUnderTheListsMutexOnly)
{
    const Peer peer = subscribe("devices_list_updated");
    const auto locks_of = [](const std::function<void()>& action) {
        Watched watched;
        watched.last = g_events_cache;
        g_watched = &watched;
        action();
        g_watched = nullptr;
        EXPECT_FALSE(watched.is_changed_without);
        EXPECT_EQ(watched.last, g_events_cache) << "changed without it";
        return watched.locks;
    };
    EXPECT_EQ(locks_of([] { on_device_info_change_cb(DevInfoChangeType::added, device(), ""); }), 1);
    EXPECT_EQ(
        locks_of([] { on_device_info_change_cb(DevInfoChangeType::updated, device(), "friendly_name"); }), 1);
    EXPECT_EQ(locks_of([] { EXPECT_EQ(process_cached_events(brokerd::epollfd), 0); }), 2)
        << "to look and to take";
    EXPECT_THAT(g_events_cache, IsEmpty());
    EXPECT_EQ(locks_of([] { EXPECT_EQ(process_cached_events(brokerd::epollfd), -1); }), 1);
}

TEST_F(DeviceChanges, CollectedHaveTheirSubscribersWatchedOnTheDescriptorGiven)
{
    const Peer peer = subscribe("devices_list_updated");
    const OtherEpoll other;
    g_events_cache["d1"] = "new";
    EXPECT_EQ(process_cached_events(other.fd()), 0);
    EXPECT_EQ(watched_for(peer, other.fd()), EPOLLIN | EPOLLOUT);
    EXPECT_EQ(watched_for(peer), EPOLLIN);
}

TEST_F(DeviceChanges, CollectedAreListedInTheTablesOrder)
{
    Peer peer = subscribe("devices_list_updated");
    for (int i = 0; i < 50; ++i)
        g_events_cache["d" + std::to_string(i)] = i % 2 ? "updated" : "removed";
    std::string list;
    for (const auto& [did, kind] : g_events_cache)
        list.append(list.empty() ? "[" : ", ")
            .append(R"({"device_id": ")")
            .append(did)
            .append(R"(", "status": ")")
            .append(kind)
            .append("\"}");
    EXPECT_EQ(process_cached_events(brokerd::epollfd), 0);
    EXPECT_THAT(frames(peer), ElementsAre(list + "]"));
}

TEST_F(DeviceChanges, CollectedWhileNobodyListensAreKeptForTheFirstSubscriber)
{
    g_events_cache["d1"] = "new";
    EXPECT_EQ(process_cached_events(brokerd::epollfd), -1);
    EXPECT_EQ(platform->take_logs(), lines({{4, "Attached device_id=d1 status=new"},
                                            {3, "no connections for devices_list_updated event"}}));
    g_events_cache["d2"] = "removed";

    Peer peer = subscribe("devices_list_updated");
    EXPECT_EQ(process_cached_events(brokerd::epollfd), 0);
    EXPECT_THAT(frames(peer), ElementsAre(testing::AllOf(
                                  testing::HasSubstr(R"({"device_id": "d1", "status": "new"})"),
                                  testing::HasSubstr(R"({"device_id": "d2", "status": "removed"})"))));
}

TEST_F(DeviceChanges, CollectedAreKeptWhenTheyCannotBeSerialised)
{
    Peer peer = subscribe("devices_list_updated");
    g_events_cache["d1"] = "new";
    platform->fail_json_allocation(1, true);
    EXPECT_EQ(process_cached_events(brokerd::epollfd), -1);
    platform->fail_json_allocation(0);
    EXPECT_THAT(g_events_cache, ElementsAre(Pair("d1", "new")));
    EXPECT_THAT(frames(peer), IsEmpty());
    EXPECT_EQ(process_cached_events(brokerd::epollfd), 0);
    EXPECT_EQ(frames(peer).size(), 1U);
}

TEST_F(DeviceChanges, CollectedAreAllToldOrAllKeptWhenMemoryIsShort)
{
    Peer peer = subscribe("devices_list_updated");
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        SCOPED_TRACE(n);
        g_events_cache["d1"] = "new";
        platform->fail_json_allocation(n);
        const int result = process_cached_events(brokerd::epollfd);
        failed = platform->json_allocation_failed();
        platform->fail_json_allocation(0);
        if (result == 0)
            EXPECT_THAT(frames(peer), ElementsAre(testing::HasSubstr("d1")));
        else
            EXPECT_THAT(g_events_cache, ElementsAre(Pair("d1", "new")));
    }
}

// ---- the service subscription

class SubscriptionChange : public DeviceChanges {
protected:
    SubscriptionChange() { report("expired", ++expiry); }

    /// Sets the subscription and tells of it; the record of what was reported last lives as long as the
    /// process.
    int report(const std::string& status, std::int64_t when)
    {
        return report(status, when, brokerd::epollfd);
    }

    int report(const std::string& status, std::int64_t when, int epoll)
    {
        platform->settings["/tmp/subscription/global/status"] = status;
        platform->settings["/tmp/subscription/global/expiry"] = std::to_string(when);
        forget_records();
        const fake::Fake::Inside inside;
        return on_subscription_changed_cb(epoll);
    }

    static inline std::int64_t expiry = 4102444800; // beyond 32 bits, on purpose
};

TEST_F(SubscriptionChange, IsToldToItsSubscribers)
{
    Peer a = subscribe("subscription_changed");
    Peer b = subscribe("subscription_changed");
    EXPECT_EQ(report("valid", ++expiry), 0);

    const std::string event = R"({"status": "valid", "expiry": )" + std::to_string(expiry) + "}";
    const fake::Logs logs = platform->take_logs();
    ASSERT_EQ(logs.size(), 3U);
    EXPECT_EQ(logs[0], (fake::LogLine{2, "processing subscription changed", {}, {}}));
    EXPECT_EQ(logs[1],
              (fake::LogLine{2, "subscription status=valid expiry=" + std::to_string(expiry), {}, {}}));
    EXPECT_EQ(logs[2], (fake::LogLine{2, "subscription changed JSON: " + event, {}, {}}));
    EXPECT_THAT(platform->take_calls(), ElementsAre("subs::load()", "epoll_ctl(MOD, client1, IN|OUT)",
                                                    "epoll_ctl(MOD, client2, IN|OUT)"));
    EXPECT_THAT(frames(a), ElementsAre(event));
    EXPECT_THAT(frames(b), ElementsAre(event));
}

TEST_F(SubscriptionChange, HasItsSubscribersWatchedOnTheDescriptorGiven)
{
    const Peer peer = subscribe("subscription_changed");
    const OtherEpoll other;
    EXPECT_EQ(report("valid", ++expiry, other.fd()), 0);
    EXPECT_EQ(watched_for(peer, other.fd()), EPOLLIN | EPOLLOUT);
    EXPECT_EQ(watched_for(peer), EPOLLIN);
}

TEST_F(SubscriptionChange, NamesTheStatusAndTheExpiryExceptForValidWithoutEnd)
{
    Peer peer = subscribe("subscription_changed");
    EXPECT_EQ(report("valid", 0), 0);
    EXPECT_THAT(frames(peer), ElementsAre(R"({"status": "valid"})"));
    EXPECT_EQ(report("expired", 0), 0);
    EXPECT_THAT(frames(peer), ElementsAre(R"({"status": "expired", "expiry": 0})"));
    EXPECT_EQ(report("expired", 1), 0);
    EXPECT_THAT(frames(peer), ElementsAre(R"({"status": "expired", "expiry": 1})"));
}

TEST_F(SubscriptionChange, IsNotToldTwiceInARow)
{
    Peer peer = subscribe("subscription_changed");
    EXPECT_EQ(report("valid", ++expiry), 0);
    EXPECT_EQ(frames(peer).size(), 1U);

    EXPECT_EQ(report("valid", expiry), 0);
    const std::string event = R"({"status": "valid", "expiry": )" + std::to_string(expiry) + "}";
    EXPECT_EQ(platform->take_logs().back(),
              (fake::LogLine{2, "skipping already reported subscription: " + event, {}, {}}));
    EXPECT_THAT(frames(peer), IsEmpty());

    EXPECT_EQ(report("expired", expiry), 0);
    EXPECT_EQ(report("valid", expiry), 0);
    EXPECT_EQ(frames(peer).size(), 2U);
}

TEST_F(SubscriptionChange, CountsAsReportedAlsoWhenNobodyListened)
{
    EXPECT_EQ(report("valid", ++expiry), 0);
    Peer peer = subscribe("subscription_changed");
    EXPECT_EQ(report("valid", expiry), 0);
    EXPECT_THAT(frames(peer), IsEmpty());
}

TEST_F(SubscriptionChange, IsAFailureWhenItCannotBeLoaded)
{
    Peer peer = subscribe("subscription_changed");
    const auto is_failure = [&](int result) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(platform->take_logs(),
                  lines({{2, "processing subscription changed"}, {0, "failed to load subscription data"}}));
        EXPECT_THAT(frames(peer), IsEmpty());
    };
    platform->fail("subs::load()");
    is_failure(report("valid", ++expiry));
    is_failure(report("valid", -1));
    is_failure(report("Valid", ++expiry));
    is_failure(report("", ++expiry));
}

TEST_F(SubscriptionChange, IsIgnoredWhenThereIsNoSubscription)
{
    Peer peer = subscribe("subscription_changed");
    const auto is_ignored = [this](int result) {
        EXPECT_EQ(result, -1);
        const fake::Logs logs = platform->take_logs();
        ASSERT_EQ(logs.size(), 2U);
        EXPECT_EQ(logs[0], (fake::LogLine{2, "processing subscription changed", {}, {}}));
        EXPECT_EQ(logs[1].level, 1);
        EXPECT_THAT(logs[1].text, testing::MatchesRegex("ignoring status: '.*'"));
    };
    is_ignored(report("none", ++expiry));
    platform->settings.clear();
    is_ignored(on_subscription_changed_cb(brokerd::epollfd));
    EXPECT_THAT(frames(peer), IsEmpty());
}

TEST_F(SubscriptionChange, ThatWasIgnoredDoesNotCountAsReported)
{
    Peer peer = subscribe("subscription_changed");
    EXPECT_EQ(report("valid", ++expiry), 0);
    EXPECT_EQ(report("none", expiry), -1);
    EXPECT_EQ(report("valid", expiry), 0);
    EXPECT_EQ(frames(peer).size(), 1U);
}

TEST_F(SubscriptionChange, SurvivesShortMemoryWithTheWholeEventOrNone)
{
    Peer peer = subscribe("subscription_changed");
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        SCOPED_TRACE(n);
        platform->fail_json_allocation(n);
        const int result = report("valid", ++expiry);
        failed = platform->json_allocation_failed();
        platform->fail_json_allocation(0);
        const auto received = frames(peer);
        if (result == 0)
            EXPECT_THAT(received,
                        ElementsAre(R"({"status": "valid", "expiry": )" + std::to_string(expiry) + "}"));
        else
            EXPECT_THAT(received, IsEmpty());
    }
}

// ---- without memory

class ChangesWithoutMemory : public SubscriptionChange {
protected:
    /// Tells of a change with each allocation failing in turn: it is lost with one line. The next one, with another
    /// number, arrives.
    void starve(const char* event, const char* function, const std::function<void(unsigned)>& tell,
                const std::function<std::string(unsigned)>& expected)
    {
        Peer peer = subscribe(event);
        for (unsigned n = 1, failed = 1; failed != 0; ++n) {
            SCOPED_TRACE(event + std::to_string(n));
            platform->fail_memory("throwing new", n);
            tell(2 * n);
            failed = platform->memory_failed("throwing new") ? 1 : 0;
            platform->fail_memory("throwing new", 0);
            const fake::Logs logs = platform->take_logs();
            if (failed != 0) {
                ASSERT_FALSE(logs.empty());
                EXPECT_EQ(logs.back(), (fake::LogLine{0, "out of memory", {}, {}}));
                EXPECT_EQ(logs.back().function, function);
            }
            (void)frames(peer);
            tell(2 * n + 1);
            EXPECT_THAT(frames(peer), ElementsAre(expected(2 * n + 1)));
            forget_records();
        }
    }
};

TEST_F(ChangesWithoutMemory, OfAFieldAreLostWithALineAndTheNextOneArrives)
{
    const auto named = [](unsigned number) { return std::string(20, 'x') + std::to_string(number); };
    starve(
        "device_discovery", "on_device_info_change_old_cb",
        [&](unsigned number) {
            Device dev = device();
            dev.device_os = named(number);
            const std::string field = "device_os";
            const fake::Fake::Inside inside;
            on_device_info_change_old_cb(DevInfoChangeType::updated, dev, field);
        },
        [&](unsigned number) {
            return R"({"mac": "aa:bb:cc:00:00:01", "device_os": ")" + named(number) + "\"}";
        });
}

TEST_F(ChangesWithoutMemory, ForTheListAreLostWithALineAndTheNextOneArrives)
{
    const auto named = [](unsigned number) { return std::string(20, 'x') + std::to_string(number); };
    starve(
        "devices_list_updated", "on_device_info_change_cb",
        [&](unsigned number) {
            const Device dev = make_device(named(number));
            {
                const fake::Fake::Inside inside;
                on_device_info_change_cb(DevInfoChangeType::added, dev, {});
            }
            if (number % 2 == 1) {
                EXPECT_EQ(process_cached_events(brokerd::epollfd), 0);
            } else {
                g_events_cache.clear(); // of what was not lost
            }
        },
        [&](unsigned number) { return R"([{"device_id": ")" + named(number) + R"(", "status": "new"}])"; });
}

TEST_F(ChangesWithoutMemory, OfTheSubscriptionAreLostWithALineAndTheNextOneArrives)
{
    starve(
        "subscription_changed", "on_subscription_changed_cb",
        [&](unsigned) { (void)report("valid", ++expiry); },
        [&](unsigned) { return R"({"status": "valid", "expiry": )" + std::to_string(expiry) + "}"; });
}

} // namespace
} // namespace orv::test
