// The library that reads subscriptions never writes one, so the keys are written here one by one, under the
// lock that its readers take.

#include "subscription.h"

#include <orvutils/setmgmt.h>

namespace orvagentsim {
namespace {

constexpr char kName[] = "global";
constexpr char kNoError[] = "0";

const orv::path kSubscriptionKey{"/tmp/subscription"};

bool set(const orv::path& key, const std::string& value)
{
    return orv::setMgmt::setKey(key, value) == 0;
}

/// Readers take this lock for the fraction of a second in which they read; so nobody sees half a change, and
/// the loop does not stand still.
class Lock {
public:
    Lock() : m_is_held(orv::setMgmt::lockKey(kSubscriptionKey) == 0) {}
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock()
    {
        if (m_is_held)
            (void)orv::setMgmt::unlockKey(kSubscriptionKey); // fails only for a lock that is not held
    }
    [[nodiscard]] bool is_held() const { return m_is_held; }

private:
    bool m_is_held;
};

bool store_outcome(const std::string& error, std::int64_t now)
{
    return set(kSubscriptionKey / "last_update_ts", std::to_string(now)) &&
           set(kSubscriptionKey / "last_error", error);
}

} // namespace

bool store_subscription(const orv::subs::Subscription& subscription, std::int64_t now)
{
    const Lock lock;
    return lock.is_held() &&
           set(orv::subs::status_key(kName), std::string(orv::subs::status_to_str(subscription.status))) &&
           set(orv::subs::expiry_key(kName), std::to_string(subscription.expiry)) &&
           store_outcome(kNoError, now) && set(kSubscriptionKey / "refresh", std::to_string(now));
}

bool store_subscription_failure(const std::string& error, std::int64_t now)
{
    const Lock lock;
    return lock.is_held() && store_outcome(error, now);
}

} // namespace orvagentsim
