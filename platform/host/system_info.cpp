// System information on the host: a key file, "/etc/nimbos/system-info.conf" under HADRIX_ROOT, with
// the model in [system] and feature keys by their full names in [features]. The file is read again
// on every query: it is a few lines, queries are rare, and an edited file takes effect at once.
#include "nimbos/system_info.h"

#include "nimbos/paths.h"

#include "HostLog.h"

#include <glib.h>

#include <cstring>
#include <string>

namespace {

constexpr const char *kSystemInfoFile = "/etc/nimbos/system-info.conf";
constexpr const char *kSystemGroup = "system";
constexpr const char *kFeatureGroup = "features";
constexpr const char *kModelKey = "model";

GKeyFile *LoadSystemInfo()
{
    std::string path = nimbos::Path(kSystemInfoFile);
    g_autoptr(GKeyFile) file = g_key_file_new();
    g_autoptr(GError) error = nullptr;
    if (!g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, &error)) {
        HOST_LOG(DLOG_WARN, "system information %s unreadable: %s", path.c_str(), error->message);
        return nullptr;
    }
    return static_cast<GKeyFile *>(g_steal_pointer(&file));
}

int GetString(const char *group, const char *key, char **value)
{
    g_autoptr(GKeyFile) file = LoadSystemInfo();
    if (!file)
        return SYSTEM_INFO_ERROR_IO_ERROR;
    g_autoptr(GError) error = nullptr;
    g_autofree char *text = g_key_file_get_string(file, group, key, &error);
    if (!text) {
        HOST_LOG(DLOG_WARN, "system information [%s] %s: %s", group, key, error->message);
        return SYSTEM_INFO_ERROR_IO_ERROR;
    }
    *value = strdup(text);
    return *value ? SYSTEM_INFO_ERROR_NONE : SYSTEM_INFO_ERROR_IO_ERROR;
}

} // namespace

extern "C" int system_info_get_value_string(system_info_key_e key, char **value)
{
    if (!value)
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    if (key != SYSTEM_INFO_KEY_MODEL) {
        HOST_LOG(DLOG_ERROR, "system information key %d refused: only the model is known", static_cast<int>(key));
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    }
    return GetString(kSystemGroup, kModelKey, value);
}

extern "C" int system_info_get_feature_string(const char *key, char **value)
{
    if (!key || !*key || !value)
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    return GetString(kFeatureGroup, key, value);
}

extern "C" int system_info_get_feature_bool(const char *key, bool *value)
{
    if (!key || !*key || !value)
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    g_autoptr(GKeyFile) file = LoadSystemInfo();
    if (!file)
        return SYSTEM_INFO_ERROR_IO_ERROR;
    g_autoptr(GError) error = nullptr;
    gboolean flag = g_key_file_get_boolean(file, kFeatureGroup, key, &error);
    if (error) {
        HOST_LOG(DLOG_WARN, "system information [%s] %s: %s", kFeatureGroup, key, error->message);
        return SYSTEM_INFO_ERROR_IO_ERROR;
    }
    *value = flag;
    return SYSTEM_INFO_ERROR_NONE;
}
