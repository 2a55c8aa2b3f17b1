#pragma once

#include <orvutils/json.h>

#include <string>
#include <string_view>

/// What the tools do with JSON beside the library's own functions.
namespace orvtools {

/// The JSON value of a text; null when the text is none, with the reason in `error` unless that is null. By
/// default any value will do, not only an object or a list; `flags` are those of json_loadb().
[[nodiscard]] inline orv::JsonPtr parse_json(std::string_view text, std::size_t flags = JSON_DECODE_ANY,
                                             json_error_t* error = nullptr)
{
    return orv::JsonPtr{json_loadb(text.data(), text.size(), flags, error)};
}

/// A value's text, on one line unless `flags`, those of json_dumps(), say otherwise. Empty when there is no
/// memory, or no value.
[[nodiscard]] inline std::string to_text(const json_t* value, std::size_t flags = 0)
{
    const orv::TextPtr text{json_dumps(value, flags | JSON_ENCODE_ANY)};
    return text ? text.get() : "";
}

/// A member that is a text; null when there is none. It lives as long as the object.
[[nodiscard]] inline const char* string_member(const json_t* object, const char* name)
{
    return json_string_value(json_object_get(object, name));
}

} // namespace orvtools
