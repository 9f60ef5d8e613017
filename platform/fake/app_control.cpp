// Fake application control: every call recorded, then the shared handle (AppControlHandle.h). A
// launch request that its target accepts is kept for the test (Launches), one whose target is
// missing or silent fails as on the host.
#include "AppControlHandle.h"
#include "FakeCore.h"

#include <mutex>

namespace {

using nimbos::fake::Launch;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Text;

struct Sent {
    std::mutex lock;
    std::vector<Launch> launches;
};

Sent &TheSent()
{
    static Sent *sent = new Sent;
    return *sent;
}

int Deliver(app_control_h request)
{
    if (auto unavailable = nimbos::fake::detail::AppUnavailable(request->appId, APP_CONTROL_ERROR_APP_NOT_FOUND,
                                                                APP_CONTROL_ERROR_LAUNCH_FAILED))
        return *unavailable;
    Sent &sent = TheSent();
    std::lock_guard<std::mutex> lock(sent.lock);
    sent.launches.push_back(Launch{request->appId, request->operation, request->extraData});
    return APP_CONTROL_ERROR_NONE;
}

} // namespace

extern "C" int app_control_create(app_control_h *app_control)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    return nimbos::common::CreateAppControl(app_control);
}

extern "C" int app_control_destroy(app_control_h app_control)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    return nimbos::common::DestroyAppControl(app_control);
}

extern "C" int app_control_set_operation(app_control_h app_control, const char *operation)
{
    if (auto injected = Enter(__func__, {Text(operation)}))
        return *injected;
    return nimbos::common::SetOperation(app_control, operation);
}

extern "C" int app_control_get_operation(app_control_h app_control, char **operation)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    return nimbos::common::GetOperation(app_control, operation);
}

extern "C" int app_control_set_app_id(app_control_h app_control, const char *app_id)
{
    if (auto injected = Enter(__func__, {Text(app_id)}))
        return *injected;
    return nimbos::common::SetAppId(app_control, app_id);
}

extern "C" int app_control_add_extra_data(app_control_h app_control, const char *key, const char *value)
{
    if (auto injected = Enter(__func__, {Text(key), Text(value)}))
        return *injected;
    return nimbos::common::AddExtraData(app_control, key, value);
}

extern "C" int app_control_get_extra_data(app_control_h app_control, const char *key, char **value)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    return nimbos::common::GetExtraData(app_control, key, value);
}

extern "C" int app_control_foreach_extra_data(app_control_h app_control, app_control_extra_data_cb cb,
                                              void *user_data)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    return nimbos::common::ForeachExtraData(app_control, cb, user_data);
}

extern "C" int app_control_send_launch_request(app_control_h app_control, app_control_reply_cb reply_cb,
                                               void *user_data)
{
    if (auto injected = Enter(__func__, {app_control ? app_control->appId : Text(nullptr)}))
        return *injected;
    if (!app_control || app_control->appId.empty())
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    const int result = Deliver(app_control);
    if (reply_cb) {
        app_control_s reply;
        reply_cb(app_control, result == APP_CONTROL_ERROR_NONE ? &reply : nullptr, result, user_data);
    }
    return result;
}

namespace nimbos::fake {

std::vector<Launch> Launches()
{
    Sent &sent = TheSent();
    std::lock_guard<std::mutex> lock(sent.lock);
    return sent.launches;
}

namespace detail {

void ResetAppControl()
{
    Sent &sent = TheSent();
    std::lock_guard<std::mutex> lock(sent.lock);
    sent.launches.clear();
}

} // namespace detail

} // namespace nimbos::fake
