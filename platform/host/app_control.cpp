// Application control on the host: the shared handle (AppControlHandle.h); sending a launch
// request calls Launch on the target's bus name on the system bus.
#include "nimbos/app.h"

#include "AppControlHandle.h"
#include "HostLog.h"
#include "UniqueHandle.h"

#include <gio/gio.h>

#include <memory>
#include <new>

namespace {

constexpr const char *kObjectPath = "/org/nimbos/AppControl";
constexpr const char *kInterface = "org.nimbos.AppControl";
constexpr int kLaunchTimeoutMs = 1000;

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
    return nimbos::common::CreateAppControl(app_control);
}

extern "C" int app_control_destroy(app_control_h app_control)
{
    return nimbos::common::DestroyAppControl(app_control);
}

extern "C" int app_control_set_operation(app_control_h app_control, const char *operation)
{
    return nimbos::common::SetOperation(app_control, operation);
}

extern "C" int app_control_get_operation(app_control_h app_control, char **operation)
{
    return nimbos::common::GetOperation(app_control, operation);
}

extern "C" int app_control_set_app_id(app_control_h app_control, const char *app_id)
{
    const int result = nimbos::common::SetAppId(app_control, app_id);
    if (result == APP_CONTROL_ERROR_INVALID_PARAMETER && app_control && app_id)
        HOST_LOG(DLOG_ERROR, "app id \"%s\" refused: not a bus name", app_id);
    return result;
}

extern "C" int app_control_add_extra_data(app_control_h app_control, const char *key, const char *value)
{
    return nimbos::common::AddExtraData(app_control, key, value);
}

extern "C" int app_control_get_extra_data(app_control_h app_control, const char *key, char **value)
{
    return nimbos::common::GetExtraData(app_control, key, value);
}

extern "C" int app_control_foreach_extra_data(app_control_h app_control, app_control_extra_data_cb cb,
                                              void *user_data)
{
    return nimbos::common::ForeachExtraData(app_control, cb, user_data);
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
