// The audio-control library: the USB headset output's delay, gain (the headset volume the
// service drives) and mute. Results: true when the library returned 0.
#pragma once

#include "Singleton.h"

class CAudioControlMgr : public CSingleton<CAudioControlMgr> {
    friend class CSingleton<CAudioControlMgr>;

public:
    ~CAudioControlMgr() override = default;

    bool SetUsbHeadSetOutDelay(unsigned int delay);
    bool GetUsbHeadsetOutDelay(unsigned int *delay);
    bool SetUsbHeadsetOutGain(unsigned int gain);
    bool GetUsbHeadsetOutGain(unsigned int *gain);
    bool SetUsbHeadsetMuteStatus(bool mute);
    bool GetUsbHeadsetMuteStatus(bool *mute);

private:
    CAudioControlMgr() = default;
};
