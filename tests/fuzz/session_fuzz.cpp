// All that can happen to the daemon, one after the other. The input's first byte says what the home is like;
// each line after it is a step, as parse_step() reads it.

#include "input.h"
#include "session.h"

#include <cstdint>

using namespace orv::fuzz;

namespace {

constexpr std::size_t kMostSteps = 64;

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    prepare_process();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Session session(input.byte() & 0xfU);
    (void)input.line(); // the first byte has a line of its own
    for (std::size_t steps = 0; steps < kMostSteps && !input.is_empty(); ++steps)
        if (const auto step = parse_step(input.line()))
            session.add(*step);
    session.run();
    return 0;
}
