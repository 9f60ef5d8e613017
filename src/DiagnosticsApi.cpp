#include "DiagnosticsApi.h"

#include <vector>

#include "DecisionLog.h"
#include "HadrixBusNames.h"
#include "JsonVariant.h"
#include "Log.h"
#include "hadrix-diagnostics-gen.h"

namespace {

using namespace hadrix::diagnostics;

// Each record is serialised as it is added, which frees its tree of values: the reply never
// holds the whole history as a tree.
template <typename Record>
GVariant *Dictionaries(const std::vector<Record> &records)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("aa{sv}"));
    for (const Record &record : records) {
        GVariant *dictionary = g_variant_ref_sink(JsonToVariant(ToJson(record)));
        g_variant_get_data(dictionary);
        g_variant_builder_add_value(&builder, dictionary);
        g_variant_unref(dictionary);
    }
    return g_variant_builder_end(&builder);
}

} // namespace

CDiagnosticsApi::CDiagnosticsApi() : m_VTable{m_HandleMethodCall, nullptr, nullptr, {}} {}

CDiagnosticsApi::~CDiagnosticsApi()
{
    Unregister();
}

bool CDiagnosticsApi::Register(GDBusConnection *connection)
{
    g_autoptr(GError) error = nullptr;
    const guint id = g_dbus_connection_register_object(connection, kObjectPath,
                                                       org_nimbos_hadrix_diagnostics_interface_info(), &m_VTable,
                                                       this, nullptr, &error);
    if (id == 0) {
        LOGE("cannot serve %s at %s: %s", kInterface, kObjectPath, error ? error->message : "no reason given");
        return false;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_pConnection.reset(G_DBUS_CONNECTION(g_object_ref(connection)));
    m_nRegisterId = id;
    return true;
}

void CDiagnosticsApi::Unregister()
{
    hadrix::ConnectionPtr connection;
    guint id = 0;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        connection = std::move(m_pConnection);
        id = m_nRegisterId;
        m_nRegisterId = 0;
    }
    if (connection && id != 0)
        g_dbus_connection_unregister_object(connection.get(), id);
}

void CDiagnosticsApi::Announce(const Decision &decision)
{
    hadrix::ConnectionPtr connection;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_pConnection)
            connection.reset(G_DBUS_CONNECTION(g_object_ref(m_pConnection.get())));
    }
    if (!connection)
        return;
    g_autoptr(GError) error = nullptr;
    // Queued for the connection's own thread: the caller does not wait for the bus.
    if (!g_dbus_connection_emit_signal(connection.get(), nullptr, kObjectPath, kInterface, kDecision,
                                       g_variant_new("(@a{sv})", JsonToVariant(ToJson(decision))), &error))
        LOGW("cannot announce decision %llu: %s", static_cast<unsigned long long>(decision.seq), error->message);
}

void CDiagnosticsApi::m_HandleMethodCall(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                                         const gchar *methodName, GVariant *parameters,
                                         GDBusMethodInvocation *invocation, gpointer)
{
    // GDBus answers a call of another method, or with other arguments than the introspection
    // data gives, with an error before it gets here.
    CDecisionLog *log = CSingleton<CDecisionLog>::GetInstance();
    if (g_strcmp0(methodName, kGetVerdicts) == 0) {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(@aa{sv})", Dictionaries(log->Verdicts())));
    } else if (g_strcmp0(methodName, kGetHistory) == 0) {
        guint32 count = 0;
        g_variant_get(parameters, "(u)", &count);
        g_dbus_method_invocation_return_value(invocation,
                                              g_variant_new("(@aa{sv})", Dictionaries(log->History(count))));
    } else {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                              "no method %s", methodName);
    }
}
