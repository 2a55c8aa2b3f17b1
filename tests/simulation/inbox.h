#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace orv::simulation {

/// A frame that a client has to receive.
struct Expected {
    std::string what; ///< for whoever reads why it was not there
    std::function<bool(const std::string& frame)> fits;
    std::function<bool(const std::string& frame)>
        fits_roughly;       ///< when it was made without all that it takes
    unsigned pass = 0;      ///< of the daemon's loop, in which it was made
    bool is_certain = true; ///< false: may be left out, or fit only roughly
};

/// All that one client has to receive, in its order, and how far what it has received agrees. Where frames
/// may have been left out there can be several ways to read what has come; it remembers all.
class Inbox {
public:
    void expect(Expected frame) { m_expected.push_back(std::move(frame)); }
    /// What was expected in that pass may be left out, or fit only roughly.
    void excuse(unsigned pass);
    /// False when the frame is none that could come now.
    [[nodiscard]] bool receive(const std::string& frame);
    /// What is missing: the first frame that has to be there, or nothing.
    [[nodiscard]] std::optional<std::string> missing() const;

private:
    std::vector<Expected> m_expected;
    std::vector<std::size_t> m_places{0}; ///< ways to read it: how many of the expected frames are behind it
};

} // namespace orv::simulation
