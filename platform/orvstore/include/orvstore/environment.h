#pragma once

#include <orvbase/clock.h>
#include <orvbase/error.h>
#include <orvstore/failure.h>
#include <orvstore/file_state.h>
#include <orvstore/layout.h>
#include <orvstore/usage.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace orv::store {

class CopyKeeper;
class Opened;

/// One LMDB environment: a directory with a data file that holds some named trees of byte strings, shared by
/// all processes that open it. A process opens a directory at most once.
///
/// Between open() and close() the environment looks after itself: one that was deleted, replaced or broken by
/// an input/output error is opened again as soon as it is there, on the next use. Each failure is reported
/// once.
///
/// Other processes may be stopped at any moment, while they write, open or close the store: reading goes on,
/// writing and opening wait for them no longer than the layout says. Who was waited for in vain is not waited
/// for a second time until he has got somewhere.
class Environment {
public:
    explicit Environment(Layout layout);
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment();

    /// Opens or creates it, below the root directory as it is named now. Falls back to reading only on a
    /// read-only file system, and where the data file, but not the lock file, must not be written. A failure
    /// leaves it closed. Error::timed_out when other processes were at it all the time; a wait is reported.
    [[nodiscard]] Error open();
    /// The same. Why it has failed is not reported.
    [[nodiscard]] Error try_to_open();
    void close();
    [[nodiscard]] bool is_wanted() const { return !std::holds_alternative<Closed>(m_state); }

    /// Why the last attempt to open it has failed; Kind::none when it has not.
    [[nodiscard]] const Failure& failure() const;

    /// Does, at most ten times a second, what every use does first: opens it again if something else lies
    /// under its name by now, or if it could not be opened so far. Renews the copy of a store that has one,
    /// a piece at a time; a small one, and one that was interrupted for long, at once.
    void look_after();
    /// The same, at once.
    void refresh();
    /// Has the next reading look whether the store is still the one under its name, as a write does.
    void doubt() { m_last_check_ms = 0; }

    /// How full it is.
    [[nodiscard]] Error measure(Usage& usage);

    /// Whether every commit that has reached the data file is visible. (A commit becomes visible to readers an
    /// instant after LMDB has written it; for a writer that was killed in between this does it.) Never waits:
    /// false while a writer in between is alive, who is to be asked about again.
    [[nodiscard]] bool catch_up();

    /// 0 while nothing is open; else another number for every store that this environment has opened.
    [[nodiscard]] unsigned generation() const;
    [[nodiscard]] const std::string& data_file() const { return m_data_file; }

    /// Tells the owner something about this store.
    void report(Severity severity, const std::string& text) const;

private:
    friend class Transaction;
    friend class Read;
    friend class Write;

    /// Not to be used; what open() has failed with, if it has.
    struct Closed {
        Failure failure;
    };
    /// To be used, but not there.
    struct Missing {
        Failure failure;
        FileState seen; ///< the data file after the last attempt
        std::int64_t tried_ms = 0;
    };

    enum class Purpose {
        opening,
        trying, ///< to open it: a failure is not reported
        reading,
        writing,
    };

    [[nodiscard]] Opened* opened() const;
    [[nodiscard]] Opened* use_for_reading();
    [[nodiscard]] Error use_for_writing(Opened*& opened);
    [[nodiscard]] bool is_as_it_should_be(const Opened& opened, Purpose purpose);
    [[nodiscard]] bool is_right_for_writing(Opened& opened);
    [[nodiscard]] bool is_due_for_a_check();
    [[nodiscard]] Error open(Purpose purpose);
    [[nodiscard]] bool may_retry(const Missing& missing, Purpose purpose) const;
    [[nodiscard]] Opened* reopen(base::TimePoint deadline, Purpose purpose);
    [[nodiscard]] Opened* take(std::unique_ptr<Opened> opened);
    [[nodiscard]] base::TimePoint deadline() const;
    [[nodiscard]] Error keep_out(const Opened& opened);
    Error operation_failed(Opened& opened, const char* doing, int code) const;
    void report_about(Severity severity, const std::string& text) const;

    const Layout m_layout;
    std::unique_ptr<CopyKeeper> m_copy_keeper;
    std::string m_directory;
    std::string m_data_file;
    std::variant<Closed, Missing, std::unique_ptr<Opened>> m_state;
    FileState m_last_opened; ///< the data file that was opened last
    unsigned m_generation = 0;
    std::int64_t m_last_check_ms = 0;        ///< of whether the store is still the one under its name
    std::optional<std::uint64_t> m_stuck_at; ///< the last commit when a writer was waited for in vain
};

} // namespace orv::store
