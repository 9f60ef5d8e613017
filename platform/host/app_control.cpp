// Application control on the host: a launch request is a handle holding an operation, the target's
// app id and ordered extra data; sending it calls Launch on the target's bus name on the system bus.
#include "nimbos/app.h"

#include "HostLog.h"
#include "UniqueHandle.h"

#include <gio/gio.h>

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

struct app_control_s {
    std::string operation = APP_CONTROL_OPERATION_DEFAULT;
    std::string appId;
    std::vector<std::pair<std::string, std::string>> extraData;
};

namespace {

constexpr const char *kObjectPath = "/org/nimbos/AppControl";
constexpr const char *kInterface = "org.nimbos.AppControl";
constexpr int kLaunchTimeoutMs = 1000;

// Strings travel in D-Bus messages, which carry UTF-8 only; refusing them here keeps every handle
// sendable.
bool IsText(const char *text)
{
    return text && g_utf8_validate(text, -1, nullptr);
}

int CopyOut(const std::string &value, char **out)
{
    *out = strdup(value.c_str());
    return *out ? APP_CONTROL_ERROR_NONE : APP_CONTROL_ERROR_OUT_OF_MEMORY;
}

std::vector<std::pair<std::string, std::string>>::iterator FindExtra(app_control_h handle, const char *key)
{
    auto &extra = handle->extraData;
    for (auto it = extra.begin(); it != extra.end(); ++it)
        if (it->first == key)
            return it;
    return extra.end();
}

GVariant *LaunchArguments(app_control_h handle)
{
    GVariantBuilder extra;
    g_variant_builder_init(&extra, G_VARIANT_TYPE("a(ss)"));
    for (const auto &entry : handle->extraData)
        g_variant_builder_add(&extra, "(ss)", entry.first.c_str(), entry.second.c_str());
    return g_variant_new("(sa(ss))", handle->operation.c_str(), &extra);
}

int LaunchResult(const GError *error)
{
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER))
        return APP_CONTROL_ERROR_APP_NOT_FOUND;
    return APP_CONTROL_ERROR_LAUNCH_FAILED;
}

int CallLaunch(app_control_h handle)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!bus) {
        HOST_LOG(DLOG_ERROR, "no system bus for launching %s: %s", handle->appId.c_str(), error->message);
        return APP_CONTROL_ERROR_LAUNCH_FAILED;
    }
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus, handle->appId.c_str(), kObjectPath, kInterface, "Launch", LaunchArguments(handle), nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kLaunchTimeoutMs, nullptr, &error);
    if (!reply) {
        HOST_LOG(DLOG_ERROR, "launch of %s (operation %s) failed: %s", handle->appId.c_str(),
                 handle->operation.c_str(), error->message);
        return LaunchResult(error);
    }
    HOST_LOG(DLOG_DEBUG, "launched %s (operation %s, %zu extra data)", handle->appId.c_str(),
             handle->operation.c_str(), handle->extraData.size());
    return APP_CONTROL_ERROR_NONE;
}

// The Launch reply carries no data: on success the reply handle is an empty request.
void Reply(app_control_h request, app_control_reply_cb replyCb, int result, void *userData)
{
    UniqueHandle<app_control_s, app_control_destroy> reply;
    if (result == APP_CONTROL_ERROR_NONE)
        reply.reset(new (std::nothrow) app_control_s);
    replyCb(request, reply.get(), result, userData);
}

} // namespace

extern "C" int app_control_create(app_control_h *app_control)
{
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    *app_control = new (std::nothrow) app_control_s;
    return *app_control ? APP_CONTROL_ERROR_NONE : APP_CONTROL_ERROR_OUT_OF_MEMORY;
}

extern "C" int app_control_destroy(app_control_h app_control)
{
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    delete app_control;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_set_operation(app_control_h app_control, const char *operation)
{
    if (!app_control || (operation && !IsText(operation)))
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    try {
        app_control->operation = operation ? operation : APP_CONTROL_OPERATION_DEFAULT;
    } catch (const std::bad_alloc &) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_get_operation(app_control_h app_control, char **operation)
{
    if (!app_control || !operation)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    return CopyOut(app_control->operation, operation);
}

extern "C" int app_control_set_app_id(app_control_h app_control, const char *app_id)
{
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    if (app_id && !g_dbus_is_name(app_id)) {
        HOST_LOG(DLOG_ERROR, "app id \"%s\" refused: not a bus name", app_id);
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    }
    try {
        app_control->appId = app_id ? app_id : "";
    } catch (const std::bad_alloc &) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_add_extra_data(app_control_h app_control, const char *key, const char *value)
{
    if (!app_control || !IsText(key) || !*key || !IsText(value))
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    try {
        auto existing = FindExtra(app_control, key);
        if (existing != app_control->extraData.end())
            existing->second = value;
        else
            app_control->extraData.emplace_back(key, value);
    } catch (const std::bad_alloc &) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_get_extra_data(app_control_h app_control, const char *key, char **value)
{
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
    if (!app_control || !cb)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    // The callback may add data to the handle; walk the keys as they were when the walk began.
    std::vector<std::string> keys;
    try {
        for (const auto &entry : app_control->extraData)
            keys.push_back(entry.first);
    } catch (const std::bad_alloc &) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    for (const auto &key : keys)
        if (!cb(app_control, key.c_str(), user_data))
            break;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_send_launch_request(app_control_h app_control, app_control_reply_cb reply_cb,
                                               void *user_data)
{
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    if (app_control->appId.empty()) {
        HOST_LOG(DLOG_ERROR, "launch request without an app id refused");
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    }
    int result = CallLaunch(app_control);
    if (reply_cb)
        Reply(app_control, reply_cb, result, user_data);
    return result;
}
