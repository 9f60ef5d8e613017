// Fake application control: request handles in memory; a launch request that its target accepts
// is kept for the test (Launches), one whose target is missing or silent fails as on the host.
#include "FakeAppControl.h"
#include "FakeCore.h"

#include <gio/gio.h>

#include <cstring>
#include <mutex>
#include <new>

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

// Texts travel to other applications as UTF-8 on the platform; a handle never holds anything else.
bool IsText(const char *text)
{
    return text && g_utf8_validate(text, -1, nullptr);
}

int CopyOut(const std::string &value, char **out)
{
    *out = strdup(value.c_str());
    return *out ? APP_CONTROL_ERROR_NONE : APP_CONTROL_ERROR_OUT_OF_MEMORY;
}

nimbos::fake::ExtraData::iterator FindExtra(app_control_h handle, const char *key)
{
    auto &extra = handle->extraData;
    for (auto it = extra.begin(); it != extra.end(); ++it)
        if (it->first == key)
            return it;
    return extra.end();
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
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    *app_control = new (std::nothrow) app_control_s;
    return *app_control ? APP_CONTROL_ERROR_NONE : APP_CONTROL_ERROR_OUT_OF_MEMORY;
}

extern "C" int app_control_destroy(app_control_h app_control)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    delete app_control;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_set_operation(app_control_h app_control, const char *operation)
{
    if (auto injected = Enter(__func__, {Text(operation)}))
        return *injected;
    if (!app_control || (operation && !IsText(operation)))
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    app_control->operation = operation ? operation : APP_CONTROL_OPERATION_DEFAULT;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_get_operation(app_control_h app_control, char **operation)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!app_control || !operation)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    return CopyOut(app_control->operation, operation);
}

extern "C" int app_control_set_app_id(app_control_h app_control, const char *app_id)
{
    if (auto injected = Enter(__func__, {Text(app_id)}))
        return *injected;
    if (!app_control || (app_id && !g_dbus_is_name(app_id)))
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    app_control->appId = app_id ? app_id : "";
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_add_extra_data(app_control_h app_control, const char *key, const char *value)
{
    if (auto injected = Enter(__func__, {Text(key), Text(value)}))
        return *injected;
    if (!app_control || !IsText(key) || !*key || !IsText(value))
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    auto existing = FindExtra(app_control, key);
    if (existing != app_control->extraData.end())
        existing->second = value;
    else
        app_control->extraData.emplace_back(key, value);
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_get_extra_data(app_control_h app_control, const char *key, char **value)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    if (!app_control || !key || !value)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    auto existing = FindExtra(app_control, key);
    if (existing == app_control->extraData.end())
        return APP_CONTROL_ERROR_KEY_NOT_FOUND;
    return CopyOut(existing->second, value);
}

extern "C" int app_control_foreach_extra_data(app_control_h app_control, app_control_extra_data_cb cb,
                                              void *user_data)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!app_control || !cb)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    // The callback may add data to the handle: the walk covers the keys there were when it began.
    std::vector<std::string> keys;
    for (const auto &entry : app_control->extraData)
        keys.push_back(entry.first);
    for (const auto &key : keys)
        if (!cb(app_control, key.c_str(), user_data))
            break;
    return APP_CONTROL_ERROR_NONE;
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
