// A payload is any JSON value, not only an object or a list: what the daemon passes on may be a bare number.

#include "json.h"

namespace orvagentsim {

orv::JsonPtr parse_json(std::string_view text)
{
    return orv::JsonPtr{json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr)};
}

std::string to_text(const json_t* value)
{
    const orv::TextPtr text{json_dumps(value, JSON_ENCODE_ANY)};
    return text ? text.get() : "";
}

const char* string_member(const json_t* object, const char* name)
{
    return json_string_value(json_object_get(object, name));
}

} // namespace orvagentsim
