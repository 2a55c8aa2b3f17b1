// Telemetry when memory is short: every allocation is made to fail, one at a time.

#include "karma_support.h"
#include "memory_support.h"

#include <orvstore/notify.h>

#include <cstdlib>

using namespace orv::karma;

namespace {

using KarmaMemoryTest = KarmaTest;

unsigned long g_failing = 0; ///< which request of the JSON library for memory fails, from 1
unsigned long g_requests = 0;

void* allocate_for_json(std::size_t size)
{
    return ++g_requests == g_failing ? nullptr : std::malloc(size); // NOLINT(cppcoreguidelines-no-malloc)
}

/// While one of these lives, one request of the JSON library fails.
class FailingJson {
public:
    explicit FailingJson(unsigned long number)
    {
        json_set_alloc_funcs(allocate_for_json, std::free);
        g_requests = 0;
        g_failing = number;
    }
    FailingJson(const FailingJson&) = delete;
    FailingJson& operator=(const FailingJson&) = delete;
    ~FailingJson() { g_failing = 0; } // what was taken is given back by the same functions later

    [[nodiscard]] static bool has_failed() { return g_requests >= g_failing; }
};

} // namespace

TEST_F(KarmaMemoryTest, An_event_is_loaded_whole_or_stays_when_the_JSON_library_has_no_memory)
{
    const orv::JsonPtr data(json_pack("{s:s}", "text", std::string(5000, 'x').c_str()));
    const orv::JsonPtr json(build_karma_event_json("test", data.get()));
    const orv::TextPtr whole = orv::dump(json.get());
    EXPECT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
    const std::vector<std::string> kept = stored();
    for_each_allocation([&](unsigned long number) {
        std::vector<json_t*> events;
        int result = 0;
        bool failed = false;
        {
            const FailingJson memory(number);
            result = read_events(events);
            failed = FailingJson::has_failed();
        }
        EXPECT_EQ(result != 0, failed);
        EXPECT_EQ(events.size(), failed ? 0U : 1U);
        for (json_t* loaded : events) {
            const orv::JsonPtr owned(loaded);
            const orv::TextPtr text = orv::dump(loaded);
            EXPECT_STREQ(text.get(), whole.get());
        }
        EXPECT_EQ(stored(), kept) << "allocation " << number;
        return failed;
    });
}

TEST_F(KarmaMemoryTest, An_event_is_submitted_whole_or_not_at_all_when_the_JSON_library_has_no_memory)
{
    const orv::JsonPtr json = event();
    const orv::TextPtr whole = orv::dump(json.get());
    for_each_allocation([&](unsigned long number) {
        int submitted = 0;
        bool failed = false;
        {
            const FailingJson memory(number);
            submitted = submit_karma_event(json.get(), nullptr);
            failed = FailingJson::has_failed();
        }
        EXPECT_EQ(submitted, -1) << "there is no exchange";
        std::vector<outbox::Entry> entries;
        EXPECT_EQ(outbox::read(entries), orv::Error::none);
        EXPECT_EQ(entries.size(), failed ? 0U : 1U) << "allocation " << number;
        for (const outbox::Entry& entry : entries)
            EXPECT_EQ(entry.text, whole.get());
        EXPECT_EQ(outbox::clear(), orv::Error::none);
        return failed;
    });
}

TEST_F(KarmaMemoryTest, An_event_is_made_or_is_not)
{
    const orv::JsonPtr data(json_object());
    for_each_allocation([&](unsigned long number) {
        orv::JsonPtr event;
        bool failed = false;
        {
            const FailingMemory memory(number);
            event.reset(build_karma_event_json("test", data.get()));
            failed = FailingMemory::has_failed();
        }
        EXPECT_EQ(event == nullptr, failed);
        return failed;
    });
    EXPECT_EQ(data->refcount, 1U);
}

TEST_F(KarmaMemoryTest, A_submitted_event_that_was_not_kept_and_sent_can_be_submitted_again)
{
    for (const bool from_then_on : {false, true})
        for_each_allocation([&](unsigned long number) {
            const orv::JsonPtr json = event();
            int submitted = 0;
            bool failed = false;
            {
                const FailingMemory memory(number, from_then_on);
                submitted = submit_karma_event(json.get(), &m_exchange);
                failed = FailingMemory::has_failed();
            }
            EXPECT_EQ(submitted, failed ? -1 : 0);
            EXPECT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
            m_exchange.answer(m_exchange.requests.size() - 1, "0");
            EXPECT_EQ(stored(), std::vector<std::string>{}) << number;
            return failed;
        });
}

TEST_F(KarmaMemoryTest, An_answer_and_the_removal_need_no_more_than_another_attempt)
{
    for_each_allocation([&](unsigned long number) {
        const orv::JsonPtr json = event();
        EXPECT_EQ(submit_karma_event(json.get(), &m_exchange), 0);
        bool failed = false;
        {
            const FailingMemory memory(number, /*from_then_on=*/true);
            m_exchange.answer(m_exchange.requests.size() - 1, "0");
            orv::store::notify::read();
            orv::store::notify::read();
            failed = FailingMemory::has_failed();
        }
        EXPECT_EQ(stored(), std::vector<std::string>{}) << number;
        return failed;
    });
}

TEST_F(KarmaMemoryTest, Events_are_loaded_all_or_none)
{
    ASSERT_EQ(outbox::put("a", "no json"), orv::Error::none);
    for (int i = 0; i < 3; ++i)
        (void)submit_karma_event(event().get(), nullptr);
    for_each_allocation([&](unsigned long number) {
        std::vector<json_t*> events;
        int loaded = 0;
        bool failed = false;
        {
            const FailingMemory memory(number);
            loaded = read_events(events);
            failed = FailingMemory::has_failed();
        }
        EXPECT_EQ(loaded, failed ? -1 : 0);
        EXPECT_EQ(events.size(), failed ? 0U : 3U);
        for (json_t* json : events)
            json_decref(json);
        return failed;
    });
}

TEST_F(KarmaMemoryTest, The_start_succeeds_or_leaves_all_as_it_was)
{
    uninit();
    for_each_allocation([&](unsigned long number) {
        bool failed = false;
        int started = 0;
        {
            const FailingMemory memory(number);
            started = init();
            failed = FailingMemory::has_failed();
        }
        EXPECT_TRUE(started == 0 || failed);
        if (started == 0)
            uninit();
        return failed;
    });
    ASSERT_EQ(init(), 0);
}
