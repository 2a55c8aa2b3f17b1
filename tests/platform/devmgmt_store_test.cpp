// Storing, finding and removing devices.

#include "change_log.h"
#include "device_fields.h"
#include "device_record.h"
#include "device_store.h"
#include "devmgmt_support.h"
#include "process_support.h"
#include "refusal_support.h"

#include <orvutils/error.h>

#include <sys/syscall.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <set>

using namespace orv::devMgmt;
using orv::sockutl::macaddr;

namespace {

std::string owner_of(const char* mac)
{
    std::string did;
    return get_device_id_by_mac(macaddr(mac), did) == 0 ? did : "none";
}

Device device_with(const char* did, const char* mac)
{
    Device device;
    device.did = did;
    device.macs[macaddr(mac)];
    return device;
}

constexpr const char* kMac1 = "aa:bb:cc:00:00:01";
constexpr const char* kMac2 = "aa:bb:cc:00:00:02";
constexpr const char* kMac3 = "aa:bb:cc:00:00:03";
using Ids = std::vector<std::string>;

/// Puts bytes where a device's record is expected.
void plant_record(const std::string& did, std::string_view record)
{
    orv::store::Write transaction(device_environment());
    ASSERT_EQ(transaction.put(kDevices, did, record), orv::Error::none);
    ASSERT_EQ(transaction.commit(), orv::Error::none);
}

} // namespace

TEST_F(DeviceStoreTest, A_device_comes_back_as_it_was_stored)
{
    const Device device = make_device("d1");
    ASSERT_EQ(put_device(device), 0);
    Device found;
    ASSERT_NE(get_device("d1", found), 0);
    EXPECT_EQ(text_of(found), text_of(device));
    EXPECT_EQ(found.macs, device.macs);
    EXPECT_EQ(found.owner, "router");
    EXPECT_EQ(found.traffic_blocked, 1);
}

TEST_F(DeviceStoreTest, Records_are_the_same_bytes_on_every_machine_and_in_every_version)
{
    using std::string_literals::operator""s;
    Device device = device_with("d1", "aa:bb:cc:00:00:01");
    device.owner = "me";
    device.traffic_blocked = 1;
    device.macs.begin()->second.insert(orv::sockutl::address("10.0.0.1"));
    const std::string texts = "\2\0\0\0d1"
                              "\2\0\0\0me"s +
                              std::string(28, '\0');
    const std::string bytes = "\1"s + texts +
                              "\1\0\0\0"
                              "\1\0\0\0"
                              "\xaa\xbb\xcc\0\0\1"
                              "\1\0\0\0"
                              "\x8\0\0\0"
                              "10.0.0.1"s;
    EXPECT_EQ(encode_device(device), bytes);
    History history;
    history.born = 0x0102030405060708;
    history.changed[1] = 9;
    const std::string record = "\2"
                               "\x8\7\6\5\4\3\2\1"
                               "\2\0"
                               "\x9\0\0\0\0\0\0\0"s +
                               bytes;
    EXPECT_EQ(encode_record(history, bytes), record);
    for (const std::string& version : {bytes, record}) { // that of the first stores, and today's
        plant_record("d1", version);
        EXPECT_EQ(stored("d1"), text_of(device));
    }
    EXPECT_EQ(encode_change({DevInfoChangeType::removed, 1, 2, 3, "d1"}), "\2\1"
                                                                          "\2\0\0\0\0\0\0\0"
                                                                          "\3\0\0\0\0\0\0\0"
                                                                          "d1"s);
    EXPECT_EQ(encode_mark({"d1", "record"}), "\2\0\0\0"
                                             "d1record"s);
    EXPECT_EQ(encode_state({1, 2, 3, 4, 0x0500000000000000}), "\1"
                                                              "\1\0\0\0\0\0\0\0"
                                                              "\2\0\0\0\0\0\0\0"
                                                              "\3\0\0\0\0\0\0\0"
                                                              "\4\0\0\0\0\0\0\0"
                                                              "\0\0\0\0\0\0\0\5"s);
}

TEST_F(DeviceStoreTest, A_record_of_a_later_version_is_no_device_and_is_told_of)
{
    const Outcome outcome = in_child([&] {
        plant_record("d1", std::string("\3") + encode_device(make_device("d1")).substr(1));
        return stored("d1") == "none" && all_ids().empty() ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(logged(outcome.err)[0], "0 device store: skipping device d1, its record is malformed");
}

TEST_F(DeviceStoreTest, On_an_old_kernel_every_store_has_an_identity_of_its_own_too)
{
    const Outcome outcome = in_child([&] {
        REQUIRE(refuse_calls({{SYS_getrandom, ENOSYS}}));
        std::set<std::uint64_t> identities;
        for (int i = 0; i < 3; ++i) {
            uninit();
            std::filesystem::remove_all(m_root.path() + "/var");
            if (init() != 0 || put_device(make_device("d1")) != 0)
                return 1;
            orv::store::Read snapshot(device_environment());
            LogState state;
            if (read_state(snapshot, state) != orv::Error::none || state.identity == 0)
                return 2;
            identities.insert(state.identity);
        }
        return identities.size() == 3 ? 0 : 3;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(DeviceStoreTest, An_unknown_device_is_not_found_and_nothing_is_filled_in)
{
    Device device = make_device("before");
    for (const std::string& id : {std::string("d1"), std::string(), std::string(600, 'd')}) {
        EXPECT_EQ(get_device(id, device), 0);
        EXPECT_EQ(orv::_get_orverrno(), 4);
    }
    EXPECT_EQ(text_of(device), text_of(make_device("before")));
}

TEST_F(DeviceStoreTest, All_devices_come_in_the_order_of_their_ids)
{
    std::vector<Device> devices(3);
    EXPECT_EQ(get_devices(devices), 0);
    EXPECT_TRUE(devices.empty());
    for (const char* id : {"d10", "d2", "a", "d1"})
        ASSERT_EQ(put_device(make_device(id)), 0);
    EXPECT_EQ(all_ids(), (Ids{"a", "d1", "d10", "d2"}));
}

TEST_F(DeviceStoreTest, A_device_is_found_by_each_of_its_MAC_addresses)
{
    ASSERT_EQ(put_device(make_device("d1")), 0);
    EXPECT_EQ(owner_of(kMac1), "d1");
    EXPECT_EQ(owner_of(kMac2), "d1");
    EXPECT_EQ(owner_of(kMac3), "none");
    EXPECT_EQ(orv::_get_orverrno(), 4);
    EXPECT_EQ(owner_of("no mac"), "none");
    EXPECT_EQ(orv::_get_orverrno(), 1);
}

TEST_F(DeviceStoreTest, The_index_follows_changes_and_removals)
{
    ASSERT_EQ(put_device(device_with("d1", kMac1)), 0);
    ASSERT_EQ(put_device(device_with("d1", kMac2)), 0);
    EXPECT_EQ(owner_of(kMac1), "none");
    EXPECT_EQ(owner_of(kMac2), "d1");
    ASSERT_EQ(put_device(device_with("d2", kMac2)), 0);
    EXPECT_EQ(owner_of(kMac2), "d1") << "the lowest id of two";
    ASSERT_EQ(remove_device("d1"), 0);
    EXPECT_EQ(owner_of(kMac2), "d2");
    ASSERT_EQ(remove_device("d2"), 0);
    EXPECT_EQ(owner_of(kMac2), "none");
    EXPECT_EQ(remove_device("d2"), -4);
    EXPECT_EQ(remove_device(""), -4);
}

TEST_F(DeviceStoreTest, Impossible_devices_are_error_1_and_change_nothing)
{
    ASSERT_EQ(put_device(make_device("d1")), 0);
    std::vector<Device> impossible(8, make_device("d1"));
    impossible[0].did = "";
    impossible[1].did = std::string(256, 'd');
    impossible[2].traffic_blocked = 2;
    impossible[3].macs[macaddr("no mac")];
    impossible[4].macs[macaddr(kMac3)].insert(orv::sockutl::address(":abstract"));
    impossible[5].display_name = std::string(kMaxRecordSize, 'n');
    impossible[6].did = "\xff\xfe"; // no UTF-8
    impossible[7].did = std::string("d\0", 2);
    for (const Device& device : impossible) {
        EXPECT_EQ(put_device(device), -1);
        EXPECT_EQ(orv::_get_orverrno(), 1);
    }
    EXPECT_EQ(all_ids(), Ids{"d1"});
    EXPECT_EQ(stored("d1"), text_of(make_device("d1")));
}

TEST_F(DeviceStoreTest, Texts_that_are_not_UTF_8_are_refused_with_the_members_name)
{
    for (const TextField& field : kTextFields) {
        const Outcome outcome = in_child([&] {
            Device device = make_device("d1");
            device.*field.member = "caf\xe9";
            return put_device(device) == -1 && orv::_get_orverrno() == 1 ? 0 : 1;
        });
        EXPECT_EQ(outcome.status, 0) << field.name;
        EXPECT_EQ(logged(outcome.err),
                  Ids{std::string("0 device store: refusing a device for its ") + field.name});
    }
    EXPECT_EQ(all_ids(), Ids{});
}

TEST_F(DeviceStoreTest, A_stored_text_that_is_not_UTF_8_hides_no_device)
{
    Device device = make_device("d1");
    device.display_name = "caf\xe9";
    plant_record("d1", encode_device(device));
    ASSERT_EQ(put_device(make_device("d2")), 0);
    EXPECT_EQ(all_ids(), (Ids{"d1", "d2"}));
    EXPECT_NE(stored("d1").find("\"display_name\": \"caf\xef\xbf\xbd\""), std::string::npos) << stored("d1");
    EXPECT_EQ(put_device(make_device("d1")), 0) << "it can be replaced";
}

TEST_F(DeviceStoreTest, A_closed_store_is_an_error)
{
    uninit();
    std::vector<Device> devices(1);
    Device device;
    std::string id = "before";
    EXPECT_EQ(put_device(make_device("d1")), -2);
    EXPECT_EQ(remove_device("d1"), -2);
    EXPECT_EQ(get_device("d1", device), 0);
    EXPECT_EQ(orv::_get_orverrno(), 2);
    EXPECT_EQ(get_devices(devices), -1);
    EXPECT_EQ(devices.size(), 1U);
    EXPECT_EQ(get_device_id_by_mac(macaddr(kMac1), id), -1);
    EXPECT_EQ(set_on_dev_info_change({}, [](DevInfoChangeType, const Device&, const std::string&) {}), -1);
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(init(), 0) << "opening an open store does nothing";
}

TEST_F(DeviceStoreTest, A_store_that_cannot_be_opened_fails_the_start)
{
    uninit();
    std::filesystem::remove_all(m_root.path() + "/var/devices");
    spill(m_root.path() + "/var/devices", "in the way");
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(orv::_get_orverrno(), 2);
}

TEST_F(DeviceStoreTest, A_damaged_store_is_set_aside_and_an_empty_one_takes_its_place)
{
    ASSERT_EQ(put_device(make_device("d1")), 0);
    uninit();
    const std::string file = m_root.path() + "/var/devices/data.mdb";
    spill(file, "garbage");
    ASSERT_EQ(init(), 0);
    std::vector<Device> devices;
    EXPECT_EQ(get_devices(devices), 0);
    EXPECT_TRUE(devices.empty());
    EXPECT_EQ(slurp(file + ".damaged"), "garbage");
    EXPECT_EQ(put_device(make_device("d1")), 0);
}

TEST_F(DeviceStoreTest, Malformed_records_are_skipped_with_one_log_line_each)
{
    ASSERT_EQ(put_device(make_device("d1")), 0);
    const std::string sound = [] {
        orv::store::Read transaction(device_environment());
        std::string_view record;
        EXPECT_EQ(transaction.get(kDevices, "d1", record), orv::Error::none);
        return std::string(record);
    }();
    std::vector<std::string> records = {"", "x", sound + "x", sound /* of another id */};
    for (std::size_t size = 1; size < sound.size(); size += 7)
        records.push_back(sound.substr(0, size));
    for (std::size_t at = 0; at < sound.size(); at += 5) {
        records.push_back(sound);
        records.back()[at] = '\xff';
    }
    for (const std::string& record : records) {
        plant_record("d0", record);
        const Outcome outcome = in_child([] {
            std::vector<Device> devices;
            return get_devices(devices) == 0 ? static_cast<int>(devices.size()) : 100;
        });
        ASSERT_EQ(outcome.status, 1);
        EXPECT_EQ(logged(outcome.err), Ids{"0 device store: skipping device d0, its record is malformed"});
        Device device;
        EXPECT_EQ(get_device("d0", device), 0);
        EXPECT_EQ(orv::_get_orverrno(), 2);
    }
    EXPECT_EQ(put_device(device_with("d0", kMac3)), 0) << "it can be replaced";
    EXPECT_EQ(owner_of(kMac3), "d0");
}

TEST_F(DeviceStoreTest, Record_and_index_agree_after_writers_were_killed)
{
    for (int round = 0; round < 20; ++round) {
        const Outcome outcome = in_child([&] {
            for (int i = 0;; ++i) {
                if (put_device(device_with("d", i % 2 == 0 ? kMac1 : kMac2)) != 0)
                    return 1;
                if (i == round)
                    return raise(SIGKILL);
            }
        });
        ASSERT_EQ(outcome.status, 1000 + SIGKILL) << outcome.err;
        Device device;
        ASSERT_NE(get_device("d", device), 0);
        EXPECT_EQ(owner_of(round % 2 == 0 ? kMac1 : kMac2), "d");
        EXPECT_EQ(owner_of(round % 2 == 0 ? kMac2 : kMac1), "none");
        EXPECT_EQ(device.macs.count(macaddr(round % 2 == 0 ? kMac1 : kMac2)), 1U);
    }
}
