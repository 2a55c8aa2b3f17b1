// Timers, file locks, scripts, versions, the log's channels, the device store and the diagnosis records.

#include "contract_ground.h"

#include "make_device.h"

#include <orvdiagnosis/orvdiagnosis.h>
#include <orvutils/json.h>
#include <orvutils/locking.h>
#include <orvutils/log.h>
#include <orvutils/path.h>
#include <orvutils/script.h>
#include <orvutils/time.h>
#include <orvutils/version.h>

#include <poll.h>

#include <optional>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

namespace orv::contract {
namespace {

class AgentContract : public ContractTest {};

// ---- timers

constexpr auto kMonotonic = time::TimerType::monotonic;

bool is_readable(int fd)
{
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, 0) == 1;
}

TEST_F(AgentContract, A_timer_is_of_a_kind_that_there_is)
{
    EXPECT_EQ(result_of([] { return time::timer_init(time::TimerType(1)); }), (Result{-1, 1}));
    EXPECT_EQ(result_of([] { return time::timer_init(time::TimerType(-1)); }), (Result{-1, 1}));
}

TEST_F(AgentContract, A_timer_tells_once_that_it_has_expired)
{
    const int timer = time::timer_init(kMonotonic);
    ASSERT_GE(timer, 0);
    EXPECT_FALSE(is_readable(timer));
    EXPECT_EQ(time::timer_tick(timer), 0U);
    EXPECT_EQ(result_of([&] { return time::timer_start(timer, 1000, 1000, false); }), kDone);
    EXPECT_FALSE(is_readable(timer));
    ground->expire(timer);
    EXPECT_TRUE(is_readable(timer));
    EXPECT_EQ(time::timer_tick(timer), 1U);
    EXPECT_FALSE(is_readable(timer));
    EXPECT_EQ(time::timer_tick(timer), 0U);
    time::timer_uninit(timer);
}

TEST_F(AgentContract, A_timer_that_is_started_anew_has_not_expired_yet)
{
    const int timer = time::timer_init(kMonotonic);
    for (const long first : {1000L, 0L}) {
        ground->expire(timer);
        EXPECT_EQ(result_of([&] { return time::timer_start(timer, first, 0, false); }), kDone);
        EXPECT_FALSE(is_readable(timer));
        EXPECT_EQ(time::timer_tick(timer), 0U);
    }
    time::timer_uninit(timer);
}

TEST_F(AgentContract, A_timer_that_cannot_be_started_goes_on_as_before)
{
    const int timer = time::timer_init(kMonotonic);
    ground->expire(timer);
    EXPECT_EQ(result_of([&] { return time::timer_start(timer, -1, 1, false); }), (Result{-1, 1}));
    EXPECT_EQ(result_of([&] { return time::timer_start(timer, 1, -1, false); }), (Result{-1, 1}));
    EXPECT_EQ(time::timer_tick(timer), 1U);
    time::timer_uninit(timer);
    EXPECT_EQ(result_of([&] { return time::timer_start(timer, 1, 1, false); }), (Result{-1, 2}));
    EXPECT_EQ(result_of([] { return time::timer_start(-1, 1, 1, false); }), (Result{-1, 2}));
    EXPECT_EQ(time::timer_tick(-1), 0U);
    time::timer_uninit(-1);
}

// ---- file locks

using locking::flags;
using locking::plock;

std::optional<plock> lock_file(const std::string& file)
{
    return plock::make(file, flags::create);
}

locking::result take(std::optional<plock>& lock, locking::type how = locking::type::exclusive)
{
    return lock->lock(how);
}

TEST_F(AgentContract, A_file_that_is_not_there_can_be_made_for_locking)
{
    const std::string file = ground->directory() + "/lock";
    EXPECT_EQ(result_of([&] { return plock::make(file, flags::none).has_value() ? 0 : -1; }),
              (Result{-1, 2}));
    EXPECT_EQ(result_of([&] { return plock::make(file, flags::create).has_value() ? 0 : -1; }), kDone);
    EXPECT_EQ(result_of([&] { return plock::make(file, flags::none).has_value() ? 0 : -1; }), kDone);
    EXPECT_EQ(result_of([] { return plock::make("", flags::create).has_value() ? 0 : -1; }), (Result{-1, 1}));
}

TEST_F(AgentContract, A_file_is_locked_by_one_until_that_one_is_gone)
{
    const std::string file = ground->directory() + "/lock";
    auto first = lock_file(file);
    auto second = lock_file(file);
    auto other = lock_file(file + "2");
    EXPECT_EQ(take(first), locking::result::locked);
    EXPECT_EQ(take(first), locking::result::locked);
    EXPECT_EQ(take(second), locking::result::busy);
    EXPECT_EQ(take(second, locking::type::shared), locking::result::busy);
    EXPECT_EQ(take(other), locking::result::locked);
    {
        const plock moved = std::move(*first);
        first.reset();
        EXPECT_EQ(take(second), locking::result::busy);
    }
    EXPECT_EQ(take(second), locking::result::locked);
}

TEST_F(AgentContract, A_file_is_shared_by_those_who_want_to_share_it)
{
    const std::string file = ground->directory() + "/lock";
    auto first = lock_file(file);
    auto second = lock_file(file);
    EXPECT_EQ(take(first, locking::type::shared), locking::result::locked);
    EXPECT_EQ(take(second, locking::type::shared), locking::result::locked);
    EXPECT_EQ(take(second), locking::result::busy);
    first = plock();
    EXPECT_EQ(take(second), locking::result::locked);
}

TEST_F(AgentContract, A_lock_without_a_file_fails)
{
    plock none;
    const auto lock = [&] { return static_cast<int>(none.lock(locking::type::exclusive)); };
    EXPECT_EQ(result_of(lock), (Result{static_cast<int>(locking::result::failed), 2}));
}

// ---- scripts, versions, directories, channels

TEST_F(AgentContract, A_script_needs_words_an_interpreter_and_no_flags)
{
    EXPECT_EQ(result_of([] { return exec_script({}, "/bin/sh", 0); }), kDone);
    EXPECT_EQ(result_of([] { return exec_script({{}}, "/bin/sh", 0); }), failed(1));
    EXPECT_EQ(result_of([] { return exec_script({{"script"}}, "", 0); }), failed(1));
    EXPECT_EQ(result_of([] { return exec_script({}, "/bin/sh", 1); }), failed(1));
}

TEST_F(AgentContract, A_release_without_a_text_has_no_version)
{
    ground->uninstall_release();
    EXPECT_EQ(get_release_version(), std::nullopt);
    EXPECT_EQ(get_patch_version(), "");
    ground->install_release("3.4", "5");
    EXPECT_EQ(get_release_version(), "3.4");
    EXPECT_EQ(get_patch_version(), "5");
    ground->install_release("", "");
    EXPECT_EQ(get_release_version(), std::nullopt);
    EXPECT_EQ(get_patch_version(), "");
}

TEST_F(AgentContract, Directories_end_without_a_slash)
{
    std::set<std::string> directories;
    for (const common_path which : {common_path::firewall, common_path::run}) {
        const std::string directory = common_directory(which);
        EXPECT_EQ(directory.rfind(ground->directory() + "/", 0), 0U) << directory;
        EXPECT_NE(directory.back(), '/');
        directories.insert(directory);
    }
    EXPECT_EQ(directories.size(), 2U);
}

TEST_F(AgentContract, Channels_have_numbers_from_0_on)
{
    EXPECT_TRUE(log::open_channel(log::kDefaultChannel));
    EXPECT_TRUE(log::open_channel(log::kORVSetMgmtChannel));
    EXPECT_TRUE(log::open_channel(log::kORVSetMgmtChannel));
    EXPECT_FALSE(log::open_channel(-1));
}

// ---- devices

using devMgmt::Device;
using devMgmt::DevInfoChangeType;
using sockutl::macaddr;

class DeviceContract : public ContractTest {
protected:
    void SetUp() override
    {
        ContractTest::SetUp();
        ASSERT_EQ(devMgmt::init(), 0);
        s_told.clear();
    }

    void TearDown() override
    {
        devMgmt::uninit();
        ContractTest::TearDown();
    }

    template <int number>
    static void tell(DevInfoChangeType type, const Device& device, const std::string& field)
    {
        const char* const types[] = {"added", "updated", "removed"};
        s_told.push_back(std::to_string(number) + ": " + device.did + " " + types[static_cast<int>(type)] +
                         (field.empty() ? "" : " " + field) + ", " + device.friendly_name);
    }

    static std::vector<std::string> told() { return std::exchange(s_told, {}); }

    static std::vector<std::string> s_told;
};
std::vector<std::string> DeviceContract::s_told;

using Lines = std::vector<std::string>;

Device device(const std::string& did, const char* mac = nullptr)
{
    Device made = test::make_device(did);
    if (mac)
        made.macs[macaddr(mac)];
    return made;
}

Result find(const std::string& id, Device& found)
{
    return result_of([&] { return devMgmt::get_device(id, found); });
}

Result find_id(const macaddr& mac, std::string& id)
{
    return result_of([&] { return devMgmt::get_device_id_by_mac(mac, id); });
}

TEST_F(DeviceContract, A_device_is_found_by_its_id)
{
    Device found;
    found.did = "before";
    EXPECT_EQ(find("d1", found), (Result{0, 4}));
    EXPECT_EQ(find("", found), (Result{0, 4}));
    EXPECT_EQ(found.did, "before");
    ground->put_device(device("d1"));
    EXPECT_EQ(find("d1", found).value, 1);
    EXPECT_EQ(found.did, "d1");
    EXPECT_EQ(found.friendly_name, "My TV");
    ground->remove_device("d1");
    EXPECT_EQ(find("d1", found), (Result{0, 4}));
}

TEST_F(DeviceContract, Devices_are_listed_in_the_order_of_their_ids)
{
    std::vector<Device> found(1);
    EXPECT_EQ(result_of([&] { return devMgmt::get_devices(found); }), kDone);
    EXPECT_TRUE(found.empty());
    for (const char* did : {"d2", "d10", "D3", "d1"})
        ground->put_device(device(did));
    EXPECT_EQ(result_of([&] { return devMgmt::get_devices(found); }), kDone);
    Lines ids;
    for (const Device& each : found)
        ids.push_back(each.did);
    EXPECT_EQ(ids, (Lines{"D3", "d1", "d10", "d2"}));
}

TEST_F(DeviceContract, A_device_is_found_by_each_of_its_macs)
{
    const macaddr mac("aa:bb:cc:00:00:01");
    std::string id = "before";
    EXPECT_EQ(find_id(mac, id), (Result{-1, 4}));
    EXPECT_EQ(find_id(macaddr(), id), (Result{-1, 1}));
    EXPECT_EQ(find_id(macaddr("no mac"), id), (Result{-1, 1}));
    EXPECT_EQ(id, "before");
    ground->put_device(device("d2", "aa:bb:cc:00:00:01"));
    ground->put_device(device("d1", "aa:bb:cc:00:00:01"));
    EXPECT_EQ(find_id(mac, id), kDone);
    EXPECT_EQ(id, "d1");
}

TEST_F(DeviceContract, A_closed_store_has_no_devices)
{
    ground->put_device(device("d1", "aa:bb:cc:00:00:01"));
    EXPECT_EQ(result_of(devMgmt::init), kDone); // it is open already
    devMgmt::uninit();
    devMgmt::uninit();
    Device found;
    std::vector<Device> all(1);
    std::string id = "before";
    EXPECT_EQ(find("d1", found), (Result{0, 2}));
    EXPECT_EQ(result_of([&] { return devMgmt::get_devices(all); }), (Result{-1, 2}));
    EXPECT_EQ(all.size(), 1U);
    EXPECT_EQ(find_id(macaddr("aa:bb:cc:00:00:01"), id), (Result{-1, 2}));
    EXPECT_EQ(id, "before");
    EXPECT_EQ(result_of([] { return devMgmt::set_on_dev_info_change({}, tell<1>); }), (Result{-1, 1}));
    EXPECT_EQ(result_of([] { return devMgmt::unset_on_dev_info_change({}, tell<1>); }), (Result{-1, 1}));
    EXPECT_EQ(result_of(devMgmt::init), kDone);
    EXPECT_EQ(find("d1", found).value, 1);
}

TEST_F(DeviceContract, A_callback_is_taken_back_as_it_was_given)
{
    const Lines fields{"friendly_name"};
    EXPECT_EQ(result_of([&] { return devMgmt::set_on_dev_info_change(fields, nullptr); }), (Result{-1, 1}));
    EXPECT_EQ(result_of([&] { return devMgmt::unset_on_dev_info_change(fields, tell<1>); }), (Result{-1, 1}));
    EXPECT_EQ(result_of([&] { return devMgmt::set_on_dev_info_change(fields, tell<1>); }), kDone);
    EXPECT_EQ(result_of([&] { return devMgmt::set_on_dev_info_change(fields, tell<1>); }), kDone);
    EXPECT_EQ(result_of([&] { return devMgmt::unset_on_dev_info_change({}, tell<1>); }), (Result{-1, 1}));
    EXPECT_EQ(result_of([&] { return devMgmt::unset_on_dev_info_change(fields, tell<2>); }), (Result{-1, 1}));
    EXPECT_EQ(result_of([&] { return devMgmt::unset_on_dev_info_change(fields, tell<1>); }), kDone);
    ground->put_device(device("d1"));
    EXPECT_EQ(told(), Lines{"1: d1 added, My TV"});
    EXPECT_EQ(result_of([&] { return devMgmt::unset_on_dev_info_change(fields, tell<1>); }), kDone);
    EXPECT_EQ(result_of([&] { return devMgmt::unset_on_dev_info_change(fields, tell<1>); }), (Result{-1, 1}));
    ground->remove_device("d1");
    EXPECT_EQ(told(), Lines{});
}

TEST_F(DeviceContract, The_end_of_the_store_is_that_of_its_callbacks)
{
    ASSERT_EQ(devMgmt::set_on_dev_info_change({}, tell<1>), 0);
    devMgmt::uninit();
    ASSERT_EQ(devMgmt::init(), 0);
    ground->put_device(device("d1"));
    EXPECT_EQ(told(), Lines{});
    EXPECT_EQ(result_of([] { return devMgmt::unset_on_dev_info_change({}, tell<1>); }), (Result{-1, 1}));
}

TEST_F(DeviceContract, Callbacks_are_told_in_their_order_of_what_they_have_asked_for)
{
    ASSERT_EQ(devMgmt::set_on_dev_info_change({"friendly_name", "device_os"}, tell<2>), 0);
    ASSERT_EQ(devMgmt::set_on_dev_info_change({"device_os"}, tell<1>), 0);
    Device changing = device("d1");
    ground->put_device(changing);
    EXPECT_EQ(told(), (Lines{"2: d1 added, My TV", "1: d1 added, My TV"}));
    ground->put_device(changing);
    EXPECT_EQ(told(), Lines{});
    changing.friendly_name = "Another";
    ground->put_device(changing);
    EXPECT_EQ(told(), Lines{"2: d1 updated friendly_name, Another"});
    changing.device_os = "Plan 9";
    ground->put_device(changing);
    EXPECT_EQ(told(), (Lines{"2: d1 updated device_os, Another", "1: d1 updated device_os, Another"}));
    changing.device_type = "radio";
    ground->put_device(changing);
    EXPECT_EQ(told(), Lines{});
    ground->remove_device("d1");
    EXPECT_EQ(told(), (Lines{"2: d1 removed, Another", "1: d1 removed, Another"}));
}

// ---- diagnosis

using diagnosis::RecordId;

std::vector<RecordId> ids_of(const std::vector<diagnosis::Record>& records)
{
    std::vector<RecordId> ids;
    for (const diagnosis::Record& record : records)
        ids.push_back(record.id);
    return ids;
}

TEST_F(AgentContract, Records_are_chosen_by_their_ids_and_come_in_that_order)
{
    const std::vector<RecordId> wanted{{"va", "scheduled"}, {"no", "record"}, {"agent", "registered"}};
    EXPECT_EQ(ids_of(diagnosis::get_defaults(wanted)),
              (std::vector<RecordId>{{"va", "scheduled"}, {"agent", "registered"}}));
    EXPECT_EQ(ids_of(diagnosis::get_defaults({{"no", "record"}})), std::vector<RecordId>{});
    EXPECT_EQ(ids_of(diagnosis::get_defaults()).front(), (RecordId{"agent", "version"}));
}

TEST_F(AgentContract, What_is_collected_is_named_and_null_without_a_value)
{
    diagnosis::Manager manager;
    manager.add({{{"a", "one"}, [] { return json_integer(1); }}, {{"b", "none"}, nullptr}});
    manager.add(
        {{{"a", "none"}, []() -> json_t* { return nullptr; }}, {{"a", "one"}, [] { return json_true(); }}});
    const JsonPtr all(manager.collect());
    EXPECT_STREQ(dump(all.get()).get(), R"({"a": {"one": true, "none": null}, "b": {"none": null}})");
}

TEST_F(AgentContract, A_report_tells_its_time_and_the_version)
{
    const diagnosis::Manager manager;
    for (const char* version : {"3.4", ""}) {
        ground->install_release(version, "");
        const JsonPtr report(manager.report());
        ASSERT_EQ(json_object_size(report.get()), 2U);
        const char* time = json_string_value(json_object_get(report.get(), "generated_at"));
        ASSERT_NE(time, nullptr);
        EXPECT_EQ(std::string(time).size(), sizeof "2024-01-01T00:00:00Z" - 1) << time;
        EXPECT_STREQ(json_string_value(json_object_get(report.get(), "agent_version")),
                     *version ? version : "2.0.0.0");
    }
}

} // namespace
} // namespace orv::contract
