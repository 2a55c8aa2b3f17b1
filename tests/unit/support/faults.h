#pragma once

#include "client.h"
#include "fixture.h"

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace orv::test {

/// Something that fails while a play is on: the n-th of a kind, with all later ones if `onwards`. The kind is
/// "call" (of the platform or the system), one of fake::Fake::fail_memory(), or "size": then all requests for
/// more memory than n bytes get none.
struct Fault {
    std::string kind;
    std::size_t n = 0;
    bool onwards = false;

    [[nodiscard]] bool is_memory() const { return kind != "call" && kind != "none"; }
    [[nodiscard]] std::string text() const;
};

/// Makes the fault the one after it; false when that was the last. Begins with {"none"}; of each kind there
/// are as many as have failed something. `kinds`: only these, all without any.
[[nodiscard]] bool choose_next(Fault& fault, bool has_failed, const std::set<std::string>& kinds = {});
/// From now on this fails, nothing else does.
void arm(fake::Fake& platform, const Fault& fault);
void disarm(fake::Fake& platform);

/// What the daemon is made to do, again and again, each time with something else failing.
struct Play {
    using Step = std::function<void()>;

    std::string title;
    std::set<std::string> kinds = {}; ///< of what fails; all without any
    /// Done in turn, each when the daemon has nothing to do any more, with nothing failing.
    std::vector<Step> before;
    /// The same; from the first one on things fail.
    std::vector<Step> steps;
    /// The same, with nothing failing any more: what has come of it, and what becomes of service.
    std::vector<Step> after;
};

/// A daemon that lives through all the faults that can befall a play, one after the other.
class FaultTest : public PlatformTest {
protected:
    /// First without a fault, then with each call and each request for memory failing, once and from there
    /// on, and with large requests failing. At the end of each a client is served, no lock is held but those
    /// of `kept_locks`, the daemon's tables name nobody, and as many descriptors are open as before.
    void survive(const std::vector<Play>& plays);

    /// What fails in this turn.
    [[nodiscard]] const Fault& fault() const { return m_fault; }
    /// Whether it has failed.
    [[nodiscard]] bool has_failed() const { return m_has_failed; }
    /// The calls that have failed.
    [[nodiscard]] const fake::Calls& failed_calls() const { return m_failed_calls; }
    /// Whether one of them begins like that.
    [[nodiscard]] bool has_failed_call(const std::string& begin) const;
    /// The lines of the play's steps.
    [[nodiscard]] const fake::Logs& logs() const { return m_logs; }
    /// A number that no other turn has.
    [[nodiscard]] unsigned serial() const { return m_serial; }

    /// Has the exchange answer all that it was asked.
    void answer_all(const std::string& data, const std::string& type = "0");

    std::set<std::string> kept_locks;

private:
    bool go_on();
    void begin_turn();
    void arm_fault();
    void disarm_fault();
    void end_turn();
    bool choose_fault();

    std::deque<Play::Step> m_todo;
    std::vector<Play> m_plays;
    std::size_t m_play = 0;
    Fault m_fault;
    bool m_has_failed = false;
    bool m_is_armed = false;
    unsigned m_serial = 0;
    fake::Logs m_logs;
    fake::Calls m_failed_calls;
    std::size_t m_failed_before = 0;
    Client m_probe;
    std::set<int> m_descriptors;
};

} // namespace orv::test
