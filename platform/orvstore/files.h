#pragma once

#include <orvstore/file_state.h>

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

/// What the store does with files. Functions that return a number return errno's value, 0 for success.
namespace orv::store {

constexpr mode_t kFileMode = 0600;

/// The state of the file that has this name now.
[[nodiscard]] FileState file_state(const std::string& file);
[[nodiscard]] FileState to_file_state(const struct stat& status);

/// The name of a store's data file, and of the others beside it.
[[nodiscard]] std::string data_file_in(const std::string& directory);
[[nodiscard]] std::string lock_file_in(const std::string& directory);
[[nodiscard]] std::string copy_file_in(const std::string& directory);
[[nodiscard]] std::string new_copy_file_in(const std::string& directory);
[[nodiscard]] std::string new_file_in(const std::string& directory);
[[nodiscard]] std::string damaged_file_in(const std::string& directory);

/// Whether an error says nothing of a file: the system lacks descriptors or memory, and will have them again.
[[nodiscard]] bool is_shortage(int error);

/// Gives the file its blocks, so that a mapping of it can be written to. Existing content stays.
[[nodiscard]] int allocate(int fd, off_t size);

/// Copies a file, and has it on disk before it returns.
[[nodiscard]] int copy_file(const std::string& from, const std::string& to);

/// Gives a file that is on disk another name, durably.
[[nodiscard]] int rename_durably(const std::string& from, const std::string& to,
                                 const std::string& directory);

} // namespace orv::store
