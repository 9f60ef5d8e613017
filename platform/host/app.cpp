// The service-application loop on the host: a GLib main loop on the default context that turns
// SIGTERM/SIGINT into the terminate path and Launch calls on the system bus into app-control
// callbacks. Losing the system bus also ends the loop, as a failure.
#include "nimbos/app.h"

#include "HostLog.h"
#include "PlatformService.h"
#include "SourcePtr.h"
#include "UniqueHandle.h"

#include <gio/gio.h>
#include <glib-unix.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <mutex>

using nimbos::SourcePtr;

namespace {

constexpr const char *kBusName = "org.nimbos.hadrix";
constexpr const char *kObjectPath = "/org/nimbos/AppControl";
constexpr const char *kLaunch = "Launch";
constexpr const char *kLaunchSignature = "sa(ss)";
constexpr const char *kIntrospection =
    "<node>"
    "  <interface name='org.nimbos.AppControl'>"
    "    <method name='Launch'>"
    "      <arg name='operation' type='s' direction='in'/>"
    "      <arg name='extra_data' type='a(ss)' direction='in'/>"
    "    </method>"
    "  </interface>"
    "</node>";

struct Service {
    service_app_lifecycle_callback_s *callbacks;
    void *userData;
};

// The loop that service_app_exit ends, an exit request made while none was running yet, and
// whether the system bus was lost while it ran.
std::mutex loopMutex;
GMainLoop *runningLoop;
bool exitRequested;
bool busLost;

void RequestExitLocked()
{
    exitRequested = true;
    if (runningLoop)
        g_main_loop_quit(runningLoop);
}

void RequestExit()
{
    std::lock_guard<std::mutex> lock(loopMutex);
    RequestExitLocked();
}

// An exit asked for during a create that then failed ends no later loop.
void ForgetExitRequest()
{
    std::lock_guard<std::mutex> lock(loopMutex);
    exitRequested = false;
}

// GDBus would raise SIGTERM, which reads as a terminate request; the service instead ends with a
// failure, so that its service manager starts it again on the new bus. Any thread.
void OnBusClosed(GDBusConnection *, gboolean remotePeerVanished, GError *error, gpointer)
{
    HOST_LOG(DLOG_ERROR, "system bus connection lost (%s): the service ends with a failure status",
             error ? error->message : remotePeerVanished ? "the bus went away" : "closed");
    std::lock_guard<std::mutex> lock(loopMutex);
    busLost = true;
    RequestExitLocked();
}

// Publishes the loop for service_app_exit while it exists; a request that is still pending when
// the loop ends is used up with it.
class RunningLoop {
public:
    explicit RunningLoop(GMainLoop *loop)
    {
        std::lock_guard<std::mutex> lock(loopMutex);
        runningLoop = loop;
        busLost = false;
    }
    ~RunningLoop()
    {
        std::lock_guard<std::mutex> lock(loopMutex);
        runningLoop = nullptr;
        exitRequested = false;
    }
    RunningLoop(const RunningLoop &) = delete;
    RunningLoop &operator=(const RunningLoop &) = delete;

    bool BusLost() const
    {
        std::lock_guard<std::mutex> lock(loopMutex);
        return busLost;
    }
};

// g_main_loop_quit before g_main_loop_run is forgotten, so a request made before the loop ran is
// honoured from inside the loop as its first dispatch.
gboolean QuitIfRequested(gpointer)
{
    std::lock_guard<std::mutex> lock(loopMutex);
    if (exitRequested && runningLoop)
        g_main_loop_quit(runningLoop);
    return G_SOURCE_REMOVE;
}

gboolean OnTerminateSignal(gpointer signalName)
{
    HOST_LOG(DLOG_INFO, "%s received: terminating", static_cast<const char *>(signalName));
    RequestExit();
    return G_SOURCE_CONTINUE;
}

SourcePtr Attach(GSource *source, GSourceFunc callback, gpointer data, int priority)
{
    g_source_set_callback(source, callback, data, nullptr);
    g_source_set_priority(source, priority);
    g_source_attach(source, nullptr);
    return SourcePtr(source);
}

SourcePtr WatchSignal(int signum, const char *name)
{
    return Attach(g_unix_signal_source_new(signum), OnTerminateSignal, const_cast<char *>(name),
                  G_PRIORITY_DEFAULT);
}

using HandlePtr = UniqueHandle<app_control_s, app_control_destroy>;

// A request that could not be built: null, with the refusal in *error.
HandlePtr Refuse(GError **error, GDBusError code, const char *reason)
{
    g_set_error_literal(error, G_DBUS_ERROR, code, reason);
    return nullptr;
}

// The request of a Launch call, or null with a refusal set in *error. The arguments reached here
// as D-Bus strings, so every handle call that fails short of an empty key is out of memory.
HandlePtr RequestFrom(GVariant *parameters, GError **error)
{
    const char *operation = nullptr;
    g_autoptr(GVariantIter) extra = nullptr;
    g_variant_get(parameters, "(&sa(ss))", &operation, &extra);

    app_control_h raw = nullptr;
    if (app_control_create(&raw) != APP_CONTROL_ERROR_NONE)
        return Refuse(error, G_DBUS_ERROR_NO_MEMORY, "out of memory");
    HandlePtr request(raw);
    if (app_control_set_operation(request.get(), operation) != APP_CONTROL_ERROR_NONE)
        return Refuse(error, G_DBUS_ERROR_NO_MEMORY, "out of memory");
    const char *key = nullptr;
    const char *value = nullptr;
    while (g_variant_iter_next(extra, "(&s&s)", &key, &value)) {
        int ret = app_control_add_extra_data(request.get(), key, value);
        if (ret == APP_CONTROL_ERROR_INVALID_PARAMETER)
            return Refuse(error, G_DBUS_ERROR_INVALID_ARGS, "extra data key is empty");
        if (ret != APP_CONTROL_ERROR_NONE)
            return Refuse(error, G_DBUS_ERROR_NO_MEMORY, "out of memory");
    }
    return request;
}

// GDBus only gets here for Launch with arguments of the introspected type: it answers anything
// else with UnknownMethod or InvalidArgs itself.
void OnMethodCall(GDBusConnection *, const gchar *sender, const gchar *, const gchar *, const gchar *,
                  GVariant *parameters, GDBusMethodInvocation *invocation, gpointer userData)
{
    auto *service = static_cast<Service *>(userData);
    g_autoptr(GError) error = nullptr;
    HandlePtr request = RequestFrom(parameters, &error);
    if (!request) {
        HOST_LOG(DLOG_WARN, "Launch from %s refused: %s", sender, error->message);
        g_dbus_method_invocation_return_gerror(invocation, error);
        return;
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
    if (service->callbacks->app_control)
        service->callbacks->app_control(request.get(), service->userData);
}

// Runs on the connection's worker thread and changes nothing: it only puts the refusals GDBus
// sends on its own (wrong argument types) in the log.
GDBusMessage *LogRefusedLaunch(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer)
{
    if (incoming && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL &&
        g_strcmp0(g_dbus_message_get_path(message), kObjectPath) == 0 &&
        g_strcmp0(g_dbus_message_get_member(message), kLaunch) == 0 &&
        g_strcmp0(g_dbus_message_get_signature(message), kLaunchSignature) != 0)
        HOST_LOG(DLOG_WARN, "Launch from %s refused: arguments (%s), expected (%s)",
                 g_dbus_message_get_sender(message), g_dbus_message_get_signature(message), kLaunchSignature);
    return message;
}

void OnNameAcquired(GDBusConnection *, const gchar *name, gpointer)
{
    HOST_LOG(DLOG_INFO, "bus name %s acquired", name);
}

void OnNameLost(GDBusConnection *, const gchar *name, gpointer)
{
    HOST_LOG(DLOG_WARN, "bus name %s not owned: launch requests will not arrive", name);
}

// Application control on the system bus for the life of the object; without a bus the service
// runs on, unreachable for launch requests.
class AppControlExport {
public:
    explicit AppControlExport(Service *service)
    {
        g_autoptr(GError) error = nullptr;
        bus_.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
        if (!bus_) {
            HOST_LOG(DLOG_WARN, "system bus unavailable, running without application control: %s",
                     error->message);
            return;
        }
        // The process's shared connection: when it closes, OnBusClosed ends the service as a failure
        // instead of GDBus raising SIGTERM. The setting is given back with the export.
        exitOnClose_ = g_dbus_connection_get_exit_on_close(bus_.get());
        g_dbus_connection_set_exit_on_close(bus_.get(), FALSE);
        closedHandler_ = g_signal_connect(bus_.get(), "closed", G_CALLBACK(OnBusClosed), nullptr);
        g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
        static const GDBusInterfaceVTable vtable = {OnMethodCall, nullptr, nullptr, {}};
        registration_ = g_dbus_connection_register_object(bus_.get(), kObjectPath, node->interfaces[0], &vtable,
                                                          service, nullptr, &error);
        if (!registration_) {
            HOST_LOG(DLOG_ERROR, "cannot export %s, running without application control: %s", kObjectPath,
                     error->message);
            return;
        }
        filter_ = g_dbus_connection_add_filter(bus_.get(), LogRefusedLaunch, nullptr, nullptr);
        owner_ = g_bus_own_name_on_connection(bus_.get(), kBusName, G_BUS_NAME_OWNER_FLAGS_NONE, OnNameAcquired,
                                              OnNameLost, nullptr, nullptr);
    }
    ~AppControlExport()
    {
        if (closedHandler_) {
            g_signal_handler_disconnect(bus_.get(), closedHandler_);
            g_dbus_connection_set_exit_on_close(bus_.get(), exitOnClose_);
        }
        if (owner_)
            g_bus_unown_name(owner_);
        if (filter_)
            g_dbus_connection_remove_filter(bus_.get(), filter_);
        if (registration_)
            g_dbus_connection_unregister_object(bus_.get(), registration_);
    }
    AppControlExport(const AppControlExport &) = delete;
    AppControlExport &operator=(const AppControlExport &) = delete;

private:
    nimbos::ConnectionRef bus_;
    gboolean exitOnClose_ = TRUE;
    gulong closedHandler_ = 0;
    guint registration_ = 0;
    guint filter_ = 0;
    guint owner_ = 0;
};

// Runs the loop until it is ended; true when the system bus was lost.
bool RunLoop(Service *service)
{
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    RunningLoop published(loop);
    AppControlExport appControl(service);
    SourcePtr pendingExit = Attach(g_idle_source_new(), QuitIfRequested, nullptr, G_PRIORITY_HIGH);
    g_main_loop_run(loop);
    return published.BusLost();
}

} // namespace

extern "C" int service_app_main(int argc, char **argv, service_app_lifecycle_callback_s *callback, void *user_data)
{
    if (!callback) {
        HOST_LOG(DLOG_ERROR, "service loop needs its lifecycle callbacks");
        return -EINVAL;
    }
    // Caught from before create, so a request arriving during it ends the loop as soon as it starts,
    // and through terminate, so a repeated request cannot cut that short.
    SourcePtr term = WatchSignal(SIGTERM, "SIGTERM");
    SourcePtr interrupt = WatchSignal(SIGINT, "SIGINT");
    Service service{callback, user_data};
    if (callback->create && !callback->create(user_data)) {
        HOST_LOG(DLOG_ERROR, "create callback failed: the service loop does not run");
        ForgetExitRequest();
        return -ECANCELED;
    }
    const bool busLost = RunLoop(&service);
    HOST_LOG(DLOG_INFO, "service loop ended");
    if (callback->terminate)
        callback->terminate(user_data);
    return busLost ? -ECONNRESET : 0;
}

extern "C" void service_app_exit(void)
{
    RequestExit();
}
