// The life of a store: closed, or wanted and there, or wanted and missing.
//
// Recovery: a store may be deleted, moved away or replaced under the running process. A write compares the
// open file with the one that has its name now; a reading does so when a tenth of a second has passed since
// the last time. What cannot be opened is tried again as soon as the data file has changed, else once a
// second; where other processes keep it locked, by each write and for reading ten times a second. While
// something is being read, the store that it is read from stays.

#include <orvstore/environment.h>

#include "copy_keeper.h"
#include "files.h"
#include "opened.h"

#include <orvbase/clock.h>
#include <orvbase/root.h>

#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

namespace orv::store {

namespace {

constexpr std::int64_t kCheckIntervalMs = 100;
constexpr std::int64_t kRetryIntervalMs = 1000;
constexpr int kAttempts = 3; ///< to get hold of a store that is replaced again and again

Error to_error(const Failure& failure)
{
    return failure.kind == Failure::Kind::busy ? Error::timed_out : Error::input_output;
}

} // namespace

Environment::Environment(Layout layout)
    : m_layout(std::move(layout)), m_copy_keeper(std::make_unique<CopyKeeper>(m_layout))
{
}

Environment::~Environment() = default;

Error Environment::open()
{
    return open(Purpose::opening);
}

Error Environment::try_to_open()
{
    return open(Purpose::trying);
}

Error Environment::open(Purpose purpose)
try {
    const base::TimePoint until = deadline(); // who was waited for in vain is not waited for again
    close();
    m_directory = base::root_path(m_layout.directory);
    m_data_file = data_file_in(m_directory);
    if (reopen(until, purpose))
        return Error::none;
    m_state = Closed{std::move(std::get<Missing>(m_state).failure)};
    return to_error(failure());
} catch (const std::bad_alloc&) {
    m_state = Closed{};
    throw;
}

void Environment::close()
{
    m_copy_keeper->forget();
    m_state = Closed{};
}

const Failure& Environment::failure() const
{
    static const Failure none;
    if (const auto* closed = std::get_if<Closed>(&m_state))
        return closed->failure;
    const auto* missing = std::get_if<Missing>(&m_state);
    return missing ? missing->failure : none;
}

void Environment::look_after()
{
    // A failure is told to whoever uses it next.
    if (Opened* opened = use_for_reading(); opened && !opened->is_being_read() && !opened->is_excluding())
        m_copy_keeper->look_after(*opened, m_directory);
}

void Environment::refresh()
{
    doubt();
    look_after();
}

Error Environment::measure(Usage& usage)
{
    Opened* opened = use_for_reading();
    if (!opened)
        return Error::input_output;
    if (const int code = opened->begin_read(); code != 0)
        return operation_failed(*opened, "begin to read", code);
    usage = opened->usage(opened->reader());
    opened->end_read();
    usage.file = static_cast<std::uint64_t>(file_state(m_data_file).size);
    return Error::none;
}

bool Environment::catch_up()
{
    Opened* opened = use_for_reading();
    if (!opened || opened->is_read_only())
        return true;
    const std::uint64_t written = opened->written_commit();
    if (const int code = opened->begin_read(); code != 0) {
        (void)operation_failed(*opened, "begin to read", code);
        return true;
    }
    const std::uint64_t seen = opened->seen_commit();
    opened->end_read();
    if (seen >= written)
        return true;
    const int code = opened->publish_commit();
    if (code == EWOULDBLOCK)
        return false;
    if (code != 0)
        (void)operation_failed(*opened, "take over a commit", code);
    return true;
}

unsigned Environment::generation() const
{
    return std::holds_alternative<std::unique_ptr<Opened>>(m_state) ? m_generation : 0;
}

void Environment::report(Severity severity, const std::string& text) const
{
    if (m_layout.report)
        m_layout.report(severity, text);
}

void Environment::report_about(Severity severity, const std::string& text) const
{
    report(severity, std::string("store ") + m_layout.directory + ": " + text);
}

Error Environment::operation_failed(Opened& opened, const char* doing, int code) const
{
    report_about(Severity::error, std::string("cannot ") + doing + ": " + opened.note_failure(code));
    return Error::input_output;
}

Opened* Environment::opened() const
{
    const auto* opened = std::get_if<std::unique_ptr<Opened>>(&m_state);
    return opened ? opened->get() : nullptr;
}

/// The store, open and the right one as far as that can be had without waiting; null when it cannot.
Opened* Environment::use_for_reading()
{
    if (std::holds_alternative<Closed>(m_state))
        return nullptr;
    Opened* present = opened();
    if (present && (present->is_being_read() || present->is_excluding() ||
                    is_as_it_should_be(*present, Purpose::reading)))
        return present;
    return reopen(base::Clock::now(), Purpose::reading);
}

/// The store, open, the right one, and with all other writers kept out.
Error Environment::use_for_writing(Opened*& opened)
{
    if (std::holds_alternative<Closed>(m_state))
        return Error::input_output;
    const base::TimePoint until = deadline();
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        opened = this->opened();
        if (opened && opened->is_excluding()) {
            report_about(Severity::error, "cannot begin to write: this process is writing");
            return Error::input_output;
        }
        if ((!opened || !opened->is_sound()) && !(opened = reopen(until, Purpose::writing)))
            return to_error(failure());
        const int code = opened->begin_exclusion(until);
        if (code == EWOULDBLOCK)
            return keep_out(*opened);
        if (code != 0)
            return operation_failed(*opened, "lock the directory", code);
        m_stuck_at.reset();
        // While the lock was waited for, another store may have taken its place.
        if (is_right_for_writing(*opened))
            return Error::none;
        if (!reopen(until, Purpose::writing))
            return to_error(failure());
    }
    return Error::timed_out;
}

/// Whether the store, with all other writers kept out, is the right one; else they are no longer.
bool Environment::is_right_for_writing(Opened& opened)
{
    struct Exclusion {
        ~Exclusion()
        {
            if (opened)
                opened->end_exclusion();
        }
        Opened* opened;
    } exclusion{&opened};
    if (!opened.is_being_read() && !is_as_it_should_be(opened, Purpose::writing))
        return false;
    exclusion.opened = nullptr;
    return true;
}

/// The time until which to wait for other processes now.
base::TimePoint Environment::deadline() const
{
    const Opened* present = opened();
    const bool is_stuck = present ? m_stuck_at && *m_stuck_at == present->written_commit()
                                  : failure().kind == Failure::Kind::busy;
    return base::Clock::now() + (is_stuck ? std::chrono::milliseconds{0} : m_layout.patience);
}

Error Environment::keep_out(const Opened& opened)
{
    m_stuck_at = opened.written_commit();
    report_about(Severity::error, "cannot begin to write: it is being written by " + opened.excluded_by());
    return Error::timed_out;
}

bool Environment::is_due_for_a_check()
{
    const std::int64_t now = base::coarse_now_ms();
    if (now - m_last_check_ms < kCheckIntervalMs)
        return false;
    m_last_check_ms = now;
    return true;
}

bool Environment::is_as_it_should_be(const Opened& opened, Purpose purpose)
{
    if (!opened.is_sound())
        return false;
    if (purpose == Purpose::reading && !is_due_for_a_check())
        return true;
    const bool is_writable_again =
        purpose == Purpose::writing && opened.is_read_only() && access(m_data_file.c_str(), W_OK) == 0;
    return opened.is_in_place(m_directory) && !is_writable_again;
}

bool Environment::may_retry(const Missing& missing, Purpose purpose) const
{
    const std::int64_t passed = base::coarse_now_ms() - missing.tried_ms;
    if (missing.failure.kind == Failure::Kind::busy)
        return purpose != Purpose::reading || passed >= kCheckIntervalMs;
    return passed >= kRetryIntervalMs || !file_state(m_data_file).is_unchanged(missing.seen);
}

/// Opens it, unless that failed a moment ago and nothing has changed since. One that can go on being used
/// stays when other processes keep this one out.
Opened* Environment::reopen(base::TimePoint deadline, Purpose purpose)
{
    Failure before;
    std::unique_ptr<Opened> present;
    if (auto* missing = std::get_if<Missing>(&m_state)) {
        if (!may_retry(*missing, purpose))
            return nullptr;
        before = std::move(missing->failure);
    } else if (auto* opened = std::get_if<std::unique_ptr<Opened>>(&m_state)) {
        present = std::move(*opened);
    }
    m_copy_keeper->forget();
    m_state = Missing{}; // should there be no memory, it is tried again
    Failure failure;
    if (auto opened = Opened::open(m_directory, m_layout, deadline, present, failure)) {
        if (before.kind != Failure::Kind::none)
            report_about(Severity::info, "is back");
        return take(std::move(opened));
    }
    if (failure.kind == Failure::Kind::busy && present && present->is_sound())
        return m_state.emplace<std::unique_ptr<Opened>>(std::move(present)).get();
    const std::string text = failure.text();
    m_state = Missing{std::move(failure), file_state(m_data_file), base::coarse_now_ms()};
    // The same failure is told only once.
    if (purpose != Purpose::trying && (before.kind == Failure::Kind::none || text != before.text()))
        report_about(Severity::error, text);
    return nullptr;
}

Opened* Environment::take(std::unique_ptr<Opened> opened)
{
    m_last_check_ms = base::coarse_now_ms();
    if (!opened->file().is_same_file(m_last_opened))
        ++m_generation;
    m_last_opened = opened->file();
    return m_state.emplace<std::unique_ptr<Opened>>(std::move(opened)).get();
}

} // namespace orv::store
