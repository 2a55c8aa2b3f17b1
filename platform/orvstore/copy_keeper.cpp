// The age of the copy is that of its file, so that all processes together renew it no more often than one would.
// Whether there is something new is told by the number of the last commit, which the copy has taken over.

#include "copy_keeper.h"

#include "check.h"
#include "files.h"
#include "opened.h"

#include <orvbase/clock.h>
#include <orvbase/descriptor.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>

namespace orv::store {

namespace {

using base::Descriptor;
using std::chrono::milliseconds;

constexpr std::size_t kCopiedAtOnce = std::size_t{64} * 1024;
constexpr milliseconds kLookInterval{1000};
/// A store that is never left alone is copied nevertheless, after so many intervals.
constexpr int kOverdue = 10;

/// How long ago a file was written; for ever, if that is in the future.
milliseconds age_of(int fd)
{
    struct stat status {};
    const time_t now = time(nullptr);
    if (fstat(fd, &status) < 0 || status.st_mtim.tv_sec > now)
        return milliseconds::max();
    return std::chrono::seconds{now - status.st_mtim.tv_sec};
}

} // namespace

void CopyKeeper::look_after(Opened& opened, const std::string& directory)
{
    if (m_layout.when_damaged != WhenDamaged::restore || opened.is_read_only())
        return;
    if (m_copy) {
        go_on(opened, directory);
        return;
    }
    if (!is_due(opened, directory) || !opened.begin_copying())
        return;
    m_copy = Copy::begin(opened, m_layout, new_copy_file_in(directory));
    if (m_copy)
        return;
    opened.end_copying();
    note_result(/*has_failed=*/true);
}

bool CopyKeeper::is_due(const Opened& opened, const std::string& directory)
{
    const std::int64_t now = base::coarse_now_ms();
    const std::uint64_t commit = opened.written_commit();
    if (commit != m_commit)
        m_commit_ms = now;
    m_commit = commit;
    const milliseconds pause = m_has_failed ? m_layout.copy_interval / kOverdue : kLookInterval;
    if (now - m_looked_ms < std::min(pause, m_layout.copy_interval).count())
        return false;
    m_looked_ms = now;
    const bool is_idle = now - m_commit_ms >= m_layout.copy_after.count();
    const Descriptor file(::open(copy_file_in(directory).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const milliseconds age = file.is_open() ? age_of(file.get()) : milliseconds::max();
    if (age < m_layout.copy_interval || (!is_idle && age / kOverdue < m_layout.copy_interval))
        return false;
    return commit > 0 && last_commit_in(file.get()) != commit;
}

void CopyKeeper::go_on(Opened& opened, const std::string& directory)
{
    const std::string made = new_copy_file_in(directory); // nothing may throw between its end and ours
    const std::string copy = copy_file_in(directory);
    const Copy::Progress progress = m_copy->go_on(opened, kCopiedAtOnce);
    if (progress == Copy::Progress::going_on)
        return;
    const bool is_made = progress == Copy::Progress::done && rename_durably(made, copy, directory) == 0;
    m_copy.reset();
    opened.end_copying();
    // It is no failure that the store was written meanwhile.
    note_result(/*has_failed=*/!is_made && opened.written_commit() == m_commit);
}

/// Failures in a row are told only once.
void CopyKeeper::note_result(bool has_failed)
{
    if (has_failed && !m_has_failed && m_layout.report)
        m_layout.report(Severity::warning, std::string("store ") + m_layout.directory +
                                               ": cannot renew the copy of its data file");
    m_has_failed = has_failed;
}

} // namespace orv::store
