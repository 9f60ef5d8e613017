// What the contract suites need from the world around a platform implementation: a driver makes
// things happen as the platform's own peers would (a card plugged in, the viewer picking another
// output, another process writing a setting, a service gone quiet) and reads back what those
// peers saw. Each implementation under test brings its own driver: FakeDriver works the fake's
// control panel, HostDriver the host's real world (mock services on a private bus, a umockdev
// testbed, files, sockets). A port to a device writes a driver for the device.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace contract {

// The platform services the headers reach, and how one is doing.
enum class Service { SoundManager, AudioControl, DevicePower, ResourceCenter, KeyRouter, Notifications };
enum class Availability {
    Running,
    Missing, // not there at all
    Silent,  // there, but never answers
};

using ExtraData = std::vector<std::pair<std::string, std::string>>;

// A USB sound card on a port of the first USB bus.
struct UsbCard {
    int port = 1;
    int card = 1;   // the sound card number
    int devnum = 2; // the USB device's number on its bus
    int vendorId = 0x0b0e;
    int productId = 0x245e;
    std::string product = "Test Headset";
    std::string manufacturer = "ACME"; // "": the device reports none
    int interfaceClass = 1;
};
// What the library reports as the card's devpath and devname, on every implementation:
// "/devices/platform/soc/usb1/1-<port>/1-<port>:1.0/sound/card<card>", "/dev/bus/usb/001/<devnum>".
std::string DevpathOf(const UsbCard &card);
std::string DevnameOf(const UsbCard &card);

// A notification as the notification service shows it.
struct Popup {
    unsigned id = 0;
    std::string title;
    std::string content;
    std::string image; // the file shown, "" for none
    std::optional<int> layout;
    std::optional<int> displayApplist;
    std::optional<int> hideTimeoutSeconds; // unset: the service's default
    std::optional<bool> autoRemove;
};

// A launch request an application received.
struct Launch {
    std::string appId;
    std::string operation;
    ExtraData extraData;
    bool operator==(const Launch &other) const
    {
        return appId == other.appId && operation == other.operation && extraData == other.extraData;
    }
};

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

struct WatchdogView {
    int periodSeconds = 0; // 0: not registered
    bool ready = false;
    int beats = 0;
};

class PlatformDriver {
public:
    virtual ~PlatformDriver() = default;

    // Before each case: a platform that has just started — every service running with its
    // defaults (route 7, zone routes 7, power state 0, USB output unmuted with gain and delay 0,
    // no zones, no grabs), no card or gamepad plugged, an empty settings store, no system
    // information, a fresh installation root. After each case: everything the case left undone.
    virtual void SetUp() = 0;
    virtual void TearDown() = 0;

    virtual void SetAvailability(Service service, Availability availability) = 0;
    // What a service was asked that shows nowhere else — the sound manager's SetMuteGain and
    // ApplyUnmuteFadeIn, the resource centre's GetZones — as "Method(arg, ...)": "SetMuteGain(3, 40)".
    virtual std::vector<std::string> Requests(Service service) = 0;

    // log.h: the lines written between the two calls.
    virtual void StartLogCapture() = 0;
    virtual std::vector<LogLine> StopLogCapture() = 0;

    // paths.h: the installation root ("" none).
    virtual void SetRoot(const std::string &dir) = 0;

    // settings.h, done by another process. type is int, bool, double or string.
    virtual void WriteSetting(const std::string &key, const std::string &type, const std::string &value) = 0;
    virtual void RemoveSetting(const std::string &key) = 0;

    // app.h. An application launch requests can go to, and what the running ones received.
    virtual void SetApp(const std::string &appId, Availability availability) = 0;
    virtual std::vector<Launch> Launches() = 0;
    // Another application asks this process's service loop for a launch; it arrives once the
    // loop runs. Safe from inside the loop's callbacks.
    virtual void SendLaunchRequest(const std::string &operation, const ExtraData &extraData) = 0;

    // system_info.h
    virtual void SetModel(const std::optional<std::string> &model) = 0;
    virtual void SetFeature(const std::string &key, const std::string &value) = 0;

    // watchdog.h: what the watchdog has been told.
    virtual WatchdogView Watchdog() = 0;

    // usb.h
    virtual void PlugCard(const UsbCard &card, bool ready) = 0;
    virtual void MakeCardReady(const UsbCard &card) = 0; // its controls become ready
    virtual void UnplugCard(const UsbCard &card) = 0;

    // gamepad.h
    virtual void ConnectGamepad(int vendorId, int productId, const std::string &name) = 0;
    virtual void DisconnectGamepad(int vendorId, int productId) = 0;

    // power.h
    virtual void SetPowerState(int state) = 0;    // as it is, silently
    virtual void ChangePowerState(int state) = 0; // the device goes there

    // sound.h: the viewer picks an output on the TV.
    virtual void UserPicksRoute(int route) = 0;
    virtual void UserPicksMultiviewRoute(int route, int zone) = 0;

    // zones.h
    virtual void SetZones(const std::vector<int> &zoneIds) = 0;

    // keyrouter.h: the viewer presses or releases a key of a device ("" a device without a name).
    virtual void PressKey(const std::string &key, const std::string &deviceName) = 0;
    virtual void ReleaseKey(const std::string &key, const std::string &deviceName) = 0;
    virtual std::optional<int> SpecialKeyMode(int window, const std::string &key) = 0;

    // notification.h
    virtual std::vector<Popup> OnScreen() = 0;
    // The notification goes away (a notification_event_type_e: expired, dismissed, closed).
    virtual void CloseNotification(unsigned id, int eventType) = 0;
};

// The driver of the binary being run (set by its main).
PlatformDriver &Driver();

} // namespace contract
