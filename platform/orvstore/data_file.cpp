// Whether other processes have the store open is told by a lock on the data file itself, of which each of
// them has a part: the lock file may have been lost with the rest of tmp/.
//
// A file that is damaged has been damaged by a crash of the system, by the medium, or by somebody else. What
// is done about it depends on what it is worth: the volatile store is made anew; a store that others can fill
// again is set aside, and made anew; for the settings their last copy takes its place.
//
// A file of another kind of machine is not damaged: it is left alone, whatever it is worth, for the programs
// that can read it.

#include "data_file.h"

#include "check.h"
#include "files.h"

#include <orvbase/io.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace orv::store {

namespace {

using base::Descriptor;
using Kind = Failure::Kind;

/// Shorter than any page: nothing that LMDB would write.
constexpr std::size_t kMaxBootIdSize = 64;

Descriptor open_to_read(const std::string& file)
{
    return Descriptor(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

/// The first line of a file, empty when it has none. False, with errno set, when that cannot be told now.
bool read_line(const std::string& file, std::string& line)
{
    const Descriptor source = open_to_read(file);
    if (!source.is_open())
        return !is_shortage(errno);
    std::array<char, kMaxBootIdSize> buffer{};
    const ssize_t size = base::read_some(source.get(), buffer.data(), buffer.size());
    if (size < 0)
        return !is_shortage(errno);
    line.assign(buffer.data(), static_cast<std::size_t>(size));
    line.resize(std::min(line.find('\n'), line.size()));
    return true;
}

bool write_line(const std::string& file, const std::string& line)
{
    const Descriptor target(
        ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    const std::string text = line + '\n';
    return target.is_open() &&
           write(target.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// "2026-11-21 04:10", as the log's times are.
std::string to_text(time_t time)
{
    std::tm parts{};
    std::array<char, 32> text{};
    (void)localtime_r(&time, &parts); // a time of a file's is one of the calendar's
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &parts)};
}

} // namespace

DataFile::DataFile(const std::string& directory, const Layout& layout, Failure& failure)
    : m_directory(directory), m_name(data_file_in(directory)), m_layout(layout), m_failure(failure)
{
}

bool DataFile::fail(Kind kind, const char* doing, const char* reason)
{
    m_failure = {kind, m_name, doing, reason};
    return false;
}

bool DataFile::fail(const char* doing, int code)
{
    return fail(Kind::data_file, doing, std::strerror(code));
}

void DataFile::report(Severity severity, const std::string& text) const
{
    if (m_layout.report)
        m_layout.report(severity, std::string("store ") + m_layout.directory + ": " + text);
}

bool DataFile::find()
{
    m_file = open_to_read(m_name);
    m_is_new = !m_file.is_open() && errno == ENOENT;
    if (!m_file.is_open())
        return m_is_new || fail("open the data file", errno);
    m_is_in_use = flock(m_file.get(), LOCK_EX | LOCK_NB) < 0 && errno == EWOULDBLOCK;
    return true;
}

bool DataFile::prepare()
{
    if (!m_layout.synced && !m_is_in_use && !forget_last_boot())
        return false;
    if (m_is_in_use || m_is_new)
        return true;
    const StoreVerdict verdict = check_store_file(m_file.get());
    if (verdict.state == StoreState::unreadable)
        return fail("read the data file", errno);
    if (verdict.state == StoreState::foreign)
        return refuse(verdict.reason);
    m_is_new = verdict.state != StoreState::sound;
    if (verdict.state == StoreState::damaged)
        return mend(verdict.reason);
    if (verdict.state == StoreState::unfinished && truncate(m_name.c_str(), 0) < 0)
        return fail("empty the data file", errno);
    return true;
}

bool DataFile::recognise()
{
    const char* origin = foreign_origin(m_file.get());
    return *origin == '\0' || refuse(origin);
}

bool DataFile::refuse(const char* origin)
{
    return fail(Kind::data_file, "use the data file", origin);
}

/// A file system that outlives a restart of the machine must not make what is volatile do so.
bool DataFile::forget_last_boot()
{
    const std::string file = m_directory + "/boot_id";
    std::string boot;
    std::string last;
    if (!read_line("/proc/sys/kernel/random/boot_id", boot) || !read_line(file, last))
        return fail("tell whether the data file is of the last boot", errno);
    if (boot.empty() || last == boot)
        return true;
    if (!m_is_new && unlink(m_name.c_str()) < 0 && errno != ENOENT)
        return errno == EROFS || fail("remove the data file of the last boot", errno);
    m_is_new = true;
    m_file.reset();
    (void)write_line(file, boot); // without it the store is emptied once more
    return true;
}

bool DataFile::mend(const char* reason)
{
    if (!m_layout.synced) {
        if (unlink(m_name.c_str()) < 0 && errno != ENOENT)
            return fail("remove the damaged data file", errno);
        report(Severity::warning, std::string("its data file was damaged and is created anew: ") + reason);
        return true;
    }
    switch (m_layout.when_damaged) {
    case WhenDamaged::set_aside:
        return set_aside(reason);
    case WhenDamaged::restore:
        return restore(reason);
    case WhenDamaged::refuse:
        break;
    }
    return fail(Kind::damage, "use the data file, it is damaged", reason);
}

bool DataFile::set_aside(const char* reason)
{
    const std::string aside = damaged_file_in(m_directory);
    if (const int code = rename_durably(m_name, aside, m_directory); code != 0)
        return fail("set the damaged data file aside", code);
    report(Severity::error, "its data file was damaged (" + std::string(reason) + "), is now " + aside +
                                ", and is created anew");
    m_file.reset();
    m_is_new = true;
    return true;
}

bool DataFile::restore(const char* reason)
{
    const std::string copy = copy_file_in(m_directory);
    const std::string made = new_file_in(m_directory);
    const std::string aside = damaged_file_in(m_directory);
    const Descriptor file = open_to_read(copy);
    struct stat status {};
    if (!file.is_open() || fstat(file.get(), &status) < 0 ||
        check_store_file(file.get()).state != StoreState::sound)
        return fail(Kind::damage, "use the data file, it is damaged", reason);
    if (const int code = copy_file(copy, made); code != 0)
        return fail("restore the data file from its copy", code);
    // At each moment there is a data file, the damaged or the restored one.
    (void)unlink(aside.c_str());
    const bool is_kept = link(m_name.c_str(), aside.c_str()) == 0;
    const std::string whereabouts =
        is_kept ? "is now " + aside : std::string("cannot be kept: ") + std::strerror(errno);
    if (const int code = rename_durably(made, m_name, m_directory); code != 0)
        return fail("restore the data file from its copy", code);
    report(Severity::error, "its data file was damaged (" + std::string(reason) + "), " + whereabouts +
                                ", and the copy of " + to_text(status.st_mtim.tv_sec) + " is in its place");
    m_is_new = false;
    return true;
}

bool DataFile::give_up(const char* reason)
{
    return m_layout.synced && m_layout.when_damaged == WhenDamaged::set_aside && !m_is_in_use && !m_is_new &&
           set_aside(reason);
}

Descriptor DataFile::mark_use()
{
    m_file.reset();
    Descriptor file = open_to_read(m_name);
    (void)flock(file.get(), LOCK_SH | LOCK_NB); // nobody has all of it: the directory is locked
    return file;
}

} // namespace orv::store
