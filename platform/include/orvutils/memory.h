#pragma once

#include <cstdlib>

namespace orv {

/// Deleter for texts that a C library allocated with malloc(), for use with std::unique_ptr.
template <typename T>
struct PtrDeleter {
    void operator()(T* pointer) const { std::free(pointer); } // NOLINT(cppcoreguidelines-no-malloc)
};

} // namespace orv
