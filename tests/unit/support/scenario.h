#pragma once

#include "fixture.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orv::test {

using Settings = std::map<std::string, std::string>;

/// One command from its request to its answer: what it finds, and everything that must come of it. A request
/// to the exchange makes a second stage: then() says what the exchange answers, and what is said after it is
/// about that. What is not said must not happen: no call, no line, no change of the settings.
class Scenario {
public:
    explicit Scenario(std::string name, std::string data = {});

    Scenario& with(const Settings& settings);
    /// The first call whose text begins like that fails, with that error number (0 for 2, input/output).
    Scenario& failing(const std::string& call, int error = 0);

    Scenario& calls(const fake::Calls& calls);
    /// Lines after "process ... command", and before the status.
    Scenario& logs(std::initializer_list<std::pair<int, std::string>> logs);
    /// The settings are then these, all of them.
    Scenario& leaves(const Settings& settings);

    /// The client is answered with status 0 and that JSON.
    Scenario& succeeds(const std::string& data = "null");
    /// The client is answered with that status and that JSON, and its connection is then closed.
    Scenario& fails(const std::string& data = "null", int status = -1);
    /// The client gets no answer, and its connection is to be closed at once.
    Scenario& hangs_up();
    /// A request went to the exchange: its name and payload, as the last call and line.
    Scenario& asks(const std::string& request, const std::string& payload);
    /// The exchange answers.
    Scenario& then(const std::string& type, const std::string& data = "{}");

private:
    friend class ScenarioTest;

    struct Stage {
        fake::Calls calls;
        fake::Logs logs;
        std::optional<std::string> answer; ///< none while it is still to come, or when it never does
        int status = 0;
        bool hangs_up = false;
    };

    std::string m_name;
    std::string m_data;
    Settings m_settings;
    std::optional<Settings> m_left;
    std::vector<std::pair<std::string, int>> m_failing;
    Stage m_asked;
    Stage m_answered;
    Stage* stage();
    bool m_has_answer = false;
    std::string m_type;
    std::string m_payload;
};

using Scenarios = std::vector<Scenario>;

/// A test of command handlers, through the connection that asks.
class ScenarioTest : public ServiceTest {
protected:
    void check(const Scenario& scenario);
    void check(const Scenarios& scenarios);

private:
    void check_request(const Scenario& scenario, Peer& peer);
    void check_answer(const Scenario& scenario, Peer& peer);
    void expect_stage(const Scenario::Stage& stage, Peer& peer, bool is_over);
    fake::Calls own_calls();
};

} // namespace orv::test
