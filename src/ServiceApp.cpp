// The service's life: the start-up order, the lifecycle callbacks of the service-application loop,
// the watchdog heartbeat and the menu language.
#include "ServiceApp.h"

#include <clocale>
#include <cstdio>
#include <libintl.h>
#include <sys/prctl.h>

#include <glib.h>

#include "DebugCommand.h"
#include "DecisionLog.h"
#include "HadrixDbusAPIServer.h"
#include "HadrixUtil.h"
#include "LocalFileData.h"
#include "Log.h"
#include "MultiviewHandler.h"
#include "NotificationPopup.h"
#include "PulseAudioHandler.h"
#include "ServiceLinks.h"
#include "SoundMirroringEventHandler.h"
#include "Timer.h"
#include "USBHeadsetMgr.h"
#include "nimbos/app.h"
#include "nimbos/paths.h"
#include "nimbos/usb.h"
#include "nimbos/watchdog.h"

namespace {

constexpr char kTextDomain[] = "hadrix";
constexpr char kLocaleDir[] = "/usr/apps/hadrix/res/locale";
constexpr char kTextCodeset[] = "UTF-8";
constexpr int kBootTraceOption = 666; // the platform's boot-trace prctl; fails harmlessly elsewhere
constexpr int kWatchdogTimeoutSec = 60;
constexpr unsigned int kHeartbeatMs = 5000;

void ApplyMenuLanguage()
{
    std::string language;
    CUsbServiceUtil::GetVconf(VCONF_KEY_MENU_LANGUAGE, language);
    const char *result = setlocale(LC_ALL, language.c_str());
    if (result)
        LOGE("setlocale ret : %s", result);
    else
        LOGE("setlocale return null");
}

// Popups are built in the menu language, which the viewer can change while the service runs.
void OnMenuLanguageChanged(keynode_t *, void *)
{
    ApplyMenuLanguage();
}

void BindTextDomain()
{
    const char *result = bindtextdomain(kTextDomain, nimbos::Path(kLocaleDir).c_str());
    if (result)
        LOGE("bindtextdomain ret : %s", result);
    else
        LOGE("bindtextdomain return null");
    // Popup texts go over D-Bus, which carries UTF-8 whatever the menu language's codeset.
    if (!bind_textdomain_codeset(kTextDomain, kTextCodeset))
        LOGE("bind_textdomain_codeset %s failed", kTextCodeset);
}

gboolean OnDeadLockNotifyCB(gpointer)
{
    LOGE("");
    smart_deadlock_watchdog_notify();
    return TRUE;
}

void StartWatchdogHeartbeat(CTimer &heartbeat)
{
    smart_deadlock_register_watchdog_service(kWatchdogTimeoutSec);
    heartbeat.Start(kHeartbeatMs, OnDeadLockNotifyCB, nullptr);
}

bool service_app_create(void *)
{
    LOGE("service_app_create");
    CLocalFileData::GetInstance();
    // The decisions of earlier runs, before any of this one.
    CDecisionLog::GetInstance();
    return true;
}

void service_app_terminate(void *)
{
    LOGE("service_app_terminate");
    usb_device_fini();
    CSingleton<CUSBAPIServer>::GetInstance()->DestroyListener();
    // A "Start" or "Stop" still on its way to the audio server is finished, not cut off.
    CSingleton<CPulseAudioHandler>::GetInstance()->StopSendSignalToPulseAudio();
    // Popup workers are detached: none may still be inside the notification service at exit.
    if (CNotificationPopup *popups = CSingleton<CNotificationPopup>::PeekInstance())
        popups->FinishPopups();
    // After the audio-server worker, which may have completed a decision.
    if (CDecisionLog *decisions = CSingleton<CDecisionLog>::PeekInstance())
        decisions->Flush();
}

void service_app_control(app_control_h app_control, void *user_data)
{
    LOGE("service_app_control");
    getCardFromPulse(nullptr);
    ParseCommand(app_control, user_data);
}

} // namespace

void PutBootTraceMark(const char *text)
{
    char mark[512];
    int length = snprintf(mark, sizeof mark, "%s", text);
    prctl(kBootTraceOption, mark, length);
}

int RunService(int argc, char *argv[])
{
    LinkManagers();

    ApplyMenuLanguage();
    CUsbServiceUtil::AddVconfChangedCb(VCONF_KEY_MENU_LANGUAGE, OnMenuLanguageChanged, nullptr);
    BindTextDomain();

    usb_device_init();
    if (!CSingleton<CUSBHeadsetMgr>::GetInstance()) {
        LOGE("CUSBHeadsetMgr::GetInstance() return null, quit");
        return 0;
    }
    CUSBAPIServer *apiServer = CSingleton<CUSBAPIServer>::GetInstance();
    if (!apiServer) {
        LOGE("pInstance is NULL");
        return -1;
    }
    apiServer->CreateListener();

    CSingleton<CSoundMirroringEventHandler>::GetInstance();
    CSingleton<CMultiviewHandler>::GetInstance();

    // Beats while the loop runs.
    CTimer heartbeat;
    StartWatchdogHeartbeat(heartbeat);

    LOGE("hadrix loop start");
    PutBootTraceMark("call service_app_main");
    service_app_lifecycle_callback_s callbacks = {service_app_create, service_app_terminate, service_app_control};
    return service_app_main(argc, argv, &callbacks, nullptr);
}
