#include "scenario.h"

#include "orvbrokerd.h"

#include <algorithm>

namespace orv::test {

using fake::Calls;
using fake::Logs;

// ---- Scenario

Scenario::Scenario(std::string name, std::string data) : m_name(std::move(name)), m_data(std::move(data)) {}

Scenario::Stage* Scenario::stage()
{
    return m_has_answer ? &m_answered : &m_asked;
}

Scenario& Scenario::with(const Settings& settings)
{
    m_settings.insert(settings.begin(), settings.end());
    return *this;
}

Scenario& Scenario::failing(const std::string& call, int error)
{
    m_failing.emplace_back(call, error);
    return *this;
}

Scenario& Scenario::calls(const Calls& calls)
{
    stage()->calls.insert(stage()->calls.end(), calls.begin(), calls.end());
    return *this;
}

Scenario& Scenario::logs(std::initializer_list<std::pair<int, std::string>> logs)
{
    const Logs more = lines(logs);
    stage()->logs.insert(stage()->logs.end(), more.begin(), more.end());
    return *this;
}

Scenario& Scenario::leaves(const Settings& settings)
{
    m_left = settings;
    return *this;
}

Scenario& Scenario::succeeds(const std::string& data)
{
    return fails(data, 0);
}

Scenario& Scenario::fails(const std::string& data, int status)
{
    stage()->status = status;
    stage()->answer = R"({"data": )" + data + R"(, "status": )" + std::to_string(status) + "}";
    return *this;
}

Scenario& Scenario::hangs_up()
{
    stage()->hangs_up = true;
    return *this;
}

Scenario& Scenario::asks(const std::string& request, const std::string& payload)
{
    calls({"orvex_send_request(" + request + ", " + payload + ")"});
    logs({{2, "successfully sent " + request + " request: " + payload}});
    stage()->status = 1;
    return *this;
}

Scenario& Scenario::then(const std::string& type, const std::string& data)
{
    m_has_answer = true;
    m_type = type;
    m_payload = data;
    return *this;
}

// ---- ScenarioTest

void ScenarioTest::check(const Scenarios& scenarios)
{
    for (const Scenario& scenario : scenarios)
        check(scenario);
}

void ScenarioTest::check(const Scenario& scenario)
{
    std::string title = scenario.m_name + " " + scenario.m_data.substr(0, 200);
    for (const auto& failing : scenario.m_failing)
        title += ", failing " + failing.first;
    if (scenario.m_has_answer)
        title += ", answered " + scenario.m_type + " " + scenario.m_payload;
    SCOPED_TRACE(title);

    platform->settings = scenario.m_settings;
    for (const auto& [call, error] : scenario.m_failing)
        platform->fail(call, 1, error);
    Peer peer = connect();
    check_request(scenario, peer);
    if (scenario.m_has_answer && is_connected(peer))
        check_answer(scenario, peer);
    EXPECT_TRUE(platform->forget_failures()) << "nothing has failed that should have";
    EXPECT_EQ(platform->settings, scenario.m_left.value_or(scenario.m_settings));
}

void ScenarioTest::check_request(const Scenario& scenario, Peer& peer)
{
    forget_records();
    ASSERT_TRUE(receive_all(peer, command(scenario.m_name, scenario.m_data) + "\n"));
    Logs expected = lines({{2, "process " + scenario.m_name + " command"}});
    expected.insert(expected.end(), scenario.m_asked.logs.begin(), scenario.m_asked.logs.end());
    expected.push_back({2, "last operation status is " + std::to_string(scenario.m_asked.status), {}, {}});
    Logs logs = platform->take_logs();
    logs.erase(std::remove_if(logs.begin(), logs.end(),
                              [](const auto& line) {
                                  return line.text.rfind("received event on client socket", 0) == 0;
                              }),
               logs.end());
    EXPECT_EQ(logs, expected);
    expect_stage(scenario.m_asked, peer, scenario.m_asked.status != 0 && scenario.m_asked.status != 1);
}

void ScenarioTest::check_answer(const Scenario& scenario, Peer& peer)
{
    forget_records();
    ASSERT_EQ(platform->requests.size(), 1U);
    platform->answer(scenario.m_payload, scenario.m_type);
    read_exchange();
    EXPECT_EQ(platform->take_logs(), scenario.m_answered.logs);
    expect_stage(scenario.m_answered, peer, true);
}

/// `is_over`: the connection ends with the answer.
void ScenarioTest::expect_stage(const Scenario::Stage& stage, Peer& peer, bool is_over)
{
    EXPECT_EQ(own_calls(), stage.calls);
    EXPECT_EQ(peer.conn->close_requested, stage.hangs_up);
    const bool is_open = drain(peer);
    EXPECT_EQ(peer.client.frame(), stage.answer);
    EXPECT_EQ(peer.client.bytes(), "");
    EXPECT_EQ(is_open, !is_over || stage.hangs_up); // what is only asked for comes later
}

/// What was called but for the connection's own input and output.
Calls ScenarioTest::own_calls()
{
    Calls calls = platform->take_calls();
    calls.erase(std::remove_if(calls.begin(), calls.end(),
                               [](const std::string& call) {
                                   return call.rfind("recv(", 0) == 0 || call == "orvex_read_fd()" ||
                                          call.rfind("epoll_ctl(MOD, client", 0) == 0;
                               }),
                calls.end());
    return calls;
}

void ScenarioTest::torture(const Scenario& scenario, const std::set<std::string>& kept_locks)
{
    SCOPED_TRACE(scenario.m_name + " " + scenario.m_data);
    const std::size_t before = platform->fallible_calls();
    EXPECT_EQ(run_anyhow(scenario, kept_locks).has_value(), !scenario.m_answered.hangs_up);
    const std::size_t count = platform->fallible_calls() - before;
    ASSERT_GT(count, 0U);
    for (std::size_t n = 1; n <= count; ++n) {
        SCOPED_TRACE("call " + std::to_string(n) + " fails");
        platform->fail_nth(platform->fallible_calls() + n);
        (void)run_anyhow(scenario, kept_locks);
    }
    platform->fail_nth(0);
    starve(scenario, kept_locks);
}

void ScenarioTest::starve(const Scenario& scenario, const std::set<std::string>& kept_locks)
{
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        SCOPED_TRACE("jansson's request " + std::to_string(n) + " for memory fails");
        platform->fail_json_allocation(n);
        const auto status = run_anyhow(scenario, kept_locks);
        failed = platform->json_allocation_failed();
        platform->fail_json_allocation(0);
        EXPECT_TRUE(failed || status.has_value() != scenario.m_answered.hangs_up);
    }
    for (const std::string kind : {"malloc", "realloc", "new", "strdup", "throwing new"}) {
        failed = true;
        for (unsigned n = 1; failed; ++n) {
            SCOPED_TRACE(kind + " " + std::to_string(n) + " fails");
            platform->fail_memory(kind, n);
            const auto status = run_anyhow(scenario, kept_locks);
            failed = platform->memory_failed(kind);
            platform->fail_memory(kind, 0);
            EXPECT_TRUE(failed || status.has_value() != scenario.m_answered.hangs_up);
        }
    }
}

/// The answer's status, none without an answer.
std::optional<json_int_t> ScenarioTest::run_anyhow(const Scenario& scenario,
                                                   const std::set<std::string>& kept_locks)
{
    platform->settings = scenario.m_settings;
    platform->locked.clear();
    Peer peer = connect();
    bool is_open = receive_all(peer, command(scenario.m_name, scenario.m_data) + "\n");
    if (!platform->requests.empty()) {
        platform->answer(scenario.m_payload, scenario.m_type);
        read_exchange();
    }
    is_open = is_open && drain(peer);
    const auto status = take_status(peer, is_open, platform->json_allocation_failed());
    if (is_open)
        destroy(peer);
    for (const auto& [key, count] : platform->locked)
        EXPECT_EQ(kept_locks.count(key), count) << key << " stays locked";
    forget_records();
    return status;
}

std::optional<json_int_t> ScenarioTest::take_status(Peer& peer, bool is_open, bool is_starving)
{
    const auto frame = peer.client.frame();
    EXPECT_EQ(peer.client.bytes(), "") << "nothing follows the answer";
    EXPECT_EQ(peer.client.is_closed(), !is_open);
    if (!frame)
        return std::nullopt;
    const fake::Fake::Paused paused;
    const JsonPtr envelope(json_loads(frame->c_str(), 0, nullptr));
    if (!envelope && is_starving) // jansson leaves out a key that finds no room
        return std::nullopt;
    EXPECT_NE(json_object_get(envelope.get(), "data"), nullptr) << *frame;
    const json_t* status = json_object_get(envelope.get(), "status");
    EXPECT_TRUE(json_is_integer(status)) << *frame;
    EXPECT_TRUE(json_integer_value(status) == 0 || !is_open) << *frame;
    return json_integer_value(status);
}

} // namespace orv::test
