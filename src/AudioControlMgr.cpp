#include "AudioControlMgr.h"

#include "Log.h"
#include "nimbos/audio_control.h"

bool CAudioControlMgr::SetUsbHeadSetOutDelay(unsigned int delay)
{
    int ret = IAudioControl::getInstance()->setUsbOutDelay(delay);
    if (ret != 0) {
        LOGE("setUsbOutDelay return err : %d", ret);
        return false;
    }
    return true;
}

bool CAudioControlMgr::GetUsbHeadsetOutDelay(unsigned int *delay)
{
    int ret = IAudioControl::getInstance()->getUsbOutDelay(delay);
    if (ret != 0) {
        LOGE("getUsbOutDelay return err : %d", ret);
        return false;
    }
    return true;
}

bool CAudioControlMgr::SetUsbHeadsetOutGain(unsigned int gain)
{
    int ret = IAudioControl::getInstance()->setUsbOutGain(gain);
    if (ret != 0) {
        LOGE("setUsbOutGain return err : %d", ret);
        return false;
    }
    return true;
}

bool CAudioControlMgr::GetUsbHeadsetOutGain(unsigned int *gain)
{
    int ret = IAudioControl::getInstance()->getUsbOutGain(gain);
    if (ret != 0) {
        LOGE("setUgetUsbOutGainbOutMute return err : %d", ret);
        return false;
    }
    return true;
}

bool CAudioControlMgr::SetUsbHeadsetMuteStatus(bool mute)
{
    int ret = IAudioControl::getInstance()->setUsbOutMute(mute);
    if (ret != 0) {
        LOGE("setUsbOutMute return err : %d", ret);
        return false;
    }
    return true;
}

bool CAudioControlMgr::GetUsbHeadsetMuteStatus(bool *mute)
{
    int ret = IAudioControl::getInstance()->getUsbOutMute(mute);
    if (ret != 0) {
        LOGE("getUsbOutMute return err : %d", ret);
        return false;
    }
    return true;
}
