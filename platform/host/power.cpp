// The device power state on the host: a client of org.nimbos.DevicePower on the system bus.
#include "nimbos/power.h"

#include "HostLog.h"
#include "PlatformService.h"

#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace {

using nimbos::kServiceOk;
using nimbos::PlatformService;
using nimbos::SignalSubscription;

static_assert(nimbos::UsesServiceCodes(DEVICE_POWER_ERROR_NONE, DEVICE_POWER_ERROR_IO_ERROR,
                                       DEVICE_POWER_ERROR_TIMED_OUT, DEVICE_POWER_ERROR_INVALID_PARAMETER));

const PlatformService &DevicePower()
{
    static const PlatformService service("org.nimbos.DevicePower");
    return service;
}

// Callers tell failures from states by the sign, so a negative state on the bus is bad input.
bool IsState(gint32 code)
{
    return code >= 0;
}

class Subscriptions {
public:
    void Put(device_power_state_changed_cb cb, std::unique_ptr<SignalSubscription> subscription)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_byCallback[cb].swap(subscription);
    }

    std::unique_ptr<SignalSubscription> Take(device_power_state_changed_cb cb)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        auto found = m_byCallback.find(cb);
        if (found == m_byCallback.end())
            return nullptr;
        auto subscription = std::move(found->second);
        m_byCallback.erase(found);
        return subscription;
    }

private:
    std::mutex m_lock;
    std::map<device_power_state_changed_cb, std::unique_ptr<SignalSubscription>> m_byCallback;
};

Subscriptions &StateChangedSubscriptions()
{
    static Subscriptions subscriptions;
    return subscriptions;
}

void DeliverStateChanged(GVariant *arguments, device_power_state_changed_cb cb, void *userData)
{
    _device_power_state_info info{};
    g_variant_get(arguments, "(ii)", &info.previous, &info.current);
    if (!IsState(info.previous) || !IsState(info.current)) {
        HOST_LOG(DLOG_WARN, "StateChanged from %d to %d refused: not power states", info.previous, info.current);
        return;
    }
    cb(&info, userData);
}

} // namespace

extern "C" int device_power_get_state(void)
{
    gint32 state = 0;
    int result = DevicePower().ReadInt32("GetState", nullptr, &state);
    if (result != kServiceOk)
        return result;
    if (!IsState(state)) {
        HOST_LOG(DLOG_ERROR, "GetState answered %d, refused: not a power state", state);
        return DEVICE_POWER_ERROR_IO_ERROR;
    }
    return state;
}

extern "C" int device_power_subscribe_state_changed_event(device_power_state_changed_cb cb, void *user_data)
{
    if (!cb)
        return DEVICE_POWER_ERROR_INVALID_PARAMETER;
    auto subscription = DevicePower().Subscribe(
        "StateChanged", G_VARIANT_TYPE("(ii)"),
        [cb, user_data](GVariant *arguments) { DeliverStateChanged(arguments, cb, user_data); });
    if (!subscription)
        return DEVICE_POWER_ERROR_IO_ERROR;
    StateChangedSubscriptions().Put(cb, std::move(subscription));
    return DEVICE_POWER_ERROR_NONE;
}

extern "C" int device_power_unsubscribe_state_changed_event(device_power_state_changed_cb cb)
{
    if (!cb || !StateChangedSubscriptions().Take(cb))
        return DEVICE_POWER_ERROR_INVALID_PARAMETER;
    return DEVICE_POWER_ERROR_NONE;
}
