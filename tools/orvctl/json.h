#pragma once

#include <jansson.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace orvctl {

struct ReleaseJson {
    void operator()(json_t* value) const { json_decref(value); }
};

/// An owned reference to a JSON value; null for none.
using Json = std::unique_ptr<json_t, ReleaseJson>;

/// A JSON value as text on one line; empty when there is no memory, or no value.
[[nodiscard]] inline std::string to_text(const json_t* value)
{
    const std::unique_ptr<char, decltype(&std::free)> text(json_dumps(value, JSON_ENCODE_ANY), &std::free);
    return text == nullptr ? std::string() : std::string(text.get());
}

} // namespace orvctl
