// The key router on the host: a client of org.nimbos.KeyRouter on the system bus. Its KeyDown and
// KeyUp signals, sent for grabbed keys only, become ECORE_EVENT_KEY_DOWN/UP events.
#include "nimbos/keyrouter.h"

#include "EventRegistry.h"
#include "HostLog.h"
#include "PlatformService.h"

#include <memory>
#include <mutex>
#include <utility>

namespace {

using nimbos::kServiceOk;
using nimbos::PlatformService;
using nimbos::SignalSubscription;

static_assert(nimbos::UsesServiceCodes(KEYROUTER_ERROR_NONE, KEYROUTER_ERROR_IO_ERROR, KEYROUTER_ERROR_TIMED_OUT,
                                       KEYROUTER_ERROR_INVALID_PARAMETER));

constexpr const char *kKeyRouterName = "org.nimbos.KeyRouter";

const PlatformService &KeyRouter()
{
    static const PlatformService service(kKeyRouterName);
    return service;
}

const PlatformService &MessageBus()
{
    static const PlatformService service("org.freedesktop.DBus");
    return service;
}

// What a connection holds: the key event subscriptions, which keep the bus open.
struct Connection {
    std::unique_ptr<SignalSubscription> keyDown;
    std::unique_ptr<SignalSubscription> keyUp;
};

std::mutex &ConnectionLock()
{
    static std::mutex lock;
    return lock;
}

std::unique_ptr<Connection> &CurrentConnection()
{
    static std::unique_ptr<Connection> connection;
    return connection;
}

bool RouterIsOnTheBus()
{
    gboolean owned = FALSE;
    return MessageBus().ReadBoolean("NameHasOwner", g_variant_new("(s)", kKeyRouterName), &owned) == kServiceOk &&
           owned;
}

void DeliverKey(ecore_event_type_e type, GVariant *arguments)
{
    const char *key = nullptr;
    const char *deviceName = nullptr;
    g_variant_get(arguments, "(&s&s)", &key, &deviceName);
    if (!*key) {
        HOST_LOG(DLOG_WARN, "key event without a key name from device \"%s\" refused", deviceName);
        return;
    }
    // The router sends an empty name for a device that has none.
    ecore_device_s device{*deviceName ? deviceName : nullptr};
    ecore_event_key_s event{key, &device};
    nimbos::common::RaiseKeyEvent(type, &event);
}

std::unique_ptr<SignalSubscription> SubscribeKey(const char *signal, ecore_event_type_e type)
{
    return KeyRouter().Subscribe(signal, G_VARIANT_TYPE("(ss)"),
                                 [type](GVariant *arguments) { DeliverKey(type, arguments); });
}

int Connect(Connection &connection)
{
    // Opened here only to tell a missing bus from a missing router; the subscriptions hold their own.
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusConnection) bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!bus) {
        HOST_LOG(DLOG_ERROR, "no system bus for the key router: %s", error->message);
        return KEYROUTER_ERROR_NO_DISPLAY;
    }
    if (!RouterIsOnTheBus()) {
        HOST_LOG(DLOG_ERROR, "%s is not on the system bus", kKeyRouterName);
        return KEYROUTER_ERROR_NO_ROUTER;
    }
    connection.keyDown = SubscribeKey("KeyDown", ECORE_EVENT_KEY_DOWN);
    connection.keyUp = SubscribeKey("KeyUp", ECORE_EVENT_KEY_UP);
    if (!connection.keyDown || !connection.keyUp) {
        HOST_LOG(DLOG_ERROR, "the key events of %s cannot be received", kKeyRouterName);
        return KEYROUTER_ERROR_NO_SEAT;
    }
    return KEYROUTER_ERROR_NONE;
}

// Key names go on the bus as D-Bus strings; anything else is refused here, with a log line.
bool IsKeyName(const char *key)
{
    if (key && *key && g_utf8_validate(key, -1, nullptr))
        return true;
    HOST_LOG(DLOG_ERROR, "key name refused: empty or not UTF-8");
    return false;
}

} // namespace

extern "C" int keyrouter_connect(void)
{
    std::lock_guard<std::mutex> lock(ConnectionLock());
    if (CurrentConnection())
        return KEYROUTER_ERROR_NONE;
    auto connection = std::make_unique<Connection>();
    int result = Connect(*connection);
    if (result == KEYROUTER_ERROR_NONE)
        CurrentConnection() = std::move(connection);
    return result;
}

extern "C" void keyrouter_disconnect(void)
{
    std::unique_ptr<Connection> connection;
    {
        std::lock_guard<std::mutex> lock(ConnectionLock());
        connection.swap(CurrentConnection());
    }
}

extern "C" int capi_window_tv_reset_key_grab_config(int window)
{
    return KeyRouter().Command("ResetKeyGrabConfig", g_variant_new("(i)", window));
}

extern "C" int capi_window_tv_add_key(int window, const char *key, int mode)
{
    if (!IsKeyName(key))
        return KEYROUTER_ERROR_INVALID_PARAMETER;
    return KeyRouter().Command("AddKey", g_variant_new("(isi)", window, key, mode));
}

extern "C" int capi_window_tv_set_grabbed_keys(int window)
{
    return KeyRouter().Command("SetGrabbedKeys", g_variant_new("(i)", window));
}

extern "C" int capi_window_tv_unset_grabbed_keys(int window)
{
    return KeyRouter().Command("UnsetGrabbedKeys", g_variant_new("(i)", window));
}

extern "C" int capi_window_tv_set_special_key_mode(int window, int mode, const char *key)
{
    if (!IsKeyName(key))
        return KEYROUTER_ERROR_INVALID_PARAMETER;
    return KeyRouter().Command("SetSpecialKeyMode", g_variant_new("(iis)", window, mode, key));
}
