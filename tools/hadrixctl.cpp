// hadrixctl: talk to the running hadrix service from a shell, as a client application and as an
// engineer would: its device list, its change signals, subscriptions, the liveness check, and
// debug commands sent as launch requests.
#include <glib-unix.h>
#include <glib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "HadrixBusNames.h"
#include "HadrixDeviceListInfo.h"
#include "hadrix-server-gen.h"
#include "nimbos/app.h"
#include "UniqueHandle.h"

namespace {

enum ExitCode { kOk = 0, kFailed = 1, kUsage = 2 };

using hadrix::api::kAppId;
using hadrix::api::kBusName;
using hadrix::api::kObjectPath;
using hadrix::api::kSignalPath;
constexpr char kDefaultClientName[] = "hadrixctl";
constexpr int kCallTimeoutMs = 5000;
// The service sends its two change signals back to back: one list print answers both.
constexpr unsigned kCoalesceMs = 100;

// The service's debug-command keys (docs/debug-commands.md).
const char *const kDebugKeys[] = {"pulse",        "audio_control", "speakerManager", "soundManager",
                                  "localFileData", "cset",          "cget",           "setMaxVolume"};

struct Command {
    const char *name;
    const char *arguments;
    const char *summary;
    int minArgs;
    int maxArgs;
    const char *help;
    int (*run)(const std::vector<std::string> &args);
};

int RunDevices(const std::vector<std::string> &args);
int RunMonitor(const std::vector<std::string> &args);
int RunSubscribe(const std::vector<std::string> &args);
int RunUnsubscribe(const std::vector<std::string> &args);
int RunPing(const std::vector<std::string> &args);
int RunDebug(const std::vector<std::string> &args);

const Command kCommands[] = {
    {"devices", "", "the USB audio devices clients see", 0, 0,
     "Prints the USB audio devices the service shows client applications (at most two, those\n"
     "carrying the TV sound first): one line each with whether it carries the sound, its type,\n"
     "connection status, the USB volume level, product and manufacturer.\n",
     RunDevices},
    {"monitor", "", "print change signals and the device list after each", 0, 0,
     "Prints the device list, then every change signal of the service (Notify_client_message,\n"
     "send_message) followed by the device list as it is then, until SIGINT (Ctrl-C) or SIGTERM.\n"
     "Also says when the service leaves or comes back to the bus.\n",
     RunMonitor},
    {"subscribe", "NAME", "register a subscriber", 1, 1,
     "Registers the client process NAME (one word of at most 255 bytes; by convention an application\n"
     "id) as a subscriber and prints the client object name the service gave it.\n",
     RunSubscribe},
    {"unsubscribe", "NAME", "remove a subscriber", 1, 1,
     "Removes the subscriber NAME (an unknown one is no error) and prints its client object name.\n",
     RunUnsubscribe},
    {"ping", "[NAME]", "check that the service answers", 0, 1,
     "Checks that the service answers (check_dbus_connection, with NAME or \"hadrixctl\") and\n"
     "prints its reply.\n",
     RunPing},
    {"debug", "KEY VALUE", "send a debug command", 2, 2,
     "Sends one debug command: a launch request to org.nimbos.hadrix carrying the extra-data pair\n"
     "KEY VALUE. KEY is one of pulse, audio_control, speakerManager, soundManager, localFileData,\n"
     "cset, cget, setMaxVolume. Nothing is answered: results go to the service's log.\n"
     "Example: hadrixctl debug cget \"1 numid=3\"\n",
     RunDebug},
};

const Command *FindCommand(const char *name)
{
    for (const Command &command : kCommands)
        if (strcmp(command.name, name) == 0)
            return &command;
    return nullptr;
}

const char kExitText[] = "Exit status: 0 done, 1 the service is not running or refused the request, 2 usage error.\n";

void PrintOverview(FILE *to)
{
    fprintf(to, "Usage: hadrixctl COMMAND [ARGUMENTS]\n"
                "       hadrixctl COMMAND --help\n"
                "       hadrixctl --help\n\n"
                "Commands:\n");
    for (const Command &command : kCommands)
        fprintf(to, "  %-12s %-10s %s\n", command.name, command.arguments, command.summary);
    fprintf(to, "\nThe service is reached on the system bus (DBUS_SYSTEM_BUS_ADDRESS when set).\n%s", kExitText);
}

void PrintCommandHelp(const Command &command, FILE *to)
{
    fprintf(to, "Usage: hadrixctl %s%s%s\n\n%s\n%s", command.name, *command.arguments ? " " : "", command.arguments,
            command.help, kExitText);
}

int UsageError(const char *problem, const Command *command)
{
    fprintf(stderr, "hadrixctl: %s\n\n", problem);
    if (command)
        PrintCommandHelp(*command, stderr);
    else
        PrintOverview(stderr);
    return kUsage;
}

int Failure(const std::string &what)
{
    fprintf(stderr, "hadrixctl: %s\n", what.c_str());
    return kFailed;
}

int NotRunning(const char *busName)
{
    return Failure(std::string("hadrix is not running: nobody owns ") + busName + " on the system bus");
}

// --- the client API ----------------------------------------------------------------------------

using ProxyPtr = UniqueHandle<OrgNimbosHadrixServerInterface, g_object_unref>;

ProxyPtr NewProxy(const char *path, std::string &problem)
{
    g_autoptr(GError) error = nullptr;
    OrgNimbosHadrixServerInterface *proxy = org_nimbos_hadrix_server_interface_proxy_new_for_bus_sync(
        G_BUS_TYPE_SYSTEM,
        static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES | G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START),
        kBusName, path, nullptr, &error);
    if (!proxy) {
        problem = std::string("cannot reach the system bus: ") + error->message;
        return nullptr;
    }
    g_dbus_proxy_set_default_timeout(G_DBUS_PROXY(proxy), kCallTimeoutMs);
    return ProxyPtr(proxy);
}

bool IsServed(OrgNimbosHadrixServerInterface *proxy)
{
    g_autofree char *owner = g_dbus_proxy_get_name_owner(G_DBUS_PROXY(proxy));
    return owner != nullptr;
}

// The proxy for the methods when the service is there; otherwise reports why not.
int OpenMethods(ProxyPtr &methods)
{
    std::string problem;
    methods = NewProxy(kObjectPath, problem);
    if (!methods)
        return Failure(problem);
    return IsServed(methods.get()) ? kOk : NotRunning(kBusName);
}

int CallFailed(const char *method, GError *error)
{
    g_dbus_error_strip_remote_error(error);
    return Failure(std::string(method) + " failed: " + error->message);
}

std::string FieldText(const char *field, size_t size)
{
    return std::string(field, strnlen(field, size));
}

// One line per record of a GetDeviceListInfo reply; false when the reply is no whole number of
// records.
bool PrintDeviceList(GVariant *reply)
{
    gsize size = 0;
    const auto *bytes = static_cast<const uint8_t *>(g_variant_get_fixed_array(reply, &size, 1));
    if (size % sizeof(HadrixDeviceRecord_t) != 0) {
        fprintf(stderr, "hadrixctl: the device list has %zu bytes, no whole number of %zu-byte records\n",
                static_cast<size_t>(size), sizeof(HadrixDeviceRecord_t));
        return false;
    }
    if (size == 0) {
        printf("no USB audio devices\n");
        return true;
    }
    printf("%-8s  %-13s  %-12s  %-6s  %-40s  %s\n", "SELECTED", "TYPE", "STATUS", "VOLUME", "PRODUCT", "MANUFACTURER");
    for (gsize offset = 0; offset < size; offset += sizeof(HadrixDeviceRecord_t)) {
        HadrixDeviceRecord_t record;
        memcpy(&record, bytes + offset, sizeof record);
        const int32_t volume = GINT32_FROM_LE(record.volumeLevel);
        printf("%-8s  %-13s  %-12s  %-6d  %-40s  %s\n", record.selected ? "yes" : "no",
               FieldText(record.type, sizeof record.type).c_str(),
               FieldText(record.connectStatus, sizeof record.connectStatus).c_str(), volume,
               FieldText(record.productName, sizeof record.productName).c_str(),
               FieldText(record.manufacturer, sizeof record.manufacturer).c_str());
    }
    return true;
}

int FetchAndPrintDevices(OrgNimbosHadrixServerInterface *proxy)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = nullptr;
    if (!org_nimbos_hadrix_server_interface_call_get_device_list_info_sync(proxy, 0, &reply, nullptr, &error))
        return CallFailed("GetDeviceListInfo", error);
    const int status = PrintDeviceList(reply) ? kOk : kFailed;
    fflush(stdout);
    return status;
}

int RunDevices(const std::vector<std::string> &)
{
    ProxyPtr methods;
    const int opened = OpenMethods(methods);
    return opened != kOk ? opened : FetchAndPrintDevices(methods.get());
}

using NameCall = gboolean (*)(OrgNimbosHadrixServerInterface *, const gchar *, gchar **, GCancellable *, GError **);

int CallWithName(const char *method, NameCall call, const std::string &name)
{
    ProxyPtr methods;
    const int opened = OpenMethods(methods);
    if (opened != kOk)
        return opened;
    g_autoptr(GError) error = nullptr;
    g_autofree char *reply = nullptr;
    if (!call(methods.get(), name.c_str(), &reply, nullptr, &error))
        return CallFailed(method, error);
    printf("%s\n", reply);
    return kOk;
}

int RunSubscribe(const std::vector<std::string> &args)
{
    return CallWithName("SubscribeHadrixServiceCallback",
                        org_nimbos_hadrix_server_interface_call_subscribe_hadrix_service_callback_sync, args[0]);
}

int RunUnsubscribe(const std::vector<std::string> &args)
{
    return CallWithName("UnSubscribeHadrixServiceCallback",
                        org_nimbos_hadrix_server_interface_call_un_subscribe_hadrix_service_callback_sync, args[0]);
}

int RunPing(const std::vector<std::string> &args)
{
    return CallWithName("check_dbus_connection", org_nimbos_hadrix_server_interface_call_check_dbus_connection_sync,
                        args.empty() ? kDefaultClientName : args[0]);
}

// --- monitor -----------------------------------------------------------------------------------

struct Monitor {
    GMainLoop *loop = nullptr;
    OrgNimbosHadrixServerInterface *methods = nullptr;
    guint pendingListId = 0;
};

gboolean PrintListAfterChange(gpointer data)
{
    auto *monitor = static_cast<Monitor *>(data);
    monitor->pendingListId = 0;
    FetchAndPrintDevices(monitor->methods);
    return G_SOURCE_REMOVE;
}

void ScheduleListPrint(Monitor *monitor)
{
    if (monitor->pendingListId == 0)
        monitor->pendingListId = g_timeout_add(kCoalesceMs, PrintListAfterChange, monitor);
}

void OnNotifyClientMessage(OrgNimbosHadrixServerInterface *, GVariant *messages, gpointer data)
{
    g_autofree char *text = g_variant_print(messages, FALSE);
    printf("signal Notify_client_message %s\n", text);
    fflush(stdout);
    ScheduleListPrint(static_cast<Monitor *>(data));
}

void OnSendMessage(OrgNimbosHadrixServerInterface *, gint value, gpointer data)
{
    printf("signal send_message %d\n", value);
    fflush(stdout);
    ScheduleListPrint(static_cast<Monitor *>(data));
}

void OnOwnerChanged(GObject *proxy, GParamSpec *, gpointer)
{
    printf(IsServed(ORG_NIMBOS_HADRIX_SERVER_INTERFACE(proxy)) ? "hadrix is on the bus\n" : "hadrix left the bus\n");
    fflush(stdout);
}

gboolean QuitLoop(gpointer data)
{
    g_main_loop_quit(static_cast<GMainLoop *>(data));
    return G_SOURCE_CONTINUE;
}

int RunMonitor(const std::vector<std::string> &)
{
    ProxyPtr methods;
    const int opened = OpenMethods(methods);
    if (opened != kOk)
        return opened;
    std::string problem;
    ProxyPtr signals = NewProxy(kSignalPath, problem);
    if (!signals)
        return Failure(problem);
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    Monitor monitor{loop, methods.get(), 0};
    g_signal_connect(signals.get(), "notify-client-message", G_CALLBACK(OnNotifyClientMessage), &monitor);
    g_signal_connect(signals.get(), "send-message", G_CALLBACK(OnSendMessage), &monitor);
    g_signal_connect(signals.get(), "notify::g-name-owner", G_CALLBACK(OnOwnerChanged), nullptr);
    const guint sigint = g_unix_signal_add(SIGINT, QuitLoop, loop);
    const guint sigterm = g_unix_signal_add(SIGTERM, QuitLoop, loop);

    const int listed = FetchAndPrintDevices(methods.get());
    if (listed == kOk) {
        printf("watching for changes\n");
        fflush(stdout);
        g_main_loop_run(loop);
    }
    g_source_remove(sigint);
    g_source_remove(sigterm);
    if (monitor.pendingListId != 0)
        g_source_remove(monitor.pendingListId);
    g_signal_handlers_disconnect_by_data(signals.get(), &monitor);
    return listed;
}

// --- debug commands ----------------------------------------------------------------------------

using AppControlPtr = UniqueHandle<app_control_s, app_control_destroy>;

bool IsDebugKey(const std::string &key)
{
    for (const char *known : kDebugKeys)
        if (key == known)
            return true;
    return false;
}

int RunDebug(const std::vector<std::string> &args)
{
    const std::string &key = args[0];
    const std::string &value = args[1];
    if (!IsDebugKey(key))
        return UsageError(("unknown debug key \"" + key + "\"").c_str(), FindCommand("debug"));
    app_control_h raw = nullptr;
    if (app_control_create(&raw) != APP_CONTROL_ERROR_NONE)
        return Failure("out of memory");
    AppControlPtr request(raw);
    if (app_control_set_app_id(request.get(), kAppId) != APP_CONTROL_ERROR_NONE ||
        app_control_add_extra_data(request.get(), key.c_str(), value.c_str()) != APP_CONTROL_ERROR_NONE)
        return Failure("cannot build the launch request (key and value must be UTF-8)");
    const int result = app_control_send_launch_request(request.get(), nullptr, nullptr);
    if (result == APP_CONTROL_ERROR_APP_NOT_FOUND)
        return NotRunning(kAppId);
    if (result != APP_CONTROL_ERROR_NONE)
        return Failure("the launch request failed (" + std::to_string(result) + ")");
    printf("sent %s=%s to %s; the result is in the service's log\n", key.c_str(), value.c_str(), kAppId);
    return kOk;
}

// --- command line ------------------------------------------------------------------------------

bool IsHelp(const char *arg)
{
    return strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0;
}

int Run(int argc, char **argv)
{
    if (argc < 2)
        return UsageError("no command given", nullptr);
    if (IsHelp(argv[1])) {
        PrintOverview(stdout);
        return kOk;
    }
    const Command *command = FindCommand(argv[1]);
    if (!command)
        return UsageError((std::string("unknown command \"") + argv[1] + "\"").c_str(), nullptr);
    std::vector<std::string> args;
    for (int index = 2; index < argc; ++index) {
        if (IsHelp(argv[index])) {
            PrintCommandHelp(*command, stdout);
            return kOk;
        }
        args.emplace_back(argv[index]);
    }
    const int count = static_cast<int>(args.size());
    if (count < command->minArgs || count > command->maxArgs)
        return UsageError(count < command->minArgs ? "missing argument" : "too many arguments", command);
    return command->run(args);
}

} // namespace

int main(int argc, char **argv)
{
    // The platform layer logs on standard error; only its errors concern a user of this tool.
    setenv("HADRIX_LOG_LEVEL", "error", 0);
    return Run(argc, argv);
}
