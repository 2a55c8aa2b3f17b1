#include "json.h"

#include <cstdlib>

namespace orvagentsim {

JsonPtr parse_json(std::string_view text)
{
    return JsonPtr{json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr)};
}

std::string to_text(const json_t* value)
{
    const std::unique_ptr<char, void (*)(void*)> text{json_dumps(value, JSON_ENCODE_ANY), std::free};
    return text ? text.get() : "";
}

const char* string_member(const json_t* object, const char* name)
{
    return json_string_value(json_object_get(object, name));
}

} // namespace orvagentsim
