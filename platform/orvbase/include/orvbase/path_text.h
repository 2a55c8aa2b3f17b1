#pragma once

#include <string>
#include <string_view>

namespace orv::base {

/// Appends a piece, which may hold slashes itself, to a path, with one slash between. Doubled slashes
/// collapse, and none stays at the end but that of "/" itself.
void append_path(std::string& path, std::string_view piece);

} // namespace orv::base
