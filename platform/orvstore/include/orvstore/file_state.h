#pragma once

#include <sys/types.h>

#include <cstdint>

namespace orv::store {

/// Identifies a file behind a path, and its content as far as that shows from outside. All zero for none.
struct FileState {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t modified_s = 0; ///< since 1970; apart, as nanoseconds alone would end in 2262
    std::int64_t modified_ns = 0;

    [[nodiscard]] bool is_same_file(const FileState& other) const
    {
        return device == other.device && inode == other.inode;
    }
    [[nodiscard]] bool is_unchanged(const FileState& other) const
    {
        return is_same_file(other) && size == other.size && modified_s == other.modified_s &&
               modified_ns == other.modified_ns;
    }
};

} // namespace orv::store
