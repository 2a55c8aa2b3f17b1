#include "exchange_support.h"

#include <orvutils/log_control.h>
#include <orvutils/setmgmt.h>

#include <dbus/dbus.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string_view>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr char kObject[] = "/net/orvane/exchange";
constexpr char kInterface[] = "net.orvane.Exchange1";

std::string bus_name(const std::string& participant)
{
    return "net.orvane.exchange." + participant;
}

void check(bool condition, const char* what)
{
    if (!condition)
        throw std::runtime_error(what);
}

void send_signal(pid_t process, int signal)
{
    if (process > 0)
        check(kill(process, signal) == 0, "kill");
}

std::string read_file(const std::string& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

// ---- the bus

void capture_log()
{
    orv::log::begin_anew();
    testing::internal::CaptureStderr();
}

std::string captured_log()
{
    orv::log::begin_anew();
    std::istringstream log(testing::internal::GetCapturedStderr());
    constexpr std::string_view kMark = "]: last line repeated ";
    std::string all;
    std::string last;
    for (std::string line; std::getline(log, line);) {
        const std::size_t mark = line.find(kMark);
        const unsigned long times =
            mark == std::string::npos ? 1 : std::stoul(line.substr(mark + kMark.size()));
        if (mark == std::string::npos)
            last = line + '\n';
        for (unsigned long i = 0; i < times; ++i)
            all += last;
    }
    return all;
}

Bus::Bus()
{
    char directory[] = "/tmp/exchange-test-XXXXXX";
    check(mkdtemp(directory), "mkdtemp");
    m_root = directory;
    setenv("ORV_ROOT", directory, 1);
    unsetenv("ORVEX_ADDRESS");
}

Bus::~Bus()
{
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(m_root, ignored);
}

bool Bus::start()
{
    int ends[2];
    check(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
    m_process = fork();
    check(m_process >= 0, "fork");
    if (m_process == 0) {
        dup2(ends[1], STDOUT_FILENO);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDERR_FILENO);
        execl(ORVEXCHANGED, "orvexchanged", "--print-address", nullptr);
        _exit(127);
    }
    close(ends[1]);
    char byte = 0;
    const bool is_served = read(ends[0], &byte, 1) == 1; // it prints its address when it listens
    close(ends[0]);
    if (!is_served)
        kill();
    return is_served;
}

void Bus::kill()
{
    if (m_process <= 0)
        return;
    (void)::kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
    m_process = -1;
}

void Bus::suspend()
{
    send_signal(m_process, SIGSTOP);
    int status = 0;
    waitpid(m_process, &status, WUNTRACED); // it has stopped when this returns
}

void Bus::resume()
{
    send_signal(m_process, SIGCONT);
}

void Bus::reload()
{
    send_signal(m_process, SIGHUP);
}

void Bus::change_limit(const std::string& name, const std::string& value)
{
    const std::string installed = m_root + "/etc/exchange.conf";
    const bool is_changed = std::filesystem::exists(installed);
    const std::string text = read_file(is_changed ? installed : m_root + "/run/exchange-private.conf");
    const std::string start = "<limit name=\"" + name + "\">";
    const std::size_t from = text.find(start);
    check(from != std::string::npos, "no such limit");
    std::filesystem::create_directories(m_root + "/etc");
    std::ofstream{installed} << text.substr(0, from) << start << value
                             << text.substr(text.find("</limit>", from));
}

// ---- the raw peer

void UnrefMessage::operator()(DBusMessage* message) const
{
    dbus_message_unref(message);
}

RawPeer::RawPeer(const std::string& address, const std::string& participant)
{
    m_connection = dbus_connection_open_private(address.c_str(), nullptr);
    check(m_connection, "raw peer cannot connect");
    dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
    check(dbus_bus_register(m_connection, nullptr) != FALSE, "raw peer cannot register");
    check(participant.empty() || claim(bus_name(participant)), "raw peer cannot have its name");
}

void RawPeer::leave()
{
    if (!m_connection)
        return;
    dbus_connection_close(m_connection);
    dbus_connection_unref(m_connection);
    m_connection = nullptr;
}

std::string RawPeer::unique_name() const
{
    return dbus_bus_get_unique_name(m_connection);
}

void RawPeer::sync()
{
    const RawMessage call{
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetId")};
    const RawMessage reply{
        dbus_connection_send_with_reply_and_block(m_connection, call.get(), 20000, nullptr)};
    check(reply != nullptr, "the bus does not answer");
}

bool RawPeer::is_there(const std::string& participant)
{
    return dbus_bus_name_has_owner(m_connection, bus_name(participant).c_str(), nullptr) != FALSE;
}

bool RawPeer::claim(const std::string& bus_name)
{
    return dbus_bus_request_name(m_connection, bus_name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr) ==
           DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
}

std::uint32_t RawPeer::send(const RawMessage& message)
{
    dbus_uint32_t serial = 0;
    check(dbus_connection_send(m_connection, message.get(), &serial) != FALSE, "raw peer cannot send");
    dbus_connection_flush(m_connection);
    return serial;
}

void RawPeer::emit(const std::string& name, const std::string& data, std::uint64_t identifier)
{
    const RawMessage signal = raw_signal("Event");
    add_text(*signal, name);
    add_text(*signal, "raw");
    add_number(*signal, identifier);
    add_bytes(*signal, data);
    send(signal);
}

std::uint32_t RawPeer::call(const std::string& participant, const char* member, const std::string& name,
                            const std::string& data, bool wants_reply)
{
    const RawMessage message = raw_call(participant, member);
    dbus_message_set_no_reply(message.get(), wants_reply ? FALSE : TRUE);
    add_text(*message, name);
    add_bytes(*message, data);
    return send(message);
}

void RawPeer::answer(DBusMessage& request, const std::string& type, const std::string& data)
{
    const RawMessage reply = raw_reply(request);
    add_text(*reply, type);
    add_bytes(*reply, data);
    send(reply);
}

void RawPeer::answer_with_error(DBusMessage& request, const std::string& text)
{
    send(RawMessage{dbus_message_new_error(&request, "net.orvane.Test.Failed", text.c_str())});
}

RawMessage RawPeer::receive(milliseconds within)
{
    const auto end = steady_clock::now() + within;
    do {
        RawMessage message{dbus_connection_pop_message(m_connection)};
        if (message && dbus_message_has_sender(message.get(), DBUS_SERVICE_DBUS) &&
            dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_SIGNAL)
            continue;
        if (message)
            return message;
        dbus_connection_read_write(m_connection,
                                   static_cast<int>(std::min(within, milliseconds{100}).count()));
    } while (steady_clock::now() < end);
    return nullptr;
}

std::string text_of(const RawMessage& message)
{
    const char* text = "";
    if (!dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID))
        return {};
    return text;
}

RawMessage raw_call(const std::string& participant, const char* member, const char* interface)
{
    return RawMessage{
        dbus_message_new_method_call(bus_name(participant).c_str(), kObject, interface, member)};
}

RawMessage raw_signal(const char* member)
{
    return RawMessage{dbus_message_new_signal(kObject, kInterface, member)};
}

RawMessage raw_reply(DBusMessage& request)
{
    return RawMessage{dbus_message_new_method_return(&request)};
}

RawMessage raw_reply(std::uint32_t serial)
{
    RawMessage reply{dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN)};
    check(dbus_message_set_reply_serial(reply.get(), serial) != FALSE, "reply serial");
    return reply;
}

void add_text(DBusMessage& message, const std::string& text)
{
    const char* value = text.c_str();
    check(dbus_message_append_args(&message, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID) != FALSE, "text");
}

void add_bytes(DBusMessage& message, const std::string& bytes)
{
    const char* value = bytes.data();
    check(dbus_message_append_args(&message, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &value,
                                   static_cast<int>(bytes.size()), DBUS_TYPE_INVALID) != FALSE,
          "bytes");
}

void add_count(DBusMessage& message, std::uint32_t count)
{
    const dbus_uint32_t value = count;
    check(dbus_message_append_args(&message, DBUS_TYPE_UINT32, &value, DBUS_TYPE_INVALID) != FALSE, "count");
}

void add_number(DBusMessage& message, std::uint64_t number)
{
    const dbus_uint64_t value = number;
    check(dbus_message_append_args(&message, DBUS_TYPE_UINT64, &value, DBUS_TYPE_INVALID) != FALSE, "number");
}

void add_descriptor(DBusMessage& message, int fd)
{
    check(dbus_message_append_args(&message, DBUS_TYPE_UNIX_FD, &fd, DBUS_TYPE_INVALID) != FALSE, "add");
}

std::string marshalled(DBusMessage& message)
{
    char* bytes = nullptr;
    int size = 0;
    dbus_message_set_serial(&message, 1);
    check(dbus_message_marshal(&message, &bytes, &size) != FALSE, "marshal");
    std::string result(bytes, static_cast<std::size_t>(size));
    dbus_free(bytes);
    return result;
}

std::string member_of(const RawMessage& message)
{
    const char* member = message ? dbus_message_get_member(message.get()) : nullptr;
    return member ? member : "";
}

bool wants_reply(const RawMessage& message)
{
    return !dbus_message_get_no_reply(message.get());
}

std::uint32_t reply_serial_of(const RawMessage& message)
{
    return message ? dbus_message_get_reply_serial(message.get()) : 0;
}

std::string error_of(const RawMessage& message)
{
    const char* name = message ? dbus_message_get_error_name(message.get()) : nullptr;
    return name ? name : "";
}

std::optional<RawContent> content_of(const RawMessage& message)
{
    const char* text = "";
    const char* bytes = nullptr;
    dbus_uint64_t number = 0;
    int size = 0;
    if (!message)
        return std::nullopt;
    if (dbus_message_has_signature(message.get(), "say"))
        dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_ARRAY,
                              DBUS_TYPE_BYTE, &bytes, &size, DBUS_TYPE_INVALID);
    else if (dbus_message_has_signature(message.get(), "tay"))
        dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_UINT64, &number, DBUS_TYPE_ARRAY,
                              DBUS_TYPE_BYTE, &bytes, &size, DBUS_TYPE_INVALID);
    else
        return std::nullopt;
    return RawContent{text, number, std::string(bytes, static_cast<std::size_t>(size))};
}

// ---- the library's side

std::ostream& operator<<(std::ostream& out, const Received& received)
{
    return out << received.type << " from " << received.from << ": " << received.data.substr(0, 200);
}

namespace {

Received copy_of(const Message& message)
{
    return {message.type, message.from, message.request_id, std::string(message.data, message.datalen)};
}

} // namespace

void Answers::take(void* self, const Message* message)
{
    auto& answers = *static_cast<Answers*>(self);
    answers.all.push_back(copy_of(*message));
    if (answers.also)
        answers.also(*message);
}

bool is_readable(int fd, milliseconds within)
{
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(within.count())) == 1;
}

bool serve_until(Orvex* orvex, const std::function<bool()>& condition)
{
    const auto end = steady_clock::now() + kPatience;
    while (!condition()) {
        if (steady_clock::now() >= end)
            return false;
        if (is_readable(orvex_get_fd(orvex), milliseconds{50}))
            (void)orvex_read_fd(orvex);
    }
    return true;
}

int open_descriptors()
{
    orv::log::begin_anew(); // it has one of its own where standard error is a pipe
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

std::optional<milliseconds> time_to_alarm()
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the iterator's own
        if (std::filesystem::read_symlink(entry.path(), gone) != "anon_inode:[timerfd]")
            continue;
        std::ifstream info("/proc/self/fdinfo" / entry.path().filename());
        long long seconds = 0;
        long long nanoseconds = 0;
        for (std::string line; std::getline(info, line);)
            if (std::sscanf(line.c_str(), "it_value: (%lld, %lld)", &seconds, &nanoseconds) == 2 &&
                seconds + nanoseconds > 0)
                return milliseconds{seconds * 1000 + nanoseconds / 1000000};
    }
    return std::nullopt;
}

std::vector<Received> ExchangeTest::s_received;
std::function<void(const Message&)> ExchangeTest::s_also;

void ExchangeTest::SetUp()
{
    s_received.clear();
    s_also = nullptr;
    ASSERT_TRUE(m_bus.start());
    ASSERT_EQ(orv::setMgmt::init(), 0);
    m_broker = join("broker");
    ASSERT_NE(m_broker, nullptr);
}

void ExchangeTest::TearDown()
{
    m_broker.reset();
    orv::setMgmt::uninit();
}

OrvexPtr ExchangeTest::join(const char* name, int auto_reconnect)
{
    const auto callback = [](const Message* message) {
        s_received.push_back(copy_of(*message));
        if (s_also)
            s_also(*message);
    };
    return OrvexPtr{orvex_init_eventloop(name, callback, 0, auto_reconnect)};
}

void ExchangeTest::rejoin_with_request_time(milliseconds time)
{
    m_broker.reset();
    ASSERT_EQ(orv::setMgmt::setKey("/exchange/request_timeout_ms", std::to_string(time.count())), 0);
    m_broker = join("broker");
    ASSERT_NE(m_broker, nullptr);
}

int ExchangeTest::subscribe(std::vector<const char*> names)
{
    return orvex_subscribe(m_broker.get(), names.data(), static_cast<int>(names.size()));
}

bool ExchangeTest::subscribe_and_wait(std::vector<const char*> names)
{
    Answers barrier;
    return subscribe(std::move(names)) == 0 &&
           orvex_send_request(m_broker.get(), "nobody:wait", "", 0, Answers::take, &barrier) == 0 &&
           serve_until([&] { return !barrier.all.empty(); });
}

int ExchangeTest::request(const char* name, const std::string& data)
{
    return orvex_send_request(m_broker.get(), name, data.data(), data.size(), Answers::take, &m_answers);
}
