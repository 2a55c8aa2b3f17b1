// The C interface is a thin coat over the C++ one. Two things are its own: the texts that C callers get must
// end with a NUL byte and have an owner, so the client keeps the last answer's data and the last event; and
// no exception may cross into C, so whatever allocates runs inside guarded(). A null client is let through
// everywhere, which makes "there was no memory for one" an error like the others.

#include <orvbroker/client.h>
#include <orvbroker/client_c.h>

#include <new>
#include <optional>
#include <string>

struct orvbroker_client {
    orvbroker::Client connection;
    std::string data{"null"};
    int status = 0;
    std::string event;
};

namespace {

using orvbroker::Error;
using std::chrono::milliseconds;

static_assert(ORVBROKER_CONNECT_TIMEOUT == orvbroker::kConnectTimeout.count());
static_assert(ORVBROKER_CALL_TIMEOUT == orvbroker::kCallTimeout.count());
static_assert(ORVBROKER_OK == static_cast<int>(Error::none));
static_assert(ORVBROKER_NOT_RUNNING == static_cast<int>(Error::not_running));
static_assert(ORVBROKER_NOT_PERMITTED == static_cast<int>(Error::not_permitted));
static_assert(ORVBROKER_CONNECTION_LOST == static_cast<int>(Error::connection_lost));
static_assert(ORVBROKER_TIMED_OUT == static_cast<int>(Error::timed_out));
static_assert(ORVBROKER_MALFORMED_ANSWER == static_cast<int>(Error::malformed_answer));
static_assert(ORVBROKER_REFUSED == static_cast<int>(Error::refused));
static_assert(ORVBROKER_INVALID_ARGUMENT == static_cast<int>(Error::invalid_argument));
static_assert(ORVBROKER_SYSTEM == static_cast<int>(Error::system));

milliseconds to_time(int timeout)
{
    return timeout < 0 ? orvbroker::kForever : milliseconds{timeout};
}

/// Does what may allocate. Without memory nobody knows how far it came, so the connection is given up.
template <typename Work>
int guarded(orvbroker_client* client, const Work& work)
{
    if (!client)
        return ORVBROKER_CONNECTION_LOST;
    try {
        return static_cast<int>(work(*client));
    } catch (const std::bad_alloc&) {
        client->connection.close();
        return ORVBROKER_NO_MEMORY;
    }
}

const char* text_of(const std::string& text, std::size_t* length)
{
    if (length)
        *length = text.size();
    return text.c_str();
}

} // namespace

const char* orvbroker_message(int error)
{
    return error == ORVBROKER_NO_MEMORY ? "out of memory" : orvbroker::message(static_cast<Error>(error));
}

orvbroker_client* orvbroker_new(void)
{
    try {
        return new orvbroker_client;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void orvbroker_free(orvbroker_client* client)
{
    delete client;
}

int orvbroker_connect(orvbroker_client* client, int timeout)
{
    return orvbroker_connect_to(client, orvbroker::kSocketName.data(), timeout);
}

int orvbroker_connect_to(orvbroker_client* client, const char* socket_name, int timeout)
{
    if (!client)
        return ORVBROKER_NO_MEMORY;
    if (!socket_name)
        return ORVBROKER_INVALID_ARGUMENT;
    return guarded(client, [&](orvbroker_client& self) {
        return self.connection.connect(to_time(timeout), socket_name);
    });
}

int orvbroker_call(orvbroker_client* client, const char* name, const char* data, int timeout)
{
    if (!name)
        return ORVBROKER_INVALID_ARGUMENT;
    return guarded(client, [&](orvbroker_client& self) {
        orvbroker::Answer answer;
        const Error error = self.connection.call(name, data ? data : "", answer, to_time(timeout));
        if (error == Error::none) {
            self.data = answer.data();
            self.status = answer.status();
        }
        return error;
    });
}

int orvbroker_status(const orvbroker_client* client)
{
    return client ? client->status : 0;
}

const char* orvbroker_data(const orvbroker_client* client, std::size_t* length)
{
    static const std::string s_none{"null"};
    return text_of(client ? client->data : s_none, length);
}

int orvbroker_subscribe(orvbroker_client* client, const char* event, int timeout)
{
    if (!event)
        return ORVBROKER_INVALID_ARGUMENT;
    return guarded(
        client, [&](orvbroker_client& self) { return self.connection.subscribe(event, to_time(timeout)); });
}

int orvbroker_next_event(orvbroker_client* client, int timeout)
{
    return guarded(client, [&](orvbroker_client& self) {
        return self.connection.next_event(self.event, to_time(timeout));
    });
}

const char* orvbroker_event(const orvbroker_client* client, std::size_t* length)
{
    static const std::string s_none;
    return text_of(client ? client->event : s_none, length);
}

int orvbroker_fd(const orvbroker_client* client)
{
    return client ? client->connection.fd() : -1;
}

long long orvbroker_server_uid(const orvbroker_client* client)
{
    const auto uid = client ? client->connection.server_uid() : std::nullopt;
    return uid ? static_cast<long long>(*uid) : -1;
}

void orvbroker_close(orvbroker_client* client)
{
    if (client)
        client->connection.close();
}
