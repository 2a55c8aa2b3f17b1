// Names that are given durably: the file is on disk before, the directory after.

#include "files.h"

#include <orvbase/descriptor.h>
#include <orvbase/io.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>

namespace orv::store {

namespace {

using base::Descriptor;

int write_fully(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? errno : ENOSPC;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

int copy_content(int from, int to)
{
    std::array<char, 16384> buffer{};
    for (;;) {
        const ssize_t count = base::read_some(from, buffer.data(), buffer.size());
        if (count <= 0)
            return count < 0 ? errno : 0;
        if (const int code = write_fully(to, buffer.data(), static_cast<std::size_t>(count)); code != 0)
            return code;
    }
}

} // namespace

FileState to_file_state(const struct stat& status)
{
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

FileState file_state(const std::string& file)
{
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? to_file_state(status) : FileState{};
}

std::string data_file_in(const std::string& directory)
{
    return directory + "/data.mdb";
}

std::string lock_file_in(const std::string& directory)
{
    return directory + "/lock.mdb";
}

std::string copy_file_in(const std::string& directory)
{
    return directory + "/data.mdb.copy";
}

std::string new_copy_file_in(const std::string& directory)
{
    return directory + "/data.mdb.copy.new";
}

std::string new_file_in(const std::string& directory)
{
    return directory + "/data.mdb.new";
}

std::string damaged_file_in(const std::string& directory)
{
    return directory + "/data.mdb.damaged";
}

bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

int allocate(int fd, off_t size)
{
    if (fallocate(fd, 0, 0, size) == 0)
        return 0;
    if (errno != EOPNOTSUPP && errno != ENOSYS)
        return errno;
    // A file system without it: zeros go only where the file does not reach, nobody has mapped that.
    struct stat status {};
    if (fstat(fd, &status) < 0)
        return errno;
    static constexpr char kZeros[1024] = {};
    for (off_t at = status.st_size; at < size;) {
        const auto count = std::min<off_t>(size - at, sizeof kZeros);
        const ssize_t written = pwrite(fd, kZeros, static_cast<std::size_t>(count), at);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? errno : ENOSPC;
        at += written;
    }
    return 0;
}

int copy_file(const std::string& from, const std::string& to)
{
    const Descriptor source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (!source.is_open())
        return errno;
    const Descriptor target(
        open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (!target.is_open())
        return errno;
    if (const int code = copy_content(source.get(), target.get()); code != 0)
        return code;
    return fsync(target.get()) == 0 ? 0 : errno;
}

int rename_durably(const std::string& from, const std::string& to, const std::string& directory)
{
    if (std::rename(from.c_str(), to.c_str()) < 0)
        return errno;
    const Descriptor parent(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    (void)fsync(parent.get()); // as durable as the file system makes it
    return 0;
}

} // namespace orv::store
