// The answer's envelope, the same for what is answered at once and what comes over the exchange.

#include "answer.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace orv::brokerd {

namespace {

// The envelope is always the same, so only what is in it goes through the JSON library: this is on the way of
// every answer.
constexpr std::string_view kBegin = R"({"data": )";
constexpr std::string_view kMiddle = R"(, "status": )";
constexpr std::string_view kEnd = "}";

/// The envelope but for the data.
std::size_t envelope_size(const fmt::format_int& status)
{
    return kBegin.size() + kMiddle.size() + status.size() + kEnd.size();
}

/// A text up to a bound; of a longer one, only how long it is.
struct BoundedText {
    static constexpr std::size_t kCapacity = std::size_t{64} * 1024;

    std::array<char, kCapacity> data;
    std::size_t size; ///< of the whole text

    [[nodiscard]] bool is_whole() const { return size <= kCapacity; }
};

/// One for all, since nothing here calls itself; only what was ever used of it takes memory.
BoundedText g_data;

bool append(std::string_view piece, void* /*user*/)
{
    if (g_data.size + piece.size() <= BoundedText::kCapacity)
        std::copy(piece.begin(), piece.end(), g_data.data.begin() + static_cast<std::ptrdiff_t>(g_data.size));
    g_data.size += piece.size();
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

/// Puts in what append() has kept, or, when that is not all of it, writes it once more.
bool put_data(Connection* conn, const json_t* data)
{
    return g_data.is_whole() ? put({g_data.data.data(), g_data.size}, conn)
                             : dump_to(data, JSON_ENCODE_ANY, put, conn);
}

} // namespace

char* build_response(int status, json_t* data)
{
    const JsonPtr owned(data);
    const TextPtr text = dump(data, JSON_ENCODE_ANY);
    if (!text)
        return nullptr;
    const fmt::format_int number(status);
    const std::size_t length = std::strlen(text.get());
    auto* response = static_cast<char*>(std::malloc(envelope_size(number) + length + 1));
    if (!response)
        return nullptr;

    char* end = std::copy(kBegin.begin(), kBegin.end(), response);
    end = std::copy_n(text.get(), length, end);
    end = std::copy(kMiddle.begin(), kMiddle.end(), end);
    end = std::copy_n(number.data(), number.size(), end);
    end = std::copy(kEnd.begin(), kEnd.end(), end);
    *end = '\0';
    return response;
}

Queued queue_response(Connection* conn, int status, json_t* data, int epfd)
{
    const JsonPtr owned(data);
    g_data.size = 0;
    if (!dump_to(data, JSON_ENCODE_ANY, append, /*user=*/nullptr))
        return Queued::nothing;

    const fmt::format_int number(status);
    const auto length = static_cast<std::uint32_t>(envelope_size(number) + g_data.size);
    const std::string_view prefix(reinterpret_cast<const char*>(&length), sizeof length);
    const bool is_taken = put(prefix, conn) && put(kBegin, conn) && put_data(conn, data) &&
                          put(kMiddle, conn) && put({number.data(), number.size()}, conn) && put(kEnd, conn);
    if (!is_taken && conn->tx.pending() != kBufferMaximumSize)
        return Queued::broken;
    watch_for_output(conn, epfd);
    return Queued::whole;
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
