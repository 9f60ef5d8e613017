#include "SoundMirroringEventHandler.h"

#include "HadrixUtil.h"
#include "KeyEventHandler.h"
#include "LocalFileData.h"
#include "Log.h"

namespace {

constexpr char kMuteKey[] = "memory/menu/network/screenmirroring/set_volume_mute";
constexpr char kLevelKey[] = "memory/menu/network/screenmirroring/set_volume_level";
constexpr int kMaxVolumeLevel = 100;

void Watch(const char *key, vconf_callback_fn cb, void *user_data)
{
    const int ret = vconf_notify_key_changed(key, cb, user_data);
    if (ret != 0)
        LOGE("vconf_notify_key_changed %s return : %d", key, ret);
}

void Unwatch(const char *key, vconf_callback_fn cb)
{
    const int ret = vconf_ignore_key_changed(key, cb);
    if (ret != 0)
        LOGE("vconf_ignore_key_changed %s return : %d", key, ret);
}

// The source's writes count only while the headset carries the TV sound.
bool IsUsbHeadsetMode()
{
    if (CSingleton<CLocalFileData>::GetInstance()->IsUSBAudioMode())
        return true;
    LOGI("not usb headset mode, ignore.");
    return false;
}

} // namespace

CSoundMirroringEventHandler::CSoundMirroringEventHandler()
{
    m_RegisterVconfCallback();
}

CSoundMirroringEventHandler::~CSoundMirroringEventHandler()
{
    Unwatch(kMuteKey, OnSetVolumeMuteChanged);
    Unwatch(kLevelKey, OnSetVolumeLevelChanged);
}

void CSoundMirroringEventHandler::m_RegisterVconfCallback()
{
    Watch(kMuteKey, OnSetVolumeMuteChanged, this);
    Watch(kLevelKey, OnSetVolumeLevelChanged, this);
}

void CSoundMirroringEventHandler::OnSetVolumeMuteChanged(keynode_t *, void *user_data)
{
    LOGI("[START] ");
    auto *self = static_cast<CSoundMirroringEventHandler *>(user_data);
    if (!self) {
        LOGE("this is null");
        return;
    }
    if (!IsUsbHeadsetMode())
        return;
    int mute = self->m_nLastMute;
    if (!CUsbServiceUtil::GetVconf(kMuteKey, mute)) {
        LOGE("cannot read %s, ignore.", kMuteKey);
        return;
    }
    if (mute == self->m_nLastMute) {
        LOGI("mute state not changed..ignore..");
        return;
    }
    LOGI("sound mirroring mute state changed %d.", mute);
    self->m_nLastMute = mute;
    CKeyHandler *keys = CSingleton<CKeyHandler>::GetInstance();
    if (mute == 0)
        keys->VolumeUnMute();
    else
        keys->VolumeMute();
}

void CSoundMirroringEventHandler::OnSetVolumeLevelChanged(keynode_t *, void *user_data)
{
    LOGI("[START] ");
    auto *self = static_cast<CSoundMirroringEventHandler *>(user_data);
    if (!self) {
        LOGE("this is null");
        return;
    }
    if (!IsUsbHeadsetMode())
        return;
    int level = self->m_nLastLevel;
    if (!CUsbServiceUtil::GetVconf(kLevelKey, level)) {
        LOGE("cannot read %s, ignore.", kLevelKey);
        return;
    }
    if (level < 0 || level > kMaxVolumeLevel) {
        LOGE("volume level %d out of range, ignore.", level);
        return;
    }
    if (level == self->m_nLastLevel) {
        LOGI("volume level not changed..ignore..");
        return;
    }
    LOGI("sound mirroring volumelevel changed %d.", level);
    self->m_nLastLevel = level;
    CSingleton<CKeyHandler>::GetInstance()->VolumeLevelAdjust(level, false);
}
