#pragma once

#include <orvstore/environment.h>

#include <cstdint>
#include <memory>

/// The process's one notification descriptor (inotify): readable after any process has committed a change to
/// a watched environment. What has changed is found out by those who listen.
namespace orv::store::notify {

class Listener {
public:
    Listener() = default;
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    virtual ~Listener() = default;

    /// Called after the descriptor was read, whatever made it readable. May add and remove listeners, itself
    /// included.
    virtual void look() = 0;
};

/// The descriptor, -1 when it cannot be had. To be asked for regularly: this looks after the watches too.
[[nodiscard]] int descriptor();

/// Watches an environment, which may be closed for now; counted.
void watch(Environment& environment);
void unwatch(Environment& environment);

/// Adds a listener; they are called in the order in which they were added.
void add(std::shared_ptr<Listener> listener);
void remove(const Listener& listener);

/// Makes the descriptor readable, so that all listeners are called soon.
void wake();

/// Empties the descriptor and calls every listener. Never waits for events. Does nothing when called by a
/// listener. When there is no memory, which is one line, all of it is done again later, if descriptor() is asked
/// for.
void read();

} // namespace orv::store::notify
