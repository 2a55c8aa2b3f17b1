#pragma once

#include <orvutils/path.h>

#include <optional>

namespace orv::locking {

enum class flags : int {
    none = 0,
    create = 1, ///< the file is created when it is not there
};

enum class type : int {
    shared = 0,
    exclusive = 1,
};

enum class result : int {
    failed = 0, ///< the lock could not be asked for
    busy = 1,   ///< somebody else holds it
    locked = 2,
};

/// A lock on a file, against other processes. Closing the lock's descriptor releases it, so it ends with its
/// owner at the latest; other descriptors of the same file in this process do not touch it.
class plock {
public:
    plock() = default;
    plock(const plock&) = delete;
    plock& operator=(const plock&) = delete;
    plock(plock&& other) noexcept;
    plock& operator=(plock&& other) noexcept;
    ~plock();

    /// Opens the file for locking; empty when it cannot be opened.
    static std::optional<plock> make(const path& file, flags how);

    /// Takes the lock without waiting.
    [[nodiscard]] result lock(type which);

private:
    explicit plock(int fd) : m_fd(fd) {}

    int m_fd = -1;
};

} // namespace orv::locking
