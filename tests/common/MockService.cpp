#include "MockService.h"


namespace hadrix::test {

namespace {

// RequestName's flag and answer, as the D-Bus message bus numbers them.
constexpr guint32 kDoNotQueue = 4;
constexpr guint32 kPrimaryOwner = 1;

void CallBus(GDBusConnection *connection, const char *method, GVariant *arguments, guint32 *answer)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method, arguments,
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    ASSERT_TRUE(reply) << method << " failed: " << error->message;
    g_variant_get(reply, "(u)", answer);
}

} // namespace

VariantRef Hold(GVariant *value)
{
    return value ? VariantRef(g_variant_ref_sink(value), g_variant_unref) : nullptr;
}

MockService::MockService(const std::string &busName, const std::string &objectPath, const std::string &xml)
    : m_busName(busName), m_objectPath(objectPath)
{
    m_thread.Run([this, &xml] { Export(xml); });
}

MockService::~MockService()
{
    m_thread.Run([this] { Withdraw(); });
}

void MockService::Export(const std::string &xml)
{
    m_connection = NewSystemBusConnection();
    ASSERT_TRUE(m_connection);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(xml.c_str(), &error);
    ASSERT_TRUE(node) << "introspection of " << m_busName << ": " << error->message;
    static const GDBusInterfaceVTable vtable = {OnMethodCall, nullptr, nullptr, {}};
    for (GDBusInterfaceInfo **interface = node->interfaces; *interface; ++interface) {
        guint id = g_dbus_connection_register_object(m_connection.get(), m_objectPath.c_str(), *interface, &vtable,
                                                     this, nullptr, &error);
        ASSERT_NE(id, 0u) << "cannot export " << m_objectPath << ": " << error->message;
        m_registrations.push_back(id);
    }
    guint32 answer = 0;
    CallBus(m_connection.get(), "RequestName", g_variant_new("(su)", m_busName.c_str(), kDoNotQueue), &answer);
    ASSERT_EQ(answer, kPrimaryOwner) << m_busName << " is owned by another peer";
}

void MockService::Withdraw()
{
    if (!m_connection)
        return;
    for (guint id : m_registrations)
        g_dbus_connection_unregister_object(m_connection.get(), id);
    guint32 answer = 0;
    // Released before the next mock of the same name asks for it.
    CallBus(m_connection.get(), "ReleaseName", g_variant_new("(s)", m_busName.c_str()), &answer);
    g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
    m_connection.reset();
}

void MockService::OnMethodCall(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *method,
                               GVariant *arguments, GDBusMethodInvocation *invocation, gpointer self)
{
    static_cast<MockService *>(self)->Serve(method, arguments, invocation);
}

void MockService::Serve(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation)
{
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_calls.push_back(Call{method, Hold(arguments)});
        auto found = m_handlers.find(method);
        if (found != m_handlers.end())
            handler = found->second;
    }
    const Reply reply = handler ? handler(arguments) : Reply::Value(nullptr);
    if (!reply.errorName.empty()) {
        g_dbus_method_invocation_return_dbus_error(invocation, reply.errorName.c_str(), "refused by the mock service");
    } else {
        g_dbus_method_invocation_return_value(invocation, reply.value.get());
    }
}

void MockService::Handle(const std::string &method, Handler handler)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_handlers[method] = std::move(handler);
}

std::vector<MockService::Call> MockService::Calls() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_calls;
}

std::vector<MockService::Call> MockService::CallsTo(const std::string &method) const
{
    std::vector<Call> matching;
    for (Call &call : Calls())
        if (call.method == method)
            matching.push_back(std::move(call));
    return matching;
}

void MockService::ClearCalls()
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_calls.clear();
}

} // namespace hadrix::test
