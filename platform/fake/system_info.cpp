// Fake system information: the model and feature values a test set; absent ones make the query
// fail, as a missing file or key does on the host.
#include "nimbos/system_info.h"

#include "FakeCore.h"

#include <cstring>
#include <map>
#include <mutex>

namespace {

using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Text;

struct SystemInfo {
    std::mutex lock;
    std::optional<std::string> model;
    std::map<std::string, std::string> features;
};

SystemInfo &TheInfo()
{
    static SystemInfo *info = new SystemInfo;
    return *info;
}

std::optional<std::string> Feature(const std::string &key)
{
    SystemInfo &info = TheInfo();
    std::lock_guard<std::mutex> lock(info.lock);
    auto found = info.features.find(key);
    return found == info.features.end() ? std::nullopt : std::optional<std::string>(found->second);
}

int CopyOut(const std::optional<std::string> &text, char **value)
{
    if (!text)
        return SYSTEM_INFO_ERROR_IO_ERROR;
    *value = strdup(text->c_str());
    return *value ? SYSTEM_INFO_ERROR_NONE : SYSTEM_INFO_ERROR_IO_ERROR;
}

// The boolean texts the host's key file accepts.
std::optional<bool> Boolean(const std::string &text)
{
    if (text == "true" || text == "1")
        return true;
    if (text == "false" || text == "0")
        return false;
    return std::nullopt;
}

} // namespace

extern "C" int system_info_get_value_string(system_info_key_e key, char **value)
{
    if (auto injected = Enter(__func__, {Text(static_cast<int>(key))}))
        return *injected;
    if (!value || key != SYSTEM_INFO_KEY_MODEL)
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    SystemInfo &info = TheInfo();
    std::lock_guard<std::mutex> lock(info.lock);
    return CopyOut(info.model, value);
}

extern "C" int system_info_get_feature_string(const char *key, char **value)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    if (!key || !*key || !value)
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    return CopyOut(Feature(key), value);
}

extern "C" int system_info_get_feature_bool(const char *key, bool *value)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    if (!key || !*key || !value)
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    const auto text = Feature(key);
    const auto flag = text ? Boolean(*text) : std::nullopt;
    if (!flag)
        return SYSTEM_INFO_ERROR_IO_ERROR;
    *value = *flag;
    return SYSTEM_INFO_ERROR_NONE;
}

namespace nimbos::fake {

void SetModel(const std::optional<std::string> &model)
{
    SystemInfo &info = TheInfo();
    std::lock_guard<std::mutex> lock(info.lock);
    info.model = model;
}

void SetFeatureString(const std::string &key, const std::string &value)
{
    SystemInfo &info = TheInfo();
    std::lock_guard<std::mutex> lock(info.lock);
    info.features[key] = value;
}

void SetFeatureBool(const std::string &key, bool value)
{
    SetFeatureString(key, value ? "true" : "false");
}

void RemoveFeature(const std::string &key)
{
    SystemInfo &info = TheInfo();
    std::lock_guard<std::mutex> lock(info.lock);
    info.features.erase(key);
}

namespace detail {

void ResetSystemInfo()
{
    SystemInfo &info = TheInfo();
    std::lock_guard<std::mutex> lock(info.lock);
    info.model.reset();
    info.features.clear();
}

} // namespace detail

} // namespace nimbos::fake
