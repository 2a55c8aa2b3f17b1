#pragma once

#include <cstdint>

namespace orv::simulation {

/// Numbers that depend on the seed alone, on every machine (SplitMix64).
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}

    std::uint64_t next()
    {
        m_state += 0x9e3779b97f4a7c15U;
        std::uint64_t mixed = m_state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9U;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebU;
        return mixed ^ (mixed >> 31);
    }

    /// From 0 up to below the bound.
    unsigned below(unsigned bound) { return static_cast<unsigned>(next() % bound); }
    /// Once in so many times.
    bool once_in(unsigned times) { return below(times) == 0; }

private:
    std::uint64_t m_state;
};

} // namespace orv::simulation
