#pragma once

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvstore/notify.h>
#include <orvstore/transaction.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orv::devMgmt {

/// Reads the journal of changes on and calls those who have registered for them.
class Changes : public store::notify::Listener {
public:
    /// From here on changes are told. False when the journal cannot be read.
    [[nodiscard]] bool start();

    void add(const std::vector<std::string>& fields, DevInfoChangeCallback callback);
    /// False when there is no such registration.
    [[nodiscard]] bool remove(const std::vector<std::string>& fields, DevInfoChangeCallback callback);

    void look() override;

private:
    struct Registration {
        std::vector<std::string> fields;
        DevInfoChangeCallback callback;
    };
    struct Told {
        DevInfoChangeType type;
        std::string field;
        Device device;
    };

    [[nodiscard]] bool read_on(std::vector<Told>& told);
    [[nodiscard]] bool find_device(store::Transaction& snapshot, std::uint64_t place, const std::string& did,
                                   Device& device) const;
    void tell(const Told& change);
    void tell_that_all_may_have_changed();

    std::map<unsigned, Registration> m_registrations; ///< by their order
    unsigned m_last_registration = 0;
    unsigned m_generation = 0; ///< of the environment
    std::uint64_t m_commit = 0;
    std::uint64_t m_place = 0;
    bool m_lost = false; ///< the journal had been trimmed beyond our place
};

} // namespace orv::devMgmt
