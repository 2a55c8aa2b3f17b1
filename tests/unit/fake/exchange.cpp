// The message exchange: what the daemon sends is kept, what arrives is what the test delivers.

#include "fake.h"

#include <orvutils/json.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>

using orv::fake::Fake;

namespace orv::fake {

namespace {

Orvex g_handle;

/// A call's text, which shows when the handle is not the one that the daemon was given.
std::string call(const std::string& function, std::string arguments, const Orvex* handle)
{
    if (handle != &g_handle)
        arguments += std::string(arguments.empty() ? "" : ", ") + (handle ? "other handle" : "no handle");
    return function + "(" + arguments + ")";
}

} // namespace

MessageRecord::MessageRecord(const std::string& type, const std::string& data, std::uint64_t id,
                             const std::string& from)
    : m_data(new char[data.size()])
{
    std::memcpy(m_data.get(), data.data(), data.size());
    type.copy(m_message.type, kOrvexMaxName);
    from.copy(m_message.from, kOrvexMaxName);
    m_message.request_id = id;
    m_message.datalen = static_cast<std::uint32_t>(data.size());
    m_message.data = m_data.get();
    if (Fake* fake = Fake::current(); fake && id != 0)
        fake->unanswered.insert(id);
}

Orvex* Fake::connect(void (*callback)(const Message*))
{
    Paused paused;
    event_callback = callback;
    g_handle.fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    name_fd(g_handle.fd, "exchange");
    return &g_handle;
}

void Fake::renew_exchange_fd()
{
    Paused paused;
    const int old = g_handle.fd;
    g_handle.fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    close(old);
    forget_fd(old);
    name_fd(g_handle.fd, "exchange");
}

void Fake::deliver(std::function<void()> action)
{
    Paused paused;
    m_incoming.push_back(std::move(action));
    eventfd_write(g_handle.fd, 1);
}

void Fake::deliver(const std::string& type, const std::string& data, std::uint64_t id,
                   const std::string& from)
{
    deliver([=] {
        const MessageRecord message(type, data, id != 0 ? id : ++last_made_up, from);
        const Inside inside;
        event_callback(message.get());
    });
}

void Fake::answer(const std::string& data, const std::string& type)
{
    deliver([=] {
        const Request request = requests.front();
        requests.erase(requests.begin());
        const MessageRecord message(type, data);
        const Inside inside;
        request.callback(request.arg, message.get());
    });
}

void Fake::read_exchange()
{
    is_reading = true;
    eventfd_t pending = 0;
    (void)eventfd_read(g_handle.fd, &pending);
    while (!m_incoming.empty()) {
        const auto action = std::move(m_incoming.front());
        m_incoming.pop_front();
        action();
    }
    is_reading = false;
}

namespace {

bool is_name(const char* text)
{
    if (!text || *text == '\0' || std::strlen(text) > kOrvexMaxName)
        return false;
    const Fake::Paused paused;
    const JsonPtr name(json_string(text)); // none unless it is UTF-8
    return name != nullptr;
}

/// "participant:name", or a bare name.
bool is_target(const char* text)
{
    const char* colon = text ? std::strchr(text, ':') : nullptr;
    if (!colon)
        return is_name(text);
    const std::string participant(text, colon);
    return !participant.empty() && participant.size() <= kOrvexMaxName &&
           std::isdigit(static_cast<unsigned char>(participant.front())) == 0 &&
           std::all_of(participant.begin(), participant.end(),
                       [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_'; }) &&
           is_name(colon + 1);
}

bool is_payload(const char* data, std::size_t length)
{
    return length <= kOrvexMaxPayload && (data || length == 0);
}

std::string payload_of(const char* data, std::size_t length)
{
    return length == 0 ? std::string() : std::string(data, length);
}

} // namespace

} // namespace orv::fake

Orvex* orvex_init_eventloop(const char* name, void (*event_callback)(const Message*), int flags,
                            int auto_reconnect)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (!name || !event_callback || !orv::fake::is_target((std::string(name) + ":a").c_str()))
        return nullptr;
    if (fake->fails("orvex_init_eventloop(" + std::string(name) + ", " + std::to_string(flags) + ", " +
                    std::to_string(auto_reconnect) + ")"))
        return nullptr;
    return fake->connect(event_callback);
}

int orvex_get_fd(Orvex* orvex)
{
    const Fake::Calm calm;
    return Fake::current()->fails(orv::fake::call("orvex_get_fd", "", orvex)) || !orvex ? -1 : orvex->fd;
}

int orvex_read_fd(Orvex* orvex)
{
    const Fake::Calm calm;
    Fake::current()->note(orv::fake::call("orvex_read_fd", "", orvex));
    if (!orvex || Fake::current()->is_reading)
        return -1;
    Fake::current()->read_exchange();
    return 0;
}

int orvex_subscribe(Orvex* orvex, const char** names, int count)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (count < 0 || (!names && count > 0) || !std::all_of(names, names + count, orv::fake::is_name))
        return -1;
    std::string text;
    for (int i = 0; i < count; ++i)
        text += (text.empty() ? "" : ", ") + std::string(names[i]);
    const bool failing = fake->fails(orv::fake::call("orvex_subscribe", text, orvex));
    if (orvex) // the list is kept even so
        fake->subscribed.assign(names, names + count);
    return failing || !orvex ? -1 : 0;
}

int orvex_send_request(Orvex* orvex, const char* name, const char* data, std::size_t length,
                       void (*response_callback)(void* arg, const Message* response), void* arg)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (!orv::fake::is_target(name) || !orv::fake::is_payload(data, length) || !response_callback)
        return -1;
    const std::string payload = orv::fake::payload_of(data, length);
    if (fake->fails(orv::fake::call("orvex_send_request", std::string(name) + ", " + payload, orvex)) ||
        !orvex)
        return -1;
    fake->requests.push_back({++fake->last_request, name, payload, response_callback, arg});
    return 0;
}

int orvex_send_message(Orvex* orvex, const char* name, const char* data, std::size_t length)
{
    const Fake::Calm calm;
    if (!orv::fake::is_target(name) || !orv::fake::is_payload(data, length))
        return -1;
    const std::string payload = orv::fake::payload_of(data, length);
    const bool failing = Fake::current()->fails(
        orv::fake::call("orvex_send_message", std::string(name) + ", " + payload, orvex));
    return failing || !orvex ? -1 : 0;
}

int orvex_send_response(Orvex* orvex, int status, std::uint64_t request_id, const char* data,
                        std::size_t length)
{
    const Fake::Calm calm;
    if (!orv::fake::is_payload(data, length))
        return -1;
    const bool failing =
        Fake::current()->fails(orv::fake::call("orvex_send_response",
                                               std::to_string(status) + ", " + std::to_string(request_id) +
                                                   ", " + orv::fake::payload_of(data, length),
                                               orvex));
    return failing || !orvex || Fake::current()->unanswered.erase(request_id) == 0 ? -1 : 0;
}

void orvex_uninit(Orvex* orvex)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    fake->note(orv::fake::call("orvex_uninit", "", orvex));
    if (!orvex)
        return;
    fake->requests.clear(); // what is in flight is dropped
    fake->events_in_flight.clear();
    const Fake::Paused paused;
    close(orvex->fd);
    fake->forget_fd(orvex->fd);
    orvex->fd = -1;
}
