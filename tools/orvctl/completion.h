#pragma once

#include <string>
#include <vector>

/// Completion scripts for shells.
namespace orvctl {

struct Word {
    std::string text;
    std::string summary; ///< one line
};

struct OptionWord {
    Word word; ///< with its dashes
    bool takes_value = false;
    std::vector<std::string> values; ///< what can follow, where that is known
};

/// What can be typed at one place of the command line: after "orvctl", after "orvctl settings", ...
struct Level {
    std::string path; ///< the sub-commands up to here, with a blank before each: " settings get"
    std::vector<OptionWord> options;
    std::vector<Word> words; ///< sub-commands, or what the first argument can be
};

[[nodiscard]] std::string bash_completion(const std::vector<Level>& levels);
[[nodiscard]] std::string zsh_completion(const std::vector<Level>& levels);
[[nodiscard]] std::string fish_completion(const std::vector<Level>& levels);

} // namespace orvctl
