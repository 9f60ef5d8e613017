// The diagnostics D-Bus interface (src/dbus/hadrix-diagnostics.xml): the decision log's
// verdicts and history for clients, read only, and a signal for every decision as it is taken.
// It is served on the client API's connection, registered when the listener thread acquires the
// bus and unregistered when that thread ends, so it lives and dies with the client API.
#pragma once

#include <mutex>

#include <gio/gio.h>

#include "Decision.h"
#include "Singleton.h"
#include "SystemBus.h"

class CDiagnosticsApi : public CSingleton<CDiagnosticsApi> {
    friend class CSingleton<CDiagnosticsApi>;

public:
    ~CDiagnosticsApi() override;

    // Serves the interface on the connection; false (logged) when it cannot be registered.
    bool Register(GDBusConnection *connection);
    void Unregister();
    // Emits the Decision signal. Any thread; nothing while the interface is not served.
    void Announce(const Decision &decision);

private:
    CDiagnosticsApi();

    static void m_HandleMethodCall(GDBusConnection *connection, const gchar *sender, const gchar *objectPath,
                                   const gchar *interfaceName, const gchar *methodName, GVariant *parameters,
                                   GDBusMethodInvocation *invocation, gpointer data);

    GDBusInterfaceVTable m_VTable;
    // Registered from the listener thread, read by Announce on any thread.
    std::mutex m_Mutex;
    hadrix::ConnectionPtr m_pConnection;
    guint m_nRegisterId = 0;
};
