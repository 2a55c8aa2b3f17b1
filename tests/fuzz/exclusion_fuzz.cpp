// Any text as an exclusion pattern: the daemon's answer is the one that is found in another way.

#include "support/exclusion_reference.h"

#include "exclusion.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view pattern(reinterpret_cast<const char*>(data), size);
    if (orv::brokerd::va_validate_exclusion(pattern) == orv::test::is_exclusion_pattern(pattern))
        return 0;
    std::fprintf(stderr, "judged in two ways: %.*s\n", static_cast<int>(size), pattern.data());
    std::abort();
}
