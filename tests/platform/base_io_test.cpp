// Interest in descriptors, and timers.

#include "base_support.h"

#include <orvutils/error.h>
#include <orvutils/io.h>
#include <orvutils/time.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace {

using namespace orv::time;

int ready(int epoll, epoll_event& event)
{
    return epoll_wait(epoll, &event, 1, 0);
}

TEST(EpollSet, AddsChangesAndKeepsTheDescriptorInTheEvent)
{
    const Fd epoll(epoll_create1(EPOLL_CLOEXEC));
    const Ends ends = make_sockets(SOCK_STREAM);
    epoll_event event{};
    ASSERT_EQ(orv::io::epoll_set_fd_ro(epoll, ends.first), 0);
    EXPECT_EQ(ready(epoll, event), 0) << "watched for input alone, though it could be written";
    ASSERT_EQ(orv::io::epoll_set_fd(epoll, ends.first, EPOLLIN | EPOLLOUT), 0);
    ASSERT_EQ(ready(epoll, event), 1);
    EXPECT_EQ(event.events, static_cast<unsigned>(EPOLLOUT));
    EXPECT_EQ(event.data.fd, ends.first);
    ASSERT_EQ(orv::io::epoll_set_fd_ro(epoll, ends.first), 0);
    EXPECT_EQ(ready(epoll, event), 0);
    ASSERT_EQ(orv::io::epoll_set_fd_ro(epoll, ends.first), 0) << "twice is harmless";
    ASSERT_EQ(write(ends.second, "x", 1), 1);
    ASSERT_EQ(ready(epoll, event), 1);
    EXPECT_EQ(event.events, static_cast<unsigned>(EPOLLIN));
}

TEST(EpollSet, FailureIsMinusOneWithErrno)
{
    const Fd epoll(epoll_create1(EPOLL_CLOEXEC));
    EXPECT_EQ(orv::io::epoll_set_fd_ro(epoll, -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(orv::_get_orverrno(), static_cast<int>(orv::Error::input_output));
    EXPECT_EQ(orv::io::epoll_set_fd(-1, STDIN_FILENO, EPOLLIN), -1);
}

TEST(EpollSet, AddsOnlyWhatIsNotWatchedYet)
{
    const Fd epoll(epoll_create1(EPOLL_CLOEXEC));
    const Ends ends = make_sockets(SOCK_STREAM);
    // This flag can be added but not changed, so the failure is another one than "not watched".
    EXPECT_EQ(orv::io::epoll_set_fd(epoll, ends.first, EPOLLIN | EPOLLEXCLUSIVE), -1);
    EXPECT_EQ(errno, EINVAL);
}

bool expires_within_ms(int timer, int limit)
{
    pollfd watched = {timer, POLLIN, 0};
    return poll(&watched, 1, limit) == 1;
}

TEST(Timer, ExpiresOnceAndThenWithItsPeriod)
{
    const int timer = timer_init(TimerType::monotonic);
    ASSERT_NE(timer, -1);
    EXPECT_EQ(timer_tick(timer), 0U) << "does not block while unarmed";
    ASSERT_EQ(timer_start(timer, 1, 1, false), 0);
    EXPECT_EQ(timer_tick(timer), 0U);
    ASSERT_TRUE(expires_within_ms(timer, 10000));
    EXPECT_GE(timer_tick(timer), 1U);
    EXPECT_EQ(timer_tick(timer), 0U) << "asked already";
    ASSERT_TRUE(expires_within_ms(timer, 10000));
    EXPECT_GE(timer_tick(timer), 1U);
    timer_uninit(timer);
}

itimerspec setting_of(int timer)
{
    itimerspec setting{};
    EXPECT_EQ(timerfd_gettime(timer, &setting), 0);
    return setting;
}

TEST(Timer, TakesItsFirstExpiryAndPeriodInSeconds)
{
    const int timer = timer_init(TimerType::monotonic);
    ASSERT_EQ(timer_start(timer, 5, 300, false), 0);
    EXPECT_EQ(setting_of(timer).it_interval.tv_sec, 300);
    EXPECT_LE(setting_of(timer).it_value.tv_sec, 5);
    EXPECT_GE(setting_of(timer).it_value.tv_sec, 1);
    ASSERT_EQ(timer_start(timer, 0, 300, false), 0);
    EXPECT_EQ(setting_of(timer).it_value.tv_sec, 0) << "disarmed";
    EXPECT_EQ(setting_of(timer).it_value.tv_nsec, 0);
    timer_uninit(timer);
}

TEST(Timer, AbsoluteFirstExpiryIsAPointOfItsClock)
{
    const int timer = timer_init(TimerType::monotonic);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    ASSERT_EQ(timer_start(timer, static_cast<long>(now.tv_sec + 1000), 0, true), 0);
    EXPECT_GT(setting_of(timer).it_value.tv_sec, 900);
    EXPECT_LE(setting_of(timer).it_value.tv_sec, 1000);
    ASSERT_EQ(timer_start(timer, 1, 0, true), 0); // long past
    EXPECT_TRUE(expires_within_ms(timer, 10000));
    timer_uninit(timer);
}

TEST(Timer, NegativeTimesAndWrongDescriptorsAreRefused)
{
    const int timer = timer_init(TimerType::monotonic);
    EXPECT_EQ(timer_start(timer, -1, 0, false), -1);
    EXPECT_EQ(orv::_get_orverrno(), static_cast<int>(orv::Error::invalid_argument));
    EXPECT_EQ(timer_start(timer, 1, -1, false), -1);
    EXPECT_EQ(timer_start(-1, 1, 1, false), -1);
    EXPECT_EQ(orv::_get_orverrno(), static_cast<int>(orv::Error::input_output));
    EXPECT_EQ(timer_tick(-1), 0U);
    EXPECT_EQ(timer_init(static_cast<TimerType>(7)), -1);
    timer_uninit(timer);
    EXPECT_EQ(fcntl(timer, F_GETFD), -1) << "closed";
    timer_uninit(-1);
}

TEST(Timer, IsNotInherited)
{
    const int timer = timer_init(TimerType::monotonic);
    EXPECT_NE(fcntl(timer, F_GETFD) & FD_CLOEXEC, 0);
    timer_uninit(timer);
}

} // namespace
