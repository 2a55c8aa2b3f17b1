#pragma once

#include <functional>
#include <string>
#include <vector>

namespace uwire {

/// The command line of a benchmark program: which options there are, and where their values go. Whatever is
/// wrong with it ends the program with a line that says so.
class Options {
public:
    /// The program's usage in one line, told when something is wrong.
    explicit Options(const char* usage) : m_usage(usage) {}

    Options& flag(const char* name, bool& value);
    Options& text(const char* name, std::string& value);
    /// A whole number, from 0 on.
    Options& number(const char* name, unsigned& value);
    Options& number(const char* name, int& value);
    Options& seconds(const char* name, double& value);
    /// Process ids, joined with ",".
    Options& pids(const char* name, std::vector<int>& value);

    /// Reads the options; the rest, from the first argument that is none, is returned.
    [[nodiscard]] std::vector<char*> read_leading(int argc, char** argv) const;
    /// Reads the options, and takes nothing else.
    void read(int argc, char** argv) const;
    [[noreturn]] void refuse() const;

private:
    struct Row {
        const char* name;
        bool has_value;
        std::function<void(const char*)> set;
    };

    Options& add(const char* name, bool has_value, std::function<void(const char*)> set);

    const char* m_usage;
    std::vector<Row> m_rows;
};

} // namespace uwire
