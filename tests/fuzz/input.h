#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orv::fuzz {

/// An input, from which pieces are taken off the front. At its end there is nothing but zeros and empty
/// texts.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}
    explicit Input(std::string_view text) : m_rest(text) {}

    [[nodiscard]] bool is_empty() const { return m_rest.empty(); }
    [[nodiscard]] std::uint8_t byte();
    /// A number of `size` bytes, the lowest first.
    [[nodiscard]] std::uint64_t number(std::size_t size);
    [[nodiscard]] std::string_view bytes(std::size_t size);
    /// Up to this character, which is taken off, too, or all that is left.
    [[nodiscard]] std::string_view until(char end);
    [[nodiscard]] std::string_view line() { return until('\n'); }
    [[nodiscard]] std::string_view rest() { return bytes(m_rest.size()); }

private:
    std::string_view m_rest;
};

} // namespace orv::fuzz
