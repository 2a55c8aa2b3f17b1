// The exchange, and telemetry, which is sent over it.

#include "contract_ground.h"

#include <orvkarma/orvkarma.h>
#include <orvutils/json.h>

#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orv::contract {
namespace {

struct LeaveExchange {
    void operator()(Orvex* orvex) const { orvex_uninit(orvex); }
};
using OrvexPtr = std::unique_ptr<Orvex, LeaveExchange>;
using Lines = std::vector<std::string>;

std::string text_of(const Message* message)
{
    return std::string(message->type) + " " + std::string(message->data, message->datalen);
}

class ExchangeContract : public ContractTest {
protected:
    void SetUp() override
    {
        ContractTest::SetUp();
        ASSERT_TRUE(ground->start_exchange());
        s_received.clear();
        s_requests.clear();
        s_also = nullptr;
        orvex.reset(orvex_init_eventloop("contract", on_event, 0, 1));
        ASSERT_NE(orvex, nullptr);
    }

    void TearDown() override
    {
        orvex.reset();
        ContractTest::TearDown();
    }

    static void on_event(const Message* message)
    {
        s_received.push_back(text_of(message));
        if (message->request_id != 0)
            s_requests.push_back(message->request_id);
        if (s_also)
            s_also();
    }

    static void on_answer(void* answers, const Message* answer)
    {
        static_cast<Lines*>(answers)->push_back(text_of(answer));
        if (s_also)
            s_also();
    }

    int request(const char* name, const std::string& data = "{}")
    {
        return orvex_send_request(orvex.get(), name, data.data(), data.size(), on_answer, &answers);
    }

    bool serve_until_received(std::size_t count)
    {
        return ground->serve_until(orvex.get(), [=] { return s_received.size() >= count; });
    }

    bool serve_until_answered(std::size_t count)
    {
        return ground->serve_until(orvex.get(), [=] { return answers.size() >= count; });
    }

    OrvexPtr orvex;
    Lines answers;
    static Lines s_received;
    static std::vector<std::uint64_t> s_requests;
    static std::function<void()> s_also;
};
Lines ExchangeContract::s_received;
std::vector<std::uint64_t> ExchangeContract::s_requests;
std::function<void()> ExchangeContract::s_also;

TEST_F(ExchangeContract, Without_a_handle_everything_fails)
{
    const char* names[] = {"event"};
    EXPECT_EQ(orvex_init_eventloop(nullptr, on_event, 0, 1), nullptr);
    EXPECT_EQ(orvex_init_eventloop("other", nullptr, 0, 1), nullptr);
    EXPECT_EQ(orvex_init_eventloop("", on_event, 0, 1), nullptr);
    EXPECT_EQ(orvex_get_fd(nullptr), -1);
    EXPECT_EQ(orvex_read_fd(nullptr), -1);
    EXPECT_EQ(orvex_subscribe(nullptr, names, 1), -1);
    EXPECT_EQ(orvex_send_request(nullptr, "a", "", 0, on_answer, nullptr), -1);
    EXPECT_EQ(orvex_send_message(nullptr, "a", "", 0), -1);
    EXPECT_EQ(orvex_send_response(nullptr, 0, 1, "", 0), -1);
    orvex_uninit(nullptr);
}

TEST_F(ExchangeContract, A_name_or_payload_that_is_none_is_refused)
{
    const std::string longest(kOrvexMaxName, 'n');
    const std::string too_long = longest + "n";
    const std::string too_much(kOrvexMaxPayload + 1, 'x');
    for (const char* name : {"", ":a", "orvagent:", "p p:a", "1p:a", "\xff", "orvagent:\xff",
                             too_long.c_str(), static_cast<const char*>(nullptr)}) {
        SCOPED_TRACE(name ? name : "(null)");
        EXPECT_EQ(request(name), -1);
        EXPECT_EQ(orvex_send_message(orvex.get(), name, "", 0), -1);
    }
    EXPECT_EQ(orvex_send_request(orvex.get(), "a", "", 0, nullptr, nullptr), -1);
    EXPECT_EQ(orvex_send_request(orvex.get(), "a", nullptr, 1, on_answer, &answers), -1);
    EXPECT_EQ(orvex_send_message(orvex.get(), "a", nullptr, 1), -1);
    EXPECT_EQ(request("a", too_much), -1);
    EXPECT_EQ(orvex_send_message(orvex.get(), "a", too_much.data(), too_much.size()), -1);
    EXPECT_EQ(request(longest.c_str()), 0);
    EXPECT_EQ(ground->take(), longest + " {}");
    EXPECT_EQ(orvex_send_message(orvex.get(), "a", nullptr, 0), 0);
    EXPECT_EQ(ground->take(), "a ");
}

TEST_F(ExchangeContract, Only_names_can_be_subscribed)
{
    const std::string too_long(kOrvexMaxName + 1, 'n');
    for (const char* name : {"", "\xff", too_long.c_str(), static_cast<const char*>(nullptr)}) {
        const char* names[] = {"event", name};
        EXPECT_EQ(orvex_subscribe(orvex.get(), names, 2), -1);
    }
    const char* names[] = {"event", "event"};
    EXPECT_EQ(orvex_subscribe(orvex.get(), names, -1), -1);
    EXPECT_EQ(orvex_subscribe(orvex.get(), nullptr, 1), -1);
    EXPECT_EQ(orvex_subscribe(orvex.get(), nullptr, 0), 0);
    EXPECT_EQ(orvex_subscribe(orvex.get(), names, 2), 0);
}

TEST_F(ExchangeContract, A_request_is_answered_once)
{
    ASSERT_EQ(request("start", "{\"a\": 1}"), 0);
    ASSERT_EQ(request("orvagent:stop", ""), 0);
    EXPECT_EQ(ground->take(), "start {\"a\": 1}");
    ground->answer("0", "done");
    EXPECT_EQ(ground->take(), "stop ");
    ground->answer("7", "");
    EXPECT_TRUE(serve_until_answered(2));
    EXPECT_EQ(answers, (Lines{"0 done", "7 "}));
}

TEST_F(ExchangeContract, The_exchange_is_not_read_from_within_a_callback)
{
    int result = 0;
    s_also = [&] { result = orvex_read_fd(orvex.get()); };
    ASSERT_EQ(request("start"), 0);
    EXPECT_EQ(ground->take(), "start {}");
    ground->answer("0", "");
    EXPECT_TRUE(serve_until_answered(1));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(orvex_read_fd(orvex.get()), 0);
}

TEST_F(ExchangeContract, A_callback_may_ask_again)
{
    bool has_asked = false;
    s_also = [&] {
        if (!std::exchange(has_asked, true)) {
            EXPECT_EQ(request("again"), 0);
        }
    };
    ASSERT_EQ(request("start"), 0);
    EXPECT_EQ(ground->take(), "start {}");
    ground->answer("0", "");
    EXPECT_TRUE(serve_until_answered(1));
    EXPECT_EQ(ground->take(), "again {}");
    ground->answer("0", "");
    EXPECT_TRUE(serve_until_answered(2));
}

TEST_F(ExchangeContract, Who_leaves_is_not_answered)
{
    ASSERT_EQ(request("start"), 0);
    EXPECT_EQ(ground->take(), "start {}");
    orvex.reset();
    EXPECT_TRUE(answers.empty());
}

TEST_F(ExchangeContract, A_request_is_answered_with_its_number_and_only_once)
{
    EXPECT_EQ(orvex_send_response(orvex.get(), 0, 0, "", 0), -1);
    EXPECT_EQ(orvex_send_response(orvex.get(), 0, 12345, "", 0), -1);
    ground->ask("contract", "tell", "{}");
    ASSERT_TRUE(serve_until_received(1));
    EXPECT_EQ(s_received, Lines{"tell {}"});
    ASSERT_EQ(s_requests.size(), 1U);
    EXPECT_EQ(orvex_send_response(orvex.get(), 0, s_requests[0], nullptr, 1), -1);
    EXPECT_EQ(orvex_send_response(orvex.get(), 0, s_requests[0], "x", 1), 0);
    EXPECT_EQ(orvex_send_response(orvex.get(), 0, s_requests[0], "x", 1), -1);
}

TEST_F(ExchangeContract, An_event_comes_to_those_who_have_subscribed_it_and_can_be_answered)
{
    const char* names[] = {"event"};
    ASSERT_EQ(orvex_subscribe(orvex.get(), names, 1), 0);
    ground->publish("event", "data");
    ASSERT_TRUE(serve_until_received(1));
    EXPECT_EQ(s_received, Lines{"event data"});
    ASSERT_EQ(s_requests.size(), 1U);
    EXPECT_EQ(orvex_send_response(orvex.get(), 0, s_requests[0], "", 0), 0);
    EXPECT_EQ(orvex_send_response(orvex.get(), 0, s_requests[0], "", 0), -1);
}

// ---- telemetry

class TelemetryContract : public ExchangeContract {
protected:
    void SetUp() override
    {
        ExchangeContract::SetUp();
        ASSERT_EQ(karma::init(), 0);
    }

    void TearDown() override
    {
        karma::uninit();
        ExchangeContract::TearDown();
    }

    static JsonPtr event(const char* type = "test")
    {
        const JsonPtr data(json_pack("{s:i}", "a", 1));
        return JsonPtr(karma::build_karma_event_json(type, data.get()));
    }

    /// The types of the events in the outbox.
    static Lines kept()
    {
        std::vector<json_t*> events;
        EXPECT_EQ(karma::read_events(events), 0);
        Lines types;
        for (json_t* each : events) {
            const JsonPtr owned(each);
            types.emplace_back(json_string_value(json_object_get(owned.get(), "type")));
        }
        return types;
    }
};

TEST_F(TelemetryContract, An_event_has_an_id_of_its_own_its_time_type_and_data)
{
    const JsonPtr first = event();
    const JsonPtr second = event();
    ASSERT_EQ(json_object_size(first.get()), 4U);
    EXPECT_STREQ(json_string_value(json_object_get(first.get(), "type")), "test");
    EXPECT_STREQ(dump(json_object_get(first.get(), "data")).get(), R"({"a": 1})");
    EXPECT_GT(json_integer_value(json_object_get(first.get(), "timestamp")), 1600000000);
    const char* id = json_string_value(json_object_get(first.get(), "id"));
    ASSERT_NE(id, nullptr);
    EXPECT_STRNE(id, json_string_value(json_object_get(second.get(), "id")));
}

TEST_F(TelemetryContract, An_event_needs_a_type_and_data)
{
    const JsonPtr data(json_object());
    EXPECT_EQ(karma::build_karma_event_json(nullptr, data.get()), nullptr);
    EXPECT_EQ(karma::build_karma_event_json("test", nullptr), nullptr);
    EXPECT_EQ(karma::build_karma_event_json("\xff", data.get()), nullptr);
}

TEST_F(TelemetryContract, An_event_is_kept_and_sent_until_the_agent_has_confirmed_it)
{
    const JsonPtr first = event("first");
    const JsonPtr second = event("second");
    EXPECT_EQ(karma::submit_karma_event(first.get(), orvex.get()), 0);
    EXPECT_EQ(karma::submit_karma_event(second.get(), orvex.get()), 0);
    EXPECT_EQ(kept(), (Lines{"first", "second"}));
    EXPECT_EQ(ground->take().rfind("telemetry_event {", 0), 0U);
    ground->answer("1", "");
    EXPECT_EQ(ground->take().rfind("telemetry_event {", 0), 0U);
    ground->answer("0", "");
    EXPECT_TRUE(ground->serve_until(orvex.get(), [] { return kept() == Lines{"first"}; }));
}

TEST_F(TelemetryContract, An_event_that_cannot_be_sent_is_kept_once)
{
    const JsonPtr unsent = event();
    EXPECT_EQ(karma::submit_karma_event(unsent.get(), nullptr), -1);
    EXPECT_EQ(karma::submit_karma_event(unsent.get(), nullptr), -1);
    EXPECT_EQ(kept(), Lines{"test"});
    EXPECT_EQ(karma::submit_karma_event(unsent.get(), orvex.get()), 0);
    EXPECT_EQ(kept(), Lines{"test"});
}

TEST_F(TelemetryContract, What_is_no_event_is_refused)
{
    const JsonPtr without_id(json_pack("{s:s}", "type", "test"));
    EXPECT_EQ(result_of([&] { return karma::submit_karma_event(without_id.get(), orvex.get()); }),
              (Result{-1, 1}));
    EXPECT_EQ(result_of([&] { return karma::submit_karma_event(nullptr, orvex.get()); }), (Result{-1, 1}));
    EXPECT_EQ(kept(), Lines{});
}

TEST_F(TelemetryContract, A_closed_outbox_keeps_nothing)
{
    EXPECT_EQ(karma::init(), 0); // it is open already
    karma::uninit();
    karma::uninit();
    const JsonPtr sent = event();
    EXPECT_EQ(karma::submit_karma_event(sent.get(), orvex.get()), -1);
    EXPECT_EQ(ground->take().rfind("telemetry_event {", 0), 0U);
    std::vector<json_t*> events;
    EXPECT_EQ(karma::read_events(events), -1);
    EXPECT_TRUE(events.empty());
    ASSERT_EQ(karma::init(), 0);
    EXPECT_EQ(kept(), Lines{});
}

} // namespace
} // namespace orv::contract
