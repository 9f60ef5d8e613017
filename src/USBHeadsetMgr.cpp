#include "USBHeadsetMgr.h"

#include <cstring>
#include <string>

#include "AudioControlMgr.h"
#include "DMesgAnalysis.h"
#include "DecisionLog.h"
#include "HadrixDbusAPIServer.h"
#include "HadrixUtil.h"
#include "KeyEventHandler.h"
#include "LocalFileData.h"
#include "Log.h"
#include "MultiviewHandler.h"
#include "USBDevice.h"
#include "UsbDeviceSnapshot.h"

namespace {

constexpr unsigned int kDeviceInitDelayMs = 100;
constexpr unsigned int kStandbyDetectDelayMs = 3000;

// Codes from this one up are states in which the service does not work.
constexpr unsigned int kFirstAbnormalPowerState = 2;
constexpr unsigned int kNormalPowerState = 0;
constexpr unsigned int kStandbyPowerState = 2;
constexpr unsigned int kDeepStandbyPowerState = 4;

constexpr char kActionAdded[] = "added";
constexpr char kActionRemoved[] = "removed";

bool IsStandby(unsigned int state)
{
    return state == kStandbyPowerState || state == kDeepStandbyPowerState;
}

// The event of a hot-plug action; null for an action the service does not handle.
const char *HotplugEvent(const char *action)
{
    if (strcmp(action, kActionAdded) == 0)
        return decision::kHotplugAdded;
    return strcmp(action, kActionRemoved) == 0 ? decision::kHotplugRemoved : nullptr;
}

// A hot-plug event the filter ends: dropped, or the device left alone.
void RecordFiltered(const USBDeviceInfo &info, int card, const char *event, const char *outcome, const char *rule,
                    const DecisionInputs &inputs = DecisionInputs())
{
    if (event)
        CSingleton<CDecisionLog>::GetInstance()->Record(CDecisionLog::About(info, card, event, rule, outcome, inputs));
}

int64_t KernelTime(uint32_t ms)
{
    return ms == CDMesgAnalysis::TIME_UNKNOWN ? decision::kUnknownTime : static_cast<int64_t>(ms);
}

// Whether the sound is to switch to a device plugged now, and why: the stored USB audio mode,
// else the kernel log's judgement.
bool JudgeSwitch(const std::string &devPath, DecisionReason &why)
{
    if (CSingleton<CLocalFileData>::GetInstance()->IsUSBAudioMode()) {
        why.rule = decision::kUsbAudioMode;
        why.inputs.usbAudioMode = true;
        return true;
    }
    CDMesgAnalysis::SpeakerJudgement judged;
    const bool change = CSingleton<CDMesgAnalysis>::GetInstance()->NeedChangeSpeaker(devPath, &judged);
    why = judged.Reason();
    why.inputs.usbAudioMode = false;
    return change;
}

} // namespace

CUSBHeadsetMgr::CUSBHeadsetMgr()
{
    LOGD("CUSBHeadsetMgr");
    const int state = device_power_get_state();
    if (state < 0)
        LOGE("device_power_get_state return : %d", state);
    m_CurPowerState = static_cast<unsigned int>(state);
    m_DeviceInitTimerId.Start(kDeviceInitDelayMs, m_DeviceInitializeTimerCB, this);
}

CUSBHeadsetMgr::~CUSBHeadsetMgr()
{
    LOGD("~CUSBHeadsetMgr");
    usb_unset_connected_cb();
    device_power_unsubscribe_state_changed_event(m_PowerStateChangedCb);
}

void CUSBHeadsetMgr::RegisterAppCb(void (*cb)())
{
    m_pAppCb = cb;
}

gboolean CUSBHeadsetMgr::m_DeviceInitializeTimerCB(gpointer data)
{
    LOGD("m_DeviceInitializeTimerCB");
    if (data)
        static_cast<CUSBHeadsetMgr *>(data)->m_DeviceInit();
    return G_SOURCE_REMOVE;
}

void CUSBHeadsetMgr::m_DeviceInit()
{
    LOGI("m_DeviceInit in");
    const int level = CSingleton<CLocalFileData>::GetInstance()->GetVolumeLevel();
    CSingleton<CAudioControlMgr>::GetInstance()->SetUsbHeadsetOutGain(static_cast<unsigned int>(level));

    LOGI("call sound manager");
    int ret = sound_manager_set_speaker_changed_cb(m_SpeakerChangeCb, this);
    if (ret != SOUND_MANAGER_ERROR_NONE)
        LOGE("sound_manager_set_speaker_changed_cb return : %d", ret);

    usb_set_connected_cb(m_OnDetectUsbCB, this);

    ret = device_power_subscribe_state_changed_event(m_PowerStateChangedCb, this);
    if (ret != DEVICE_POWER_ERROR_NONE)
        LOGE("device_power_subscribe_state_changed_event return : %d", ret);

    CSingleton<CUSBDevice>::GetInstance()->InitFromBoot();
    m_SetKeyGrabOrUngrab();
    LOGI("m_DeviceInit out");
}

void CUSBHeadsetMgr::m_OnDetectUsbCB(usb_device_s *device, char *action, void *user_data)
{
    auto *self = static_cast<CUSBHeadsetMgr *>(user_data);
    if (self && device && action) {
        HeldEvent event{HeldEvent::Kind::Hotplug, UsbDevicePtr(device), action};
        if (self->m_HoldWhileEnumerating(std::move(event)))
            return;
        device = event.device.release();
    }
    m_DetectUsb(device, action, self);
}

void CUSBHeadsetMgr::m_DetectUsb(usb_device_s *device, const char *action, CUSBHeadsetMgr *self)
{
    LOGI("[START] detect usb audio device %p,%s", static_cast<void *>(device), TextOrEmpty(action));
    if (!device || !action)
        return;
    UsbDevicePtr handle(device);
    if (!self) {
        LOGD("");
        return;
    }
    const char *event = HotplugEvent(action);
    if (self->m_DroppedInLowPower(device, event))
        return;
    // Read once here; the device manager's steps find what was read.
    const CUsbDeviceSnapshot snapshot(device);
    const USBDeviceInfo &info = snapshot.Get().info;
    if (!self->m_PassesFilter(snapshot.Get(), event))
        return;

    CUSBDevice *usbDevice = CSingleton<CUSBDevice>::GetInstance();
    if (strcmp(action, kActionAdded) == 0) {
        CSingleton<CDMesgAnalysis>::GetInstance()->TriggerParse(true);
        DecisionReason why;
        const bool speakerChange = JudgeSwitch(info.strDevPath, why);
        usbDevice->AddDevice(device, speakerChange, why);
    } else if (strcmp(action, kActionRemoved) == 0) {
        usbDevice->RemoveDevice(device);
    }

    handle.reset();
    self->m_SetKeyGrabOrUngrab();
    CUSBAPIServer::m_SendEventToClient(nullptr);
    LOGI("Ondetect info end");
}

bool CUSBHeadsetMgr::m_DroppedInLowPower(usb_device_s *device, const char *event)
{
    if (m_CurPowerState < kFirstAbnormalPowerState)
        return false;
    LOGE("power state is not normal");
    DecisionInputs inputs;
    inputs.powerState = static_cast<int32_t>(m_CurPowerState);
    if (event)
        RecordFiltered(CUsbDeviceSnapshot::Of(device).info, -1, event, decision::kDropped,
                       decision::kPowerStateNotNormal, inputs);
    return true;
}

// The filter's steps after the power state, in their order: an audio-class device, no resume
// pending, a sound card, no webcam. What it ends is recorded with the rule that ended it.
bool CUSBHeadsetMgr::m_PassesFilter(const UsbDeviceProperties &props, const char *event)
{
    const USBDeviceInfo &info = props.info;
    LOGD("class:%d", props.usbClass);
    if (props.usbClass != USB_DEVICE_CLASS_AUDIO) {
        LOGE("Not audio deveice");
        DecisionInputs inputs;
        inputs.interfaceClass = props.usbClass;
        RecordFiltered(info, -1, event, decision::kLeftAlone, decision::kNotAudioInterface, inputs);
        return false;
    }
    if (m_StandbyTimerId.IsPending()) {
        LOGE("delay to check usb device timer exist");
        DecisionInputs inputs;
        inputs.powerChangedMs = KernelTime(CSingleton<CDMesgAnalysis>::GetInstance()->GetPowerChangedTime());
        inputs.uptimeMs = CUsbServiceUtil::GetUptime();
        RecordFiltered(info, -1, event, decision::kDropped, decision::kResumePending, inputs);
        return false;
    }
    LOGI("devpath: %s, name:%s, product:%s, vender id:%d, product id:%d, device No.%d", info.strDevPath.c_str(),
         props.devName.c_str(), info.strProductName.c_str(), info.nVendorId, info.nProductId, props.number);
    int card = 0;
    if (!CUsbServiceUtil::GetCardNum(info.strDevPath, &card)) {
        LOGE("no card num, ignore");
        RecordFiltered(info, -1, event, decision::kDropped, decision::kNoCardNumber);
        return false;
    }
    const char *camera = nullptr;
    if (CUsbServiceUtil::IsCamera(info.strProductName, info.nVendorId, info.nProductId, &camera)) {
        LOGE("camera device");
        RecordFiltered(info, card, event, decision::kLeftAlone, camera);
        return false;
    }
    return true;
}

void CUSBHeadsetMgr::m_PowerStateChangedCb(_device_power_state_info *info, void *user_data)
{
    auto *self = static_cast<CUSBHeadsetMgr *>(user_data);
    if (info && self && self->m_HoldWhileEnumerating({HeldEvent::Kind::PowerState, nullptr, {}, *info}))
        return;
    LOGI("m_PowerStateChangedCb in");
    if (!info || !self) {
        LOGE("data or pInfo is NULL");
        return;
    }
    self->m_ChangePowerState(*info);
}

void CUSBHeadsetMgr::m_ChangePowerState(const _device_power_state_info &info)
{
    CSingleton<CDMesgAnalysis>::GetInstance()->SetPowerChangdTime();
    LOGI("power on pre state : %d, cur state: %d", info.previous, info.current);
    m_CurPowerState = static_cast<unsigned int>(info.current);
    m_PrePowerState = static_cast<unsigned int>(info.previous);

    if (IsStandby(m_PrePowerState) && m_CurPowerState == kNormalPowerState) {
        if (m_StandbyTimerId.IsPending())
            return;
        LOGI("launch delay timer");
        m_StandbyTimerId.Start(kStandbyDetectDelayMs, m_DeviceStandbyDetectDelayTimer, this);
    }
    if (IsStandby(m_CurPowerState)) {
        OutputChange why{decision::kPowerChange, decision::kStandby, {}, {}};
        why.inputs.powerState = static_cast<int32_t>(m_CurPowerState);
        CSingleton<CUSBDevice>::GetInstance()->MuteUSBOutput(true, why);
    }
}

gboolean CUSBHeadsetMgr::m_DeviceStandbyDetectDelayTimer(gpointer data)
{
    LOGI("m_DeviceStandbyDetectDelayTimer in ");
    auto *self = static_cast<CUSBHeadsetMgr *>(data);
    if (!self)
        return G_SOURCE_REMOVE;
    // The timer ends with this callback; it counts as gone for the events the rebuild below meets.
    self->m_StandbyTimerId.Stop();
    if (self->m_CurPowerState >= kFirstAbnormalPowerState) {
        LOGE("current power state is not normal");
        return G_SOURCE_REMOVE;
    }
    LOGI("begin to intit device file");
    CSingleton<CUSBDevice>::ReleaseInstance();
    CUSBDevice *usbDevice = CSingleton<CUSBDevice>::GetInstance();
    usbDevice->SetResumedFromDeepStandby(self->m_PrePowerState == kDeepStandbyPowerState);
    usbDevice->InitFromStandby();
    return G_SOURCE_REMOVE;
}

void CUSBHeadsetMgr::m_SpeakerChangeCb(sound_tv_output_route_e route, void *user_data)
{
    auto *self = static_cast<CUSBHeadsetMgr *>(user_data);
    if (self && self->m_HoldWhileEnumerating({HeldEvent::Kind::Speaker, nullptr, {}, {}, route}))
        return;
    LOGI("m_SpeakerChangeCb, route : %d, SOUND_TV_OUTPUT_USB_HEADSET is %d", static_cast<int>(route),
         static_cast<int>(SOUND_TV_OUTPUT_USB_HEADSET));
    if (!self) {
        LOGE("user_data is NULL");
        return;
    }
    self->m_ApplySpeakerRoute(route);
}

void CUSBHeadsetMgr::m_MultiviewSpeakerChangeCb(sound_tv_output_route_e route, int zoneid, void *)
{
    LOGI("m_MultiviewSpeakerChangeCb, route : %d, zoneid : %d", static_cast<int>(route), zoneid);
}

void CUSBHeadsetMgr::HandleMultiViewSpeakerChange(sound_tv_output_route_e route)
{
    if (m_HoldWhileEnumerating({HeldEvent::Kind::MultiviewSpeaker, nullptr, {}, {}, route}))
        return;
    m_ApplySpeakerRoute(route);
}

void CUSBHeadsetMgr::InitVolumeOnMultiViewEnabled()
{
    if (CSingleton<CUSBDevice>::GetInstance()->GetDeviceUsingCnt() < 1) {
        LOGI("current usb headset not connect");
        return;
    }
    IVolumeControl *volume = CSingleton<CMultiviewHandler>::GetInstance();
    volume->SetVolumeLevel(CSingleton<CLocalFileData>::GetInstance()->GetVolumeLevel());
}

// USB audio mode follows the route: it is persisted and the USB output unmuted while the route
// is the USB headset, cleared and muted on any other.
void CUSBHeadsetMgr::m_ApplySpeakerRoute(sound_tv_output_route_e route)
{
    const bool usbHeadset = route == SOUND_TV_OUTPUT_USB_HEADSET;
    CSingleton<CLocalFileData>::GetInstance()->SetUSBAudioMode(usbHeadset);
    OutputChange why{decision::kRouteChange, usbHeadset ? decision::kRouteUsb : decision::kRouteNotUsb,
                                 {}, {}};
    why.inputs.route = static_cast<int32_t>(route);
    CSingleton<CUSBDevice>::GetInstance()->MuteUSBOutput(!usbHeadset, why);
    if (m_pAppCb) {
        LOGI("send event to App");
        m_pAppCb();
    }
    m_SetKeyGrabOrUngrab();
}

// The keys are grabbed while at least one headset carries the output.
void CUSBHeadsetMgr::m_SetKeyGrabOrUngrab()
{
    const int usingCount = CSingleton<CUSBDevice>::GetInstance()->GetDeviceUsingCnt();
    CKeyHandler *keys = CSingleton<CKeyHandler>::GetInstance();
    const bool grabbed = keys->IsGrabbed();
    if (usingCount > 0 && !grabbed) {
        LOGI("start GrabVolumeKey");
        keys->GrabVolumeKey(nullptr, nullptr, nullptr);
    } else if (usingCount == 0 && grabbed) {
        LOGI("stop GrabVolumeKey");
        keys->UngrabVolumeKey();
    }
}

bool CUSBHeadsetMgr::m_HoldWhileEnumerating(HeldEvent &&event)
{
    const CUSBDevice *usbDevice = CSingleton<CUSBDevice>::PeekInstance();
    if (!usbDevice || !usbDevice->IsEnumerating())
        return false;
    static const char *const kKinds[] = {"hot-plug", "power state", "speaker", "multiview speaker"};
    LOGI("%s event held until the device enumeration ends", kKinds[static_cast<int>(event.kind)]);
    m_HeldEvents.push_back(std::move(event));
    return true;
}

void CUSBHeadsetMgr::OnEnumerationDone()
{
    // A held event may start another enumeration (a resume): what is left waits for its end.
    while (!m_HeldEvents.empty()) {
        const CUSBDevice *usbDevice = CSingleton<CUSBDevice>::PeekInstance();
        if (usbDevice && usbDevice->IsEnumerating())
            return;
        HeldEvent event = std::move(m_HeldEvents.front());
        m_HeldEvents.pop_front();
        m_HandleHeldEvent(event);
    }
}

void CUSBHeadsetMgr::m_HandleHeldEvent(HeldEvent &event)
{
    switch (event.kind) {
    case HeldEvent::Kind::Hotplug:
        m_DetectUsb(event.device.release(), event.action.c_str(), this);
        break;
    case HeldEvent::Kind::PowerState:
        m_PowerStateChangedCb(&event.power, this);
        break;
    case HeldEvent::Kind::Speaker:
        m_SpeakerChangeCb(event.route, this);
        break;
    case HeldEvent::Kind::MultiviewSpeaker:
        m_ApplySpeakerRoute(event.route);
        break;
    }
}
