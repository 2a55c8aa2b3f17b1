// An event is kept before it is sent, and removed when the agent's answer says "0"; whatever happens in
// between, it is still in the outbox and will be submitted again.
//
// What the exchange gets as the answer's context is a number, not an address: an answer that comes after
// uninit() finds nothing under its number. An event that is submitted again while its answer is due keeps its
// number, so the table holds no more than one entry per event.

#include <orvkarma/orvkarma.h>

#include "event.h"

#include <orvbase/error_number.h>
#include <orvkarma/outbox.h>
#include <orvutils/log_format.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <utility>

namespace orv::karma {

namespace {

using Ticket = std::uintptr_t;

std::map<Ticket, std::string> g_awaited; ///< ids of the events whose answer is due
Ticket g_last_ticket = 0;

Ticket ticket_for(const std::string& id)
{
    for (const auto& [ticket, awaited] : g_awaited)
        if (awaited == id)
            return ticket;
    g_awaited.emplace(++g_last_ticket, id);
    return g_last_ticket;
}

void on_answer(void* context, const Message* answer)
{
    const auto found = g_awaited.find(reinterpret_cast<Ticket>(context));
    if (found == g_awaited.end())
        return;
    const std::string id = std::move(found->second);
    g_awaited.erase(found);
    if (std::strcmp(answer->type, "0") == 0)
        (void)outbox::remove(id); // it has logged; the event is sent once more
}

int send(const std::string& id, const std::string& text, Orvex* orvex)
{
    if (!orvex)
        return -1;
    const Ticket ticket = ticket_for(id);
    auto* context = reinterpret_cast<void*>(ticket); // NOLINT(performance-no-int-to-ptr): see above
    if (orvex_send_request(orvex, "telemetry_event", text.data(), text.size(), on_answer, context) == 0)
        return 0;
    g_awaited.erase(ticket);
    return -1;
}

} // namespace

int init()
{
    const Error error = outbox::open();
    return error == Error::none ? 0 : base::failed(error);
}

void uninit()
{
    g_awaited.clear();
    outbox::close();
}

int read_events(std::vector<json_t*>& events)
{
    std::vector<outbox::Entry> entries;
    if (const Error error = outbox::read(entries); error != Error::none)
        return base::failed(error);
    for (const outbox::Entry& entry : entries) {
        JsonPtr event = parse_event(entry.text);
        if (event) {
            events.push_back(event.release());
            continue;
        }
        ORV_LOG(log::kError, "telemetry: dropping event {} from the outbox, it is malformed", entry.id);
        (void)outbox::remove(entry.id); // else it is met again next time
    }
    return 0;
}

json_t* build_karma_event_json(const char* type, json_t* data)
{
    std::string last;
    (void)outbox::last_id(last); // without an outbox the clock alone decides
    const std::string id = make_event_id(last);
    if (id.empty() || !type || !data)
        return nullptr;
    return json_pack("{s:s,s:s,s:I,s:O}", "id", id.c_str(), "type", type, "timestamp",
                     static_cast<json_int_t>(std::time(nullptr)), "data", data);
}

int submit_karma_event(json_t* event, Orvex* orvex)
{
    const char* id = event_id(event);
    if (!id)
        return base::failed(Error::invalid_argument);
    const std::string text = event_text(event);
    if (text.empty())
        return base::failed(Error::invalid_argument);
    const Error kept = outbox::put(id, text);
    if (kept != Error::none)
        base::set_error(kept);
    // An event that could not be kept is sent all the same: it has no second chance.
    const int sent = send(id, text, orvex);
    return kept == Error::none && sent == 0 ? 0 : -1;
}

} // namespace orv::karma
