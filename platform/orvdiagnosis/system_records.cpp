// The machine, as the kernel tells it in /proc. Nothing is kept between two questions.

#include "records.h"

#include <orvbase/io.h>

#include <sys/utsname.h>

#include <cstdio>
#include <string>

namespace orv::diagnosis {
namespace {

constexpr std::size_t kMaxSize = std::size_t{16} * 1024; ///< bytes read of a file there

/// Seconds since the machine was started.
json_t* uptime()
{
    long long seconds = 0;
    const std::string text = base::read_text("/proc/uptime", kMaxSize);
    return std::sscanf(text.c_str(), "%lld", &seconds) == 1 ? json_integer(seconds) : nullptr;
}

/// Processes that want to run, averaged over 1, 5 and 15 minutes.
json_t* load()
{
    double one = 0;
    double five = 0;
    double fifteen = 0;
    const std::string text = base::read_text("/proc/loadavg", kMaxSize);
    if (std::sscanf(text.c_str(), "%lf %lf %lf", &one, &five, &fifteen) != 3)
        return nullptr;
    return json_pack("[f,f,f]", one, five, fifteen);
}

/// One line of /proc/meminfo, "NAME:   NUMBER kB", in bytes.
json_t* memory(const std::string& name)
{
    constexpr json_int_t kBytesPerKib = 1024;
    const std::string text = "\n" + base::read_text("/proc/meminfo", kMaxSize);
    const std::size_t line = text.find("\n" + name);
    long long kib = 0;
    if (line == std::string::npos || std::sscanf(text.c_str() + line + 1 + name.size(), "%lld", &kib) != 1)
        return nullptr;
    return json_integer(kib * kBytesPerKib);
}

json_t* kernel()
{
    utsname names{};
    return uname(&names) == 0 ? json_string(names.release) : nullptr;
}

} // namespace

std::vector<Record> system_records()
{
    return {
        {{"system", "uptime"}, uptime},
        {{"system", "load"}, load},
        {{"system", "memory_total"}, [] { return memory("MemTotal:"); }},
        {{"system", "memory_available"}, [] { return memory("MemAvailable:"); }},
        {{"system", "kernel"}, kernel},
    };
}

} // namespace orv::diagnosis
