// A list of objects has no columns of its own: they are the members' names, in the order in which they are
// first met. What is nested in a cell is written without the JSON marks that a list on a screen can do
// without.

#include "answers.h"

#include <orvtools/json.h>

#include <algorithm>

namespace orvctl {
namespace {

bool is_table(const json_t* data)
{
    for (std::size_t i = 0; i < json_array_size(data); ++i)
        if (!json_is_object(json_array_get(data, i)))
            return false;
    return json_array_size(data) > 0;
}

std::vector<std::string> column_names(const json_t* data)
{
    std::vector<std::string> names;
    for (std::size_t i = 0; i < json_array_size(data); ++i) {
        const char* name = nullptr;
        json_t* value = nullptr;
        json_object_foreach(json_array_get(data, i), name, value)
        {
            if (std::find(names.begin(), names.end(), name) == names.end())
                names.emplace_back(name);
        }
    }
    return names;
}

std::string plain(const json_t* value)
{
    return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value))
                                 : orvtools::to_text(value);
}

/// The values of an object, without the empty ones.
std::string values_of(const json_t* object)
{
    std::string text;
    const char* name = nullptr;
    json_t* value = nullptr;
    // The macro wants an object to iterate, which it does not change.
    json_object_foreach(const_cast<json_t*>(object), name, value)
    {
        const std::string part = plain(value);
        text += text.empty() || part.empty() ? part : " " + part;
    }
    return text;
}

std::string cell(const json_t* value)
{
    if (!json_is_array(value))
        return value ? plain(value) : std::string();
    std::string text;
    for (std::size_t i = 0; i < json_array_size(value); ++i) {
        const json_t* element = json_array_get(value, i);
        text += i == 0 ? "" : ", ";
        text += json_is_object(element) ? values_of(element) : plain(element);
    }
    return text;
}

std::string upper(std::string text)
{
    const auto to_upper = [](char byte) {
        return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
    };
    std::transform(text.begin(), text.end(), text.begin(), to_upper);
    return text;
}

void print_table(const json_t* data, Output& output)
{
    const auto names = column_names(data);
    std::vector<std::vector<std::string>> rows;
    for (std::size_t i = 0; i < json_array_size(data); ++i) {
        std::vector<std::string> row;
        row.reserve(names.size());
        for (const auto& name : names)
            row.push_back(cell(json_object_get(json_array_get(data, i), name.c_str())));
        rows.push_back(std::move(row));
    }
    std::vector<std::string> titles;
    std::transform(names.begin(), names.end(), std::back_inserter(titles), upper);
    output.table(titles, rows);
}

} // namespace

void print_answer(const orvbroker::Answer& answer, Output& output)
{
    if (output.is_for_people() && answer.status() == 0) {
        const orv::JsonPtr data = orvtools::parse_json(answer.data());
        if (is_table(data.get())) {
            print_table(data.get(), output);
            return;
        }
    }
    output.json(answer.envelope());
}

} // namespace orvctl
