#include "MultiviewHandler.h"

#include <string>
#include <vector>

#include <json/json.h>

#include "HadrixUtil.h"
#include "LocalFileData.h"
#include "Log.h"
#include "nimbos/zones.h"
#include "UniqueHandle.h"

namespace {

constexpr char kUiModeKey[] = "memory/multiscreen/ui_mode";
constexpr char kUiModeOn[] = "on";
constexpr char kVolumeInfoKey[] = "memory/multiscreen/volumeinfo_usbheadset";

using ZoneListPtr = UniqueHandle<rc_zone_list_s, rc_free_zone_list>;

CMultiviewHandler::Links g_links;

// The comparison is exact: any other spelling, or an unreadable key, means multiview is off.
bool ReadMultiviewOn()
{
    std::string mode;
    return CUsbServiceUtil::GetVconf(kUiModeKey, mode) && mode == kUiModeOn;
}

// The ids of the multiview zones, in the resource centre's order.
std::vector<int> GetZoneIds()
{
    std::vector<int> ids;
    rc_zone_list_s *raw = nullptr;
    int ret = rc_get_zone_list(RC_ZONE_TYPE_MULTIVIEW, &raw);
    ZoneListPtr list(raw);
    if (ret != RC_ERROR_NONE) {
        LOGE("rc_get_zone_list return : %d", ret);
        return ids;
    }
    while (rc_zone_s *zone = rc_get_next_zone(list.get())) {
        int id = 0;
        ret = rc_get_zone_id(zone, &id);
        if (ret != RC_ERROR_NONE) {
            LOGE("rc_get_zone_id return : %d", ret);
            continue;
        }
        ids.push_back(id);
    }
    return ids;
}

// The multiview UI reads this value as one JSON object with its members in the order "mute",
// "volumekey", "volumelevel" (the writer orders members by name, which gives that order). A
// settings string is one line, so the object is written without line breaks.
std::string VolumeInfoText(bool mute, const Json::Value &volumeLevel)
{
    Json::Value info(Json::objectValue);
    info["mute"] = mute ? "on" : "off";
    info["volumekey"] = "none";
    info["volumelevel"] = volumeLevel;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, info);
}

bool PublishVolumeInfo(bool mute, const Json::Value &volumeLevel)
{
    const std::string text = VolumeInfoText(mute, volumeLevel);
    const int ret = vconf_set_str(kVolumeInfoKey, text.c_str());
    LOGI("call vconf_set_str : %s, return :%d", text.c_str(), ret);
    return ret == 0;
}

} // namespace

void CMultiviewHandler::SetLinks(Links links)
{
    g_links = std::move(links);
}

CMultiviewHandler::CMultiviewHandler() : m_bMultiviewOn(ReadMultiviewOn())
{
    LOGI("multiview on : %d", m_bMultiviewOn.load());
    int ret = vconf_notify_key_changed(kUiModeKey, m_OnMultiViewChangeCb, this);
    if (ret != 0)
        LOGE("vconf_notify_key_changed return : %d", ret);
    ret = sound_manager_set_multiview_speaker_selection_changed_cb(m_OnMultiViewerSpeakerChangeCb, this);
    if (ret != SOUND_MANAGER_ERROR_NONE)
        LOGE("sound_manager_set_multiview_speaker_selection_changed_cb return : %d", ret);
}

CMultiviewHandler::~CMultiviewHandler()
{
    int ret = vconf_ignore_key_changed(kUiModeKey, m_OnMultiViewChangeCb);
    if (ret != 0)
        LOGE("vconf_ignore_key_changed return : %d", ret);
    ret = sound_manager_unset_multiview_speaker_selection_changed_cb();
    if (ret != SOUND_MANAGER_ERROR_NONE)
        LOGE("sound_manager_unset_multiview_speaker_selection_changed_cb return : %d", ret);
}

bool CMultiviewHandler::IsMultiviewOn() const
{
    return m_bMultiviewOn.load();
}

bool CMultiviewHandler::SetMute(bool mute)
{
    if (!IsMultiviewOn()) {
        LOGI("multiviewer off");
        return false;
    }
    if (mute)
        return PublishVolumeInfo(true, "none");
    return PublishVolumeInfo(false, CSingleton<CLocalFileData>::GetInstance()->GetVolumeLevel());
}

bool CMultiviewHandler::SetVolumeLevel(int level)
{
    if (!IsMultiviewOn()) {
        LOGI("multiviewer off");
        return false;
    }
    return PublishVolumeInfo(false, level);
}

bool CMultiviewHandler::SetSpeakerSelection(sound_tv_output_route_e route)
{
    bool lastSucceeded = false;
    for (int zoneId : GetZoneIds()) {
        const int ret = sound_manager_set_multiview_speaker_selection_with_zone_id(route, zoneId);
        LOGI("sound_manager_set_multiview_speaker_selection_with_zone_id, route = %d zone id = %d, ret = %d",
             static_cast<int>(route), zoneId, ret);
        lastSucceeded = ret == SOUND_MANAGER_ERROR_NONE;
    }
    return lastSucceeded;
}

sound_tv_output_route_e CMultiviewHandler::GetSpeakerSelection()
{
    sound_tv_output_route_e route = SOUND_TV_OUTPUT_DEFAULT;
    const std::vector<int> zoneIds = GetZoneIds();
    if (zoneIds.empty()) {
        LOGE("no multiview zone, route = %d", static_cast<int>(route));
        return route;
    }
    const int ret = sound_manager_get_multiview_speaker_selection_with_zone_id(&route, zoneIds.front());
    LOGI("sound_manager_get_multiview_speaker_selection_with_zone_id, route = %d zone id = %d, ret = %d",
         static_cast<int>(route), zoneIds.front(), ret);
    return route;
}

void CMultiviewHandler::m_OnMultiViewChangeCb(keynode_t *, void *user_data)
{
    auto *self = static_cast<CMultiviewHandler *>(user_data);
    if (!self) {
        LOGE("userdata is NULL");
        return;
    }
    const bool on = ReadMultiviewOn();
    LOGI("multiview on : %d", on);
    self->m_bMultiviewOn.store(on);
    if (on && g_links.multiviewEnabled)
        g_links.multiviewEnabled();
}

void CMultiviewHandler::m_OnMultiViewerSpeakerChangeCb(sound_tv_output_route_e route, int zone, void *data)
{
    LOGI("route : %d, zone : %d", static_cast<int>(route), zone);
    auto *self = static_cast<CMultiviewHandler *>(data);
    if (!self) {
        LOGE("userdata is NULL");
        return;
    }
    if (!self->IsMultiviewOn()) {
        LOGI("multiview off, return");
        return;
    }
    if (g_links.speakerChanged)
        g_links.speakerChanged(route);
}
