#pragma once

#include "options.h"

#include <string>

/// The sub-commands that talk to the daemon. Each returns the exit status.
namespace orvctl {

struct CallOptions {
    std::string name;
    std::string data; ///< JSON, "-" for standard input, empty for none
};

/// Sends one command and prints the envelope of its answer.
[[nodiscard]] int run_call(const CallOptions& call, const Options& options, Output& output);

struct SubscribeOptions {
    std::string event;
    unsigned long count = 0; ///< end after this many, 0 for never
    bool timestamps = false;
};

/// Prints each event as it arrives.
[[nodiscard]] int run_subscribe(const SubscribeOptions& subscribe, const Options& options, Output& output);

} // namespace orvctl
