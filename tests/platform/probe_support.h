#pragma once

#include "base_support.h"

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

/// Runs the probe daemon with these options and these additions to the environment ("NAME=value").
/// `prepare` runs right before it, in the same process.
Outcome run_probe(const std::vector<std::string>& options, const std::vector<std::string>& environment = {},
                  const std::function<void()>& prepare = nullptr);

/// The probe, running, with its standard output to be read.
struct Running {
    pid_t process = -1;
    Fd out;
};
[[nodiscard]] Running start_probe(const std::vector<std::string>& options,
                                  const std::vector<std::string>& environment = {});
