// The answer's envelope, the same for what is answered at once and what comes over the exchange.

#include "answer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace orv::brokerd {

char* build_response(int status, json_t* data)
{
    // The envelope is always the same, so only what is in it goes through the JSON library. This is on the
    // way of every answer.
    static constexpr std::string_view kBegin = R"({"data": )";
    static constexpr std::string_view kMiddle = R"(, "status": )";

    const JsonPtr owned(data);
    const TextPtr text(json_dumps(data, JSON_ENCODE_ANY));
    if (!text)
        return nullptr;
    const std::size_t length = std::strlen(text.get());
    const fmt::format_int number(status);
    auto* response =
        static_cast<char*>(std::malloc(kBegin.size() + length + kMiddle.size() + number.size() + sizeof "}"));
    if (!response)
        return nullptr;

    char* end = std::copy(kBegin.begin(), kBegin.end(), response);
    end = std::copy_n(text.get(), length, end);
    end = std::copy(kMiddle.begin(), kMiddle.end(), end);
    end = std::copy_n(number.data(), number.size(), end);
    std::memcpy(end, "}", sizeof "}");
    return response;
}

JsonPtr parse_payload(const Message* msg)
{
    return JsonPtr(json_loadb(msg->data, msg->datalen, /*flags=*/0, /*error=*/nullptr));
}

json_t* build_error_response(int code, const char* description)
{
    return json_pack("{s:i,s:s}", "code", code, "description", description);
}

} // namespace orv::brokerd
