// The contract suites' driver for nimbos-host: the real world the host implementation lives in.
// The platform services and the applications are the simulated TV's own, python-dbusmock
// processes of tools/tvsim/templates/ on the binary's private system bus (TemplatePeer); USB
// sound cards and gamepads live in a umockdev testbed (HostTestbed; the binary runs under
// umockdev-wrapper); settings are written by the hadrix-settings tool, another process; system
// information is the key file; the watchdog listens on a NOTIFY_SOCKET datagram socket; the log
// is standard error, captured.
#include "ContractTest.h"
#include "HostTestbed.h"
#include "TemplatePeer.h"
#include "UnderUmockdev.h"
#include "nimbos/notification.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "UniqueFd.h"

namespace contract {
namespace {

constexpr const char *kServiceLoopName = "org.nimbos.hadrix";

int PriorityOf(char letter)
{
    const std::string letters = "DIWEF";
    const size_t at = letters.find(letter);
    return at == std::string::npos ? -1 : 3 + static_cast<int>(at);
}

// The host log's lines ("HH:MM:SS.mmm P/tag(pid:tid): text") in text.
std::vector<LogLine> ParseLog(const std::string &text)
{
    static const std::regex line(R"(\d\d:\d\d:\d\d\.\d{3} ([DIWEF])/([^(]*)\(\d+:\d+\): (.*))");
    std::vector<LogLine> lines;
    std::istringstream in(text);
    std::smatch match;
    for (std::string row; std::getline(in, row);)
        if (std::regex_match(row, match, line))
            lines.push_back(LogLine{PriorityOf(match[1].str()[0]), match[2], match[3]});
    return lines;
}

std::string ReadAll(int fd)
{
    std::string text;
    char buffer[4096];
    ssize_t n;
    for (off_t at = 0; (n = pread(fd, buffer, sizeof buffer, at)) > 0; at += n)
        text.append(buffer, static_cast<size_t>(n));
    return text;
}

void RemoveTree(const std::string &dir)
{
    if (!dir.empty() && system(("rm -rf '" + dir + "'").c_str()) != 0)
        ADD_FAILURE() << "could not remove " << dir;
}

// Runs the settings tool, a process of its own, on the case's settings store.
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

struct ServiceTemplate {
    Service service;
    const char *templateName;
    const char *busName; // also its interface; the object path is the name with '/' for '.'
    std::vector<std::string> reads; // what the driver reads of it, besides its calls
};

const ServiceTemplate kServices[] = {
    {Service::SoundManager, "sound_manager", "org.nimbos.SoundManager", {}},
    {Service::AudioControl, "audio_control", "org.nimbos.AudioControl", {}},
    {Service::DevicePower, "device_power", "org.nimbos.DevicePower", {}},
    {Service::ResourceCenter, "resource_center", "org.nimbos.ResourceCenter", {}},
    {Service::KeyRouter, "key_router", "org.nimbos.KeyRouter", {"GetSpecialKeyModes"}},
    {Service::Notifications, "notifications", "org.freedesktop.Notifications", {"OnScreenDetails"}},
};

constexpr const char *kAppControlPath = "/org/nimbos/AppControl";
constexpr const char *kAppControlInterface = "org.nimbos.AppControl";

std::string ObjectPathOf(const std::string &busName)
{
    std::string path = "/" + busName;
    std::replace(path.begin(), path.end(), '.', '/');
    return path;
}

// The template's parameters for a platform that has just started: the defaults, but no zones.
GVariant *StartingParameters(Service service)
{
    GVariantBuilder parameters;
    g_variant_builder_init(&parameters, G_VARIANT_TYPE_VARDICT);
    if (service == Service::ResourceCenter)
        g_variant_builder_add(&parameters, "{sv}", "zones", g_variant_new_array(G_VARIANT_TYPE_INT32, nullptr, 0));
    return g_variant_builder_end(&parameters);
}

// The index-th argument of a recorded call (its arguments are an av), unboxed.
VariantRef ArgumentOf(GVariant *arguments, gsize index)
{
    g_autoptr(GVariant) boxed = g_variant_get_child_value(arguments, index);
    return VariantRef(g_variant_get_variant(boxed), g_variant_unref);
}

// "SetMuteGain(3, 40)" for a call of SetMuteGain with the arguments [<3>, <40>].
std::string CallText(const std::string &method, GVariant *arguments)
{
    std::string text;
    for (gsize i = 0; i < g_variant_n_children(arguments); ++i) {
        g_autofree gchar *printed = g_variant_print(ArgumentOf(arguments, i).get(), FALSE);
        text += (i ? ", " : "") + std::string(printed);
    }
    return method + "(" + text + ")";
}

// A Launch call ([<operation>, <extra data>]) as the application received it.
Launch LaunchOf(const std::string &appId, GVariant *arguments)
{
    Launch launch{appId, g_variant_get_string(ArgumentOf(arguments, 0).get(), nullptr), {}};
    const VariantRef extraData = ArgumentOf(arguments, 1);
    GVariantIter extra;
    g_variant_iter_init(&extra, extraData.get());
    const char *key = nullptr;
    const char *value = nullptr;
    while (g_variant_iter_next(&extra, "(&s&s)", &key, &value))
        launch.extraData.emplace_back(key, value);
    return launch;
}

// A notification on screen as the service keeps it: id, summary, body, hints, expire timeout.
Popup PopupOf(GVariant *shown)
{
    Popup popup;
    const char *title = nullptr;
    const char *content = nullptr;
    g_autoptr(GVariant) hints = nullptr;
    gint32 expireMs = -1;
    g_variant_get(shown, "(u&s&s@a{sv}i)", &popup.id, &title, &content, &hints, &expireMs);
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

void CallLaunch(const std::string &operation, const ExtraData &extraData)
{
    hadrix::test::ConnectionRef bus = hadrix::test::NewSystemBusConnection();
    ASSERT_TRUE(bus);
    ASSERT_TRUE(WaitForOwner(bus.get(), kServiceLoopName)) << "the service loop never owned its name";
    GVariantBuilder extra;
    g_variant_builder_init(&extra, G_VARIANT_TYPE("a(ss)"));
    for (const auto &[key, value] : extraData)
        g_variant_builder_add(&extra, "(ss)", key.c_str(), value.c_str());
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus.get(), kServiceLoopName, kAppControlPath, kAppControlInterface, "Launch",
        g_variant_new("(sa(ss))", operation.c_str(), &extra), nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    EXPECT_TRUE(reply) << "Launch failed: " << error->message;
}

class HostDriver final : public PlatformDriver {
public:
    // Before any case: the bus, the platform services on it, the testbed, the watchdog's socket.
    // The bus comes first, while the process has a single thread: starting it forks a watcher
    // process. The services start together and stay for every case, reset between them.
    HostDriver()
    {
        setenv("HADRIX_LOG_LEVEL", "debug", 1);
        m_bus.SetUp();
        m_peerBus = hadrix::test::NewSystemBusConnection();
        for (const ServiceTemplate &service : kServices) {
            m_services[service.service] = std::make_unique<TemplatePeer>(
                m_peerBus.get(), service.templateName, service.busName, service.busName,
                ObjectPathOf(service.busName), StartingParameters(service.service), service.reads);
            m_services[service.service]->Spawn();
        }
        for (auto &[service, peer] : m_services)
            peer->ServeWhenReady();
        m_testbed.emplace();
        OpenNotifySocket();
    }

    ~HostDriver() override
    {
        m_apps.clear();
        m_services.clear();
        m_peerBus.reset();
        m_bus.TearDown();
        unlink(m_notifyPath.c_str());
    }

    void SetUp() override
    {
        char pattern[] = "/tmp/hadrix-contract-XXXXXX";
        m_root = g_mkdtemp(pattern);
        SetRoot(m_root);
        setenv("HADRIX_SETTINGS_DIR", (m_root + "/var/lib/nimbos/settings").c_str(), 1);
        setenv("HADRIX_RUNTIME_SETTINGS_DIR", (m_root + "/run/nimbos/settings").c_str(), 1);
        m_apps.clear();
        for (auto &[service, peer] : m_services)
            peer->Reset();
        DrainNotifySocket();
        m_watchdog = WatchdogView();
        m_model.reset();
        m_features.clear();
    }

    void TearDown() override
    {
        if (m_launcher.joinable())
            m_launcher.join();
        m_testbed->Clear();
        if (m_capturedLog)
            StopLogCapture();
        RemoveTree(m_root);
        for (const char *name : {"HADRIX_ROOT", "HADRIX_SETTINGS_DIR", "HADRIX_RUNTIME_SETTINGS_DIR"})
            unsetenv(name);
    }

    void SetAvailability(Service service, Availability availability) override
    {
        TemplatePeer &peer = *m_services.at(service);
        switch (availability) {
        case Availability::Running: peer.Run(); break;
        case Availability::Missing: peer.Stop(); break;
        case Availability::Silent: peer.Silence(); break;
        }
    }

    std::vector<std::string> Requests(Service service) override
    {
        static const std::set<std::string> requests = {"SetMuteGain", "ApplyUnmuteFadeIn", "GetZones"};
        std::vector<std::string> asked;
        for (const auto &[method, arguments] : m_services.at(service)->Calls())
            if (requests.count(method))
                asked.push_back(CallText(method, arguments.get()));
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
        const std::string text = ReadAll(m_capturedLog.get());
        m_capturedLog.reset();
        return ParseLog(text);
    }

    void SetRoot(const std::string &dir) override { setenv("HADRIX_ROOT", dir.c_str(), 1); }

    void WriteSetting(const std::string &key, const std::string &type, const std::string &value) override
    {
        RunSettingsTool({"set", key, type, value});
    }

    void RemoveSetting(const std::string &key) override { RunSettingsTool({"unset", key}); }

    // An application is the template app under its app id, started anew each time.
    void SetApp(const std::string &appId, Availability availability) override
    {
        m_apps.erase(appId);
        if (availability == Availability::Missing)
            return;
        GVariantBuilder parameters;
        g_variant_builder_init(&parameters, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&parameters, "{sv}", "app_id", g_variant_new_string(appId.c_str()));
        auto app = std::make_unique<TemplatePeer>(m_peerBus.get(), "app", appId, kAppControlInterface,
                                                  kAppControlPath, g_variant_builder_end(&parameters));
        app->Run();
        if (availability == Availability::Silent)
            app->Silence();
        m_apps[appId] = std::move(app);
    }

    std::vector<Launch> Launches() override
    {
        std::vector<Launch> launches;
        for (auto &[appId, app] : m_apps)
            for (const auto &[method, arguments] : app->Calls())
                if (method == "Launch")
                    launches.push_back(LaunchOf(appId, arguments.get()));
        return launches;
    }

    // From a thread of its own: the service loop owns its name only once it runs.
    void SendLaunchRequest(const std::string &operation, const ExtraData &extraData) override
    {
        m_launcher = std::thread(CallLaunch, operation, extraData);
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

    void PlugCard(const UsbCard &card, bool ready) override { m_testbed->PlugCard(card, ready); }
    void MakeCardReady(const UsbCard &card) override { m_testbed->MakeCardReady(card); }
    void UnplugCard(const UsbCard &card) override { m_testbed->UnplugCard(card); }

    void ConnectGamepad(int vendorId, int productId, const std::string &name) override
    {
        m_testbed->ConnectGamepad(vendorId, productId, name);
    }

    void DisconnectGamepad(int vendorId, int productId) override { m_testbed->DisconnectGamepad(vendorId, productId); }

    // What a peer does on its own reaches the process only through the subscriptions it made
    // before: each waits until the bus has them.
    void SetPowerState(int state) override
    {
        Peer(Service::DevicePower).Call("SetState", g_variant_new("(i)", state));
    }

    void ChangePowerState(int state) override
    {
        hadrix::test::SyncSystemBus();
        Peer(Service::DevicePower).Call("ChangeState", g_variant_new("(i)", state));
    }

    void UserPicksRoute(int route) override
    {
        hadrix::test::SyncSystemBus();
        Peer(Service::SoundManager).Call("UserSetRoute", g_variant_new("(i)", route));
    }

    void UserPicksMultiviewRoute(int route, int zone) override
    {
        hadrix::test::SyncSystemBus();
        Peer(Service::SoundManager).Call("UserSetMultiviewRoute", g_variant_new("(ii)", route, zone));
    }

    void SetZones(const std::vector<int> &zoneIds) override
    {
        GVariant *zones = g_variant_new_fixed_array(G_VARIANT_TYPE_INT32, zoneIds.data(), zoneIds.size(), sizeof(int));
        Peer(Service::ResourceCenter).Call("SetZones", g_variant_new_tuple(&zones, 1));
    }

    void PressKey(const std::string &key, const std::string &deviceName) override
    {
        hadrix::test::SyncSystemBus();
        Peer(Service::KeyRouter).Call("PressKey", g_variant_new("(ss)", key.c_str(), deviceName.c_str()));
    }

    void ReleaseKey(const std::string &key, const std::string &deviceName) override
    {
        hadrix::test::SyncSystemBus();
        Peer(Service::KeyRouter).Call("ReleaseKey", g_variant_new("(ss)", key.c_str(), deviceName.c_str()));
    }

    std::optional<int> SpecialKeyMode(int window, const std::string &key) override
    {
        VariantRef modes = Peer(Service::KeyRouter).Call("GetSpecialKeyModes");
        g_autoptr(GVariantIter) all = nullptr;
        if (modes)
            g_variant_get(modes.get(), "(a(isi))", &all);
        gint32 grabber = 0, mode = 0;
        const char *name = nullptr;
        while (all && g_variant_iter_next(all, "(i&si)", &grabber, &name, &mode))
            if (grabber == window && name == key)
                return mode;
        return std::nullopt;
    }

    std::vector<Popup> OnScreen() override
    {
        std::vector<Popup> popups;
        VariantRef shown = Peer(Service::Notifications).Call("OnScreenDetails");
        if (!shown)
            return popups;
        g_autoptr(GVariant) list = g_variant_get_child_value(shown.get(), 0);
        for (gsize i = 0; i < g_variant_n_children(list); ++i) {
            g_autoptr(GVariant) popup = g_variant_get_child_value(list, i);
            popups.push_back(PopupOf(popup));
        }
        return popups;
    }

    void CloseNotification(unsigned id, int eventType) override
    {
        hadrix::test::SyncSystemBus();
        // The notification service's own reasons number the events as notification.h does.
        const char *method = eventType == NOTIFICATION_EVENT_EXPIRED     ? "Expire"
                             : eventType == NOTIFICATION_EVENT_DISMISSED ? "Dismiss"
                                                                         : "CloseNotification";
        Peer(Service::Notifications).Call(method, g_variant_new("(u)", id));
    }

private:
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
        while ((n = recv(m_notify.get(), buffer, sizeof buffer, 0)) > 0) {
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

    TemplatePeer &Peer(Service service) { return *m_services.at(service); }

    hadrix::test::PrivateSystemBus m_bus;
    hadrix::test::ConnectionRef m_peerBus; // the driver's own connection, to work the peers
    std::map<Service, std::unique_ptr<TemplatePeer>> m_services;
    std::map<std::string, std::unique_ptr<TemplatePeer>> m_apps;
    std::optional<HostTestbed> m_testbed;
    UniqueFd m_notify;
    std::string m_notifyPath;
    WatchdogView m_watchdog;
    std::string m_root;
    UniqueFd m_savedStderr;
    UniqueFd m_capturedLog;
    std::optional<std::string> m_model;
    std::map<std::string, std::string> m_features;
    std::thread m_launcher;
};

HostDriver *theDriver;

} // namespace

PlatformDriver &Driver()
{
    return *theDriver;
}

} // namespace contract

// The suites run under umockdev's preload, which shows libudev the testbed.
int main(int argc, char **argv)
{
    if (!hadrix::test::RunUnderUmockdev(argc, argv))
        return 1;
    testing::InitGoogleTest(&argc, argv);
    contract::HostDriver driver;
    contract::theDriver = &driver;
    return RUN_ALL_TESTS();
}
