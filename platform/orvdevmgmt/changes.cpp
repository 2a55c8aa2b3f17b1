// The journal says what has changed, the records say how it is now. When several changes have come together,
// a device is told about with its present record each time; if it is gone by now, with the one that its
// removal, further on in the journal, has kept.

#include "changes.h"

#include "device_record.h"
#include "device_store.h"

#include <orvutils/log_format.h>

#include <algorithm>
#include <utility>

namespace orv::devMgmt {

namespace {

using store::Read;
using store::Transaction;

constexpr std::size_t kEntriesAtOnce = 64;

bool decode_entry(const std::string& entry, Change& change)
{
    if (decode_change(entry, change))
        return true;
    ORV_LOG(log::kError, "device store: skipping a malformed entry of the journal");
    return false;
}

bool is_watched(const std::vector<std::string>& fields, const std::string& field)
{
    return std::find(fields.begin(), fields.end(), field) != fields.end();
}

} // namespace

bool Changes::start()
{
    Read snapshot(device_environment());
    if (snapshot.error() != Error::none || kChangeJournal.end(snapshot, m_place) != Error::none)
        return false;
    m_generation = device_environment().generation();
    m_commit = snapshot.id();
    return true;
}

void Changes::add(const std::vector<std::string>& fields, DevInfoChangeCallback callback)
{
    m_registrations.emplace(++m_last_registration, Registration{fields, callback});
}

bool Changes::remove(const std::vector<std::string>& fields, DevInfoChangeCallback callback)
{
    const auto found =
        std::find_if(m_registrations.begin(), m_registrations.end(), [&](const auto& registration) {
            return registration.second.callback == callback && registration.second.fields == fields;
        });
    if (found == m_registrations.end())
        return false;
    m_registrations.erase(found);
    return true;
}

void Changes::look()
{
    std::vector<Told> told;
    while (read_on(told)) {
        if (m_lost)
            tell_that_all_may_have_changed();
        for (const Told& change : told)
            tell(change);
        told.clear();
    }
}

/// Reads some entries. False when there are none left, or they cannot be read now.
bool Changes::read_on(std::vector<Told>& told)
{
    Read snapshot(device_environment());
    if (snapshot.error() != Error::none)
        return false;
    const unsigned generation = device_environment().generation();
    if (generation == m_generation && snapshot.id() == m_commit)
        return false;
    std::vector<std::string> entries;
    if (kChangeJournal.read(snapshot, m_place, kEntriesAtOnce, entries, m_lost) != Error::none)
        return false;
    if (generation != m_generation) { // another store, with a journal of its own
        m_lost = true;
        if (kChangeJournal.end(snapshot, m_place) != Error::none)
            return false;
        entries.clear();
    }
    m_generation = generation;
    if (entries.size() < kEntriesAtOnce)
        m_commit = snapshot.id();
    std::uint64_t place = m_place - entries.size();
    for (const std::string& entry : entries) {
        ++place; // now this entry's
        Change change;
        Device device;
        if (decode_entry(entry, change) &&
            (change.type == DevInfoChangeType::removed ? decode_device(change.record, device)
                                                       : find_device(snapshot, place, change.did, device)))
            told.push_back({change.type, change.field, std::move(device)});
    }
    return true;
}

/// The device's record, or what its removal after `place` has kept of it.
bool Changes::find_device(Transaction& snapshot, std::uint64_t place, const std::string& did,
                          Device& device) const
{
    const Error error = read_device(snapshot, did, device);
    if (error != Error::no_such_key)
        return error == Error::none;
    std::vector<std::string> entries;
    do {
        entries.clear();
        bool lost = false;
        if (kChangeJournal.read(snapshot, place, kEntriesAtOnce, entries, lost) != Error::none)
            return false;
        for (const std::string& entry : entries) {
            Change change;
            if (decode_change(entry, change) && change.type == DevInfoChangeType::removed &&
                change.did == did)
                return decode_device(change.record, device);
        }
    } while (!entries.empty());
    return false;
}

/// A callback may add and remove registrations, its own included.
void Changes::tell(const Told& change)
{
    for (auto next = m_registrations.begin(); next != m_registrations.end();) {
        const unsigned id = next->first;
        if (change.type != DevInfoChangeType::updated || is_watched(next->second.fields, change.field))
            next->second.callback(change.type, change.device, change.field);
        next = m_registrations.upper_bound(id);
    }
}

/// Every field that somebody watches, of every device.
void Changes::tell_that_all_may_have_changed()
{
    std::vector<Device> devices;
    if (Read snapshot(device_environment());
        snapshot.error() != Error::none || read_devices(snapshot, devices) != Error::none)
        return;
    ORV_LOG(log::kWarning, "device store: changes were lost, taking all devices for changed");
    std::vector<std::string> fields;
    for (const auto& [id, registration] : m_registrations)
        for (const std::string& field : registration.fields)
            if (!is_watched(fields, field))
                fields.push_back(field);
    for (Device& device : devices) {
        Told told{DevInfoChangeType::updated, {}, std::move(device)};
        for (const std::string& field : fields) {
            told.field = field;
            tell(told);
        }
    }
}

} // namespace orv::devMgmt
