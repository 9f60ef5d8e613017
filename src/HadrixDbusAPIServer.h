// The service's own D-Bus endpoint for client applications: a liveness check, subscription of
// client processes (remembered across restarts in a small file), the USB audio device list, and
// a broadcast when the device situation changes. It runs its own GLib main loop on a thread of
// its own, so D-Bus traffic never waits for the service's main loop.
#pragma once

#include <cstddef>
#include <istream>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include "Singleton.h"
#include "SystemBus.h"
#include "UniqueHandle.h"
#include "hadrix-server-gen.h"

class CUSBAPIServer : public CSingleton<CUSBAPIServer> {
    friend class CSingleton<CUSBAPIServer>;

public:
    ~CUSBAPIServer() override;

    // Loads the subscribers and starts the listener thread; false if the thread cannot start.
    bool CreateListener();
    // Ends the listener's loop from any thread and waits for the thread.
    void DestroyListener();

    // Tells clients that the device situation changed. Any thread; the argument is not used.
    static void m_SendEventToClient(void *data);

    // Process name -> client object name.
    using SubscriberTable = std::map<std::string, std::string>;

    // The most processes the table holds: every line of the subscriber file is at most two words
    // of kMaxWordBytes, a blank and a line feed, so the file stays under 64 KiB.
    static constexpr size_t kMaxWordBytes = 255;
    static constexpr size_t kMaxSubscriberFileBytes = 64 * 1024;
    static constexpr size_t kMaxSubscribers = (kMaxSubscriberFileBytes - 1) / (2 * kMaxWordBytes + 2);

    // The subscriber file, resolved against the application-data root.
    static std::string SubscriberFilePath();
    // Why `word` cannot be one word of the subscriber file, or null when it can: a process name
    // or client object name is stored only when the reader reads it back as the same single
    // word, that is 1 to kMaxWordBytes bytes of UTF-8 without a byte the reader separates words
    // at (the classic locale's white space, \v and \f included).
    static const char *WordFault(std::string_view word);
    // "obj" + the process name, cut to 255 bytes without cutting a character.
    static std::string ClientObjectName(const char *processName);
    // The subscriber file's text: "name object\n" per process, in the table's order.
    static std::string FormatSubscribers(const SubscriberTable &table);
    // The (process name, client object name) pairs of a subscriber file's text, in file order:
    // two words each, read from its first kMaxSubscriberFileBytes at most; a trailing lone word
    // is ignored, a pair with a word that WordFault refuses is left out, and reading stops after
    // kMaxSubscribers pairs. Every refusal is logged.
    static std::vector<std::pair<std::string, std::string>> ReadSubscribers(std::istream &in);

private:
    CUSBAPIServer();

    static void *m_Listener(void *data);
    // Sets up the listener's context and loop; false when DestroyListener came first.
    bool m_PrepareLoop(GMainContext *context, GMainLoop *loop);
    void m_ReleaseLoop();

    static void m_OnBusAcquired(GDBusConnection *connection, const gchar *name, gpointer data);
    static void m_OnNameAcquired(GDBusConnection *connection, const gchar *name, gpointer data);
    static void m_OnNameLost(GDBusConnection *connection, const gchar *name, gpointer data);
    void m_ExportSkeleton(GDBusConnection *connection);

    static void m_HandleMethodCall(GDBusConnection *connection, const gchar *sender,
                                   const gchar *objectPath, const gchar *interfaceName,
                                   const gchar *methodName, GVariant *parameters,
                                   GDBusMethodInvocation *invocation, gpointer data);
    void m_CheckDbusConnection(GVariant *parameters, GDBusMethodInvocation *invocation);
    void m_ReceiveSubscribeHadrixServiceCallback(GVariant *parameters,
                                                 GDBusMethodInvocation *invocation);
    void m_ReceiveUnsubscribeHadrixServiceCallback(GVariant *parameters,
                                                   GDBusMethodInvocation *invocation);
    void m_ReceiveGetDeviceListInfo(GVariant *parameters, GDBusMethodInvocation *invocation);

    // The skeleton signals are emitted through, with a reference of the caller's; null before the
    // bus was acquired.
    OrgNimbosHadrixServerInterface *m_RefSkeleton();
    void m_ReleaseSkeleton();

    // Adds the process to the table or gives it the new object name; false when it is new and
    // the table is full.
    bool m_StoreSubscriber(const char *processName, const std::string &clientObj);

    void m_SaveConnection();
    void m_LoadConnection();

    SubscriberTable m_MapConnection;
    std::mutex m_ConnectionMutex;

    std::thread m_ListenerThread;
    GDBusInterfaceVTable m_InterfaceVTable;

    // Listener-thread state; the loop and its context are also reached by DestroyListener, so
    // they are guarded by m_LoopMutex.
    std::mutex m_LoopMutex;
    GMainContext *m_pContext = nullptr;
    GMainLoop *m_pMainLoop = nullptr;
    bool m_bStopping = false;
    // The served interface, the connection the object is registered on and its registration live
    // as long as the listener thread runs.
    UniqueHandle<GDBusInterfaceInfo, g_dbus_interface_info_unref> m_pInterfaceInfo;
    hadrix::ConnectionPtr m_pConnection;
    guint m_nRegisterId = 0;

    using SkeletonPtr = UniqueHandle<OrgNimbosHadrixServerInterface, g_object_unref>;
    // Written by the listener thread, read by m_SendEventToClient on the main loop.
    std::mutex m_SkeletonMutex;
    SkeletonPtr m_pSkeleton;
};
