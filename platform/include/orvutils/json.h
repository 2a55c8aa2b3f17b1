#pragma once

#include <orvutils/memory.h>

#include <jansson.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace orv {

/// Gives back one reference on a JSON value.
struct JsonDeleter {
    void operator()(json_t* value) const { json_decref(value); }
};

/// One owned reference on a JSON value; null for none.
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

/// A text that a C library allocated with malloc(), dump() for example; null for none.
using TextPtr = std::unique_ptr<char, PtrDeleter<char>>;

/// Parses an object or array. Null when the text is none, or memory is short, which `lacks_memory` tells: then
/// nothing is left behind. The value's memory comes in few large pieces, which go back as soon as nothing of
/// the value is left. That of many values that are wanted together should be shared: `beside` is one that was
/// parsed before and is still there; then it goes back as soon as nothing of any of them is left.
[[nodiscard]] JsonPtr parse_json(std::string_view text, bool* lacks_memory = nullptr,
                                 const json_t* beside = nullptr);

/// A value's text on one line, with a blank after each comma and colon; null for null and when memory is
/// short. Without JSON_ENCODE_ANY in `flags`, of objects and arrays only.
[[nodiscard]] TextPtr dump(const json_t* value, std::size_t flags = 0);

/// The same in pieces, to a function that returns whether it goes on. True when all of it was taken.
[[nodiscard]] bool dump_to(const json_t* value, std::size_t flags,
                           bool (*take)(std::string_view piece, void* user), void* user);

} // namespace orv
