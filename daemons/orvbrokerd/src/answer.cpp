// The answer's envelope, the same for what is answered at once and what comes over the exchange.

#include "answer.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace orv::brokerd {

namespace {

// The envelope is always the same, so only what is in it goes through the JSON library: this is on the way of
// every answer.
constexpr std::string_view kBegin = R"({"data": )";
constexpr std::string_view kMiddle = R"(, "status": )";
constexpr std::string_view kEnd = "}";

/// A text up to a bound; of a longer one, only how long it is.
struct BoundedText {
    static constexpr std::size_t kCapacity = std::size_t{64} * 1024;

    std::array<char, kCapacity> data;
    std::size_t size; ///< of the whole text

    [[nodiscard]] bool is_whole() const { return size <= kCapacity; }
};

/// One for all, since nothing here calls itself; only what was ever used of it takes memory.
BoundedText g_data;

bool keep(std::string_view piece, void* /*user*/)
{
    if (g_data.size + piece.size() <= BoundedText::kCapacity)
        std::copy(piece.begin(), piece.end(), g_data.data.begin() + static_cast<std::ptrdiff_t>(g_data.size));
    g_data.size += piece.size();
    return true;
}

/// The size of the envelope, 0 when its data have no text. To be asked for before its pieces are.
std::size_t measure(const fmt::format_int& status, const json_t* data)
{
    g_data.size = 0;
    if (!dump_to(data, JSON_ENCODE_ANY, keep, /*user=*/nullptr))
        return 0;
    return kBegin.size() + g_data.size + kMiddle.size() + status.size() + kEnd.size();
}

/// Takes a piece of a text; false ends it.
using Take = bool (*)(std::string_view piece, void* user);

/// The data as they were kept, or, when that is not all of them, written once more.
bool give_data(const json_t* data, Take take, void* user)
{
    return g_data.is_whole() ? take({g_data.data.data(), g_data.size}, user)
                             : dump_to(data, JSON_ENCODE_ANY, take, user);
}

/// Gives the envelope that was measured, piece by piece, as long as they are taken.
void give_envelope(const fmt::format_int& status, const json_t* data, Take take, void* user)
{
    (void)(take(kBegin, user) && give_data(data, take, user) && take(kMiddle, user) &&
           take({status.data(), status.size()}, user) && take(kEnd, user));
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
    const std::size_t size = measure(number, data);
    auto* response = size == 0 ? nullptr : static_cast<char*>(std::malloc(size + 1));
    if (!response)
        return nullptr;
    char* end = response;
    give_envelope(number, data, copy, &end);
    *end = '\0';
    return response;
}

bool queue_response(Connection* conn, int status, json_t* data, int epfd)
{
    const JsonPtr owned(data);
    const fmt::format_int number(status);
    const std::size_t size = measure(number, data);
    if (size == 0)
        return false;
    const auto length = static_cast<std::uint32_t>(size);
    const std::size_t wanted = conn->tx.pending() + sizeof length + size;
    conn->put(&length, sizeof length);
    give_envelope(number, data, put, conn);
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
