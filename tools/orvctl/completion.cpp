// The three scripts do the same. From the words before the cursor they find the level, the sub-commands that
// were given, and count the arguments after them, skipping options and their values. Then they offer that
// level's options to a word that begins with a dash, and its words to the first argument.

#include "completion.h"

#include <algorithm>
#include <functional>

namespace orvctl {
namespace {

/// A text in single quotes, which shells leave as it is.
std::string quoted(const std::string& text, const char* quote = R"('\'')")
{
    std::string out = "'";
    for (const char byte : text)
        out += byte == '\'' ? std::string(quote) : std::string(1, byte);
    return out + "'";
}

std::string joined(const std::vector<std::string>& texts, const std::string& between)
{
    std::string out;
    for (const auto& text : texts)
        out += (out.empty() ? "" : between) + text;
    return out;
}

const Word& word_of(const Word& word)
{
    return word;
}

const Word& word_of(const OptionWord& option)
{
    return option.word;
}

/// One text for each word or option.
template <typename Words, typename TextOf>
std::vector<std::string> texts_of(const Words& words, const TextOf& text_of)
{
    std::vector<std::string> texts;
    texts.reserve(words.size());
    for (const auto& word : words)
        texts.push_back(text_of(word_of(word)));
    return texts;
}

/// The words or options themselves, with `between` between them.
template <typename Words>
std::string listed(const Words& words, const std::string& between)
{
    return joined(texts_of(words, [](const Word& word) { return word.text; }), between);
}

/// The options of all levels that take a value, each once.
std::vector<OptionWord> options_with_values(const std::vector<Level>& levels)
{
    std::vector<OptionWord> found;
    for (const auto& level : levels) {
        for (const auto& option : level.options) {
            const bool is_known = std::any_of(found.begin(), found.end(), [&option](const OptionWord& other) {
                return other.word.text == option.word.text;
            });
            if (option.takes_value && !is_known)
                found.push_back(option);
        }
    }
    return found;
}

/// All levels but the first, as quoted paths.
std::vector<std::string> quoted_paths(const std::vector<Level>& levels)
{
    std::vector<std::string> paths;
    for (const auto& level : levels)
        if (!level.path.empty())
            paths.push_back(quoted(level.path));
    return paths;
}

/// Replaces each @NAME@ of a script's frame.
std::string filled(std::string frame, const std::vector<std::pair<std::string, std::string>>& parts)
{
    for (const auto& [name, text] : parts) {
        const std::string mark = "@" + name + "@";
        for (auto found = frame.find(mark); found != std::string::npos; found = frame.find(mark))
            frame.replace(found, mark.size(), text);
    }
    return frame;
}

/// The branches of a case over levels, one for each whose text is not empty.
std::string branches(const std::vector<Level>& levels,
                     const std::function<std::string(const Level&)>& text_of)
{
    std::string out;
    for (const auto& level : levels) {
        const std::string text = text_of(level);
        if (!text.empty())
            out.append("            ").append(quoted(level.path)).append(") ").append(text).append(" ;;\n");
    }
    return out;
}

/// The branches of a case over the word before the cursor: what follows an option with a value.
std::string value_branches(const std::vector<Level>& levels, const std::string& before,
                           const std::string& after)
{
    std::string out;
    for (const auto& option : options_with_values(levels)) {
        out.append("        ").append(option.word.text).append(") ");
        if (!option.values.empty())
            out.append(before).append(joined(option.values, " ")).append(after).append("; ");
        out.append("return ;;\n");
    }
    return out;
}

constexpr const char* kBash = R"(# Completion of orvctl(1) for bash, made by "orvctl completion bash".
_orvctl()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local level='' arguments=0 words='' word i
    COMPREPLY=()
    # Bash makes words of their own of "--color", "=" and "never".
    if [[ $cur == = ]]; then
        cur=''
    elif [[ $prev == = ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        case $word in
        @VALUED@)
            [[ ${COMP_WORDS[i + 1]} == = ]] && ((++i))
            ((++i))
            ;;
        -*) ;;
        *)
            case "$level $word" in
            @PATHS@)
                if ((arguments == 0)); then level="$level $word"; else ((++arguments)); fi
                ;;
            *) ((++arguments)) ;;
            esac
            ;;
        esac
    done
    case $prev in
@VALUES@    esac
    if [[ $cur == -* ]]; then
        case $level in
@OPTIONS@        esac
    elif ((arguments == 0)); then
        case $level in
@WORDS@        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
}
complete -F _orvctl orvctl
)";

constexpr const char* kZsh = R"(#compdef orvctl
# Completion of orvctl(1) for zsh, made by "orvctl completion zsh".
_orvctl()
{
    local level='' arguments=0 word i
    local -a offers
    for ((i = 2; i < CURRENT; ++i)); do
        word=${words[i]}
        case $word in
        (@VALUED@) ((++i)) ;;
        (-*) ;;
        (*)
            case "$level $word" in
            (@PATHS@)
                if ((arguments == 0)); then level="$level $word"; else ((++arguments)); fi
                ;;
            (*) ((++arguments)) ;;
            esac
            ;;
        esac
    done
    case ${words[CURRENT-1]} in
@VALUES@    esac
    if [[ ${words[CURRENT]} == -* ]]; then
        case $level in
@OPTIONS@        esac
        _describe -o option offers
    elif ((arguments == 0)); then
        case $level in
@WORDS@        esac
        _describe word offers
    fi
}
if [[ ${funcstack[1]} == _orvctl ]]; then
    _orvctl "$@"
else
    compdef _orvctl orvctl
fi
)";

constexpr const char* kFish = R"(# Completion of orvctl(1) for fish, made by "orvctl completion fish".

# Prints the sub-commands before the cursor, a colon, and the number of arguments after them.
function __orvctl_place
    set -l words (commandline -opc)
    set -e words[1]
    set -l level ''
    set -l arguments 0
    set -l skip 0
    for word in $words
        if test $skip = 1
            set skip 0
            continue
        end
        switch $word
            case @VALUED@
                set skip 1
            case '-*'
            case '*'
                if test $arguments = 0; and contains -- "$level $word" @PATHS@
                    set level "$level $word"
                else
                    set arguments (math $arguments + 1)
                end
        end
    end
    echo "$level:$arguments"
end

function __orvctl_first
    test (__orvctl_place) = "$argv[1]:0"
end

function __orvctl_after
    string match -q -- "$argv[1]:*" (__orvctl_place)
end

complete -c orvctl -f
)";

std::string zsh_offer(const Word& word)
{
    return quoted(word.text + ":" + word.summary);
}

template <typename Words>
std::string zsh_offers(const Words& words)
{
    return words.empty() ? "" : "offers=(" + joined(texts_of(words, zsh_offer), " ") + ")";
}

std::string fish_quoted(const std::string& text)
{
    return quoted(text, R"(\')");
}

std::string fish_option(const Level& level, const OptionWord& option)
{
    const std::string& text = option.word.text;
    const bool is_long = text.compare(0, 2, "--") == 0;
    std::string line = "complete -c orvctl -n \"__orvctl_after " + fish_quoted(level.path) + "\"" +
                       (is_long ? " -l " + text.substr(2) : " -s " + text.substr(1));
    if (option.takes_value)
        line += " -x";
    if (!option.values.empty())
        line += " -a " + fish_quoted(joined(option.values, " "));
    return line + " -d " + fish_quoted(option.word.summary) + "\n";
}

} // namespace

std::string bash_completion(const std::vector<Level>& levels)
{
    const auto options = [](const Level& level) { return "words=" + quoted(listed(level.options, " ")); };
    const auto words = [](const Level& level) {
        return level.words.empty() ? "" : "words=" + quoted(listed(level.words, " "));
    };
    return filled(
        kBash, {{"VALUED", listed(options_with_values(levels), " | ")},
                {"PATHS", joined(quoted_paths(levels), " | ")},
                {"VALUES", value_branches(levels, "mapfile -t COMPREPLY < <(compgen -W '", "' -- \"$cur\")")},
                {"OPTIONS", branches(levels, options)},
                {"WORDS", branches(levels, words)}});
}

std::string zsh_completion(const std::vector<Level>& levels)
{
    const auto options = [](const Level& level) { return zsh_offers(level.options); };
    const auto words = [](const Level& level) { return zsh_offers(level.words); };
    return filled(kZsh, {{"VALUED", listed(options_with_values(levels), "|")},
                         {"PATHS", joined(quoted_paths(levels), "|")},
                         {"VALUES", value_branches(levels, "compadd ", "")},
                         {"OPTIONS", branches(levels, options)},
                         {"WORDS", branches(levels, words)}});
}

std::string fish_completion(const std::vector<Level>& levels)
{
    std::string out = filled(kFish, {{"VALUED", listed(options_with_values(levels), " ")},
                                     {"PATHS", joined(quoted_paths(levels), " ")}});
    for (const auto& level : levels) {
        for (const auto& word : level.words) {
            out += "complete -c orvctl -n \"__orvctl_first " + fish_quoted(level.path) + "\" -a " +
                   fish_quoted(word.text) + " -d " + fish_quoted(word.summary) + "\n";
        }
        for (const auto& option : level.options)
            out += fish_option(level, option);
    }
    return out;
}

} // namespace orvctl
