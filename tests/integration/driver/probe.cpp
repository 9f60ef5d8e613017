// hadrix-probe: runs one operation of the service's code in a process of its own, so that
// integration tests can drive code no daemon path reaches yet against mocked platform services.
//
//   hadrix-probe <command> [args...]
//
// Exit status: 0 success, 1 the operation reported failure, 2 a usage error. A platform client's
// failure prints "error <code>". A command is one row of kCommands.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <glib-unix.h>
#include <gio/gio.h>
#include <glib.h>

#include "nimbos/keyrouter.h"
#include "nimbos/power.h"
#include "nimbos/sound.h"
#include "nimbos/usb.h"

#include "AudioControlMgr.h"
#include "HadrixUtil.h"
#include "PulseAudioHandler.h"
#include "SoundManagerHandler.h"
#include "UniqueHandle.h"
#include "UsbMixer.h"

namespace {

using Args = std::vector<std::string>;
using Ints = std::vector<int>;

constexpr int kUsageError = 2;

int ExitStatus(bool ok)
{
    return ok ? 0 : 1;
}

int ClientResult(int code)
{
    if (code != 0)
        printf("error %d\n", code);
    return ExitStatus(code == 0);
}

int PrintRoute(int result, const sound_tv_output_route_e *route)
{
    if (result == 0)
        printf("route %d\n", static_cast<int>(*route));
    return ClientResult(result);
}

int Print(int value)
{
    printf("%d\n", value);
    return 0;
}

// Runs `undo` when it goes out of scope.
class OnExit {
public:
    explicit OnExit(void (*undo)()) : m_undo(undo) {}
    ~OnExit() { m_undo(); }
    OnExit(const OnExit &) = delete;
    OnExit &operator=(const OnExit &) = delete;

private:
    void (*m_undo)();
};

bool ParseInt(const std::string &text, int &value)
{
    char *end = nullptr;
    long number = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || number != static_cast<int>(number))
        return false;
    value = static_cast<int>(number);
    return true;
}

template <typename T> T *The()
{
    return CSingleton<T>::GetInstance();
}

using Pulse = CPulseAudioHandler;
using SoundHandler = CSoundManagerHandler;
using AudioMgr = CAudioControlMgr;

sound_tv_output_route_e Route(int number)
{
    return static_cast<sound_tv_output_route_e>(number);
}

// Runs one of the adapter's getters; only its result counts.
template <typename T> int AudioMgrGet(bool (AudioMgr::*get)(T *))
{
    T value{};
    return ExitStatus((The<AudioMgr>()->*get)(&value));
}

// Where a callback runs: on the main loop of the thread that registered it, or elsewhere.
struct Watch {
    const char *label;
    GThread *thread = g_thread_self();
};

const char *Where(const Watch &watch)
{
    bool onLoop = g_thread_self() == watch.thread && g_main_context_is_owner(g_main_context_default());
    return onLoop ? "on-loop" : "off-loop";
}

gboolean QuitLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_CONTINUE;
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
int RunLoopFor(int seconds)
{
    if (!SyncWithBus())
        return ExitStatus(false);
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    guint timeout = g_timeout_add_seconds(static_cast<guint>(seconds), QuitLoop, loop);
    guint terminate = g_unix_signal_add(SIGTERM, QuitLoop, loop);
    printf("ready\n");
    g_main_loop_run(loop);
    g_source_remove(timeout);
    g_source_remove(terminate);
    return 0;
}

int LaunchApp(const Ints &, const Args &args)
{
    if (args.size() % 2 != 0)
        return kUsageError;
    ExtraData extraData;
    for (size_t i = 0; i < args.size(); i += 2)
        extraData.emplace_back(args[i], args[i + 1]);
    return ExitStatus(CUsbServiceUtil::LaunchApp(extraData));
}

// One tab-separated line: [action,] devpath, class, number, vendor id, product id, product,
// manufacturer, devname.
void PrintUsbDevice(const char *action, usb_device_s *device)
{
    printf("%s%s%s\t%d\t%d\t%04x\t%04x\t%s\t%s\t%s\n", action, *action ? "\t" : "",
           usb_device_get_devpath(device), usb_device_get_class(device), usb_device_get_number(device),
           usb_device_get_vendor_id(device), usb_device_get_product_id(device), usb_device_get_product(device),
           usb_device_get_manufacturer(device), usb_device_get_devname(device));
}

// Fails when the walk and the list's count disagree.
int UsbList(const Ints &, const Args &)
{
    if (usb_device_init() != USB_DEVICE_ERROR_NONE)
        return ExitStatus(false);
    OnExit fini([] { usb_device_fini(); });
    usb_device_list_s *raw = nullptr;
    if (usb_device_get_device_list(&raw) != USB_DEVICE_ERROR_NONE)
        return ExitStatus(false);
    UniqueHandle<usb_device_list_s, usb_device_free_device_list> list(raw);
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
    UniqueHandle<usb_device_s, free_usb_device_h> owned(device);
    PrintUsbDevice(action, device);
}

// One line per hot-plug callback.
int UsbMonitor(const Ints &n, const Args &)
{
    if (usb_device_init() != USB_DEVICE_ERROR_NONE)
        return ExitStatus(false);
    OnExit fini([] { usb_device_fini(); });
    if (usb_set_connected_cb(OnUsbConnected, nullptr) != USB_DEVICE_ERROR_NONE)
        return ExitStatus(false);
    int status = RunLoopFor(n[0]);
    return usb_unset_connected_cb() == USB_DEVICE_ERROR_NONE ? status : ExitStatus(false);
}

// Two "Start" requests back to back on the worker, then waits for the last one to end.
int PulseAsyncTwice(const Ints &n, const Args &)
{
    bool ok = The<Pulse>()->SendSignalToPulseAudioAsync(true, n[0]);
    ok = The<Pulse>()->SendSignalToPulseAudioAsync(true, n[1]) && ok;
    The<Pulse>()->StopSendSignalToPulseAudio();
    return ExitStatus(ok);
}

// "<label> speaker-changed|multiview-changed ..." per delivery; each callback unsets itself after
// its first one.
void OnSpeakerChanged(sound_tv_output_route_e route, void *data)
{
    const auto *watch = static_cast<const Watch *>(data);
    printf("%s speaker-changed %d %s\n", watch->label, static_cast<int>(route), Where(*watch));
    sound_manager_unset_speaker_changed_cb();
}

void OnMultiviewSpeakerChanged(sound_tv_output_route_e route, int zone, void *data)
{
    const auto *watch = static_cast<const Watch *>(data);
    printf("%s multiview-changed %d zone %d %s\n", watch->label, static_cast<int>(route), zone, Where(*watch));
    sound_manager_unset_multiview_speaker_selection_changed_cb();
}

// Registers a first pair of callbacks ("replaced"), then the pair that replaces it ("sound").
int SoundWatch(const Ints &n, const Args &)
{
    Watch replaced{"replaced"};
    Watch current{"sound"};
    for (Watch *watch : {&replaced, &current}) {
        int result = sound_manager_set_speaker_changed_cb(OnSpeakerChanged, watch);
        if (result == 0)
            result = sound_manager_set_multiview_speaker_selection_changed_cb(OnMultiviewSpeakerChanged, watch);
        if (result != 0)
            return ClientResult(result);
    }
    return RunLoopFor(n[0]);
}

// The witness: a callback that stays subscribed, its lines show that a change has been delivered.
void OnStateWitnessed(_device_power_state_info *info, void *data)
{
    const auto *watch = static_cast<const Watch *>(data);
    printf("%s state-changed %d %d %s\n", watch->label, info->previous, info->current, Where(*watch));
}

void OnStateChanged(_device_power_state_info *info, void *data)
{
    OnStateWitnessed(info, data);
    device_power_unsubscribe_state_changed_event(OnStateChanged);
}

// Subscribes a witness, then one callback twice, the second subscription replacing the user data
// ("power"); that callback unsubscribes after its first change.
int PowerWatch(const Ints &n, const Args &)
{
    Watch replaced{"replaced"};
    Watch current{"power"};
    Watch witness{"witness"};
    int result = device_power_subscribe_state_changed_event(OnStateWitnessed, &witness);
    for (Watch *watch : {&replaced, &current})
        if (result == 0)
            result = device_power_subscribe_state_changed_event(OnStateChanged, watch);
    return result == 0 ? RunLoopFor(n[0]) : ClientResult(result);
}

int PowerGet(const Ints &, const Args &)
{
    int state = device_power_get_state();
    if (state >= 0)
        printf("state %d\n", state);
    return ClientResult(state < 0 ? state : 0);
}

int KeyRouterConnect(const Ints &, const Args &)
{
    int result = keyrouter_connect();
    if (result == KEYROUTER_ERROR_NONE)
        keyrouter_disconnect();
    return ClientResult(result);
}

int Timed(const Ints &, const Args &args);

struct Command {
    const char *name;
    const char *usage;
    size_t ints; // leading integer arguments, parsed into the Ints
    int texts;   // the text arguments after them: that many, or -k for k or more
    int (*run)(const Ints &n, const Args &texts);
};

// Commands watching for events take SECONDS first: they print "ready" once listening, then run
// until SECONDS pass or SIGTERM comes.
const Command kCommands[] = {
    {"launch-app", "KEY VALUE [KEY VALUE...]", 0, -2, LaunchApp},
    {"set-max-volume", "CARD (prints the result code)", 1, 0,
     [](const Ints &n, const Args &) { return Print(CUsbMixer::SetMaxVolume(n[0])); }},
    {"usb-list", "", 0, 0, UsbList},
    {"usb-monitor", "SECONDS", 1, 0, UsbMonitor},
    {"pulse-start", "CARD", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<Pulse>()->SendSignalToPulseAudio(true, n[0])); }},
    {"pulse-stop", "CARD", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<Pulse>()->SendSignalToPulseAudio(false, n[0])); }},
    {"pulse-async-twice", "CARD1 CARD2", 2, 0, PulseAsyncTwice},
    // The service's adapters of the sound manager and audio control.
    {"handler-route-get", "", 0, 0,
     [](const Ints &, const Args &) { return Print(The<SoundHandler>()->GetSpeakerSelection()); }},
    {"handler-route-set", "ROUTE", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<SoundHandler>()->SetSpeakerSelection(Route(n[0]))); }},
    {"handler-mute-gain", "GAIN", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<SoundHandler>()->ApplyMuteGain(n[0])); }},
    {"audio-mgr-get-gain", "", 0, 0,
     [](const Ints &, const Args &) { return AudioMgrGet(&AudioMgr::GetUsbHeadsetOutGain); }},
    {"audio-mgr-get-delay", "", 0, 0,
     [](const Ints &, const Args &) { return AudioMgrGet(&AudioMgr::GetUsbHeadsetOutDelay); }},
    {"audio-mgr-get-mute", "", 0, 0,
     [](const Ints &, const Args &) { return AudioMgrGet(&AudioMgr::GetUsbHeadsetMuteStatus); }},
    {"audio-mgr-set-gain", "GAIN", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<AudioMgr>()->SetUsbHeadsetOutGain(n[0])); }},
    {"audio-mgr-set-delay", "DELAY", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<AudioMgr>()->SetUsbHeadSetOutDelay(n[0])); }},
    {"audio-mgr-set-mute", "0|1", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<AudioMgr>()->SetUsbHeadsetMuteStatus(n[0] != 0)); }},
    // The host platform's clients.
    {"route-get", "", 0, 0,
     [](const Ints &, const Args &) {
         sound_tv_output_route_e route = SOUND_TV_OUTPUT_DEFAULT;
         return PrintRoute(sound_manager_get_speaker_selection(&route), &route);
     }},
    {"route-set", "ROUTE", 1, 0,
     [](const Ints &n, const Args &) { return ClientResult(sound_manager_set_speaker_selection(Route(n[0]))); }},
    {"zone-route-get", "ZONE", 1, 0,
     [](const Ints &n, const Args &) {
         sound_tv_output_route_e route = SOUND_TV_OUTPUT_DEFAULT;
         return PrintRoute(sound_manager_get_multiview_speaker_selection_with_zone_id(&route, n[0]), &route);
     }},
    {"zone-route-set", "ROUTE ZONE", 2, 0,
     [](const Ints &n, const Args &) {
         return ClientResult(sound_manager_set_multiview_speaker_selection_with_zone_id(Route(n[0]), n[1]));
     }},
    {"sound-watch", "SECONDS", 1, 0, SoundWatch},
    {"power-get", "", 0, 0, PowerGet},
    {"power-watch", "SECONDS", 1, 0, PowerWatch},
    {"key-router-connect", "", 0, 0, KeyRouterConnect},
    // Runs a command once the bus connection is set up and prints "took <ms> ms": the time of
    // the command's own calls, without the process's start.
    {"timed", "COMMAND [ARGS...]", 0, -1, Timed},
};

// A usage error, or the command's status.
int Run(const char *name, const Args &args)
{
    for (const Command &command : kCommands) {
        if (strcmp(name, command.name) != 0)
            continue;
        Ints n(command.ints);
        size_t texts = static_cast<size_t>(std::abs(command.texts));
        bool usable = command.texts < 0 ? args.size() >= command.ints + texts : args.size() == command.ints + texts;
        for (size_t i = 0; usable && i < command.ints; ++i)
            usable = ParseInt(args[i], n[i]);
        int status = usable ? command.run(n, Args(args.begin() + command.ints, args.end())) : kUsageError;
        if (status == kUsageError)
            fprintf(stderr, "usage: hadrix-probe %s %s\n", command.name, command.usage);
        return status;
    }
    fprintf(stderr, "hadrix-probe: unknown command '%s'\n", name);
    return kUsageError;
}

int Timed(const Ints &, const Args &args)
{
    if (args[0] == "timed")
        return kUsageError;
    if (!SyncWithBus())
        return ExitStatus(false);
    gint64 start = g_get_monotonic_time();
    int status = Run(args[0].c_str(), Args(args.begin() + 1, args.end()));
    printf("took %" G_GINT64_FORMAT " ms\n", (g_get_monotonic_time() - start) / 1000);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    // Tests read the lines of watching commands as they come.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc >= 2)
        return Run(argv[1], Args(argv + 2, argv + argc));
    fprintf(stderr, "usage: hadrix-probe <command> [args...]\ncommands:\n");
    for (const Command &command : kCommands)
        fprintf(stderr, "  %s %s\n", command.name, command.usage);
    return kUsageError;
}
