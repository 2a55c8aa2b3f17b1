// An event is kept before it is sent, and removed when the agent's answer says "0"; whatever happens in
// between, it is still in the outbox and will be submitted again.
//
// A removal waits for the disk. So the events that are confirmed are removed together: when a turn of the loop
// has brought no further confirmation, or the first one has waited long enough. Until then they are in the
// outbox, and only a crash would make use of them.
//
// What the exchange gets as the answer's context is a number, not an address: an answer that comes after
// uninit() finds nothing under its number. An event that is submitted again while its answer is due keeps its
// number, so the tables hold no more than one entry per event.

#include <orvkarma/orvkarma.h>

#include "event.h"

#include <orvbase/clock.h>
#include <orvbase/error_number.h>
#include <orvbase/without_throwing.h>
#include <orvkarma/outbox.h>
#include <orvstore/notify.h>
#include <orvutils/log_format.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <utility>

namespace orv::karma {

namespace {

constexpr std::int64_t kReopenIntervalMs = 1000;
constexpr std::int64_t kLongestWaitMs = 1000; ///< of a confirmed event in the outbox

using Ticket = std::uintptr_t;

/// An event whose answer is due, or one that is confirmed and will be removed.
struct Sent {
    Ticket ticket = 0;
    bool is_confirmed = false;
};

using SentEvents = std::map<std::string, Sent>; ///< by their ids

class Telemetry : public store::notify::Listener {
public:
    /// From here on events are kept, if that can be.
    void start() { m_is_wanted = true; }

    void stop() noexcept
    {
        remove_confirmed();
        m_is_wanted = m_is_ringing = false;
        m_tickets.clear();
        m_sent.clear();
        m_confirmed = 0;
        m_tried_ms = 0;
        outbox::close();
    }

    [[nodiscard]] bool is_wanted() const { return m_is_wanted; }

    /// Whether the outbox is open; opens it unless that was tried a moment ago.
    bool has_outbox()
    {
        if (!m_is_wanted || outbox::is_open())
            return m_is_wanted;
        const std::int64_t now = base::coarse_now_ms();
        const bool is_first = m_tried_ms == 0;
        if (!is_first && now - m_tried_ms < kReopenIntervalMs)
            return false;
        m_tried_ms = now;
        const bool is_open = outbox::try_to_open() == Error::none;
        if (is_open && !is_first)
            ORV_LOG(log::kInfo, "telemetry: the outbox is there, events are kept again");
        if (!is_open && is_first)
            ORV_LOG(log::kError, "telemetry: events are sent without being kept: {}: {}",
                    outbox::failure().path, outbox::failure().text());
        return is_open;
    }

    /// Sends an event as a request.
    [[nodiscard]] int send(const std::string& id, const std::string& text, Orvex* orvex)
    {
        if (!orvex)
            return -1;
        const auto [sent, is_new] = m_sent.try_emplace(id);
        m_confirmed -= sent->second.is_confirmed ? 1 : 0;
        sent->second.is_confirmed = false; // whoever submits it again wants it sent again
        const Ticket known = sent->second.ticket;
        if (known == 0 && !give_ticket(sent))
            return -1;
        auto* context = reinterpret_cast<void*>(sent->second.ticket); // NOLINT(performance-no-int-to-ptr)
        if (orvex_send_request(orvex, "telemetry_event", text.data(), text.size(), on_answer, context) == 0)
            return 0;
        if (known == 0)
            forget(sent);
        return -1;
    }

    /// Notes that an event need not be kept any more, or that its answer has come at least.
    void take_answer(Ticket ticket, bool is_confirmed)
    {
        const auto found = m_tickets.find(ticket);
        if (found == m_tickets.end())
            return;
        const SentEvents::iterator sent = found->second;
        m_tickets.erase(found);
        sent->second = {0, is_confirmed};
        if (!is_confirmed || !m_is_wanted) {
            m_sent.erase(sent);
            return;
        }
        if (++m_confirmed == 1)
            m_waiting_since_ms = base::coarse_now_ms();
        if (std::exchange(m_is_ringing, true))
            return;
        m_seen = 0;
        store::notify::wake();
    }

    /// Removes what is confirmed, unless more of it is just coming in.
    void look() override
    {
        if (!std::exchange(m_is_ringing, false))
            return;
        const bool is_growing = std::exchange(m_seen, m_confirmed) != m_confirmed;
        if (!is_growing || m_confirmed >= outbox::kMaxEvents ||
            base::coarse_now_ms() - m_waiting_since_ms >= kLongestWaitMs) {
            remove_confirmed();
            return;
        }
        m_is_ringing = true;
        store::notify::wake();
    }

    /// When that fails, which is logged, they are removed with the next ones.
    void remove_confirmed() noexcept
    {
        if (m_confirmed > 0)
            (void)base::without_throwing(false, [this] { return remove_all(); });
    }

    [[nodiscard]] bool is_confirmed(const std::string& id) const
    {
        const auto found = m_sent.find(id);
        return found != m_sent.end() && found->second.is_confirmed;
    }

private:
    static void on_answer(void* context, const Message* answer);

    bool give_ticket(SentEvents::iterator sent)
    {
        try {
            m_tickets.emplace(m_last_ticket + 1, sent);
        } catch (const std::bad_alloc&) {
            m_sent.erase(sent);
            return false;
        }
        sent->second.ticket = ++m_last_ticket;
        return true;
    }

    void forget(SentEvents::iterator sent)
    {
        m_tickets.erase(sent->second.ticket);
        m_sent.erase(sent);
    }

    bool remove_all()
    {
        std::vector<std::string_view> ids;
        ids.reserve(m_confirmed);
        for (const auto& [id, sent] : m_sent)
            if (sent.is_confirmed)
                ids.emplace_back(id);
        if (outbox::remove(ids) != Error::none)
            return false;
        m_confirmed = 0;
        for (auto sent = m_sent.begin(); sent != m_sent.end();)
            sent = sent->second.is_confirmed ? m_sent.erase(sent) : std::next(sent);
        return true;
    }

    SentEvents m_sent;
    std::map<Ticket, SentEvents::iterator> m_tickets; ///< of answers that are due
    std::size_t m_confirmed = 0;                      ///< how many
    std::size_t m_seen = 0;                           ///< how many there were at the last look
    std::int64_t m_waiting_since_ms = 0;
    bool m_is_ringing = false;
    Ticket m_last_ticket = 0; ///< beyond a stop: answers to what was sent before may still come
    bool m_is_wanted = false;
    std::int64_t m_tried_ms = 0; ///< when the outbox was to be opened, 0 before the first time
};

/// Lives as long as the process: answers come when they like.
const std::shared_ptr<Telemetry>& telemetry()
{
    static const auto* instance = new std::shared_ptr<Telemetry>(std::make_shared<Telemetry>());
    return *instance;
}

void Telemetry::on_answer(void* context, const Message* answer)
{
    (void)base::without_throwing(false, [&] { // all that needs memory is the bell: the next one will do
        telemetry()->take_answer(reinterpret_cast<Ticket>(context), std::strcmp(answer->type, "0") == 0);
        return true;
    });
}

void drop_malformed(const std::vector<outbox::Entry>& entries, const std::vector<JsonPtr>& events)
{
    std::vector<std::string_view> ids;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (events[i])
            continue;
        ORV_LOG(log::kError, "telemetry: dropping event {} from the outbox, it is malformed", entries[i].id);
        ids.emplace_back(entries[i].id);
    }
    if (!ids.empty())
        (void)outbox::remove(ids); // else they are met again next time
}

int read(std::vector<json_t*>& events)
{
    if (telemetry()->is_wanted() && !telemetry()->has_outbox())
        return 0;
    telemetry()->remove_confirmed();
    std::vector<outbox::Entry> entries;
    if (const Error error = outbox::read(entries); error != Error::none)
        return base::failed(error);
    std::vector<JsonPtr> found;
    found.reserve(entries.size());
    const json_t* last = nullptr;
    for (outbox::Entry& entry : entries) {
        bool lacks_memory = false;
        found.push_back(parse_event(entry.text, /*beside=*/last, lacks_memory));
        if (lacks_memory)
            return base::failed(Error::input_output); // which does not make it a malformed one
        if (found.back())
            last = found.back().get();
        entry.text = {}; // two forms of all of them would be too much
    }
    drop_malformed(entries, found);
    events.reserve(events.size() + found.size());
    for (std::size_t i = 0; i < found.size(); ++i)
        if (found[i] && !telemetry()->is_confirmed(entries[i].id))
            events.push_back(found[i].release());
    return 0;
}

json_t* build(const char* type, json_t* data)
{
    std::string last;
    (void)outbox::last_id(last); // without an outbox the clock alone decides
    const std::string id = make_event_id(last);
    if (id.empty() || !type || !data)
        return nullptr;
    return json_pack("{s:s,s:s,s:I,s:O}", "id", id.c_str(), "type", type, "timestamp",
                     static_cast<json_int_t>(std::time(nullptr)), "data", data);
}

Error keep(const std::string& id, const std::string& text)
{
    return telemetry()->has_outbox() ? outbox::put(id, text) : Error::input_output;
}

int submit(json_t* event, Orvex* orvex)
{
    const char* given = event_id(event);
    if (!given)
        return base::failed(Error::invalid_argument);
    const std::string id = given;
    const std::string text = event_text(event);
    if (text.empty())
        return base::failed(Error::invalid_argument);
    const Error kept = keep(id, text);
    if (kept != Error::none)
        base::set_error(kept);
    // An event that could not be kept is sent all the same: it has no second chance.
    const int sent = telemetry()->send(id, text, orvex);
    return kept == Error::none && sent == 0 ? 0 : -1;
}

int start()
{
    if (telemetry()->is_wanted())
        return 0;
    store::notify::add(telemetry());
    telemetry()->start();
    return 0;
}

} // namespace

int init()
{
    const int started = base::without_throwing(-1, start);
    if (started == 0)
        (void)base::without_throwing(false, [] { return telemetry()->has_outbox(); }); // or it is tried again
    return started;
}

void uninit()
{
    (void)base::without_throwing(false, [] {
        store::notify::remove(*telemetry());
        telemetry()->stop();
        return true;
    });
}

int read_events(std::vector<json_t*>& events)
{
    return base::without_throwing(-1, [&] { return read(events); });
}

json_t* build_karma_event_json(const char* type, json_t* data)
{
    return base::without_throwing<json_t*>(nullptr, [&] { return build(type, data); });
}

int submit_karma_event(json_t* event, Orvex* orvex)
{
    return base::without_throwing(-1, [&] { return submit(event, orvex); });
}

} // namespace orv::karma
