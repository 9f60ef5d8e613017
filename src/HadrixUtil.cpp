#include "HadrixUtil.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

#include "Clock.h"
#include "Decision.h"
#include "Log.h"
#include "nimbos/app.h"
#include "nimbos/paths.h"
#include "nimbos/system_info.h"
#include "UniqueHandle.h"

namespace {

const std::array<const char *, VCONF_KEY_COUNT> kVconfKeys = {
    "db/setting/accessibility/tts",
    "memory/tv-viewer/volume_event_value",
    "memory/tv-viewer/ext_volume_tts_play",
    "memory/tv-viewer/show_ext_volume",
    "memory/org.nimbos.emanual-app/active_category",
    "db/hadrix/volume_level",
    "db/hadrix/volume_mute_status",
    "db/menu_widget/language",
};

const char kTvViewerAppId[] = "org.nimbos.volume-app";
const char kEasel32ModelTag[] = "KF03BX";

struct CameraRow {
    const char *name;
    const char *vendor;
    const char *product;
};

// Webcams with a microphone: they enumerate as USB audio but must never take the TV sound.
// The same product name stands twice on purpose: it ships with two product ids.
const CameraRow kCameraTable[] = {
    {"Logitech Webcam C930e", "0x046D", "0x0843"},
    {"c922 Pro Stream Webcam", "0x046D", "0x085C"},
    {"Logitech Webcam C925e", "0x046D", "0x085B"},
    {"HD Pro Webcam C920", "0x046D", "0x082D"},
    {"HD Pro Webcam C920", "0x046D", "0x0892"},
    {"Logitech Webcam C920-C", "0x046D", "0x0841"},
    {"Logitech Webcam C930c", "0x046D", "0x0891"},
    {"C920 Pro HD Webcam", "0x046D", "0x08E5"},
    {"Logitech StreamCam", "0x046D", "0x0893"},
    {"Corvel SC-FD100B", "0x1BCF", "0x2283"},
    {"Logitech Webcam C270-147", "0x046D", "0x0825"},
    {"Corvel Trimline Cam", "0x04E8", "0x20D3"},
};

using CString = UniqueHandle<char, free>;

using AppControl = UniqueHandle<app_control_s, app_control_destroy>;

// The camera table's rule that knows the device, or null.
const char *MatchCamera(const std::string &name, int vendorId, int productId)
{
    LOGD("name : %s, vendor: %d, product: %d", name.c_str(), vendorId, productId);
    for (const CameraRow &row : kCameraTable) {
        if (name == row.name) {
            LOGD("same name");
            return decision::kCameraName;
        }
        unsigned int vendor = 0;
        unsigned int product = 0;
        sscanf(row.vendor, "%x", &vendor);
        sscanf(row.product, "%x", &product);
        if (vendor == static_cast<unsigned int>(vendorId) && product == static_cast<unsigned int>(productId)) {
            LOGD("same vendorId&productId");
            return decision::kCameraIds;
        }
    }
    LOGD("Not carmera");
    return nullptr;
}

bool IsValidIndex(int index)
{
    return index >= 0 && index < VCONF_KEY_COUNT;
}

bool NodeExists(const std::string &path)
{
    if (access(nimbos::Path(path).c_str(), F_OK) == 0)
        return true;
    LOGE("file %s not exist", path.c_str());
    return false;
}

} // namespace

const char *CUsbServiceUtil::GetVconfKey(int index)
{
    return IsValidIndex(index) ? kVconfKeys[index] : "";
}

bool CUsbServiceUtil::GetVconf(const std::string &key, std::string &value)
{
    CString text(vconf_get_str(key.c_str()));
    if (!text) {
        LOGE("fail to get vconfkey %s", key.c_str());
        return false;
    }
    value = text.get();
    LOGD("key : %s, value : %s", key.c_str(), value.c_str());
    return true;
}

bool CUsbServiceUtil::GetVconf(const std::string &key, bool &value)
{
    int raw = 0;
    if (vconf_get_bool(key.c_str(), &raw) != 0) {
        LOGE("fail to get vconfkey %s", key.c_str());
        return false;
    }
    value = raw != 0;
    LOGD("key : %s, value : %d", key.c_str(), value);
    return true;
}

bool CUsbServiceUtil::GetVconf(const std::string &key, int &value)
{
    int raw = 0;
    if (vconf_get_int(key.c_str(), &raw) != 0) {
        LOGE("fail to get vconfkey %s", key.c_str());
        return false;
    }
    value = raw;
    LOGD("key : %s, value : %d", key.c_str(), value);
    return true;
}

bool CUsbServiceUtil::GetVconf(int index, std::string &value)
{
    CString text(IsValidIndex(index) ? vconf_get_str(kVconfKeys[index]) : nullptr);
    if (!text) {
        LOGE("fail to get vconfkey %s[%d]", GetVconfKey(index), index);
        return false;
    }
    value = text.get();
    LOGD("key : %s, value : %s", kVconfKeys[index], value.c_str());
    return true;
}

bool CUsbServiceUtil::GetVconf(int index, bool &value)
{
    int raw = 0;
    if (!IsValidIndex(index) || vconf_get_bool(kVconfKeys[index], &raw) != 0) {
        LOGE("fail to get vconfkey %s[%d]", GetVconfKey(index), index);
        return false;
    }
    value = raw != 0;
    LOGD("key : %s, value : %d", kVconfKeys[index], value);
    return true;
}

bool CUsbServiceUtil::GetVconf(int index, int &value)
{
    int raw = 0;
    if (!IsValidIndex(index) || vconf_get_int(kVconfKeys[index], &raw) != 0) {
        LOGE("fail to get vconfkey %s[%d]", GetVconfKey(index), index);
        return false;
    }
    value = raw;
    LOGD("key : %s, value : %d", kVconfKeys[index], value);
    return true;
}

bool CUsbServiceUtil::SetVconf(int index, const std::string &value)
{
    if (!IsValidIndex(index) || vconf_set_str(kVconfKeys[index], value.c_str()) != 0) {
        LOGE("fail to vconfkey %s[%d]", GetVconfKey(index), index);
        return false;
    }
    LOGD("key : %s, value : %s", kVconfKeys[index], value.c_str());
    return true;
}

bool CUsbServiceUtil::SetVconf(int index, bool value)
{
    if (!IsValidIndex(index) || vconf_set_bool(kVconfKeys[index], value) != 0) {
        LOGE("fail to set vconfkey %s[%d]", GetVconfKey(index), index);
        return false;
    }
    LOGD("key : %s, value : %d", kVconfKeys[index], value);
    return true;
}

bool CUsbServiceUtil::SetVconf(int index, int value)
{
    if (!IsValidIndex(index) || vconf_set_int(kVconfKeys[index], value) != 0) {
        LOGE("fail to vconfkey %s[%d]", GetVconfKey(index), index);
        return false;
    }
    LOGD("key : %s, value : %d", kVconfKeys[index], value);
    return true;
}

bool CUsbServiceUtil::AddVconfChangedCb(int index, vconf_callback_fn cb, void *user)
{
    LOGD("Add vconf key callback %s[%d]", GetVconfKey(index), index);
    return !IsValidIndex(index) || vconf_notify_key_changed(kVconfKeys[index], cb, user) != 0;
}

bool CUsbServiceUtil::RemoveVconfChangedCb(int index, vconf_callback_fn cb)
{
    LOGD("Remove vconf key callback %s[%d]", GetVconfKey(index), index);
    return !IsValidIndex(index) || vconf_ignore_key_changed(kVconfKeys[index], cb) != 0;
}

void CUsbServiceUtil::Wait(unsigned long ms)
{
    CClock::Get().Sleep(ms);
}

int CUsbServiceUtil::CallShellCmd(const std::string &cmd)
{
    LOGD("call shell cmd [%s]", cmd.c_str());
    int result = system(cmd.c_str());
    LOGD("shell cmd result %d", result);
    return result;
}

uint32_t CUsbServiceUtil::GetUptime()
{
    return static_cast<uint32_t>(CClock::Get().NowMs());
}

uint32_t CUsbServiceUtil::GetCurrentTimeStamp()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    LOGD("time sec: %ld, usec: %ld", static_cast<long>(now.tv_sec), static_cast<long>(now.tv_usec));
    uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_usec) / 1000u;
    return static_cast<uint32_t>(ms);
}

bool CUsbServiceUtil::IsSndPcmPlayExist(int card)
{
    return NodeExists("/dev/snd/pcmC" + std::to_string(card) + "D0p");
}

bool CUsbServiceUtil::IsSndCtrlCardExist(int card)
{
    return NodeExists("/dev/snd/controlC" + std::to_string(card));
}

std::string CUsbServiceUtil::ReplaceStr(const std::string &src, const std::string &replaced,
                                        const std::string &substitution)
{
    LOGD("ReplaceStr strSrc:[%s],strRepaced:[%s],strSubstitution:[%s]", src.c_str(), replaced.c_str(),
         substitution.c_str());
    size_t pos = src.find(replaced);
    if (pos == std::string::npos)
        return src;
    std::string result = src;
    result.replace(pos, replaced.size(), substitution);
    return result;
}

bool CUsbServiceUtil::LaunchApp(const ExtraData &extraData)
{
    app_control_h raw = nullptr;
    if (app_control_create(&raw) != APP_CONTROL_ERROR_NONE) {
        LOGE("Failed to launch %s", kTvViewerAppId);
        return false;
    }
    AppControl request(raw);
    app_control_set_operation(request.get(), APP_CONTROL_OPERATION_DEFAULT);
    app_control_set_app_id(request.get(), kTvViewerAppId);
    for (const auto &[key, value] : extraData) {
        LOGD("key: %s, value: %s", key.c_str(), value.c_str());
        app_control_add_extra_data(request.get(), key.c_str(), value.c_str());
    }
    if (app_control_send_launch_request(request.get(), nullptr, nullptr) != APP_CONTROL_ERROR_NONE) {
        LOGE("Failed to launch %s", kTvViewerAppId);
        return false;
    }
    return true;
}

bool CUsbServiceUtil::GetSwModel(std::string &model)
{
    char *raw = nullptr;
    int ret = system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &raw);
    CString value(raw);
    if (ret != SYSTEM_INFO_ERROR_NONE || !value) {
        LOGE("fail to get sw mode.");
        return false;
    }
    model = value.get();
    LOGD("get sw mode :%s", model.c_str());
    return true;
}

bool CUsbServiceUtil::IsEasel32TV()
{
    std::string model;
    if (!GetSwModel(model)) {
        LOGE("fail to get sw model..");
        return false;
    }
    bool easel32 = model.find(kEasel32ModelTag) != std::string::npos;
    LOGD("[hadrix] is easel 32 TV :%d", easel32);
    return easel32;
}

bool CUsbServiceUtil::IsTVViewerReady()
{
    std::string showing;
    GetVconf(VCONF_KEY_SHOW_EXT_VOLUME, showing);
    if (!showing.empty()) {
        LOGD("IsTVViewerReady VCONF_KEY_SHOW_EXT_VOLUME is not NULL. Ignore key event");
        return false;
    }
    LOGD("IsTVViewerReady VCONF_KEY_SHOW_EXT_VOLUME is NULL ,return true");
    return true;
}

bool CUsbServiceUtil::IsCamera(const std::string &name, int vendorId, int productId, const char **rule)
{
    const char *matched = MatchCamera(name, vendorId, productId);
    if (rule)
        *rule = matched;
    return matched != nullptr;
}

bool CUsbServiceUtil::IsAstroProduct(const std::string &name, int vendorId, int productId, const char **rule)
{
    LOGD("name: %s, vendorId: %d, productId : %d", name.c_str(), vendorId, productId);
    const char *matched = nullptr;
    if (name == "Astro A20" || name == "Astro Gaming")
        matched = decision::kAstroName;
    else if (vendorId == 0x9886 && productId == 0x0047)
        matched = decision::kAstroIds;
    if (rule)
        *rule = matched;
    return matched != nullptr;
}

bool CUsbServiceUtil::GetCardNum(const std::string &devPath, int *cardNum)
{
    if (devPath.empty()) {
        LOGE("devPath is empty");
        return false;
    }
    size_t pos = devPath.find("card");
    if (pos == std::string::npos) {
        LOGE("no card number in devPath : %s", devPath.c_str());
        return false;
    }
    std::string rest = devPath.substr(pos + 4);
    if (rest.empty()) {
        LOGE("no card num in devPath");
        return false;
    }
    // Every digit after "card" counts, separators are skipped: callers pass paths that end with
    // the card directory.
    // Unsigned, so that an absurdly long run of digits wraps instead of overflowing.
    uint32_t number = 0;
    for (char c : rest)
        if (c >= '0' && c <= '9')
            number = number * 10 + static_cast<uint32_t>(c - '0');
    *cardNum = static_cast<int>(number);
    LOGD("card num %d", *cardNum);
    return true;
}

std::string CUsbServiceUtil::MakeId(int vendorId, int productId)
{
    char id[32];
    snprintf(id, sizeof id, " %04x#%04x ", static_cast<unsigned int>(vendorId), static_cast<unsigned int>(productId));
    return id;
}
