#pragma once

#include <orvutils/json.h>

#include <string>
#include <string_view>

namespace orvagentsim {

/// Any JSON value; null when the text is none.
[[nodiscard]] orv::JsonPtr parse_json(std::string_view text);

/// A value's text in one line, empty on failure.
[[nodiscard]] std::string to_text(const json_t* value);

/// A member that is a string; null when there is none. It lives as long as the object.
[[nodiscard]] const char* string_member(const json_t* object, const char* name);

} // namespace orvagentsim
