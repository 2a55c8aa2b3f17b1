// The telemetry outbox: events of any shape, kept, sent, confirmed or not, and what others may have left in
// it. Each line of the input is an operation: a letter and what it takes.

#include "input.h"
#include "require.h"
#include "root.h"

#include <orvexchange/orvexchange.h>
#include <orvkarma/orvkarma.h>
#include <orvkarma/outbox.h>
#include <orvstore/notify.h>
#include <orvutils/json.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <string_view>
#include <vector>

/// The exchange.
struct Orvex {
    struct Sent {
        std::string id;
        void (*callback)(void*, const Message*) = nullptr;
        void* arg = nullptr;
    };
    std::deque<Sent> sent;
    bool is_refusing = false;
};

int orvex_send_request(Orvex* orvex, const char* /*name*/, const char* data, std::size_t length,
                       void (*response_callback)(void* arg, const Message* response), void* arg)
{
    if (orvex->is_refusing)
        return -1;
    const orv::JsonPtr event = orv::parse_json({data, length});
    const char* id = json_string_value(json_object_get(event.get(), "id"));
    orv::fuzz::require(id, "what is sent is an event with an identifier");
    orvex->sent.push_back({id, response_callback, arg});
    return 0;
}

namespace {

using namespace orv::karma;
using orv::Error;
using orv::JsonPtr;
using orv::fuzz::Input;
using orv::fuzz::require;

constexpr std::size_t kMostOperations = 32;

/// Event by event, what is there.
std::set<std::string> kept()
{
    std::vector<outbox::Entry> entries;
    require(outbox::read(entries) == Error::none, "the outbox can be read");
    std::set<std::string> ids;
    for (const outbox::Entry& entry : entries)
        ids.insert(entry.id);
    return ids;
}

void submit(Orvex& orvex, std::string_view text)
{
    const JsonPtr event = orv::parse_json(text);
    const char* id = json_string_value(json_object_get(event.get(), "id"));
    const int result = submit_karma_event(event.get(), &orvex);
    const std::size_t size = id ? std::strlen(id) : 0;
    const bool is_usable = size > 0 && size <= outbox::kMaxIdSize;
    require(is_usable || result != 0, "what has no identifier is not kept");
    if (result == 0)
        require(kept().count(id) != 0, "an event is kept before it is sent");
}

void answer(Orvex& orvex, std::string_view type)
{
    if (orvex.sent.empty())
        return;
    const Orvex::Sent sent = orvex.sent.front();
    orvex.sent.pop_front();
    Message message{};
    type.substr(0, type.find('\0')).copy(message.type, kOrvexMaxName);
    message.data = "";
    sent.callback(sent.arg, &message);
}

void look()
{
    for (int i = 0; i < 3; ++i) { // what is confirmed is removed when nothing more comes in
        orv::store::notify::wake();
        orv::store::notify::read();
    }
}

void retry(Orvex& orvex)
{
    std::vector<json_t*> events;
    require(read_events(events) == 0, "the outbox can be read");
    require(events.size() <= outbox::kMaxEvents, "there are not too many events");
    for (json_t* json : events) {
        const JsonPtr event(json);
        require(json_is_string(json_object_get(json, "id")), "what is read is an event");
        (void)submit_karma_event(json, &orvex); // what is not confirmed stays
    }
}

void build(Orvex& orvex, std::string_view text)
{
    const JsonPtr data = orv::parse_json(text);
    const std::string type(text.substr(0, text.find('\0')));
    const JsonPtr event(build_karma_event_json(type.c_str(), data.get()));
    if (event)
        (void)submit_karma_event(event.get(), &orvex);
}

void operate(Orvex& orvex, Input& line)
{
    switch (line.byte()) {
    case 'p': {
        const std::string id(line.until(' '));
        (void)outbox::put(id, line.rest()); // what others may have left
        return;
    }
    case 's':
        return submit(orvex, line.rest());
    case 'b':
        return build(orvex, line.rest());
    case 'a':
        return answer(orvex, line.rest());
    case 'r':
        return retry(orvex);
    case 'n':
        return look();
    case 'd':
        (void)outbox::remove({line.rest()}); // it may not be there
        return;
    case 'x':
        orvex.is_refusing = !orvex.is_refusing;
        return;
    case 'i':
        uninit();
        require(init() == 0, "the outbox can be opened");
        return;
    default:
        return;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    orv::fuzz::make_root();
    orv::fuzz::log_nothing();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Orvex orvex;
    require(init() == 0 && (outbox::is_open() || outbox::open() == Error::none), "the outbox can be opened");
    require(outbox::clear() == Error::none, "the outbox can be emptied");
    Input input(data, size);
    for (std::size_t i = 0; i < kMostOperations && !input.is_empty(); ++i) {
        Input line(input.line());
        operate(orvex, line);
    }
    retry(orvex);
    while (!orvex.sent.empty())
        answer(orvex, "0");
    look();
    uninit();
    return 0;
}
