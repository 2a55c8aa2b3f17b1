#pragma once

#include <jansson.h>

#include <cstdint>
#include <string>
#include <utility>

/// What participants are asked, and what they answer.
namespace orvagentsim {

/// A request or a one-way message that has arrived.
struct Call {
    std::uint64_t id;   ///< to answer it by; 0: no answer is wanted
    const json_t* data; ///< null when the payload is no JSON
};

/// The answer to a request.
struct Reply {
    bool is_refusal;
    std::string data; ///< of a refusal: the error's text
};

[[nodiscard]] inline Reply success(std::string data)
{
    return {/*is_refusal=*/false, std::move(data)};
}

[[nodiscard]] inline Reply refusal(std::string text)
{
    return {/*is_refusal=*/true, std::move(text)};
}

} // namespace orvagentsim
