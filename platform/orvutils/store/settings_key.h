#pragma once

#include <orvutils/setmgmt.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace orv::detail {

/// A key as the store has it: the pieces of its path with a NUL between them, nothing for the root. A NUL
/// sorts before every other byte, so a node's descendants follow it directly and "a-b" does not come between
/// "a" and "a/b".
class SettingsKey {
public:
    /// Takes a key's text apart. False for a text that names no key: empty, too long, with a NUL in it.
    [[nodiscard]] bool parse(std::string_view text);

    [[nodiscard]] std::string_view bytes() const { return {m_bytes.data(), m_size}; }
    /// What the bytes of all its descendants begin with.
    [[nodiscard]] std::string_view prefix() const { return {m_bytes.data(), m_size == 0 ? 0 : m_size + 1}; }
    [[nodiscard]] bool is_root() const { return m_size == 0; }
    /// Whether it is "/tmp" or below.
    [[nodiscard]] bool is_volatile() const;

private:
    std::size_t m_size = 0;
    /// With a NUL after the bytes. Uninitialised beyond: this is made on every look-up.
    std::array<char, setMgmt::kMaxKeySize + 1> m_bytes; // NOLINT(cppcoreguidelines-pro-type-member-init)
};

} // namespace orv::detail
