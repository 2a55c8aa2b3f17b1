#pragma once

#include "inbox.h"
#include "requests.h"

#include <orvdevmgmt/orvdevmgmt.h>

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

// What every client must receive, said a second time: told what happens in its order, this keeps what each
// client has to see of it.

namespace orv::simulation {

/// What the model may be made to believe wrongly, to see that the simulation finds it out.
enum class Belief {
    right,
    others_stay,     ///< when a subscriber leaves, the others of its event go on receiving
    answers_add_up,  ///< of several answers that a client waits for, it receives each
    failure_goes_on, ///< a failure does not end the connection
};

/// A client, as far as what it receives goes.
struct Client {
    explicit Client(unsigned which) : number(which) {}

    unsigned number;
    std::deque<Request> unhandled; ///< whole lines that it has sent
    Inbox inbox;
    bool is_subscriber = false;
    std::string event;       ///< that it has subscribed to
    bool is_last = false;    ///< what it was sent last is the last
    bool is_dropped = false; ///< its connection ends without a further frame
    bool may_be_dropped = false;
};

class Model {
public:
    Model(const std::map<std::string, devMgmt::Device>& devices, Belief belief)
        : m_devices(devices), m_belief(belief)
    {
    }

    void begin_pass(unsigned pass) { m_pass = pass; }
    /// Something has failed in this pass, so that nobody knows what the daemon remembers of it.
    void doubt();
    /// What does not agree with the model since the last time.
    std::vector<std::string> take_complaints();

    // ---- what clients do
    void handled(Client& client, int status);
    void unusable(Client& client);
    void unsubscribed(Client& client);
    /// Its connection has ended, or it is about to, otherwise.
    void forget(Client& client);

    // ---- what others do
    void sent(unsigned request, const std::string& name, Client* client);
    /// False when it is not known who waits for that.
    [[nodiscard]] bool answered(unsigned request, const std::string& data);
    void exchange_event(const std::string& type, const std::string& data);
    void device_changed(devMgmt::DevInfoChangeType type, const devMgmt::Device& device,
                        const std::string& field);
    void devices_told(const std::string& text);
    void subscription_changed(const std::string& status, long long expiry);

    // ---- what it knows, to be compared with the daemon's, and put right after a fault
    std::map<std::string, std::vector<Client*>> subscribers; ///< by client event
    std::map<std::string, std::vector<Client*>> receivers;   ///< by exchange event
    std::map<std::string, std::string> changes;              ///< of devices that nobody was told of
    std::optional<std::string> last_told;                    ///< of the service subscription
    bool is_protected = true;

private:
    struct Waiting {
        Client* client = nullptr; ///< null when nobody waits
        Asked kind = Asked::anything;
        bool is_registration = false;
    };

    void tell(const std::vector<Client*>& clients, const std::string& text, bool is_certain = true);
    void expect_answer(Client& client, const Request& request, int status);
    void subscribe(Client& client, const Request& request);
    void check_status(const Client& client, const Request& request, int status);
    void registration_answered(const std::string& data);
    [[nodiscard]] std::vector<std::string> listed(const Request& request) const;

    const std::map<std::string, devMgmt::Device>& m_devices;
    Belief m_belief;
    unsigned m_pass = 0;
    std::vector<std::string> m_complaints;
    std::map<unsigned, Waiting> m_waiting;
    /// User agents by MAC address, and the pass in which they were seen.
    std::map<std::pair<std::string, std::string>, unsigned> m_seen;
    std::set<std::pair<std::string, std::string>> m_doubtful; ///< perhaps seen
};

} // namespace orv::simulation
