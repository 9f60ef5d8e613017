// The contract suites' driver for nimbos-host: the real world the host implementation lives in.
// The platform services are mock peers on the binary's private system bus, doing what the
// simulated TV's services do (tools/tvsim/templates/); USB sound cards and gamepads live in a
// umockdev testbed (the binary runs under umockdev-wrapper); settings are written by the
// hadrix-settings tool, another process; system information is the key file; the watchdog
// listens on a NOTIFY_SOCKET datagram socket; the log is standard error, captured.
#include "ContractTest.h"
#include "MockService.h"

#include <umockdev.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "UniqueFd.h"

namespace contract {
namespace {

using hadrix::test::Hold;
using hadrix::test::MockService;
using hadrix::test::VariantRef;
using Reply = MockService::Reply;

constexpr const char *kSoundManagerXml = R"(<node><interface name='org.nimbos.SoundManager'>
  <method name='GetSpeakerSelection'><arg type='i' direction='out'/></method>
  <method name='SetSpeakerSelection'><arg type='i' direction='in'/></method>
  <method name='SetMuteGain'><arg type='i' direction='in'/><arg type='i' direction='in'/></method>
  <method name='ApplyUnmuteFadeIn'><arg type='i' direction='in'/></method>
  <method name='GetMultiviewSpeakerSelection'><arg type='i' direction='in'/><arg type='i' direction='out'/></method>
  <method name='SetMultiviewSpeakerSelection'><arg type='i' direction='in'/><arg type='i' direction='in'/></method>
  <signal name='SpeakerChanged'><arg type='i'/></signal>
  <signal name='MultiviewSpeakerChanged'><arg type='i'/><arg type='i'/></signal>
</interface></node>)";

constexpr const char *kAudioControlXml = R"(<node><interface name='org.nimbos.AudioControl'>
  <method name='GetUsbOutMute'><arg type='b' direction='out'/></method>
  <method name='SetUsbOutMute'><arg type='b' direction='in'/></method>
  <method name='GetUsbOutGain'><arg type='u' direction='out'/></method>
  <method name='SetUsbOutGain'><arg type='u' direction='in'/></method>
  <method name='GetUsbOutDelay'><arg type='u' direction='out'/></method>
  <method name='SetUsbOutDelay'><arg type='u' direction='in'/></method>
</interface></node>)";

constexpr const char *kDevicePowerXml = R"(<node><interface name='org.nimbos.DevicePower'>
  <method name='GetState'><arg type='i' direction='out'/></method>
  <signal name='StateChanged'><arg type='i'/><arg type='i'/></signal>
</interface></node>)";

constexpr const char *kResourceCenterXml = R"(<node><interface name='org.nimbos.ResourceCenter'>
  <method name='GetZones'><arg type='i' direction='in'/><arg type='ai' direction='out'/></method>
</interface></node>)";

constexpr const char *kKeyRouterXml = R"(<node><interface name='org.nimbos.KeyRouter'>
  <method name='ResetKeyGrabConfig'><arg type='i' direction='in'/></method>
  <method name='AddKey'><arg type='i' direction='in'/><arg type='s' direction='in'/><arg type='i' direction='in'/></method>
  <method name='SetGrabbedKeys'><arg type='i' direction='in'/></method>
  <method name='UnsetGrabbedKeys'><arg type='i' direction='in'/></method>
  <method name='SetSpecialKeyMode'><arg type='i' direction='in'/><arg type='i' direction='in'/><arg type='s' direction='in'/></method>
  <signal name='KeyDown'><arg type='s'/><arg type='s'/></signal>
  <signal name='KeyUp'><arg type='s'/><arg type='s'/></signal>
</interface></node>)";

constexpr const char *kNotificationsXml = R"(<node><interface name='org.freedesktop.Notifications'>
  <method name='Notify'>
    <arg type='s' direction='in'/><arg type='u' direction='in'/><arg type='s' direction='in'/>
    <arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='as' direction='in'/>
    <arg type='a{sv}' direction='in'/><arg type='i' direction='in'/><arg type='u' direction='out'/>
  </method>
  <method name='CloseNotification'><arg type='u' direction='in'/></method>
  <signal name='NotificationClosed'><arg type='u'/><arg type='u'/></signal>
</interface></node>)";

constexpr const char *kAppControlXml = R"(<node><interface name='org.nimbos.AppControl'>
  <method name='Launch'><arg type='s' direction='in'/><arg type='a(ss)' direction='in'/></method>
</interface></node>)";

constexpr const char *kServiceLoopName = "org.nimbos.hadrix";
// The freedesktop reason of NotificationClosed for a notification closed by CloseNotification.
constexpr guint32 kClosedByCall = 3;
constexpr int kDefaultRoute = 7;

std::string BusNameOf(Service service)
{
    switch (service) {
    case Service::SoundManager: return "org.nimbos.SoundManager";
    case Service::AudioControl: return "org.nimbos.AudioControl";
    case Service::DevicePower: return "org.nimbos.DevicePower";
    case Service::ResourceCenter: return "org.nimbos.ResourceCenter";
    case Service::KeyRouter: return "org.nimbos.KeyRouter";
    case Service::Notifications: return "org.freedesktop.Notifications";
    }
    return "";
}

std::string ObjectPathOf(const std::string &busName)
{
    std::string path = "/" + busName;
    for (char &c : path)
        if (c == '.')
            c = '/';
    return path;
}

const char *XmlOf(Service service)
{
    switch (service) {
    case Service::SoundManager: return kSoundManagerXml;
    case Service::AudioControl: return kAudioControlXml;
    case Service::DevicePower: return kDevicePowerXml;
    case Service::ResourceCenter: return kResourceCenterXml;
    case Service::KeyRouter: return kKeyRouterXml;
    case Service::Notifications: return kNotificationsXml;
    }
    return "";
}

// "(3, 40)" for the tuple (3, 40), "(1)" for (1,).
std::string ArgumentText(GVariant *tuple)
{
    std::string text;
    for (gsize i = 0; tuple && i < g_variant_n_children(tuple); ++i) {
        g_autoptr(GVariant) child = g_variant_get_child_value(tuple, i);
        g_autofree gchar *printed = g_variant_print(child, FALSE);
        text += (i ? ", " : "") + std::string(printed);
    }
    return "(" + text + ")";
}

int PriorityOf(char letter)
{
    const std::string letters = "DIWEF";
    const size_t at = letters.find(letter);
    return at == std::string::npos ? -1 : 3 + static_cast<int>(at);
}

void RemoveTree(const std::string &dir)
{
    if (!dir.empty() && system(("rm -rf '" + dir + "'").c_str()) != 0)
        ADD_FAILURE() << "could not remove " << dir;
}

// Runs the settings tool, a process of its own, on the test's settings store.
void RunSettingsTool(const std::vector<std::string> &args)
{
    std::vector<char *> argv{const_cast<char *>(HADRIX_SETTINGS_TOOL)};
    for (const std::string &arg : args)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    g_autofree gchar *errors = nullptr;
    gint status = 0;
    g_autoptr(GError) error = nullptr;
    ASSERT_TRUE(g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, nullptr, &errors,
                             &status, &error))
        << error->message;
    EXPECT_TRUE(g_spawn_check_wait_status(status, nullptr)) << "hadrix-settings " << args[0] << ": " << errors;
}

// What the mock services hold, as their python counterparts do.
struct World {
    int route = kDefaultRoute;
    std::map<int, int> zoneRoutes;
    bool mute = false;
    guint32 gain = 0;
    guint32 delay = 0;
    int powerState = 0;
    std::vector<int> zones;
    std::map<int, std::set<std::string>> staged;
    std::map<int, std::set<std::string>> grabbed;
    std::map<std::pair<int, std::string>, int> special;
    guint32 nextNotification = 1;
    std::vector<Popup> onScreen;
    std::vector<Launch> launches;
};

Popup PopupOf(GVariant *arguments, guint32 id)
{
    const char *title = nullptr;
    const char *content = nullptr;
    g_autoptr(GVariant) hints = nullptr;
    gint32 expireMs = 0;
    g_variant_get(arguments, "(&su&s&s&s^a&s@a{sv}i)", nullptr, nullptr, nullptr, &title, &content, nullptr, &hints,
                  &expireMs);
    Popup popup;
    popup.id = id;
    popup.title = title;
    popup.content = content;
    const char *image = nullptr;
    gint32 number = 0;
    gboolean flag = FALSE;
    if (g_variant_lookup(hints, "image-path", "&s", &image))
        popup.image = image;
    if (g_variant_lookup(hints, "x-nimbos-layout", "i", &number))
        popup.layout = number;
    if (g_variant_lookup(hints, "x-nimbos-display-applist", "i", &number))
        popup.displayApplist = number;
    if (g_variant_lookup(hints, "resident", "b", &flag))
        popup.autoRemove = !flag;
    if (expireMs >= 0)
        popup.hideTimeoutSeconds = expireMs / 1000;
    return popup;
}

class HostDriver final : public PlatformDriver {
public:
    // Before any case: the bus, the testbed, the watchdog's socket.
    HostDriver()
    {
        setenv("HADRIX_LOG_LEVEL", "debug", 1);
        m_bus.SetUp();
        m_testbed.reset(umockdev_testbed_new());
        OpenNotifySocket();
    }

    // The peers leave the bus before it goes.
    ~HostDriver() override
    {
        m_apps.clear();
        m_services.clear();
        m_bus.TearDown();
        if (!m_notifyPath.empty())
            unlink(m_notifyPath.c_str());
    }

    void SetUp() override
    {
        char pattern[] = "/tmp/hadrix-contract-XXXXXX";
        m_root = g_mkdtemp(pattern);
        SetRoot(m_root);
        setenv("HADRIX_SETTINGS_DIR", (m_root + "/var/lib/nimbos/settings").c_str(), 1);
        setenv("HADRIX_RUNTIME_SETTINGS_DIR", (m_root + "/run/nimbos/settings").c_str(), 1);
        {
            std::lock_guard<std::mutex> lock(m_worldLock);
            m_world = World();
        }
        for (Service service : {Service::SoundManager, Service::AudioControl, Service::DevicePower,
                                Service::ResourceCenter, Service::KeyRouter, Service::Notifications})
            SetAvailability(service, Availability::Running);
        for (auto &mock : m_services)
            mock.second->ClearCalls();
        m_watchdog = WatchdogView();
        DrainNotifySocket();
        m_model.reset();
        m_features.clear();
    }

    void TearDown() override
    {
        if (m_launcher.joinable())
            m_launcher.join();
        m_apps.clear();
        for (const std::string &syspath : m_plugged)
            Unplug(syspath);
        m_plugged.clear();
        if (m_capturedLog)
            StopLogCapture();
        RemoveTree(m_root);
        for (const char *name : {"HADRIX_ROOT", "HADRIX_SETTINGS_DIR", "HADRIX_RUNTIME_SETTINGS_DIR"})
            unsetenv(name);
    }

    void SetAvailability(Service service, Availability availability) override
    {
        std::unique_ptr<MockService> &mock = m_services[service];
        if (availability == Availability::Missing) {
            mock.reset();
            return;
        }
        if (!mock)
            mock = StartService(service);
        mock->SetSilent(availability == Availability::Silent);
    }

    std::vector<std::string> Requests(Service service) override
    {
        static const std::set<std::string> requests = {"SetMuteGain", "ApplyUnmuteFadeIn", "GetZones"};
        std::vector<std::string> asked;
        if (m_services[service])
            for (const MockService::Call &call : m_services[service]->Calls())
                if (requests.count(call.method))
                    asked.push_back(call.method + ArgumentText(call.arguments.get()));
        return asked;
    }

    void StartLogCapture() override
    {
        fflush(stderr);
        m_savedStderr = UniqueFd(dup(STDERR_FILENO));
        char pattern[] = "/tmp/hadrix-contract-log-XXXXXX";
        m_capturedLog = UniqueFd(mkstemp(pattern));
        unlink(pattern);
        ASSERT_TRUE(m_savedStderr && m_capturedLog);
        dup2(m_capturedLog.get(), STDERR_FILENO);
    }

    std::vector<LogLine> StopLogCapture() override
    {
        fflush(stderr);
        dup2(m_savedStderr.get(), STDERR_FILENO);
        m_savedStderr.reset();
        std::string text;
        char buffer[4096];
        ssize_t n;
        for (off_t at = 0; (n = pread(m_capturedLog.get(), buffer, sizeof buffer, at)) > 0; at += n)
            text.append(buffer, static_cast<size_t>(n));
        m_capturedLog.reset();
        // "HH:MM:SS.mmm P/tag(pid:tid): text", the host log's line.
        static const std::regex line(R"(\d\d:\d\d:\d\d\.\d{3} ([DIWEF])/([^(]*)\(\d+:\d+\): (.*))");
        std::vector<LogLine> lines;
        std::istringstream in(text);
        std::smatch match;
        for (std::string row; std::getline(in, row);)
            if (std::regex_match(row, match, line))
                lines.push_back(LogLine{PriorityOf(match[1].str()[0]), match[2], match[3]});
        return lines;
    }

    void SetRoot(const std::string &dir) override { setenv("HADRIX_ROOT", dir.c_str(), 1); }

    void WriteSetting(const std::string &key, const std::string &type, const std::string &value) override
    {
        RunSettingsTool({"set", key, type, value});
    }

    void RemoveSetting(const std::string &key) override { RunSettingsTool({"unset", key}); }

    void SetApp(const std::string &appId, Availability availability) override
    {
        std::unique_ptr<MockService> &app = m_apps[appId];
        app.reset();
        if (availability == Availability::Missing)
            return;
        app = std::make_unique<MockService>(appId, "/org/nimbos/AppControl", kAppControlXml);
        app->SetSilent(availability == Availability::Silent);
        app->Handle("Launch", [this, appId](GVariant *arguments) {
            const char *operation = nullptr;
            g_autoptr(GVariantIter) extra = nullptr;
            g_variant_get(arguments, "(&sa(ss))", &operation, &extra);
            Launch launch{appId, operation, {}};
            const char *key = nullptr;
            const char *value = nullptr;
            while (g_variant_iter_next(extra, "(&s&s)", &key, &value))
                launch.extraData.emplace_back(key, value);
            std::lock_guard<std::mutex> lock(m_worldLock);
            m_world.launches.push_back(launch);
            return Reply::Value(nullptr);
        });
    }

    std::vector<Launch> Launches() override
    {
        std::lock_guard<std::mutex> lock(m_worldLock);
        return m_world.launches;
    }

    // From a thread of its own: the service loop owns its name only once it runs.
    void SendLaunchRequest(const std::string &operation, const ExtraData &extraData) override
    {
        m_launcher = std::thread([operation, extraData] {
            hadrix::test::ConnectionRef bus = hadrix::test::NewSystemBusConnection();
            ASSERT_TRUE(bus);
            ASSERT_TRUE(WaitForOwner(bus.get(), kServiceLoopName));
            GVariantBuilder extra;
            g_variant_builder_init(&extra, G_VARIANT_TYPE("a(ss)"));
            for (const auto &[key, value] : extraData)
                g_variant_builder_add(&extra, "(ss)", key.c_str(), value.c_str());
            g_autoptr(GError) error = nullptr;
            g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
                bus.get(), kServiceLoopName, "/org/nimbos/AppControl", "org.nimbos.AppControl", "Launch",
                g_variant_new("(sa(ss))", operation.c_str(), &extra), nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
                &error);
            EXPECT_TRUE(reply) << "Launch failed: " << error->message;
        });
    }

    void SetModel(const std::optional<std::string> &model) override
    {
        m_model = model;
        WriteSystemInfo();
    }

    void SetFeature(const std::string &key, const std::string &value) override
    {
        m_features[key] = value;
        WriteSystemInfo();
    }

    WatchdogView Watchdog() override
    {
        DrainNotifySocket();
        return m_watchdog;
    }

    void PlugCard(const UsbCard &card, bool ready) override
    {
        const std::string usb = "/devices/platform/soc/usb1/1-" + std::to_string(card.port);
        const std::string interface = usb + "/1-" + std::to_string(card.port) + ":1.0";
        g_autofree gchar *description = g_strdup_printf(
            "P: %s\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DEVNAME=%s\n"
            "A: idVendor=%04x\nA: idProduct=%04x\nA: product=%s\n%sA: busnum=1\nA: devnum=%d\n\n"
            "P: %s\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\nA: bInterfaceClass=%02x\n\n"
            "P: %s\nE: SUBSYSTEM=sound\n%sA: number=%d\n",
            usb.c_str(), DevnameOf(card).c_str(), card.vendorId, card.productId, card.product.c_str(),
            card.manufacturer.empty() ? "" : ("A: manufacturer=" + card.manufacturer + "\n").c_str(), card.devnum,
            interface.c_str(), card.interfaceClass, DevpathOf(card).c_str(),
            ready ? "E: SOUND_INITIALIZED=1\n" : "", card.card);
        Add(description);
        m_plugged.insert("/sys" + usb);
    }

    void MakeCardReady(const UsbCard &card) override
    {
        const std::string syspath = "/sys" + DevpathOf(card);
        umockdev_testbed_set_property(m_testbed.get(), syspath.c_str(), "SOUND_INITIALIZED", "1");
        umockdev_testbed_uevent(m_testbed.get(), syspath.c_str(), "change");
    }

    void UnplugCard(const UsbCard &card) override
    {
        const std::string usb = "/sys/devices/platform/soc/usb1/1-" + std::to_string(card.port);
        Unplug(usb);
        m_plugged.erase(usb);
    }

    void ConnectGamepad(int vendorId, int productId, const std::string &name) override
    {
        // Input device numbers of two digits keep the testbed's order the order of connecting.
        const std::string syspath = "/devices/platform/soc/usb1/1-9/1-9:1.0/input/input" + std::to_string(m_nextInput++);
        g_autofree gchar *description = g_strdup_printf(
            "P: %s\nE: SUBSYSTEM=input\nE: ID_INPUT=1\nE: ID_INPUT_JOYSTICK=1\nE: ID_VENDOR_ID=%04x\n"
            "E: ID_MODEL_ID=%04x\nE: ID_MODEL=%s\nA: name=%s\n",
            syspath.c_str(), vendorId, productId, name.c_str(), name.c_str());
        Add(description);
        m_gamepads[{vendorId, productId}] = "/sys" + syspath;
        m_plugged.insert("/sys" + syspath);
    }

    void DisconnectGamepad(int vendorId, int productId) override
    {
        const std::string syspath = m_gamepads[{vendorId, productId}];
        Unplug(syspath);
        m_plugged.erase(syspath);
    }

    void SetPowerState(int state) override
    {
        std::lock_guard<std::mutex> lock(m_worldLock);
        m_world.powerState = state;
    }

    void ChangePowerState(int state) override
    {
        hadrix::test::SyncSystemBus();
        int previous = 0;
        {
            std::lock_guard<std::mutex> lock(m_worldLock);
            previous = m_world.powerState;
            m_world.powerState = state;
        }
        Emit(Service::DevicePower, "StateChanged", g_variant_new("(ii)", previous, state));
    }

    void UserPicksRoute(int route) override
    {
        hadrix::test::SyncSystemBus();
        if (SelectRoute(route))
            Emit(Service::SoundManager, "SpeakerChanged", g_variant_new("(i)", route));
    }

    void UserPicksMultiviewRoute(int route, int zone) override
    {
        hadrix::test::SyncSystemBus();
        if (SelectZoneRoute(route, zone))
            Emit(Service::SoundManager, "MultiviewSpeakerChanged", g_variant_new("(ii)", route, zone));
    }

    void SetZones(const std::vector<int> &zoneIds) override
    {
        std::lock_guard<std::mutex> lock(m_worldLock);
        m_world.zones = zoneIds;
    }

    void PressKey(const std::string &key, const std::string &deviceName) override
    {
        SendKey("KeyDown", key, deviceName);
    }

    void ReleaseKey(const std::string &key, const std::string &deviceName) override
    {
        SendKey("KeyUp", key, deviceName);
    }

    std::optional<int> SpecialKeyMode(int window, const std::string &key) override
    {
        std::lock_guard<std::mutex> lock(m_worldLock);
        auto found = m_world.special.find({window, key});
        return found == m_world.special.end() ? std::nullopt : std::optional<int>(found->second);
    }

    std::vector<Popup> OnScreen() override
    {
        std::lock_guard<std::mutex> lock(m_worldLock);
        return m_world.onScreen;
    }

    // The freedesktop reasons of NotificationClosed number the events as the header does.
    void CloseNotification(unsigned id, int eventType) override
    {
        hadrix::test::SyncSystemBus();
        if (TakeDown(id))
            Emit(Service::Notifications, "NotificationClosed", g_variant_new("(uu)", id, guint32(eventType)));
    }

private:
    static bool WaitForOwner(GDBusConnection *bus, const char *name)
    {
        const gint64 end = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
        for (;;) {
            g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
                bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
                g_variant_new("(s)", name), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
            gboolean owned = FALSE;
            if (reply)
                g_variant_get(reply, "(b)", &owned);
            if (owned)
                return true;
            if (g_get_monotonic_time() >= end)
                return false;
            g_usleep(10 * 1000); // the bus tells no one when a name gets an owner; look again soon
        }
    }

    std::unique_ptr<MockService> StartService(Service service)
    {
        const std::string name = BusNameOf(service);
        auto mock = std::make_unique<MockService>(name, ObjectPathOf(name), XmlOf(service));
        switch (service) {
        case Service::SoundManager: ServeSoundManager(*mock); break;
        case Service::AudioControl: ServeAudioControl(*mock); break;
        case Service::DevicePower: ServeDevicePower(*mock); break;
        case Service::ResourceCenter: ServeResourceCenter(*mock); break;
        case Service::KeyRouter: ServeKeyRouter(*mock); break;
        case Service::Notifications: ServeNotifications(*mock); break;
        }
        return mock;
    }

    // Replies built under the world's lock.
    template <typename Build>
    MockService::Handler Answer(Build build)
    {
        return [this, build](GVariant *arguments) {
            std::lock_guard<std::mutex> lock(m_worldLock);
            return build(m_world, arguments);
        };
    }

    void ServeSoundManager(MockService &mock)
    {
        mock.Handle("GetSpeakerSelection", Answer([](World &world, GVariant *) {
            return Reply::Value(g_variant_new("(i)", world.route));
        }));
        mock.Handle("SetSpeakerSelection", [this, &mock](GVariant *arguments) {
            gint32 route = 0;
            g_variant_get(arguments, "(i)", &route);
            if (SelectRoute(route))
                mock.Emit("org.nimbos.SoundManager", "SpeakerChanged", g_variant_new("(i)", route));
            return Reply::Value(nullptr);
        });
        mock.Handle("GetMultiviewSpeakerSelection", Answer([](World &world, GVariant *arguments) {
            gint32 zone = 0;
            g_variant_get(arguments, "(i)", &zone);
            auto found = world.zoneRoutes.find(zone);
            return Reply::Value(g_variant_new("(i)", found == world.zoneRoutes.end() ? kDefaultRoute : found->second));
        }));
        mock.Handle("SetMultiviewSpeakerSelection", [this, &mock](GVariant *arguments) {
            gint32 route = 0, zone = 0;
            g_variant_get(arguments, "(ii)", &route, &zone);
            if (SelectZoneRoute(route, zone))
                mock.Emit("org.nimbos.SoundManager", "MultiviewSpeakerChanged", g_variant_new("(ii)", route, zone));
            return Reply::Value(nullptr);
        });
    }

    void ServeAudioControl(MockService &mock)
    {
        mock.Handle("GetUsbOutMute", Answer([](World &world, GVariant *) {
            return Reply::Value(g_variant_new("(b)", world.mute));
        }));
        mock.Handle("SetUsbOutMute", Answer([](World &world, GVariant *arguments) {
            gboolean mute = FALSE;
            g_variant_get(arguments, "(b)", &mute);
            world.mute = mute;
            return Reply::Value(nullptr);
        }));
        for (auto [name, field] : {std::make_pair("Gain", &World::gain), std::make_pair("Delay", &World::delay)}) {
            mock.Handle(std::string("GetUsbOut") + name, Answer([field = field](World &world, GVariant *) {
                return Reply::Value(g_variant_new("(u)", world.*field));
            }));
            mock.Handle(std::string("SetUsbOut") + name, Answer([field = field](World &world, GVariant *arguments) {
                g_variant_get(arguments, "(u)", &(world.*field));
                return Reply::Value(nullptr);
            }));
        }
    }

    void ServeDevicePower(MockService &mock)
    {
        mock.Handle("GetState", Answer([](World &world, GVariant *) {
            return Reply::Value(g_variant_new("(i)", world.powerState));
        }));
    }

    void ServeResourceCenter(MockService &mock)
    {
        mock.Handle("GetZones", Answer([](World &world, GVariant *) {
            return Reply::Value(g_variant_new("(@ai)", g_variant_new_fixed_array(G_VARIANT_TYPE_INT32, world.zones.data(),
                                                                               world.zones.size(), sizeof(gint32))));
        }));
    }

    void ServeKeyRouter(MockService &mock)
    {
        mock.Handle("ResetKeyGrabConfig", Answer([](World &world, GVariant *arguments) {
            gint32 window = 0;
            g_variant_get(arguments, "(i)", &window);
            world.staged[window].clear();
            return Reply::Value(nullptr);
        }));
        mock.Handle("AddKey", Answer([](World &world, GVariant *arguments) {
            gint32 window = 0, mode = 0;
            const char *key = nullptr;
            g_variant_get(arguments, "(i&si)", &window, &key, &mode);
            world.staged[window].insert(key);
            return Reply::Value(nullptr);
        }));
        mock.Handle("SetGrabbedKeys", Answer([](World &world, GVariant *arguments) {
            gint32 window = 0;
            g_variant_get(arguments, "(i)", &window);
            world.grabbed[window] = world.staged[window];
            return Reply::Value(nullptr);
        }));
        mock.Handle("UnsetGrabbedKeys", Answer([](World &world, GVariant *arguments) {
            gint32 window = 0;
            g_variant_get(arguments, "(i)", &window);
            for (const std::string &key : world.staged[window])
                world.grabbed[window].erase(key);
            return Reply::Value(nullptr);
        }));
        mock.Handle("SetSpecialKeyMode", Answer([](World &world, GVariant *arguments) {
            gint32 window = 0, mode = 0;
            const char *key = nullptr;
            g_variant_get(arguments, "(ii&s)", &window, &mode, &key);
            world.special[{window, key}] = mode;
            return Reply::Value(nullptr);
        }));
    }

    void ServeNotifications(MockService &mock)
    {
        mock.Handle("Notify", Answer([](World &world, GVariant *arguments) {
            guint32 replaces = 0;
            g_variant_get_child(arguments, 1, "u", &replaces);
            auto current = std::find_if(world.onScreen.begin(), world.onScreen.end(),
                                        [replaces](const Popup &popup) { return popup.id == replaces; });
            if (current != world.onScreen.end()) {
                *current = PopupOf(arguments, replaces);
                return Reply::Value(g_variant_new("(u)", replaces));
            }
            world.onScreen.push_back(PopupOf(arguments, world.nextNotification++));
            return Reply::Value(g_variant_new("(u)", world.onScreen.back().id));
        }));
        mock.Handle("CloseNotification", [this, &mock](GVariant *arguments) {
            guint32 id = 0;
            g_variant_get(arguments, "(u)", &id);
            if (TakeDown(id))
                mock.Emit("org.freedesktop.Notifications", "NotificationClosed",
                          g_variant_new("(uu)", id, kClosedByCall));
            return Reply::Value(nullptr);
        });
    }

    bool SelectRoute(int route)
    {
        std::lock_guard<std::mutex> lock(m_worldLock);
        const bool changed = m_world.route != route;
        m_world.route = route;
        return changed;
    }

    bool SelectZoneRoute(int route, int zone)
    {
        std::lock_guard<std::mutex> lock(m_worldLock);
        auto found = m_world.zoneRoutes.find(zone);
        const bool changed = (found == m_world.zoneRoutes.end() ? kDefaultRoute : found->second) != route;
        m_world.zoneRoutes[zone] = route;
        return changed;
    }

    bool TakeDown(guint32 id)
    {
        std::lock_guard<std::mutex> lock(m_worldLock);
        auto shown = std::find_if(m_world.onScreen.begin(), m_world.onScreen.end(),
                                  [id](const Popup &popup) { return popup.id == id; });
        if (shown == m_world.onScreen.end())
            return false;
        m_world.onScreen.erase(shown);
        return true;
    }

    // The router sends key events only for keys some window grabbed.
    void SendKey(const char *signal, const std::string &key, const std::string &deviceName)
    {
        hadrix::test::SyncSystemBus();
        {
            std::lock_guard<std::mutex> lock(m_worldLock);
            bool grabbed = false;
            for (const auto &window : m_world.grabbed)
                grabbed = grabbed || window.second.count(key);
            if (!grabbed)
                return;
        }
        Emit(Service::KeyRouter, signal, g_variant_new("(ss)", key.c_str(), deviceName.c_str()));
    }

    void Emit(Service service, const char *signal, GVariant *arguments)
    {
        VariantRef held = Hold(arguments);
        if (m_services[service])
            m_services[service]->Emit(BusNameOf(service), signal, held.get());
    }

    void Add(const char *description)
    {
        g_autoptr(GError) error = nullptr;
        ASSERT_TRUE(umockdev_testbed_add_from_string(m_testbed.get(), description, &error)) << error->message;
    }

    // The device and everything below it go, each announced as removed, the deepest first.
    void Unplug(const std::string &syspath)
    {
        g_autofree gchar *root = umockdev_testbed_get_root_dir(m_testbed.get());
        std::vector<std::string> devices;
        CollectDevices(root, syspath, devices);
        // Each one on its own: removing a parent leaves its children's class and bus links behind.
        for (auto device = devices.rbegin(); device != devices.rend(); ++device) {
            umockdev_testbed_uevent(m_testbed.get(), device->c_str(), "remove");
            umockdev_testbed_remove_device(m_testbed.get(), device->c_str());
        }
    }

    // The devices at or below syspath (directories with a uevent file), parents first.
    static void CollectDevices(const std::string &root, const std::string &syspath, std::vector<std::string> &devices)
    {
        const std::string onDisk = root + syspath;
        if (g_file_test((onDisk + "/uevent").c_str(), G_FILE_TEST_EXISTS))
            devices.push_back(syspath);
        g_autoptr(GDir) dir = g_dir_open(onDisk.c_str(), 0, nullptr);
        for (const char *name; dir && (name = g_dir_read_name(dir));) {
            const std::string child = onDisk + "/" + name;
            if (g_file_test(child.c_str(), G_FILE_TEST_IS_DIR) && !g_file_test(child.c_str(), G_FILE_TEST_IS_SYMLINK))
                CollectDevices(root, syspath + "/" + name, devices);
        }
    }

    void WriteSystemInfo()
    {
        const std::string dir = m_root + "/etc/nimbos";
        g_mkdir_with_parents(dir.c_str(), 0755);
        std::ofstream file(dir + "/system-info.conf", std::ios::trunc);
        if (m_model)
            file << "[system]\nmodel=" << *m_model << "\n";
        file << "[features]\n";
        for (const auto &[key, value] : m_features)
            file << key << "=" << value << "\n";
    }

    void OpenNotifySocket()
    {
        m_notify = UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        m_notifyPath = "/tmp/hadrix-contract-notify-" + std::to_string(getpid());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        g_strlcpy(address.sun_path, m_notifyPath.c_str(), sizeof address.sun_path);
        unlink(m_notifyPath.c_str());
        if (!m_notify || bind(m_notify.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            ADD_FAILURE() << "no notify socket at " << m_notifyPath << ": " << strerror(errno);
        setenv("NOTIFY_SOCKET", m_notifyPath.c_str(), 1);
    }

    // Reads what the watchdog was told: "READY=1", "WATCHDOG_USEC=<n>", "WATCHDOG=1" lines.
    void DrainNotifySocket()
    {
        char buffer[4096];
        ssize_t n;
        while ((n = recv(m_notify.get(), buffer, sizeof buffer - 1, 0)) > 0) {
            std::istringstream message(std::string(buffer, static_cast<size_t>(n)));
            for (std::string line; std::getline(message, line);) {
                if (line == "READY=1")
                    m_watchdog.ready = true;
                else if (line == "WATCHDOG=1")
                    ++m_watchdog.beats;
                else if (line.rfind("WATCHDOG_USEC=", 0) == 0)
                    m_watchdog.periodSeconds = static_cast<int>(std::stoll(line.substr(14)) / G_USEC_PER_SEC);
            }
        }
    }

    hadrix::test::PrivateSystemBus m_bus;
    UniqueHandle<UMockdevTestbed, g_object_unref> m_testbed;
    std::set<std::string> m_plugged; // syspaths of the devices added, to remove after a case
    std::map<std::pair<int, int>, std::string> m_gamepads;
    int m_nextInput = 20;
    UniqueFd m_notify;
    std::string m_notifyPath;
    WatchdogView m_watchdog;
    std::string m_root;
    UniqueFd m_savedStderr;
    UniqueFd m_capturedLog;
    std::optional<std::string> m_model;
    std::map<std::string, std::string> m_features;
    std::mutex m_worldLock; // the mocks' handlers run on their own threads
    World m_world;
    std::map<Service, std::unique_ptr<MockService>> m_services;
    std::map<std::string, std::unique_ptr<MockService>> m_apps;
    std::thread m_launcher;
};

HostDriver *theDriver;

} // namespace

PlatformDriver &Driver()
{
    return *theDriver;
}

} // namespace contract

// The suites run under umockdev's preload, which makes libudev see the testbed: started without
// it, the binary starts itself again under umockdev-wrapper.
int main(int argc, char **argv)
{
    const char *preload = getenv("LD_PRELOAD");
    if (!preload || !strstr(preload, "libumockdev-preload")) {
        std::vector<char *> wrapped{const_cast<char *>("umockdev-wrapper")};
        wrapped.insert(wrapped.end(), argv, argv + argc);
        wrapped.push_back(nullptr);
        execvp(wrapped[0], wrapped.data());
        perror("umockdev-wrapper");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    contract::HostDriver driver;
    contract::theDriver = &driver;
    return RUN_ALL_TESTS();
}
