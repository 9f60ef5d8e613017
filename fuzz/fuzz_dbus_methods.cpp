// The method calls of the client API and of the diagnostics interface with arbitrary arguments,
// through the real server: its listener thread owns its name on a private bus started here, and
// each input becomes one method call from a client connection. Every call must be answered (a
// reply or an error), and the answers must have their documented form; GLib criticals are fatal.
//
// Input: byte 0 picks the method; byte 1 whether the call goes to the method's own object path
// (bit 0 clear) or to the path picked by bits 5-6, and whether the arguments have the method's
// own signature (bit 1 clear) or the one picked by bits 2-4; the rest is the arguments'
// serialised GVariant.
#include <gio/gio.h>
#include <signal.h>
#include <sys/prctl.h>

#include <cstring>
#include <string>

#include "DecisionLog.h"
#include "FuzzEnvironment.h"
#include "HadrixBusNames.h"
#include "HadrixDbusAPIServer.h"
#include "HadrixDeviceListInfo.h"

namespace {

using namespace hadrix::api;
namespace diagnostics = hadrix::diagnostics;

constexpr const char *kPaths[] = {kObjectPath, kSignalPath, diagnostics::kObjectPath};
constexpr int kCallTimeoutMs = 20000;

struct Method {
    const char *interface;
    const char *path;
    const char *name;
    const char *signature;
};
constexpr Method kMethods[] = {
    {kInterface, kObjectPath, kCheckDbusConnection, "(s)"},
    {kInterface, kObjectPath, kSubscribe, "(s)"},
    {kInterface, kObjectPath, kUnsubscribe, "(s)"},
    {kInterface, kObjectPath, kGetDeviceListInfo, "(i)"},
    {kInterface, kObjectPath, "NoSuchMethod", "(s)"},
    {diagnostics::kInterface, diagnostics::kObjectPath, diagnostics::kGetVerdicts, "()"},
    {diagnostics::kInterface, diagnostics::kObjectPath, diagnostics::kGetHistory, "(u)"},
};
// The decisions the diagnostics answer with.
constexpr size_t kDecisions = 3;
constexpr const char *kOtherSignatures[] = {"()", "(s)", "(i)", "(ay)", "(ss)", "(u)", "(a{sv})", "(si)"};

// The bus ends with this process, however that ends (so it must be its direct child: no
// intermediate process, hence G_SPAWN_DO_NOT_REAP_CHILD). It must not end before: the server's
// bus connection ends the process when the bus goes away.
void DieWithParent(gpointer)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
}

// Starts a private bus (a session bus: anyone may own and call anything) and returns its address.
std::string StartBus()
{
    const gchar *argv[] = {"dbus-daemon", "--session", "--nofork", "--print-address=1", nullptr};
    g_autoptr(GError) error = nullptr;
    GPid pid = 0;
    gint out = -1;
    if (!g_spawn_async_with_pipes(nullptr, const_cast<gchar **>(argv), nullptr,
                                  static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD),
                                  DieWithParent, nullptr, &pid, nullptr, &out, nullptr, &error)) {
        fprintf(stderr, "cannot start dbus-daemon: %s\n", error->message);
        abort();
    }
    std::string address;
    for (char c; read(out, &c, 1) == 1 && c != '\n';)
        address += c;
    close(out);
    if (address.empty()) {
        fprintf(stderr, "dbus-daemon printed no address\n");
        abort();
    }
    return address;
}

GDBusConnection *client;

void WaitForServer()
{
    for (int attempt = 0; attempt < 200; ++attempt, g_usleep(50 * 1000)) {
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            client, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner",
            g_variant_new("(s)", kBusName), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (reply)
            return;
    }
    fprintf(stderr, "the server did not own %s\n", kBusName);
    abort();
}

GVariant *Call(const Method &method, const char *path, const char *name, GVariant *arguments, GError **error)
{
    return g_dbus_connection_call_sync(client, kBusName, path, method.interface, name, arguments, nullptr,
                                       G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, error);
}

// A device's decisions, for the diagnostics to answer with.
void RecordDecisions()
{
    USBDeviceInfo headset;
    headset.strProductName = "Evolve 20";
    headset.strManufature = "Jabra";
    headset.nVendorId = 0x0b0e;
    headset.nProductId = 0x0300;
    headset.strDevPath = "/devices/platform/soc/xhci_hcd.0/usb1/1-1/1-1:1.0/sound/card1";
    CDecisionLog *log = CDecisionLog::GetInstance();
    DecisionInputs inputs;
    inputs.detectedMs = 120000;
    inputs.usbAudioMode = false;
    log->Record(CDecisionLog::About(headset, 1, decision::kHotplugAdded, decision::kDetectedAfterCore,
                                    decision::kTookSound, inputs));
    log->Record(CDecisionLog::About(headset, 1, decision::kRouteChange, decision::kRouteNotUsb, decision::kReleased));
    log->Record(CDecisionLog::About(headset, 1, decision::kHotplugRemoved, decision::kUnplugged, decision::kRemoved));
}

void CheckDecisions(const Method &method, GVariant *arguments, GVariant *reply)
{
    FUZZ_CHECK(g_variant_is_of_type(reply, G_VARIANT_TYPE("(aa{sv})")));
    g_autoptr(GVariant) records = g_variant_get_child_value(reply, 0);
    const size_t count = g_variant_n_children(records);
    if (strcmp(method.name, diagnostics::kGetVerdicts) == 0) {
        FUZZ_CHECK(count == 1);
        return;
    }
    guint32 asked = 0;
    g_variant_get(arguments, "(u)", &asked);
    FUZZ_CHECK(count == (asked == 0 || asked > kDecisions ? kDecisions : asked));
}

void CheckReply(const Method &method, GVariant *arguments, GVariant *reply)
{
    if (strcmp(method.interface, diagnostics::kInterface) == 0) {
        CheckDecisions(method, arguments, reply);
        return;
    }
    if (strcmp(method.name, kGetDeviceListInfo) == 0) {
        FUZZ_CHECK(g_variant_is_of_type(reply, G_VARIANT_TYPE("(ay)")));
        g_autoptr(GVariant) bytes = g_variant_get_child_value(reply, 0);
        FUZZ_CHECK(g_variant_get_size(bytes) % sizeof(HadrixDeviceRecord_t) == 0);
        return;
    }
    FUZZ_CHECK(g_variant_is_of_type(reply, G_VARIANT_TYPE("(s)")));
    const gchar *name = nullptr;
    const gchar *object = nullptr;
    g_variant_get(arguments, "(&s)", &name);
    g_variant_get(reply, "(&s)", &object);
    // "obj" + the name, cut to at most 255 bytes.
    const std::string expected = std::string("obj") + name;
    FUZZ_CHECK(strlen(object) <= 255 && expected.compare(0, strlen(object), object) == 0);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    const std::string address = StartBus();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);

    g_autoptr(GError) error = nullptr;
    client = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!client) {
        fprintf(stderr, "cannot connect to the private bus: %s\n", error->message);
        abort();
    }
    RecordDecisions();
    if (!CUSBAPIServer::GetInstance()->CreateListener())
        abort();
    WaitForServer();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const Method &method = kMethods[data[0] % G_N_ELEMENTS(kMethods)];
    const bool ownPath = (data[1] & 1) == 0;
    const char *path = ownPath ? method.path : kPaths[(data[1] >> 5) % G_N_ELEMENTS(kPaths)];
    const bool ownSignature = (data[1] & 2) == 0;
    const char *signature =
        ownSignature ? method.signature : kOtherSignatures[(data[1] >> 2) % G_N_ELEMENTS(kOtherSignatures)];

    g_autoptr(GBytes) bytes = g_bytes_new(data + 2, size - 2);
    g_autoptr(GVariant) serialised = g_variant_ref_sink(
        g_variant_new_from_bytes(G_VARIANT_TYPE(signature), bytes, FALSE));
    g_autoptr(GVariant) arguments = g_variant_ref_sink(g_variant_get_normal_form(serialised));

    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = Call(method, path, method.name, arguments, &error);
    FUZZ_CHECK(reply || !g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT));
    if (reply && strcmp(path, method.path) == 0)
        CheckReply(method, arguments, reply);

    // Keep the subscriber table small: a name subscribed is unsubscribed again.
    if (reply && strcmp(method.name, kSubscribe) == 0) {
        g_autoptr(GVariant) done = Call(method, path, kUnsubscribe, arguments, nullptr);
        FUZZ_CHECK(done != nullptr);
    }
    return 0;
}
