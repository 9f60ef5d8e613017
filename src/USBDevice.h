// The USB device manager: which USB audio devices are attached (enumeration at boot and after
// standby, hot-plug attach and detach), which of them carry the TV sound, and the timers that
// leave USB audio mode and end the service when no headset comes back.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "Decision.h"
#include "GamepadList.h"
#include "HadrixDeviceListInfo.h"
#include "Singleton.h"
#include "Timer.h"
#include "USBDeviceInfo.h"
#include "UniqueHandle.h"
#include "UsbDeviceSnapshot.h"
#include "nimbos/gamepad.h"
#include "nimbos/usb.h"

// Why the output changes hands, for the decision records of the devices it reaches: the event,
// the rule and its inputs, and the device whose event it was when that is another one.
struct OutputChange {
    const char *event = decision::kRouteChange;
    std::string rule = decision::kAsked;
    std::string cause;
    DecisionInputs inputs;
};

class CUSBDevice : public CSingleton<CUSBDevice> {
    friend class CSingleton<CUSBDevice>;

public:
    // What the device manager tells the service around it. Set once at start-up; the links
    // outlive the manager, which is rebuilt after standby.
    struct Links {
        // The device situation changed (the end of a start-up or resume enumeration).
        std::function<void()> devicesChanged;
        // A start-up or resume enumeration has ended; events held back meanwhile may go on.
        std::function<void()> enumerationDone;
    };
    static void SetLinks(Links links);

    // Removes every timer the manager armed and abandons a start-up still in progress, so that
    // nothing calls back into a destroyed manager.
    ~CUSBDevice() override;

    // Enumeration of the devices present at start-up and after resume from standby. The kernel-log
    // analysis and the retries between passes run off the main loop's back: the decisions that
    // follow are taken on the main loop once they are done.
    void InitFromBoot();
    void InitFromStandby();
    // Whether the resume enumeration parses the kernel log first: the TV came back from the deep
    // low-power state. Told by the headset manager before InitFromStandby.
    void SetResumedFromDeepStandby(bool deep);
    // From the start of InitFromBoot or InitFromStandby until its decision has been taken.
    bool IsEnumerating() const;
    // While the enumeration under way waits for the kernel-log parse on its worker.
    bool IsParsingKernelLog() const;

    // One hot-plugged device; speakerChange is whether the TV sound is to switch to it, and why
    // the judgement that decided it, for the decision record.
    void AddDevice(usb_device_s *dev, bool speakerChange, const DecisionReason &why = DecisionReason());
    void RemoveDevice(usb_device_s *dev);

    // Whether a device of the last run is still expected to come back; leaveAtOnce tells the
    // caller that it was seen but will not come back.
    bool WaitDetect(bool &leaveAtOnce);

    // Devices carrying the output (status 1), and all attached devices.
    int GetDeviceUsingCnt();
    int GetDeviceCnt();
    // A copy of the attached devices' records, for readers on any thread.
    std::vector<USBDeviceInfo> GetDevices();
    // The display name of the devices carrying the output, for on-screen texts
    // (USBDeviceLists.cpp).
    std::string GetDeviceInfoForOSD();
    // Fills a cleared list for client applications; returns the number of records (at most 2).
    // Safe on any thread (USBDeviceLists.cpp).
    int GetNetDeviceList(HadrixDeviceListInfo_t *list);
    // Warns about the first unsupported device not warned about yet (popup and KPI warning);
    // true when it warned. One device per call, each once while it stays plugged
    // (USBDeviceLists.cpp).
    bool m_ShowUnsupportedWarning();
    // Whether a key device's name contains an attached device's full name, manufacturer and
    // product (USBDeviceGamepad.cpp).
    bool CheckWhetherUsbDevice(const std::string &deviceName);

    // Output switching (USBDeviceOutput.cpp); `why` goes into the records of the devices that
    // take or give back the sound.
    void EnableUSBOutput(const OutputChange &why = OutputChange());
    void MuteUSBOutput(bool mute, const OutputChange &why = OutputChange());
    void WaitOrDisableUSBOutputByEmptyDeviceList();

    // The card's own mixer, kept at its maximum; also driven by the debug commands.
    int m_SetMaxVolume(int card);
    bool m_IsTwinPortInsert(const std::string &path);

private:
    CUSBDevice();

    // A start-up or resume enumeration under way: a kernel-log parse on a worker, then passes
    // over the library's device list on the main loop, 1000 ms apart until one finds devices.
    struct Enumeration {
        enum class Kind { Boot, Standby };
        // Declared, so that std::optional need not look at the member initialisers while this
        // class is still incomplete (clang refuses that).
        explicit Enumeration(Kind of) : kind(of) {}
        Kind kind;
        int tries = 0;
        int pass = 0;
        // The parse on its worker, until it is done; cancelled by the destructor so that a parse
        // finishing later does not reach this object.
        UniqueHandle<GCancellable, g_object_unref> parse;
    };

    void m_StartInit(Enumeration::Kind kind, bool parse, bool forceParse);
    static void m_OnInitParseDone(GObject *source, GAsyncResult *result, gpointer data);
    void m_AbandonInitParse();
    void m_AfterInitParse();
    void m_RecoverUnmuteOnFirstLaunch();
    void m_MultiTryInitDevices(int tries);
    static gboolean m_InitRetryTimerCb(gpointer data);
    void m_RunInitPass();
    bool m_InitDevice();
    int m_ForeachDeviceList(int count, usb_device_s *first, usb_device_list_s *&list);
    bool m_TakeEnumeratedDevice(usb_device_s *dev);
    // Records a device an enumeration pass leaves out, once per enumeration.
    void m_RecordLeftOut(const USBDeviceInfo &info, int card, const char *outcome, const char *rule,
                         const DecisionInputs &inputs = DecisionInputs());
    void m_OnInitDevicesDone(bool found);
    void m_FinishBoot(bool found);
    void m_FinishStandby(bool found);
    void m_RecordUsbDeviceTable();
    void m_SwitchToUSBSpeakerIfPluggedByUser();
    void m_RecordPresentAtResume();

    bool m_IsDeviceExist(const std::string &devPath);
    device_status m_GetDeviceStatus(const std::string &devPath);
    void m_AppendDevice(const USBDeviceInfo &info);
    bool m_TakeAstroDevice(const USBDeviceInfo &info, const DecisionInputs &inputs);
    bool m_KeepUnsupportedDevice(const USBDeviceInfo &info, bool warned);
    void m_RouteToNewDevice(USBDeviceInfo &info, const DecisionReason &why, const DecisionInputs &inputs);
    void m_ShowNewDevicePopup(USBDeviceInfo &info);
    void m_ReleaseRemovedDevice(const std::string &devPath, int card);
    std::vector<std::string> m_ShareOutputWithRemaining(const std::string &removedProduct);
    void m_ShowRemainingDevicePopup(const std::vector<std::string> &justTaken);
    void m_OnLastDeviceRemoved();
    static gboolean m_RestVolumeTimerCb(gpointer data);

    // Gamepads (USBDeviceGamepad.cpp): whether a device is a gamepad's audio function, which the
    // service leaves alone; the list of connected gamepads follows the gamepad library from the
    // registration timer on.
    static gboolean m_RegisterGamepadCb(gpointer data);
    void m_InitGamepadList();
    static void m_GamepadConnectionCb(int event, _gamepad_device_info_s info, void *data);
    void m_UpdateGamepadList(int event, const _gamepad_device_info_s &info);
    // `rule`, when given, is set to the rule that recognised the gamepad (decision::kGamepad…).
    bool m_CheckGamepad(usb_device_s *device, const char **rule = nullptr);
    const char *m_MatchGamepad(usb_device_s *device);
    static bool m_CheckIDInputJoySticks(int productId, int vendorId);

    // Output switching (USBDeviceOutput.cpp). `judgedPath`: the device whose judgement switched
    // the output; the others it reaches take the sound as the first two. Empty: each takes it by
    // `why` (USB audio mode).
    void m_SwitchToUSBSpeaker(const OutputChange &why = OutputChange(), const std::string &judgedPath = {});
    void m_RecordSwitch(const OutputChange &why, const std::string &judgedPath, const std::vector<USBDeviceInfo> &taken,
                        const std::vector<USBDeviceInfo> &left);
    static bool m_IsUsbSpeakerSelected();
    // Routes the TV sound to the USB headset; in multiview per zone, with the level published to
    // the multiview UI and, when asked, the headset output unmuted.
    static void m_SelectUsbHeadsetRoute(bool unmuteInMultiview);
    void m_ReleaseUsingDevices();
    void m_StartQuitTimer();
    void m_LeaveUSBModeNow();
    static gboolean m_DelayLeaveUSBModeTimerCb(gpointer data);
    static gboolean m_USBStateCheckTimerCb(gpointer data);
    static gboolean m_DelayQuitTimerCb(gpointer data);

    // The attached devices; read by other threads, so every access takes m_VecMutex, and the
    // lock is never held while calling out of the manager.
    std::vector<USBDeviceInfo> m_VecUSBHeadset;
    std::mutex m_VecMutex;
    // Devices detected that the service cannot use (Astro headsets): never in the attached
    // list; bNotified marks those the user has been warned about. Main loop only.
    std::vector<USBDeviceInfo> m_VecUnsupportedDevice;

    // Timers, main loop only; each is named after the source id it keeps.
    CTimer m_RestVolumeTimerId;
    CTimer m_DelayLeaveUSBModeTimerId;
    CTimer m_USBStateCheckTimerId;
    CTimer m_DelayQuitTimerId;
    CTimer m_InitRetryTimerId;
    CTimer m_RegisterGamepadTimerId;
    int m_USBStateCheckTimes = 0;

    CGamepadList m_GamepadList;
    // Whether the gamepad library calls this manager back; undone by the destructor.
    bool m_GamepadCbRegistered = false;

    bool m_ResumedFromDeepStandby = false;
    std::optional<Enumeration> m_Enumeration;
    // The devices the passes of the enumeration under way have left out and recorded so: each
    // once per enumeration.
    std::set<std::string> m_LeftOutRecorded;
};
