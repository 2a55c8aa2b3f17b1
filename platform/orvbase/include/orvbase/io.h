#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

/// Reading that signals do not disturb.
namespace orv::base {

/// As read(2), but never interrupted.
[[nodiscard]] ssize_t read_some(int fd, void* data, std::size_t size);

/// Reads exactly so many bytes at a place of a file. False when they are not there.
[[nodiscard]] bool read_fully(int fd, void* data, std::size_t size, std::uint64_t offset);

/// A small file's text, up to `limit` bytes of it; empty also when it cannot be read.
[[nodiscard]] std::string read_text(const std::string& path, std::size_t limit);

} // namespace orv::base
