#pragma once

#include <orvbase/clock.h>
#include <orvbase/descriptor.h>

#include <optional>

namespace orv::exchange {

using base::Clock;
using base::TimePoint;

/// A descriptor that becomes readable at a point in time. It is only ever moved to an earlier point: a
/// deadline that has become void costs one wake-up that finds nothing to do, and in exchange a steady flow of
/// requests and answers does not set the timer at all.
class Alarm {
public:
    /// False when the system has no more descriptors.
    [[nodiscard]] bool open();
    [[nodiscard]] int fd() const { return m_timer.get(); }

    /// Rings at `when`, or earlier when it is set so.
    void ring_by(TimePoint when);
    void ring_now() { ring_by(TimePoint{}); }
    /// Takes notice of the ringing; the alarm is off then.
    void acknowledge();

private:
    base::Descriptor m_timer;
    std::optional<TimePoint> m_set_to;
};

} // namespace orv::exchange
