// The interface: checks what comes from the caller, and hands it to the participant. A null handle fails like
// any other, and so does whatever memory is too short for: nothing is thrown at the caller.

#include "participant.h"

#include <orvexchange/publisher.h>
#include <orvutils/log_format.h>

#include <algorithm>
#include <exception>
#include <utility>

using namespace orv::exchange;

namespace {

/// What the function returns, or the failure when it throws.
template <typename Result, typename Function>
Result guarded(Result failure, Function function)
{
    try {
        return function();
    } catch (const std::exception&) {
        return failure;
    }
}

Orvex* started(std::unique_ptr<Orvex> orvex, std::chrono::milliseconds patience)
{
    return orvex->start(patience) ? orvex.release() : nullptr;
}

/// Whether a payload can be sent; one that is too large is told in the caller's name.
bool can_carry(const char* data, std::size_t length, orv::log::Caller caller = orv::log::caller())
{
    if (length > kOrvexMaxPayload)
        ORV_LOG_AS(caller, orv::log::kWarning, "cannot send {} bytes: a payload has {} at most", length,
                   kOrvexMaxPayload);
    return is_payload(data, length);
}

} // namespace

Orvex* orvex_init_eventloop(const char* name, void (*event_callback)(const Message*), int /*flags*/,
                            int auto_reconnect)
{
    if (!name || !event_callback)
        return nullptr;
    const auto handler = [event_callback](OrvexKind kind, const Message& message) {
        if (kind != OrvexKind::respond) // it publishes nothing that could be answered
            event_callback(&message);
    };
    return orvex_join(name, handler, auto_reconnect != 0);
}

bool orvex_is_name(const char* text)
{
    return is_name(text);
}

bool orvex_is_target(const char* text)
{
    return guarded(false, [&] { return parse_target(text).has_value(); });
}

Orvex* orvex_join(const char* name, OrvexHandler handler, bool auto_reconnect,
                  std::chrono::milliseconds patience)
{
    return guarded<Orvex*>(nullptr, [&]() -> Orvex* {
        if (!handler || (name && !is_participant(name)))
            return nullptr;
        return started(std::make_unique<Orvex>(name ? name : "", std::move(handler), nullptr, auto_reconnect),
                       patience);
    });
}

Orvex* orvex_monitor(OrvexObserver observer, bool auto_reconnect, std::chrono::milliseconds patience)
{
    return guarded<Orvex*>(nullptr, [&]() -> Orvex* {
        if (!observer)
            return nullptr;
        return started(std::make_unique<Orvex>("", nullptr, std::move(observer), auto_reconnect), patience);
    });
}

int orvex_get_fd(Orvex* orvex)
{
    return orvex ? orvex->fd() : -1;
}

int orvex_read_fd(Orvex* orvex)
{
    return orvex ? orvex->process() : -1;
}

int orvex_subscribe(Orvex* orvex, const char** names, int count)
{
    return guarded(-1, [&] {
        if (!orvex || count < 0 || (!names && count > 0))
            return -1;
        const auto size = static_cast<std::size_t>(count);
        if (!std::all_of(names, names + size, is_name))
            return -1;
        return orvex->subscribe(names, size);
    });
}

int orvex_send_request(Orvex* orvex, const char* name, const char* data, std::size_t length,
                       void (*response_callback)(void* arg, const Message* response), void* arg)
{
    const bool can_be_carried = can_carry(data, length);
    return guarded(-1, [&] {
        const auto target = parse_target(name);
        if (!orvex || !target || !can_be_carried || !response_callback)
            return -1;
        return orvex->send_request(*target, {data, length}, response_callback, arg);
    });
}

int orvex_send_message(Orvex* orvex, const char* name, const char* data, std::size_t length)
{
    const bool can_be_carried = can_carry(data, length);
    return guarded(-1, [&] {
        const auto target = parse_target(name);
        if (!orvex || !target || !can_be_carried)
            return -1;
        return orvex->send_one_way(*target, {data, length});
    });
}

int orvex_send_response(Orvex* orvex, int status, std::uint64_t request_id, const char* data,
                        std::size_t length)
{
    const ShortText type{"{}", status};
    return orvex_send_response_typed(orvex, request_id, type.c_str(), data, length);
}

int orvex_send_response_typed(Orvex* orvex, std::uint64_t request_id, const char* type, const char* data,
                              std::size_t length)
{
    if (!orvex || !is_name(type) || !can_carry(data, length))
        return -1;
    return guarded(-1, [&] { return orvex->respond(request_id, type, {data, length}); });
}

int orvex_publish(Orvex* orvex, const char* name, const char* data, std::size_t length,
                  std::uint64_t* identifier)
{
    if (!orvex || !is_name(name) || !can_carry(data, length))
        return -1;
    return guarded(-1, [&] { return orvex->publish(name, {data, length}, identifier); });
}

void orvex_uninit(Orvex* orvex)
{
    delete orvex;
}
