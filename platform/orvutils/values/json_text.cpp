// Writing JSON, byte for byte as the JSON library does. Its own writer keeps a table of the objects and arrays
// around the present one, for fear that one contains itself, which costs several times what writing costs; and
// a key that finds no memory is left out without a word. Here nothing needs memory but what takes the text and
// a number with a fraction, which the library writes.
//
// A value that contains itself is found out by its depth, which is beyond what any text that is parsed leads to.
// Strings hold nothing but UTF-8, and keys no NUL: the library has seen to that when they were made.

#include <orvutils/json.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace orv {

namespace {

constexpr int kMaxDepth = 2 * JSON_PARSER_MAX_DEPTH;

bool must_be_escaped(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
}

/// The short form of a character that must be escaped; empty when there is none.
std::string_view short_escape(char c)
{
    switch (c) {
    case '"':
        return "\\\"";
    case '\\':
        return "\\\\";
    case '\b':
        return "\\b";
    case '\f':
        return "\\f";
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return {};
    }
}

/// Gives a text in pieces. Every function returns whether all that it gave was taken.
class Writer {
public:
    Writer(bool (*take)(std::string_view piece, void* user), void* user) : m_take(take), m_user(user) {}

    /// `depth` is the number of objects and arrays around it.
    bool value(const json_t* value, int depth)
    {
        switch (json_typeof(value)) {
        case JSON_OBJECT: // which is only iterated over
            return object(const_cast<json_t*>(value), depth + 1);
        case JSON_ARRAY:
            return array(value, depth + 1);
        case JSON_STRING:
            return string({json_string_value(value), json_string_length(value)}, "\"");
        case JSON_INTEGER:
            return integer(json_integer_value(value));
        case JSON_REAL:
            return real(value);
        case JSON_TRUE:
            return put("true");
        case JSON_FALSE:
            return put("false");
        case JSON_NULL:
            return put("null");
        }
        return false;
    }

private:
    bool put(std::string_view piece) { return m_take(piece, m_user); }

    bool object(json_t* object, int depth)
    {
        if (depth > kMaxDepth || !put("{"))
            return false;
        bool is_first = true;
        for (void* at = json_object_iter(object); at; at = json_object_iter_next(object, at)) {
            if (!std::exchange(is_first, false) && !put(", "))
                return false;
            if (!string(json_object_iter_key(at), "\": ") || !value(json_object_iter_value(at), depth))
                return false;
        }
        return put("}");
    }

    bool array(const json_t* array, int depth)
    {
        if (depth > kMaxDepth || !put("["))
            return false;
        std::size_t index = 0;
        json_t* element = nullptr;
        json_array_foreach(array, index, element)
        {
            if ((index > 0 && !put(", ")) || !value(element, depth))
                return false;
        }
        return put("]");
    }

    /// A string and what comes behind it, a quotation mark first.
    bool string(std::string_view text, std::string_view end)
    {
        if (!put("\""))
            return false;
        for (;;) {
            const char* special = std::find_if(text.begin(), text.end(), must_be_escaped);
            const auto plain = static_cast<std::size_t>(special - text.begin());
            if (plain > 0 && !put(text.substr(0, plain)))
                return false;
            if (plain == text.size())
                return put(end);
            if (!escape(*special))
                return false;
            text.remove_prefix(plain + 1);
        }
    }

    bool escape(char c)
    {
        if (const std::string_view form = short_escape(c); !form.empty())
            return put(form);
        constexpr char kDigits[] = "0123456789ABCDEF";
        const auto code = static_cast<unsigned char>(c);
        const char form[] = {'\\', 'u', '0', '0', kDigits[code >> 4U], kDigits[code & 0xfU]};
        return put({form, sizeof form});
    }

    bool integer(json_int_t number)
    {
        const fmt::format_int text(number);
        return put({text.data(), text.size()});
    }

    /// How many digits it has is for the library to say.
    bool real(const json_t* number)
    {
        const auto give = [](const char* data, std::size_t size, void* writer) {
            return static_cast<Writer*>(writer)->put({data, size}) ? 0 : -1;
        };
        return json_dump_callback(number, give, this, JSON_ENCODE_ANY) == 0;
    }

    bool (*m_take)(std::string_view piece, void* user);
    void* m_user;
};

constexpr std::size_t kSmallestText = 128; ///< bytes

/// A text that grows by doubling.
struct Text {
    char* data = nullptr;
    std::size_t size = 0;
    std::size_t capacity = 0;
};

bool append(std::string_view piece, void* user)
{
    auto& text = *static_cast<Text*>(user);
    const std::size_t wanted = text.size + piece.size() + 1;
    if (!text.data || wanted > text.capacity) {
        const std::size_t capacity = std::max(2 * text.capacity, std::max(wanted, kSmallestText));
        auto* data =
            static_cast<char*>(std::realloc(text.data, capacity)); // NOLINT(cppcoreguidelines-no-malloc)
        if (!data)
            return false;
        text.data = data;
        text.capacity = capacity;
    }
    std::memcpy(text.data + text.size, piece.data(), piece.size());
    text.size += piece.size();
    text.data[text.size] = '\0';
    return true;
}

} // namespace

bool dump_to(const json_t* value, std::size_t flags, bool (*take)(std::string_view piece, void* user),
             void* user)
{
    const bool is_wanted = (flags & JSON_ENCODE_ANY) != 0 || json_is_object(value) || json_is_array(value);
    return value && is_wanted && Writer(take, user).value(value, /*depth=*/0);
}

TextPtr dump(const json_t* value, std::size_t flags)
{
    Text text;
    const bool is_whole = dump_to(value, flags, append, &text);
    TextPtr owned(text.data);
    return is_whole ? std::move(owned) : nullptr;
}

} // namespace orv
