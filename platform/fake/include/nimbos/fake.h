// The fake platform's control panel, for tests that run the service in-process on nimbos-fake.
//
// nimbos-fake implements every header of nimbos/ in memory, following each header's contract
// (the contract suites in tests/contract/ hold it and the host implementation to the same rules).
// A test drives it from here: it sets the world up (devices present, routes, settings, system
// information), injects what the platform delivers (hot-plug, power and route changes, key
// presses, settings written by other processes, notifications closed, launch requests), makes
// calls fail, and reads back what the service did (every call with its arguments, and typed
// state such as the route, the grabbed keys or the posted notifications).
//
// Rules that hold throughout:
// - Everything here may be called from any thread; the fake keeps its state under locks that are
//   never held while a callback of the service runs.
// - Deliveries are asynchronous, as on a real platform: an injecting call only schedules the
//   delivery as a source on the main context the callback was registered from (the thread-default
//   context of the registering thread; key events, jobs, launch requests and notification events
//   on the default context). Nothing is delivered until that context is iterated — by the
//   service's loop, or by the test with RunPending()/RunUntil() below.
// - Injected events are delivered whether the service concerned is available or not
//   (SetAvailability only changes what its calls return).
// - Reset() drops every delivery still pending, so nothing leaks from one test into the next.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace nimbos::fake {

// Everything back to the state of a platform that has just started: no callbacks, handlers or
// jobs, the USB and gamepad libraries closed with no device present, every service available
// with its defaults (route 7 everywhere, power state 0, USB output unmuted with gain and delay 0,
// no zones, no grabs, key router not connected, nothing on screen), an empty settings store, no
// system information, no watchdog registration, no calls recorded, no results injected, no log
// lines, and the installation root taken from HADRIX_ROOT (none when unset). Call it in SetUp.
void Reset();

// ---- Calls --------------------------------------------------------------------------------------

// One call of a platform function. `function` is the C name ("sound_manager_set_speaker_selection"),
// "IAudioControl::<method>" for the audio-control interface and "nimbos::Path"/"nimbos::DataRoot"
// for the C++ path functions. `args` are the input arguments in order, as text: integers in
// decimal, doubles as printed by a stream, strings as they are ("(null)" for a null string),
// bools "1"/"0", the strings of notification_set_text's argument list after its count; pointers,
// handles, out-parameters and callbacks are left out. Accessors (usb_device_get_*,
// vconf_keynode_get_*, ...) are recorded too, so a test can count how often a device is read.
// Logging (dlog_*) is not recorded here but in LogLines().
struct Call {
    std::string function;
    std::vector<std::string> args;
    bool operator==(const Call &other) const { return function == other.function && args == other.args; }
};
std::ostream &operator<<(std::ostream &out, const Call &call);

// Every call since the last Reset or ClearCalls, in the order they were made (across threads).
std::vector<Call> Calls();
// The calls of one function only.
std::vector<Call> CallsTo(const std::string &function);
void ClearCalls();

// ---- Injected results ---------------------------------------------------------------------------
// By function name as in Call::function. An injected result is returned at once and the call does
// nothing else: no state changes, no output is written, nothing is delivered or recorded as sent
// (the call itself is still recorded). A function that returns a pointer returns NULL, whatever
// the code; void functions cannot be made to fail. A "timeout" is the header's TIMED_OUT code: the
// fake never waits. An unknown function name throws std::invalid_argument.

// Every later call returns code until ClearResult or Reset.
void SetResult(const std::string &function, int code);
void ClearResult(const std::string &function);
// The next call returns code (queued: two FailNext fail two calls); it goes before SetResult.
void FailNext(const std::string &function, int code);

// ---- Platform services --------------------------------------------------------------------------
// The services the host reaches over the system bus. Missing: not running, its calls return the
// header's IO_ERROR (keyrouter_connect: KEYROUTER_ERROR_NO_ROUTER). Silent: running but never
// answering, its calls return the header's TIMED_OUT (keyrouter_connect succeeds: the router is
// there). Registering callbacks works either way, as on the host.
enum class Service { SoundManager, AudioControl, DevicePower, ResourceCenter, KeyRouter, Notifications };
enum class Availability { Running, Missing, Silent };
void SetAvailability(Service service, Availability availability);
// The application a launch request goes to (by app id). Every app id is Running until set here;
// a Missing one makes app_control_send_launch_request return APP_CONTROL_ERROR_APP_NOT_FOUND, a
// Silent one APP_CONTROL_ERROR_LAUNCH_FAILED (the reply callback still runs, with that result).
void SetAppAvailability(const std::string &appId, Availability availability);

// ---- The default main context -------------------------------------------------------------------

// Dispatches what is ready on the default main context now, without blocking, until nothing is
// left; returns the number of iterations that dispatched something.
int RunPending();
// Iterates the default main context until done() holds or realTimeoutMs of real time have passed
// (checking done() at least every 10 ms, so work finished by other threads is noticed without a
// source); then runs what is pending. Returns done().
bool RunUntil(const std::function<bool()> &done, int realTimeoutMs = 5000);

// ---- log.h --------------------------------------------------------------------------------------
// Every message is kept, whatever HADRIX_LOG_LEVEL says; with HADRIX_FAKE_LOG=1 in the environment
// each is also written to standard error, for debugging a failing test.
struct LogLine {
    int priority; // log_priority
    std::string tag;
    std::string text; // one line: a trailing newline dropped, inner ones turned into spaces
};
std::vector<LogLine> LogLines();
void ClearLog();

// ---- paths.h ------------------------------------------------------------------------------------
// The installation root put in front of absolute paths, with the host's rules (/dev, /sys and /proc
// stay as they are; relative paths unchanged). "" means none.
void SetRoot(const std::string &dir);
// Where device nodes live for an in-process test, which has no device emulation: with a directory
// set, paths under /dev resolve inside it (a test makes "<dir>/dev/snd/controlC1" to have card 1's
// control node). "" (the default after Reset) leaves /dev alone, as the host does.
void SetDeviceRoot(const std::string &dir);

// ---- settings.h ---------------------------------------------------------------------------------
// Writes and removals "by another process": the same store the service reads, and a write reaches
// the change callbacks of the key like any completed write. Keys start with "db/" or "memory/".
void SetInt(const std::string &key, int value);
void SetBool(const std::string &key, bool value);
void SetDouble(const std::string &key, double value);
void SetString(const std::string &key, const std::string &value);
// Removes the key (not announced, as on the host); false when it did not exist.
bool Unset(const std::string &key);
// The stored value when the key exists and holds that type.
std::optional<int> GetInt(const std::string &key);
std::optional<bool> GetBool(const std::string &key);
std::optional<double> GetDouble(const std::string &key);
std::optional<std::string> GetString(const std::string &key);

// ---- app.h --------------------------------------------------------------------------------------
using ExtraData = std::vector<std::pair<std::string, std::string>>;

// A launch request from another application to this service: delivered to the app_control
// callback of service_app_main on the default context, with the operation and the extra data in
// order. Requests made before the loop runs wait for it; those left when it ends are dropped.
void SendLaunchRequest(const std::string &operation, const ExtraData &extraData);
// Whether service_app_main is running its loop now.
bool ServiceLoopRunning();

// A launch request the service sent (app_control_send_launch_request) and its target accepted.
struct Launch {
    std::string appId;
    std::string operation;
    ExtraData extraData; // in order
    bool operator==(const Launch &other) const
    {
        return appId == other.appId && operation == other.operation && extraData == other.extraData;
    }
};
std::vector<Launch> Launches();

// ---- system_info.h ------------------------------------------------------------------------------
// Absent information makes the query fail with SYSTEM_INFO_ERROR_IO_ERROR, as on the host.
void SetModel(const std::optional<std::string> &model);
// A feature's value as the system information holds it; the bool query reads "true"/"false"
// ("1"/"0") and fails on anything else.
void SetFeatureString(const std::string &key, const std::string &value);
void SetFeatureBool(const std::string &key, bool value);
void RemoveFeature(const std::string &key);

// ---- watchdog.h ---------------------------------------------------------------------------------
struct Watchdog {
    int periodSeconds = 0; // 0 until registered
    bool ready = false;    // the registration took effect (the default main loop dispatched)
    int beats = 0;         // successful smart_deadlock_watchdog_notify calls
};
Watchdog WatchdogState();

// ---- usb.h --------------------------------------------------------------------------------------
// A USB sound card as the library describes it; devpath is its identity.
struct UsbDevice {
    std::string devpath;  // "/devices/platform/soc/usb1/1-1/1-1:1.0/sound/card1"
    std::string devname;  // "/dev/bus/usb/001/002"
    std::string product;
    std::string manufacturer;
    int vendorId = 0;
    int productId = 0;
    int number = 0;   // device number on the bus
    int usbClass = 1; // USB_DEVICE_CLASS_AUDIO
    bool operator==(const UsbDevice &other) const;
};

// Silently, as at boot: no event is delivered, but a card set here that a callback's user sees go
// is announced as "removed". SetPresentDevices replaces the ready cards present;
// AddPresentDevice adds one (unless its devpath is there already).
void SetPresentDevices(const std::vector<UsbDevice> &devices);
void AddPresentDevice(const UsbDevice &device);
// The card is plugged in. Ready: it is present and "added" is delivered to the hot-plug callback
// (if one is set). Not ready: nothing is seen of it until MakeReady. A devpath already present is
// not announced again.
void Plug(const UsbDevice &device, bool ready = true);
// The plugged card's controls are ready: present, and "added" delivered. False when no card of
// that devpath waits to be ready.
bool MakeReady(const std::string &devpath);
// The card goes: no longer present, and "removed" is delivered with the data it had. False when
// nothing was plugged at devpath.
bool Unplug(const std::string &devpath);
// Delivers any action text with any device to the hot-plug callback, bypassing the rules above;
// the present list is left alone.
void DeliverHotplug(const UsbDevice &device, const std::string &action);
std::vector<UsbDevice> PresentDevices();

// ---- gamepad.h ----------------------------------------------------------------------------------
struct Gamepad {
    std::string uid;
    std::string name;
    bool operator==(const Gamepad &other) const { return uid == other.uid && name == other.name; }
};
// The uid the library forms from USB ids: "VID_054C PID_09CC".
std::string GamepadUid(int vendorId, int productId);
// Connected gamepads take the lowest indexes in the order they came; the connection callback
// hears GAMEPAD_EVENT_CONNECTED / GAMEPAD_EVENT_DISCONNECTED with the gamepad's uid and name.
void ConnectGamepad(const std::string &uid, const std::string &name);
// Disconnects the first gamepad with that uid; false when none is connected.
bool DisconnectGamepad(const std::string &uid);
std::vector<Gamepad> ConnectedGamepads();

// ---- power.h ------------------------------------------------------------------------------------
int PowerState();
// Silently: no event.
void SetPowerState(int state);
// The device changes state: current becomes the state, and every subscribed callback hears
// {previous, current}.
void ChangePowerState(int previous, int current);

// ---- sound.h ------------------------------------------------------------------------------------
int Route();
// Silently: no callback hears of it.
void SetRoute(int route);
// The sound manager changes the route on its own (the viewer picked another output): the route
// is set and the speaker-changed callback hears of it.
void AnnounceRoute(int route);
int MultiviewRoute(int zone);
void SetMultiviewRoute(int route, int zone);
void AnnounceMultiviewRoute(int route, int zone);

// ---- audio_control.h ----------------------------------------------------------------------------
struct UsbOut {
    bool mute = false;
    unsigned gain = 0;
    unsigned delay = 0;
};
UsbOut UsbOutput();
void SetUsbOutput(const UsbOut &output);

// ---- zones.h ------------------------------------------------------------------------------------
// The zone ids rc_get_zone_list answers, for every zone type.
void SetZones(const std::vector<int> &zoneIds);

// ---- keyrouter.h --------------------------------------------------------------------------------
// A window's staged keys with their grab mode, and the keys it grabbed.
std::map<std::string, int> StagedKeys(int window);
std::set<std::string> GrabbedKeys(int window);
std::optional<int> SpecialKeyMode(int window, const std::string &key);
bool KeyRouterConnected();
// The viewer presses / releases a key of a device. As the real router, it reaches the key event
// handlers only when some window grabbed the key and the process is connected; returns whether
// it was sent. deviceName "" is a device without a name (ecore_device_s.name NULL); no deviceName
// at all is an unknown device (ecore_event_key_s.device NULL). A held key is PressKey repeated.
bool PressKey(const std::string &key, const std::optional<std::string> &deviceName);
bool ReleaseKey(const std::string &key, const std::optional<std::string> &deviceName);

// ---- notification.h -----------------------------------------------------------------------------
struct Notification {
    int id = 0; // given at the first post, kept by later posts while on screen
    std::string title;
    std::string content;
    std::string image; // resolved like every platform path; "" when none was set
    std::optional<int> layout;
    std::optional<int> displayApplist;
    std::optional<int> hideTimeoutSeconds; // unset: the notification service's default
    std::optional<bool> autoRemove;
    bool withEventCallback = false; // posted with notification_post_with_event_cb
};
// Every post, in order (a notification posted again appears again, with its id).
std::vector<Notification> Posted();
// The notifications on screen now, oldest first.
std::vector<Notification> OnScreen();
// The ids notification_delete took off the screen.
std::vector<int> Deleted();
// The notification goes away by itself or by the user (event_type is a
// notification_event_type_e): off screen, and the event callback of its handle, if any, runs on
// the default context. False when it is not on screen.
bool CloseNotification(int id, int eventType);

} // namespace nimbos::fake
