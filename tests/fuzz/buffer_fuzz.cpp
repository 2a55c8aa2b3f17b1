// The connection buffer against a plain string that does the same. The input is a sequence of operations: a
// byte says which, the next how much.

#include <orvutils/connection_buffer.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

constexpr unsigned kInitial = 16;
constexpr unsigned kMaximum = 1024;

void require(bool holds, const char* rule)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", rule);
    std::abort();
}

std::string piece(std::size_t length, unsigned seed)
{
    std::string text(length, '\0');
    for (char& c : text)
        c = static_cast<char>("abcdefg\n"[seed++ % 8]);
    return text;
}

class Pair {
public:
    Pair()
    {
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, m_ends) == 0, "sockets");
        require(m_buffer.init(kInitial, kMaximum), "a buffer can be made");
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    ~Pair()
    {
        close(m_ends[0]);
        close(m_ends[1]);
    }

    void put(const std::string& text)
    {
        const unsigned taken = m_buffer.put(text.data(), static_cast<unsigned>(text.size()));
        require(taken == std::min<std::size_t>(text.size(), kMaximum - m_model.size()), "what fits is taken");
        m_model.append(text, 0, taken);
    }
    void receive(const std::string& text)
    {
        require(write(m_ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
        std::size_t left = text.size();
        while (left > 0) {
            const int got = m_buffer.recv(m_ends[0], 0);
            require(got > 0 || m_model.size() == kMaximum, "what is there is read");
            if (got <= 0)
                break;
            m_model.append(text, text.size() - left, static_cast<std::size_t>(got));
            left -= static_cast<std::size_t>(got);
        }
        char drop[kMaximum];
        while (read(m_ends[0], drop, sizeof drop) > 0) {
        }
    }
    void get()
    {
        const std::unique_ptr<char[]> record(m_buffer.get('\n'));
        const std::size_t end = m_model.find('\n');
        require((record != nullptr) == (end != std::string::npos), "a record is there when its end is");
        if (!record)
            return;
        require(m_model.substr(0, end) == record.get(), "the record is what was put in");
        m_model.erase(0, end + 1);
    }
    void send(int most)
    {
        const int left = m_buffer.send(m_ends[0], most);
        std::string sent(kMaximum, '\0');
        const ssize_t got = read(m_ends[1], sent.data(), sent.size());
        sent.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        require(sent.size() <= static_cast<std::size_t>(most), "no more is sent than allowed");
        require(m_model.compare(0, sent.size(), sent) == 0, "what is sent is what was put in");
        m_model.erase(0, sent.size());
        require(left == static_cast<int>(m_model.size()), "what is pending is told");
    }
    void reset()
    {
        m_buffer.reset();
        m_model.clear();
    }
    void check() const
    {
        require(m_buffer.pending() == m_model.size(), "what is pending is counted");
        require(m_buffer.capacity() <= kMaximum, "the buffer stays below its maximum");
        require(!m_model.empty() || m_buffer.capacity() == kInitial, "an empty buffer is small again");
    }

private:
    int m_ends[2] = {-1, -1};
    orv::ConnectionBuffer m_buffer{orv::ConnectionBufferType::receive, "fuzz"};
    std::string m_model;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Pair pair;
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        const unsigned amount = data[i + 1];
        switch (data[i] % 5) {
        case 0:
            pair.put(piece(amount, data[i]));
            break;
        case 1:
            pair.receive(piece(amount, data[i]));
            break;
        case 2:
            pair.get();
            break;
        case 3:
            pair.send(static_cast<int>(amount) + 1);
            break;
        default:
            if (amount < 32)
                pair.reset();
        }
        pair.check();
    }
    return 0;
}
