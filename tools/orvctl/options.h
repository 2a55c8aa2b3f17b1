#pragma once

#include "output.h"

#include <chrono>
#include <optional>

namespace orvctl {

/// The options that every sub-command takes.
struct Options {
    bool json = false;
    Color color = Color::automatic;
    /// Each sub-command has its own default, hence none here.
    std::optional<std::chrono::milliseconds> timeout;
};

} // namespace orvctl
