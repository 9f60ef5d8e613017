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

// The value a mirroring key now holds, when it is one to act on: the service is in USB audio
// mode, the key reads, and the value differs from the last one acted on, which it becomes.
bool TakeNewValue(const char *key, int &last, const char *unchanged, int &value)
{
    if (!IsUsbHeadsetMode())
        return false;
    value = last;
    if (!CUsbServiceUtil::GetVconf(key, value)) {
        LOGE("cannot read %s, ignore.", key);
        return false;
    }
    if (value == last) {
        LOGI("%s", unchanged);
        return false;
    }
    last = value;
    return true;
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
    int mute = 0;
    if (!TakeNewValue(kMuteKey, self->m_nLastMute, "mute state not changed..ignore..", mute))
        return;
    LOGI("sound mirroring mute state changed %d.", mute);
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
    int level = 0;
    if (!TakeNewValue(kLevelKey, self->m_nLastLevel, "volume level not changed..ignore..", level))
        return;
    if (level < 0 || level > kMaxVolumeLevel) {
        LOGE("volume level %d out of range, ignore.", level);
        return;
    }
    LOGI("sound mirroring volumelevel changed %d.", level);
    CSingleton<CKeyHandler>::GetInstance()->VolumeLevelAdjust(level, false);
}
