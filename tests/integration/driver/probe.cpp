// hadrix-probe: runs one operation of the service's code in a process of its own, so that
// integration tests can drive code no daemon path reaches yet against mocked platform services.
//
//   hadrix-probe <command> [args...]
//
// Exit status: the command's (0 success, 1 the operation reported failure), 2 for a usage error.
// A command is a function plus one row of kCommands.
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <glib-unix.h>
#include <gio/gio.h>
#include <glib.h>

#include "nimbos/audio_control.h"
#include "nimbos/events.h"
#include "nimbos/keyrouter.h"
#include "nimbos/notification.h"
#include "nimbos/power.h"
#include "nimbos/sound.h"
#include "nimbos/usb.h"
#include "nimbos/zones.h"

#include "AudioControlMgr.h"
#include "HadrixUtil.h"
#include "KPILog.h"
#include "PulseAudioHandler.h"
#include "SoundManagerHandler.h"
#include "SpeakerManagerHandler.h"
#include "UsbMixer.h"

namespace {

using Args = std::vector<std::string>;

constexpr int kUsageError = 2;

int ExitStatus(bool ok)
{
    return ok ? 0 : 1;
}

int LaunchApp(const Args &args)
{
    if (args.empty() || args.size() % 2 != 0)
        return kUsageError;
    ExtraData extraData;
    for (size_t i = 0; i < args.size(); i += 2)
        extraData.emplace_back(args[i], args[i + 1]);
    return ExitStatus(CUsbServiceUtil::LaunchApp(extraData));
}

bool ParseCardNumber(const std::string &text, int &card)
{
    errno = 0;
    char *end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || value < INT_MIN || value > INT_MAX)
        return false;
    card = static_cast<int>(value);
    return true;
}

// Prints the result code of the mixer run.
int SetMaxVolume(const Args &args)
{
    int card = 0;
    if (args.size() != 1 || !ParseCardNumber(args[0], card))
        return kUsageError;
    printf("%d\n", CUsbMixer::SetMaxVolume(card));
    return 0;
}

int ControlWrite(const Args &args)
{
    int card = 0;
    if (args.size() != 3 || !ParseCardNumber(args[0], card))
        return kUsageError;
    return ExitStatus(CUsbMixer::ControlWrite(card, args[1], args[2]));
}

// Prints the control's values, channels separated by commas.
int ControlGet(const Args &args)
{
    int card = 0;
    if (args.size() != 2 || !ParseCardNumber(args[0], card))
        return kUsageError;
    std::string values;
    if (!CUsbMixer::ControlGet(card, args[1], values))
        return ExitStatus(false);
    printf("%s\n", values.c_str());
    return 0;
}

// The USB library open for the life of a command.
class UsbLibrary {
public:
    UsbLibrary() : open_(usb_device_init() == USB_DEVICE_ERROR_NONE) {}
    ~UsbLibrary()
    {
        if (open_)
            usb_device_fini();
    }
    UsbLibrary(const UsbLibrary &) = delete;
    UsbLibrary &operator=(const UsbLibrary &) = delete;
    bool open() const { return open_; }

private:
    bool open_;
};

// One tab-separated line: [action,] devpath, class, number, vendor id, product id, product,
// manufacturer, devname.
void PrintUsbDevice(const char *action, usb_device_s *device)
{
    printf("%s%s%s\t%d\t%d\t%04x\t%04x\t%s\t%s\t%s\n", action, *action ? "\t" : "",
           usb_device_get_devpath(device), usb_device_get_class(device), usb_device_get_number(device),
           usb_device_get_vendor_id(device), usb_device_get_product_id(device), usb_device_get_product(device),
           usb_device_get_manufacturer(device), usb_device_get_devname(device));
    fflush(stdout);
}

struct UsbListFree {
    void operator()(usb_device_list_s *list) const { usb_device_free_device_list(list); }
};

// Fails when the walk and the list's count disagree.
int UsbList(const Args &args)
{
    if (!args.empty())
        return kUsageError;
    UsbLibrary usb;
    usb_device_list_s *raw = nullptr;
    if (!usb.open() || usb_device_get_device_list(&raw) != USB_DEVICE_ERROR_NONE)
        return ExitStatus(false);
    std::unique_ptr<usb_device_list_s, UsbListFree> list(raw);
    int walked = 0;
    usb_device_s *device = nullptr;
    for (int rc = usb_device_list_get_first(list.get(), &device); rc == USB_DEVICE_ERROR_NONE;
         rc = usb_device_list_get_next(list.get(), &device), ++walked)
        PrintUsbDevice("", device);
    int count = usb_device_list_get_count(list.get());
    if (walked != count)
        fprintf(stderr, "hadrix-probe: walked %d devices of a list counting %d\n", walked, count);
    return ExitStatus(walked == count);
}

void OnUsbConnected(usb_device_s *device, char *action, void *)
{
    std::unique_ptr<usb_device_s, int (*)(usb_device_s *)> owned(device, free_usb_device_h);
    PrintUsbDevice(action, device);
}

gboolean QuitLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_CONTINUE;
}

// Prints "ready", then runs the main loop until SECONDS pass or SIGTERM comes.
void RunLoopFor(int seconds)
{
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    guint timeout = g_timeout_add_seconds(static_cast<guint>(seconds), QuitLoop, loop);
    guint terminate = g_unix_signal_add(SIGTERM, QuitLoop, loop);
    printf("ready\n");
    fflush(stdout);
    g_main_loop_run(loop);
    g_source_remove(timeout);
    g_source_remove(terminate);
}

// Prints "ready", then one line per hot-plug callback until SECONDS pass or SIGTERM comes.
int UsbMonitor(const Args &args)
{
    int seconds = 0;
    if (args.size() != 1 || !ParseCardNumber(args[0], seconds) || seconds <= 0)
        return kUsageError;
    UsbLibrary usb;
    if (!usb.open() || usb_set_connected_cb(OnUsbConnected, nullptr) != USB_DEVICE_ERROR_NONE)
        return ExitStatus(false);
    RunLoopFor(seconds);
    return ExitStatus(usb_unset_connected_cb() == USB_DEVICE_ERROR_NONE);
}

int PulseSignal(const Args &args, bool on)
{
    int card = 0;
    if (args.size() != 1 || !ParseCardNumber(args[0], card))
        return kUsageError;
    return ExitStatus(CSingleton<CPulseAudioHandler>::GetInstance()->SendSignalToPulseAudio(on, card));
}

int PulseStart(const Args &args)
{
    return PulseSignal(args, true);
}

int PulseStop(const Args &args)
{
    return PulseSignal(args, false);
}

// Two "Start" requests back to back on the worker, then waits for the last one to end.
int PulseAsyncTwice(const Args &args)
{
    int first = 0;
    int second = 0;
    if (args.size() != 2 || !ParseCardNumber(args[0], first) || !ParseCardNumber(args[1], second))
        return kUsageError;
    CPulseAudioHandler *handler = CSingleton<CPulseAudioHandler>::GetInstance();
    bool ok = handler->SendSignalToPulseAudioAsync(true, first);
    ok = handler->SendSignalToPulseAudioAsync(true, second) && ok;
    handler->StopSendSignalToPulseAudio();
    return ExitStatus(ok);
}

int SpkDisconnected(const Args &args)
{
    if (!args.empty())
        return kUsageError;
    return ExitStatus(CSingleton<CSpeakerManagerHandler>::GetInstance()->SendSignalToSpeakerManager());
}

int CardFromPulse(const Args &args)
{
    if (!args.empty())
        return kUsageError;
    printf("%d\n", getCardFromPulse(nullptr));
    return 0;
}

// get prints the route; set ROUTE, mute-gain N and fade-in report the result in the status.
int SoundManager(const Args &args)
{
    CSoundManagerHandler *sound = CSingleton<CSoundManagerHandler>::GetInstance();
    int value = 0;
    if (args.size() == 1 && args[0] == "get") {
        printf("%d\n", static_cast<int>(sound->GetSpeakerSelection()));
        return 0;
    }
    if (args.size() == 1 && args[0] == "fade-in")
        return ExitStatus(sound->ApplyUnmuteFadeIn());
    if (args.size() == 2 && ParseCardNumber(args[1], value)) {
        if (args[0] == "set" && value >= 0)
            return ExitStatus(sound->SetSpeakerSelection(static_cast<sound_tv_output_route_e>(value)));
        if (args[0] == "mute-gain")
            return ExitStatus(sound->ApplyMuteGain(value));
    }
    return kUsageError;
}

bool ParseUnsigned(const std::string &text, unsigned int &value)
{
    int number = 0;
    if (!ParseCardNumber(text, number) || number < 0)
        return false;
    value = static_cast<unsigned int>(number);
    return true;
}

// Prints the value read; the status reports the result.
int AudioControlGet(CAudioControlMgr *control, const std::string &what)
{
    unsigned int value = 0;
    bool mute = false;
    bool ok = false;
    if (what == "get-gain") {
        ok = control->GetUsbHeadsetOutGain(&value);
    } else if (what == "get-delay") {
        ok = control->GetUsbHeadsetOutDelay(&value);
    } else if (what == "get-mute") {
        ok = control->GetUsbHeadsetMuteStatus(&mute);
        value = mute ? 1 : 0;
    } else {
        return kUsageError;
    }
    if (ok)
        printf("%u\n", value);
    return ExitStatus(ok);
}

int AudioControlSet(CAudioControlMgr *control, const std::string &what, unsigned int value)
{
    if (what == "set-gain")
        return ExitStatus(control->SetUsbHeadsetOutGain(value));
    if (what == "set-delay")
        return ExitStatus(control->SetUsbHeadSetOutDelay(value));
    if (what == "set-mute" && value <= 1)
        return ExitStatus(control->SetUsbHeadsetMuteStatus(value == 1));
    return kUsageError;
}

int AudioControlMgr(const Args &args)
{
    CAudioControlMgr *control = CSingleton<CAudioControlMgr>::GetInstance();
    unsigned int value = 0;
    if (args.size() == 1)
        return AudioControlGet(control, args[0]);
    if (args.size() == 2 && ParseUnsigned(args[1], value))
        return AudioControlSet(control, args[0], value);
    return kUsageError;
}

int Kpi(const Args &args)
{
    CKPILog *kpi = CSingleton<CKPILog>::GetInstance();
    int first = 0;
    int second = 0;
    if (args.size() == 4 && args[0] == "new-device" && ParseCardNumber(args[2], first) &&
        ParseCardNumber(args[3], second)) {
        kpi->SendNewConnectedDevice(args[1], first, second);
        return 0;
    }
    if (args.size() == 4 && args[0] == "connect-status" && ParseCardNumber(args[1], first)) {
        kpi->SendConnectStatus(first != 0, args[2], args[3]);
        return 0;
    }
    if (args.size() == 3 && args[0] == "warning" && ParseCardNumber(args[1], first)) {
        kpi->SendWarnings(static_cast<KPI_WARNING>(first), args[2]);
        return 0;
    }
    return kUsageError;
}

// Platform clients called directly, so that tests see their result codes: a failure prints
// "error <code>" and ends with status 1.
int ClientResult(int code)
{
    if (code != 0)
        printf("error %d\n", code);
    return ExitStatus(code == 0);
}

bool ParseNumbers(const Args &args, size_t first, std::vector<int> &numbers)
{
    for (size_t i = first; i < args.size(); ++i) {
        int number = 0;
        if (!ParseCardNumber(args[i], number))
            return false;
        numbers.push_back(number);
    }
    return true;
}

int PrintRoute(int result, const sound_tv_output_route_e *route)
{
    if (result == 0)
        printf("route %d\n", static_cast<int>(*route));
    return ClientResult(result);
}

int Sound(const Args &args)
{
    std::vector<int> n;
    if (args.empty() || !ParseNumbers(args, 1, n))
        return kUsageError;
    const std::string &op = args[0];
    sound_tv_output_route_e route = SOUND_TV_OUTPUT_DEFAULT;
    if (op == "get" && n.empty())
        return PrintRoute(sound_manager_get_speaker_selection(&route), &route);
    if (op == "set" && n.size() == 1)
        return ClientResult(sound_manager_set_speaker_selection(static_cast<sound_tv_output_route_e>(n[0])));
    if (op == "mute-gain" && n.size() == 2)
        return ClientResult(sound_manager_set_mute_gain(n[0], n[1]));
    if (op == "fade-in" && n.size() == 1)
        return ClientResult(sound_manager_apply_unmute_fade_in(n[0]));
    if (op == "zone-get" && n.size() == 1)
        return PrintRoute(sound_manager_get_multiview_speaker_selection_with_zone_id(&route, n[0]), &route);
    if (op == "zone-set" && n.size() == 2)
        return ClientResult(sound_manager_set_multiview_speaker_selection_with_zone_id(
            static_cast<sound_tv_output_route_e>(n[0]), n[1]));
    return kUsageError;
}

// What a watch callback gets: whether it runs where it was registered, and when to unregister.
struct Watch {
    const char *label;
    GThread *thread = g_thread_self();
    bool once = false;
};

const char *Where(const Watch &watch)
{
    bool onLoop = g_thread_self() == watch.thread && g_main_context_is_owner(g_main_context_default());
    return onLoop ? "on-loop" : "off-loop";
}

void OnSpeakerChanged(sound_tv_output_route_e route, void *data)
{
    const auto *watch = static_cast<const Watch *>(data);
    printf("%s speaker-changed %d %s\n", watch->label, static_cast<int>(route), Where(*watch));
    fflush(stdout);
    if (watch->once)
        sound_manager_unset_speaker_changed_cb();
}

void OnMultiviewSpeakerChanged(sound_tv_output_route_e route, int zone, void *data)
{
    const auto *watch = static_cast<const Watch *>(data);
    printf("%s multiview-changed %d zone %d %s\n", watch->label, static_cast<int>(route), zone, Where(*watch));
    fflush(stdout);
    if (watch->once)
        sound_manager_unset_multiview_speaker_selection_changed_cb();
}

void PrintStateChange(const _device_power_state_info *info, const Watch &watch)
{
    printf("%s state-changed %d %d %s\n", watch.label, info->previous, info->current, Where(watch));
    fflush(stdout);
}

void OnStateChanged(_device_power_state_info *info, void *data)
{
    const auto *watch = static_cast<const Watch *>(data);
    PrintStateChange(info, *watch);
    if (watch->once)
        device_power_unsubscribe_state_changed_event(OnStateChanged);
}

// A second callback that stays subscribed: its lines show that a change has been delivered.
void OnStateWitnessed(_device_power_state_info *info, void *data)
{
    PrintStateChange(info, *static_cast<const Watch *>(data));
}

// The bus handles a connection's messages in order: once it has answered, the match rules of the
// subscriptions sent before are in place.
bool SyncWithBus()
{
    g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_autoptr(GVariant) reply =
        bus ? g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                          "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr)
            : nullptr;
    return reply != nullptr;
}

// Prints "ready", then runs the main loop until SECONDS pass or SIGTERM comes.
int RunWatchLoop(int seconds)
{
    if (!SyncWithBus())
        return ExitStatus(false);
    RunLoopFor(seconds);
    return 0;
}

bool ParseWatchArgs(const Args &args, int &seconds, bool &once)
{
    once = args.size() == 2 && args[1] == "once";
    return (args.size() == 1 || once) && ParseCardNumber(args[0], seconds) && seconds > 0;
}

int WatchSound(Watch *watch)
{
    int result = sound_manager_set_speaker_changed_cb(OnSpeakerChanged, watch);
    if (result != 0)
        return result;
    return sound_manager_set_multiview_speaker_selection_changed_cb(OnMultiviewSpeakerChanged, watch);
}

// Registers a first pair of callbacks ("replaced"), then the pair that replaces it ("sound").
int SoundWatch(const Args &args)
{
    int seconds = 0;
    Watch replaced{"replaced"};
    Watch current{"sound"};
    if (!ParseWatchArgs(args, seconds, current.once))
        return kUsageError;
    for (Watch *watch : {&replaced, &current}) {
        int result = WatchSound(watch);
        if (result != 0)
            return ClientResult(result);
    }
    return RunWatchLoop(seconds);
}

// Subscribes one callback twice, the second subscription replacing the user data ("power"), and
// a witness callback.
int PowerWatch(const Args &args)
{
    int seconds = 0;
    Watch replaced{"replaced"};
    Watch current{"power"};
    Watch witness{"witness"};
    if (!ParseWatchArgs(args, seconds, current.once))
        return kUsageError;
    int result = device_power_subscribe_state_changed_event(OnStateWitnessed, &witness);
    for (Watch *watch : {&replaced, &current})
        if (result == 0)
            result = device_power_subscribe_state_changed_event(OnStateChanged, watch);
    if (result != 0)
        return ClientResult(result);
    return RunWatchLoop(seconds);
}

int PowerGet(const Args &args)
{
    if (!args.empty())
        return kUsageError;
    int state = device_power_get_state();
    if (state >= 0)
        printf("state %d\n", state);
    return ClientResult(state < 0 ? state : 0);
}

int PrintValue(int result, const char *what, const unsigned int *value)
{
    if (result == 0)
        printf("%s %u\n", what, *value);
    return ClientResult(result);
}

int AudioControlGet(IAudioControl *control, const std::string &what)
{
    unsigned int value = 0;
    if (what == "get-gain")
        return PrintValue(control->getUsbOutGain(&value), "gain", &value);
    if (what == "get-delay")
        return PrintValue(control->getUsbOutDelay(&value), "delay", &value);
    if (what != "get-mute")
        return kUsageError;
    bool mute = false;
    int result = control->getUsbOutMute(&mute);
    value = mute ? 1 : 0;
    return PrintValue(result, "mute", &value);
}

// get-* prints "<what> <value>"; every result is in the status.
int AudioControl(const Args &args)
{
    IAudioControl *control = IAudioControl::getInstance();
    unsigned int value = 0;
    if (args.size() == 1)
        return AudioControlGet(control, args[0]);
    if (args.size() != 2 || !ParseUnsigned(args[1], value))
        return kUsageError;
    if (args[0] == "set-gain")
        return ClientResult(control->setUsbOutGain(value));
    if (args[0] == "set-delay")
        return ClientResult(control->setUsbOutDelay(value));
    if (args[0] == "set-mute" && value <= 1)
        return ClientResult(control->setUsbOutMute(value == 1));
    return kUsageError;
}

int PrintKeyEvent(const char *what, const void *event)
{
    const auto *key = static_cast<const ecore_event_key_s *>(event);
    const char *device = key->device && key->device->name ? key->device->name : "-";
    printf("%s %s %s\n", what, key->keyname, device);
    fflush(stdout);
    return ECORE_EVENT_CONTINUE;
}

int OnKeyDown(int, void *event, void *)
{
    return PrintKeyEvent("down", event);
}

int OnKeyUp(int, void *event, void *)
{
    return PrintKeyEvent("up", event);
}

struct EventHandlerDel {
    void operator()(ecore_event_handler_s *handler) const { ecore_event_handler_del(handler); }
};
using EventHandler = std::unique_ptr<ecore_event_handler_s, EventHandlerDel>;

// Connected to the key router for the life of a command.
class KeyRouterSession {
public:
    KeyRouterSession() : result_(keyrouter_connect()) {}
    ~KeyRouterSession()
    {
        if (result_ == KEYROUTER_ERROR_NONE)
            keyrouter_disconnect();
    }
    KeyRouterSession(const KeyRouterSession &) = delete;
    KeyRouterSession &operator=(const KeyRouterSession &) = delete;
    int result() const { return result_; }

private:
    int result_;
};

// Grabs the keys for the process's own window (0), with the grab mode the service uses (3).
int GrabKeys(const Args &keys)
{
    int result = capi_window_tv_reset_key_grab_config(0);
    for (size_t i = 0; result == KEYROUTER_ERROR_NONE && i < keys.size(); ++i)
        result = capi_window_tv_add_key(0, keys[i].c_str(), 3);
    return result == KEYROUTER_ERROR_NONE ? capi_window_tv_set_grabbed_keys(0) : result;
}

// Grabs the KEYs, prints "ready", then "down KEY DEVICE" / "up KEY DEVICE" per key event (DEVICE
// "-" when the device has no name) until SECONDS pass or SIGTERM comes.
int KeysGrab(const Args &args)
{
    int seconds = 0;
    if (args.size() < 2 || !ParseCardNumber(args[0], seconds) || seconds <= 0)
        return kUsageError;
    EventHandler down(ecore_event_handler_add(ECORE_EVENT_KEY_DOWN, OnKeyDown, nullptr));
    EventHandler up(ecore_event_handler_add(ECORE_EVENT_KEY_UP, OnKeyUp, nullptr));
    if (!down || !up)
        return ExitStatus(false);
    KeyRouterSession session;
    int result = session.result();
    if (result == KEYROUTER_ERROR_NONE)
        result = GrabKeys(Args(args.begin() + 1, args.end()));
    if (result != KEYROUTER_ERROR_NONE)
        return ClientResult(result);
    return RunWatchLoop(seconds);
}

struct ZoneListFree {
    void operator()(rc_zone_list_s *list) const { rc_free_zone_list(list); }
};

// Prints "zone ID" per zone of TYPE, in the resource centre's order.
int Zones(const Args &args)
{
    int type = 0;
    if (args.size() != 1 || !ParseCardNumber(args[0], type))
        return kUsageError;
    rc_zone_list_s *raw = nullptr;
    int result = rc_get_zone_list(static_cast<rc_zone_type_e>(type), &raw);
    std::unique_ptr<rc_zone_list_s, ZoneListFree> list(raw);
    for (rc_zone_s *zone = rc_get_next_zone(list.get()); result == RC_ERROR_NONE && zone;
         zone = rc_get_next_zone(list.get())) {
        int id = 0;
        result = rc_get_zone_id(zone, &id);
        if (result == RC_ERROR_NONE)
            printf("zone %d\n", id);
    }
    return ClientResult(result);
}

struct Command {
    const char *name;
    const char *usage;
    int (*run)(const Args &args);
};

int Timed(const Args &args);

GThread *g_notifyLoopThread = nullptr;

void OnNotificationEvent(notification *, int eventType, void *)
{
    bool onLoop = g_thread_self() == g_notifyLoopThread && g_main_context_is_owner(g_main_context_default());
    printf("event %d %s\n", eventType, onLoop ? "on-loop" : "off-loop");
    fflush(stdout);
}

struct NotificationDeleter {
    void operator()(notification *noti) const { notification_delete(noti); }
};

// Posts a popup from a thread of its own (as the service does), then posts it again with the
// title marked "(updated)"; prints both results, then "event N on-loop|off-loop" for each event
// until SECONDS pass, and takes the popup down. TEXT's "%s" are filled with the ARGs.
int Notify(const Args &args)
{
    int seconds = 0;
    if (args.size() < 3 || args.size() > 5 || !ParseCardNumber(args[0], seconds) || seconds <= 0)
        return kUsageError;
    std::unique_ptr<notification, NotificationDeleter> noti(notification_create(NOTIFICATION_STYLE_SIMPLE));
    if (!noti)
        return ExitStatus(false);
    const std::string title = args[1];
    const int textArgs = static_cast<int>(args.size()) - 3;
    notification_set_text(noti.get(), NOTIFICATION_TEXT_TITLE, title.c_str(), NOTIFICATION_TEXT_NO_ARGS);
    notification_set_text(noti.get(), NOTIFICATION_TEXT_CONTENT, args[2].c_str(), textArgs,
                          textArgs > 0 ? args[3].c_str() : nullptr, textArgs > 1 ? args[4].c_str() : nullptr);
    int first = 0;
    int second = 0;
    g_notifyLoopThread = g_thread_self();
    std::thread([&] {
        first = notification_post_with_event_cb(noti.get(), OnNotificationEvent, nullptr);
        const std::string updated = title + " (updated)";
        notification_set_text(noti.get(), NOTIFICATION_TEXT_TITLE, updated.c_str(), NOTIFICATION_TEXT_NO_ARGS);
        second = notification_post(noti.get());
    }).join();
    printf("posted %d %d\n", first, second);
    return RunWatchLoop(seconds);
}

const Command kCommands[] = {
    {"launch-app", "KEY VALUE [KEY VALUE...]", LaunchApp},
    {"set-max-volume", "CARD", SetMaxVolume},
    {"cset", "CARD CONTROL-ID VALUE", ControlWrite},
    {"cget", "CARD CONTROL-ID", ControlGet},
    {"usb-list", "", UsbList},
    {"usb-monitor", "SECONDS", UsbMonitor},
    {"pulse-start", "CARD", PulseStart},
    {"pulse-stop", "CARD", PulseStop},
    {"pulse-async-twice", "CARD1 CARD2", PulseAsyncTwice},
    {"card-from-pulse", "", CardFromPulse},
    {"spk-disconnected", "", SpkDisconnected},
    {"sound-manager", "get|set ROUTE|mute-gain GAIN|fade-in", SoundManager},
    {"audio-control-mgr", "get-gain|get-delay|get-mute|set-gain N|set-delay N|set-mute 0|1", AudioControlMgr},
    {"kpi", "new-device NAME VID PID|connect-status 0|1 NAME1 NAME2|warning KIND NAME", Kpi},
    {"sound", "get|set ROUTE|mute-gain TYPE GAIN|fade-in TYPE|zone-get ZONE|zone-set ROUTE ZONE", Sound},
    {"sound-watch", "SECONDS [once]", SoundWatch},
    {"audio-control", "get-gain|get-delay|get-mute|set-gain N|set-delay N|set-mute 0|1", AudioControl},
    {"power-get", "", PowerGet},
    {"power-watch", "SECONDS [once]", PowerWatch},
    {"keys-grab", "SECONDS KEY...", KeysGrab},
    {"zones", "TYPE", Zones},
    {"notify", "SECONDS TITLE TEXT [ARG [ARG]]", Notify},
    {"timed", "COMMAND [ARGS...]", Timed},
};

// Runs a command once the bus connection is set up and prints "took <ms> ms": the time of the
// command's own calls, without the process's start.
int Timed(const Args &args)
{
    if (args.empty() || args[0] == "timed")
        return kUsageError;
    if (!SyncWithBus())
        return ExitStatus(false);
    for (const Command &command : kCommands) {
        if (args[0] != command.name)
            continue;
        gint64 start = g_get_monotonic_time();
        int status = command.run(Args(args.begin() + 1, args.end()));
        printf("took %" G_GINT64_FORMAT " ms\n", (g_get_monotonic_time() - start) / 1000);
        return status;
    }
    return kUsageError;
}

int Usage()
{
    fprintf(stderr, "usage: hadrix-probe <command> [args...]\ncommands:\n");
    for (const Command &command : kCommands)
        fprintf(stderr, "  %s %s\n", command.name, command.usage);
    return kUsageError;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return Usage();
    for (const Command &command : kCommands) {
        if (strcmp(argv[1], command.name) != 0)
            continue;
        int status = command.run(Args(argv + 2, argv + argc));
        if (status == kUsageError)
            fprintf(stderr, "usage: hadrix-probe %s %s\n", command.name, command.usage);
        return status;
    }
    fprintf(stderr, "hadrix-probe: unknown command '%s'\n", argv[1]);
    return Usage();
}
