// One life of the daemon takes all the turns: whatever a fault has left behind is there in the next one. A
// turn goes on whenever the daemon waits and nothing is ready.

#include "faults.h"

#include "evhandler.h"
#include "orvbrokerd.h"
#include "orvex.h"
#include "state.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

namespace orv::test {

using fake::Fake;

namespace {

constexpr std::array kMemory{"JSON", "malloc", "realloc", "new", "strdup", "throwing new", "watch"};
/// Between the requests that there are.
constexpr std::array<std::size_t, 14> kSizes{4, 8, 16, 24, 32, 48, 64, 96, 128, 256, 512, 1024, 4096, 16384};
/// Every kind, each reach of it.
constexpr std::size_t kKinds = 2 * (1 + kMemory.size()) + 1;
/// Waits with something ready after which what fails does so no more: it may be what the daemon tries again.
constexpr int kPatience = 64;

Fault fault_of(std::size_t kind)
{
    if (kind == 0)
        return {"size"};
    const std::size_t which = (kind - 1) / 2;
    return {which == 0 ? "call" : kMemory.at(which - 1), 1, (kind - 1) % 2 == 1};
}

/// The place of a fault's kind and reach among them.
std::size_t place_of(const Fault& fault)
{
    for (std::size_t kind = 0; kind < kKinds; ++kind)
        if (fault_of(kind).kind == fault.kind && fault_of(kind).onwards == fault.onwards)
            return kind;
    return kKinds;
}

/// Whether there may be more of its kind.
bool choose_next_of_kind(Fault& fault, bool has_failed)
{
    if (fault.kind == "none")
        return false;
    if (fault.kind != "size") {
        ++fault.n;
        return has_failed;
    }
    const auto* const next = std::upper_bound(kSizes.begin(), kSizes.end(), fault.n);
    fault.n = next == kSizes.end() ? fault.n : *next;
    return next != kSizes.end();
}

} // namespace

bool choose_next(Fault& fault, bool has_failed, const std::set<std::string>& kinds)
{
    if (choose_next_of_kind(fault, has_failed))
        return true;
    for (std::size_t kind = fault.kind == "none" ? 0 : place_of(fault) + 1; kind < kKinds; ++kind) {
        fault = fault_of(kind);
        if (kinds.empty() || kinds.count(fault.kind) != 0)
            return true;
    }
    return false;
}

void arm(Fake& platform, const Fault& fault)
{
    if (fault.kind == "size")
        platform.fail_memory_above(fault.n);
    else if (fault.kind == "call")
        platform.fail_nth(platform.fallible_calls() + fault.n, fault.onwards);
    else if (fault.kind != "none")
        platform.fail_memory(fault.kind, static_cast<unsigned>(fault.n), fault.onwards);
}

void disarm(Fake& platform)
{
    platform.fail_memory_above(std::numeric_limits<std::size_t>::max());
    platform.fail_nth(0);
    for (const char* kind : kMemory)
        platform.fail_memory(kind, 0);
}

std::string Fault::text() const
{
    if (kind == "none")
        return "nothing fails";
    if (kind == "size")
        return "requests for more than " + std::to_string(n) + " bytes fail";
    return kind + " " + std::to_string(n) + (onwards ? " and all later ones fail" : " fails");
}

void FaultTest::survive(const std::vector<Play>& plays)
{
    m_plays = plays;
    m_play = 0;
    m_fault = {"none"};
    platform->on_idle([this] { return go_on(); }, kPatience, [this] { disarm_fault(); });
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(m_play, m_plays.size()) << "the daemon ended in the middle";
}

bool FaultTest::has_failed_call(const std::string& begin) const
{
    return std::any_of(m_failed_calls.begin(), m_failed_calls.end(),
                       [&](const std::string& call) { return call.rfind(begin, 0) == 0; });
}

void FaultTest::answer_all(const std::string& data, const std::string& type)
{
    for (std::size_t n = platform->requests.size(); n != 0; --n)
        platform->answer(data, type);
}

bool FaultTest::go_on()
{
    if (m_todo.empty()) {
        if (m_serial != 0 && !choose_fault())
            return false;
        begin_turn();
    }
    const Play::Step step = std::move(m_todo.front());
    m_todo.pop_front();
    const testing::ScopedTrace trace(__FILE__, __LINE__,
                                     m_plays[m_play].title + ": " + m_fault.text() + " " +
                                         testing::PrintToString(m_failed_calls));
    step();
    return !testing::Test::HasFatalFailure();
}

/// False when there is none any more.
bool FaultTest::choose_fault()
{
    if (choose_next(m_fault, m_has_failed, m_plays[m_play].kinds))
        return true;
    m_fault = {"none"};
    return ++m_play < m_plays.size();
}

void FaultTest::begin_turn()
{
    ++m_serial;
    const Play& play = m_plays[m_play];
    m_todo.assign(play.before.begin(), play.before.end());
    for (std::size_t i = 0; i < play.steps.size(); ++i)
        m_todo.emplace_back([this, i] {
            if (i == 0)
                arm_fault();
            m_plays[m_play].steps[i]();
        });
    m_todo.emplace_back([this] { disarm_fault(); });
    m_todo.insert(m_todo.end(), play.after.begin(), play.after.end());
    m_todo.emplace_back([this] { m_probe.connect(); });
    m_todo.emplace_back([this] { m_probe.send(command("get_services_status") + "\n"); });
    m_todo.emplace_back([this] {
        const auto frame = m_probe.frame();
        EXPECT_TRUE(frame && frame->find(R"("status": 0})") != std::string::npos)
            << frame.value_or("no answer");
        m_probe.close();
    });
    m_todo.emplace_back([this] { end_turn(); });
    m_has_failed = false;
    platform->take_logs();
    platform->take_calls();
}

void FaultTest::arm_fault()
{
    m_is_armed = true;
    m_failed_before = platform->failed();
    platform->take_logs();
    platform->take_failed();
    arm(*platform, m_fault);
}

void FaultTest::disarm_fault()
{
    if (!std::exchange(m_is_armed, false))
        return;
    m_has_failed = platform->failed() != m_failed_before;
    disarm(*platform);
    m_logs = platform->take_logs();
    m_failed_calls = platform->take_failed();
}

void FaultTest::end_turn()
{
    EXPECT_TRUE(brokerd::g_connections.empty());
    EXPECT_TRUE(brokerd::g_client_subscriptions.empty());
    EXPECT_TRUE(brokerd::g_exchange_subscriptions.empty());
    EXPECT_TRUE(platform->requests.empty());
    EXPECT_FALSE(platform->open_batch);
    for (const auto& [key, count] : platform->locked)
        EXPECT_EQ(kept_locks.count(key), 1U) << key << " stays locked " << count << " times";
    platform->locked.clear();
    const auto descriptors = open_descriptors();
    if (m_descriptors.empty())
        m_descriptors = descriptors;
    EXPECT_EQ(descriptors, m_descriptors);
}

} // namespace orv::test
