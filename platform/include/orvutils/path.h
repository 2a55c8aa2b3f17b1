#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

namespace orv {

/// A path in the settings store or in the file system: pieces joined with "/".
/// Doubled slashes collapse; "." and ".." mean nothing special.
class path {
public:
    path() = default;
    path(const char* text);        // NOLINT(google-explicit-constructor): a text is a path
    path(const std::string& text); // NOLINT(google-explicit-constructor)

    /// This path with one more piece (which may itself hold slashes) at its end.
    [[nodiscard]] path operator/(std::string_view piece) const;
    path& operator/=(std::string_view piece);

    [[nodiscard]] const std::string& str() const { return m_text; }
    [[nodiscard]] const char* c_str() const { return m_text.c_str(); }
    operator const std::string&() const { return m_text; } // NOLINT(google-explicit-constructor)

    friend bool operator==(const path& a, const path& b) { return a.m_text == b.m_text; }
    friend bool operator!=(const path& a, const path& b) { return a.m_text != b.m_text; }

private:
    std::string m_text;
};

/// Directories that the platform defines, all below the agent's root directory.
enum class common_path : int {
    firewall = 5, ///< the firewall scripts
    run = 6,      ///< what lives as long as the running agent
};

/// The directory of a common path. Throws std::bad_alloc: half a path would lead somewhere else.
[[nodiscard]] path common_directory(common_path which);

namespace detail {

/// Prints the same, without a slash at its end; without memory the stream fails. A program that uses no
/// streams takes the function above: they would make it larger by some ten kilobytes.
void print_common_path(std::ostream& out, common_path which);

} // namespace detail
} // namespace orv
