// The fake device power state and its subscribers.
#include "nimbos/power.h"

#include "FakeCore.h"

#include <algorithm>
#include <mutex>

namespace {

using nimbos::fake::Service;
using nimbos::fake::detail::ContextRef;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Text;

struct Subscription {
    device_power_state_changed_cb callback;
    void *userData;
    ContextRef context;
    unsigned long id;
};

struct Power {
    std::mutex lock;
    int state = 0;
    std::vector<Subscription> subscriptions;
};

Power &ThePower()
{
    static Power *power = new Power;
    return *power;
}

// Under the lock.
std::vector<Subscription>::iterator Find(Power &power, device_power_state_changed_cb cb)
{
    return std::find_if(power.subscriptions.begin(), power.subscriptions.end(),
                        [cb](const Subscription &entry) { return entry.callback == cb; });
}

void Deliver(unsigned long id, _device_power_state_info info)
{
    Power &power = ThePower();
    std::unique_lock<std::mutex> lock(power.lock);
    auto found = std::find_if(power.subscriptions.begin(), power.subscriptions.end(),
                              [id](const Subscription &entry) { return entry.id == id; });
    if (found == power.subscriptions.end())
        return; // unsubscribed meanwhile
    const device_power_state_changed_cb callback = found->callback;
    void *const userData = found->userData;
    lock.unlock();
    callback(&info, userData);
}

} // namespace

extern "C" int device_power_get_state(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (auto unavailable = nimbos::fake::detail::Unavailable(Service::DevicePower, DEVICE_POWER_ERROR_IO_ERROR,
                                                             DEVICE_POWER_ERROR_TIMED_OUT))
        return *unavailable;
    return nimbos::fake::PowerState();
}

extern "C" int device_power_subscribe_state_changed_event(device_power_state_changed_cb cb, void *user_data)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!cb)
        return DEVICE_POWER_ERROR_INVALID_PARAMETER;
    Power &power = ThePower();
    std::lock_guard<std::mutex> lock(power.lock);
    auto found = Find(power, cb);
    if (found != power.subscriptions.end()) {
        found->userData = user_data;
        found->context = nimbos::fake::detail::CallerContext();
    } else {
        power.subscriptions.push_back(Subscription{cb, user_data, nimbos::fake::detail::CallerContext(),
                                                   nimbos::fake::detail::NewRegistrationId()});
    }
    return DEVICE_POWER_ERROR_NONE;
}

extern "C" int device_power_unsubscribe_state_changed_event(device_power_state_changed_cb cb)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    Power &power = ThePower();
    std::lock_guard<std::mutex> lock(power.lock);
    auto found = Find(power, cb);
    if (!cb || found == power.subscriptions.end())
        return DEVICE_POWER_ERROR_INVALID_PARAMETER;
    power.subscriptions.erase(found);
    return DEVICE_POWER_ERROR_NONE;
}

namespace nimbos::fake {

int PowerState()
{
    Power &power = ThePower();
    std::lock_guard<std::mutex> lock(power.lock);
    return power.state;
}

void SetPowerState(int state)
{
    Power &power = ThePower();
    std::lock_guard<std::mutex> lock(power.lock);
    power.state = state;
}

void ChangePowerState(int previous, int current)
{
    Power &power = ThePower();
    std::lock_guard<std::mutex> lock(power.lock);
    power.state = current;
    for (const Subscription &subscription : power.subscriptions) {
        const unsigned long id = subscription.id;
        detail::Post(subscription.context.get(), [id, previous, current] { Deliver(id, {previous, current}); });
    }
}

namespace detail {

void ResetPower()
{
    Power &power = ThePower();
    std::lock_guard<std::mutex> lock(power.lock);
    power.state = 0;
    power.subscriptions.clear();
}

} // namespace detail

} // namespace nimbos::fake
