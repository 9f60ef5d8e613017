#include "SystemBus.h"

#include "Log.h"

namespace hadrix {

GDBusConnection *ConnectSystemBus()
{
    g_autoptr(GError) error = nullptr;
    GDBusConnection *connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!connection)
        LOGE("g_bus_get_sync() error (%s)", error ? error->message : "unknown");
    return connection;
}

GDBusConnection *CachedSystemBus(ConnectionPtr &cache, std::mutex &lock)
{
    std::lock_guard<std::mutex> guard(lock);
    if (!cache)
        cache.reset(ConnectSystemBus());
    return cache.get();
}

bool BroadcastSignal(GDBusConnection *connection, const char *path, const char *interface,
                     const char *member, GVariant *body)
{
    g_autoptr(GError) error = nullptr;
    if (!g_dbus_connection_emit_signal(connection, nullptr, path, interface, member, body, &error) ||
        !g_dbus_connection_flush_sync(connection, nullptr, &error)) {
        LOGE("Error while sending signal [%d] %s", error->code, error->message);
        return false;
    }
    return true;
}

} // namespace hadrix
