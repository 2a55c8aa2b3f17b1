// The connection buffer over real sockets.

#include "base_support.h"
#include "process_support.h"

#include <orvutils/connection_buffer.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <string_view>

namespace {
bool g_memory_is_short = false;
int g_interruptions = 0; ///< of the next calls of recv() and send()

bool is_interrupted()
{
    if (g_interruptions == 0)
        return false;
    --g_interruptions;
    errno = EINTR;
    return true;
}
} // namespace

// The linker sends every call of these functions here.
extern "C" {
ssize_t __real_recv(int fd, void* data, std::size_t size, int flags);
ssize_t __wrap_recv(int fd, void* data, std::size_t size, int flags)
{
    return is_interrupted() ? -1 : __real_recv(fd, data, size, flags);
}

ssize_t __real_send(int fd, const void* data, std::size_t size, int flags);
ssize_t __wrap_send(int fd, const void* data, std::size_t size, int flags)
{
    return is_interrupted() ? -1 : __real_send(fd, data, size, flags);
}

void* __real_realloc(void* old, std::size_t size);
void* __wrap_realloc(void* old, std::size_t size)
{
    return g_memory_is_short ? nullptr : __real_realloc(old, size);
}
}

namespace {

using orv::ConnectionBuffer;
using orv::ConnectionBufferType;

constexpr unsigned kInitial = 4096;
constexpr unsigned kNote = 32; // of the C library, beside a block
constexpr unsigned kInitialCapacity = kInitial - kNote;
constexpr unsigned kMaximum = 4194304;

/// A buffer that is ready for use.
struct Ready : ConnectionBuffer {
    explicit Ready(unsigned initial = kInitial, unsigned maximum = kMaximum,
                   ConnectionBufferType type = ConnectionBufferType::receive)
        : ConnectionBuffer(type, "7")
    {
        EXPECT_TRUE(init(initial, maximum));
    }
};

unsigned put(ConnectionBuffer& buffer, std::string_view text)
{
    return buffer.put(text.data(), static_cast<unsigned>(text.size()));
}

/// The next record, or "(none)".
std::string get(ConnectionBuffer& buffer, char delimiter = '\n')
{
    const std::unique_ptr<char[]> record(buffer.get(delimiter));
    return record ? record.get() : "(none)";
}

void write_all(int fd, std::string_view text)
{
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

/// Everything that can be read from a socket now.
std::string drain(int fd)
{
    std::string text;
    char piece[65536];
    for (ssize_t size = 0; (size = recv(fd, piece, sizeof piece, MSG_DONTWAIT)) > 0;)
        text.append(piece, static_cast<std::size_t>(size));
    return text;
}

TEST(BufferInit, SizesThatMakeNoSenseAreRefused)
{
    ConnectionBuffer buffer(ConnectionBufferType::send, "7");
    EXPECT_FALSE(buffer.init(0, 0));
    EXPECT_FALSE(buffer.init(0, 10));
    EXPECT_FALSE(buffer.init(11, 10));
    EXPECT_FALSE(buffer.init(1, 0x7fffffffU)) << "counts must fit below kWouldBlock";
    EXPECT_FALSE(buffer.init(1, 0xffffffffU));
    EXPECT_TRUE(buffer.init(10, 10));
}

TEST(BufferInit, AllocatesTheInitialSizeButForWhatTheCLibraryNotesBesideIt)
{
    const Ready buffer;
    EXPECT_EQ(buffer.capacity(), kInitialCapacity);
    EXPECT_EQ(buffer.pending(), 0U);
    for (const unsigned size : {1U, 16U, 512U})
        EXPECT_EQ(Ready(size).capacity(), size);
    EXPECT_EQ(Ready(513).capacity(), 513U - kNote);
}

TEST(BufferInit, AgainStartsAnew)
{
    Ready buffer;
    put(buffer, "old\n");
    ASSERT_TRUE(buffer.init(16, 32));
    EXPECT_EQ(buffer.capacity(), 16U);
    EXPECT_EQ(get(buffer), "(none)");
}

void expect_nothing_works(ConnectionBuffer& buffer)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    write_all(ends.second, "x\n");
    EXPECT_EQ(buffer.recv(ends.first, 0), 0);
    EXPECT_EQ(put(buffer, "x\n"), 0U);
    EXPECT_EQ(buffer.get('\n'), nullptr);
    EXPECT_EQ(buffer.send(ends.first, 100), 0);
    buffer.reset();
    buffer.uninit();
    EXPECT_EQ(buffer.pending(), 0U);
    EXPECT_EQ(buffer.capacity(), 0U);
}

TEST(BufferInit, WithoutItEveryOperationIsSafe)
{
    ConnectionBuffer buffer(ConnectionBufferType::send, "7");
    expect_nothing_works(buffer);
}

TEST(BufferInit, AfterUninitEveryOperationIsSafeAndInitPossible)
{
    Ready buffer;
    put(buffer, "x\n");
    buffer.uninit();
    expect_nothing_works(buffer);
    EXPECT_TRUE(buffer.init(kInitial, kMaximum));
    EXPECT_EQ(put(buffer, "y\n"), 2U);
    EXPECT_EQ(get(buffer), "y");
}

TEST(BufferRecv, CountsTheBytesAdded)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    Ready buffer;
    write_all(ends.second, "one\ntwo");
    EXPECT_EQ(buffer.recv(ends.first, 0), 7);
    EXPECT_EQ(buffer.pending(), 7U);
    EXPECT_EQ(get(buffer), "one");
    EXPECT_EQ(get(buffer), "(none)");
    write_all(ends.second, "\n");
    EXPECT_EQ(buffer.recv(ends.first, 0), 1);
    EXPECT_EQ(get(buffer), "two");
}

TEST(BufferRecv, FromASilentSocketIsNoEndOfFileAndNeverBlocks)
{
    const Ends ends = make_sockets(SOCK_STREAM); // blocking ones
    Ready buffer;
    EXPECT_EQ(buffer.recv(ends.first, 0), ConnectionBuffer::kWouldBlock);
    EXPECT_GT(ConnectionBuffer::kWouldBlock, 0);
    EXPECT_EQ(buffer.pending(), 0U);
}

TEST(BufferRecv, EndOfFileIsZeroAndAnErrorMinusOne)
{
    Ends ends = make_sockets(SOCK_STREAM);
    Ready buffer;
    write_all(ends.second, "last");
    ends.second.reset();
    EXPECT_EQ(buffer.recv(ends.first, 0), 4);
    EXPECT_EQ(buffer.recv(ends.first, 0), 0);
    EXPECT_EQ(buffer.recv(-1, 0), -1);
    EXPECT_EQ(buffer.pending(), 4U) << "what was read before is kept";
}

TEST(BufferRecv, GrowsByDoublingUpToTheMaximumAndIsThenZero)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    Ready buffer(16, 100);
    write_all(ends.second, std::string(200, 'x'));
    for (const unsigned capacity : {16U, 32U, 64U, 100U}) {
        EXPECT_GT(buffer.recv(ends.first, 0), 0);
        EXPECT_EQ(buffer.capacity(), capacity);
        EXPECT_EQ(buffer.pending(), capacity);
    }
    EXPECT_EQ(buffer.recv(ends.first, 0), 0);
    EXPECT_EQ(buffer.pending(), 100U);
    EXPECT_EQ(drain(ends.first), std::string(100, 'x')) << "what there is no room for stays in the socket";
}

TEST(BufferRecv, AtTheMaximumGoesOnOnceARecordIsTaken)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    Ready buffer(8, 8);
    write_all(ends.second, "a\nbcdefghij\n");
    EXPECT_EQ(buffer.recv(ends.first, 0), 8);
    EXPECT_EQ(buffer.recv(ends.first, 0), 0);
    EXPECT_EQ(get(buffer), "a");
    EXPECT_EQ(buffer.recv(ends.first, 0), 2);
    EXPECT_EQ(get(buffer), "(none)");
    EXPECT_EQ(buffer.recv(ends.first, 0), 0) << "no record of this length will ever fit";
}

TEST(BufferGet, TakesRecordsOutInOrderWithoutTheirDelimiter)
{
    Ready buffer;
    put(buffer, "one\n\ntwo\nthree");
    EXPECT_EQ(get(buffer), "one");
    EXPECT_EQ(get(buffer), "");
    EXPECT_EQ(get(buffer), "two");
    EXPECT_EQ(get(buffer), "(none)");
    EXPECT_EQ(buffer.pending(), 5U);
    put(buffer, "\n");
    EXPECT_EQ(get(buffer), "three");
    EXPECT_EQ(buffer.pending(), 0U);
}

TEST(BufferGet, TakesOtherDelimitersAndBinaryBytes)
{
    Ready buffer;
    put(buffer, std::string_view("a\xff\nb\0c;", 7));
    const std::unique_ptr<char[]> record(buffer.get(';'));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(std::memcmp(record.get(), "a\xff\nb\0c", 7), 0);
    put(buffer, std::string_view("x\0", 2));
    EXPECT_EQ(get(buffer, '\0'), "x");
}

double cpu_seconds()
{
    timespec spent{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
    return static_cast<double>(spent.tv_sec) + static_cast<double>(spent.tv_nsec) / 1e9;
}

TEST(BufferGet, SearchesALongLineInSmallPiecesInLinearTime)
{
    Ready buffer;
    const std::string piece(8, 'x');
    const double begin = cpu_seconds();
    for (unsigned length = 0; length + 2 * piece.size() <= kMaximum; length += 8) {
        ASSERT_EQ(put(buffer, piece), piece.size());
        ASSERT_EQ(buffer.get('\n'), nullptr);
    }
    put(buffer, "\n");
    EXPECT_EQ(get(buffer), std::string(kMaximum - 8, 'x'));
    EXPECT_LT(cpu_seconds() - begin, 5.0) << "searching from the start each time goes through a tebibyte";
}

TEST(BufferPut, TakesWhatFitsBelowTheMaximum)
{
    Ready buffer(4, 10);
    EXPECT_EQ(put(buffer, "abcdef"), 6U);
    EXPECT_EQ(buffer.capacity(), 8U);
    EXPECT_EQ(put(buffer, "ghijkl"), 4U);
    EXPECT_EQ(buffer.capacity(), 10U);
    EXPECT_EQ(put(buffer, "m"), 0U);
    EXPECT_EQ(buffer.put(nullptr, 0), 0U);
    EXPECT_EQ(get(buffer, 'j'), "abcdefghi");
}

TEST(BufferPut, TakesFourMebibytesAtOnceWithTheLengthBefore)
{
    Ready buffer;
    const std::string text(kMaximum, 't');
    EXPECT_EQ(put(buffer, "1234"), 4U);
    EXPECT_EQ(put(buffer, text), kMaximum - 4);
    EXPECT_EQ(buffer.capacity(), kMaximum);
}

TEST(BufferMemory, AboveTheInitialSizeIsGivenBackWhenEmpty)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    Ready buffer;
    put(buffer, std::string(10000, 'x') + "\n");
    EXPECT_EQ(buffer.capacity(), 4 * kInitialCapacity);
    EXPECT_EQ(get(buffer).size(), 10000U);
    EXPECT_EQ(buffer.capacity(), kInitialCapacity);
    put(buffer, std::string(10000, 'y'));
    EXPECT_EQ(buffer.send(ends.second, 9999), 1);
    EXPECT_EQ(buffer.capacity(), 4 * kInitialCapacity) << "not empty yet";
    EXPECT_EQ(buffer.send(ends.second, 9999), 0);
    EXPECT_EQ(buffer.capacity(), kInitialCapacity);
    put(buffer, std::string(10000, 'z'));
    buffer.reset();
    EXPECT_EQ(buffer.capacity(), kInitialCapacity);
    EXPECT_EQ(put(buffer, "usable\n"), 7U);
    EXPECT_EQ(get(buffer), "usable");
}

TEST(BufferMemory, OfAnIdleConnectionStaysBelowItsBudget)
{
    const Ready buffer;
    EXPECT_LE(2 * (sizeof(ConnectionBuffer) + buffer.capacity() + kNote), 9000U);
}

/// While it lives, no storage grows or shrinks.
struct MemoryShortage {
    MemoryShortage() { g_memory_is_short = true; }
    MemoryShortage(const MemoryShortage&) = delete;
    MemoryShortage& operator=(const MemoryShortage&) = delete;
    ~MemoryShortage() { g_memory_is_short = false; }
};

TEST(BufferMemory, ThatIsShortLimitsABufferToWhatItHas)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    write_all(ends.second, "efgh\n");
    Ready buffer(4, 100);
    {
        const MemoryShortage shortage;
        EXPECT_EQ(put(buffer, "abcdef"), 4U);
        EXPECT_EQ(put(buffer, "ef"), 0U);
        EXPECT_EQ(buffer.recv(ends.first, 0), -1);
        EXPECT_EQ(buffer.capacity(), 4U);
    }
    EXPECT_GT(buffer.recv(ends.first, 0), 0) << "and goes on when there is some again";
    EXPECT_EQ(buffer.recv(ends.first, 0), 1);
    EXPECT_EQ(get(buffer), "abcdefgh");
}

TEST(BufferMemory, ThatIsShortIsToldWithTheBuffersName)
{
    for (const auto& [type, name] : {std::pair(ConnectionBufferType::receive, "receive"),
                                     std::pair(ConnectionBufferType::send, "send")}) {
        const Outcome outcome = in_child([type = type] {
            ConnectionBuffer buffer(type, "7");
            if (!buffer.init(4, 100))
                return -1;
            const MemoryShortage shortage;
            return static_cast<int>(put(buffer, "abcdef"));
        });
        EXPECT_EQ(outcome.status, 4);
        EXPECT_EQ(
            logged(outcome.err),
            std::vector<std::string>{std::string("1 no memory for 8 bytes in the ") + name + " buffer of 7"});
    }
}

TEST(BufferSignals, ThatInterruptReadingOrWritingDoNotEndIt)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    Ready buffer;
    write_all(ends.second, "abc");
    g_interruptions = 2;
    EXPECT_EQ(buffer.recv(ends.first, 0), 3);
    EXPECT_EQ(g_interruptions, 0);
    g_interruptions = 2;
    EXPECT_EQ(buffer.send(ends.first, 3), 0);
    EXPECT_EQ(g_interruptions, 0);
    char text[4] = "";
    EXPECT_EQ(read(ends.second, text, sizeof text), 3);
    EXPECT_STREQ(text, "abc");
}

TEST(BufferMemory, ThatCannotBeGivenBackIsKeptAndUsable)
{
    Ready buffer(4, 100);
    put(buffer, "abcdefghi\n");
    {
        const MemoryShortage shortage;
        EXPECT_EQ(get(buffer), "abcdefghi");
    }
    EXPECT_EQ(buffer.capacity(), 16U);
    EXPECT_EQ(put(buffer, "jkl\n"), 4U);
    EXPECT_EQ(get(buffer), "jkl");
    EXPECT_EQ(buffer.capacity(), 4U) << "given back the next time";
}

TEST(BufferSend, WritesAtMostWhatItIsToldAndCountsTheRest)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    Ready buffer;
    const std::string text(40000, 't');
    put(buffer, text);
    EXPECT_EQ(buffer.send(ends.first, 16384), 40000 - 16384);
    EXPECT_EQ(drain(ends.second).size(), 16384U);
    EXPECT_EQ(buffer.send(ends.first, 16384), 40000 - 2 * 16384);
    EXPECT_EQ(buffer.send(ends.first, 16384), 0);
    EXPECT_EQ(buffer.send(ends.first, 16384), 0) << "empty";
    EXPECT_EQ(drain(ends.second).size(), 40000U - 16384U);
}

TEST(BufferSend, OfNothingSendsNothing)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    Ready buffer;
    put(buffer, "abc");
    EXPECT_EQ(buffer.send(ends.first, 0), 3);
    EXPECT_EQ(buffer.send(ends.first, -1), 3);
    EXPECT_EQ(drain(ends.second), "");
}

TEST(BufferSend, ToAFullSocketIsNoErrorAndNeverBlocks)
{
    const Ends ends = make_sockets(SOCK_STREAM); // blocking ones
    Ready buffer;
    put(buffer, std::string(kMaximum, 't'));
    int pending = static_cast<int>(kMaximum);
    for (int before = pending + 1; pending < before;) {
        before = pending;
        pending = buffer.send(ends.first, 1 << 20);
    }
    EXPECT_GT(pending, 0);
    const std::size_t arrived = drain(ends.second).size();
    EXPECT_EQ(arrived + static_cast<std::size_t>(pending), kMaximum);
}

TEST(BufferSend, ToAPeerThatIsGoneIsAnErrorWithoutASignal)
{
    Ends ends = make_sockets(SOCK_STREAM);
    ends.second.reset();
    const Outcome outcome = in_child([&] { // where SIGPIPE has its deadly default
        Ready buffer;
        put(buffer, "abc");
        return buffer.send(ends.first, 100) == -1 && errno == EPIPE && buffer.pending() == 3 ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
}

/// A buffer and what it should hold, driven through random operations over a pair of sockets.
class Model {
public:
    Model(unsigned seed, unsigned initial, unsigned maximum)
        : m_random(seed), m_buffer(initial, maximum), m_maximum(maximum), m_initial(initial)
    {
    }

    void step()
    {
        switch (below(7)) {
        case 0:
        case 1:
            return receive();
        case 2:
            return append();
        case 3:
        case 4:
            return take();
        case 5:
            return send();
        default:
            return check();
        }
    }

private:
    unsigned below(unsigned end) { return static_cast<unsigned>(m_random() % end); }

    std::string random_text()
    {
        std::string text(below(m_maximum) + 1, ' ');
        std::generate(text.begin(), text.end(),
                      [&] { return below(12) == 0 ? '\n' : static_cast<char>('a' + below(26)); });
        return text;
    }

    void receive()
    {
        const std::string text = random_text();
        write_all(m_ends.second, text);
        m_incoming += text;
        const int received = m_buffer.recv(m_ends.first, 0);
        if (m_expected.size() == m_maximum) {
            ASSERT_EQ(received, 0);
            return;
        }
        ASSERT_GT(received, 0);
        ASSERT_LE(static_cast<std::size_t>(received), m_incoming.size());
        m_expected += m_incoming.substr(0, static_cast<std::size_t>(received));
        m_incoming.erase(0, static_cast<std::size_t>(received));
        ASSERT_LE(m_expected.size(), m_maximum);
    }

    void append()
    {
        const std::string text = random_text();
        const std::size_t fits = std::min<std::size_t>(text.size(), m_maximum - m_expected.size());
        ASSERT_EQ(put(m_buffer, text), fits);
        m_expected += text.substr(0, fits);
    }

    void take()
    {
        const auto end = m_expected.find('\n');
        ASSERT_EQ(get(m_buffer), end == std::string::npos ? "(none)" : m_expected.substr(0, end));
        if (end != std::string::npos)
            m_expected.erase(0, end + 1);
    }

    void send()
    {
        const unsigned limit = below(m_maximum);
        const int left = m_buffer.send(m_ends.first, static_cast<int>(limit));
        ASSERT_GE(left, 0);
        const std::string sent = drain(m_ends.second);
        ASSERT_LE(sent.size(), limit);
        ASSERT_EQ(sent.empty(), limit == 0 || m_expected.empty());
        ASSERT_EQ(sent, m_expected.substr(0, sent.size()));
        m_expected.erase(0, sent.size());
        ASSERT_EQ(static_cast<std::size_t>(left), m_expected.size());
    }

    void check()
    {
        ASSERT_EQ(m_buffer.pending(), m_expected.size());
        ASSERT_LE(m_buffer.capacity(), m_maximum);
        if (m_expected.empty()) {
            ASSERT_EQ(m_buffer.capacity(), m_initial);
        }
    }

    std::mt19937 m_random;
    Ready m_buffer;
    Ends m_ends = make_sockets(SOCK_STREAM);
    std::string m_expected; ///< pending in the buffer
    std::string m_incoming; ///< in the socket, not read yet
    unsigned m_maximum;
    unsigned m_initial;
};

TEST(Buffer, BehavesLikeAPlainStringUnderRandomUse)
{
    for (unsigned seed = 0; seed < 40; ++seed) {
        SCOPED_TRACE(seed);
        Model model(seed, 1 + seed % 9, 9 + seed * 3);
        for (int i = 0; i < 500 && !testing::Test::HasFatalFailure(); ++i)
            model.step();
    }
}

} // namespace
