#pragma once

#include "options.h"

#include <string>
#include <vector>

/// The sub-commands that take part in the message exchange themselves. Each returns the exit status.
namespace orvctl {

struct SendOptions {
    std::string name; ///< of an event, or "participant:request"; without a participant, "orvagent" is meant
    std::string data = "{}"; ///< any bytes, "-" for standard input
};

/// Sends a request and prints its answer's payload. An answer of another type than "0" is a failure.
[[nodiscard]] int run_exchange_request(const SendOptions& send, const Options& options, Output& output);
/// Sends a one-way message; that anyone receives it is not known.
[[nodiscard]] int run_exchange_message(const SendOptions& send, const Options& options);
/// Publishes an event.
[[nodiscard]] int run_exchange_publish(const SendOptions& send, const Options& options);

struct MonitorOptions {
    std::vector<std::string>
        names; ///< show only what has one of these names, or goes to one of these; all when empty
    unsigned long count = 0; ///< end after this many, 0 for never
};

/// Prints what happens on the exchange.
[[nodiscard]] int run_exchange_monitor(const MonitorOptions& monitor, const Options& options, Output& output);

} // namespace orvctl
