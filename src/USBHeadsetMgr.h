// The top-level manager: owns the service's subscriptions to USB hot-plug, the TV's speaker
// selection and the device power state, hands USB audio devices to the device manager, rebuilds
// it after standby, and decides whether the remote's volume keys are grabbed.
#pragma once

#include <deque>
#include <string>

#include <glib.h>

#include "Singleton.h"
#include "Timer.h"
#include "UniqueHandle.h"
#include "UsbDeviceSnapshot.h"
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

    // The device manager's start-up or resume enumeration has ended: the events held back
    // meanwhile are handled now, in the order they came.
    void OnEnumerationDone();

    // For the multiview handler's registration with the sound manager.
    static void m_MultiviewSpeakerChangeCb(sound_tv_output_route_e route, int zoneid, void *user_data);

private:
    using UsbDevicePtr = UniqueHandle<usb_device_s, free_usb_device_h>;

    // A hot-plug, power or speaker event that came while the device manager enumerated: a loop
    // blocked by the enumeration would have handled it after it, so it is held until then.
    struct HeldEvent {
        enum class Kind { Hotplug, PowerState, Speaker, MultiviewSpeaker } kind;
        UsbDevicePtr device;
        std::string action;
        _device_power_state_info power{};
        sound_tv_output_route_e route{};
    };

    CUSBHeadsetMgr();

    static gboolean m_DeviceInitializeTimerCB(gpointer data);
    void m_DeviceInit();
    static void m_OnDetectUsbCB(usb_device_s *device, char *action, void *user_data);
    static void m_DetectUsb(usb_device_s *device, const char *action, CUSBHeadsetMgr *self);
    // The hot-plug filter, in two steps around the device's snapshot; true for an event that
    // goes on to the device manager. `event` is the action's decision event (null: another).
    bool m_DroppedInLowPower(usb_device_s *device, const char *event);
    bool m_PassesFilter(const UsbDeviceProperties &props, const char *event);
    static void m_PowerStateChangedCb(_device_power_state_info *info, void *user_data);
    void m_ChangePowerState(const _device_power_state_info &info);
    static gboolean m_DeviceStandbyDetectDelayTimer(gpointer data);
    static void m_SpeakerChangeCb(sound_tv_output_route_e route, void *user_data);
    void m_ApplySpeakerRoute(sound_tv_output_route_e route);
    void m_SetKeyGrabOrUngrab();

    // True when the event was held because an enumeration is under way.
    bool m_HoldWhileEnumerating(HeldEvent &&event);
    void m_HandleHeldEvent(HeldEvent &event);

    void (*m_pAppCb)() = nullptr;
    CTimer m_StandbyTimerId;
    // Power state codes compared unsigned: a failed read counts as not normal.
    unsigned int m_CurPowerState = 0;
    // Until the first change: a code that is neither a working nor a standby state, so that no
    // resume is assumed.
    unsigned int m_PrePowerState = 3;
    CTimer m_DeviceInitTimerId;
    std::deque<HeldEvent> m_HeldEvents;
};
