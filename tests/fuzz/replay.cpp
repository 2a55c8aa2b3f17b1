// Runs a fuzz target over the files of a directory and over variations of them, always the same ones: what
// libFuzzer does, without its search, for builds that have no libFuzzer.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
    __attribute__((weak)); ///< not all targets have one

namespace {

using Input = std::vector<std::uint8_t>;
using Random = std::mt19937;

void run(const Input& input)
{
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

std::size_t below(Random& random, std::size_t limit)
{
    return static_cast<std::size_t>(random()) % limit;
}

void change_once(Input& input, Random& random)
{
    const std::size_t at = below(random, input.size());
    const auto place = input.begin() + static_cast<std::ptrdiff_t>(at);
    switch (below(random, 4)) {
    case 0:
        *place = static_cast<std::uint8_t>(random());
        return;
    case 1:
        *place = static_cast<std::uint8_t>(*place ^ (1U << below(random, 8)));
        return;
    case 2:
        input.insert(place, static_cast<std::uint8_t>(random()));
        return;
    default: // a stretch from elsewhere
        const std::size_t from = below(random, input.size());
        const std::size_t length = std::min(below(random, 16), input.size() - std::max(at, from));
        std::copy_n(Input(input).begin() + static_cast<std::ptrdiff_t>(from), length, place);
    }
}

void run_variations(const Input& seed, std::size_t count, Random& random)
{
    for (std::size_t i = 0; i < count; ++i) {
        Input input = seed;
        for (std::size_t changes = 1 + below(random, 8); changes > 0 && !input.empty(); --changes)
            change_once(input, random);
        if (below(random, 8) == 0)
            input.resize(below(random, input.size() + 1));
        run(input);
    }
}

Input read_file(const std::filesystem::path& name)
{
    std::ifstream file(name, std::ios::binary);
    return Input(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s DIRECTORY VARIATIONS-IN-ALL\n", argv[0]);
        return 2;
    }
    std::vector<std::filesystem::path> names;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1]))
        names.push_back(entry.path());
    std::sort(names.begin(), names.end());
    if (names.empty()) {
        std::fprintf(stderr, "no inputs in %s\n", argv[1]);
        return 1;
    }
    if (LLVMFuzzerInitialize)
        (void)LLVMFuzzerInitialize(&argc, &argv); // ends the process itself when it cannot go on

    Random random(1); // NOLINT(cert-msc51-cpp): the same variations each time
    const std::size_t variations = std::strtoul(argv[2], nullptr, 10);
    run({});
    for (std::size_t i = 0; i < names.size(); ++i) {
        const Input seed = read_file(names[i]);
        run(seed);
        // What does not come out even goes to the first ones.
        run_variations(seed, (variations + names.size() - 1 - i) / names.size(), random);
    }
    std::printf("%zu inputs, %zu variations\n", names.size(), variations);
    return 0;
}
