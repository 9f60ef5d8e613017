#include "KeyEventHandler.h"

#include <cstring>

#include "AudioControlMgr.h"
#include "HadrixUtil.h"
#include "LocalFileData.h"
#include "Log.h"
#include "MultiviewHandler.h"
#include "nimbos/keyrouter.h"

namespace {

constexpr int KEY_VOLUP = 76;
constexpr int KEY_VOLDOWN = 75;
constexpr int KEY_MUTE = 74;
constexpr int KEY_END = 77;

constexpr int kKeyPress = 0;
constexpr int kKeyRelease = 1;

// The router's grab mode for the volume keys, and the window that grabs them (this process).
constexpr int kGrabMode = 3;
constexpr int kWindow = 0;

// The e-manual page that teaches the remote needs the real keys while it is shown.
constexpr int kLearnRemotePageOn = 1;
constexpr int kLearnRemotePageOff = 0;
constexpr int kUnreadCategory = -1;

constexpr char kCmdUpDown[] = "extvolume_updown";
constexpr char kCmdExtVolume[] = "extvolume";
constexpr char kCmdPlayTts[] = "play_tts";
constexpr int kExtVolumeMute = -4;
constexpr int kExtVolumeUnMute = -5;
constexpr char kBeep[] = "beep";

const Key_Info kVolumeKeys[] = {
    {KEY_VOLUP, "XF86AudioRaiseVolume"},
    {KEY_VOLDOWN, "XF86AudioLowerVolume"},
    {KEY_MUTE, "XF86AudioMute"},
    {KEY_END, "null"},
};

bool IsGrabbedKey(const Key_Info &key)
{
    return key.value >= KEY_MUTE && key.value <= KEY_VOLUP;
}

int ReadLearnRemotePage()
{
    int category = kUnreadCategory;
    CUsbServiceUtil::GetVconf(VCONF_KEY_EMANUAL_ACTIVE_CATEGORY, category);
    return category;
}

bool IsMultiviewOn()
{
    return CSingleton<CMultiviewHandler>::GetInstance()->IsMultiviewOn();
}

CLocalFileData *Stored()
{
    return CSingleton<CLocalFileData>::GetInstance();
}

CKeyHandler::Links g_links;

} // namespace

void CKeyHandler::SetLinks(Links links)
{
    g_links = std::move(links);
}

CKeyHandler::CKeyHandler()
{
    if (CUsbServiceUtil::AddVconfChangedCb(VCONF_KEY_ACCESSIBILITY_TTS, OnTTSEnalbedChanged, this))
        LOGE("fail to watch the tts setting");
    bool tts = false;
    CUsbServiceUtil::GetVconf(VCONF_KEY_ACCESSIBILITY_TTS, tts);
    m_bTTSEnabled = tts;
}

CKeyHandler::~CKeyHandler()
{
    UngrabVolumeKey();
    CUsbServiceUtil::RemoveVconfChangedCb(VCONF_KEY_ACCESSIBILITY_TTS, OnTTSEnalbedChanged);
    // The deferred release would run on a destroyed handler: release at once instead.
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_RouterTimerId.Stop();
    if (m_pKeyDownHandler || m_pKeyUpHandler)
        m_UnGrabKey(kVolumeKeys);
}

void CKeyHandler::OnTTSEnalbedChanged(keynode_t *, void *data)
{
    auto *self = static_cast<CKeyHandler *>(data);
    if (!self)
        return;
    bool tts = false;
    CUsbServiceUtil::GetVconf(VCONF_KEY_ACCESSIBILITY_TTS, tts);
    self->m_bTTSEnabled = tts;
}

bool CKeyHandler::m_InitializeGrab()
{
    const int result = keyrouter_connect();
    switch (result) {
    case KEYROUTER_ERROR_NONE:
        LOGI("call KeyRouter_Initialize");
        return true;
    case KEYROUTER_ERROR_NO_DISPLAY:
        LOGE("wl2_display is null");
        break;
    case KEYROUTER_ERROR_NO_ROUTER:
        LOGE("wl_registry is null");
        break;
    case KEYROUTER_ERROR_NO_SEAT:
        LOGE("seat is null");
        break;
    default:
        LOGE("display is null");
        break;
    }
    LOGE("keyrouter_connect return : %d", result);
    return false;
}

bool CKeyHandler::IsGrabbed()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_bGrabbed;
}

bool CKeyHandler::GrabVolumeKey(KeyCallback keyCb, vconf_callback_fn volumeEventCb, void *userData)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    LOGI("GrabVolumeKey Enter");
    if (m_bGrabbed) {
        LOGW("Volume key is grabbed already.");
        return false;
    }
    m_pKeyCb = keyCb;
    m_pVolumeEventCb = volumeEventCb;
    m_pUserData = userData;
    if (CUsbServiceUtil::AddVconfChangedCb(VCONF_KEY_EMANUAL_ACTIVE_CATEGORY, t_VconfCBOfEmanualLearnTvRemote, this))
        LOGE("[NAM-SEQ3] vconf_notify_key_changed t_VconfCBOfEmanualLearnTvRemote fail");
    else
        LOGD("[NAM-SEQ3] vconf_notify_key_changed t_VconfCBOfEmanualLearnTvRemote success");

    if (ReadLearnRemotePage() != kLearnRemotePageOn)
        m_ScheduleRouterChange(m_OnTimeoutGrabKey);

    if (m_pVolumeEventCb) {
        if (CUsbServiceUtil::AddVconfChangedCb(VCONF_KEY_VOLUME_EVENT_VALUE, m_pVolumeEventCb, this))
            LOGE("[NAM-SEQ3] vconf_notify_key_changed VolumeEventChangedCB fail");
        else
            LOGD("[NAM-SEQ3] vconf_notify_key_changed VolumeEventChangedCB success");
    }
    m_bGrabbed = true;
    return true;
}

void CKeyHandler::UngrabVolumeKey()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    LOGI("Enter UngrabVolumeKey");
    if (!m_bGrabbed) {
        LOGD("Volume key is not grabbed.");
        return;
    }
    if (ReadLearnRemotePage() != kLearnRemotePageOn)
        m_ScheduleRouterChange(m_OnTimeoutUnGrabKey);

    if (CUsbServiceUtil::RemoveVconfChangedCb(VCONF_KEY_EMANUAL_ACTIVE_CATEGORY, t_VconfCBOfEmanualLearnTvRemote))
        LOGE("[NAM-SEQ3] vconf_ignore_key_changed VCONF_KEY_EMANUAL_ACTIVE_CATEGORY fail");
    else
        LOGD("[NAM-SEQ3] vconf_ignore_key_changed VCONF_KEY_EMANUAL_ACTIVE_CATEGORY success");
    if (m_pVolumeEventCb) {
        if (CUsbServiceUtil::RemoveVconfChangedCb(VCONF_KEY_VOLUME_EVENT_VALUE, m_pVolumeEventCb))
            LOGE("[NAM-SEQ3] vconf_ignore_key_changed VolumeEventChangedCB fail");
        else
            LOGD("[NAM-SEQ3] vconf_ignore_key_changed VolumeEventChangedCB success");
    }
    ecore_job_del(m_pPressJob);
    m_pPressJob = nullptr;
    ecore_job_del(m_pReleaseJob);
    m_pReleaseJob = nullptr;
    m_pKeyCb = nullptr;
    m_pVolumeEventCb = nullptr;
    m_pUserData = nullptr;
    m_bGrabbed = false;
}

// Only the latest decision matters: a grab still waiting when the release is asked for (or the
// other way round) is dropped, so the router never ends up in the older state.
void CKeyHandler::m_ScheduleRouterChange(GSourceFunc change)
{
    m_RouterTimerId.Start(0, change, this);
}

gboolean CKeyHandler::m_OnTimeoutGrabKey(gpointer data)
{
    static_cast<CKeyHandler *>(data)->m_GrabKey(kVolumeKeys, kGrabMode);
    return G_SOURCE_REMOVE;
}

gboolean CKeyHandler::m_OnTimeoutUnGrabKey(gpointer data)
{
    static_cast<CKeyHandler *>(data)->m_UnGrabKey(kVolumeKeys);
    return G_SOURCE_REMOVE;
}

namespace {

// Stages the volume keys of the table at the router; verb names the step in the log.
void StageKeys(const Key_Info *keys, int mode, const char *verb)
{
    for (const Key_Info *key = keys; key->value != KEY_END; ++key) {
        if (!IsGrabbedKey(*key))
            continue;
        if (capi_window_tv_add_key(kWindow, key->name, mode) == KEYROUTER_ERROR_NONE)
            LOGD("success to %s key[%s]", verb, key->name);
        else
            LOGE("fail to %s key[%s]", verb, key->name);
    }
}

} // namespace

// The router is connected here, on the main loop where its key events arrive, right before every
// grab: the connection then exists whichever path grabs (the deferred grab or the e-manual page
// closing), it is not made under m_Mutex, and connecting again while connected changes nothing.
void CKeyHandler::m_GrabKey(const Key_Info *keys, int mode)
{
    m_InitializeGrab();
    LOGI("m_GrabKey  mode is %d", mode);
    if (capi_window_tv_reset_key_grab_config(kWindow) != KEYROUTER_ERROR_NONE)
        LOGE("fail to reset grab config.");
    StageKeys(keys, mode, "grab");
    if (capi_window_tv_set_grabbed_keys(kWindow) != KEYROUTER_ERROR_NONE)
        LOGE("fail to set grab keys.");
    const int volUp = capi_window_tv_set_special_key_mode(kWindow, CAPI_WINDOW_TV_KEY_BY_PASS_PICTURE_OFF,
                                                          "XF86AudioRaiseVolume");
    const int volDown = capi_window_tv_set_special_key_mode(kWindow, CAPI_WINDOW_TV_KEY_BY_PASS_PICTURE_OFF,
                                                            "XF86AudioLowerVolume");
    LOGI("capi_window_tv_set_special_key_mode/CAPI_WINDOW_TV_KEY_BY_PASS_PICTURE_OFF for KEY_VOLUP[%d], "
         "KEY_VOLDOWN[%d]",
         volUp, volDown);
    m_AddKeyEventHandlers();
}

void CKeyHandler::m_UnGrabKey(const Key_Info *keys)
{
    LOGI("m_UnGrabKey mode is %d", kGrabMode);
    if (capi_window_tv_reset_key_grab_config(kWindow) != KEYROUTER_ERROR_NONE)
        LOGE("fail to reset grab config.");
    StageKeys(keys, kGrabMode, "ungrab");
    if (capi_window_tv_unset_grabbed_keys(kWindow) != KEYROUTER_ERROR_NONE)
        LOGE("fail to set grab keys.");
    m_DeleteKeyEventHandlers();
    // The releases of keys held now go elsewhere: the next press starts a new hold.
    m_HeldKeys = 0;
}

// A second grab while the handlers exist (the e-manual page closing while the keys are held)
// keeps the existing ones, so that every key event is seen once.
void CKeyHandler::m_AddKeyEventHandlers()
{
    if (!m_pKeyDownHandler) {
        m_pKeyDownHandler = ecore_event_handler_add(ECORE_EVENT_KEY_DOWN, m_KeyPressEventCallback, this);
        if (!m_pKeyDownHandler)
            LOGE("failed to register key down event handler");
    }
    if (!m_pKeyUpHandler) {
        m_pKeyUpHandler = ecore_event_handler_add(ECORE_EVENT_KEY_UP, m_KeyReleaseEventCallback, this);
        if (!m_pKeyUpHandler)
            LOGE("failed to register key up event handler");
    }
}

void CKeyHandler::m_DeleteKeyEventHandlers()
{
    ecore_event_handler_del(m_pKeyDownHandler);
    m_pKeyDownHandler = nullptr;
    ecore_event_handler_del(m_pKeyUpHandler);
    m_pKeyUpHandler = nullptr;
}

void CKeyHandler::t_VconfCBOfEmanualLearnTvRemote(keynode_t *node, void *data)
{
    auto *self = static_cast<CKeyHandler *>(data);
    if (!self || !node)
        return;
    const char *name = vconf_keynode_get_name(node);
    if (!name || std::strcmp(name, CUsbServiceUtil::GetVconfKey(VCONF_KEY_EMANUAL_ACTIVE_CATEGORY)) != 0 ||
        vconf_keynode_get_type(node) != VCONF_TYPE_INT)
        return;
    // A change already queued when the keys were released must not grab them again.
    if (!self->IsGrabbed())
        return;
    const int category = vconf_keynode_get_int(node);
    if (category == kLearnRemotePageOff) {
        LOGI("Learn Remote page is Off");
        self->m_GrabKey(kVolumeKeys, kGrabMode);
    } else if (category == kLearnRemotePageOn) {
        LOGI("Learn Remote page is On");
        self->m_UnGrabKey(kVolumeKeys);
    }
}

namespace {

// The key of an event the handler can act on, logged; null for an incomplete event.
const ecore_event_key_s *UsableKey(int type, void *event, void *data)
{
    auto *key = static_cast<const ecore_event_key_s *>(event);
    if (!data || !key || !key->keyname)
        return nullptr;
    LOGD("keyname[%s], type[%d], ECORE_UP[%d], ECORE_DOWN[%d]", key->keyname, type, ECORE_EVENT_KEY_UP,
         ECORE_EVENT_KEY_DOWN);
    return key;
}

} // namespace

int CKeyHandler::m_KeyPressEventCallback(int type, void *event, void *data)
{
    auto *self = static_cast<CKeyHandler *>(data);
    const ecore_event_key_s *key = UsableKey(type, event, data);
    if (!key)
        return ECORE_EVENT_CONTINUE;
    const KeyDeviceClass device = self->m_CheckdeviceInfo(key);
    LOGD("Volume control from device[%d]", device);
    if (device == KEY_DEVICE_USB_HEADSET) {
        LOGI("Volume control from USB_HEADSET_DEVICE,block it ");
        return ECORE_EVENT_CONTINUE;
    }
    LOGD("Volume control from device[%d],process it", device);
    self->m_QueueKeyJob(key->keyname, self->m_PressKeyName, self->m_pPressJob, m_KeySchedule);
    return ECORE_EVENT_CONTINUE;
}

int CKeyHandler::m_KeyReleaseEventCallback(int type, void *event, void *data)
{
    auto *self = static_cast<CKeyHandler *>(data);
    const ecore_event_key_s *key = UsableKey(type, event, data);
    if (!key)
        return ECORE_EVENT_CONTINUE;
    self->m_QueueKeyJob(key->keyname, self->m_ReleaseKeyName, self->m_pReleaseJob, m_KeyScheduleRel);
    return ECORE_EVENT_CONTINUE;
}

KeyDeviceClass CKeyHandler::m_CheckdeviceInfo(const ecore_event_key_s *key)
{
    if (!key->device) {
        LOGW("ecore_dev is null");
        return KEY_DEVICE_REMOTE;
    }
    if (!key->device->name) {
        LOGW("fail to get device name.");
        return KEY_DEVICE_REMOTE;
    }
    LOGD("Key press from device name :[%s]", key->device->name);
    return CKeyLevels::ClassifyDevice(key->device->name, [](const std::string &name) {
        return g_links.isUsbDevice && g_links.isUsbDevice(name);
    });
}

// Events that arrive faster than the main loop runs coalesce: only the last one is handled.
void CKeyHandler::m_QueueKeyJob(const char *keyName, char *nameBuffer, ecore_job_s *&job, ecore_job_cb run)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    g_strlcpy(nameBuffer, keyName, kKeyNameSize);
    ecore_job_del(job);
    job = ecore_job_add(run, this);
}

std::string CKeyHandler::m_TakeKeyJob(const char *nameBuffer, ecore_job_s *&job)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    job = nullptr;
    return nameBuffer;
}

void CKeyHandler::m_KeySchedule(void *data)
{
    auto *self = static_cast<CKeyHandler *>(data);
    const std::string name = self->m_TakeKeyJob(self->m_PressKeyName, self->m_pPressJob);
    LOGD("m_KeySchedule=========>>start[%s]", name.c_str());
    LOGD("m_HandleKeyEvent[%d]", self->m_HandleKeyEvent(name.c_str(), kKeyPress));
    LOGD("m_KeySchedule=========>>end[%s]", name.c_str());
}

void CKeyHandler::m_KeyScheduleRel(void *data)
{
    auto *self = static_cast<CKeyHandler *>(data);
    const std::string name = self->m_TakeKeyJob(self->m_ReleaseKeyName, self->m_pReleaseJob);
    LOGD("m_KeyScheduleRel=========>>start[%s]", name.c_str());
    LOGD("m_HandleKeyEvent[%d]", self->m_HandleKeyEvent(name.c_str(), kKeyRelease));
    LOGD("m_KeyScheduleRel=========>>end[%s]", name.c_str());
}

int CKeyHandler::m_HandleKeyEvent(const char *name, int state)
{
    for (const Key_Info *key = kVolumeKeys; key->value != KEY_END; ++key) {
        if (std::strcmp(key->name, name) != 0)
            continue;
        std::lock_guard<std::mutex> lock(m_Mutex);
        t_HandleVolumeKey(key->value, state, m_pUserData);
        return 0;
    }
    return 1;
}

void CKeyHandler::t_HandleVolumeKey(int keyValue, int keyState, void *)
{
    LOGD("** Enter: keyValue[%d], keyState[%d] **", keyValue, keyState);
    if (keyState == kKeyPress) {
        if (keyValue == KEY_VOLUP) {
            t_HandlePressVolUp();
            m_HeldKeys |= kHeldVolUp;
        } else if (keyValue == KEY_VOLDOWN) {
            t_HandlePressVolDown();
            m_HeldKeys |= kHeldVolDown;
        } else if (keyValue == KEY_MUTE) {
            t_HandlePressMute();
        }
    } else if (keyState == kKeyRelease) {
        if (keyValue == KEY_VOLUP) {
            t_HandleReleaseVolUp();
            m_HeldKeys &= ~kHeldVolUp;
        } else if (keyValue == KEY_VOLDOWN) {
            t_HandleReleaseVolDown();
            m_HeldKeys &= ~kHeldVolDown;
        }
    }
}

void CKeyHandler::t_HandlePressVolUp()
{
    t_HandlePressVolume(true);
}

void CKeyHandler::t_HandlePressVolDown()
{
    t_HandlePressVolume(false);
}

// The first press of a hold steps from the stored level; the router's repeats of a held key
// step from the level the previous repeat reached.
void CKeyHandler::t_HandlePressVolume(bool up)
{
    const bool held = (m_HeldKeys & (up ? kHeldVolUp : kHeldVolDown)) != 0;
    SayBeep();
    if (!CUsbServiceUtil::IsTVViewerReady())
        return;
    if (held) {
        m_nWorkingLevel = CKeyLevels::HeldPressLevel(m_nWorkingLevel, up);
    } else {
        LOGD("First Key");
        m_nWorkingLevel = CKeyLevels::FirstPressLevel(Stored()->GetVolumeLevel(), up);
    }
    VolumeLevelAdjust(m_nWorkingLevel, held);
}

void CKeyHandler::t_HandlePressMute()
{
    if (Stored()->GetMuteState())
        VolumeUnMute();
    else
        t_VolumeMute();
}

void CKeyHandler::t_HandleReleaseVolUp()
{
    LOGD("t_HandleReleaseVolUp Enter");
    t_SpeakLevel();
}

void CKeyHandler::t_HandleReleaseVolDown()
{
    LOGD("t_HandleReleaseVolDown Enter");
    t_SpeakLevel();
}

// The level is spoken once, when the key is let go, not on every repeat.
void CKeyHandler::t_SpeakLevel()
{
    if (!m_bTTSEnabled) {
        LOGD("TTS is not enabled");
        return;
    }
    if (IsMultiviewOn())
        return;
    const std::string text = "Volume," + std::to_string(m_nWorkingLevel) + "," + m_strTTSSuffix;
    CUsbServiceUtil::SetVconf(VCONF_KEY_EXT_VOLUME_TTS_PLAY, text);
    SendCmdToTvViewer(kCmdPlayTts, text);
}

void CKeyHandler::SayBeep()
{
    if (!m_bTTSEnabled) {
        LOGD("TTS is not enabled");
        return;
    }
    CUsbServiceUtil::SetVconf(VCONF_KEY_EXT_VOLUME_TTS_PLAY, std::string(kBeep));
    SendCmdToTvViewer(kCmdPlayTts, kBeep);
}

void CKeyHandler::VolumeLevelAdjust(int level, bool held)
{
    if (level < CKeyLevels::kMinLevel || level > CKeyLevels::kMaxLevel) {
        LOGE("volume level out of range, ignored : %d", level);
        return;
    }
    const std::string direction = CKeyLevels::DirectionWord(level, Stored()->GetVolumeLevel(), held);
    LOGI("sound mirroring volume changed to %d", level);
    if (Stored()->GetMuteState())
        t_VolumeUnMute();
    Stored()->SetVolumeLevel(level);
    if (IsMultiviewOn())
        CSingleton<CMultiviewHandler>::GetInstance()->SetVolumeLevel(level);
    else
        SendCmdToTvViewer(kCmdUpDown, direction + "," + std::to_string(level));
    CSingleton<CAudioControlMgr>::GetInstance()->SetUsbHeadsetOutGain(static_cast<unsigned int>(level));
}

void CKeyHandler::VolumeMute()
{
    t_VolumeMute();
}

void CKeyHandler::VolumeUnMute()
{
    t_VolumeUnMute();
}

void CKeyHandler::t_VolumeMute()
{
    t_SetMute(true);
}

void CKeyHandler::t_VolumeUnMute()
{
    t_SetMute(false);
}

// While the TV viewer shows its own volume display nothing changes.
void CKeyHandler::t_SetMute(bool mute)
{
    if (!CUsbServiceUtil::IsTVViewerReady())
        return;
    Stored()->SetMuteState(mute);
    if (IsMultiviewOn())
        CSingleton<CMultiviewHandler>::GetInstance()->SetMute(mute);
    else
        SendCmdToTvViewer(kCmdExtVolume, std::to_string(mute ? kExtVolumeMute : kExtVolumeUnMute));
    CSingleton<CAudioControlMgr>::GetInstance()->SetUsbHeadsetMuteStatus(mute);
}

void CKeyHandler::SendCmdToTvViewer(const std::string &cmd, const std::string &value)
{
    LOGD("SendCmdToTvViewer cmd:[%s],value:[%s]", cmd.c_str(), value.c_str());
    ExtraData extraData = {{"cmd", cmd}, {"value", value}};
    if (cmd == kCmdUpDown) {
        const std::string speaker = g_links.osdName ? g_links.osdName() : std::string();
        LOGD("extraData add speaker_name :[%s]", speaker.c_str());
        extraData.emplace_back("speaker_name", speaker);
        extraData.emplace_back("tts_content", speaker + value);
    }
    CUsbServiceUtil::LaunchApp(extraData);
}
