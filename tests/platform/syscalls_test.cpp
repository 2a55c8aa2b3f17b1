// The libraries when the kernel refuses what they ask of it: each system call, one at a time and from then on, in one
// process after the other on the same root. What was to be done is done or is not, as it was said; nothing crashes, no
// descriptor stays open, and the next attempt succeeds.

#include "devmgmt_support.h"
#include "process_support.h"
#include "store_support.h"
#include "syscall_support.h"

#include <orvbase/root.h>
#include <orvkarma/orvkarma.h>
#include <orvutils/locking.h>
#include <orvutils/log_control.h>
#include <orvutils/time.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace orv;

int count_descriptors()
{
    log::begin_anew(); // it may have one of its own
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

std::string text(unsigned turn)
{
    return "value " + std::to_string(turn);
}

// ---- settings

int write_settings(unsigned turn)
{
    REQUIRE(setMgmt::init() == 0);
    REQUIRE(setMgmt::setKey("/a", text(turn)) == 0);
    REQUIRE(setMgmt::setKey("/tmp/a", text(turn)) == 0);
    REQUIRE(setMgmt::setKey("/other", text(turn)) == 0);
    REQUIRE(setMgmt::setKey("/tmp/other", text(turn)) == 0);
    setMgmt::uninit();
    const int descriptors = count_descriptors();
    const std::string before = text(turn);
    const std::string after = text(turn) + " new";

    CallGate::open();
    const int opened = setMgmt::init();
    const int durable = setMgmt::setKey("/a", after);
    const int below_tmp = setMgmt::setKey("/tmp/a", after);
    std::string read;
    const int got = setMgmt::getKey("/a", read);
    setMgmt::uninit();
    CallGate::close();

    REQUIRE(opened <= 0 && durable <= 0 && below_tmp <= 0);
    REQUIRE(opened == 0 || (durable < 0 && below_tmp < 0 && got < 0));
    REQUIRE(got < 0 || read == (durable == 0 ? after : before));
    REQUIRE(setMgmt::init() == 0);
    REQUIRE(value_of("/a") == (durable == 0 ? after : before));
    REQUIRE(value_of("/tmp/a") == (below_tmp == 0 ? after : before));
    REQUIRE(value_of("/other") == text(turn));
    REQUIRE(value_of("/tmp/other") == text(turn));
    REQUIRE(setMgmt::setKey("/a", "next") == 0);
    REQUIRE(value_of("/a") == "next");
    setMgmt::uninit();
    REQUIRE(count_descriptors() == descriptors);
    return 0;
}

int remove_settings(unsigned turn)
{
    REQUIRE(setMgmt::init() == 0);
    REQUIRE(setMgmt::setKey("/list/a", text(turn)) == 0);
    REQUIRE(setMgmt::setKey("/list/b", text(turn)) == 0);
    REQUIRE(setMgmt::setKey("/c", text(turn)) == 0);

    CallGate::open();
    const int removed = setMgmt::deleteKey("/list");
    int committed = -1;
    {
        setMgmt::Batch batch;
        const int first = setMgmt::setKey("/c", "new");
        const int second = setMgmt::setKey("/d", "new");
        committed = first == 0 && second == 0 ? batch.commit() : -1;
    }
    CallGate::close();

    std::vector<std::string> names;
    REQUIRE(setMgmt::enumSubkeys("/list", names) == (removed == 0 ? 0 : 2));
    REQUIRE(value_of("/c") == (committed == 0 ? "new" : text(turn)));
    REQUIRE((value_of("/d") == "new") == (committed == 0));
    REQUIRE(setMgmt::setKey("/d", "gone") == 0);
    REQUIRE(setMgmt::deleteKey("/d") == 0);
    setMgmt::uninit();
    return 0;
}

int lock_keys(unsigned /*turn*/)
{
    const int descriptors = count_descriptors();
    CallGate::open();
    const int locked = setMgmt::lockKey("/a");
    const int unlocked = setMgmt::unlockKey("/a");
    CallGate::close();
    REQUIRE(locked == 0 ? unlocked == 0 : unlocked == -1);
    REQUIRE(count_descriptors() == descriptors);
    REQUIRE(setMgmt::lockKey("/a") == 0);
    REQUIRE(setMgmt::unlockKey("/a") == 0);
    return 0;
}

int watch_settings(unsigned turn)
{
    REQUIRE(setMgmt::init() == 0);
    const int descriptors = count_descriptors();
    unsigned told = 0;
    const auto tell = [&](const path&, void*) {
        ++told;
        return true;
    };

    CallGate::open();
    {
        setMgmt::MonitoredKey key("/w", tell, false, nullptr, false);
        (void)key.get_fd();
        (void)setMgmt::setKey("/w", text(turn));
        key.read_notifications();
    }
    CallGate::close();

    told = 0;
    {
        setMgmt::MonitoredKey key("/w", tell, false, nullptr, false);
        REQUIRE(key.get_fd() >= 0);
        REQUIRE(setMgmt::setKey("/w", text(turn) + " new") == 0);
        REQUIRE(is_readable(key.get_fd(), kPatienceMs));
        key.read_notifications();
        REQUIRE(told == 1);
    }
    setMgmt::uninit();
    REQUIRE(count_descriptors() <= descriptors + 1); // that of all watches stays
    return 0;
}

// ---- devices, telemetry

int write_devices(unsigned turn)
{
    devMgmt::Device device = make_device("d1");
    device.friendly_name = text(turn);
    REQUIRE(devMgmt::init() == 0);
    REQUIRE(devMgmt::put_device(device) == 0);
    REQUIRE(devMgmt::put_device(make_device("d2")) == 0);
    devMgmt::uninit();
    device.friendly_name = text(turn) + " new";

    CallGate::open();
    const int opened = devMgmt::init();
    const int put = devMgmt::put_device(device);
    devMgmt::Device found;
    const int got = devMgmt::get_device("d1", found);
    devMgmt::uninit();
    CallGate::close();

    const std::string expected = put == 0 ? device.friendly_name : text(turn);
    REQUIRE(opened == 0 || (put < 0 && got == 0));
    REQUIRE(got == 0 || found.friendly_name == expected);
    REQUIRE(devMgmt::init() == 0);
    REQUIRE(devMgmt::get_device("d1", found) != 0 && found.friendly_name == expected);
    REQUIRE(devMgmt::get_device("d2", found) != 0);
    REQUIRE(devMgmt::put_device(device) == 0);
    devMgmt::uninit();
    return 0;
}

int keep_telemetry(unsigned /*turn*/)
{
    const JsonPtr data(json_pack("{s:i}", "a", 1));
    REQUIRE(karma::init() == 0);
    const JsonPtr event(karma::build_karma_event_json("test", data.get()));
    const JsonPtr earlier(karma::build_karma_event_json("earlier", data.get()));
    REQUIRE(event && earlier);
    REQUIRE(karma::submit_karma_event(earlier.get(), nullptr) == -1);
    karma::uninit();

    CallGate::open();
    const int opened = karma::init();
    const int sent = karma::submit_karma_event(event.get(), nullptr);
    karma::uninit();
    CallGate::close();

    REQUIRE(opened == 0);
    REQUIRE(sent == -1); // there is no exchange
    REQUIRE(karma::init() == 0);
    REQUIRE(karma::submit_karma_event(event.get(), nullptr) == -1);
    std::vector<json_t*> events;
    REQUIRE(karma::read_events(events) == 0);
    int kept = 0;
    for (json_t* each : events) {
        kept += json_equal(each, event.get()) + json_equal(each, earlier.get());
        json_decref(each);
    }
    REQUIRE(kept == 2);
    karma::uninit();
    return 0;
}

// ---- timers and file locks

int use_timers(unsigned /*turn*/)
{
    const int descriptors = count_descriptors();
    CallGate::open();
    const int timer = time::timer_init(time::TimerType::monotonic);
    const int started = time::timer_start(timer, 1, 0, /*absolute=*/true);
    const auto ticks = time::timer_tick(timer);
    auto lock = locking::plock::make(base::root_path("run/file"), locking::flags::create);
    const auto locked = lock ? lock->lock(locking::type::exclusive) : locking::result::failed;
    CallGate::close();
    REQUIRE(timer >= 0 || (started == -1 && ticks == 0));
    REQUIRE(started == 0 || ticks == 0);
    REQUIRE(locked == locking::result::locked || locked == locking::result::failed);
    time::timer_uninit(timer);
    lock.reset();
    REQUIRE(count_descriptors() == descriptors);
    lock = locking::plock::make(base::root_path("run/file"), locking::flags::create);
    REQUIRE(lock && lock->lock(locking::type::exclusive) == locking::result::locked);
    return 0;
}

class SystemCalls : public testing::Test {
protected:
    /// Runs `deed` in a child, in each turn with another system call failing; it is to return 0. Calls from which on
    /// all fail are every so many.
    void refuse_each(int (*deed)(unsigned turn), unsigned step)
    {
        EXPECT_FALSE(attempt(deed, 0, false));
        ASSERT_GT(m_calls, 0U);
        for (unsigned n = 1; attempt(deed, n, false); ++n) {
        }
        for (unsigned n = 1; attempt(deed, n, true); n += step) {
        }
    }

private:
    /// False when there are no more calls than that.
    bool attempt(int (*deed)(unsigned turn), unsigned n, bool from_then_on)
    {
        const unsigned turn = ++m_turn;
        const FaultyOutcome result = in_child_with_failing_call(n, from_then_on, [&] { return deed(turn); });
        EXPECT_TRUE(result.was_supervised) << result.outcome.err;
        EXPECT_EQ(result.outcome.status, 0)
            << "call " << n << (from_then_on ? " and all later ones" : "") << ", " << result.failed << ":\n"
            << result.outcome.err;
        m_calls = result.calls;
        return result.has_failed && result.was_supervised;
    }

    TemporaryRoot m_root;
    unsigned m_turn = 0;
    unsigned m_calls = 0;
};

TEST_F(SystemCalls, Refused_to_who_opens_and_writes_the_settings_leave_them_as_was_said)
{
    refuse_each(write_settings, 5);
}

TEST_F(SystemCalls, Refused_to_who_removes_settings_or_commits_a_batch_leave_all_or_nothing)
{
    refuse_each(remove_settings, 3);
}

TEST_F(SystemCalls, Refused_to_who_locks_a_key_leave_it_to_be_locked)
{
    refuse_each(lock_keys, 1);
}

TEST_F(SystemCalls, Refused_to_who_watches_a_key_leave_it_to_be_watched)
{
    refuse_each(watch_settings, 3);
}

TEST_F(SystemCalls, Refused_to_who_opens_and_writes_the_devices_leave_them_as_was_said)
{
    refuse_each(write_devices, 5);
}

TEST_F(SystemCalls, Refused_to_who_keeps_telemetry_leave_what_was_kept)
{
    refuse_each(keep_telemetry, 5);
}

TEST_F(SystemCalls, Refused_to_who_uses_timers_and_file_locks_are_failures)
{
    refuse_each(use_timers, 1);
}

} // namespace
