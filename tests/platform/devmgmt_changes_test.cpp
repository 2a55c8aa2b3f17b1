// Changes of devices, as they are told to those who have registered for them.

#include "changes.h"
#include "device_store.h"
#include "devmgmt_support.h"
#include "process_support.h"

#include <orvutils/log_control.h>
#include <orvutils/setmgmt.h>

#include <lmdb.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <set>

using namespace orv::devMgmt;
using orv::setMgmt::MonitoredKey;
using orv::sockutl::macaddr;

namespace {

unsigned long g_lookups = 0;        ///< in the database
unsigned long g_failing_lookup = 0; ///< the number of the one that fails, 0 for none

bool g_is_without_room = false; ///< for marks of removed devices

bool is_failing()
{
    return ++g_lookups == g_failing_lookup;
}

} // namespace

extern "C" {
int __real_mdb_get(MDB_txn* transaction, MDB_dbi tree, MDB_val* key, MDB_val* value);
int __real_mdb_put(MDB_txn* transaction, MDB_dbi tree, MDB_val* key, MDB_val* value, unsigned flags);
int __real_mdb_cursor_get(MDB_cursor* cursor, MDB_val* key, MDB_val* value, MDB_cursor_op operation);

int __wrap_mdb_put(MDB_txn* transaction, MDB_dbi tree, MDB_val* key, MDB_val* value, unsigned flags)
{
    if (g_is_without_room && *static_cast<const char*>(key->mv_data) == 'r')
        return MDB_MAP_FULL;
    return __real_mdb_put(transaction, tree, key, value, flags);
}

int __wrap_mdb_get(MDB_txn* transaction, MDB_dbi tree, MDB_val* key, MDB_val* value)
{
    return is_failing() ? EIO : __real_mdb_get(transaction, tree, key, value);
}

int __wrap_mdb_cursor_get(MDB_cursor* cursor, MDB_val* key, MDB_val* value, MDB_cursor_op operation)
{
    return is_failing() ? EIO : __real_mdb_cursor_get(cursor, key, value, operation);
}
}

namespace {

const std::vector<std::string> kFields = {"display_name",    "device_type",       "device_manufacturer",
                                          "device_os",       "device_os_version", "macs",
                                          "traffic_blocked", "friendly_name"};

/// What was told: "added d1", "updated d1 macs", "removed d1".
std::vector<std::string> g_told;
std::vector<Device> g_devices;
using Told = std::vector<std::string>;

void note(DevInfoChangeType type, const Device& device, const std::string& field)
{
    const char* kinds[] = {"added ", "updated ", "removed "};
    std::string text = kinds[static_cast<int>(type)] + device.did;
    if (!field.empty())
        text += ' ' + field;
    g_told.push_back(text);
    g_devices.push_back(device);
}

void note_as_second(DevInfoChangeType, const Device& device, const std::string& field)
{
    g_told.push_back("second: " + device.did + ' ' + field);
}

void end_second(DevInfoChangeType, const Device&, const std::string&)
{
    g_told.emplace_back("first");
    EXPECT_EQ(unset_on_dev_info_change(kFields, note_as_second), 0);
    EXPECT_EQ(unset_on_dev_info_change(kFields, end_second), 0);
}

void close_store(DevInfoChangeType, const Device&, const std::string&)
{
    g_told.emplace_back("closed");
    uninit();
}

void remove_next(DevInfoChangeType type, const Device& device, const std::string&)
{
    if (type == DevInfoChangeType::removed && device.did == "d2") {
        EXPECT_EQ(remove_device("d3"), 0);
    }
}

/// New devices, called by the prefix and a number.
std::vector<Device> crowd(const std::string& prefix, std::size_t count)
{
    std::vector<Device> devices(count);
    for (std::size_t i = 0; i < count; ++i)
        devices[i].did = prefix + std::to_string(i);
    return devices;
}

/// In one transaction: thousands of synced commits would take too long.
void put_all(const std::vector<Device>& devices, Others others = Others::stay)
{
    std::string refused;
    ASSERT_EQ(put_devices(devices, others, refused), 0) << refused;
}

std::size_t log_entries()
{
    orv::store::Read transaction(device_environment());
    return transaction.entries(kChanges);
}

class DeviceChangesTest : public DeviceStoreTest {
protected:
    void SetUp() override
    {
        DeviceStoreTest::SetUp();
        g_told.clear();
        g_devices.clear();
        ASSERT_EQ(orv::setMgmt::init(), 0);
    }
    void TearDown() override
    {
        orv::setMgmt::uninit();
        DeviceStoreTest::TearDown();
    }

    /// A store as it was before changes were numbered: bare records, and a journal whose entries are now of no
    /// use. Closed at the end.
    void make_former_store(const std::vector<std::string>& ids)
    {
        {
            orv::store::Write transaction(device_environment());
            char number = 0;
            for (const std::string& id : ids) {
                const Device device = make_device(id);
                ASSERT_EQ(transaction.put(kDevices, id, encode_device(device)), orv::Error::none);
                for (const auto& entry : device.macs) {
                    const auto& mac = entry.first.bytes();
                    ASSERT_EQ(transaction.put(kMacIndex, std::string(mac.begin(), mac.end()) + id, {}),
                              orv::Error::none);
                }
                for (int i = 0; i < 5; ++i)
                    ASSERT_EQ(transaction.put(kChanges, std::string(7, '\0') + ++number, "entry"),
                              orv::Error::none);
            }
            ASSERT_EQ(transaction.commit(), orv::Error::none);
        }
        uninit();
    }

    /// Waits for a notice, so many milliseconds, and reads all there are.
    Told read_changes(int patience = 20000)
    {
        g_told.clear();
        g_devices.clear();
        pollfd watched = {m_watch.get_fd(), POLLIN, 0};
        for (; poll(&watched, 1, patience) > 0; patience = 0)
            m_watch.read_notifications();
        return g_told;
    }

    MonitoredKey m_watch{"/tmp/some/key", [](const orv::path&, void*) { return true; }, false, nullptr, true};
};

} // namespace

TEST_F(DeviceChangesTest, A_new_and_a_removed_device_are_one_call_with_an_empty_field)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(read_changes(), Told{"added d1"});
    EXPECT_EQ(text_of(g_devices.at(0)), text_of(make_device("d1")));
    ASSERT_EQ(remove_device("d1"), 0);
    EXPECT_EQ(read_changes(), Told{"removed d1"});
    EXPECT_EQ(text_of(g_devices.at(0)), text_of(make_device("d1"))) << "what was known last";
}

TEST_F(DeviceChangesTest, Each_changed_field_is_one_call_with_the_new_record)
{
    ASSERT_EQ(put_device(make_device("d1")), 0);
    (void)read_changes();
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    Device device = make_device("d1");
    device.display_name = "Radio";
    device.traffic_blocked = 0;
    ASSERT_EQ(put_device(device), 0);
    EXPECT_EQ(read_changes(), (Told{"updated d1 display_name", "updated d1 traffic_blocked"}));
    EXPECT_EQ(text_of(g_devices.at(0)), text_of(device));
}

TEST_F(DeviceChangesTest, Every_watched_field_can_change)
{
    const std::pair<const char*, std::string Device::*> texts[] = {
        {"display_name", &Device::display_name},
        {"device_type", &Device::device_type},
        {"device_manufacturer", &Device::device_manufacturer},
        {"device_os", &Device::device_os},
        {"device_os_version", &Device::device_os_version},
        {"friendly_name", &Device::friendly_name},
    };
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    Device device = make_device("d1");
    ASSERT_EQ(put_device(device), 0);
    (void)read_changes();
    for (const auto& [name, member] : texts) {
        device.*member += "!";
        ASSERT_EQ(put_device(device), 0);
        EXPECT_EQ(read_changes(), Told{std::string("updated d1 ") + name});
    }
}

TEST_F(DeviceChangesTest, A_changed_address_of_a_MAC_is_a_change_of_macs)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    Device device = make_device("d1");
    ASSERT_EQ(put_device(device), 0);
    (void)read_changes();
    device.macs[macaddr("aa:bb:cc:00:00:02")].insert(orv::sockutl::address("10.0.0.1"));
    ASSERT_EQ(put_device(device), 0);
    EXPECT_EQ(read_changes(), Told{"updated d1 macs"});
    device.macs.erase(macaddr("aa:bb:cc:00:00:01"));
    ASSERT_EQ(put_device(device), 0);
    EXPECT_EQ(read_changes(), Told{"updated d1 macs"});
}

TEST_F(DeviceChangesTest, Fields_that_nobody_registered_for_and_unchanged_records_are_not_told)
{
    ASSERT_EQ(set_on_dev_info_change({"device_os"}, note), 0);
    Device device = make_device("d1");
    ASSERT_EQ(put_device(device), 0);
    EXPECT_EQ(read_changes(), Told{"added d1"});
    ASSERT_EQ(put_device(device), 0);
    device.owner = "other";
    device.last_va_scan_ts = "2";
    device.display_name = "Radio";
    ASSERT_EQ(put_device(device), 0);
    EXPECT_EQ(read_changes(), Told{});
}

TEST_F(DeviceChangesTest, Changes_by_other_processes_are_told_in_their_order)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    const Outcome outcome = in_child([] {
        Device device = make_device("d1");
        int status = put_device(device);
        device.device_os = "other";
        status |= put_device(device);
        status |= put_device(make_device("d2"));
        return status;
    });
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(read_changes(), (Told{"added d1", "updated d1 device_os", "added d2"}));
}

TEST_F(DeviceChangesTest, Changes_before_the_store_was_opened_are_not_told)
{
    ASSERT_EQ(put_device(make_device("d1")), 0);
    uninit();
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d2")), 0);
    EXPECT_EQ(read_changes(), Told{"added d2"});
}

TEST_F(DeviceChangesTest, A_device_that_is_gone_when_its_changes_are_read_is_told_with_its_last_record)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    Device device = make_device("d1");
    ASSERT_EQ(put_device(device), 0);
    device.device_os = "last";
    ASSERT_EQ(put_device(device), 0);
    for (int i = 0; i < 70; ++i) // more than one portion of the journal
        ASSERT_EQ(put_device(make_device("other" + std::to_string(i))), 0);
    ASSERT_EQ(remove_device("d1"), 0);
    const Told told = read_changes();
    ASSERT_EQ(told.size(), 73U);
    EXPECT_EQ(told[0], "added d1");
    EXPECT_EQ(told[1], "updated d1 device_os");
    EXPECT_EQ(told[72], "removed d1");
    for (const std::size_t index : {0U, 1U, 72U})
        EXPECT_EQ(g_devices.at(index).device_os, "last");
}

TEST_F(DeviceChangesTest, Callbacks_run_in_the_order_of_their_registration_until_they_are_unregistered)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(set_on_dev_info_change({"device_os"}, note_as_second), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(read_changes(), (Told{"added d1", "second: d1 "}));
    EXPECT_EQ(unset_on_dev_info_change(kFields, note_as_second), -1) << "other fields";
    EXPECT_EQ(unset_on_dev_info_change(kFields, note), 0);
    EXPECT_EQ(unset_on_dev_info_change(kFields, note), -1);
    ASSERT_EQ(remove_device("d1"), 0);
    EXPECT_EQ(read_changes(), Told{"second: d1 "});
}

TEST_F(DeviceChangesTest, A_callback_may_unregister_itself_and_others)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, end_second), 0);
    ASSERT_EQ(set_on_dev_info_change(kFields, note_as_second), 0);
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(read_changes(), (Told{"first", "added d1"}));
}

TEST_F(DeviceChangesTest, Only_what_has_changed_is_told_however_far_the_reader_fell_behind)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    ASSERT_EQ(put_device(make_device("d2")), 0);
    ASSERT_EQ(put_device(make_device("d3")), 0);
    (void)read_changes();
    std::vector<Device> versions(20000, make_device("d2"));
    for (std::size_t i = 0; i < versions.size(); ++i)
        versions[i].display_name = "name " + std::to_string(i);
    put_all(versions);
    ASSERT_EQ(remove_device("d3"), 0);
    EXPECT_EQ(read_changes(), (Told{"updated d2 display_name", "removed d3"}));
    EXPECT_EQ(g_devices.at(0).display_name, "name 19999");
    EXPECT_EQ(read_changes(0), Told{});
}

TEST_F(DeviceChangesTest, A_field_that_has_its_old_value_again_was_changed_all_the_same)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    (void)read_changes();
    Device device = make_device("d1");
    device.friendly_name = "other";
    ASSERT_EQ(put_device(device), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(read_changes(), Told{"updated d1 friendly_name"});
    EXPECT_EQ(text_of(g_devices.at(0)), text_of(make_device("d1")));
}

TEST_F(DeviceChangesTest, A_device_that_went_and_came_again_is_told_as_both)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    (void)read_changes();
    Device device = make_device("d1");
    device.device_os = "last of the first";
    ASSERT_EQ(put_device(device), 0);
    ASSERT_EQ(remove_device("d1"), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(read_changes(), (Told{"updated d1 device_os", "removed d1", "added d1"}));
    EXPECT_EQ(g_devices.at(0).device_os, "last of the first");
    EXPECT_EQ(g_devices.at(1).device_os, "last of the first");
    EXPECT_EQ(text_of(g_devices.at(2)), text_of(make_device("d1")));
    ASSERT_EQ(remove_device("d1"), 0);
    EXPECT_EQ(read_changes(), Told{"removed d1"});
}

TEST_F(DeviceChangesTest, Thousands_of_devices_that_came_and_went_are_each_told_once_in_their_order)
{
    constexpr std::size_t kCount = 2000;
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    put_all(crowd("d", kCount));
    put_all({}, Others::go);
    const Told told = read_changes();
    ASSERT_EQ(told.size(), 2 * kCount);
    for (std::size_t i = 0; i < kCount; ++i)
        ASSERT_EQ(told[i], "added " + crowd("d", kCount)[i].did);
    EXPECT_EQ((std::set<std::string>(told.begin(), told.end())).size(), 2 * kCount);
    EXPECT_EQ(told[kCount], "removed d0");
}

TEST_F(DeviceChangesTest, A_removal_whose_mark_is_gone_is_told_with_the_record_told_last)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    put_all(crowd("a", 100));
    ASSERT_EQ(put_device(make_device("stays")), 0);
    Device device = make_device("a7");
    ASSERT_EQ(put_device(device), 0);
    (void)read_changes();
    put_all(crowd("x", kMaxMarks), Others::go); // "stays" and "a..." are the oldest marks of all
    put_all({make_device("stays")}, Others::go);
    const Told told = read_changes();
    std::map<std::string, int> times;
    for (const std::string& text : told)
        ++times[text];
    for (const auto& [text, count] : times)
        ASSERT_EQ(count, 1) << text;
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(times.count("removed a" + std::to_string(i)), 1U) << i;
    EXPECT_EQ(times.count("removed stays"), 1U);
    EXPECT_EQ(times.count("added stays"), 1U);
    const auto at = std::find(told.begin(), told.end(), "removed a7") - told.begin();
    EXPECT_EQ(text_of(g_devices.at(static_cast<std::size_t>(at))), text_of(device));
    EXPECT_EQ(read_changes(0), Told{});
    EXPECT_EQ(all_ids(), Told{"stays"});
}

TEST_F(DeviceChangesTest, A_device_can_be_removed_and_is_told_where_there_is_no_room_for_its_mark)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    put_all({make_device("d1"), make_device("d2"), make_device("d3")});
    (void)read_changes();
    g_is_without_room = true;
    ASSERT_EQ(remove_device("d1"), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(read_changes(), (Told{"removed d1", "added d1"}));
    EXPECT_EQ(text_of(g_devices.at(0)), text_of(make_device("d1")));
    // With another such removal while the first one is told.
    ASSERT_EQ(set_on_dev_info_change(kFields, remove_next), 0);
    ASSERT_EQ(remove_device("d2"), 0);
    EXPECT_EQ(read_changes(), (Told{"removed d2", "removed d3"}));
    g_is_without_room = false;
    EXPECT_EQ(log_entries(), 2U) << "the state and the birth of d1";
}

TEST_F(DeviceChangesTest, Marks_of_removed_devices_are_limited_and_leave_nothing_behind)
{
    put_all(crowd("d", kMaxMarks + 50));
    put_all({}, Others::go);
    EXPECT_EQ(log_entries(), 1 + 3 * kMaxMarks) << "the state; of each its birth, its end and the mark";
    std::vector<Device> large = crowd("l", 1000);
    for (Device& device : large)
        device.display_name.assign(8000, 'x');
    put_all(large);
    put_all({}, Others::go);
    EXPECT_LT(log_entries(), 1 + 3 * (kMaxMarkBytes / 8000 + 1));
    EXPECT_GT(log_entries(), 3 * (kMaxMarkBytes / 9000));
}

TEST_F(DeviceChangesTest, A_pass_deals_with_a_bounded_number_of_changes_and_rings_for_the_rest)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    put_all(crowd("d", std::size_t{3} * kChangesAtOnce));
    pollfd watched = {m_watch.get_fd(), POLLIN, 0};
    g_told.clear();
    for (std::size_t pass = 1; pass <= 3; ++pass) {
        ASSERT_EQ(poll(&watched, 1, 20000), 1);
        m_watch.read_notifications();
        EXPECT_EQ(g_told.size(), pass * kChangesAtOnce);
    }
    while (poll(&watched, 1, 0) == 1)
        m_watch.read_notifications();
    EXPECT_EQ(g_told.size(), 3 * kChangesAtOnce);
}

TEST_F(DeviceChangesTest, What_it_costs_to_be_told_is_linear_in_the_number_of_changes)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    for (const std::size_t count : {500U, 2000U}) {
        std::vector<Device> devices = crowd("d", count);
        for (Device& device : devices)
            device.display_name.assign(4000, 'x');
        put_all(devices);
        put_all({}, Others::go);
        const unsigned long before = g_lookups;
        const auto started = std::chrono::steady_clock::now();
        const std::size_t told = read_changes().size();
        EXPECT_LT(g_lookups - before, static_cast<unsigned long>(12 * count + 500)) << count;
        EXPECT_GE(told, 1000U);
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
    }
}

TEST_F(DeviceChangesTest, A_writer_that_never_pauses_does_not_keep_the_loop)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    put_all(crowd("d", 1000));
    (void)read_changes();
    Companion writer([](Companion::Ends) {
        std::vector<Device> devices = crowd("d", 1000);
        for (unsigned i = 0;; ++i) {
            for (Device& device : devices)
                device.display_name = std::to_string(i);
            std::string refused;
            if (put_devices(devices, Others::stay, refused) != 0)
                return 1;
        }
    });
    pollfd watched = {m_watch.get_fd(), POLLIN, 0};
    std::size_t told = 0;
    for (int pass = 0; pass < 200; ++pass) {
        g_told.clear();
        ASSERT_EQ(poll(&watched, 1, 20000), 1);
        m_watch.read_notifications();
        ASSERT_LE(g_told.size(), kChangesAtOnce);
        told += g_told.size();
    }
    EXPECT_GT(told, 1000U);
}

TEST_F(DeviceChangesTest, What_cannot_be_read_is_told_when_it_can)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    Device device = make_device("d1");
    ASSERT_EQ(put_device(device), 0);
    (void)read_changes();
    bool was_there_one = true;
    for (unsigned number = 1; was_there_one; ++number) {
        device.device_os = std::to_string(number);
        ASSERT_EQ(put_device(device), 0);
        put_all({make_device("d2")});
        ASSERT_EQ(remove_device("d2"), 0);
        g_failing_lookup = g_lookups + number;
        EXPECT_EQ(read_changes(), (Told{"updated d1 device_os", "added d2", "removed d2"})) << number;
        was_there_one = g_lookups >= g_failing_lookup;
        g_failing_lookup = 0;
    }
}

TEST_F(DeviceChangesTest, What_is_different_in_another_store_is_told_when_it_can_be_read)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    const std::string file = m_root.path() + "/var/devices/data.mdb";
    bool was_there_one = true;
    for (unsigned number = 1; was_there_one; ++number) {
        ASSERT_EQ(put_device(make_device("d1")), 0);
        (void)read_changes(0);
        std::filesystem::copy_file(file, file + ".kept");
        ASSERT_EQ(remove_device("d1"), 0);
        ASSERT_EQ(put_device(make_device("d2")), 0);
        EXPECT_EQ(read_changes(), (Told{"removed d1", "added d2"}));
        g_failing_lookup = g_lookups + number;
        std::filesystem::rename(file + ".kept", file);
        EXPECT_EQ(read_changes(), (Told{"added d1", "removed d2"})) << number;
        was_there_one = g_lookups >= g_failing_lookup;
        g_failing_lookup = 0;
    }
}

TEST_F(DeviceChangesTest, A_removal_of_which_no_mark_tells_is_told_when_the_store_can_be_read)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    put_all({make_device("d1"), make_device("d2"), make_device("d3")});
    bool was_there_one = true;
    for (unsigned number = 1; was_there_one; ++number) {
        put_all({make_device("d1")});
        (void)read_changes();
        g_is_without_room = true;
        EXPECT_EQ(remove_device("d1"), 0);
        g_is_without_room = false;
        g_failing_lookup = g_lookups + number;
        EXPECT_EQ(read_changes(), Told{"removed d1"}) << number;
        was_there_one = g_lookups >= g_failing_lookup;
        g_failing_lookup = 0;
    }
}

TEST_F(DeviceChangesTest, What_is_different_in_a_store_that_takes_the_place_of_another_is_told)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    for (const char* id : {"d1", "d2", "d3"})
        ASSERT_EQ(put_device(make_device(id)), 0);
    (void)read_changes();
    const std::string file = m_root.path() + "/var/devices/data.mdb";
    std::filesystem::copy_file(file, file + ".kept");
    Device device = make_device("d1");
    device.device_os = "changed";
    ASSERT_EQ(put_device(device), 0);
    ASSERT_EQ(remove_device("d2"), 0);
    ASSERT_EQ(put_device(make_device("d4")), 0);
    EXPECT_EQ(read_changes(), (Told{"updated d1 device_os", "removed d2", "added d4"}));
    std::filesystem::rename(file + ".kept", file);
    EXPECT_EQ(read_changes(), (Told{"updated d1 device_os", "added d2", "removed d4"}));
    EXPECT_EQ(g_devices.at(0).device_os, make_device("d1").device_os);
    ASSERT_EQ(put_device(device), 0);
    EXPECT_EQ(read_changes(), Told{"updated d1 device_os"});
}

TEST_F(DeviceChangesTest, A_reader_that_starts_late_is_told_only_what_happens_from_then_on)
{
    put_all(crowd("d", 100));
    put_all({make_device("d7")}, Others::go);
    uninit();
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(remove_device("d7"), 0);
    ASSERT_EQ(put_device(make_device("between")), 0);
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d8")), 0);
    EXPECT_EQ(read_changes(), (Told{"removed d7", "added between", "added d8"}));
    EXPECT_EQ(text_of(g_devices.at(0)), text_of(make_device("d7")));
}

TEST_F(DeviceChangesTest, A_store_of_the_former_format_is_read_and_its_changes_go_on)
{
    make_former_store({"d1", "d2", "d3"});
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(all_ids(), (Told{"d1", "d2", "d3"}));
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    Device device = make_device("d1");
    device.device_os = "new";
    ASSERT_EQ(put_device(device), 0);
    ASSERT_EQ(remove_device("d2"), 0);
    ASSERT_EQ(put_device(make_device("d2")), 0);
    EXPECT_EQ(read_changes(), (Told{"updated d1 device_os", "removed d2", "added d2"}));
    EXPECT_EQ(text_of(g_devices.at(1)), text_of(make_device("d2")));
    EXPECT_EQ(log_entries(), 5U) << "the former journal is gone";
    ASSERT_EQ(remove_device("d1"), 0);
    EXPECT_EQ(read_changes(), Told{"removed d1"});
    EXPECT_EQ(text_of(g_devices.at(0)), text_of(device));
}

TEST_F(DeviceChangesTest, Malformed_changes_are_passed_over)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    (void)read_changes();
    put_all(crowd("lost", 4));
    {
        orv::store::Write transaction(device_environment());
        const std::string bad[] = {"",
                                   "x",
                                   "\x07",
                                   std::string(18, '\0'),
                                   std::string(18, '\0') + "nobody",
                                   std::string(18, '\0') + std::string(600, 'x')};
        char number = 2; // the last two are beyond the last change
        for (const std::string& bytes : bad)
            ASSERT_EQ(transaction.put(kChanges, std::string("c\0\0\0\0\0\0\0", 8) + number++, bytes),
                      orv::Error::none);
        ASSERT_EQ(transaction.commit(), orv::Error::none);
    }
    orv::log::begin_anew(); // else the log itself counts what repeats
    testing::internal::CaptureStderr();
    EXPECT_EQ(read_changes(), Told{});
    EXPECT_EQ(logged(testing::internal::GetCapturedStderr())[0],
              "0 device store: skipping a malformed change");
    for (const char* id : {"d6", "d7", "d8"})
        ASSERT_EQ(put_device(make_device(id)), 0);
    EXPECT_EQ(read_changes(), (Told{"added d6", "added d7", "added d8"}));
}

TEST_F(DeviceChangesTest, A_log_without_a_sound_state_is_begun_anew_and_nothing_is_told_twice)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    ASSERT_EQ(put_device(make_device("d2")), 0);
    Device device = make_device("d1");
    device.device_os = "newer";
    ASSERT_EQ(put_device(device), 0);
    (void)read_changes();
    {
        orv::store::Write transaction(device_environment());
        ASSERT_EQ(transaction.put(kChanges, "s", "no state"), orv::Error::none);
        ASSERT_EQ(transaction.commit(), orv::Error::none);
    }
    EXPECT_EQ(read_changes(), Told{});
    for (std::string* field : {&device.display_name, &device.friendly_name}) {
        *field = "new";
        ASSERT_EQ(put_device(device), 0);
    }
    EXPECT_EQ(read_changes(), (Told{"updated d1 display_name", "updated d1 friendly_name"}));
    for (std::string* field : {&device.device_type, &device.device_os}) {
        *field = "new"; // the numbers in its record are none of others
        ASSERT_EQ(put_device(device), 0);
    }
    EXPECT_EQ(read_changes(), (Told{"updated d1 device_type", "updated d1 device_os"}));
    ASSERT_EQ(remove_device("d2"), 0);
    EXPECT_EQ(read_changes(), Told{"removed d2"});
}

TEST_F(DeviceChangesTest, A_malformed_record_that_is_removed_is_told_with_the_record_told_last)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    (void)read_changes();
    {
        orv::store::Write transaction(device_environment());
        std::string_view record;
        ASSERT_EQ(transaction.get(kDevices, "d1", record), orv::Error::none);
        ASSERT_EQ(transaction.put(kDevices, "d1", std::string(record) + "x"), orv::Error::none);
        ASSERT_EQ(transaction.commit(), orv::Error::none);
    }
    ASSERT_EQ(remove_device("d1"), 0);
    EXPECT_EQ(read_changes(), Told{"removed d1"});
    EXPECT_EQ(text_of(g_devices.at(0)), text_of(make_device("d1")));
}

TEST_F(DeviceChangesTest, Nobody_is_called_after_a_callback_has_closed_the_store)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, close_store), 0);
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    put_all(crowd("d", 10));
    EXPECT_EQ(read_changes(), (Told{"closed", "added d0"})) << "who was to be told of that change still is";
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(read_changes(0), Told{});
}

TEST_F(DeviceChangesTest, Changes_go_on_being_told_when_the_store_was_deleted)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(read_changes(), Told{"added d1"});
    std::filesystem::remove_all(m_root.path() + "/var/devices");
    orv::log::begin_anew(); // else the log itself counts what repeats
    testing::internal::CaptureStderr();
    EXPECT_EQ(read_changes(), Told{"removed d1"});
    EXPECT_EQ(logged(testing::internal::GetCapturedStderr()).back(),
              "1 device store: it is another one, looking for what is different");
    EXPECT_EQ(stored("d1"), "none");
    ASSERT_EQ(put_device(make_device("d2")), 0);
    EXPECT_EQ(read_changes(), Told{"added d2"});
}
