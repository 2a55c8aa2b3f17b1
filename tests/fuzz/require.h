#pragma once

namespace orv::fuzz {

/// Ends the program when a rule does not hold, so that the fuzzer sees it.
void require(bool holds, const char* rule);

} // namespace orv::fuzz
