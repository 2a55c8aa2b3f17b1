#pragma once

#include <orvbase/error_number.h>

namespace orv::base {

/// Does some work for a caller who is to see no exception. When there is one, which is for lack of memory, the
/// result is `failure` and the error is input_output; what the work has begun must be undone by its own
/// destructors.
template <typename Result, typename Work>
[[nodiscard]] Result without_throwing(Result failure, const Work& work) noexcept
{
    try {
        return work();
    } catch (...) {
        set_error(Error::input_output);
        return failure;
    }
}

} // namespace orv::base
