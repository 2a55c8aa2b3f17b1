#pragma once

#include <cstdint>

namespace orv::store {

/// What knows LMDB's data format: it is not part of its interface.
///
/// What an LMDB data file looks like from outside.
enum class StoreState {
    empty,      ///< no byte in it: a new store
    unfinished, ///< its very creation was interrupted; nothing has ever been stored in it
    sound,
    damaged,
    foreign,    ///< whole perhaps, but of another kind of machine or another version of the format
    unreadable, ///< the kernel lacks what it takes to read it: errno tells, and nothing is known of it
};

struct StoreVerdict {
    StoreState state;
    const char* reason; ///< why it cannot be used, for the log; else empty
};

/// Examines a data file before LMDB maps it. LMDB trusts every offset and page number that it finds and would
/// run out of the map on a damaged one. Only structure is examined, there are no checksums in the format.
/// Other processes may go on writing meanwhile.
[[nodiscard]] StoreVerdict check_store_file(int fd);

/// Why a data file is another kind of program's: "it was written by a 32-bit program ..."; empty when it is
/// not.
[[nodiscard]] const char* foreign_origin(int fd);

/// The number of the last commit to a data file; 0 when it is none, or a new one.
[[nodiscard]] std::uint64_t last_commit_in(int fd);

/// Gives a sound data file that nobody has open another number of its last commit, which must not be lower
/// than the one that it has. False when that fails.
[[nodiscard]] bool set_last_commit(int fd, std::uint64_t number);

} // namespace orv::store
