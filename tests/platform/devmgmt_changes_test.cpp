// Changes of devices, as they are told to those who have registered for them.

#include "device_store.h"
#include "devmgmt_support.h"

#include <orvutils/setmgmt.h>

#include <poll.h>

#include <filesystem>

using namespace orv::devMgmt;
using orv::setMgmt::MonitoredKey;
using orv::sockutl::macaddr;

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

    /// Waits for a notice and reads all there are.
    Told read_changes()
    {
        g_told.clear();
        g_devices.clear();
        pollfd watched = {m_watch.get_fd(), POLLIN, 0};
        for (int patience = 20000; poll(&watched, 1, patience) > 0; patience = 0)
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

TEST_F(DeviceChangesTest, A_reader_that_fell_behind_is_told_updated_for_every_device)
{
    ASSERT_EQ(set_on_dev_info_change({"device_os", "macs"}, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    ASSERT_EQ(put_device(make_device("d2")), 0);
    (void)read_changes();
    {
        // In one transaction: thousands of synced commits would take too long.
        orv::store::Write transaction(device_environment());
        for (int i = 0; i < 4097; ++i)
            ASSERT_EQ(kChangeJournal.append(transaction, "not read"), orv::Error::none);
        ASSERT_EQ(transaction.commit(), orv::Error::none);
    }
    EXPECT_EQ(read_changes(),
              (Told{"updated d1 device_os", "updated d1 macs", "updated d2 device_os", "updated d2 macs"}));
    ASSERT_EQ(remove_device("d1"), 0);
    EXPECT_EQ(read_changes(), Told{"removed d1"});
}

TEST_F(DeviceChangesTest, Malformed_journal_entries_are_skipped)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    {
        orv::store::Write transaction(device_environment());
        for (const char* entry : {"", "x", "\x07", "\x01\xff\xff\xff\xff"})
            ASSERT_EQ(kChangeJournal.append(transaction, entry), orv::Error::none);
        ASSERT_EQ(transaction.commit(), orv::Error::none);
    }
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(read_changes(), Told{"added d1"});
}

TEST_F(DeviceChangesTest, Changes_go_on_being_told_when_the_store_was_deleted)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(read_changes(), Told{"added d1"});
    std::filesystem::remove_all(m_root.path() + "/var/devices");
    (void)read_changes();
    EXPECT_EQ(stored("d1"), "none");
    ASSERT_EQ(put_device(make_device("d2")), 0);
    EXPECT_EQ(read_changes(), Told{"added d2"});
}
