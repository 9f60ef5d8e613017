// The remote's volume keys while a USB headset carries the TV sound: grabbed from the key
// router, turned into level and mute changes that are stored, applied to the headset and shown
// and spoken by the TV viewer application.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include <glib.h>

#include "KeyLevels.h"
#include "Singleton.h"
#include "Timer.h"
#include "nimbos/events.h"
#include "nimbos/settings.h"

// One key of the table the handler grabs.
struct Key_Info {
    int value;
    const char *name;
};

class CKeyHandler : public CSingleton<CKeyHandler> {
    friend class CSingleton<CKeyHandler>;

public:
    using KeyCallback = void (*)(int, int, void *);

    // What the handler asks of the attached USB devices; set once at start-up.
    struct Links {
        // Whether a key device's name names an attached USB audio device.
        std::function<bool(const std::string &deviceName)> isUsbDevice;
        // The on-screen name of the devices that carry the sound.
        std::function<std::string()> osdName;
    };
    static void SetLinks(Links links);

    // Releases the keys if they are grabbed.
    ~CKeyHandler() override;

    bool m_InitializeGrab();
    // The headset manager passes null callbacks and user data.
    bool GrabVolumeKey(KeyCallback keyCb, vconf_callback_fn volumeEventCb, void *userData);
    void UngrabVolumeKey();
    bool IsGrabbed();

    // Also used by the screen-mirroring handler.
    void VolumeLevelAdjust(int level, bool held);
    void VolumeMute();
    void VolumeUnMute();

    void SendCmdToTvViewer(const std::string &cmd, const std::string &value);

private:
    CKeyHandler();

    // Key router grab and release; main loop only.
    void m_GrabKey(const Key_Info *keys, int mode);
    void m_UnGrabKey(const Key_Info *keys);
    void m_AddKeyEventHandlers();
    void m_DeleteKeyEventHandlers();
    // Replaces the pending grab or release at the router; called with m_Mutex held.
    void m_ScheduleRouterChange(GSourceFunc change);
    static gboolean m_OnTimeoutGrabKey(gpointer data);
    static gboolean m_OnTimeoutUnGrabKey(gpointer data);
    static void t_VconfCBOfEmanualLearnTvRemote(keynode_t *node, void *data);
    static void OnTTSEnalbedChanged(keynode_t *node, void *data);

    // Key events and the jobs that handle them.
    static int m_KeyPressEventCallback(int type, void *event, void *data);
    static int m_KeyReleaseEventCallback(int type, void *event, void *data);
    KeyDeviceClass m_CheckdeviceInfo(const ecore_event_key_s *key);
    void m_QueueKeyJob(const char *keyName, char *nameBuffer, ecore_job_s *&job, ecore_job_cb run);
    std::string m_TakeKeyJob(const char *nameBuffer, ecore_job_s *&job);
    static void m_KeySchedule(void *data);
    static void m_KeyScheduleRel(void *data);
    int m_HandleKeyEvent(const char *name, int state);

    // Handling of one key; called with m_Mutex held.
    void t_HandleVolumeKey(int keyValue, int keyState, void *userData);
    void t_HandlePressVolUp();
    void t_HandlePressVolDown();
    void t_HandlePressVolume(bool up);
    void t_HandlePressMute();
    void t_HandleReleaseVolUp();
    void t_HandleReleaseVolDown();
    void t_SpeakLevel();
    void t_VolumeMute();
    void t_VolumeUnMute();
    void t_SetMute(bool mute);
    void SayBeep();

    static constexpr size_t kKeyNameSize = 31;
    static constexpr unsigned int kHeldVolUp = 1u << 0;
    static constexpr unsigned int kHeldVolDown = 1u << 1;

    // Guards grab and release (which other threads ask for) and the handling of one key event.
    std::mutex m_Mutex;
    KeyCallback m_pKeyCb = nullptr;
    vconf_callback_fn m_pVolumeEventCb = nullptr;
    void *m_pUserData = nullptr;
    bool m_bGrabbed = false;
    // The pending 0 ms grab or release at the router.
    CTimer m_RouterTimerId;
    // Pending press and release jobs with the key names they handle; under m_Mutex, since a
    // release of the keys from another thread cancels them.
    ecore_job_s *m_pPressJob = nullptr;
    ecore_job_s *m_pReleaseJob = nullptr;
    char m_PressKeyName[kKeyNameSize] = {};
    char m_ReleaseKeyName[kKeyNameSize] = {};

    // Main loop only.
    ecore_event_handler_s *m_pKeyDownHandler = nullptr;
    ecore_event_handler_s *m_pKeyUpHandler = nullptr;
    unsigned int m_HeldKeys = 0;
    int m_nWorkingLevel = 0;
    std::string m_strTTSSuffix;

    std::atomic<bool> m_bTTSEnabled{false};
};
