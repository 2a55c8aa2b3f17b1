#include "fake.h"

#include <orvbase/error_number.h>

#include <orvutils/log.h>
#include <orvutils/log_control.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>

namespace orv::fake {

namespace {

Fake* g_current = nullptr;
int g_pauses = 0;
bool g_inside = false;

void* json_allocate(std::size_t size)
{
    Fake* fake = Fake::current();
    if (fake && fake->memory_fails("JSON", size))
        return nullptr;
    const Fake::Paused paused;
    return std::malloc(size);
}

} // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line)
{
    return out << "level " << line.level << ": " << line.text;
}

Fake::Fake() : m_previous(g_current)
{
    g_current = this;
    json_set_alloc_funcs(json_allocate, std::free);

    Paused paused;
    name_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "stop");
}

Fake::~Fake()
{
    Paused paused;
    // Timers and sockets are the daemon's to close. These are the platform's, the stop descriptor the
    // caller's.
    for (const char* mine : {"stop", "exchange", "watch"})
        if (fd(mine) >= 0 && name(fd(mine)) == mine)
            close(fd(mine));
    g_current = m_previous;
}

Fake* Fake::current()
{
    return g_pauses == 0 ? g_current : nullptr;
}

Fake::Inside::Inside() : m_before(std::exchange(g_inside, true)) {}

Fake::Inside::~Inside()
{
    g_inside = m_before;
}

Fake::Calm::Calm() : m_before(std::exchange(g_inside, false)) {}

Fake::Calm::~Calm()
{
    g_inside = m_before;
}

bool Fake::is_inside()
{
    return g_inside;
}

Fake::Paused::Paused()
{
    ++g_pauses;
}

Fake::Paused::~Paused()
{
    --g_pauses;
}

// ---- records

Calls Fake::take_calls()
{
    return std::exchange(m_calls, {});
}

namespace {

bool is_beginning(const LogLine& cut, const LogLine& whole)
{
    return cut.cut == whole.text.size() && whole.text.compare(0, cut.text.size(), cut.text) == 0;
}

} // namespace

bool operator==(const LogLine& a, const LogLine& b)
{
    if (a.level != b.level)
        return false;
    if (a.cut != 0 && b.cut == 0)
        return is_beginning(a, b);
    return a.cut == 0 && b.cut != 0 ? is_beginning(b, a) : a.text == b.text && a.cut == b.cut;
}

Calls Fake::take_failed()
{
    return std::exchange(m_failed_texts, {});
}

Logs Fake::take_logs()
{
    return std::exchange(m_logs, {});
}

void Fake::note(std::string text)
{
    m_calls.push_back(std::move(text));
}

namespace {

/// Takes "... (N bytes)" off a message that was cut; N counts the head as well.
void note_cut(LogLine& line, std::size_t head_size)
{
    constexpr std::string_view kMark = "... (";
    const std::size_t mark = line.text.rfind(kMark);
    if (mark == std::string::npos ||
        mark + head_size < log::kMaxText - 3) // 3: a character was not cut through
        return;
    line.cut = std::stoul(line.text.substr(mark + kMark.size())) - head_size;
    line.text.resize(mark);
}

} // namespace

/// A line as print() gets it, from "[file:line][function()]: " on.
void Fake::log(int level, const std::string& line)
{
    const std::string_view end_of_head = "()]: ";
    const auto head = line.find(end_of_head);
    const auto middle = line.find("][");
    const auto colon = line.rfind(':', middle);
    if (line.empty() || line.front() != '[' || head == std::string::npos || middle > head ||
        line.back() != '\n') {
        m_logs.push_back({level, "malformed line: " + line, {}, {}});
        return;
    }
    const auto text = head + end_of_head.size();
    m_logs.push_back({level, line.substr(text, line.size() - text - 1), line.substr(1, colon - 1),
                      line.substr(middle + 2, head - middle - 2)});
    note_cut(m_logs.back(), text);
}

int Fake::fd(const std::string& name) const
{
    const auto found = m_fds.find(name);
    return found == m_fds.end() ? -1 : found->second;
}

std::string Fake::name(int fd) const
{
    const auto found = m_names.find(fd);
    return found == m_names.end() ? "descriptor " + std::to_string(fd) : found->second;
}

void Fake::name_fd(int fd, const std::string& name)
{
    m_names[fd] = name;
    m_fds[name] = fd;
}

void Fake::forget_fd(int fd)
{
    m_names.erase(fd);
}

std::string Fake::next_name(const std::string& kind)
{
    return kind + std::to_string(++m_counts[kind]);
}

// ---- failures

void Fake::fail(std::string call, int occurrence, int error)
{
    m_failures.push_back({std::move(call), occurrence, false, error});
}

void Fake::fail_from(std::string call, int occurrence, int error)
{
    m_failures.push_back({std::move(call), occurrence, true, error});
}

bool Fake::forget_failures()
{
    const bool all_done = std::all_of(m_failures.begin(), m_failures.end(),
                                      [](const Failure& failure) { return failure.occurrence <= 0; });
    m_failures.clear();
    return all_done;
}

bool Fake::is_planned(const std::string& text)
{
    bool planned = false;
    for (Failure& failure : m_failures) {
        if (text.compare(0, failure.call.size(), failure.call) != 0)
            continue;
        --failure.occurrence;
        if (failure.occurrence != 0 && !(failure.onwards && failure.occurrence < 0))
            continue;
        planned = true;
        m_error = failure.error;
    }
    return planned;
}

bool Fake::fails(std::string text)
{
    m_error = 0;
    const bool planned = is_planned(text);
    m_fallible_texts.push_back(text);
    note(text);
    const bool is_due = ++m_fallible == m_fail_nth || (m_fail_onwards && m_fallible > m_fail_nth);
    if (!is_due && !planned)
        return false;
    ++m_failed;
    m_failed_texts.push_back(std::move(text));
    errno = m_error != 0 ? m_error : EIO;
    if (m_error == 0)
        m_error = static_cast<int>(Error::input_output);
    base::set_error(static_cast<Error>(m_error));
    return true;
}

void Fake::fail_nth(std::size_t n, bool onwards)
{
    m_fail_nth = n;
    m_fail_onwards = onwards && n != 0;
}

void Fake::fail_memory(const std::string& kind, unsigned n, bool onwards)
{
    m_memory[kind] = {n, onwards, false};
}

bool Fake::memory_failed(const std::string& kind) const
{
    const auto found = m_memory.find(kind);
    return found != m_memory.end() && found->second.has_failed;
}

bool Fake::memory_fails(const char* kind, std::size_t size)
{
    const auto found = m_memory.find(std::string_view(kind));
    bool fails = size > m_most_memory;
    if (found != m_memory.end()) {
        Shortage& shortage = found->second;
        const bool is_due = shortage.countdown != 0 && --shortage.countdown == 0;
        shortage.has_failed = shortage.has_failed || is_due;
        fails = fails || is_due || (shortage.has_failed && shortage.onwards);
    }
    m_failed += fails ? 1 : 0;
    return fails;
}

// ---- waiting

void Fake::on_wait(std::function<void()> action)
{
    m_script.emplace_back([action = std::move(action)](int epfd, epoll_event* events, int capacity) {
        action();
        return epoll_wait(epfd, events, capacity, 0);
    });
}

void Fake::on_wait_give(std::vector<Ready> batch, std::function<void()> action)
{
    m_script.emplace_back(
        [this, batch = std::move(batch), action = std::move(action)](int, epoll_event* events, int capacity) {
            if (action)
                action();
            int count = 0;
            for (const Ready& ready : batch) {
                if (count == capacity)
                    break;
                events[count] = {};
                events[count].events = ready.events;
                events[count++].data.fd = ready.name.empty() ? ready.fd : fd(ready.name);
            }
            return count;
        });
}

void Fake::on_wait_fail(int error)
{
    m_script.emplace_back([error](int, epoll_event*, int) {
        errno = error;
        return -1;
    });
}

void Fake::on_idle(std::function<bool()> action, int patience, std::function<void()> out_of_patience)
{
    m_idle = std::move(action);
    m_patience = patience;
    m_out_of_patience = std::move(out_of_patience);
}

int Fake::wait(int epfd, epoll_event* events, int capacity, int timeout)
{
    note("epoll_wait(" + std::to_string(capacity) + ", " + std::to_string(timeout) + ")");
    Paused paused;
    if (!m_script.empty()) {
        const Step step = std::move(m_script.front());
        m_script.pop_front();
        return step(epfd, events, capacity);
    }
    if (m_idle) {
        if (++m_busy % m_patience == 0)
            m_out_of_patience();
        const int count = epoll_wait(epfd, events, capacity, 0);
        if (count != 0)
            return count;
        m_busy = 0;
        if (m_idle())
            return epoll_wait(epfd, events, capacity, 0);
        m_idle = nullptr;
    }
    if (m_waits_after_stop++ >
        16) { // with many ready descriptors the stop descriptor can be in a later batch
        std::fputs("the daemon goes on waiting after it was asked to stop\n", stderr);
        std::abort();
    }
    raise_stop();
    return epoll_wait(epfd, events, capacity, 0);
}

void Fake::raise_stop()
{
    Paused paused;
    eventfd_write(fd("stop"), 1);
}

void Fake::expire(const std::string& timer)
{
    Paused paused;
    eventfd_write(fd(timer), 1);
}

void Fake::notify_watch()
{
    Paused paused;
    eventfd_write(fd("watch"), 1);
}

void Fake::notify_watch(std::function<void()> action)
{
    {
        const Paused paused;
        m_notices.push_back(std::move(action));
    }
    notify_watch();
}

std::size_t Fake::read_watch()
{
    std::size_t count = 0;
    for (; !m_notices.empty(); ++count) {
        const auto action = std::move(m_notices.front());
        m_notices.pop_front();
        action();
    }
    return count;
}

} // namespace orv::fake
