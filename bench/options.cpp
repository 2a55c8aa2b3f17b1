// One table for all benchmark programs: each option writes its value straight to where the program wants it.

#include "options.h"

#include "uwire.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

namespace uwire {

namespace {

unsigned parse_number(const char* name, const char* text)
{
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || value < 0 || value > INT_MAX)
        die("--%s: no number: %s", name, text);
    return static_cast<unsigned>(value);
}

double parse_seconds(const char* name, const char* text)
{
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(value >= 0 && value <= 1e6))
        die("--%s: no number of seconds: %s", name, text);
    return value;
}

std::vector<int> parse_pids(const char* name, const std::string& list)
{
    std::vector<int> pids;
    for (std::size_t at = 0; at < list.size();) {
        const std::size_t comma = std::min(list.find(',', at), list.size());
        pids.push_back(static_cast<int>(parse_number(name, list.substr(at, comma - at).c_str())));
        at = comma + 1;
    }
    return pids;
}

} // namespace

Options& Options::add(const char* name, bool has_value, std::function<void(const char*)> set)
{
    m_rows.push_back({name, has_value, std::move(set)});
    return *this;
}

Options& Options::flag(const char* name, bool& value)
{
    return add(name, /*has_value=*/false, [&value](const char*) { value = true; });
}

Options& Options::text(const char* name, std::string& value)
{
    return add(name, /*has_value=*/true, [&value](const char* text) { value = text; });
}

Options& Options::number(const char* name, unsigned& value)
{
    return add(name, /*has_value=*/true,
               [&value, name](const char* text) { value = parse_number(name, text); });
}

Options& Options::number(const char* name, int& value)
{
    return add(name, /*has_value=*/true,
               [&value, name](const char* text) { value = static_cast<int>(parse_number(name, text)); });
}

Options& Options::seconds(const char* name, double& value)
{
    return add(name, /*has_value=*/true,
               [&value, name](const char* text) { value = parse_seconds(name, text); });
}

Options& Options::pids(const char* name, std::vector<int>& value)
{
    return add(name, /*has_value=*/true,
               [&value, name](const char* text) { value = parse_pids(name, text); });
}

std::vector<char*> Options::read_leading(int argc, char** argv) const
{
    std::vector<option> table;
    for (const Row& row : m_rows)
        table.push_back({row.name, row.has_value ? required_argument : no_argument, nullptr, 0});
    table.push_back({});
    int index = 0;
    for (int found = 0; (found = getopt_long(argc, argv, "+", table.data(), &index)) != -1;) {
        if (found != 0)
            refuse();
        m_rows[static_cast<std::size_t>(index)].set(optarg);
    }
    return {argv + optind, argv + argc};
}

void Options::read(int argc, char** argv) const
{
    if (!read_leading(argc, argv).empty())
        refuse();
}

void Options::refuse() const
{
    die("usage: %s", m_usage);
}

} // namespace uwire
