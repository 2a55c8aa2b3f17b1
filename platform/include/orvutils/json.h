#pragma once

#include <orvutils/memory.h>

#include <jansson.h>

#include <memory>

namespace orv {

/// Gives back one reference on a JSON value.
struct JsonDeleter {
    void operator()(json_t* value) const { json_decref(value); }
};

/// One owned reference on a JSON value; null for none.
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

/// A text that a C library allocated with malloc(), json_dumps() for example; null for none.
using TextPtr = std::unique_ptr<char, PtrDeleter<char>>;

/// An object's or array's text on one line, with a blank after each comma and colon; null on failure, and for
/// every other value.
[[nodiscard]] inline TextPtr dump(const json_t* value)
{
    return TextPtr(json_dumps(value, /*flags=*/0));
}

} // namespace orv
