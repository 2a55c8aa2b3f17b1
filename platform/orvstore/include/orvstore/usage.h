#pragma once

#include <cstdint>

namespace orv::store {

/// How full a store is, in bytes.
struct Usage {
    std::uint64_t used = 0;  ///< in pages that hold something
    std::uint64_t limit = 0; ///< of that: what adds beyond it is refused
    std::uint64_t file = 0;  ///< the size of the data file, free pages included
};

} // namespace orv::store
