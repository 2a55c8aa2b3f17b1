#pragma once

#include "change_log.h"

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvstore/notify.h>
#include <orvstore/transaction.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orv::devMgmt {

/// So many changes are dealt with each time that the notification descriptor is read; if more are waiting, it is
/// readable again at once.
constexpr unsigned kChangesAtOnce = 64;

/// Goes through the changes beyond its place and calls those who have registered for them.
class Changes : public store::notify::Listener {
public:
    /// From here on changes are told. False when the store cannot be read.
    [[nodiscard]] bool start();
    /// From here on nobody is called, whatever is under way.
    void end() { m_has_ended = true; }

    void add(const std::vector<std::string>& fields, DevInfoChangeCallback callback);
    /// False when there is no such registration.
    [[nodiscard]] bool remove(const std::vector<std::string>& fields, DevInfoChangeCallback callback);

    void look() override;

    /// Sees to it that look() is called soon when it could not do its work the last time.
    void try_again() const;

private:
    struct Registration {
        std::vector<std::string> fields;
        DevInfoChangeCallback callback;
    };
    struct Told {
        DevInfoChangeType type = DevInfoChangeType::updated;
        std::string field;
        Device device;
    };
    /// A device as it was told, or known from the start.
    struct Known {
        Known() = default;
        Known(std::uint64_t number, std::string_view device) : born(number), bytes(device) {}

        std::uint64_t born = 0;
        std::string bytes;
        bool is_marked = false; ///< while compare_ids() is at work
    };
    /// What was found out without the numbers.
    struct Found {
        DevInfoChangeType type;
        std::size_t field;
        std::string did;
    };
    enum class Step {
        told,   ///< there is something to tell
        passed, ///< there was nothing to tell of it
        later,  ///< the rest has to wait for the next time
        done,   ///< nothing is left
        failed,
    };

    [[nodiscard]] Step work();
    [[nodiscard]] Step take_next(Told& told);
    [[nodiscard]] Step take_found(store::Transaction& snapshot, Told& told);
    [[nodiscard]] Step take_change(store::Transaction& snapshot, const LogState& state, Told& told);
    [[nodiscard]] Step take(store::Transaction& snapshot, const Change& change, Told& told);
    [[nodiscard]] Step take_added(const Change& change, std::string_view bytes, Told& told);
    [[nodiscard]] Step take_updated(const Change& change, std::string_view bytes, Told& told);
    [[nodiscard]] Step take_removed(const std::string& did, std::uint64_t born, Told& told);
    [[nodiscard]] bool is_same_store(const LogState& state) const;
    void follow(const store::Transaction& snapshot, const LogState& state);
    [[nodiscard]] bool learn(store::Transaction& snapshot);
    [[nodiscard]] bool catch_up(store::Transaction& snapshot, const LogState& state);
    [[nodiscard]] bool compare_ids(store::Transaction& snapshot);
    [[nodiscard]] bool compare_all(store::Transaction& snapshot);
    void compare(const std::string& did, Known& known, std::string_view record);
    void tell(const Told& change);

    std::map<unsigned, Registration> m_registrations; ///< by their order
    unsigned m_last_registration = 0;
    bool m_has_ended = false;
    unsigned m_failures = 0; ///< one after the other

    unsigned m_generation = 0;    ///< of the environment
    std::uint64_t m_commit = 0;   ///< up to which all has been seen
    std::uint64_t m_identity = 0; ///< of the store
    std::uint64_t m_place = 0;    ///< number of the last change dealt with
    std::uint64_t m_compared = 0; ///< last dropped mark that was taken into account
    bool m_must_compare = false;  ///< marks that were not seen were dropped
    bool m_may_compare = false;   ///< once each time

    /// All devices that were there at our place, while somebody is registered.
    std::map<std::string, Known, std::less<>> m_known;
    bool m_has_learnt = false;
    std::vector<Found> m_found; ///< in the reverse order of telling
};

} // namespace orv::devMgmt
