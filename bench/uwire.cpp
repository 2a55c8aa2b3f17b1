#include "uwire.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <endian.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace uwire {

std::uint64_t now_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u + static_cast<std::uint64_t>(ts.tv_nsec);
}

void die(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputc('\n', stderr);
    exit(1);
}

// ---- sockets ---------------------------------------------------------------

namespace {

struct Address {
    sockaddr_storage storage{};
    socklen_t size = 0;
    int family = AF_UNIX;
};

std::uint16_t parse_port(const char* text)
{
    char* end = nullptr;
    const long port = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || port < 0 || port > UINT16_MAX)
        die("bad port: %s", text);
    return static_cast<std::uint16_t>(port);
}

Address parse_address(const std::string& text)
{
    Address a;
    if (text.compare(0, 4, "tcp:") == 0) {
        auto* in = reinterpret_cast<sockaddr_in*>(&a.storage);
        in->sin_family = AF_INET;
        in->sin_port = htons(parse_port(text.c_str() + 4));
        in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.size = sizeof *in;
        a.family = AF_INET;
        return a;
    }
    auto* un = reinterpret_cast<sockaddr_un*>(&a.storage);
    un->sun_family = AF_UNIX;
    if (text.empty() || text.size() >= sizeof un->sun_path)
        die("bad address: %s", text.c_str());
    memcpy(un->sun_path, text.data(), text.size());
    a.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
    if (text[0] == '@')
        un->sun_path[0] = '\0';
    else
        a.size += 1;
    return a;
}

} // namespace

int connect_to(const std::string& address)
{
    Address a = parse_address(address);
    int fd = socket(a.family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<sockaddr*>(&a.storage), a.size) < 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    if (a.family == AF_INET) {
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    return fd;
}

int must_connect(const std::string& address)
{
    int fd = connect_to(address);
    if (fd < 0)
        die("connect %s: %s", address.c_str(), strerror(errno));
    return fd;
}

int listen_on(const std::string& address, int backlog)
{
    Address a = parse_address(address);
    int fd = socket(a.family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (address[0] == '/')
        unlink(address.c_str());
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a.storage), a.size) < 0 || listen(fd, backlog) < 0)
        die("listen %s: %s", address.c_str(), strerror(errno));
    return fd;
}

void write_all(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            die("write: %s", strerror(errno));
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

void raise_fd_limit()
{
    rlimit r{};
    if (getrlimit(RLIMIT_NOFILE, &r) == 0) {
        r.rlim_cur = r.rlim_max;
        setrlimit(RLIMIT_NOFILE, &r);
    }
}

std::size_t read_frame(int fd, Framing& framing, std::vector<char>& buffer)
{
    if (buffer.size() < 4096)
        buffer.resize(4096);
    std::size_t have = 0;
    for (;;) {
        if (have == buffer.size())
            buffer.resize(buffer.size() * 2);
        ssize_t n = read(fd, buffer.data() + have, buffer.size() - have);
        if (n == 0)
            die("the peer closed the connection");
        if (n < 0) {
            if (errno == EINTR)
                continue;
            die("read: %s", strerror(errno));
        }
        have += static_cast<std::size_t>(n);
        std::size_t size = framing.frame(buffer.data(), have);
        if (size != 0 && size <= have)
            return size;
    }
}

// ---- framings --------------------------------------------------------------

namespace {

class Len32 : public Framing {
public:
    enum class Order { detect, little, big };
    explicit Len32(Order order) : m_order(order) {}
    std::string encode(const std::string& text) override { return text + '\n'; }
    std::size_t frame(const char* data, std::size_t size) override
    {
        if (size < 4)
            return 0;
        std::uint32_t raw = 0;
        memcpy(&raw, data, 4);
        std::uint32_t little = le32toh(raw), big = be32toh(raw);
        if (m_order == Order::detect)
            m_order = little <= big ? Order::little : Order::big;
        std::size_t total = 4 + static_cast<std::size_t>(m_order == Order::little ? little : big);
        return size >= total ? total : 0;
    }

private:
    Order m_order;
};

class Echo : public Framing {
public:
    explicit Echo(std::size_t size) : m_size(size) {}
    std::string encode(const std::string& text) override { return text; }
    std::size_t frame(const char*, std::size_t size) override { return size >= m_size ? m_size : 0; }

private:
    std::size_t m_size;
};

class Delimited : public Framing {
public:
    explicit Delimited(char end) : m_end(end) {}
    std::string encode(const std::string& text) override { return text + m_end; }
    std::size_t frame(const char* data, std::size_t size) override
    {
        auto* p = static_cast<const char*>(memchr(data, m_end, size));
        return p ? static_cast<std::size_t>(p - data) + 1 : 0;
    }

private:
    char m_end;
};

// The first words of text, and the rest as the last element.
std::vector<std::string> words(const std::string& text, std::size_t most)
{
    std::vector<std::string> out;
    std::size_t at = 0;
    while (at < text.size() && out.size() + 1 < most) {
        std::size_t end = text.find(' ', at);
        if (end == std::string::npos)
            break;
        out.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    out.push_back(text.substr(at));
    return out;
}

class Resp : public Framing {
public:
    std::string encode(const std::string& text) override
    {
        auto parts = words(text, 3);
        std::string out = "*" + std::to_string(parts.size()) + "\r\n";
        for (auto& p : parts)
            out += "$" + std::to_string(p.size()) + "\r\n" + p + "\r\n";
        return out;
    }
    std::size_t frame(const char* data, std::size_t size) override
    {
        auto* p = static_cast<const char*>(memchr(data, '\n', size));
        if (!p)
            return 0;
        std::size_t head = static_cast<std::size_t>(p - data) + 1;
        if (data[0] == '$') {
            long n = std::strtol(data + 1, nullptr, 10);
            std::size_t total = n < 0 ? head : head + static_cast<std::size_t>(n) + 2;
            return size >= total ? total : 0;
        }
        if (data[0] != '*')
            return head;
        std::size_t total = head;
        for (long n = std::strtol(data + 1, nullptr, 10); n > 0; --n) {
            std::size_t part = total < size ? frame(data + total, size - total) : 0;
            if (part == 0)
                return 0;
            total += part;
        }
        return total;
    }
    int subscription_acks() const override { return 1; }
};

class Mqtt : public Framing {
public:
    void greet(int fd) override
    {
        static const char connect[] = "\x10\x0c\x00\x04MQTT\x04\x02\x00\x00\x00\x00"; // clean, no keepalive
        write_all(fd, connect, 14);
        std::vector<char> buffer;
        read_frame(fd, *this, buffer);
        if ((buffer[0] & 0xf0) != 0x20 || buffer[3] != 0)
            die("mqtt: connection refused");
    }
    std::string encode(const std::string& text) override
    {
        auto parts = words(text, 3);
        if (parts[0] == "ping")
            return std::string("\xc0\x00", 2);
        std::string body;
        if (parts[0] == "sub") {
            body = std::string("\x00\x01", 2) + field(parts.at(1)) + '\0';
            return packet('\x82', body);
        }
        body = field(parts.at(1));
        if (parts[0] == "pub1")
            body += std::string("\x00\x02", 2);
        body += parts.at(2);
        return packet(parts[0] == "pub1" ? '\x32' : '\x30', body);
    }
    std::size_t frame(const char* data, std::size_t size) override
    {
        std::size_t value = 0, at = 1;
        for (unsigned shift = 0;; shift += 7) {
            if (at >= size)
                return 0;
            auto byte = static_cast<std::uint8_t>(data[at++]);
            value |= static_cast<std::size_t>(byte & 0x7f) << shift;
            if (!(byte & 0x80))
                break;
        }
        return size >= at + value ? at + value : 0;
    }
    int subscription_acks() const override { return 1; }

private:
    static std::string field(const std::string& s)
    {
        return std::string{static_cast<char>(s.size() >> 8), static_cast<char>(s.size() & 0xff)} + s;
    }
    static std::string packet(char type, const std::string& body)
    {
        std::string out(1, type);
        std::size_t n = body.size();
        do {
            out += static_cast<char>((n & 0x7f) | (n > 0x7f ? 0x80 : 0));
            n >>= 7;
        } while (n);
        return out + body;
    }
};

class Dbus : public Framing {
public:
    void greet(int fd) override
    {
        std::string hex;
        for (char c : std::to_string(getuid())) {
            char two[3];
            snprintf(two, sizeof two, "%02x", static_cast<unsigned>(static_cast<std::uint8_t>(c)));
            hex += two;
        }
        std::string auth = '\0' + ("AUTH EXTERNAL " + hex + "\r\n");
        write_all(fd, auth.data(), auth.size());
        Delimited line('\n');
        std::vector<char> buffer;
        read_frame(fd, line, buffer);
        if (strncmp(buffer.data(), "OK ", 3) != 0)
            die("dbus: authentication refused");
        std::string hello = "BEGIN\r\n" + encode("call org.freedesktop.DBus "
                                                 "/org/freedesktop/DBus org.freedesktop.DBus Hello");
        write_all(fd, hello.data(), hello.size());
        // The answer to Hello and the NameAcquired signal, in either order.
        std::vector<char> in(4096);
        std::size_t have = 0;
        for (int frames = 0; frames < 2;) {
            ssize_t n = read(fd, in.data() + have, in.size() - have);
            if (n <= 0)
                die("dbus: no answer to Hello");
            have += static_cast<std::size_t>(n);
            while (std::size_t size = frame(in.data(), have)) {
                memmove(in.data(), in.data() + size, have - size);
                have -= size;
                ++frames;
            }
        }
    }
    std::string encode(const std::string& text) override
    {
        auto p = words(text, 5);
        if (p[0] == "event")
            return message(4, "", "/net/orvane/exchange", "net.orvane.Exchange1", "Event", "sstay",
                           event_body(words(text, 3)));
        if (p[0] == "call")
            return message(1, p.at(1), p.at(2), p.at(3), p.at(4), "", "");
        if (p[0] == "signal")
            return message(4, "", p.at(1), p.at(2), p.at(3), "s", string_body(p.at(4)));
        return message(1, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "AddMatch",
                       "s", string_body(words(text, 2).at(1)));
    }
    std::size_t frame(const char* data, std::size_t size) override
    {
        if (size < 16)
            return 0;
        std::uint32_t body = 0, fields = 0;
        memcpy(&body, data + 4, 4);
        memcpy(&fields, data + 12, 4);
        if (data[0] == 'B') {
            body = be32toh(body);
            fields = be32toh(fields);
        }
        std::size_t total =
            16 + ((static_cast<std::size_t>(fields) + 7) & ~static_cast<std::size_t>(7)) + body;
        return size >= total ? total : 0;
    }
    int subscription_acks() const override { return 1; }

private:
    static void align(std::string& s, std::size_t to)
    {
        while (s.size() % to)
            s += '\0';
    }
    static void put32(std::string& s, std::uint32_t v)
    {
        v = htole32(v);
        s.append(reinterpret_cast<char*>(&v), 4);
    }
    static void header(std::string& s, char code, char type, const std::string& v)
    {
        align(s, 8);
        s += code;
        s += '\1';
        s += type;
        s += '\0';
        if (type == 'g')
            s += static_cast<char>(v.size());
        else
            put32(s, static_cast<std::uint32_t>(v.size()));
        s += v;
        s += '\0';
    }
    static void put_string(std::string& s, const std::string& text)
    {
        align(s, 4);
        put32(s, static_cast<std::uint32_t>(text.size()));
        s += text + '\0';
    }
    static std::string string_body(const std::string& text)
    {
        std::string body;
        put_string(body, text);
        return body;
    }
    // The exchange's event: its name, who sends it, an identifier, the payload.
    static std::string event_body(const std::vector<std::string>& p)
    {
        std::string body;
        put_string(body, p.at(1));
        put_string(body, "bench");
        align(body, 8);
        body += std::string("\1\0\0\0\0\0\0\0", 8);
        put32(body, static_cast<std::uint32_t>(p.at(2).size()));
        return body + p.at(2);
    }
    static std::string message(char type, const std::string& dest, const std::string& path,
                               const std::string& iface, const std::string& member,
                               const std::string& signature, const std::string& body)
    {
        std::string fields; // starts at offset 16, so 8-aligned on its own
        header(fields, 1, 'o', path);
        header(fields, 2, 's', iface);
        header(fields, 3, 's', member);
        if (!dest.empty())
            header(fields, 6, 's', dest);
        if (!signature.empty())
            header(fields, 8, 'g', signature);
        std::string out{'l', type, '\0', '\1'};
        put32(out, static_cast<std::uint32_t>(body.size()));
        put32(out, 1);
        put32(out, static_cast<std::uint32_t>(fields.size()));
        out += fields;
        align(out, 8);
        return out + body;
    }
};

} // namespace

std::unique_ptr<Framing> make_framing(const std::string& name, std::size_t echo_size)
{
    using Order = Len32::Order;
    if (name == "newline-len32")
        return std::make_unique<Len32>(Order::detect);
    if (name == "newline-len32le")
        return std::make_unique<Len32>(Order::little);
    if (name == "newline-len32be")
        return std::make_unique<Len32>(Order::big);
    if (name == "echo")
        return std::make_unique<Echo>(echo_size);
    if (name == "line")
        return std::make_unique<Delimited>('\n');
    if (name == "nul")
        return std::make_unique<Delimited>('\0');
    if (name == "resp")
        return std::make_unique<Resp>();
    if (name == "mqtt")
        return std::make_unique<Mqtt>();
    if (name == "dbus")
        return std::make_unique<Dbus>();
    die("no such framing: %s (there are: %s)", name.c_str(), framing_names());
}

const char* framing_names()
{
    return "newline-len32[le|be] echo line nul resp mqtt dbus";
}

// ---- numbers ---------------------------------------------------------------

std::size_t Histogram::index(std::uint64_t ns)
{
    if (ns < kSub)
        return static_cast<std::size_t>(ns);
    unsigned shift = 63u - static_cast<unsigned>(__builtin_clzll(ns)) - (kSubBits - 1);
    return static_cast<std::size_t>(shift) * (kSub / 2) + static_cast<std::size_t>(ns >> shift);
}

std::uint64_t Histogram::value(std::size_t index)
{
    if (index < kSub)
        return index;
    std::size_t shift = index / (kSub / 2) - 1;
    return static_cast<std::uint64_t>(index - shift * (kSub / 2)) << shift;
}

void Histogram::add(std::uint64_t ns)
{
    m_buckets[index(ns)]++;
    m_count++;
    if (ns > m_max)
        m_max = ns;
}

void Histogram::merge(const Histogram& other)
{
    for (std::size_t i = 0; i < m_buckets.size(); ++i)
        m_buckets[i] += other.m_buckets[i];
    m_count += other.m_count;
    if (other.m_max > m_max)
        m_max = other.m_max;
}

double Histogram::percentile_us(double p) const
{
    if (m_count == 0)
        return 0;
    auto want = static_cast<std::uint64_t>(static_cast<double>(m_count) * p / 100.0);
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < m_buckets.size(); ++i) {
        seen += m_buckets[i];
        if (seen > want)
            return static_cast<double>(value(i)) / 1e3;
    }
    return max_us();
}

std::uint64_t cpu_ns(const std::vector<int>& pids)
{
    std::uint64_t total = 0;
    for (int pid : pids) {
        std::string dir = "/proc/" + std::to_string(pid) + "/task";
        DIR* d = opendir(dir.c_str());
        if (!d)
            continue;
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.')
                continue;
            std::string file = dir + "/" + e->d_name + "/schedstat";
            if (FILE* f = fopen(file.c_str(), "re")) {
                unsigned long long ns = 0;
                if (fscanf(f, "%llu", &ns) == 1)
                    total += ns;
                fclose(f);
            }
        }
        closedir(d);
    }
    return total;
}

std::uint64_t own_cpu_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    std::uint64_t ns =
        static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u + static_cast<std::uint64_t>(ts.tv_nsec);
    rusage r{};
    getrusage(RUSAGE_CHILDREN, &r);
    ns += static_cast<std::uint64_t>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000000000u;
    return ns + static_cast<std::uint64_t>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) * 1000u;
}

} // namespace uwire
