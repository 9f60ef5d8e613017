// A private D-Bus daemon as the system bus of a test binary, and what talking to it takes.
//
// GDBus keeps the process's system-bus connection for the life of the process, so a binary has
// one bus for all its tests, started before anything connects: register the environment in
// main(), before RUN_ALL_TESTS:
//     testing::AddGlobalTestEnvironment(new hadrix::test::PrivateSystemBus);
#pragma once

#include <gio/gio.h>
#include <gtest/gtest.h>

#include "UniqueHandle.h"

namespace hadrix::test {

using ConnectionRef = UniqueHandle<GDBusConnection, g_object_unref>;

class PrivateSystemBus : public ::testing::Environment {
public:
    // Starts the daemon and points DBUS_SYSTEM_BUS_ADDRESS at it.
    void SetUp() override;
    // Stops it; the process's own connection is told first not to end the process when it closes.
    void TearDown() override;

private:
    UniqueHandle<GTestDBus, g_object_unref> m_bus;
};

// A connection of its own to the system bus (not the process's shared one), made on the calling
// thread: its method calls and signals are dispatched on that thread's thread-default context.
ConnectionRef NewSystemBusConnection();

// Returns once the bus has handled every message sent so far on the process's shared system-bus
// connection (the one g_bus_get gives, which the code under test uses): signal subscriptions made
// on it before are in force afterwards, so a signal emitted next reaches them.
void SyncSystemBus();

} // namespace hadrix::test
