#include "require.h"

#include <cstdio>
#include <cstdlib>

namespace orv::fuzz {

void require(bool holds, const char* rule)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", rule);
    std::abort();
}

} // namespace orv::fuzz
