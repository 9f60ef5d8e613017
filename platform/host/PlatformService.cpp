#include "PlatformService.h"

#include "HostLog.h"

#include <utility>

namespace nimbos {

namespace {

constexpr int kCallTimeoutMs = 1000;

std::string ObjectPathOf(const std::string &busName)
{
    std::string path = "/" + busName;
    for (char &c : path)
        if (c == '.')
            c = '/';
    return path;
}

ConnectionRef SystemBus(const char *purpose)
{
    g_autoptr(GError) error = nullptr;
    ConnectionRef bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
    if (!bus)
        HOST_LOG(DLOG_ERROR, "no system bus for %s: %s", purpose, error->message);
    return bus;
}

int CallResult(const GError *error)
{
    return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) ? kServiceTimedOut : kServiceIoError;
}

// What a subscription hands to GDBus; owned by the subscription, freed through its destroy notify.
struct SignalDelivery {
    std::string service;
    std::string signal;
    std::string type;
    PlatformService::SignalHandler handler;
};

void DeliverSignal(GDBusConnection *, const char *, const char *, const char *, const char *,
                   GVariant *arguments, gpointer data)
{
    auto *delivery = static_cast<SignalDelivery *>(data);
    if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE(delivery->type.c_str()))) {
        HOST_LOG(DLOG_WARN, "%s.%s with arguments %s refused: expected %s", delivery->service.c_str(),
                 delivery->signal.c_str(), g_variant_get_type_string(arguments), delivery->type.c_str());
        return;
    }
    delivery->handler(arguments);
}

void FreeDelivery(gpointer data)
{
    delete static_cast<SignalDelivery *>(data);
}

} // namespace

PlatformService::PlatformService(const char *busName) : m_busName(busName), m_objectPath(ObjectPathOf(m_busName))
{
}

int PlatformService::Call(const char *method, GVariant *arguments, const GVariantType *replyType,
                          GVariant **reply) const
{
    // The call owns the arguments from here on, whatever happens.
    g_autoptr(GVariant) owned = arguments ? g_variant_ref_sink(arguments) : nullptr;
    ConnectionRef bus = SystemBus(method);
    if (!bus)
        return kServiceIoError;
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) result = g_dbus_connection_call_sync(
        bus.get(), Name(), m_objectPath.c_str(), Name(), method, owned, replyType,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, nullptr, &error);
    if (!result) {
        HOST_LOG(DLOG_ERROR, "%s.%s failed: %s", Name(), method, error->message);
        return CallResult(error);
    }
    if (reply)
        *reply = static_cast<GVariant *>(g_steal_pointer(&result));
    return kServiceOk;
}

int PlatformService::Command(const char *method, GVariant *arguments) const
{
    return Call(method, arguments, G_VARIANT_TYPE_UNIT);
}

int PlatformService::ReadOne(const char *method, GVariant *arguments, const char *tupleType, void *value) const
{
    g_autoptr(GVariant) reply = nullptr;
    int result = Call(method, arguments, G_VARIANT_TYPE(tupleType), &reply);
    if (result == kServiceOk)
        g_variant_get(reply, tupleType, value);
    return result;
}

int PlatformService::ReadInt32(const char *method, GVariant *arguments, gint32 *value) const
{
    return ReadOne(method, arguments, "(i)", value);
}

int PlatformService::ReadUint32(const char *method, GVariant *arguments, guint32 *value) const
{
    return ReadOne(method, arguments, "(u)", value);
}

int PlatformService::ReadBoolean(const char *method, GVariant *arguments, gboolean *value) const
{
    return ReadOne(method, arguments, "(b)", value);
}

std::unique_ptr<SignalSubscription> PlatformService::Subscribe(const char *signal, const GVariantType *type,
                                                                SignalHandler handler) const
{
    ConnectionRef bus = SystemBus(signal);
    if (!bus)
        return nullptr;
    g_autofree gchar *typeString = g_variant_type_dup_string(type);
    auto delivery = std::make_unique<SignalDelivery>(SignalDelivery{m_busName, signal, typeString, std::move(handler)});
    guint id = g_dbus_connection_signal_subscribe(bus.get(), Name(), Name(), signal, m_objectPath.c_str(), nullptr,
                                                  G_DBUS_SIGNAL_FLAGS_NONE, DeliverSignal, delivery.release(),
                                                  FreeDelivery);
    return std::make_unique<SignalSubscription>(std::move(bus), id);
}

} // namespace nimbos
