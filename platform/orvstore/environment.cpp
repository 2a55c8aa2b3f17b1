// The life of a store: closed, or wanted and there, or wanted and missing.
//
// Recovery: a store may be deleted, moved away or replaced under the running process. A write compares the
// open file with the one that has its name now; a reading does so when a tenth of a second has passed since
// the last time. What cannot be opened is tried again as soon as the data file has changed, else once a
// second. While something is being read, the store that it is read from stays.

#include <orvstore/environment.h>

#include "opened.h"

#include <orvbase/clock.h>
#include <orvbase/root.h>

#include <unistd.h>

#include <utility>

namespace orv::store {

namespace {

constexpr std::int64_t kCheckIntervalMs = 100;
constexpr std::int64_t kRetryIntervalMs = 1000;

} // namespace

Environment::Environment(Layout layout) : m_layout(std::move(layout)) {}

Environment::~Environment() = default;

Error Environment::open()
{
    close();
    m_directory = base::root_path(m_layout.directory);
    m_data_file = data_file_in(m_directory);
    if (reopen())
        return Error::none;
    m_state = Closed{std::move(std::get<Missing>(m_state).failure)};
    return Error::input_output;
}

void Environment::close()
{
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
    (void)use(Purpose::reading); // a failure is told to whoever uses it next
}

void Environment::refresh()
{
    m_last_check_ms = 0;
    look_after();
}

void Environment::catch_up()
{
    Opened* opened = use(Purpose::reading);
    if (!opened || opened->is_read_only())
        return;
    const std::uint64_t written = opened->written_commit();
    if (const int code = opened->begin_read(); code != 0) {
        (void)operation_failed(*opened, "begin to read", code);
        return;
    }
    const std::uint64_t seen = opened->seen_commit();
    opened->end_read();
    if (seen >= written)
        return;
    // The writer's lock is free once the commit is visible; taking it over from a dead writer makes it so.
    if (const int code = opened->wait_for_writer(); code != 0)
        (void)operation_failed(*opened, "wait for a commit", code);
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

/// The store, open and the right one; null when it cannot be had.
Opened* Environment::use(Purpose purpose)
{
    if (const auto* opened = std::get_if<std::unique_ptr<Opened>>(&m_state)) {
        if ((*opened)->is_being_read() || is_as_it_should_be(**opened, purpose))
            return opened->get();
    } else if (std::holds_alternative<Closed>(m_state)) {
        return nullptr;
    }
    return reopen();
}

bool Environment::is_as_it_should_be(const Opened& opened, Purpose purpose)
{
    if (!opened.is_sound())
        return false;
    if (purpose == Purpose::reading) {
        const std::int64_t now = base::coarse_now_ms();
        if (now - m_last_check_ms < kCheckIntervalMs)
            return true;
        m_last_check_ms = now;
    }
    const bool is_writable_again =
        purpose == Purpose::writing && opened.is_read_only() && access(m_data_file.c_str(), W_OK) == 0;
    return opened.file().is_same_file(file_state(m_data_file)) && !is_writable_again;
}

/// Opens it, unless that failed a moment ago and nothing has changed since.
Opened* Environment::reopen()
{
    Failure before;
    if (auto* missing = std::get_if<Missing>(&m_state)) {
        if (file_state(m_data_file).is_unchanged(missing->seen) &&
            base::coarse_now_ms() - missing->tried_ms < kRetryIntervalMs)
            return nullptr;
        before = std::move(missing->failure);
    }
    m_state = Closed{}; // a process opens a directory at most once
    Failure failure;
    if (auto opened = Opened::open(m_directory, m_layout, failure)) {
        if (before.kind != Failure::Kind::none)
            report_about(Severity::info, "is back");
        return take(std::move(opened));
    }
    // The same failure is told only once.
    if (before.kind == Failure::Kind::none || failure.text() != before.text())
        report_about(Severity::error, failure.text());
    m_state = Missing{std::move(failure), file_state(m_data_file), base::coarse_now_ms()};
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
