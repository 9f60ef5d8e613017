#include "AppControlHandle.h"

#include <gio/gio.h>

#include <cstring>
#include <new>

namespace {

// Texts travel to other applications as UTF-8 (in D-Bus messages on the host); refusing anything
// else here keeps every handle sendable.
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

} // namespace

namespace nimbos::common {

int CreateAppControl(app_control_h *handle)
{
    if (!handle)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    *handle = new (std::nothrow) app_control_s;
    return *handle ? APP_CONTROL_ERROR_NONE : APP_CONTROL_ERROR_OUT_OF_MEMORY;
}

int DestroyAppControl(app_control_h handle)
{
    if (!handle)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    delete handle;
    return APP_CONTROL_ERROR_NONE;
}

int SetOperation(app_control_h handle, const char *operation)
{
    if (!handle || (operation && !IsText(operation)))
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    try {
        handle->operation = operation ? operation : APP_CONTROL_OPERATION_DEFAULT;
    } catch (const std::bad_alloc &) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    return APP_CONTROL_ERROR_NONE;
}

int GetOperation(app_control_h handle, char **operation)
{
    if (!handle || !operation)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    return CopyOut(handle->operation, operation);
}

int SetAppId(app_control_h handle, const char *appId)
{
    if (!handle || (appId && !g_dbus_is_name(appId)))
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    try {
        handle->appId = appId ? appId : "";
    } catch (const std::bad_alloc &) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    return APP_CONTROL_ERROR_NONE;
}

int AddExtraData(app_control_h handle, const char *key, const char *value)
{
    if (!handle || !IsText(key) || !*key || !IsText(value))
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    try {
        auto existing = FindExtra(handle, key);
        if (existing != handle->extraData.end())
            existing->second = value;
        else
            handle->extraData.emplace_back(key, value);
    } catch (const std::bad_alloc &) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    return APP_CONTROL_ERROR_NONE;
}

int GetExtraData(app_control_h handle, const char *key, char **value)
{
    if (!handle || !key || !value)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    auto existing = FindExtra(handle, key);
    if (existing == handle->extraData.end())
        return APP_CONTROL_ERROR_KEY_NOT_FOUND;
    return CopyOut(existing->second, value);
}

int ForeachExtraData(app_control_h handle, app_control_extra_data_cb cb, void *userData)
{
    if (!handle || !cb)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    // The callback may add data to the handle: the walk covers the keys there were when it began.
    std::vector<std::string> keys;
    try {
        for (const auto &entry : handle->extraData)
            keys.push_back(entry.first);
    } catch (const std::bad_alloc &) {
        return APP_CONTROL_ERROR_OUT_OF_MEMORY;
    }
    for (const auto &key : keys)
        if (!cb(handle, key.c_str(), userData))
            break;
    return APP_CONTROL_ERROR_NONE;
}

} // namespace nimbos::common
