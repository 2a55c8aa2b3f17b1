// The machine, as the kernel tells it in /proc. Nothing is kept between two questions.

#include "records.h"

#include <sys/utsname.h>

#include <fstream>

namespace orv::diagnosis {
namespace {

/// Seconds since the machine was started.
json_t* uptime()
{
    std::ifstream file("/proc/uptime");
    double seconds = 0;
    return file >> seconds ? json_integer(static_cast<json_int_t>(seconds)) : nullptr;
}

/// Processes that want to run, averaged over 1, 5 and 15 minutes.
json_t* load()
{
    std::ifstream file("/proc/loadavg");
    double one = 0;
    double five = 0;
    double fifteen = 0;
    if (!(file >> one >> five >> fifteen))
        return nullptr;
    return json_pack("[f,f,f]", one, five, fifteen);
}

/// One line of /proc/meminfo, "NAME:   NUMBER kB", in bytes.
json_t* memory(const std::string& name)
{
    constexpr json_int_t kBytesPerKib = 1024;
    std::ifstream file("/proc/meminfo");
    for (std::string word; file >> word;) {
        json_int_t kib = 0;
        if (word == name && file >> kib)
            return json_integer(kib * kBytesPerKib);
    }
    return nullptr;
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
