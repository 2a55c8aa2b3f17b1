// What orvctl shows of the daemon against what the daemon has, and against what the protocol's document says.
// The tables alone do not show what is so, so it is found out by trying: the daemon runs on a fake platform,
// which sees whether a command has done anything at all, and who is told of what.

#include "catalogue.h"

#include <support/fixture.h>

#include <client_events.h>
#include <orvbrokerd.h>
#include <orvex.h>
#include <subevhandlers.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace orv::test {
namespace {

/// What a command needs as "data".
enum class Data { none, optional, required, text };

std::ostream& operator<<(std::ostream& out, Data data)
{
    constexpr const char* kNames[] = {"none", "optional", "required", "text"};
    return out << kNames[static_cast<std::size_t>(data)];
}

bool ends_with(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

/// Reads the shape of a command's argument as orvctl shows it: a type name, or literals of that type.
Data data_of(std::string_view shape)
{
    if (shape == "none")
        return Data::none;
    if (ends_with(shape, ", optional"))
        return Data::optional;
    const bool is_text = shape.substr(0, 6) == "string" || shape.front() == '"';
    return is_text ? Data::text : Data::required;
}

/// The same as the protocol's document writes it.
Data data_in_document(std::string_view cell)
{
    if (cell == "-")
        return Data::none;
    if (ends_with(cell, " or none"))
        return Data::optional;
    return cell == "string" ? Data::text : Data::required;
}

template <typename Rows>
std::vector<std::string> names_of(const Rows& rows)
{
    std::vector<std::string> names;
    names.reserve(rows.size());
    for (const auto& row : rows)
        names.emplace_back(row.name);
    return names;
}

std::vector<std::string> lines_of(const char* path)
{
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

const std::vector<std::string> kNoTexts{"null", "true", "5", "1.5", "{}", "[]", R"(["text"])"};
const std::string kText = R"("velm-basic-1.0")";

/// Each command that needs data takes one of these.
const std::vector<std::string> kFitting{
    R"({"router_id": "r"})",
    R"({"device_id": "d", "name": "n"})",
    R"({"device_id": "d", "traffic_blocked": 1})",
    R"({"mac": "aa:bb:cc:00:00:01"})",
    R"([{"name": "br-lan", "type": "lan"}])",
    R"(["va_scan"])",
    R"({"va_scan": "enabled"})",
    R"(["aa:bb:cc:00:00:01"])",
    "true",
};

class Catalogue : public ServiceTest {
protected:
    Catalogue()
    {
        platform->settings["/registration/device_id"] = "r";
        platform->settings["/registration/user_token"] = "t";
        platform->settings["/leases/mode"] = "orvleases-ng";
        platform->devices["d"].did = "d";
        platform->devices["d"].owner = "r";
    }

    /// What came of a command: the answer, none while it is to come, and what was done.
    struct Outcome {
        std::optional<std::string> answer;
        fake::Calls calls;
        friend bool operator==(const Outcome& a, const Outcome& b)
        {
            return a.answer == b.answer && a.calls == b.calls;
        }
        /// It failed before it did anything.
        [[nodiscard]] bool is_refused() const
        {
            return answer && ends_with(*answer, R"("status": -1})") && calls.empty();
        }
    };

    Outcome call(std::string_view name, const std::string& data = {})
    {
        Peer peer = connect();
        forget_records();
        Outcome outcome;
        EXPECT_TRUE(receive(peer, command(std::string(name), data) + "\n"));
        for (const std::string& call : platform->take_calls())
            if (call.rfind("recv(", 0) != 0 && call.rfind("epoll_ctl(", 0) != 0)
                outcome.calls.push_back(call);
        drain(peer);
        outcome.answer = peer.client.frame();
        return outcome;
    }

    bool is_refused(std::string_view name, const std::vector<std::string>& samples)
    {
        return std::all_of(samples.begin(), samples.end(),
                           [&](const std::string& data) { return call(name, data).is_refused(); });
    }

    /// What the daemon's command needs, by what it does.
    Data observed(std::string_view name)
    {
        if (call(name).is_refused())
            return is_refused(name, kNoTexts) && is_refused(name, kFitting) ? Data::text : Data::required;
        const Outcome without = call(name); // again: the first one may have changed the settings
        const auto is_ignored = [&](const std::string& data) { return call(name, data) == without; };
        const bool none_matters = std::all_of(kFitting.begin(), kFitting.end(), is_ignored) &&
                                  std::all_of(kNoTexts.begin(), kNoTexts.end(), is_ignored);
        return none_matters && is_ignored(kText) ? Data::none : Data::optional;
    }

    /// Lets everything happen that clients can be told of.
    void provoke_all()
    {
        devMgmt::Device device = platform->devices["d"];
        device.macs[sockutl::macaddr("aa:bb:cc:00:00:01")] = {};
        brokerd::on_device_info_change_cb(devMgmt::DevInfoChangeType::updated, device, "display_name");
        brokerd::on_device_info_change_old_cb(devMgmt::DevInfoChangeType::updated, device, "display_name");
        (void)brokerd::process_cached_events(brokerd::epollfd); // who is told shows in the frames
        platform->settings["/tmp/subscription/global/status"] = "valid";
        platform->settings["/tmp/subscription/global/expiry"] = "1800000000";
        (void)brokerd::on_subscription_changed_cb(brokerd::epollfd);
        EXPECT_EQ(call("start_cloud_registration", "{}").answer, R"({"data": null, "status": 0})");
        platform->answer(R"({"result": "ok"})");
        platform->deliver("orvagent_started", "{}");
        platform->deliver("va_status_changed", "{}");
        read_exchange();
        read_exchange();
        read_exchange();
    }
};

TEST_F(Catalogue, ListsTheDaemonsCommandsInTheOrderOfItsTable)
{
    EXPECT_EQ(names_of(orvctl::commands()), names_of(brokerd::commands()));
}

TEST_F(Catalogue, SaysOfEveryCommandWhichDataItNeeds)
{
    for (const auto& row : orvctl::commands())
        EXPECT_EQ(data_of(row.argument), observed(row.name)) << row.name;
}

TEST_F(Catalogue, SaysOfEveryCommandWhatTheDaemonsTableSays)
{
    using brokerd::Argument;
    const std::map<Argument, Data> meant{{Argument::none, Data::none},
                                         {Argument::required, Data::required},
                                         {Argument::explained, Data::required},
                                         {Argument::string, Data::text}};
    for (const auto& row : brokerd::commands()) {
        if (row.argument == Argument::optional) // there the handler decides
            continue;
        EXPECT_EQ(meant.at(row.argument), observed(row.name)) << row.name;
    }
}

TEST_F(Catalogue, HasDataThatFitsForEveryCommandThatNeedsSome)
{
    for (const auto& row : orvctl::commands()) {
        if (data_of(row.argument) == Data::text) {
            EXPECT_FALSE(call(row.name, kText).is_refused()) << row.name;
        } else if (data_of(row.argument) == Data::required) {
            EXPECT_FALSE(is_refused(row.name, kFitting)) << row.name;
        }
    }
}

TEST_F(Catalogue, ListsEveryEventThatClientsAreToldOfAndNoOther)
{
    std::map<std::string, Peer> subscribers;
    for (const auto& name : names_of(orvctl::events()))
        subscribers.emplace(name, subscribe(name));
    subscribers.emplace("no_such_event", subscribe("no_such_event"));
    provoke_all();
    for (auto& [name, peer] : subscribers) {
        drain(peer);
        EXPECT_EQ(peer.client.frame().has_value(), name != "no_such_event") << name;
    }
    const auto listed = names_of(orvctl::events());
    EXPECT_THAT(listed, testing::UnorderedElementsAreArray(brokerd::kClientEvents));
    for (const auto& [name, row] : brokerd::g_exchange_events)
        EXPECT_EQ(std::count(listed.begin(), listed.end(), name), 1) << name;
}

TEST_F(Catalogue, AgreesWithTheDocumentOnCommandsAndTheirData)
{
    std::map<std::string, Data> documented; // rows such as: | [`va_stop`](#va_stop) | - | null |
    for (const auto& line : lines_of(PROTOCOL_DOCUMENT)) {
        const auto end = line.find("`](#");
        if (line.rfind("| [`", 0) != 0 || end == std::string::npos)
            continue;
        const auto cell = line.find("| ", end) + 2;
        documented[line.substr(4, end - 4)] =
            data_in_document(line.substr(cell, line.find(" |", cell) - cell));
    }
    std::map<std::string, Data> listed;
    for (const auto& row : orvctl::commands())
        listed[std::string(row.name)] = data_of(row.argument);
    for (const auto& [name, data] : listed)
        if (const auto found = documented.find(name); found != documented.end())
            EXPECT_EQ(found->second, data) << name;
        else
            ADD_FAILURE() << name << " is not in the document's table";
}

TEST_F(Catalogue, AgreesWithTheDocumentOnEvents)
{
    std::set<std::string> documented; // headings such as: ### `va_status_changed`
    bool is_about_events = false;
    for (const auto& line : lines_of(PROTOCOL_DOCUMENT)) {
        if (line.rfind("## ", 0) == 0)
            is_about_events = line == "## Events";
        if (is_about_events && line.rfind("### `", 0) == 0)
            documented.insert(line.substr(5, line.size() - 6));
    }
    const auto listed = names_of(orvctl::events());
    EXPECT_EQ(std::set<std::string>(listed.begin(), listed.end()), documented);
}

TEST_F(Catalogue, NamesAreUniqueAndNothingIsLeftBlank)
{
    std::set<std::string_view> names;
    for (const auto& row : orvctl::commands()) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
        EXPECT_FALSE(row.summary.empty() || row.argument.empty() || row.answer.empty()) << row.name;
    }
    for (const auto& row : orvctl::events()) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
        EXPECT_FALSE(row.summary.empty() || row.shape.empty()) << row.name;
    }
}

} // namespace
} // namespace orv::test
