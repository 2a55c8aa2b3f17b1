#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace orv::store {

/// How much it matters, with the numbers of the log's levels.
enum class Severity : int {
    error = 0,
    warning = 1,
    info = 2,
};

/// Takes what a store has to tell of itself, a line each, for the log of whoever owns it.
using Report = void (*)(Severity severity, const std::string& text);

/// What a store is like.
struct Layout {
    const char* directory; ///< relative to the agent's root
    std::vector<const char*> trees;
    /// Bytes that the data file can grow to. A sixteenth is kept back for removing, which may even exceed it.
    std::size_t map_size;
    /// A commit is on disk when it returns. A store that is not synced need not outlive a crash of the
    /// system: when it is damaged, and nobody has it open, it is created anew.
    bool synced;
    Report report = nullptr; ///< null: nobody listens
    /// How long writing and opening wait for other processes; reading never does.
    std::chrono::milliseconds patience = std::chrono::seconds{1};
};

} // namespace orv::store
