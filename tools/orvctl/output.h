#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvctl {

enum class Color { automatic, always, never };

/// Standard output: JSON indented and tables aligned for a terminal, one JSON text per line for a pipe. The
/// first failure to write ends all output; a reader that has gone away is no failure.
class Output {
public:
    Output(bool json, Color color);

    /// Whether a person reads this: a terminal, and no --json.
    [[nodiscard]] bool is_for_people() const { return m_for_people; }
    [[nodiscard]] bool is_json_wanted() const { return m_json; }

    /// Writes a text as it is.
    void text(std::string_view text);
    /// The same, and a line feed.
    void line(std::string_view text);
    /// Writes a JSON text: indented for people, otherwise on one line, and exactly these bytes if it is on
    /// one already. What is not JSON becomes a JSON string.
    void json(std::string_view text);
    /// Writes rows in aligned columns below their titles. What is in the rows cannot steer a terminal.
    void table(const std::vector<std::string>& titles, std::vector<std::vector<std::string>> rows);
    /// The text in bold face where colours are wanted.
    [[nodiscard]] std::string emphasized(std::string_view text) const;

    /// Whether more can be written: the reader is there, nothing has failed.
    [[nodiscard]] bool is_open() const { return m_open; }
    /// The exit status, once all is written: that of the work done, unless writing failed.
    [[nodiscard]] int finish(int status) const;

    /// To watch for POLLERR: what is written to has no reader any more.
    [[nodiscard]] static int fd();

private:
    bool m_json;
    bool m_for_people;
    bool m_colors;
    bool m_open = true;
    bool m_failed = false;
};

/// Writes "orvctl: <text>" to standard error, on one line whatever the text has come from.
void complain(std::string_view text);

} // namespace orvctl
