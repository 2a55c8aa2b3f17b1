// What somebody who listens in the daemon's place can answer the client library with. The input's first byte
// says what the client does; the rest is sent to it, and then the connection ends. What the library gives its
// caller is what is found in another way.

#include "input.h"
#include "require.h"

#include <orvbroker/client.h>

#include <jansson.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

using namespace orvbroker;
using orv::fuzz::Input;
using orv::fuzz::require;

namespace {

constexpr std::chrono::milliseconds kPatience{5000};
constexpr std::size_t kMostSent = 65536; ///< what a socket holds without a reader
constexpr unsigned kMostEvents = 16;

std::string g_name;
int g_listener = -1;

void listen_in_its_place()
{
    g_name = "orvbroker-fuzz-" + std::to_string(getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    g_name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    g_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + g_name.size());
    require(bind(g_listener, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                listen(g_listener, 1) == 0,
            "somebody listens");
}

/// What frames there are in a stream.
class Frames {
public:
    explicit Frames(std::string_view bytes) : m_rest(bytes) {}

    /// The next one; nothing when it is not there as a whole, or too long.
    std::optional<std::string> next()
    {
        std::uint32_t length = 0;
        if (m_rest.size() < sizeof length)
            return std::nullopt;
        std::memcpy(&length, m_rest.data(), sizeof length);
        if (length > kMaxFrameSize) {
            m_is_malformed = true;
            return std::nullopt;
        }
        if (m_rest.size() - sizeof length < length)
            return std::nullopt;
        std::string text(m_rest.substr(sizeof length, length));
        m_rest.remove_prefix(sizeof length + length);
        return text;
    }
    [[nodiscard]] Error error() const
    {
        return m_is_malformed ? Error::malformed_answer : Error::connection_lost;
    }

private:
    std::string_view m_rest;
    bool m_is_malformed = false;
};

/// Connects, and has these bytes sent.
void connect(Client& client, std::string_view bytes)
{
    require(client.connect(kPatience, g_name) == Error::none, "a client can connect");
    const int server = accept(g_listener, nullptr, nullptr);
    require(server >= 0, "a client can be accepted");
    if (!bytes.empty())
        require(send(server, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()),
                "send");
    // Half of it only: who sends a request to a socket that is closed loses the answer.
    shutdown(server, SHUT_WR);
    static int last = -1;
    if (last >= 0)
        close(last);
    last = server;
}

void check_call(Error error, const Answer& answer, const std::optional<std::string>& frame, Error otherwise)
{
    Answer parsed;
    if (frame && parsed.parse(*frame)) {
        require(error == Error::none, "an answer is one");
        require(answer.envelope() == *frame && answer.status() == parsed.status(),
                "an answer is the one that came");
        require(answer.data().size() < frame->size(), "an answer's data are a part of it");
        return;
    }
    require(error == (frame ? Error::malformed_answer : otherwise), "what is no answer is told");
}

void call(Client& client, Frames frames)
{
    while (client.fd() >= 0) {
        Answer answer;
        const Error error = client.call("get_devices", R"(["d1"])", answer, kPatience);
        const std::optional<std::string> frame = frames.next();
        check_call(error, answer, frame, frames.error());
        require(error == Error::none || client.fd() == -1, "after an error there is no connection");
    }
}

void subscribe(Client& client, Frames frames)
{
    const Error error = client.subscribe("devices_list_updated", kPatience);
    const std::optional<std::string> frame = frames.next();
    Answer answer;
    const bool is_answer = frame && answer.parse(*frame);
    if (is_answer)
        require(error == (answer.status() == 0 ? Error::none : Error::refused), "a refusal is told");
    else
        require(error == (frame ? Error::malformed_answer : frames.error()), "what is no answer is told");
    for (unsigned i = 0; error == Error::none && client.fd() >= 0 && i < kMostEvents; ++i) {
        std::string event;
        const Error next = client.next_event(event, kPatience);
        const std::optional<std::string> wanted = frames.next();
        require(next == (wanted ? Error::none : frames.error()), "an event is there or it is not");
        require(!wanted || *wanted == event, "an event is the one that came");
    }
}

/// The same text as jansson understands it, unless it is not UTF-8.
void try_quoting(std::string_view text)
{
    const std::string quoted = quote(text);
    json_t* json = json_loadb(quoted.data(), quoted.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr);
    require(json_is_string(json), "a quoted text is a JSON string");
    const std::string_view read(json_string_value(json), json_string_length(json));
    json_t* same = json_stringn(text.data(), text.size());
    require(!same || read == text, "a quoted text stays the same");
    json_decref(same);
    json_decref(json);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    listen_in_its_place();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const std::uint8_t what = input.byte();
    const std::string bytes(input.bytes(kMostSent));
    if (what == 'q') {
        try_quoting(bytes);
        return 0;
    }
    Client client;
    connect(client, bytes);
    if (what == 's')
        subscribe(client, Frames(bytes));
    else
        call(client, Frames(bytes));
    return 0;
}
