// Other processes that are stopped, at any moment of opening, writing and closing a store, greedy or killed:
// nobody waits for them longer than the layout says, and afterwards all is well.

#include "process_support.h"
#include "stepped.h"

#include <orvstore/notify.h>
#include <orvstore/transaction.h>

#include <gtest/gtest.h>

#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>

using namespace orv::store;
using orv::Error;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

namespace {

constexpr milliseconds kPatience{20};
/// What the machine may take for itself, beside the waiting.
constexpr milliseconds kSlack{2000};

std::vector<std::string>& told()
{
    static std::vector<std::string> lines;
    return lines;
}

void tell(Severity severity, const std::string& text)
{
    told().push_back(std::to_string(static_cast<int>(severity)) + " " + text);
}

Layout layout(milliseconds patience = kPatience)
{
    return {"store", {"a"}, std::size_t{1024} * 1024, true, tell, patience};
}

Error write(Environment& environment, const std::string& value)
{
    Write transaction(environment);
    if (transaction.error() != Error::none)
        return transaction.error();
    if (const Error error = transaction.put(0, "key", value); error != Error::none)
        return error;
    return transaction.commit();
}

std::string value_in(Environment& environment)
{
    Read transaction(environment);
    std::string_view value;
    if (transaction.error() != Error::none)
        return "unreadable";
    return transaction.get(0, "key", value) == Error::none ? std::string(value) : "absent";
}

/// Whether this is the value within a time that is enough on any machine.
bool becomes(Environment& environment, const char* value)
{
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (value_in(environment) != value) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

/// How long something takes.
milliseconds duration_of(const std::function<void()>& action)
{
    const auto begin = Clock::now();
    action();
    return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

int open_and_write(const std::string& value)
{
    Environment environment(layout(milliseconds(10000)));
    REQUIRE(environment.open() == Error::none);
    REQUIRE(write(environment, value) == Error::none);
    environment.close();
    return 0;
}

/// Opens the store in a process of its own; its error.
Error open_elsewhere(milliseconds patience = kPatience)
{
    const Outcome outcome = in_child([&] {
        Environment environment(layout(patience));
        return static_cast<int>(environment.open());
    });
    return static_cast<Error>(outcome.status);
}

bool is_bounded(Error error)
{
    return error == Error::none || error == Error::timed_out;
}

class Seeing : public notify::Listener {
public:
    explicit Seeing(Environment& environment) : m_environment(environment) {}
    void look() override { m_seen = value_in(m_environment); }
    [[nodiscard]] const std::string& seen() const { return m_seen; }

private:
    Environment& m_environment;
    std::string m_seen;
};

class StoppedTest : public testing::Test {
protected:
    void SetUp() override { told().clear(); }

    TemporaryRoot m_root;
};

} // namespace

TEST_F(StoppedTest, A_process_stopped_in_any_system_call_of_opening_writing_or_closing_freezes_nobody)
{
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "first"), Error::none);
    notify::watch(environment);
    const auto listener = std::make_shared<Seeing>(environment);
    notify::add(listener);
    std::string last = "first";
    int refused = 0;
    bool is_over = false;
    int steps = 0;
    for (; !is_over; ++steps) {
        const std::string next = "step " + std::to_string(steps);
        Stepped other([&] { return open_and_write(next); });
        for (int i = 0; i < steps && !is_over; ++i)
            is_over = !other.step();
        if (is_over)
            break;
        EXPECT_LT(duration_of([&] {
                      const std::string value = value_in(environment);
                      EXPECT_TRUE(value == last || value == next) << value;
                      (void)notify::descriptor();
                      notify::read();
                  }),
                  kSlack)
            << steps;
        Error error = Error::none;
        EXPECT_LT(duration_of([&] { error = write(environment, "mine"); }), kPatience + kSlack) << steps;
        EXPECT_TRUE(is_bounded(error)) << steps;
        refused += error == Error::timed_out ? 1 : 0;
        EXPECT_LT(duration_of([&] { error = open_elsewhere(); }), kPatience + kSlack) << steps;
        EXPECT_TRUE(is_bounded(error)) << steps;
        if (steps % 2 == 0) {
            other.let_go();
            EXPECT_EQ(other.status(), 0) << steps;
            // Its commit is noticed, whatever it was stopped in.
            const auto deadline = Clock::now() + std::chrono::seconds(20);
            while (listener->seen() != next && Clock::now() < deadline)
                if (is_readable(notify::descriptor(), 1))
                    notify::read();
            EXPECT_EQ(listener->seen(), next) << steps;
        } else {
            other.kill();
        }
        last = "after " + std::to_string(steps);
        ASSERT_EQ(write(environment, last), Error::none) << steps;
        EXPECT_EQ(value_in(environment), last);
        EXPECT_EQ(open_elsewhere(), Error::none) << steps;
    }
    EXPECT_GT(steps, 60) << "system calls were looked at";
    EXPECT_GT(refused, 10) << "some of them with the lock held";
    notify::remove(*listener);
    notify::unwatch(environment);
}

TEST_F(StoppedTest, A_process_stopped_in_any_system_call_of_creating_the_store_lets_others_create_it_later)
{
    bool is_over = false;
    for (int steps = 0; !is_over; ++steps) {
        fs::remove_all(m_root.path() + "/store");
        Stepped other([] { return open_and_write("other"); });
        for (int i = 0; i < steps && !is_over; ++i)
            is_over = !other.step();
        Environment environment(layout());
        Error error = Error::none;
        EXPECT_LT(duration_of([&] { error = environment.open(); }), kPatience + kSlack) << steps;
        EXPECT_TRUE(is_bounded(error)) << steps;
        environment.close();
        if (steps % 2 == 0)
            other.let_go();
        else
            other.kill();
        ASSERT_EQ(environment.open(), Error::none) << steps;
        ASSERT_EQ(write(environment, "mine"), Error::none) << steps;
    }
}

TEST_F(StoppedTest, A_writer_that_is_stopped_again_and_again_costs_others_nothing_but_the_bound)
{
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    Companion writer([](Companion::Ends) -> int {
        Environment own(layout(milliseconds(10000)));
        REQUIRE(own.open() == Error::none);
        for (unsigned i = 0;; ++i)
            REQUIRE(write(own, "its " + std::to_string(i)) == Error::none);
        return 0;
    });
    std::mt19937 random(1); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same moments on each run
    for (int round = 0; round < 200; ++round) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        ASSERT_EQ(kill(writer.pid(), SIGSTOP), 0);
        Error error = Error::none;
        EXPECT_LT(duration_of([&] { error = write(environment, "mine"); }), kPatience + kSlack);
        EXPECT_TRUE(is_bounded(error));
        EXPECT_LT(duration_of([&] { EXPECT_NE(value_in(environment), "unreadable"); }), kSlack);
        ASSERT_EQ(kill(writer.pid(), SIGCONT), 0);
    }
    writer.kill();
    EXPECT_EQ(writer.join(), 1000 + SIGKILL);
    EXPECT_EQ(write(environment, "mine"), Error::none);
    EXPECT_EQ(value_in(environment), "mine");
}

TEST_F(StoppedTest, Who_writes_without_a_pause_keeps_nobody_out)
{
    constexpr milliseconds kLongWrite{5};
    Environment environment(layout(milliseconds(1000)));
    ASSERT_EQ(environment.open(), Error::none);
    Companion greedy([&](Companion::Ends ends) -> int {
        Environment own(layout(milliseconds(10000)));
        REQUIRE(own.open() == Error::none);
        for (bool told_so = false;;) {
            Write transaction(own);
            REQUIRE(transaction.error() == Error::none);
            REQUIRE(transaction.put(0, "greedy", "x") == Error::none);
            if (!std::exchange(told_so, true))
                REQUIRE(::write(ends.out, "w", 1) == 1);
            std::this_thread::sleep_for(kLongWrite);
            REQUIRE(transaction.commit() == Error::none);
        }
        return 0;
    });
    ASSERT_EQ(greedy.hear(), 'w');
    for (int i = 0; i < 20; ++i)
        EXPECT_LT(duration_of([&] { EXPECT_EQ(write(environment, "mine"), Error::none); }),
                  10 * kLongWrite + kSlack);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(open_elsewhere(milliseconds(1000)), Error::none);
}

TEST_F(StoppedTest, A_refused_write_is_one_line_that_names_the_holder_and_does_not_wait_twice_for_it)
{
    constexpr milliseconds kLong{300};
    Environment environment(layout(kLong));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "first"), Error::none);
    Companion holder([](Companion::Ends ends) -> int {
        Environment own(layout());
        REQUIRE(own.open() == Error::none);
        Write transaction(own);
        REQUIRE(transaction.error() == Error::none);
        REQUIRE(::write(ends.out, "w", 1) == 1);
        REQUIRE(raise(SIGSTOP) == 0);
        REQUIRE(transaction.put(0, "key", "its") == Error::none);
        REQUIRE(transaction.commit() == Error::none);
        return 0;
    });
    ASSERT_EQ(holder.hear(), 'w');
    int status = 0;
    ASSERT_EQ(waitpid(holder.pid(), &status, WUNTRACED), holder.pid());
    EXPECT_GE(duration_of([&] { EXPECT_EQ(write(environment, "mine"), Error::timed_out); }), kLong);
    EXPECT_EQ(told(), std::vector<std::string>{
                          "0 store store: cannot begin to write: it is being written by process " +
                          std::to_string(holder.pid()) + " (platform_orvsto), which is stopped"});
    EXPECT_LT(duration_of([&] {
                  for (int i = 0; i < 10; ++i)
                      EXPECT_EQ(write(environment, "mine"), Error::timed_out);
              }),
              kLong);
    EXPECT_EQ(value_in(environment), "first");
    ASSERT_EQ(kill(holder.pid(), SIGCONT), 0);
    EXPECT_EQ(holder.join(), 0);
    EXPECT_EQ(value_in(environment), "its");
    EXPECT_EQ(write(environment, "mine"), Error::none);
}

TEST_F(StoppedTest, Opening_tells_why_it_waits_and_ends_after_the_bound)
{
    {
        Environment other(layout());
        ASSERT_EQ(other.open(), Error::none);
    }
    const Fd directory(open((m_root.path() + "/store").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(directory, LOCK_EX), 0);
    Environment environment(layout(milliseconds(300)));
    EXPECT_LT(duration_of([&] { EXPECT_EQ(environment.open(), Error::timed_out); }),
              milliseconds(300) + kSlack);
    const std::string holder = "process " + std::to_string(getpid()) + " (platform_orvsto)";
    EXPECT_EQ(environment.failure().kind, Failure::Kind::busy);
    EXPECT_EQ(told(),
              (std::vector<std::string>{
                  "1 store store: waiting for " + holder,
                  "0 store store: cannot open the store: it is being opened or written by " + holder}));
    EXPECT_LT(duration_of([&] {
                  for (int i = 0; i < 10; ++i)
                      EXPECT_EQ(environment.open(), Error::timed_out);
              }),
              milliseconds(300) + kSlack)
        << "who was waited for in vain is not waited for again";
    ASSERT_EQ(flock(directory, LOCK_UN), 0);
    EXPECT_EQ(environment.open(), Error::none);
}

TEST_F(StoppedTest, A_replaced_store_is_read_on_while_its_successor_is_locked)
{
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "first"), Error::none);
    fs::rename(m_root.path() + "/store", m_root.path() + "/away");
    fs::create_directory(m_root.path() + "/store");
    const Fd directory(open((m_root.path() + "/store").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(directory, LOCK_EX), 0);
    environment.refresh();
    EXPECT_EQ(value_in(environment), "first");
    EXPECT_EQ(write(environment, "mine"), Error::timed_out);
    ASSERT_EQ(flock(directory, LOCK_UN), 0);
    EXPECT_EQ(write(environment, "mine"), Error::none);
    EXPECT_EQ(value_in(environment), "mine");
}

TEST_F(StoppedTest, A_write_within_a_write_is_refused_instead_of_waiting_for_itself)
{
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    Write outer(environment);
    ASSERT_EQ(outer.error(), Error::none);
    EXPECT_EQ(write(environment, "inner"), Error::input_output);
    ASSERT_EQ(outer.put(0, "key", "outer"), Error::none);
    ASSERT_EQ(outer.commit(), Error::none);
    EXPECT_EQ(value_in(environment), "outer");
}

TEST_F(StoppedTest, A_missing_store_that_others_keep_locked_is_not_tried_anew_by_every_reading)
{
    const std::string directory = m_root.path() + "/store";
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    fs::remove_all(directory);
    spill(directory, "in the way");
    ASSERT_TRUE(becomes(environment, "unreadable")); // it is looked for ten times a second
    fs::remove(directory);
    fs::create_directory(directory);
    spill(directory + "/data.mdb", "");
    orv::base::Descriptor lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
    ASSERT_EQ(value_in(environment), "unreadable");
    ASSERT_EQ(environment.failure().kind, Failure::Kind::busy);

    const orv::base::Descriptor seen(inotify_init1(IN_NONBLOCK));
    ASSERT_GE(inotify_add_watch(seen.get(), directory.c_str(), IN_OPEN | IN_ONLYDIR), 0);
    long attempts = 0;
    const milliseconds time = duration_of([&] {
        char events[4096];
        for (int i = 0; i < 2000; ++i) {
            EXPECT_EQ(value_in(environment), "unreadable");
            attempts += read(seen.get(), events, sizeof events) > 0 ? 1 : 0;
        }
    });
    EXPECT_LE(attempts, time.count() / 100 + 2);
    lock.reset();
    EXPECT_TRUE(becomes(environment, "absent"));
}

TEST_F(StoppedTest, Who_keeps_the_lock_of_the_first_to_open_is_waited_for_no_longer_than_the_bound)
{
    {
        Environment other(layout());
        ASSERT_EQ(other.open(), Error::none);
    }
    Companion closing([&](Companion::Ends ends) -> int {
        const Fd file(open((m_root.path() + "/store/lock.mdb").c_str(), O_RDWR | O_CLOEXEC));
        struct flock first_byte {};
        first_byte.l_type = F_WRLCK;
        first_byte.l_len = 1;
        REQUIRE(fcntl(file, F_SETLK, &first_byte) == 0);
        REQUIRE(::write(ends.out, "l", 1) == 1);
        char byte = 0;
        return static_cast<int>(::read(ends.in, &byte, 1));
    });
    ASSERT_EQ(closing.hear(), 'l');
    Environment environment(layout());
    EXPECT_LT(duration_of([&] { EXPECT_EQ(environment.open(), Error::timed_out); }), kPatience + kSlack);
    EXPECT_EQ(environment.failure().kind, Failure::Kind::busy);
    EXPECT_EQ(told(), std::vector<std::string>{
                          "0 store store: cannot open the store: another process is closing it"});
    closing.kill();
    EXPECT_EQ(closing.join(), 1000 + SIGKILL);
    EXPECT_EQ(environment.open(), Error::none);
}
