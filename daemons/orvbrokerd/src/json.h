#pragma once

#include <orvutils/memory.h>

#include <jansson.h>

#include <memory>

namespace orv::brokerd {

struct JsonDeleter {
    void operator()(json_t* value) const { json_decref(value); }
};

/// One owned reference on a JSON value.
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

/// A text that jansson allocated, for example by json_dumps().
using TextPtr = std::unique_ptr<char, PtrDeleter<char>>;

/// Puts `value` (a new reference) where a handler leaves its response, dropping what was there.
inline void set_response(json_t*& response, JsonPtr value)
{
    json_decref(response);
    response = value.release();
}

} // namespace orv::brokerd
