// The JSON form of a device.

#include "device_fields.h"
#include "devmgmt_support.h"

using namespace orv::devMgmt;

namespace {

constexpr const char* kFullText =
    R"({"did": "d1", "owner": "router", "macs": {"aa:bb:cc:00:00:01": ["192.168.1.20", "fe80::1"], )"
    R"("aa:bb:cc:00:00:02": []}, "display_name": "TV", "friendly_name": "Big \"TV\"", "device_type": "tv", )"
    R"("device_os": "Linux", "device_os_version": "6.1", "device_manufacturer": "Acme", )"
    R"("last_va_scan_ts": "1699999999", "traffic_blocked": 1})";

/// The device's JSON text, or the error.
std::string convert(const char* text)
{
    const orv::JsonPtr json(json_loads(text, JSON_DECODE_ANY, nullptr));
    Device device;
    device.did = "untouched";
    std::string error;
    if (device_from_json(json.get(), "me", device, error))
        return text_of(device);
    EXPECT_EQ(device.did, "untouched");
    return "error: " + error;
}

} // namespace

TEST(DeviceJsonTest, A_device_is_shown_with_all_members_in_their_order)
{
    EXPECT_EQ(text_of(make_device("d1")), kFullText);
}

TEST(DeviceJsonTest, A_device_comes_back_from_its_JSON)
{
    EXPECT_EQ(convert(kFullText), kFullText);
}

TEST(DeviceJsonTest, Absent_members_are_empty_and_the_owner_is_the_default)
{
    EXPECT_EQ(convert(R"({"did": "x"})"),
              R"({"did": "x", "owner": "me", "macs": {}, "display_name": "", "friendly_name": "", )"
              R"("device_type": "", "device_os": "", "device_os_version": "", "device_manufacturer": "", )"
              R"("last_va_scan_ts": "", "traffic_blocked": 0})");
}

TEST(DeviceJsonTest, A_default_owner_that_is_not_UTF_8_is_refused_where_it_is_needed)
{
    Device device;
    std::string error;
    const orv::JsonPtr without(json_pack("{s:s}", "did", "x"));
    EXPECT_FALSE(device_from_json(without.get(), "router\xff", device, error));
    EXPECT_EQ(error, "owner: must be UTF-8");
    const orv::JsonPtr with(json_pack("{s:s,s:s}", "did", "x", "owner", "me"));
    EXPECT_TRUE(device_from_json(with.get(), "router\xff", device, error));
    EXPECT_EQ(device.owner, "me");
}

TEST(DeviceJsonTest, Bytes_that_are_not_UTF_8_are_shown_as_replacement_characters)
{
    constexpr const char* kReplacement = "\xef\xbf\xbd";
    const std::pair<std::string, std::string> cases[] = {
        {"\xff", kReplacement},
        {"a\x80z", std::string("a") + kReplacement + "z"},
        {"\xe2\x82", std::string(kReplacement) + kReplacement}, // a cut euro sign
        {"\xe2\x82\xac\xff\xe2\x82\xac", std::string("\xe2\x82\xac") + kReplacement + "\xe2\x82\xac"},
        {"\xc0\xaf", std::string(kReplacement) + kReplacement}, // an overlong slash
        {"\xf0\x9f\x92\xa1", "\xf0\x9f\x92\xa1"},
    };
    for (const auto& [stored, shown] : cases) {
        Device device = make_device("d1");
        device.display_name = stored;
        const orv::JsonPtr json(device_to_json(device));
        ASSERT_NE(json, nullptr);
        EXPECT_STREQ(json_string_value(json_object_get(json.get(), "display_name")), shown.c_str());
    }
}

TEST(DeviceJsonTest, A_text_is_UTF_8_where_the_JSON_library_takes_it)
{
    const std::string_view bytes(
        "\0\x01\x7f\x80\x8f\x90\x9f\xa0\xbf\xc0\xc1\xc2\xdf\xe0\xe1\xed\xee\xef\xf0\xf1\xf4\xf5\xf8\xff", 24);
    for (std::size_t number = 0; number < std::size_t{24} * 24 * 24 * 24; ++number) {
        std::string text;
        for (std::size_t rest = number; text.size() < 4; rest /= 24)
            text += bytes[rest % 24];
        for (std::size_t size = 0; size <= 4; ++size) {
            const std::string_view part = std::string_view(text).substr(0, size);
            const orv::JsonPtr json(json_stringn(part.data(), part.size()));
            ASSERT_EQ(is_utf8(part), json != nullptr) << number << " " << size;
        }
    }
}

TEST(DeviceJsonTest, What_is_not_of_the_shape_is_refused_with_the_members_name)
{
    const std::pair<const char*, const char*> cases[] = {
        {"[]", "error: a device must be an object"},
        {"{}", "error: did: must be a text of 1 to 255 bytes"},
        {R"({"did": ""})", "error: did: must be a text of 1 to 255 bytes"},
        {R"({"did": 1})", "error: did: must be a text"},
        {R"({"did": "x", "owner": null})", "error: owner: must be a text"},
        {R"({"did": "x", "display_name": 1})", "error: display_name: must be a text"},
        {R"({"did": "x", "colour": "red"})", "error: colour: is no member of a device"},
        {R"({"did": "x", "traffic_blocked": 2})", "error: traffic_blocked: must be 0 or 1"},
        {R"({"did": "x", "traffic_blocked": -1})", "error: traffic_blocked: must be 0 or 1"},
        {R"({"did": "x", "traffic_blocked": true})", "error: traffic_blocked: must be 0 or 1"},
        {R"({"did": "x", "traffic_blocked": 4294967296})", "error: traffic_blocked: must be 0 or 1"},
        {R"({"did": "x", "macs": []})", "error: macs: must be an object of MAC addresses"},
        {R"({"did": "x", "macs": {"zz": []}})", "error: macs: \"zz\" is no MAC address"},
        {R"({"did": "x", "macs": {"aa:bb:cc:00:00:01": "1.2.3.4"}})",
         "error: macs: must hold lists of IP addresses"},
        {R"({"did": "x", "macs": {"aa:bb:cc:00:00:01": [1]}})",
         "error: macs: must hold lists of IP addresses"},
        {R"({"did": "x", "macs": {"aa:bb:cc:00:00:01": ["1.2.3"]}})",
         "error: macs: \"1.2.3\" is no IP address"},
        {R"({"did": "x", "macs": {"aa:bb:cc:00:00:01": [":name"]}})",
         "error: macs: \":name\" is no IP address"},
        {R"({"did": "x", "macs": {"aa:bb:cc:00:00:01": ["/file"]}})",
         "error: macs: \"/file\" is no IP address"},
        {R"({"did": "x", "macs": {"aa:bb:cc:00:00:01": [], "AA:BB:CC:00:00:01": []}})",
         "error: macs: \"AA:BB:CC:00:00:01\" is there twice"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(convert(text), expected) << text;
    EXPECT_EQ(convert(("{\"did\": \"" + std::string(256, 'd') + "\"}").c_str()),
              "error: did: must be a text of 1 to 255 bytes");
}
