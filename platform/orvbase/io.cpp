// A signal may end a system call before it has done anything; it is then simply made again.

#include <orvbase/io.h>

#include <orvbase/descriptor.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace orv::base {

ssize_t read_some(int fd, void* data, std::size_t size)
{
    ssize_t count = 0;
    do
        count = read(fd, data, size);
    while (count == -1 && errno == EINTR);
    return count;
}

bool read_fully(int fd, void* data, std::size_t size, std::uint64_t offset)
{
    auto* to = static_cast<unsigned char*>(data);
    while (size > 0) {
        const ssize_t count = pread(fd, to, size, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        to += count;
        size -= static_cast<std::size_t>(count);
        offset += static_cast<std::uint64_t>(count);
    }
    return true;
}

std::string read_text(const std::string& path, std::size_t limit)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    ssize_t count = file.get() == -1 ? 0 : 1;
    while (count > 0 && text.size() < limit) {
        const std::size_t size = text.size();
        text.resize(limit);
        count = read_some(file.get(), text.data() + size, limit - size);
        text.resize(size + static_cast<std::size_t>(count > 0 ? count : 0));
    }
    return text;
}

} // namespace orv::base
