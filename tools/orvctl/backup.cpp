// The file is written under another name in the same directory and takes its place when it is on disk, so that
// whoever is interrupted keeps the backup that he had.

#include "backup.h"

#include "output.h"

#include <orvbase/descriptor.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace orvctl {
namespace {

using orv::base::Descriptor;

bool report(const std::string& file)
{
    complain("cannot write " + file + ": " + std::strerror(errno));
    return false;
}

/// Removes a file, unless it is to stay.
struct Unfinished {
    ~Unfinished()
    {
        if (!name.empty())
            (void)unlink(name.c_str()); // a leftover is all that a failure means
    }

    std::string name;
};

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t size = ::write(fd, text.data(), text.size());
        if (size < 0 && errno != EINTR)
            return false;
        text.remove_prefix(size > 0 ? static_cast<std::size_t>(size) : 0);
    }
    return true;
}

/// A rename is on disk with its directory; not every file system can be asked for that.
void sync_directory_of(const std::string& file)
{
    const std::size_t slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    const Descriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.is_open())
        (void)fsync(opened.get());
}

} // namespace

bool write_backup(const std::string& file, std::string_view text)
{
    if (file == "-")
        return write_all(STDOUT_FILENO, text) || report("standard output");
    struct stat status {};
    if (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        complain("cannot write " + file + ": no regular file");
        return false;
    }
    Unfinished unfinished{file + ".XXXXXX"};
    const Descriptor opened(mkostemp(unfinished.name.data(), O_CLOEXEC));
    if (!opened.is_open()) {
        unfinished.name.clear();
        return report(file);
    }
    if (!write_all(opened.get(), text) || fsync(opened.get()) < 0 ||
        rename(unfinished.name.c_str(), file.c_str()) < 0)
        return report(file);
    unfinished.name.clear();
    sync_directory_of(file);
    return true;
}

} // namespace orvctl
