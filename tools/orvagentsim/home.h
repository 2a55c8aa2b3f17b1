#pragma once

#include <orvdevmgmt/orvdevmgmt.h>

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace orvagentsim {

/// A device was heard naming its browser: the event "guster_user_agent".
struct Sighting {
    std::string ip;
    std::string mac;
    std::string user_agent;
};

/// The devices in the home that the program makes up: "sim-1", "sim-2", ... What device N is depends on the
/// seed and N alone, and so does what happens to them, step by step. The records are in the device store, and
/// only there: whatever others do to them stays done, and records that others put there are left alone.
class Home {
public:
    explicit Home(std::uint32_t seed) : m_seed(seed), m_random(std::mt19937::result_type{seed}) {}

    /// Makes the store hold devices 1 to `count`; what a former run left goes. False when the store refuses.
    [[nodiscard]] bool furnish(unsigned count);

    /// Makes the router, which owns the devices, known in their records. Does nothing when it is in them.
    /// False when the store refuses.
    [[nodiscard]] bool adopt();

    /// A device comes, changes or goes. Returns what happened, for people.
    [[nodiscard]] std::string change();

    /// Some device is heard; nothing when the one that would be has no IPv4 address, or there is none.
    [[nodiscard]] std::optional<Sighting> listen();

private:
    [[nodiscard]] std::uint32_t random(std::size_t below);
    [[nodiscard]] orv::devMgmt::Device make_device(std::uint32_t number) const;
    [[nodiscard]] bool pick(orv::devMgmt::Device& device);
    [[nodiscard]] std::string add();
    [[nodiscard]] std::string remove(const orv::devMgmt::Device& device);
    [[nodiscard]] std::string alter(orv::devMgmt::Device& device);

    const std::uint32_t m_seed;
    std::mt19937 m_random;
    std::uint32_t m_made = 0;       ///< devices made so far: the number of the last one
    std::size_t m_usual = 0;        ///< how many there were at first; their number stays around that
    std::vector<std::string> m_ids; ///< those in the home now
};

} // namespace orvagentsim
