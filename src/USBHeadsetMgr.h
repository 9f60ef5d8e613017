// The top-level manager: owns the service's subscriptions to USB hot-plug, the TV's speaker
// selection and the device power state, hands USB audio devices to the device manager, rebuilds
// it after standby, and decides whether the remote's volume keys are grabbed.
#pragma once

#include <glib.h>

#include "Singleton.h"
#include "nimbos/power.h"
#include "nimbos/sound.h"
#include "nimbos/usb.h"

class CUSBHeadsetMgr : public CSingleton<CUSBHeadsetMgr> {
    friend class CSingleton<CUSBHeadsetMgr>;

public:
    ~CUSBHeadsetMgr() override;

    // Called after every speaker change.
    void RegisterAppCb(void (*cb)());

    // The multiview handler's speaker route changed.
    void HandleMultiViewSpeakerChange(sound_tv_output_route_e route);
    // Multiview was switched on: its UI gets the stored level while a headset is in use.
    void InitVolumeOnMultiViewEnabled();

    // Whether the last power change left the deep low-power state (4).
    bool IsResumeFromDeepStandby() const;

    // For the multiview handler's registration with the sound manager.
    static void m_MultiviewSpeakerChangeCb(sound_tv_output_route_e route, int zoneid, void *user_data);

private:
    CUSBHeadsetMgr();

    static gboolean m_DeviceInitializeTimerCB(gpointer data);
    void m_DeviceInit();
    static void m_OnDetectUsbCB(usb_device_s *device, char *action, void *user_data);
    static void m_PowerStateChangedCb(_device_power_state_info *info, void *user_data);
    static gboolean m_DeviceStandbyDetectDelayTimer(gpointer data);
    static void m_SpeakerChangeCb(sound_tv_output_route_e route, void *user_data);
    void m_ApplySpeakerRoute(sound_tv_output_route_e route);
    void m_SetKeyGrabOrUngrab();

    void (*m_pAppCb)() = nullptr;
    guint m_StandbyTimerId = 0;
    // Power state codes compared unsigned: a failed read counts as not normal.
    unsigned int m_CurPowerState = 0;
    // Until the first change: a code that is neither a working nor a standby state, so that no
    // resume is assumed.
    unsigned int m_PrePowerState = 3;
    guint m_DeviceInitTimerId = 0;
};
