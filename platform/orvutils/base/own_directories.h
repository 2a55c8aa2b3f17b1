#pragma once

namespace orv {

/// Makes sure that nobody else can reach into the directories that the agent keeps below its root (run, tmp,
/// var), as far as they are there. One that belongs to another user than root or this process's own, or that
/// others can write to, is told in a line: false. One of our own that others could read is closed to them.
[[nodiscard]] bool own_directories();

} // namespace orv
