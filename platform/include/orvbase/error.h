#pragma once

namespace orv {

/// Error numbers of the platform libraries, as orv::_get_orverrno() reports them.
enum class Error : int {
    none = 0,
    invalid_argument = 1,
    input_output = 2,
    timed_out = 3,
    no_such_key = 4,
    no_value = 5, ///< the key has children but no value of its own
};

} // namespace orv
