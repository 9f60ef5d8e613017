// hadrixctl: talk to the running hadrix service from a shell, as a client application and as an
// engineer would: its device list, its change signals, subscriptions, the liveness check, why it
// decided what it did about each device and its decision history, and debug commands sent as
// launch requests. Lists and streams are also given as JSON, for scripts.
#include <glib-unix.h>
#include <glib.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "DecisionText.h"
#include "HadrixBusNames.h"
#include "HadrixDeviceListInfo.h"
#include "JsonVariant.h"
#include "hadrix-diagnostics-gen.h"
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

// The options a command takes besides its arguments.
enum Option : unsigned { kNoOptions = 0, kJsonOption = 1, kCountOption = 2 };

struct Options {
    bool json = false;
    unsigned count = 0; // 0: all
};

using Args = std::vector<std::string>;

struct Command {
    const char *name;
    const char *arguments;
    const char *summary;
    int minArgs;
    int maxArgs;
    unsigned options;
    const char *help;
    int (*run)(const Args &args, const Options &options);
};

int RunDevices(const Args &args, const Options &options);
int RunMonitor(const Args &args, const Options &options);
int RunWhy(const Args &args, const Options &options);
int RunHistory(const Args &args, const Options &options);
int RunSubscribe(const Args &args, const Options &options);
int RunUnsubscribe(const Args &args, const Options &options);
int RunPing(const Args &args, const Options &options);
int RunDebug(const Args &args, const Options &options);

const Command kCommands[] = {
    {"devices", "[--json]", "the USB audio devices clients see", 0, 0, kJsonOption,
     "Prints the USB audio devices the service shows client applications (at most two, those\n"
     "carrying the TV sound first): one line each with whether it carries the sound, its type,\n"
     "connection status, the USB volume level, product and manufacturer. With --json: one JSON\n"
     "array of objects with those fields.\n",
     RunDevices},
    {"monitor", "[--json]", "print changes, decisions and the device list after each", 0, 0, kJsonOption,
     "Prints the device list, then every change signal of the service (Notify_client_message,\n"
     "send_message) followed by the device list as it is then, and every decision the service\n"
     "takes about a device as it takes it, until SIGINT (Ctrl-C) or SIGTERM. Also says when the\n"
     "service leaves or comes back to the bus. With --json: one JSON object a line, its \"type\"\n"
     "one of devices, watching, signal, decision, service.\n",
     RunMonitor},
    {"why", "[DEVICE] [--json]", "what the service decided about each device, and why", 0, 1, kJsonOption,
     "Prints, for every USB device the service has seen (or the one named), one paragraph in plain\n"
     "words: what it decided and when, the rule that decided with its numbers, the \"Start\" it sent\n"
     "to the audio server, and whether the device is still plugged. DEVICE is a product name (any\n"
     "case), vendor:product (0b0e:0300) or a USB port (1-1). With --json: one JSON array of the\n"
     "verdicts as the service's diagnostics interface gives them.\n",
     RunWhy},
    {"history", "[-n N] [--json]", "the service's decisions, newest last", 0, 0, kJsonOption | kCountOption,
     "Prints the decisions the service keeps (the last 128, across restarts), oldest first, one line\n"
     "each with its date and time; -n N: only the newest N. With --json: one JSON array of the\n"
     "decisions.\n",
     RunHistory},
    {"subscribe", "NAME", "register a subscriber", 1, 1, kNoOptions,
     "Registers the client process NAME (one word of at most 255 bytes; by convention an application\n"
     "id) as a subscriber and prints the client object name the service gave it.\n",
     RunSubscribe},
    {"unsubscribe", "NAME", "remove a subscriber", 1, 1, kNoOptions,
     "Removes the subscriber NAME (an unknown one is no error) and prints its client object name.\n",
     RunUnsubscribe},
    {"ping", "[NAME]", "check that the service answers", 0, 1, kNoOptions,
     "Checks that the service answers (check_dbus_connection, with NAME or \"hadrixctl\") and\n"
     "prints its reply.\n",
     RunPing},
    {"debug", "KEY VALUE", "send a debug command", 2, 2, kNoOptions,
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

const char kExitText[] = "Exit status: 0 done, 1 the service is not running or refused the request (or no\n"
                         "device matches), 2 usage error.\n";

void PrintOverview(FILE *to)
{
    fprintf(to, "Usage: hadrixctl COMMAND [ARGUMENTS]\n"
                "       hadrixctl COMMAND --help\n"
                "       hadrixctl --help\n\n"
                "Commands:\n");
    for (const Command &command : kCommands)
        fprintf(to, "  %-12s %-18s %s\n", command.name, command.arguments, command.summary);
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

// JSON on one line, UTF-8 as it is.
void PrintJson(const Json::Value &value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    printf("%s\n", Json::writeString(builder, value).c_str());
}

std::string FieldText(const char *field, size_t size)
{
    return std::string(field, strnlen(field, size));
}

// The records of a GetDeviceListInfo reply as JSON objects; false when the reply is no whole
// number of records.
bool DecodeDeviceList(GVariant *reply, Json::Value &devices)
{
    gsize size = 0;
    const auto *bytes = static_cast<const uint8_t *>(g_variant_get_fixed_array(reply, &size, 1));
    if (size % sizeof(HadrixDeviceRecord_t) != 0) {
        fprintf(stderr, "hadrixctl: the device list has %zu bytes, no whole number of %zu-byte records\n",
                static_cast<size_t>(size), sizeof(HadrixDeviceRecord_t));
        return false;
    }
    devices = Json::Value(Json::arrayValue);
    for (gsize offset = 0; offset < size; offset += sizeof(HadrixDeviceRecord_t)) {
        HadrixDeviceRecord_t record;
        memcpy(&record, bytes + offset, sizeof record);
        Json::Value device(Json::objectValue);
        device["selected"] = record.selected != 0;
        device["type"] = FieldText(record.type, sizeof record.type);
        device["status"] = FieldText(record.connectStatus, sizeof record.connectStatus);
        device["volume"] = static_cast<int>(GINT32_FROM_LE(record.volumeLevel));
        device["product"] = FieldText(record.productName, sizeof record.productName);
        device["manufacturer"] = FieldText(record.manufacturer, sizeof record.manufacturer);
        devices.append(device);
    }
    return true;
}

void PrintDeviceTable(const Json::Value &devices)
{
    if (devices.empty()) {
        printf("no USB audio devices\n");
        return;
    }
    printf("%-8s  %-13s  %-12s  %-6s  %-40s  %s\n", "SELECTED", "TYPE", "STATUS", "VOLUME", "PRODUCT", "MANUFACTURER");
    for (const Json::Value &device : devices)
        printf("%-8s  %-13s  %-12s  %-6d  %-40s  %s\n", device["selected"].asBool() ? "yes" : "no",
               device["type"].asCString(), device["status"].asCString(), device["volume"].asInt(),
               device["product"].asCString(), device["manufacturer"].asCString());
}

// In a monitor's stream, each JSON line says what it is.
Json::Value StreamObject(const char *type)
{
    Json::Value object(Json::objectValue);
    object["type"] = type;
    return object;
}

int FetchAndPrintDevices(OrgNimbosHadrixServerInterface *proxy, const Options &options, bool inStream = false)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = nullptr;
    if (!org_nimbos_hadrix_server_interface_call_get_device_list_info_sync(proxy, 0, &reply, nullptr, &error))
        return CallFailed("GetDeviceListInfo", error);
    Json::Value devices;
    if (!DecodeDeviceList(reply, devices))
        return kFailed;
    if (!options.json) {
        PrintDeviceTable(devices);
    } else if (inStream) {
        Json::Value line = StreamObject("devices");
        line["devices"] = devices;
        PrintJson(line);
    } else {
        PrintJson(devices);
    }
    fflush(stdout);
    return kOk;
}

int RunDevices(const Args &, const Options &options)
{
    ProxyPtr methods;
    const int opened = OpenMethods(methods);
    return opened != kOk ? opened : FetchAndPrintDevices(methods.get(), options);
}

// --- the diagnostics interface -----------------------------------------------------------------

using DiagnosticsPtr = UniqueHandle<OrgNimbosHadrixDiagnostics, g_object_unref>;

// The proxy for the diagnostics when the service is there; otherwise reports why not.
int OpenDiagnostics(DiagnosticsPtr &diagnostics)
{
    g_autoptr(GError) error = nullptr;
    diagnostics.reset(org_nimbos_hadrix_diagnostics_proxy_new_for_bus_sync(
        G_BUS_TYPE_SYSTEM,
        static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES | G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START),
        kBusName, hadrix::diagnostics::kObjectPath, nullptr, &error));
    if (!diagnostics)
        return Failure(std::string("cannot reach the system bus: ") + error->message);
    g_dbus_proxy_set_default_timeout(G_DBUS_PROXY(diagnostics.get()), kCallTimeoutMs);
    g_autofree char *owner = g_dbus_proxy_get_name_owner(G_DBUS_PROXY(diagnostics.get()));
    return owner ? kOk : NotRunning(kBusName);
}

// The records of an aa{sv} reply in their JSON form.
Json::Value RecordsOf(GVariant *dictionaries)
{
    Json::Value records(Json::arrayValue);
    GVariantIter iter;
    g_variant_iter_init(&iter, dictionaries);
    while (GVariant *dictionary = g_variant_iter_next_value(&iter)) {
        records.append(VariantToJson(dictionary));
        g_variant_unref(dictionary);
    }
    return records;
}

// "Evolve 20 (Jabra, 0b0e:0300, port 1-1, card 1)", one a line, for a message.
std::string KnownDevices(const Json::Value &verdicts)
{
    std::string known;
    for (const Json::Value &verdict : verdicts)
        known += "\n  " + decision_text::DeviceName(verdict);
    return known.empty() ? " none" : known;
}

int RunWhy(const Args &args, const Options &options)
{
    DiagnosticsPtr diagnostics;
    const int opened = OpenDiagnostics(diagnostics);
    if (opened != kOk)
        return opened;
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = nullptr;
    if (!org_nimbos_hadrix_diagnostics_call_get_verdicts_sync(diagnostics.get(), &reply, nullptr, &error))
        return CallFailed("GetVerdicts", error);
    const Json::Value verdicts = RecordsOf(reply);
    Json::Value shown(Json::arrayValue);
    for (const Json::Value &verdict : verdicts)
        if (args.empty() || decision_text::Matches(verdict, args[0]))
            shown.append(verdict);
    if (!args.empty() && shown.empty())
        return Failure("no device the service has seen is \"" + args[0] +
                       "\" (a product name, vendor:product or USB port); it knows:" + KnownDevices(verdicts));
    if (options.json) {
        PrintJson(shown);
    } else if (shown.empty()) {
        printf("the service has not seen a USB audio device yet\n");
    } else {
        for (Json::ArrayIndex index = 0; index < shown.size(); ++index)
            printf("%s%s\n", index ? "\n" : "", decision_text::Why(shown[index]).c_str());
    }
    return kOk;
}

int RunHistory(const Args &, const Options &options)
{
    DiagnosticsPtr diagnostics;
    const int opened = OpenDiagnostics(diagnostics);
    if (opened != kOk)
        return opened;
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = nullptr;
    if (!org_nimbos_hadrix_diagnostics_call_get_history_sync(diagnostics.get(), options.count, &reply, nullptr,
                                                            &error))
        return CallFailed("GetHistory", error);
    const Json::Value decisions = RecordsOf(reply);
    if (options.json) {
        PrintJson(decisions);
    } else if (decisions.empty()) {
        printf("no decisions yet\n");
    } else {
        for (const Json::Value &decision : decisions)
            printf("%s\n", decision_text::Line(decision).c_str());
    }
    return kOk;
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

int RunSubscribe(const Args &args, const Options &)
{
    return CallWithName("SubscribeHadrixServiceCallback",
                        org_nimbos_hadrix_server_interface_call_subscribe_hadrix_service_callback_sync, args[0]);
}

int RunUnsubscribe(const Args &args, const Options &)
{
    return CallWithName("UnSubscribeHadrixServiceCallback",
                        org_nimbos_hadrix_server_interface_call_un_subscribe_hadrix_service_callback_sync, args[0]);
}

int RunPing(const Args &args, const Options &)
{
    return CallWithName("check_dbus_connection", org_nimbos_hadrix_server_interface_call_check_dbus_connection_sync,
                        args.empty() ? kDefaultClientName : args[0]);
}

// --- monitor -----------------------------------------------------------------------------------

struct Monitor {
    GMainLoop *loop = nullptr;
    OrgNimbosHadrixServerInterface *methods = nullptr;
    Options options;
    guint pendingListId = 0;
};

gboolean PrintListAfterChange(gpointer data)
{
    auto *monitor = static_cast<Monitor *>(data);
    monitor->pendingListId = 0;
    FetchAndPrintDevices(monitor->methods, monitor->options, true);
    return G_SOURCE_REMOVE;
}

// A line of the monitor: the text, or with --json the object.
void PrintMonitorLine(const Monitor &monitor, const std::string &text, const Json::Value &object)
{
    if (monitor.options.json)
        PrintJson(object);
    else
        printf("%s\n", text.c_str());
    fflush(stdout);
}

void ScheduleListPrint(Monitor *monitor)
{
    if (monitor->pendingListId == 0)
        monitor->pendingListId = g_timeout_add(kCoalesceMs, PrintListAfterChange, monitor);
}

void OnNotifyClientMessage(OrgNimbosHadrixServerInterface *, GVariant *messages, gpointer data)
{
    auto *monitor = static_cast<Monitor *>(data);
    g_autofree char *text = g_variant_print(messages, FALSE);
    Json::Value line = StreamObject("signal");
    line["signal"] = hadrix::api::kNotifyClientMessage;
    line["value"] = text;
    PrintMonitorLine(*monitor, std::string("signal Notify_client_message ") + text, line);
    ScheduleListPrint(monitor);
}

void OnSendMessage(OrgNimbosHadrixServerInterface *, gint value, gpointer data)
{
    auto *monitor = static_cast<Monitor *>(data);
    Json::Value line = StreamObject("signal");
    line["signal"] = hadrix::api::kSendMessage;
    line["value"] = value;
    PrintMonitorLine(*monitor, "signal send_message " + std::to_string(value), line);
    ScheduleListPrint(monitor);
}

void OnDecision(OrgNimbosHadrixDiagnostics *, GVariant *record, gpointer data)
{
    Json::Value line = StreamObject("decision");
    line["decision"] = VariantToJson(record);
    PrintMonitorLine(*static_cast<Monitor *>(data), "decision " + decision_text::Line(line["decision"]), line);
}

void OnOwnerChanged(GObject *proxy, GParamSpec *, gpointer data)
{
    const bool served = IsServed(ORG_NIMBOS_HADRIX_SERVER_INTERFACE(proxy));
    Json::Value line = StreamObject("service");
    line["on_bus"] = served;
    PrintMonitorLine(*static_cast<Monitor *>(data), served ? "hadrix is on the bus" : "hadrix left the bus", line);
}

gboolean QuitLoop(gpointer data)
{
    g_main_loop_quit(static_cast<GMainLoop *>(data));
    return G_SOURCE_CONTINUE;
}

int RunMonitor(const Args &, const Options &options)
{
    ProxyPtr methods;
    int opened = OpenMethods(methods);
    if (opened != kOk)
        return opened;
    std::string problem;
    ProxyPtr signals = NewProxy(kSignalPath, problem);
    if (!signals)
        return Failure(problem);
    DiagnosticsPtr diagnostics;
    if ((opened = OpenDiagnostics(diagnostics)) != kOk)
        return opened;
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    Monitor monitor{loop, methods.get(), options, 0};
    g_signal_connect(signals.get(), "notify-client-message", G_CALLBACK(OnNotifyClientMessage), &monitor);
    g_signal_connect(signals.get(), "send-message", G_CALLBACK(OnSendMessage), &monitor);
    g_signal_connect(signals.get(), "notify::g-name-owner", G_CALLBACK(OnOwnerChanged), &monitor);
    g_signal_connect(diagnostics.get(), "decision", G_CALLBACK(OnDecision), &monitor);
    const guint sigint = g_unix_signal_add(SIGINT, QuitLoop, loop);
    const guint sigterm = g_unix_signal_add(SIGTERM, QuitLoop, loop);

    const int listed = FetchAndPrintDevices(methods.get(), options, true);
    if (listed == kOk) {
        PrintMonitorLine(monitor, "watching for changes", StreamObject("watching"));
        g_main_loop_run(loop);
    }
    g_source_remove(sigint);
    g_source_remove(sigterm);
    if (monitor.pendingListId != 0)
        g_source_remove(monitor.pendingListId);
    g_signal_handlers_disconnect_by_data(signals.get(), &monitor);
    g_signal_handlers_disconnect_by_data(diagnostics.get(), &monitor);
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

int RunDebug(const Args &args, const Options &)
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

// A count of 1 or more, in decimal.
bool ParseCount(const char *text, unsigned &count)
{
    if (!text || *text < '1' || *text > '9')
        return false;
    char *end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(text, &end, 10);
    if (*end != '\0' || errno == ERANGE || value > G_MAXUINT32)
        return false;
    count = static_cast<unsigned>(value);
    return true;
}

// Takes the command's options out of argv and the rest as its arguments; a problem is set for a
// bad option.
void ParseArguments(const Command &command, int argc, char **argv, Args &args, Options &options,
                    std::string &problem)
{
    for (int index = 2; index < argc && problem.empty(); ++index) {
        const std::string arg = argv[index];
        if ((command.options & kJsonOption) && arg == "--json") {
            options.json = true;
        } else if ((command.options & kCountOption) && arg == "-n") {
            if (!ParseCount(index + 1 < argc ? argv[++index] : nullptr, options.count))
                problem = "-n needs a number of 1 or more";
        } else if (command.options != kNoOptions && arg.size() > 1 && arg[0] == '-') {
            problem = "unknown option \"" + arg + "\"";
        } else {
            args.push_back(arg);
        }
    }
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
    for (int index = 2; index < argc; ++index) {
        if (IsHelp(argv[index])) {
            PrintCommandHelp(*command, stdout);
            return kOk;
        }
    }
    Args args;
    Options options;
    std::string problem;
    ParseArguments(*command, argc, argv, args, options, problem);
    if (!problem.empty())
        return UsageError(problem.c_str(), command);
    const int count = static_cast<int>(args.size());
    if (count < command->minArgs || count > command->maxArgs)
        return UsageError(count < command->minArgs ? "missing argument" : "too many arguments", command);
    return command->run(args, options);
}

} // namespace

int main(int argc, char **argv)
{
    // The platform layer logs on standard error; only its errors concern a user of this tool.
    setenv("HADRIX_LOG_LEVEL", "error", 0);
    return Run(argc, argv);
}
