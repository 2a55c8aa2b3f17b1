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

/// What becomes of a synced store whose data file is damaged, when it is opened and nobody else has it open.
enum class WhenDamaged {
    refuse,    ///< it cannot be opened
    set_aside, ///< the file gets another name, and the store is created anew: for what others can fill again
    restore,   ///< the last copy of the file, which is renewed now and then, takes its place
};

/// What a store is like.
struct Layout {
    const char* directory; ///< relative to the agent's root
    std::vector<const char*> trees;
    /// Bytes that the data file can grow to. A sixteenth is kept back for removing, which may even exceed it.
    std::size_t map_size;
    /// A commit is on disk when it returns. A store that is not synced does not outlive a restart of the
    /// machine: it is created anew when it is damaged or of an earlier boot, and nobody has it open.
    bool synced;
    Report report = nullptr; ///< null: nobody listens
    /// How long writing and opening wait for other processes; reading never does. Unless it is set, a second less what
    /// there is to do beside the waiting.
    std::chrono::milliseconds patience = std::chrono::milliseconds{900};
    WhenDamaged when_damaged = WhenDamaged::refuse;
    /// A copy is renewed when nothing was written for so long ...
    std::chrono::milliseconds copy_after = std::chrono::minutes{1};
    /// ... and the last one is so old; at ten times this age, or without one, without that pause, too.
    std::chrono::milliseconds copy_interval = std::chrono::hours{1};
    /// Whether this process renews it; null: it does.
    bool (*renews_copy)() = nullptr;
};

} // namespace orv::store
