#include "scenario.h"

#include "orvbrokerd.h"

#include <algorithm>
#include <cerrno>

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
    errno = ERANGE; // left by whatever was done last
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

} // namespace orv::test
