#include "TestBus.h"

#include <cstdlib>

namespace hadrix::test {

namespace {

// A round trip on connection: the bus answers in order, so everything sent before was handled.
void Ping(GDBusConnection *connection)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    "GetId", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
                                    &error);
    ASSERT_TRUE(reply) << "the bus did not answer: " << error->message;
}

} // namespace

void PrivateSystemBus::SetUp()
{
    m_bus.reset(g_test_dbus_new(G_TEST_DBUS_NONE));
    g_test_dbus_up(m_bus.get());
    setenv("DBUS_SYSTEM_BUS_ADDRESS", g_test_dbus_get_bus_address(m_bus.get()), 1);
}

void PrivateSystemBus::TearDown()
{
    // The shared connection ends the process when its bus goes away, unless told otherwise.
    ConnectionRef shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (shared)
        g_dbus_connection_set_exit_on_close(shared.get(), FALSE);
    g_test_dbus_down(m_bus.get());
    m_bus.reset();
}

ConnectionRef NewSystemBusConnection()
{
    g_autoptr(GError) error = nullptr;
    ConnectionRef connection(g_dbus_connection_new_for_address_sync(
        getenv("DBUS_SYSTEM_BUS_ADDRESS"),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error));
    EXPECT_TRUE(connection) << "no connection to the test bus: " << (error ? error->message : "");
    return connection;
}

void SyncSystemBus()
{
    ConnectionRef shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    ASSERT_TRUE(shared) << "no system bus";
    Ping(shared.get());
}

} // namespace hadrix::test
