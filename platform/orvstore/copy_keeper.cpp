// The age of the copy is that of its file, so that all processes together renew it no more often than one
// would. Whether there is something new is told by the number of the last commit, which the copy has taken
// over.
//
// A piece per call keeps each call short, but a commit between two of them is the end of the copy, and what
// was written of it has worn the flash for nothing. So the next attempt is made only after a while; and if
// the copy is overdue by then and the store not left alone, all at once, however large it is. A small one
// always is copied so.

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

constexpr std::size_t kPiece = std::size_t{64} * 1024;
/// What can be copied within one call; slow flash takes some tenths of a second for it.
constexpr std::uint64_t kSmall = std::uint64_t{1024} * 1024;
constexpr milliseconds kLookInterval{1000};
/// A store that is never left alone is copied nevertheless, after so many intervals; and after such a part of
/// one another attempt is made.
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

bool is_small(Opened& opened)
{
    if (opened.begin_read() != 0)
        return false;
    const bool is_small = opened.usage(opened.reader()).used <= kSmall;
    opened.end_read();
    return is_small;
}

} // namespace

void CopyKeeper::look_after(Opened& opened, const std::string& directory)
{
    if (m_layout.when_damaged != WhenDamaged::restore || opened.is_read_only() ||
        (m_layout.renews_copy && !m_layout.renews_copy()))
        return;
    if (m_copy) {
        go_on(opened, directory);
        return;
    }
    const Due due = this->due(opened, directory);
    if (due == Due::not_yet || !opened.begin_copying())
        return;
    if (due == Due::at_once) {
        make_at_once(opened, directory);
        return;
    }
    m_copy = Copy::begin(opened, m_layout, new_copy_file_in(directory));
    if (!m_copy)
        finish(opened, Copy::Progress::failed);
}

CopyKeeper::Due CopyKeeper::due(Opened& opened, const std::string& directory)
{
    const std::int64_t now = base::coarse_now_ms();
    const std::uint64_t commit = opened.written_commit();
    if (commit != m_commit)
        m_commit_ms = now;
    m_commit = commit;
    const bool is_made = m_last_result == Copy::Progress::done;
    const milliseconds pause = is_made ? kLookInterval : m_layout.copy_interval / kOverdue;
    if (now - m_looked_ms < std::min(pause, m_layout.copy_interval).count())
        return Due::not_yet;
    m_looked_ms = now;
    const bool is_idle = now - m_commit_ms >= m_layout.copy_after.count();
    const Descriptor file(::open(copy_file_in(directory).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const milliseconds age = file.is_open() ? age_of(file.get()) : milliseconds::max();
    if (age < m_layout.copy_interval || (!is_idle && age / kOverdue < m_layout.copy_interval))
        return Due::not_yet;
    if (commit == 0 || last_commit_in(file.get()) == commit)
        return Due::not_yet;
    const bool is_never_idle = !is_idle && m_last_result == Copy::Progress::interrupted;
    return is_never_idle || is_small(opened) ? Due::at_once : Due::in_pieces;
}

void CopyKeeper::go_on(Opened& opened, const std::string& directory)
{
    const std::string made = new_copy_file_in(directory); // nothing may throw between its end and ours
    const std::string copy = copy_file_in(directory);
    Copy::Progress progress = m_copy->go_on(opened, kPiece);
    if (progress == Copy::Progress::going_on)
        return;
    if (progress == Copy::Progress::done && rename_durably(made, copy, directory) != 0)
        progress = Copy::Progress::failed;
    finish(opened, progress);
}

void CopyKeeper::make_at_once(Opened& opened, const std::string& directory)
{
    const std::string made = new_copy_file_in(directory);
    const bool is_made =
        Copy::make(opened, m_layout, made) && rename_durably(made, copy_file_in(directory), directory) == 0;
    finish(opened, is_made ? Copy::Progress::done : Copy::Progress::failed);
}

/// Failures in a row are told only once. It is none that the store was written meanwhile.
void CopyKeeper::finish(Opened& opened, Copy::Progress result)
{
    m_copy.reset();
    opened.end_copying();
    if (result == Copy::Progress::failed && m_last_result != result && m_layout.report)
        m_layout.report(Severity::warning, std::string("store ") + m_layout.directory +
                                               ": cannot renew the copy of its data file");
    m_last_result = result;
}

} // namespace orv::store
