// The commands that start a registration: the shape of the request is checked, the rest is the cloud's.

#include "support/scenario.h"

namespace orv::test {
namespace {

class Registration : public ScenarioTest {};

constexpr char kStart[] = "start_registration";
constexpr char kStartCloud[] = "start_cloud_registration";
constexpr char kRequest[] = "start_cloud_registration";

constexpr char kSchemaError[] = R"({"code": 2, "description": "JSON did not match registration schema"})";
constexpr char kCommandError[] = R"({"code": 3, "description": "daemon received invalid command"})";

constexpr char kRouterIdLine[] = "Starting router_id registration";
constexpr char kTokenLine[] = "Starting token, mac, redeem registration";

struct Forwarded {
    const char* data;
    const char* payload;
    const char* line; ///< which form it was
};

const Forwarded kForwarded[] = {
    {R"({"router_id":"r1"})", R"({"router_id": "r1"})", kRouterIdLine},
    {R"({"router_id":""})", R"({"router_id": ""})", kRouterIdLine},
    {R"({ "router_id" : "\u00e9\"\n" })", "{\"router_id\": \"\xc3\xa9\\\"\\n\"}", kRouterIdLine},
    {R"({"router_id":5,"router_id":"last"})", R"({"router_id": "last"})", kRouterIdLine},
    {R"({"token":"t","mac":"m","redeem":"r"})", R"({"token": "t", "mac": "m", "redeem": "r"})", kTokenLine},
    {R"({"redeem":"","token":"","mac":"no mac"})", R"({"redeem": "", "token": "", "mac": "no mac"})",
     kTokenLine},
};

TEST_F(Registration, ForwardsBothFormsAsTheyAre)
{
    for (const Forwarded& c : kForwarded) {
        const std::string payload = c.payload;
        check(Scenario(kStart, c.data)
                  .calls({"orvex_send_request(" + std::string(kRequest) + ", " + payload + ")"})
                  .logs({{2, c.line},
                         {2, "successfully sent " + std::string(kRequest) + " request: " + payload}})
                  .succeeds());
        platform->requests.clear(); // they own nothing
    }
}

TEST_F(Registration, SucceedsAlsoWhenTheRequestCannotBeSent)
{
    for (const Forwarded& c : kForwarded) {
        const std::string payload = c.payload;
        check(
            Scenario(kStart, c.data)
                .failing("orvex_send_request(")
                .calls({"orvex_send_request(" + std::string(kRequest) + ", " + payload + ")"})
                .logs({{2, c.line}, {0, "failed to send " + std::string(kRequest) + " request: " + payload}})
                .succeeds());
    }
}

TEST_F(Registration, OfAnyOtherShapeIsAnsweredWithAnErrorObjectAndStatusZero)
{
    for (const char* data : {
             "{}",
             "[]",
             "null",
             "true",
             "5",
             R"("router_id")",
             R"(["router_id","r1"])",
             R"([{"router_id":"r1"}])",
             R"({"router_id":5})",
             R"({"router_id":null})",
             R"({"router_id":["r1"]})",
             R"({"Router_id":"r1"})",
             R"({"router_id":"r1","more":"text"})",
             R"({"router_id":"r1","token":"t","mac":"m","redeem":"r"})",
             R"({"token":"t","mac":"m"})",
             R"({"token":"t","redeem":"r"})",
             R"({"mac":"m","redeem":"r"})",
             R"({"token":5,"mac":"m","redeem":"r"})",
             R"({"token":"t","mac":null,"redeem":"r"})",
             R"({"token":"t","mac":"m","redeem":{}})",
             R"({"token":"t","mac":"m","redeem":"r","more":1})",
         })
        check(Scenario(kStart, data).succeeds(kSchemaError));
}

TEST_F(Registration, WithoutAnArgumentIsAnInvalidCommand)
{
    check(Scenario(kStart).fails(kCommandError));
}

TEST_F(Registration, WhoseTextCannotBeMadeIsAnInvalidCommand)
{
    // Memory for the text only: with less, there is none for the error object either.
    bool seen = false;
    for (unsigned n = 1; n < 100 && !seen; ++n) {
        Peer peer = connect();
        forget_records();
        platform->fail_json_allocation(n);
        const bool is_request = receive(peer, command(kStart, R"({"router_id":"r1"})") + "\n");
        platform->fail_json_allocation(0);
        if (is_request && platform->requests.empty() && !platform->take_logs().empty()) {
            drain(peer);
            seen = peer.client.frame() == R"({"data": )" + std::string(kCommandError) + R"(, "status": -1})";
        }
        platform->requests.clear();
        if (is_request && is_connected(peer))
            destroy(peer);
    }
    EXPECT_TRUE(seen);
}

TEST_F(Registration, InTheCloudForwardsAnyObjectOrArray)
{
    for (const auto& [data, payload] : std::vector<std::pair<std::string, std::string>>{
             {"{}", "{}"},
             {"[]", "[]"},
             {R"([1,[2,{"a":null}]])", R"([1, [2, {"a": null}]])"},
             {R"({"b":1,"a":true})", R"({"b": 1, "a": true})"},
             {R"({"text":")" + std::string(100000, 'x') + "\"}",
              R"({"text": ")" + std::string(100000, 'x') + "\"}"},
         }) {
        const std::string call = "orvex_send_request(" + std::string(kRequest) + ", " + payload + ")";
        check(Scenario(kStartCloud, data)
                  .calls({call})
                  .logs({{2, "successfully sent " + std::string(kRequest) + " request: " + payload}})
                  .succeeds());
        platform->requests.clear();
        check(Scenario(kStartCloud, data)
                  .failing("orvex_send_request(")
                  .calls({call})
                  .logs({{0, "failed to send " + std::string(kRequest) + " request: " + payload}})
                  .succeeds());
    }
}

TEST_F(Registration, InTheCloudNeedsSomethingThatHasAText)
{
    for (const char* data : {"null", "true", "false", "0", "-1.5", R"("text")", R"("")"})
        check(Scenario(kStartCloud, data).fails());
    check(Scenario(kStartCloud).fails());
}

} // namespace
} // namespace orv::test
