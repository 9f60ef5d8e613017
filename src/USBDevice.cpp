#include "USBDevice.h"

#include <algorithm>
#include <optional>

#include "DMesgAnalysis.h"
#include "DecisionLog.h"
#include "DevicesDepot.h"
#include "DevicesDetected.h"
#include "HadrixUtil.h"
#include "KPILog.h"
#include "LocalFileData.h"
#include "Log.h"
#include "NotificationPopup.h"
#include "PulseAudioHandler.h"
#include "SpeakerManagerHandler.h"
#include "UsbMixer.h"
#include "UniqueHandle.h"
#include "UsbOutputChoice.h"
#include "UsbPopupChoice.h"

namespace {

constexpr int kBootInitTries = 10;
constexpr int kStandbyInitTries = 10;
constexpr unsigned int kInitRetryMs = 1000;
constexpr unsigned int kRestVolumeDelayMs = 40000;
// The gamepad library is consulted once the system's input devices have settled.
constexpr unsigned int kBootGamepadDelayMs = 10000;
constexpr unsigned int kStandbyGamepadDelayMs = 1000;

// The kernel's table of USB devices, kept beside the kernel-log copies for diagnosis.
constexpr char kUsbDeviceTable[] = "/sys/kernel/debug/usb/devices";
constexpr char kUsbDeviceTableCopy[] = "/tmp/usb_devices_uptime_";

using DeviceListPtr = UniqueHandle<usb_device_list_s, usb_device_free_device_list>;

// The record of a device as the enumeration library described it; status idle, stamped now.
USBDeviceInfo MakeRecord(const UsbDeviceProperties &device, int card)
{
    USBDeviceInfo info = device.info;
    info.nCardNum = card;
    info.timeStamp = CUsbServiceUtil::GetUptime();
    return info;
}

// Matches the record of the device at devPath: a path names one record of a list.
auto HasPath(const std::string &devPath)
{
    return [&devPath](const USBDeviceInfo &device) { return device.strDevPath == devPath; };
}

void EraseByPath(std::vector<USBDeviceInfo> &devices, const std::string &devPath)
{
    devices.erase(std::remove_if(devices.begin(), devices.end(), HasPath(devPath)), devices.end());
}

bool HasSoundNodes(int card)
{
    return CUsbServiceUtil::IsSndCtrlCardExist(card) && CUsbServiceUtil::IsSndPcmPlayExist(card);
}

void ShowPopup(notification_type type, const std::string &name)
{
    CSingleton<CNotificationPopup>::GetInstance()->ShowNotiPopup(type, name);
}

void SendWarning(KPI_WARNING warning, const std::string &name)
{
    CSingleton<CKPILog>::GetInstance()->SendWarnings(warning, name);
}

void Record(const Decision &decision)
{
    CSingleton<CDecisionLog>::GetInstance()->Record(decision);
}

// A decision that gives a device the sound: its "Start" is told by the worker that sends it.
Decision TookSound(const USBDeviceInfo &info, const char *event, const std::string &rule, const DecisionInputs &inputs)
{
    Decision decision = CDecisionLog::About(info, info.nCardNum, event, rule, decision::kTookSound, inputs);
    decision.start.emplace();
    decision.start->card = info.nCardNum;
    return decision;
}

void ParseKernelLog(GTask *task, gpointer, gpointer taskData, GCancellable *)
{
    CSingleton<CDMesgAnalysis>::GetInstance()->TriggerParse(GPOINTER_TO_INT(taskData) != 0);
    g_task_return_boolean(task, TRUE);
}

CUSBDevice::Links g_links;

OutputChange UsbAudioModeSwitch(const char *event)
{
    OutputChange why{event, decision::kUsbAudioMode, {}, {}};
    why.inputs.usbAudioMode = true;
    return why;
}

} // namespace

void CUSBDevice::SetLinks(Links links)
{
    g_links = std::move(links);
}

CUSBDevice::CUSBDevice()
{
    LOGD("CUSBDevice");
}

CUSBDevice::~CUSBDevice()
{
    LOGD("~CUSBDevice");
    m_AbandonInitParse();
    if (m_GamepadCbRegistered)
        gamepad_unregister_connection_callback();
}

void CUSBDevice::InitFromBoot()
{
    LOGI("[START]");
    m_StartInit(Enumeration::Kind::Boot, true, false);
}

void CUSBDevice::InitFromStandby()
{
    LOGI("[START]");
    m_StartInit(Enumeration::Kind::Standby, m_ResumedFromDeepStandby, true);
}

void CUSBDevice::SetResumedFromDeepStandby(bool deep)
{
    m_ResumedFromDeepStandby = deep;
}

bool CUSBDevice::IsEnumerating() const
{
    return m_Enumeration.has_value();
}

bool CUSBDevice::IsParsingKernelLog() const
{
    return m_Enumeration && m_Enumeration->parse;
}

// The kernel-log parse may retry for seconds when the log lacks what it looks for, so it runs on
// a worker while the main loop goes on; the enumeration continues once it is done.
void CUSBDevice::m_StartInit(Enumeration::Kind kind, bool parse, bool forceParse)
{
    m_AbandonInitParse();
    m_Enumeration.emplace(kind);
    m_LeftOutRecorded.clear();
    if (!parse) {
        m_AfterInitParse();
        return;
    }
    m_Enumeration->parse.reset(g_cancellable_new());
    g_autoptr(GTask) task = g_task_new(nullptr, m_Enumeration->parse.get(), m_OnInitParseDone, this);
    g_task_set_task_data(task, GINT_TO_POINTER(forceParse ? 1 : 0), nullptr);
    g_task_run_in_thread(task, ParseKernelLog);
}

void CUSBDevice::m_AbandonInitParse()
{
    if (m_Enumeration && m_Enumeration->parse)
        g_cancellable_cancel(m_Enumeration->parse.get());
    m_Enumeration.reset();
}

void CUSBDevice::m_OnInitParseDone(GObject *, GAsyncResult *result, gpointer data)
{
    GCancellable *cancellable = g_task_get_cancellable(G_TASK(result));
    if (!data || g_cancellable_is_cancelled(cancellable))
        return; // the manager that asked for it is gone
    auto *self = static_cast<CUSBDevice *>(data);
    self->m_Enumeration->parse.reset();
    self->m_AfterInitParse();
}

void CUSBDevice::m_AfterInitParse()
{
    if (m_Enumeration->kind == Enumeration::Kind::Boot) {
        m_RestVolumeTimerId.Start(kRestVolumeDelayMs, m_RestVolumeTimerCb, this);
        m_RegisterGamepadTimerId.Start(kBootGamepadDelayMs, m_RegisterGamepadCb, this);
        m_RecoverUnmuteOnFirstLaunch();
        m_MultiTryInitDevices(kBootInitTries);
    } else {
        m_MultiTryInitDevices(kStandbyInitTries);
    }
}

// Only the first start since power-on finds no running flag: the stored state goes back to
// unmuted then.
void CUSBDevice::m_RecoverUnmuteOnFirstLaunch()
{
    CLocalFileData *files = CSingleton<CLocalFileData>::GetInstance();
    if (files->IsUSBServiceRunning())
        return;
    files->SetUSBServiceRunning();
    LOGI("usb sound service first launch recover to unmute state...");
    files->SetMuteState(false);
}

// Passes 1000 ms apart until one finds devices or the tries run out; the waits are main-loop
// timeouts, so hot-plug, power and client events are served in between.
void CUSBDevice::m_MultiTryInitDevices(int tries)
{
    CSingleton<CDMesgAnalysis>::GetInstance();
    m_Enumeration->tries = tries;
    m_Enumeration->pass = 0;
    m_RunInitPass();
}

gboolean CUSBDevice::m_InitRetryTimerCb(gpointer data)
{
    static_cast<CUSBDevice *>(data)->m_RunInitPass();
    return G_SOURCE_REMOVE;
}

void CUSBDevice::m_RunInitPass()
{
    const int pass = ++m_Enumeration->pass;
    LOGD("try to usb_device_list_get %d tail.", pass);
    const bool found = m_InitDevice();
    if (found || pass >= m_Enumeration->tries) {
        m_OnInitDevicesDone(found);
        return;
    }
    m_InitRetryTimerId.Start(kInitRetryMs, m_InitRetryTimerCb, this);
}

bool CUSBDevice::m_InitDevice()
{
    usb_device_list_s *rawList = nullptr;
    int ret = usb_device_get_device_list(&rawList);
    DeviceListPtr list(rawList);
    if (ret != USB_DEVICE_ERROR_NONE) {
        LOGE("usb_device_get_device_list return : %d", ret);
        return false;
    }
    const int count = usb_device_list_get_count(list.get());
    LOGI("get usb audio devices count:%d", count);
    if (count == 0) {
        LOGI("audio USB count 0");
        if (GetDeviceCnt() == 0)
            LOGI("no usb headset connect");
        return false;
    }
    usb_device_s *first = nullptr;
    if (usb_device_list_get_first(list.get(), &first) != USB_DEVICE_ERROR_NONE || !first) {
        LOGE("usb_device_list_get_first return fail");
        return false;
    }
    usb_device_list_s *walked = list.get();
    const int kept = m_ForeachDeviceList(count, first, walked);
    if (kept == 0)
        LOGI("boot audio usb devices 0");
    return kept > 0;
}

// Returns how many devices of the list were taken into the attached list.
int CUSBDevice::m_ForeachDeviceList(int count, usb_device_s *first, usb_device_list_s *&list)
{
    int kept = 0;
    const size_t unsupported = m_VecUnsupportedDevice.size();
    usb_device_s *dev = first;
    for (int i = 0; i < count && dev; ++i) {
        if (m_TakeEnumeratedDevice(dev))
            ++kept;
        if (usb_device_list_get_next(list, &dev) != USB_DEVICE_ERROR_NONE)
            break;
    }
    if (m_VecUnsupportedDevice.size() > unsupported)
        m_ShowUnsupportedWarning();
    return kept;
}

bool CUSBDevice::m_TakeEnumeratedDevice(usb_device_s *dev)
{
    const CUsbDeviceSnapshot snapshot(dev);
    const UsbDeviceProperties &device = snapshot.Get();
    if (device.usbClass != USB_DEVICE_CLASS_AUDIO) {
        DecisionInputs inputs;
        inputs.interfaceClass = device.usbClass;
        m_RecordLeftOut(device.info, -1, decision::kLeftAlone, decision::kNotAudioInterface, inputs);
        return false;
    }
    const std::string &devPath = device.info.strDevPath;
    LOGD("devPath : %s, productId : %d, device NO.%d", devPath.c_str(), device.info.nProductId, device.number);
    int card = 0;
    if (!CUsbServiceUtil::GetCardNum(devPath, &card)) {
        m_RecordLeftOut(device.info, -1, decision::kDropped, decision::kNoCardNumber);
        return false;
    }
    LOGD("cardNum : %d", card);
    if (!HasSoundNodes(card)) {
        m_RecordLeftOut(device.info, card, decision::kDropped, decision::kNoSoundNodes);
        return false;
    }
    USBDeviceInfo info = MakeRecord(device, card);
    const char *notForSound = nullptr;
    if (CUsbServiceUtil::IsCamera(info.strProductName, info.nVendorId, info.nProductId, &notForSound) ||
        m_CheckGamepad(dev, &notForSound)) {
        m_RecordLeftOut(info, card, decision::kLeftAlone, notForSound);
        return false;
    }
    if (m_IsDeviceExist(devPath)) {
        LOGD("device have been exist");
        return true;
    }
    const char *astro = nullptr;
    if (CUsbServiceUtil::IsAstroProduct(info.strProductName, info.nVendorId, info.nProductId, &astro)) {
        // Not usable: kept aside to be warned about, never taken into the attached list.
        LOGI("Astro device");
        if (m_KeepUnsupportedDevice(info, false)) {
            m_SetMaxVolume(card);
            m_RecordLeftOut(info, card, decision::kNotSupported, astro);
        }
        return false;
    }
    info.bNotified = true; // present at start-up: nobody is told about it
    info.bMaxVolumeFailed = m_SetMaxVolume(card) == MAX_VOLUME_WRITE_FAILED;
    m_AppendDevice(info);
    LOGD("save cardNum %d productId %d .", card, info.nProductId);
    return true;
}

void CUSBDevice::m_RecordLeftOut(const USBDeviceInfo &info, int card, const char *outcome, const char *rule,
                                const DecisionInputs &inputs)
{
    if (!m_LeftOutRecorded.insert(info.strDevPath).second)
        return;
    const char *event = m_Enumeration->kind == Enumeration::Kind::Boot ? decision::kStartupEnumeration
                                                                       : decision::kResumeEnumeration;
    Record(CDecisionLog::About(info, card, event, rule, outcome, inputs));
}

void CUSBDevice::m_OnInitDevicesDone(bool found)
{
    const Enumeration::Kind kind = m_Enumeration->kind;
    m_Enumeration.reset();
    if (kind == Enumeration::Kind::Boot)
        m_FinishBoot(found);
    else
        m_FinishStandby(found);
    if (g_links.enumerationDone)
        g_links.enumerationDone();
}

void CUSBDevice::m_FinishBoot(bool found)
{
    if (!found) {
        LOGI("No devices found.");
        WaitOrDisableUSBOutputByEmptyDeviceList();
        return;
    }
    m_RecordUsbDeviceTable();
    if (CSingleton<CLocalFileData>::GetInstance()->IsUSBAudioMode()) {
        LOGI("switch to usb speaker as it is usb audio mode...");
        m_SwitchToUSBSpeaker(UsbAudioModeSwitch(decision::kStartupEnumeration));
    } else {
        LOGI("Not usb audio mode...");
        m_SwitchToUSBSpeakerIfPluggedByUser();
    }
    if (g_links.devicesChanged)
        g_links.devicesChanged();
}

// The first device the kernel log shows as plugged by the viewer switches the output; those
// judged before it keep off the sound.
void CUSBDevice::m_SwitchToUSBSpeakerIfPluggedByUser()
{
    CDMesgAnalysis *analysis = CSingleton<CDMesgAnalysis>::GetInstance();
    for (const USBDeviceInfo &device : GetDevices()) {
        CDMesgAnalysis::SpeakerJudgement judged;
        const bool pluggedByUser = analysis->NeedChangeSpeaker(device.strDevPath, &judged);
        DecisionReason why = judged.Reason();
        why.inputs.usbAudioMode = false;
        if (pluggedByUser) {
            LOGI("switch to usb speaker...");
            m_SwitchToUSBSpeaker({decision::kStartupEnumeration, why.rule, device.strProductName, why.inputs},
                                 device.strDevPath);
            return;
        }
        Record(CDecisionLog::About(device, device.nCardNum, decision::kStartupEnumeration, why.rule,
                                   why.outcomeIfKept, why.inputs));
        LOGI("Not switch to usb speaker...");
    }
}

void CUSBDevice::m_FinishStandby(bool found)
{
    CSingleton<CLocalFileData>::GetInstance()->SetMuteState(false);
    m_RegisterGamepadTimerId.Start(kStandbyGamepadDelayMs, m_RegisterGamepadCb, this);
    if (!found) {
        LOGI("No devices found.");
        WaitOrDisableUSBOutputByEmptyDeviceList();
    } else if (CSingleton<CLocalFileData>::GetInstance()->IsUSBAudioMode()) {
        LOGI("switch to usb speaker as it is usb audio mode...");
        m_SwitchToUSBSpeaker(UsbAudioModeSwitch(decision::kResumeEnumeration));
    } else {
        m_RecordPresentAtResume();
    }
    if (g_links.devicesChanged)
        g_links.devicesChanged();
}

// Without USB audio mode a resume gives the sound to none of the devices found again.
void CUSBDevice::m_RecordPresentAtResume()
{
    DecisionInputs inputs;
    inputs.usbAudioMode = false;
    const uint32_t power = CSingleton<CDMesgAnalysis>::GetInstance()->GetPowerChangedTime();
    inputs.powerChangedMs = power == CDMesgAnalysis::TIME_UNKNOWN ? decision::kUnknownTime : power;
    for (const USBDeviceInfo &device : GetDevices())
        Record(CDecisionLog::About(device, device.nCardNum, decision::kResumeEnumeration,
                                   decision::kResumeWithoutUsbAudioMode, decision::kPresentAtResume, inputs));
}

// Read and written as files (never through a shell redirect, which would follow a link planted
// in /tmp); the debug file system is often unreadable, which is only logged.
void CUSBDevice::m_RecordUsbDeviceTable()
{
    CLocalFileData *files = CSingleton<CLocalFileData>::GetInstance();
    std::string table;
    files->ReadFromFile(kUsbDeviceTable, table);
    if (table.empty()) {
        LOGW("no usb device table in %s", kUsbDeviceTable);
        return;
    }
    const std::string copy = kUsbDeviceTableCopy + std::to_string(CUsbServiceUtil::GetUptime());
    files->WriteToFile(copy, table.data(), table.size());
}

bool CUSBDevice::WaitDetect(bool &leaveAtOnce)
{
    DevicesDepot *depot = CSingleton<DevicesDepot>::GetInstance();
    depot->Print();
    CDMesgAnalysis *analysis = CSingleton<CDMesgAnalysis>::GetInstance();
    bool wait = false;
    depot->ForeachDevice([&](const USBDeviceInfo &device) {
        if (analysis->NeedWaitDetect(device.strDevPath, leaveAtOnce)) {
            LOGI("drive detected device was found in saved cache, wait...");
            wait = true;
        }
    });
    return wait;
}

void CUSBDevice::AddDevice(usb_device_s *dev, bool speakerChange, const DecisionReason &why)
{
    const UsbDeviceProperties device = CUsbDeviceSnapshot::Of(dev);
    const std::string &devPath = device.info.strDevPath;
    LOGI("devPath : %s  speakerchange : %d", devPath.c_str(), speakerChange);
    if (m_IsDeviceExist(devPath)) {
        LOGI("device have been exist");
        return;
    }
    const char *gamepad = nullptr;
    if (m_CheckGamepad(dev, &gamepad)) {
        LOGI("gamepad");
        SendWarning(KPI_WARNING_UNSUPPORTED_DEVICE, device.info.strProductName);
        Record(CDecisionLog::About(device.info, -1, decision::kHotplugAdded, gamepad, decision::kLeftAlone));
        return;
    }
    int card = 0;
    if (!CUsbServiceUtil::GetCardNum(devPath, &card))
        return;
    LOGD("cardNum : %d", card);
    if (!HasSoundNodes(card)) {
        Record(CDecisionLog::About(device.info, card, decision::kHotplugAdded, decision::kNoSoundNodes,
                                   decision::kDropped));
        return;
    }

    USBDeviceInfo info = MakeRecord(device, card);
    const int mixer = m_SetMaxVolume(card);
    info.bMaxVolumeFailed = mixer == MAX_VOLUME_WRITE_FAILED;
    // Only a failed mixer is worth telling the user about.
    info.bNotified = !info.bMaxVolumeFailed;
    DecisionInputs inputs = why.inputs;
    inputs.mixerResult = mixer;

    if (speakerChange) {
        if (m_TakeAstroDevice(info, inputs))
            return;
        m_DelayLeaveUSBModeTimerId.Stop();
        m_USBStateCheckTimerId.Stop();
        m_RouteToNewDevice(info, why, inputs);
    } else {
        Record(CDecisionLog::About(info, card, decision::kHotplugAdded, why.rule, why.outcomeIfKept, inputs));
    }
    m_AppendDevice(info);
    m_DelayQuitTimerId.Stop();
}

// An Astro headset is not supported: the user is warned once, it never enters the attached
// list, and the output goes to the attached devices. True when dev is one.
bool CUSBDevice::m_TakeAstroDevice(const USBDeviceInfo &info, const DecisionInputs &inputs)
{
    const char *astro = nullptr;
    if (!CUsbServiceUtil::IsAstroProduct(info.strProductName, info.nVendorId, info.nProductId, &astro))
        return false;
    LOGI("Astro device");
    Record(CDecisionLog::About(info, info.nCardNum, decision::kHotplugAdded, astro, decision::kNotSupported, inputs));
    if (m_KeepUnsupportedDevice(info, true)) {
        ShowPopup(NOTI_TYPE_UNSUPPORTED_DEVICE, info.strProductName);
        SendWarning(KPI_WARNING_UNSUPPORTED_DEVICE, info.strProductName);
    }
    EnableUSBOutput({decision::kHotplugAdded, decision::kOutputToAttached, info.strProductName, {}});
    return true;
}

// Records an unsupported device once; true when it was not recorded yet. warned: the user has
// been told already.
bool CUSBDevice::m_KeepUnsupportedDevice(const USBDeviceInfo &info, bool warned)
{
    if (std::any_of(m_VecUnsupportedDevice.begin(), m_VecUnsupportedDevice.end(), HasPath(info.strDevPath)))
        return false;
    m_VecUnsupportedDevice.push_back(info);
    m_VecUnsupportedDevice.back().bNotified = warned;
    return true;
}

// The new device is given the output while fewer than two devices are attached and in use:
// the route goes to the USB headset and the audio server is told to start the card. The record
// stays idle; it is marked in use when the output is next handed out (the unmute that the
// route's change brings, or an unplug's hand-over). Otherwise the free places go to the
// devices already attached.
void CUSBDevice::m_RouteToNewDevice(USBDeviceInfo &info, const DecisionReason &why, const DecisionInputs &inputs)
{
    bool room;
    DecisionInputs counted = inputs;
    {
        std::lock_guard<std::mutex> lock(m_VecMutex);
        const int usingCount = CUsbOutputChoice::CountUsing(m_VecUSBHeadset);
        counted.usingCount = usingCount;
        counted.attachedCount = static_cast<int32_t>(m_VecUSBHeadset.size());
        room = m_VecUSBHeadset.size() < static_cast<size_t>(CUsbOutputChoice::kMaxUsingDevices) &&
               usingCount < CUsbOutputChoice::kMaxUsingDevices;
    }
    if (!room) {
        LOGI("USB HEADSET more than 2..");
        Record(CDecisionLog::About(info, info.nCardNum, decision::kHotplugAdded, decision::kNoFreePlace,
                                   decision::kWaits, counted));
        if (!m_ShowUnsupportedWarning())
            ShowPopup(NOTI_TYPE_DEVICE_CONNECTED, info.strProductName);
        EnableUSBOutput({decision::kHotplugAdded, decision::kOutputToAttached, info.strProductName, {}});
        return;
    }
    Record(TookSound(info, decision::kHotplugAdded, why.rule, counted));
    if (!m_IsUsbSpeakerSelected())
        m_SelectUsbHeadsetRoute(true);
    CSingleton<CPulseAudioHandler>::GetInstance()->SendSignalToPulseAudioAsync(true, info.nCardNum);
    CSingleton<CKPILog>::GetInstance()->SendNewConnectedDevice(info.strProductName, info.nVendorId, info.nProductId);
    m_ShowNewDevicePopup(info);
}

// A device that has just taken the output: a pending unsupported-device warning comes first,
// then noise on a shared USB port, then a mixer that could not be set.
void CUSBDevice::m_ShowNewDevicePopup(USBDeviceInfo &info)
{
    if (m_ShowUnsupportedWarning())
        return;
    if (m_IsTwinPortInsert(info.strDevPath)) {
        ShowPopup(NOTI_TYPE_USB_PORT_NOISE, info.strProductName);
    } else if (info.bMaxVolumeFailed) {
        ShowPopup(NOTI_TYPE_MAY_NOT_WORK_NORMALLY, info.strProductName);
        SendWarning(KPI_WARNING_DEVICE_SETUP_FAILED, info.strProductName);
        info.bNotified = true;
    }
}

void CUSBDevice::RemoveDevice(usb_device_s *dev)
{
    const UsbDeviceProperties device = CUsbDeviceSnapshot::Of(dev);
    const std::string &devPath = device.info.strDevPath;
    LOGI("devPath : %s", devPath.c_str());
    if (CUsbServiceUtil::IsAstroProduct(device.info.strProductName, device.info.nVendorId, device.info.nProductId))
        EraseByPath(m_VecUnsupportedDevice, devPath);

    int card = 0;
    const bool attached = m_IsDeviceExist(devPath) && CUsbServiceUtil::GetCardNum(devPath, &card);
    Record(CDecisionLog::About(device.info, attached ? card : -1, decision::kHotplugRemoved, decision::kUnplugged,
                               decision::kRemoved));
    if (attached)
        m_ReleaseRemovedDevice(devPath, card);

    if (GetDeviceCnt() > 0)
        m_ShowRemainingDevicePopup(m_ShareOutputWithRemaining(device.info.strProductName));
    else
        m_OnLastDeviceRemoved();
}

void CUSBDevice::m_ReleaseRemovedDevice(const std::string &devPath, int card)
{
    if (m_IsUsbSpeakerSelected() && m_GetDeviceStatus(devPath) == DEVICE_STATUS_USING)
        CSingleton<CPulseAudioHandler>::GetInstance()->SendSignalToPulseAudioAsync(false, card);
    {
        std::lock_guard<std::mutex> lock(m_VecMutex);
        EraseByPath(m_VecUSBHeadset, devPath);
    }
    CSingleton<DevicesDetected>::GetInstance()->RemoveDevice(devPath);
}

// Returns the paths of the devices that took the output.
std::vector<std::string> CUSBDevice::m_ShareOutputWithRemaining(const std::string &removedProduct)
{
    for (const USBDeviceInfo &device : GetDevices())
        m_SetMaxVolume(device.nCardNum);
    LOGI("still usb headset exist.");
    if (!m_IsUsbSpeakerSelected())
        return {};
    LOGI("current speaker is USB HEADSET, try to enable headset which not using..");
    std::vector<USBDeviceInfo> taken;
    DecisionInputs inputs;
    {
        std::lock_guard<std::mutex> lock(m_VecMutex);
        inputs.usingCount = CUsbOutputChoice::CountUsing(m_VecUSBHeadset);
        inputs.attachedCount = static_cast<int32_t>(m_VecUSBHeadset.size());
        for (size_t index : CUsbOutputChoice::TakeFreeDevices(m_VecUSBHeadset))
            taken.push_back(m_VecUSBHeadset[index]);
    }
    std::vector<std::string> takenPaths;
    for (const USBDeviceInfo &device : taken) {
        Decision decision = TookSound(device, decision::kHotplugRemoved, decision::kFreedPlace, inputs);
        decision.cause = removedProduct;
        Record(decision);
        CSingleton<DevicesDetected>::GetInstance()->SetDeviceStatus(device.strDevPath, DEVICE_STATUS_USING);
        CSingleton<CPulseAudioHandler>::GetInstance()->SendSignalToPulseAudioAsync(true, device.nCardNum);
        takenPaths.push_back(device.strDevPath);
    }
    return takenPaths;
}

void CUSBDevice::m_ShowRemainingDevicePopup(const std::vector<std::string> &justTaken)
{
    if (m_ShowUnsupportedWarning())
        return;
    const std::vector<USBDeviceInfo> devices = GetDevices();
    const std::optional<DevicePopup> popup = CUsbPopupChoice::ChooseAfterRemoval(devices, justTaken);
    if (!popup)
        return;
    const USBDeviceInfo &device = devices[popup->index];
    ShowPopup(popup->type, device.strProductName);
    if (popup->type != NOTI_TYPE_MAY_NOT_WORK_NORMALLY)
        return;
    SendWarning(KPI_WARNING_DEVICE_SETUP_FAILED, device.strProductName);
    std::lock_guard<std::mutex> lock(m_VecMutex);
    for (USBDeviceInfo &attached : m_VecUSBHeadset)
        if (attached.strDevPath == device.strDevPath)
            attached.bNotified = true;
}

void CUSBDevice::m_OnLastDeviceRemoved()
{
    LOGI("No Usb Headset exist..");
    if (m_IsUsbSpeakerSelected()) {
        LOGI("Disconnect Headset speaker.");
        CSingleton<CSpeakerManagerHandler>::GetInstance()->SendSignalToSpeakerManager();
    }
    m_StartQuitTimer();
    m_ShowUnsupportedWarning();
}

void CUSBDevice::m_AppendDevice(const USBDeviceInfo &info)
{
    {
        std::lock_guard<std::mutex> lock(m_VecMutex);
        m_VecUSBHeadset.push_back(info);
    }
    CSingleton<DevicesDetected>::GetInstance()->AddDevice(info);
}

bool CUSBDevice::m_IsDeviceExist(const std::string &devPath)
{
    std::lock_guard<std::mutex> lock(m_VecMutex);
    return std::any_of(m_VecUSBHeadset.begin(), m_VecUSBHeadset.end(), HasPath(devPath));
}

device_status CUSBDevice::m_GetDeviceStatus(const std::string &devPath)
{
    std::lock_guard<std::mutex> lock(m_VecMutex);
    auto found = std::find_if(m_VecUSBHeadset.begin(), m_VecUSBHeadset.end(), HasPath(devPath));
    return found == m_VecUSBHeadset.end() ? DEVICE_STATUS_IDLE : found->eStatus;
}

int CUSBDevice::GetDeviceUsingCnt()
{
    std::lock_guard<std::mutex> lock(m_VecMutex);
    return CUsbOutputChoice::CountUsing(m_VecUSBHeadset);
}

int CUSBDevice::GetDeviceCnt()
{
    std::lock_guard<std::mutex> lock(m_VecMutex);
    return static_cast<int>(m_VecUSBHeadset.size());
}

std::vector<USBDeviceInfo> CUSBDevice::GetDevices()
{
    std::lock_guard<std::mutex> lock(m_VecMutex);
    return m_VecUSBHeadset;
}

int CUSBDevice::m_SetMaxVolume(int card)
{
    return CUsbMixer::SetMaxVolume(card);
}

bool CUSBDevice::m_IsTwinPortInsert(const std::string &path)
{
    return CUsbMixer::IsTwinPortInsert(path, GetDevices());
}

gboolean CUSBDevice::m_RestVolumeTimerCb(gpointer data)
{
    auto *self = static_cast<CUSBDevice *>(data);
    if (!self)
        return G_SOURCE_REMOVE;
    const std::vector<USBDeviceInfo> devices = self->GetDevices();
    LOGI("[START] devices %zu", devices.size());
    if (!devices.empty())
        CUsbMixer::RestVolume(devices);
    return G_SOURCE_REMOVE;
}
