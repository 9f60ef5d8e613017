// The contract suites' driver for nimbos-host: the real world the host implementation lives in.
// The platform services are mock peers on the binary's private system bus (HostPeers); USB sound
// cards and gamepads live in a umockdev testbed (HostTestbed; the binary runs under
// umockdev-wrapper); settings are written by the hadrix-settings tool, another process; system
// information is the key file; the watchdog listens on a NOTIFY_SOCKET datagram socket; the log
// is standard error, captured.
#include "ContractTest.h"
#include "HostPeers.h"
#include "HostTestbed.h"
#include "UnderUmockdev.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
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

bool HasOwner(GDBusConnection *bus, const char *name)
{
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
        g_variant_new("(s)", name), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    gboolean owned = FALSE;
    if (reply)
        g_variant_get(reply, "(b)", &owned);
    return owned;
}

// The bus tells no one when a name gets an owner: look every 10 ms, for 5 s at most.
bool WaitForOwner(GDBusConnection *bus, const char *name)
{
    const gint64 end = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while (!HasOwner(bus, name)) {
        if (g_get_monotonic_time() >= end)
            return false;
        g_usleep(10 * 1000);
    }
    return true;
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
        bus.get(), kServiceLoopName, "/org/nimbos/AppControl", "org.nimbos.AppControl", "Launch",
        g_variant_new("(sa(ss))", operation.c_str(), &extra), nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    EXPECT_TRUE(reply) << "Launch failed: " << error->message;
}

class HostDriver final : public PlatformDriver {
public:
    // Before any case: the bus, the testbed, the watchdog's socket. The bus comes first, while
    // the process has a single thread: starting it forks a watcher process.
    HostDriver()
    {
        setenv("HADRIX_LOG_LEVEL", "debug", 1);
        m_bus.SetUp();
        m_testbed.emplace();
        OpenNotifySocket();
    }

    ~HostDriver() override
    {
        m_peers.Close();
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
        m_peers.Reset();
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
        m_peers.SetAvailability(service, availability);
    }

    std::vector<std::string> Requests(Service service) override { return m_peers.Requests(service); }

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

    void SetApp(const std::string &appId, Availability availability) override { m_peers.SetApp(appId, availability); }
    std::vector<Launch> Launches() override { return m_peers.Launches(); }

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
    void SetPowerState(int state) override { m_peers.SetPowerState(state); }

    void ChangePowerState(int state) override
    {
        hadrix::test::SyncSystemBus();
        m_peers.ChangePowerState(state);
    }

    void UserPicksRoute(int route) override
    {
        hadrix::test::SyncSystemBus();
        m_peers.UserPicksRoute(route);
    }

    void UserPicksMultiviewRoute(int route, int zone) override
    {
        hadrix::test::SyncSystemBus();
        m_peers.UserPicksMultiviewRoute(route, zone);
    }

    void SetZones(const std::vector<int> &zoneIds) override { m_peers.SetZones(zoneIds); }

    void PressKey(const std::string &key, const std::string &deviceName) override
    {
        hadrix::test::SyncSystemBus();
        m_peers.SendKey("KeyDown", key, deviceName);
    }

    void ReleaseKey(const std::string &key, const std::string &deviceName) override
    {
        hadrix::test::SyncSystemBus();
        m_peers.SendKey("KeyUp", key, deviceName);
    }

    std::optional<int> SpecialKeyMode(int window, const std::string &key) override
    {
        return m_peers.SpecialKeyMode(window, key);
    }

    std::vector<Popup> OnScreen() override { return m_peers.OnScreen(); }

    void CloseNotification(unsigned id, int eventType) override
    {
        hadrix::test::SyncSystemBus();
        m_peers.CloseNotification(id, eventType);
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

    hadrix::test::PrivateSystemBus m_bus;
    HostPeers m_peers;
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
