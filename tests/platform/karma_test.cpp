// Telemetry events: kept until the agent confirms them.

#include "karma_support.h"
#include "process_support.h"
#include "refusal_support.h"

#include <orvstore/notify.h>
#include <orvstore/transaction.h>
#include <orvutils/error.h>
#include <orvutils/log_control.h>
#include <orvutils/setmgmt.h>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <regex>

using namespace orv::karma;

namespace {

using Clock = std::chrono::steady_clock;
using Ids = std::vector<std::string>;

/// The ids in the outbox, with nothing else done to it.
Ids kept()
{
    std::vector<outbox::Entry> entries;
    EXPECT_EQ(outbox::read(entries), orv::Error::none);
    Ids ids;
    ids.reserve(entries.size());
    for (const outbox::Entry& entry : entries)
        ids.push_back(entry.id);
    return ids;
}

/// Turns of a loop that watches the notification descriptor, as long as it rings.
void run_passes()
{
    while (is_readable(orv::store::notify::descriptor(), 0))
        orv::store::notify::read();
}

/// A full outbox, and all of it submitted.
void submit_all(Orvex& exchange)
{
    std::vector<json_t*> events;
    ASSERT_EQ(read_events(events), 0);
    for (json_t* json : events) {
        const orv::JsonPtr event(json);
        ASSERT_EQ(submit_karma_event(event.get(), &exchange), 0);
    }
}

} // namespace

TEST_F(KarmaTest, An_event_has_an_id_its_type_the_time_and_the_data)
{
    const orv::JsonPtr json = event("tuvo_agent_status", R"({"agent_state": "deployed"})");
    ASSERT_NE(json, nullptr);
    EXPECT_TRUE(std::regex_match(id_of(json), std::regex("[0-9a-f]{16}-[0-9a-f]{16}")));
    EXPECT_STREQ(json_string_value(json_object_get(json.get(), "type")), "tuvo_agent_status");
    EXPECT_NEAR(static_cast<double>(json_integer_value(json_object_get(json.get(), "timestamp"))),
                static_cast<double>(std::time(nullptr)), 5);
    const orv::JsonPtr data(json_pack("{s:s}", "agent_state", "deployed"));
    EXPECT_TRUE(json_equal(json_object_get(json.get(), "data"), data.get()));
    EXPECT_EQ(json_object_size(json.get()), 4U);
}

TEST_F(KarmaTest, Building_takes_a_reference_of_its_own_on_the_data)
{
    const orv::JsonPtr data(json_object());
    const orv::JsonPtr json(build_karma_event_json("test", data.get()));
    EXPECT_EQ(data->refcount, 2U);
    EXPECT_EQ(build_karma_event_json("test", nullptr), nullptr);
    EXPECT_EQ(build_karma_event_json(nullptr, data.get()), nullptr);
    EXPECT_EQ(build_karma_event_json("\xff", data.get()), nullptr) << "no UTF-8";
    EXPECT_EQ(data->refcount, 2U);
}

TEST_F(KarmaTest, Ids_are_unique_and_rise_in_the_order_of_building)
{
    std::string last;
    for (int i = 0; i < 2000; ++i) {
        const std::string id = id_of(event());
        ASSERT_LT(last, id);
        last = id;
    }
}

TEST_F(KarmaTest, Ids_rise_beyond_those_in_the_outbox_even_when_the_clock_went_back)
{
    ASSERT_EQ(
        outbox::put("00ffffffffffff00-0000000000000000", R"({"id": "00ffffffffffff00-0000000000000000"})"),
        orv::Error::none);
    const orv::JsonPtr json = event();
    EXPECT_GT(id_of(json), "00ffffffffffff00-ffffffffffffffff");
    EXPECT_EQ(submit_karma_event(json.get(), nullptr), -1);
    EXPECT_EQ(stored().back(), id_of(json));
}

TEST_F(KarmaTest, A_submitted_event_is_sent_as_a_request_and_stays_until_it_is_confirmed)
{
    const orv::JsonPtr json = event();
    ASSERT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
    ASSERT_EQ(m_exchange.requests.size(), 1U);
    EXPECT_EQ(m_exchange.requests[0].name, "telemetry_event");
    const orv::JsonPtr sent(json_loads(m_exchange.requests[0].data.c_str(), 0, nullptr));
    EXPECT_TRUE(json_equal(sent.get(), json.get()));
    EXPECT_EQ(stored(), Ids{id_of(json)});
    m_exchange.answer(0, "0");
    EXPECT_EQ(stored(), Ids{});
    EXPECT_EQ(json->refcount, 1U);
}

TEST_F(KarmaTest, Any_other_answer_leaves_it_in_the_outbox)
{
    for (const char* type : {"2", "1", "", "00", "zero"}) {
        const orv::JsonPtr json = event();
        ASSERT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
        m_exchange.answer(m_exchange.requests.size() - 1, type);
    }
    EXPECT_EQ(stored().size(), 5U);
}

TEST_F(KarmaTest, Without_an_exchange_an_event_is_kept_and_can_be_submitted_again)
{
    const orv::JsonPtr json = event();
    EXPECT_EQ(submit_karma_event(json.get(), nullptr), -1);
    m_exchange.result = -1;
    EXPECT_EQ(submit_karma_event(json.get(), &m_exchange), -1);
    EXPECT_EQ(stored(), Ids{id_of(json)});
    m_exchange.result = 0;
    std::vector<json_t*> events;
    ASSERT_EQ(read_events(events), 0);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_TRUE(json_equal(events[0], json.get()));
    EXPECT_EQ(submit_karma_event(events[0], &m_exchange), 0);
    json_decref(events[0]);
    m_exchange.answer(0, "0");
    EXPECT_EQ(stored(), Ids{});
}

TEST_F(KarmaTest, Events_come_back_oldest_first)
{
    Ids ids;
    for (int i = 0; i < 50; ++i) {
        const orv::JsonPtr json = event();
        ids.push_back(id_of(json));
        (void)submit_karma_event(json.get(), nullptr);
    }
    EXPECT_EQ(stored(), ids);
}

TEST_F(KarmaTest, An_event_submitted_twice_is_kept_once_and_either_answer_confirms_it)
{
    const orv::JsonPtr json = event();
    ASSERT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
    ASSERT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
    EXPECT_EQ(stored().size(), 1U);
    m_exchange.answer(1, "0");
    EXPECT_EQ(stored().size(), 0U);
    m_exchange.answer(0, "0");
    EXPECT_EQ(stored().size(), 0U);
}

TEST_F(KarmaTest, An_answer_after_the_end_does_no_harm)
{
    const orv::JsonPtr json = event();
    ASSERT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
    uninit();
    m_exchange.answer(0, "0");
    ASSERT_EQ(init(), 0);
    const orv::JsonPtr other = event();
    ASSERT_EQ(submit_karma_event(other.get(), &m_exchange), 0);
    m_exchange.answer(0, "0");
    EXPECT_EQ(stored(), (Ids{id_of(json), id_of(other)}));
}

TEST_F(KarmaTest, What_is_no_event_is_refused)
{
    for (const char* text : {"{}", R"({"id": 1})", R"({"id": ""})", "[]"}) {
        const orv::JsonPtr json(json_loads(text, 0, nullptr));
        EXPECT_EQ(submit_karma_event(json.get(), &m_exchange), -1) << text;
        EXPECT_EQ(orv::_get_orverrno(), 1);
    }
    EXPECT_EQ(submit_karma_event(nullptr, &m_exchange), -1);
    EXPECT_TRUE(m_exchange.requests.empty());
}

TEST_F(KarmaTest, The_outbox_holds_1000_events_and_the_oldest_go_first_with_a_log_line)
{
    Ids ids;
    const Outcome outcome = in_child([&] {
        for (int i = 0; i < 1003; ++i) {
            const std::string id = "id" + std::to_string(10000 + i);
            if (outbox::put(id, "{\"id\": \"" + id + "\"}") != orv::Error::none)
                return 1;
        }
        return 0;
    });
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(logged(outcome.err), (Ids{"1 telemetry: the outbox is full, dropping event id10000",
                                        "1 telemetry: the outbox is full, dropping event id10001",
                                        "1 telemetry: the outbox is full, dropping event id10002"}));
    ids = stored();
    EXPECT_EQ(ids.size(), 1000U);
    EXPECT_EQ(ids.front(), "id10003");
    EXPECT_EQ(ids.back(), "id11002");
}

TEST_F(KarmaTest, Large_events_displace_the_oldest_ones_too)
{
    const std::string data = "\"" + std::string(200'000, 'd') + "\"";
    const std::string event_data = "{\"d\": " + data + "}";
    std::string last;
    for (int i = 0; i < 100; ++i) {
        const orv::JsonPtr json = event("large", event_data.c_str());
        ASSERT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
        last = id_of(json);
    }
    const Ids ids = stored();
    EXPECT_GT(ids.size(), 20U);
    EXPECT_LT(ids.size(), 100U);
    EXPECT_EQ(ids.back(), last);
}

TEST_F(KarmaTest, An_event_too_large_to_keep_is_sent_but_not_reported_as_kept)
{
    const std::string data = "{\"d\": \"" + std::string(outbox::kMaxEventSize, 'd') + "\"}";
    const orv::JsonPtr json = event("huge", data.c_str());
    EXPECT_EQ(submit_karma_event(json.get(), &m_exchange), -1);
    EXPECT_EQ(m_exchange.requests.size(), 1U);
    EXPECT_EQ(stored(), Ids{});
}

TEST_F(KarmaTest, A_malformed_event_in_the_outbox_is_dropped_with_one_log_line)
{
    ASSERT_EQ(outbox::put("a", "no json"), orv::Error::none);
    ASSERT_EQ(outbox::put("b", R"({"id": "b"})"), orv::Error::none);
    const Outcome outcome = in_child([] {
        std::vector<json_t*> events;
        if (read_events(events) != 0 || events.size() != 1)
            return 1;
        json_decref(events[0]);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(logged(outcome.err), Ids{"0 telemetry: dropping event a from the outbox, it is malformed"});
    EXPECT_EQ(stored(), Ids{"b"});
}

TEST_F(KarmaTest, Events_outlive_the_kill_of_the_process_that_submitted_them)
{
    Ids expected;
    for (int i = 0; i < 10; ++i) {
        const Outcome outcome = in_child([]() -> int {
            const orv::JsonPtr json = event();
            (void)submit_karma_event(json.get(), nullptr);
            const std::string id = id_of(json);
            if (write(STDOUT_FILENO, id.data(), id.size()) != static_cast<ssize_t>(id.size()))
                return 1;
            return raise(SIGKILL);
        });
        ASSERT_EQ(outcome.status, 1000 + SIGKILL);
        expected.push_back(outcome.out);
        EXPECT_EQ(stored(), expected);
    }
}

TEST_F(KarmaTest, Without_an_outbox_events_are_sent_but_not_kept)
{
    uninit();
    const orv::JsonPtr json = event();
    ASSERT_NE(json, nullptr);
    EXPECT_EQ(submit_karma_event(json.get(), &m_exchange), -1);
    EXPECT_EQ(m_exchange.requests.size(), 1U);
    std::vector<json_t*> events;
    EXPECT_EQ(read_events(events), -1);
    EXPECT_EQ(orv::_get_orverrno(), 2);
    ASSERT_EQ(init(), 0);
}

TEST_F(KarmaTest, An_outbox_that_cannot_be_opened_is_told_once_and_used_when_it_can)
{
    uninit();
    std::filesystem::remove_all(m_root.path() + "/var");
    spill(m_root.path() + "/var", "in the way");
    const Outcome outcome = in_child([this] {
        REQUIRE(init() == 0);
        for (int i = 0; i < 5; ++i) {
            REQUIRE(submit_karma_event(event().get(), &m_exchange) == -1);
            REQUIRE(m_exchange.requests.size() == static_cast<std::size_t>(i) + 1);
            m_exchange.answer(m_exchange.requests.size() - 1, "0");
            std::vector<json_t*> events;
            REQUIRE(read_events(events) == 0 && events.empty());
            run_passes();
        }
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(logged(outcome.err), Ids{"0 telemetry: events are sent without being kept: " + m_root.path() +
                                       "/var/telemetry: cannot create the directory: Not a directory"});

    ASSERT_EQ(init(), 0);
    EXPECT_EQ(submit_karma_event(event().get(), &m_exchange), -1);
    std::filesystem::remove(m_root.path() + "/var");
    testing::internal::CaptureStderr();
    orv::JsonPtr json;
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    do {
        json = event();
    } while (submit_karma_event(json.get(), &m_exchange) != 0 && Clock::now() < deadline &&
             usleep(10000) == 0);
    EXPECT_EQ(logged(testing::internal::GetCapturedStderr()),
              Ids{"2 telemetry: the outbox is there, events are kept again"});
    EXPECT_EQ(stored(), Ids{id_of(json)});
}

TEST_F(KarmaTest, Without_room_events_are_sent_and_that_they_are_not_kept_is_told_once)
{
    uninit();
    std::filesystem::create_directories(m_root.path() + "/var/telemetry");
    const Outcome outcome = on_small_disk(m_root.path() + "/var/telemetry", "64k", [this] {
        fill_disk(m_root.path() + "/var/telemetry/full");
        REQUIRE(init() == 0);
        for (int i = 0; i < 5; ++i)
            REQUIRE(submit_karma_event(event().get(), &m_exchange) == -1);
        REQUIRE(m_exchange.requests.size() == 5);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    ASSERT_EQ(logged(outcome.err).size(), 1U) << outcome.err;
    EXPECT_EQ(logged(outcome.err)[0].find(
                  "0 telemetry: events are sent without being kept: " + m_root.path() + "/var/telemetry: "),
              0U)
        << outcome.err;
    const Outcome later = on_small_disk(m_root.path() + "/var/telemetry", "64k", [this] {
        REQUIRE(init() == 0);
        fill_disk(m_root.path() + "/var/telemetry/full");
        for (int i = 0; i < 5; ++i)
            (void)submit_karma_event(event().get(), &m_exchange);
        REQUIRE(m_exchange.requests.size() == 5);
        return 0;
    });
    EXPECT_EQ(later.status, 0) << later.err;
    EXPECT_EQ(lines_of(later.err).size(), 1U) << later.err;
    ASSERT_EQ(init(), 0);
}

TEST_F(KarmaTest, A_lack_of_room_is_told_again_after_an_event_was_kept)
{
    uninit();
    const std::string directory = m_root.path() + "/var/telemetry";
    std::filesystem::create_directories(directory);
    const Outcome outcome = on_small_disk(directory, "300k", [&] {
        const std::string large =
            "{\"d\": \"" + std::string(30000, 'd') + "\"}"; // more than there are free pages
        const auto submit = [&] {
            return submit_karma_event(event("large", large.c_str()).get(), &m_exchange);
        };
        REQUIRE(init() == 0);
        for (int round = 0; round < 2; ++round) {
            orv::log::begin_anew(); // else the log itself counts what repeats
            fill_disk(directory + "/full");
            for (int i = 0; i < 3; ++i)
                REQUIRE(submit() == -1);
            std::filesystem::remove(directory + "/full");
            REQUIRE(submit() == 0);
        }
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(count_log_lines(outcome.err), 2U) << outcome.err;
    ASSERT_EQ(init(), 0);
}

/// In a process that has not asked for the limit yet.
TEST(KarmaLimit, Leaves_events_half_of_the_outbox_and_the_newest_are_kept)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // which begins the program anew
    const auto fill = []() -> int {
        const TemporaryRoot root;
        REQUIRE(orv::setMgmt::init() == 0);
        REQUIRE(orv::setMgmt::setKey("/karma/max_store_mib", "2") == 0);
        REQUIRE(outbox::open() == orv::Error::none);
        for (int i = 0; i < 30; ++i) {
            const std::string id = "id" + std::to_string(100 + i);
            REQUIRE(outbox::put(id, std::string(200000, 'x')) == orv::Error::none);
        }
        std::vector<outbox::Entry> entries;
        REQUIRE(outbox::read(entries) == orv::Error::none);
        REQUIRE(entries.size() == 5); // the most that 1 MiB holds
        REQUIRE(entries.back().id == "id129");
        orv::store::Usage usage;
        REQUIRE(outbox::measure(usage) == orv::Error::none);
        REQUIRE(usage.limit == (std::uint64_t{2} << 20) * 15 / 16);
        return 0;
    };
    EXPECT_EXIT(std::_Exit(fill()), testing::ExitedWithCode(0), "");
}

/// An outbox of another time: events of so many bytes, as many as the store takes, at most so many.
int fill_a_store(std::size_t mebibytes, std::size_t size, std::size_t most)
{
    orv::store::Environment store({"var/telemetry", {"events"}, mebibytes << 20, true});
    REQUIRE(store.open() == orv::Error::none);
    orv::store::Write transaction(store);
    REQUIRE(transaction.error() == orv::Error::none);
    for (std::size_t i = 0; i < most; ++i)
        if (transaction.put(0, "id" + std::to_string(10000 + i), std::string(size, 'x')) != orv::Error::none)
            break;
    REQUIRE(transaction.commit() == orv::Error::none);
    return 0;
}

/// Each of these events is kept, and those that go are the oldest; at least so many stay.
int put_events(const char* mebibytes, int first, std::size_t size, std::size_t least)
{
    REQUIRE(orv::setMgmt::init() == 0);
    REQUIRE(orv::setMgmt::setKey("/karma/max_store_mib", mebibytes) == 0);
    REQUIRE(outbox::open() == orv::Error::none);
    Ids before = kept();
    for (int i = first; i < first + 20; ++i) {
        const std::string id = "id" + std::to_string(i);
        REQUIRE(outbox::put(id, std::string(size, 'x')) == orv::Error::none);
        before.push_back(id);
        const Ids ids = kept();
        REQUIRE(ids.size() >= least);
        REQUIRE(std::equal(ids.rbegin(), ids.rend(), before.rbegin()));
    }
    return 0;
}

/// In a process that has not asked for the limit yet.
int in_turn(std::initializer_list<std::function<int()>> bodies)
{
    const TemporaryRoot root;
    for (const auto& body : bodies) {
        const Outcome outcome = in_child(body);
        if (outcome.status != 0)
            (void)std::fputs(outcome.err.c_str(), stderr);
        REQUIRE(outcome.status == 0);
    }
    return 0;
}

TEST(KarmaLimit, Whatever_their_size_the_oldest_events_go_first)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto put_all = []() -> int {
        for (const std::size_t mebibytes : {2U, 4U, 8U})
            for (const std::size_t size : {2000U, 4090U}) { // which take one page and two
                const std::size_t pages = size > 2048 ? 2 : 1;
                const std::size_t least =
                    std::min(outbox::kMaxEvents, (mebibytes << 20) / pages / 4096 * 45 / 100);
                const std::string limit = std::to_string(mebibytes);
                REQUIRE(in_turn({[=] { return fill_a_store(mebibytes, size, outbox::kMaxEvents); },
                                 [=] { return put_events(limit.c_str(), 20000, size, least); },
                                 [=] { return put_events(limit.c_str(), 30000, size, least); }}) == 0);
            }
        return 0;
    };
    EXPECT_EXIT(std::_Exit(put_all()), testing::ExitedWithCode(0), "");
}

TEST(KarmaLimit, Can_be_lowered_below_what_is_kept)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto put_all = []() -> int {
        for (const std::size_t before : {2000U, 8000U})
            for (const std::size_t size : {100U, 8000U, 250000U})
                REQUIRE(in_turn({[=] { return fill_a_store(16, before, outbox::kMaxEvents); },
                                 [=] { return put_events("2", 20000, size, 3); },
                                 [=] { return put_events("2", 30000, size, 3); }}) == 0);
        return 0;
    };
    EXPECT_EXIT(std::_Exit(put_all()), testing::ExitedWithCode(0), "");
}

TEST_F(KarmaTest, A_confirmed_event_leaves_the_outbox_with_the_next_turns_of_the_loop)
{
    ASSERT_EQ(submit_karma_event(event().get(), &m_exchange), 0);
    m_exchange.answer(0, "0");
    EXPECT_EQ(kept().size(), 1U);
    run_passes();
    EXPECT_EQ(kept(), Ids{});
    EXPECT_FALSE(is_readable(orv::store::notify::descriptor(), 0));
}

TEST_F(KarmaTest, A_thousand_confirmed_events_wait_for_a_slow_disk_a_few_times)
{
    for (int i = 0; i < 1000; ++i) {
        const std::string id = "id" + std::to_string(10000 + i);
        ASSERT_EQ(outbox::put(id, "{\"id\": \"" + id + "\"}"), orv::Error::none);
    }
    const auto submitted = Clock::now();
    submit_all(m_exchange);
    EXPECT_LT(Clock::now() - submitted, std::chrono::seconds(1));
    const Ids before = kept();
    const SlowDisk disk; // each commit takes 20 ms
    const auto started = Clock::now();
    std::size_t answered = 0;
    int most_in_a_pass = 0;
    while (answered < 1000) {
        for (int i = 0; i < 16 && answered < 1000; ++i)
            m_exchange.answer(answered++, "0");
        const int commits = SlowDisk::commits();
        if (is_readable(orv::store::notify::descriptor(), 0))
            orv::store::notify::read();
        most_in_a_pass = std::max(most_in_a_pass, SlowDisk::commits() - commits);
    }
    run_passes();
    EXPECT_LT(Clock::now() - started, std::chrono::milliseconds(500));
    EXPECT_LE(most_in_a_pass, 1);
    EXPECT_LE(SlowDisk::commits(), 3);
    EXPECT_EQ(before.size(), 1000U);
    EXPECT_EQ(kept(), Ids{});
}

TEST_F(KarmaTest, Confirmed_events_are_removed_after_a_second_though_confirmations_go_on)
{
    ASSERT_EQ(submit_karma_event(event().get(), &m_exchange), 0);
    m_exchange.answer(0, "0");
    const auto started = Clock::now();
    const Ids first = kept();
    const SlowDisk disk; // else a second is enough for as many as are removed at once anyway
    while (!kept().empty() && kept().front() == first.front()) {
        ASSERT_LT(Clock::now() - started, std::chrono::seconds(20));
        ASSERT_EQ(submit_karma_event(event().get(), &m_exchange), 0);
        m_exchange.answer(m_exchange.requests.size() - 1, "0");
        orv::store::notify::read();
    }
    EXPECT_LT(m_exchange.requests.size(), outbox::kMaxEvents);
}

TEST_F(KarmaTest, What_cannot_be_removed_is_not_given_back_and_removed_with_the_next_ones)
{
    const orv::JsonPtr first = event();
    const orv::JsonPtr second = event();
    ASSERT_EQ(submit_karma_event(first.get(), &m_exchange), 0);
    ASSERT_EQ(submit_karma_event(second.get(), &m_exchange), 0);
    {
        const SlowDisk failing(/*is_failing=*/true);
        m_exchange.answer(0, "0");
        run_passes();
        EXPECT_EQ(kept().size(), 2U);
        EXPECT_EQ(stored(), Ids{id_of(second)});
    }
    m_exchange.answer(1, "0");
    run_passes();
    EXPECT_EQ(kept(), Ids{});
}

TEST_F(KarmaTest, A_confirmed_event_that_is_submitted_again_waits_for_its_own_answer)
{
    const orv::JsonPtr json = event();
    ASSERT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
    m_exchange.answer(0, "0");
    ASSERT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
    ASSERT_EQ(submit_karma_event(event().get(), &m_exchange), 0);
    ASSERT_EQ(m_exchange.requests.size(), 3U);
    m_exchange.answer(2, "0");
    run_passes();
    EXPECT_EQ(kept(), Ids{id_of(json)});
    m_exchange.answer(1, "0");
    run_passes();
    EXPECT_EQ(kept(), Ids{});
}

TEST_F(KarmaTest, What_is_confirmed_at_the_end_does_not_come_back)
{
    ASSERT_EQ(submit_karma_event(event().get(), &m_exchange), 0);
    m_exchange.answer(0, "0");
    uninit();
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(kept(), Ids{});
}

TEST_F(KarmaTest, No_more_events_are_loaded_than_the_outbox_can_hold)
{
    uninit();
    const Outcome outcome = in_child([] { // who opens the store a second time needs a process of his own
        orv::store::Environment store({"var/telemetry", {"events"}, std::size_t{16} << 20U, true});
        REQUIRE(store.open() == orv::Error::none);
        orv::store::Write writing(store);
        for (int i = 0; i < 1500; ++i) {
            const std::string id = "id" + std::to_string(10000 + i);
            REQUIRE(writing.put(0, id, "{\"id\": \"" + id + "\"}") == orv::Error::none);
        }
        return static_cast<int>(writing.commit());
    });
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(stored().size(), 1000U);
}

TEST_F(KarmaTest, A_damaged_outbox_is_set_aside_and_an_empty_one_takes_its_place)
{
    const std::string file = m_root.path() + "/var/telemetry/data.mdb";
    uninit();
    spill(file, "garbage");
    const Outcome outcome = in_child([] { return init() == 0 ? 0 : 1; });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const std::vector<std::string> told = lines_of(outcome.err);
    ASSERT_EQ(told.size(), 1U) << outcome.err;
    EXPECT_NE(told[0].find("store var/telemetry: its data file was damaged"), std::string::npos) << told[0];
    EXPECT_EQ(slurp(file + ".damaged"), "garbage");
    ASSERT_EQ(init(), 0);
    std::vector<outbox::Entry> entries;
    EXPECT_EQ(outbox::put("1", "{}"), orv::Error::none);
    EXPECT_EQ(outbox::read(entries), orv::Error::none);
    EXPECT_EQ(entries.size(), 1U);
}

TEST_F(KarmaTest, Clearing_removes_everything)
{
    for (int i = 0; i < 3; ++i)
        (void)submit_karma_event(event().get(), nullptr);
    EXPECT_EQ(outbox::clear(), orv::Error::none);
    EXPECT_EQ(stored(), Ids{});
    EXPECT_EQ(outbox::clear(), orv::Error::none);
}

TEST_F(KarmaTest, On_an_old_kernel_ids_have_their_random_half_from_the_device)
{
    const Outcome outcome = in_child([&]() -> int {
        REQUIRE(refuse_calls({{SYS_getrandom, ENOSYS}}));
        const std::string first = id_of(event());
        const std::string second = id_of(event());
        const std::regex form("[0-9a-f]{16}-[0-9a-f]{16}");
        REQUIRE(std::regex_match(first, form) && std::regex_match(second, form));
        REQUIRE(first < second);
        REQUIRE(first.substr(17) != second.substr(17));
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(KarmaTest, Without_any_randomness_there_is_no_event_that_could_be_taken_for_anothers)
{
    const Outcome outcome = in_child([&]() -> int {
        REQUIRE(refuse_calls({{SYS_getrandom, ENOSYS}}));
        const rlimit no_descriptor{}; // so that the device cannot be opened either
        REQUIRE(setrlimit(RLIMIT_NOFILE, &no_descriptor) == 0);
        REQUIRE(!event());
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}
