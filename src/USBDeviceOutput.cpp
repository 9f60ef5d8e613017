// Which attached USB devices carry the TV sound, muting and unmuting them with the TV's speaker
// and power state, leaving USB audio mode when the devices of the last run do not come back, and
// the timer that ends the service once no headset is left.
#include "USBDevice.h"

#include "AudioControlMgr.h"
#include "DMesgAnalysis.h"
#include "DecisionLog.h"
#include "DevicesDetected.h"
#include "KPILog.h"
#include "LocalFileData.h"
#include "Log.h"
#include "MultiviewHandler.h"
#include "PulseAudioHandler.h"
#include "SoundManagerHandler.h"
#include "SpeakerManagerHandler.h"
#include "UsbOutputChoice.h"
#include "nimbos/app.h"

namespace {

constexpr unsigned int kStateCheckPeriodMs = 5000;
constexpr int kMaxStateCheckTimes = 5;
constexpr unsigned int kLeaveUSBModeDelayMs = 15000;
constexpr unsigned int kQuitDelayMs = 600000;

std::vector<USBDeviceInfo> Pick(const std::vector<USBDeviceInfo> &devices, const std::vector<size_t> &indices)
{
    std::vector<USBDeviceInfo> picked;
    picked.reserve(indices.size());
    for (size_t index : indices)
        picked.push_back(devices[index]);
    return picked;
}

void StartUsing(const USBDeviceInfo &device)
{
    CSingleton<CPulseAudioHandler>::GetInstance()->SendSignalToPulseAudioAsync(true, device.nCardNum);
    CSingleton<DevicesDetected>::GetInstance()->SetDeviceStatus(device.strDevPath, DEVICE_STATUS_USING);
}

void StopUsing(const USBDeviceInfo &device)
{
    CSingleton<DevicesDetected>::GetInstance()->SetDeviceStatus(device.strDevPath, DEVICE_STATUS_RELEASED);
    CSingleton<CPulseAudioHandler>::GetInstance()->SendSignalToPulseAudioAsync(false, device.nCardNum);
}

Decision About(const USBDeviceInfo &device, const OutputChange &why, const std::string &rule,
               const char *outcome)
{
    Decision decision = CDecisionLog::About(device, device.nCardNum, why.event, rule, outcome, why.inputs);
    decision.cause = why.cause;
    if (outcome == std::string(decision::kTookSound)) {
        decision.start.emplace();
        decision.start->card = device.nCardNum;
    }
    return decision;
}

CDecisionLog *Decisions()
{
    return CSingleton<CDecisionLog>::GetInstance();
}

} // namespace

bool CUSBDevice::m_IsUsbSpeakerSelected()
{
    return CSingleton<CSoundManagerHandler>::GetInstance()->GetSpeakerSelection() == SOUND_TV_OUTPUT_USB_HEADSET;
}

void CUSBDevice::m_SelectUsbHeadsetRoute(bool unmuteInMultiview)
{
    CMultiviewHandler *multiview = CSingleton<CMultiviewHandler>::GetInstance();
    if (!multiview->IsMultiviewOn()) {
        CSingleton<CSoundManagerHandler>::GetInstance()->SetSpeakerSelection(SOUND_TV_OUTPUT_USB_HEADSET);
        return;
    }
    multiview->SetSpeakerSelection(SOUND_TV_OUTPUT_USB_HEADSET);
    multiview->SetVolumeLevel(CSingleton<CLocalFileData>::GetInstance()->GetVolumeLevel());
    if (unmuteInMultiview)
        CSingleton<CAudioControlMgr>::GetInstance()->SetUsbHeadsetMuteStatus(false);
}

void CUSBDevice::EnableUSBOutput(const OutputChange &why)
{
    std::vector<USBDeviceInfo> taken;
    {
        std::lock_guard<std::mutex> lock(m_VecMutex);
        const int usingCount = CUsbOutputChoice::CountUsing(m_VecUSBHeadset);
        CUsbOutputChoice::SortByTimeStamp(m_VecUSBHeadset);
        LOGI("[START] usbheadset count %zu, using count %d", m_VecUSBHeadset.size(), usingCount);
        if (m_VecUSBHeadset.empty() || usingCount >= CUsbOutputChoice::kMaxUsingDevices)
            return;
        taken = Pick(m_VecUSBHeadset, CUsbOutputChoice::TakeFreeDevices(m_VecUSBHeadset));
    }
    for (const USBDeviceInfo &device : taken) {
        // A device that took the sound already but waited for the unmute is not decided anew.
        Decisions()->RecordIfOutcomeChanges(About(device, why, why.rule, decision::kTookSound));
        if (!m_IsUsbSpeakerSelected()) {
            LOGI("set usbheadset as speaker...");
            m_SelectUsbHeadsetRoute(false);
        }
        StartUsing(device);
    }
}

void CUSBDevice::m_SwitchToUSBSpeaker(const OutputChange &why, const std::string &judgedPath)
{
    LOGI("SwitchToUSBSpeaker");
    std::vector<USBDeviceInfo> taken;
    std::vector<USBDeviceInfo> left;
    {
        std::lock_guard<std::mutex> lock(m_VecMutex);
        CUsbOutputChoice::SortByTimeStamp(m_VecUSBHeadset);
        const std::vector<size_t> first = CUsbOutputChoice::TakeFirstDevices(m_VecUSBHeadset);
        taken = Pick(m_VecUSBHeadset, first);
        for (size_t index = first.size(); index < m_VecUSBHeadset.size(); ++index)
            left.push_back(m_VecUSBHeadset[index]);
    }
    m_RecordSwitch(why, judgedPath, taken, left);
    if (!m_IsUsbSpeakerSelected())
        CSingleton<CSoundManagerHandler>::GetInstance()->SetSpeakerSelection(SOUND_TV_OUTPUT_USB_HEADSET);
    for (const USBDeviceInfo &device : taken)
        StartUsing(device);
}

// The devices a switch reaches take the sound by its rule, or, when another device's judgement
// switched, as the first two; those beyond the first two wait.
void CUSBDevice::m_RecordSwitch(const OutputChange &why, const std::string &judgedPath,
                                const std::vector<USBDeviceInfo> &taken, const std::vector<USBDeviceInfo> &left)
{
    for (const USBDeviceInfo &device : taken) {
        if (judgedPath.empty() || device.strDevPath == judgedPath) {
            OutputChange own = why;
            own.cause.clear();
            Decisions()->Record(About(device, own, why.rule, decision::kTookSound));
        } else {
            Decisions()->Record(About(device, {why.event, {}, why.cause, {}}, decision::kFirstTwoAtSwitch,
                                      decision::kTookSound));
        }
    }
    for (const USBDeviceInfo &device : left)
        Decisions()->Record(About(device, {why.event, {}, {}, {}}, decision::kNoFreePlace, decision::kWaits));
}

void CUSBDevice::MuteUSBOutput(bool mute, const OutputChange &why)
{
    std::vector<USBDeviceInfo> changed;
    {
        std::lock_guard<std::mutex> lock(m_VecMutex);
        LOGI("[START] vec devices size %zu", m_VecUSBHeadset.size());
        if (mute) {
            changed = Pick(m_VecUSBHeadset, CUsbOutputChoice::ReleaseUsingDevices(m_VecUSBHeadset));
        } else {
            LOGD("vec devices using size %d", CUsbOutputChoice::CountUsing(m_VecUSBHeadset));
            CUsbOutputChoice::SortByTimeStamp(m_VecUSBHeadset);
            changed = Pick(m_VecUSBHeadset, CUsbOutputChoice::TakeFreeDevices(m_VecUSBHeadset));
        }
    }
    std::vector<std::string> names;
    for (const USBDeviceInfo &device : changed) {
        if (mute) {
            Decisions()->Record(About(device, why, why.rule, decision::kReleased));
            StopUsing(device);
        } else {
            // The unmute a new device's own route change brings is part of that device's decision.
            Decisions()->RecordIfOutcomeChanges(About(device, why, why.rule, decision::kTookSound));
            StartUsing(device);
        }
        names.push_back(device.strProductName);
    }
    LOGI("send KPI %zu size.", names.size());
    std::string first;
    std::string second;
    if (CUsbOutputChoice::ConnectStatusNames(names, first, second))
        CSingleton<CKPILog>::GetInstance()->SendConnectStatus(!mute, first, second);
}

void CUSBDevice::WaitOrDisableUSBOutputByEmptyDeviceList()
{
    if (!CSingleton<CLocalFileData>::GetInstance()->IsUSBAudioMode()) {
        LOGI("NOT usb audio mode ,ignore...");
        return;
    }
    LOGI("USB Audio mode ...");
    bool leaveAtOnce = false;
    if (WaitDetect(leaveAtOnce)) {
        LOGI("start 5s periodic timer to check if usb was unplugged, not disable usb output ...");
        m_USBStateCheckTimes = 0;
        m_USBStateCheckTimerId.Start(kStateCheckPeriodMs, m_USBStateCheckTimerCb, this);
    } else if (leaveAtOnce) {
        LOGI("Leave USBMode.");
        m_LeaveUSBModeNow();
    } else {
        m_DelayLeaveUSBModeTimerId.Stop();
        LOGI("set delay to leave USBMode timer.");
        m_DelayLeaveUSBModeTimerId.Start(kLeaveUSBModeDelayMs, m_DelayLeaveUSBModeTimerCb, this);
    }
}

gboolean CUSBDevice::m_USBStateCheckTimerCb(gpointer data)
{
    LOGI("[START] ");
    auto *self = static_cast<CUSBDevice *>(data);
    if (!self)
        return G_SOURCE_REMOVE;
    CSingleton<CDMesgAnalysis>::GetInstance()->TriggerParse(true);
    ++self->m_USBStateCheckTimes;
    LOGI("check times  %d", self->m_USBStateCheckTimes);
    bool leaveAtOnce = false;
    if (self->WaitDetect(leaveAtOnce) && self->m_USBStateCheckTimes <= kMaxStateCheckTimes) {
        LOGI("continue wait...");
        return G_SOURCE_CONTINUE;
    }
    LOGI("wait fail. exit usb mode.");
    self->m_USBStateCheckTimerId.Stop();
    self->m_LeaveUSBModeNow();
    return G_SOURCE_REMOVE;
}

// Leaves at once: a pending delayed leave is dropped, as it would repeat the same work.
void CUSBDevice::m_LeaveUSBModeNow()
{
    m_DelayLeaveUSBModeTimerId.Stop();
    m_DelayLeaveUSBModeTimerCb(this);
}

gboolean CUSBDevice::m_DelayLeaveUSBModeTimerCb(gpointer data)
{
    // The log names the rest-volume callback on purpose: log readers know this line by it.
    LOGI("m_RestVolumeTimerCb");
    auto *self = static_cast<CUSBDevice *>(data);
    if (!self)
        return G_SOURCE_REMOVE;
    LOGI("Disable USb output. ...");
    if (m_IsUsbSpeakerSelected()) {
        LOGI("Disconnect Headset speaker.");
        CSingleton<CSpeakerManagerHandler>::GetInstance()->SendSignalToSpeakerManager();
    }
    self->m_ReleaseUsingDevices();
    return G_SOURCE_REMOVE;
}

void CUSBDevice::m_ReleaseUsingDevices()
{
    std::vector<USBDeviceInfo> released;
    {
        std::lock_guard<std::mutex> lock(m_VecMutex);
        released = Pick(m_VecUSBHeadset, CUsbOutputChoice::ReleaseUsingDevices(m_VecUSBHeadset));
    }
    for (const USBDeviceInfo &device : released)
        StopUsing(device);
}

// A pending countdown is left running: only an attach cancels it.
void CUSBDevice::m_StartQuitTimer()
{
    if (m_DelayQuitTimerId.IsPending())
        return;
    LOGI("enable 10mins quit service timer.");
    m_DelayQuitTimerId.Start(kQuitDelayMs, m_DelayQuitTimerCb, this);
}

gboolean CUSBDevice::m_DelayQuitTimerCb(gpointer)
{
    LOGE("[START] 10mins quit service timeout, byebye...");
    service_app_exit();
    return G_SOURCE_REMOVE;
}
