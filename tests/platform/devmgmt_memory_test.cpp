// The device store when memory is short: every allocation is made to fail, one at a time.

#include "device_record.h"
#include "device_store.h"
#include "devmgmt_support.h"
#include "memory_support.h"

#include <orvstore/notify.h>

#include <utility>

using namespace orv::devMgmt;

namespace {

const std::vector<std::string> kFields = {"device_manufacturer", "macs"};

std::vector<std::string> g_told;

void note(DevInfoChangeType type, const Device& device, const std::string& field)
{
    const EnoughMemory enough; // a callback does not throw
    const char* kinds[] = {"added ", "updated ", "removed "};
    g_told.push_back(kinds[static_cast<int>(type)] + device.did + ' ' + field);
}

/// A device whose texts all need memory.
Device make_large(const std::string& did)
{
    Device device = make_device("a device with a long id, " + did);
    device.display_name.assign(200, 'x');
    device.device_manufacturer.assign(100, 'm');
    return device;
}

using DeviceMemoryTest = DeviceStoreTest;

} // namespace

TEST_F(DeviceMemoryTest, A_device_is_stored_or_removed_whole_or_not_at_all)
{
    const Device device = make_large("1");
    const std::string did = device.did;
    const std::string text = text_of(device);
    for (const bool from_then_on : {false, true})
        for_each_allocation([&](unsigned long number) {
            int put = 0;
            bool failed = false;
            {
                const FailingMemory memory(number, from_then_on);
                put = put_device(device);
                failed = FailingMemory::has_failed();
            }
            EXPECT_EQ(put, failed ? -2 : 0);
            EXPECT_EQ(stored(did), failed ? "none" : text);
            if (failed) {
                EXPECT_EQ(put_device(device), 0);
            }
            EXPECT_EQ(remove_device(did), 0);
            return failed;
        });
    ASSERT_EQ(put_device(device), 0);
    for_each_allocation([&](unsigned long number) {
        int removed = 0;
        bool failed = false;
        {
            const FailingMemory memory(number, /*from_then_on=*/true);
            removed = remove_device(did);
            failed = FailingMemory::has_failed();
        }
        EXPECT_EQ(removed, failed ? -2 : 0);
        EXPECT_EQ(stored(did), failed ? text : "none");
        return failed;
    });
}

TEST_F(DeviceMemoryTest, Many_devices_are_stored_together_or_not_at_all)
{
    ASSERT_EQ(put_device(make_large("old")), 0);
    const std::vector<Device> devices = {make_large("1"), make_large("2"), make_large("3")};
    for_each_allocation([&](unsigned long number) {
        int put = 0;
        bool failed = false;
        std::string refused;
        {
            const FailingMemory memory(number);
            put = put_devices(devices, Others::go, refused);
            failed = FailingMemory::has_failed();
        }
        EXPECT_EQ(put, failed ? -2 : 0);
        std::vector<Device> found;
        EXPECT_EQ(get_devices(found), 0);
        EXPECT_EQ(found.size(), failed ? 1U : 3U);
        return failed;
    });
}

TEST_F(DeviceMemoryTest, Looking_up_fails_and_fills_nothing_in)
{
    const Device device = make_large("1");
    ASSERT_EQ(put_device(device), 0);
    for_each_allocation([&](unsigned long number) {
        Device found;
        std::vector<Device> all(1);
        std::string id;
        int results[3] = {};
        bool failed[3] = {};
        {
            const FailingMemory memory(number);
            results[0] = get_device(device.did, found);
            failed[0] = FailingMemory::has_failed();
        }
        {
            const FailingMemory memory(number);
            results[1] = get_devices(all);
            failed[1] = FailingMemory::has_failed();
        }
        {
            const FailingMemory memory(number);
            results[2] = get_device_id_by_mac(orv::sockutl::macaddr("aa:bb:cc:00:00:01"), id);
            failed[2] = FailingMemory::has_failed();
        }
        EXPECT_EQ(results[0], failed[0] ? 0 : 1);
        EXPECT_EQ(found.did, failed[0] ? "" : device.did);
        EXPECT_EQ(results[1], failed[1] ? -1 : 0);
        EXPECT_EQ(all.at(0).did, failed[1] ? "" : device.did);
        EXPECT_EQ(results[2], failed[2] ? -1 : 0);
        EXPECT_EQ(id, failed[2] ? "" : device.did);
        return failed[0] || failed[1] || failed[2];
    });
}

TEST_F(DeviceMemoryTest, The_store_is_opened_or_stays_closed)
{
    uninit();
    for_each_allocation([&](unsigned long number) {
        int opened = 0;
        bool failed = false;
        {
            const FailingMemory memory(number);
            opened = init();
            failed = FailingMemory::has_failed();
        }
        if (opened == 0)
            uninit();
        else
            EXPECT_TRUE(failed);
        Device device;
        EXPECT_EQ(get_device("d1", device), 0);
        return failed;
    });
    EXPECT_EQ(init(), 0);
}

TEST_F(DeviceMemoryTest, A_registration_is_made_or_refused)
{
    ASSERT_EQ(put_device(make_large("1")), 0);
    for_each_allocation([&](unsigned long number) {
        int registered = 0;
        bool failed = false;
        {
            const FailingMemory memory(number);
            registered = set_on_dev_info_change(kFields, note);
            failed = FailingMemory::has_failed();
        }
        EXPECT_EQ(unset_on_dev_info_change(kFields, note), registered);
        orv::store::notify::read();
        return failed;
    });
}

TEST_F(DeviceMemoryTest, Every_change_is_told_once_when_there_is_memory_again)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    Device device = make_large("1");
    ASSERT_EQ(put_device(device), 0);
    orv::store::notify::read();
    for (const bool from_then_on : {false, true})
        for_each_allocation([&](unsigned long number) {
            g_told.clear();
            device.device_manufacturer = std::to_string(number) + (from_then_on ? "!" : "?");
            EXPECT_EQ(put_device(device), 0);
            EXPECT_EQ(put_device(make_large("2")), 0);
            EXPECT_EQ(remove_device(make_large("2").did), 0);
            bool failed = false;
            {
                const FailingMemory memory(number, from_then_on);
                orv::store::notify::read();
                failed = FailingMemory::has_failed();
            }
            const std::vector<std::string> expected = {
                "updated " + device.did + " device_manufacturer",
                "added " + make_large("2").did + ' ',
                "removed " + make_large("2").did + ' ',
            };
            orv::store::notify::read();
            EXPECT_EQ(g_told, expected) << number;
            return failed;
        });
}

TEST_F(DeviceMemoryTest, What_another_store_differs_in_is_told_when_there_is_memory_again)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_large("1")), 0);
    orv::store::notify::read();
    char number_of_log = 1;
    for_each_allocation([&](unsigned long number) {
        Device device = make_large("1");
        device.device_manufacturer = std::to_string(number);
        const Device other = make_large("other" + std::to_string(number));
        {
            // Another state, as another store would have.
            orv::store::Write transaction(device_environment());
            std::string state(1 + 5 * 8, '\0');
            state[0] = 1;
            state[1] = ++number_of_log;
            state[2] = 1;
            EXPECT_EQ(transaction.put(kChanges, "s", state), orv::Error::none);
            EXPECT_EQ(transaction.put(kDevices, device.did, encode_device(device)), orv::Error::none);
            EXPECT_EQ(transaction.put(kDevices, other.did, encode_device(other)), orv::Error::none);
            EXPECT_EQ(transaction.commit(), orv::Error::none);
        }
        g_told.clear();
        bool failed = false;
        {
            const FailingMemory memory(number);
            orv::store::notify::read();
            failed = FailingMemory::has_failed();
        }
        orv::store::notify::read();
        const std::vector<std::string> expected = {"updated " + device.did + " device_manufacturer",
                                                   "added " + other.did + ' '};
        EXPECT_EQ(g_told, expected) << number;
        return failed;
    });
}

TEST_F(DeviceMemoryTest, After_a_failure_another_attempt_is_made_at_once_and_with_the_next_use)
{
    ASSERT_EQ(set_on_dev_info_change(kFields, note), 0);
    ASSERT_EQ(put_device(make_large("1")), 0);
    g_told.clear();
    {
        const FailingMemory memory(1, /*from_then_on=*/true);
        for (int i = 0; i < 10; ++i)
            orv::store::notify::read();
    }
    EXPECT_TRUE(g_told.empty());
    Device device;
    EXPECT_EQ(get_device("nobody", device), 0);
    orv::store::notify::read();
    EXPECT_EQ(g_told.size(), 1U);
}

TEST_F(DeviceMemoryTest, JSON_is_made_or_read_whole_or_not_at_all)
{
    const Device device = make_large("1");
    const orv::JsonPtr json(device_to_json(device));
    for_each_allocation([&](unsigned long number) {
        Device read;
        std::string error;
        bool is_read = false;
        bool is_made = false;
        bool failed[2] = {};
        {
            const FailingMemory memory(number);
            is_made = orv::JsonPtr(device_to_json(device)) != nullptr;
            failed[0] = FailingMemory::has_failed();
        }
        {
            const FailingMemory memory(number);
            is_read = device_from_json(json.get(), "owner", read, error);
            failed[1] = FailingMemory::has_failed();
        }
        EXPECT_EQ(is_made, !failed[0]);
        EXPECT_EQ(is_read, !failed[1]);
        EXPECT_EQ(read.did, failed[1] ? "" : device.did);
        return failed[0] || failed[1];
    });
}
