#pragma once

#include <cstdint>

namespace orv::store {

/// What an LMDB data file looks like from outside.
enum class StoreState {
    empty,      ///< no byte in it: a new store
    unfinished, ///< its very creation was interrupted; nothing has ever been stored in it
    sound,
    damaged,
};

struct StoreVerdict {
    StoreState state;
    const char* reason; ///< of damage, for the log; else empty
};

/// Examines a data file before LMDB maps it. LMDB trusts every offset and page number that it finds and would
/// run out of the map on a damaged one. Only structure is examined, there are no checksums in the format.
/// Other processes may go on writing meanwhile.
[[nodiscard]] StoreVerdict check_store_file(int fd);

} // namespace orv::store
