// Whoever is told of changes has a place: the number of the last one that he was told of. What is left to tell
// is what lies beyond it in the log of changes, in the order of the numbers, one at a time: each time the store
// is looked at as it is now, so that a callback may do with it what it likes, and a device is told about with
// its present record, or, when it is gone, with the one that the mark of its removal has kept.
//
// The devices that were told are known here, as they were told. That is what a removal is told with. And the
// numbers do not tell of removals whose mark was dropped, nor of anything when another store has taken the place
// of this one: in the first case the ids of the known devices are compared with the store's, in the second one
// all of them, so that just what is different is told. A device that came and went unseen, mark and all, is not
// told of.
//
// Nothing moves on before it is ready to be told: what fails, for lack of memory too, is done again later.

#include "changes.h"

#include "device_store.h"

#include <orvutils/log_format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace orv::devMgmt {

namespace {

using store::Read;
using store::Transaction;

/// A failure is followed by another attempt at once, so many times. After that it takes a change of the store,
/// or a use of it.
constexpr unsigned kQuickAttempts = 3;

bool is_watched(const std::vector<std::string>& fields, const std::string& field)
{
    return std::find(fields.begin(), fields.end(), field) != fields.end();
}

/// The bytes of a device that is there; Error::no_such_key, too, where there is another one with the same id.
Error find_present(Transaction& snapshot, const Change& change, std::string_view& bytes)
{
    std::string_view record;
    History history;
    const Error error = snapshot.get(kDevices, change.did, record);
    if (error != Error::none)
        return error;
    return split_record(record, history, bytes) && history.born == change.born ? Error::none
                                                                               : Error::no_such_key;
}

/// The bytes of the device that is new or has changed, as they are or were last; none when they cannot be had any
/// more.
Error find_bytes(Transaction& snapshot, const Change& change, std::string_view& bytes)
{
    Error error = find_present(snapshot, change, bytes);
    Mark mark;
    History history;
    if (error == Error::no_such_key && change.died != 0)
        error = read_mark(snapshot, change.died, mark);
    if (error == Error::none && !mark.did.empty() && !split_record(mark.record, history, bytes))
        error = Error::no_such_key;
    if (error == Error::no_such_key)
        bytes = {};
    return error == Error::no_such_key ? Error::none : error;
}

bool decode(const std::string& did, std::string_view bytes, Device& device)
{
    if (decode_device(bytes, device) && device.did == did)
        return true;
    if (!bytes.empty())
        ORV_LOG(log::kError, "device store: skipping device {}, its record is malformed", did);
    return false;
}

/// A device's bytes with one field taken from its present record.
std::string with_field(std::string_view bytes, std::size_t field, const Device& present)
{
    Device device;
    if (!decode_device(bytes, device))
        return encode_device(present);
    copy_field(field, present, device);
    return encode_device(device);
}

} // namespace

bool Changes::start()
{
    Read snapshot(device_environment());
    LogState state;
    if (snapshot.error() != Error::none || read_state(snapshot, state) != Error::none)
        return false;
    follow(snapshot, state);
    return true;
}

void Changes::add(const std::vector<std::string>& fields, DevInfoChangeCallback callback)
{
    m_registrations.emplace(m_last_registration + 1, Registration{fields, callback});
    ++m_last_registration;
    if (m_has_learnt)
        return;
    try {
        Read snapshot(device_environment());
        LogState state;
        if (snapshot.error() == Error::none && read_state(snapshot, state) == Error::none &&
            is_same_store(state))
            (void)learn(snapshot);    // else it is done before the first change is told
    } catch (const std::bad_alloc&) { // the same
    }
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
    m_may_compare = true;
    Step step = Step::passed;
    for (unsigned i = 0; i < kChangesAtOnce && (step == Step::told || step == Step::passed); ++i)
        step = work();
    if (m_has_ended)
        return;
    m_failures = step == Step::failed ? m_failures + 1 : 0;
    if (step != Step::done && m_failures <= kQuickAttempts)
        store::notify::wake();
}

void Changes::try_again() const
{
    if (m_failures > 0)
        store::notify::wake();
}

Changes::Step Changes::work()
{
    try {
        Told told;
        const Step step = m_has_ended ? Step::done : take_next(told);
        if (step == Step::told)
            tell(told);
        return step;
    } catch (const std::bad_alloc&) {
        return Step::failed;
    }
}

/// Makes the next change ready to be told, if there is one; it then counts as told.
Changes::Step Changes::take_next(Told& told)
{
    Read snapshot(device_environment());
    if (snapshot.error() != Error::none)
        return Step::failed;
    if (device_environment().generation() == m_generation && snapshot.id() == m_commit && m_found.empty())
        return Step::done;
    LogState state;
    if (read_state(snapshot, state) != Error::none)
        return Step::failed;
    if (m_registrations.empty()) {
        follow(snapshot, state);
        return Step::done;
    }
    if (!catch_up(snapshot, state))
        return Step::failed;
    return m_found.empty() ? take_change(snapshot, state, told) : take_found(snapshot, told);
}

bool Changes::is_same_store(const LogState& state) const
{
    return device_environment().generation() == m_generation && state.last >= m_place &&
           (state.identity == m_identity || m_identity == 0);
}

/// Takes everything for told.
void Changes::follow(const Transaction& snapshot, const LogState& state)
{
    m_generation = device_environment().generation();
    m_commit = snapshot.id();
    m_identity = state.identity;
    m_place = state.last;
    m_compared = state.dropped;
    m_must_compare = false;
    m_has_learnt = false;
    m_known.clear();
    m_found.clear();
}

/// Gets to know the devices that were there at our place: those that are there, unless they are newer, and those
/// that were removed since.
bool Changes::learn(Transaction& snapshot)
{
    std::map<std::string, Known, std::less<>> known;
    History history;
    std::string_view bytes;
    MarkCursor marks(snapshot);
    for (bool found = marks.seek_after(m_place); found; found = marks.next())
        if (split_record(marks.mark().record, history, bytes) && history.born <= m_place)
            known.try_emplace(std::string(marks.mark().did), Known(history.born, bytes));
    store::Cursor devices(snapshot, kDevices);
    for (bool found = devices.first(); found; found = devices.next())
        if (split_record(devices.value(), history, bytes) && history.born <= m_place)
            known.try_emplace(std::string(devices.key()), Known(history.born, bytes));
    if (marks.error() != Error::none || devices.error() != Error::none)
        return false;
    m_known = std::move(known);
    m_has_learnt = true;
    return true;
}

/// Finds out what the numbers beyond our place do not tell.
bool Changes::catch_up(Transaction& snapshot, const LogState& state)
{
    if (!is_same_store(state)) {
        if (m_has_learnt && !compare_all(snapshot))
            return false;
        m_generation = device_environment().generation();
        m_place = state.last;
        m_compared = state.dropped;
        m_must_compare = false;
    }
    m_identity = state.identity;
    if (!m_has_learnt && !learn(snapshot))
        return false;
    m_must_compare = m_must_compare || state.dropped > std::max(m_place, m_compared);
    if (!m_must_compare || !m_may_compare)
        return true;
    if (!compare_ids(snapshot))
        return false;
    m_compared = state.dropped;
    m_must_compare = m_may_compare = false;
    return true;
}

/// Finds the devices that are gone and of whose removal no mark tells.
bool Changes::compare_ids(Transaction& snapshot)
{
    History history;
    std::string_view bytes;
    for (auto& entry : m_known)
        entry.second.is_marked = false;
    MarkCursor marks(snapshot);
    for (bool found = marks.seek_after(0); found; found = marks.next()) {
        const auto known = m_known.find(marks.mark().did);
        if (known != m_known.end() && split_record(marks.mark().record, history, bytes) &&
            history.born == known->second.born)
            known->second.is_marked = true;
    }
    if (marks.error() != Error::none)
        return false;
    std::vector<Found> gone;
    for (auto entry = m_known.rbegin(); entry != m_known.rend(); ++entry) {
        std::string_view record;
        const Error error = snapshot.get(kDevices, entry->first, record);
        if (error != Error::none && error != Error::no_such_key)
            return false;
        const bool is_there = error == Error::none &&
                              (!split_record(record, history, bytes) || history.born == entry->second.born);
        if (!is_there && !entry->second.is_marked)
            gone.push_back({DevInfoChangeType::removed, 0, entry->first});
    }
    m_found.insert(m_found.end(), std::make_move_iterator(gone.begin()), std::make_move_iterator(gone.end()));
    return true;
}

/// Finds all that is different in another store.
bool Changes::compare_all(Transaction& snapshot)
{
    ORV_LOG(log::kWarning, "device store: it is another one, looking for what is different");
    m_found.clear();
    auto known = m_known.begin();
    const auto pass_removed = [&](std::string_view end) {
        for (; known != m_known.end() && (end.empty() || known->first < end); ++known)
            m_found.push_back({DevInfoChangeType::removed, 0, known->first});
    };
    store::Cursor devices(snapshot, kDevices);
    for (bool found = devices.first(); found; found = devices.next()) {
        pass_removed(devices.key());
        if (known == m_known.end() || known->first != devices.key()) {
            m_found.push_back({DevInfoChangeType::added, 0, std::string(devices.key())});
            continue;
        }
        compare(known->first, known->second, devices.value());
        ++known;
    }
    if (devices.error() != Error::none)
        return false;
    pass_removed({});
    std::reverse(m_found.begin(), m_found.end());
    return true;
}

void Changes::compare(const std::string& did, Known& known, std::string_view record)
{
    History history;
    std::string_view bytes;
    Device before;
    Device after;
    if (!split_record(record, history, bytes))
        return;
    known.born = history.born;
    if (known.bytes == bytes || !decode_device(bytes, after) || !decode_device(known.bytes, before))
        return;
    const Fields fields = changed_fields(before, after);
    for (std::size_t i = 0; i < fields.size(); ++i)
        if (fields[i])
            m_found.push_back({DevInfoChangeType::updated, i, did});
}

/// Something that was found out by comparing: as it is now.
Changes::Step Changes::take_found(Transaction& snapshot, Told& told)
{
    const Found& found = m_found.back();
    const auto known = m_known.find(found.did);
    Step step = Step::passed;
    if (found.type == DevInfoChangeType::removed) {
        if (known != m_known.end())
            step = take_removed(found.did, known->second.born, told);
    } else {
        std::string_view record;
        std::string_view bytes;
        History history;
        const Error error = snapshot.get(kDevices, found.did, record);
        if (error != Error::none && error != Error::no_such_key)
            return Step::failed;
        const Change change{found.type, found.field, split_record(record, history, bytes) ? history.born : 0,
                            0, found.did};
        if (found.type == DevInfoChangeType::added)
            step = take_added(change, bytes, told);
        else if (known != m_known.end() && known->second.born == change.born)
            step = take_updated(change, bytes, told);
    }
    m_found.pop_back();
    return step;
}

Changes::Step Changes::take_change(Transaction& snapshot, const LogState& state, Told& told)
{
    ChangeCursor cursor(snapshot);
    if (!cursor.seek_after(m_place) || cursor.number() > state.last) {
        if (cursor.error() != Error::none)
            return Step::failed;
        if (m_must_compare)
            return Step::later;
        m_place = state.last;
        m_commit = snapshot.id();
        return Step::done;
    }
    Change change;
    Step step = Step::passed;
    if (cursor.decode(change))
        step = take(snapshot, change, told);
    else
        ORV_LOG(log::kError, "device store: skipping a malformed change");
    if (step != Step::failed)
        m_place = cursor.number();
    return step;
}

Changes::Step Changes::take(Transaction& snapshot, const Change& change, Told& told)
{
    if (change.type == DevInfoChangeType::removed)
        return take_removed(change.did, change.born, told);
    std::string_view bytes;
    if (find_bytes(snapshot, change, bytes) != Error::none)
        return Step::failed;
    return change.type == DevInfoChangeType::added ? take_added(change, bytes, told)
                                                   : take_updated(change, bytes, told);
}

Changes::Step Changes::take_added(const Change& change, std::string_view bytes, Told& told)
{
    const auto present = m_known.find(change.did);
    if (present != m_known.end() && present->second.born == change.born)
        return Step::passed; // comparing has found it
    if (!decode(change.did, bytes, told.device))
        return Step::passed;
    std::string kept(bytes);
    Known& known = m_known[change.did];
    known.born = change.born;
    known.bytes = std::move(kept);
    told.type = DevInfoChangeType::added;
    return Step::told;
}

Changes::Step Changes::take_updated(const Change& change, std::string_view bytes, Told& told)
{
    const auto known = m_known.find(change.did);
    if (known == m_known.end() || known->second.born != change.born ||
        !decode(change.did, bytes, told.device))
        return Step::passed;
    told.field = field_name(change.field);
    known->second.bytes = with_field(known->second.bytes, change.field, told.device);
    told.type = DevInfoChangeType::updated;
    return Step::told;
}

/// All that was ever stored of it has been told by now, so what was told last was stored last.
Changes::Step Changes::take_removed(const std::string& did, std::uint64_t born, Told& told)
{
    const auto known = m_known.find(did);
    if (known == m_known.end() || known->second.born != born)
        return Step::passed;
    const bool is_sound = decode(did, known->second.bytes, told.device);
    m_known.erase(known);
    told.type = DevInfoChangeType::removed;
    return is_sound ? Step::told : Step::passed;
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

} // namespace orv::devMgmt
