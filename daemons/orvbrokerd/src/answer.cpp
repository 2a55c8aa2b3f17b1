// The answer's envelope, the same for what is answered at once and what comes over the exchange.

#include "answer.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string_view>
#include <unordered_map>

namespace orv::brokerd {

namespace {

// The envelope is always the same, so only what is in it is written as JSON: this is on the way of every
// answer.
constexpr std::string_view kBegin = R"({"data": )";
constexpr std::string_view kMiddle = R"(, "status": )";
constexpr std::string_view kEnd = "}";

/// A text up to a bound; of a longer one, only how long it is.
struct BoundedText {
    static constexpr std::size_t kCapacity = std::size_t{64} * 1024;

    std::array<char, kCapacity> data;
    std::uint64_t size; ///< of the whole text

    [[nodiscard]] bool is_whole() const { return size <= kCapacity; }
};

/// As much as a frame's length can tell, and memory that is addressed by 32 bits hold with a NUL.
constexpr std::uint64_t kLongest = UINT32_MAX - 1;

/// The envelope: one for all, since nothing here calls itself; only what was ever used of it takes memory.
BoundedText g_envelope;

bool keep(std::string_view piece, void* /*user*/)
{
    if (g_envelope.size + piece.size() <= BoundedText::kCapacity)
        std::copy(piece.begin(), piece.end(),
                  g_envelope.data.begin() + static_cast<std::ptrdiff_t>(g_envelope.size));
    g_envelope.size += piece.size();
    return true;
}

bool keep_text(const json_t* data)
{
    return dump_to(data, JSON_ENCODE_ANY, keep, /*user=*/nullptr);
}

bool is_shared(const json_t* value)
{
    return json_is_object(value) && value->refcount > 1;
}

/// Whether a list may hold the same object again and again.
bool is_repetitive(const json_t* data)
{
    std::size_t index = 0;
    json_t* element = nullptr;
    json_array_foreach(data, index, element)
    {
        if (is_shared(element))
            return true;
    }
    return false;
}

/// Keeps a list's text. A line can ask for one device a million times, which takes many seconds to write: so
/// once it is known that the text is too long to be kept, each object is only written the first time.
bool keep_list(const json_t* list)
try {
    std::unordered_map<const json_t*, std::uint64_t> sizes;
    const auto keep_element = [&](const json_t* element) {
        if (g_envelope.is_whole() || !is_shared(element))
            return keep_text(element);
        const auto [known, is_new] = sizes.emplace(element, 0);
        const std::uint64_t before = g_envelope.size;
        if (is_new && !keep_text(element))
            return false;
        if (is_new)
            known->second = g_envelope.size - before;
        else
            g_envelope.size += known->second;
        return true;
    };
    std::size_t index = 0;
    json_t* element = nullptr;
    keep("[", /*user=*/nullptr);
    json_array_foreach(list, index, element)
    {
        if (index > 0)
            keep(", ", /*user=*/nullptr);
        if (!keep_element(element))
            return false;
    }
    return keep("]", /*user=*/nullptr);
} catch (const std::bad_alloc&) {
    return false;
}

bool keep_data(const json_t* data)
{
    return is_repetitive(data) ? keep_list(data) : keep_text(data);
}

/// Keeps the envelope, as much as there is room for. Its size, 0 when its data have no text or it is too long.
std::size_t keep_envelope(const fmt::format_int& status, const json_t* data)
{
    g_envelope.size = 0;
    const bool is_whole =
        keep(kBegin, /*user=*/nullptr) && keep_data(data) && keep(kMiddle, /*user=*/nullptr) &&
        keep({status.data(), status.size()}, /*user=*/nullptr) && keep(kEnd, /*user=*/nullptr);
    return is_whole && g_envelope.size <= kLongest ? static_cast<std::size_t>(g_envelope.size) : 0;
}

/// Takes a piece of a text; false ends it.
using Take = bool (*)(std::string_view piece, void* user);

/// Gives the envelope as it was kept or, when that is not all of it, written once more, piece by piece, as long
/// as they are taken. True when all were.
bool give_envelope(const fmt::format_int& status, const json_t* data, Take take, void* user)
{
    if (g_envelope.is_whole())
        return take({g_envelope.data.data(), static_cast<std::size_t>(g_envelope.size)}, user);
    return take(kBegin, user) && dump_to(data, JSON_ENCODE_ANY, take, user) && take(kMiddle, user) &&
           take({status.data(), status.size()}, user) && take(kEnd, user);
}

bool copy(std::string_view piece, void* user)
{
    char*& end = *static_cast<char**>(user);
    end = std::copy(piece.begin(), piece.end(), end);
    return true;
}

/// False when the send buffer did not take all of it: there is no use in going on.
bool put(std::string_view piece, void* user)
{
    auto* conn = static_cast<Connection*>(user);
    const unsigned before = conn->tx.pending();
    conn->put(piece.data(), static_cast<unsigned>(piece.size()));
    return conn->tx.pending() - before == piece.size();
}

} // namespace

char* build_response(int status, json_t* data)
{
    const JsonPtr owned(data);
    const fmt::format_int number(status);
    const std::size_t size = keep_envelope(number, data);
    TextPtr response(size == 0 ? nullptr : static_cast<char*>(std::malloc(size + 1)));
    char* end = response.get();
    if (!response || !give_envelope(number, data, copy, &end))
        return nullptr;
    *end = '\0';
    return response.release();
}

bool queue_response(Connection* conn, int status, json_t* data, int epfd)
{
    const JsonPtr owned(data);
    const fmt::format_int number(status);
    const std::size_t size = keep_envelope(number, data);
    if (size == 0)
        return false;
    const auto length = static_cast<std::uint32_t>(size);
    const std::uint64_t wanted = std::uint64_t{conn->tx.pending()} + sizeof length + size;
    conn->put(&length, sizeof length);
    (void)give_envelope(number, data, put, conn); // what is missing is seen by its size
    end_if_cut(conn, wanted);
    watch_for_output(conn, epfd);
    return true;
}

JsonPtr parse_payload(const Message* msg)
{
    return parse_json({msg->data, msg->datalen});
}

json_t* build_error_response(int code, const char* description)
{
    return json_pack("{s:i,s:s}", "code", code, "description", description);
}

} // namespace orv::brokerd
