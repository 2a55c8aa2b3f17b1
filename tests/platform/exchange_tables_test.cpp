// The library's own tables: requests in flight, origins of what was received.

#include "alarm.h"
#include "exchange_support.h"
#include "origins.h"
#include "requests.h"
#include "wire.h"

using namespace orv::exchange;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

Request make_request_entry(std::uint32_t serial, int deadline)
{
    Request request;
    request.serial = serial;
    request.deadline = TimePoint{seconds{deadline}};
    return request;
}

TEST(ExchangeTables, ARequestIsTakenOnce)
{
    Requests requests;
    requests.add(make_request_entry(UINT32_MAX, 1));
    requests.add(make_request_entry(1, 2)); // the serial numbers wrapped round
    EXPECT_FALSE(requests.take(2));
    EXPECT_EQ(requests.next_deadline(), TimePoint{seconds{1}});
    EXPECT_TRUE(requests.take(UINT32_MAX));
    EXPECT_FALSE(requests.take(UINT32_MAX));
    EXPECT_EQ(requests.next_deadline(), TimePoint{seconds{2}});
    EXPECT_FALSE(requests.take_expired(TimePoint{milliseconds{1999}}));
    EXPECT_EQ(requests.take_expired(TimePoint{seconds{2}})->serial, 1U);
    EXPECT_FALSE(requests.take_expired(TimePoint::max()));
    EXPECT_FALSE(requests.next_deadline());
}

TEST(ExchangeTables, AllRequestsAreTakenInTheOrderOfSending)
{
    Requests requests;
    for (const std::uint32_t serial : {7U, 3U, 5U})
        requests.add(make_request_entry(serial, 1));
    std::string order;
    for (const Request& request : requests.take_all())
        order += std::to_string(request.serial);
    EXPECT_EQ(order, "735");
    EXPECT_FALSE(requests.take(7));
    EXPECT_FALSE(requests.next_deadline());
}

TEST(ExchangeTables, RequestsAreCountedByParticipant)
{
    Requests requests;
    const auto add = [&requests](std::uint32_t serial, const char* participant) {
        Request request = make_request_entry(serial, 1);
        request.participant = participant;
        requests.add(std::move(request));
    };
    add(1, "a");
    add(2, "b");
    add(3, "a");
    EXPECT_EQ(requests.count("a"), 2U);
    EXPECT_EQ(requests.count("b"), 1U);
    EXPECT_EQ(requests.count("c"), 0U);
    (void)requests.take(3);
    (void)requests.take(3);
    EXPECT_EQ(requests.count("a"), 1U);
    (void)requests.take_expired(TimePoint::max());
    EXPECT_EQ(requests.count("a"), 0U);
    EXPECT_EQ(requests.count("b"), 1U);
    (void)requests.take_all();
    EXPECT_EQ(requests.count("b"), 0U);
    add(4, "b");
    EXPECT_EQ(requests.count("b"), 1U);
}

TEST(ExchangeTables, OriginsAreKeptUpToTheirNumber)
{
    Origins origins;
    EXPECT_FALSE(origins.take(0));
    EXPECT_FALSE(origins.take(1));
    for (std::size_t i = 0; i < Origins::kMaxOrigins; ++i)
        EXPECT_EQ(origins.add({Origin::Kind::event, ":1.1", i}).kind, Origin::Kind::answered);
    const std::uint64_t last = origins.last_identifier();
    const Origin oldest = origins.add({Origin::Kind::request, ":1.2", 7});
    EXPECT_EQ(oldest.kind, Origin::Kind::event);
    EXPECT_EQ(oldest.number, 0U);
    EXPECT_FALSE(origins.take(1));
    EXPECT_EQ(origins.take(2)->number, 1U);
    EXPECT_FALSE(origins.take(2));
    EXPECT_EQ(origins.take(last + 1)->sender, ":1.2");
    EXPECT_FALSE(origins.take(last + 2));
}

TEST(ExchangeTables, IdentifiersAreNotUsedAgainAfterClearing)
{
    Origins origins;
    (void)origins.add({Origin::Kind::event, ":1.1", 1});
    const std::uint64_t before = origins.last_identifier();
    origins.clear();
    EXPECT_FALSE(origins.take(before));
    (void)origins.add({Origin::Kind::event, ":1.1", 1});
    EXPECT_GT(origins.last_identifier(), before);
    EXPECT_FALSE(origins.take(before));
}

TEST(ExchangeTables, AnAlarmRingsAtTheEarliestPointSet)
{
    Alarm alarm;
    ASSERT_TRUE(alarm.open());
    const TimePoint now = Clock::now();
    alarm.ring_by(now + seconds{3600});
    EXPECT_FALSE(is_readable(alarm.fd(), milliseconds{0}));
    alarm.ring_by(now + milliseconds{50});
    alarm.ring_by(now + seconds{7200});
    EXPECT_TRUE(is_readable(alarm.fd(), seconds{10}));
    EXPECT_GE(Clock::now(), now + milliseconds{50});
    alarm.acknowledge();
    EXPECT_FALSE(is_readable(alarm.fd(), milliseconds{0}));
    alarm.ring_now();
    EXPECT_TRUE(is_readable(alarm.fd(), seconds{10}));
}

TEST(ExchangeTables, TargetsAreSplitAtTheFirstColon)
{
    const auto bare = parse_target("name");
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->participant, "orvagent");
    EXPECT_EQ(bare->name, "name");
    const auto full = parse_target("a-b_c.d:x:y");
    ASSERT_TRUE(full);
    EXPECT_EQ(full->participant, "a-b_c.d");
    EXPECT_EQ(full->name, "x:y");
    EXPECT_FALSE(parse_target(nullptr));
}

TEST(ExchangeTables, MatchRulesQuoteTheEventsName)
{
    EXPECT_EQ(match_rule(R"(it's a \ "name")"),
              R"(type='signal',interface='net.orvane.Exchange1',member='Event',arg0='it'\''s a \ "name"')");
}

} // namespace
