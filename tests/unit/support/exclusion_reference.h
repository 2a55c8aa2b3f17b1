#pragma once

#include <string_view>

namespace orv::test {

/// Whether a text is an exclusion pattern, found out in another way than the daemon's: character by character
/// through a table of states, with single characters and ranges kept apart.
bool is_exclusion_pattern(std::string_view text);

} // namespace orv::test
