#include "input.h"

#include <algorithm>

namespace orv::fuzz {

std::uint8_t Input::byte()
{
    return static_cast<std::uint8_t>(number(1));
}

std::uint64_t Input::number(std::size_t size)
{
    std::uint64_t number = 0;
    unsigned shift = 0;
    for (const char byte : bytes(size)) {
        number |= std::uint64_t{static_cast<unsigned char>(byte)} << shift;
        shift += 8;
    }
    return number;
}

std::string_view Input::bytes(std::size_t size)
{
    const std::string_view taken = m_rest.substr(0, size);
    m_rest.remove_prefix(taken.size());
    return taken;
}

std::string_view Input::until(char end)
{
    const std::string_view taken = m_rest.substr(0, m_rest.find(end));
    m_rest.remove_prefix(std::min(taken.size() + 1, m_rest.size()));
    return taken;
}

} // namespace orv::fuzz
