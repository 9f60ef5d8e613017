// The system-bus plumbing the service's D-Bus adapters share: connecting, caching the
// connection, and broadcasting a signal so that it has left the process when the call returns.
#pragma once

#include <mutex>

#include <gio/gio.h>

#include "UniqueHandle.h"

namespace hadrix {

// A reference to a bus connection, given back when its holder goes.
using ConnectionPtr = UniqueHandle<GDBusConnection, g_object_unref>;

// A new reference to the system bus, or null after logging why there is none.
GDBusConnection *ConnectSystemBus();

// The connection held in `cache` (guarded by `lock`), connecting first when there is none. A
// failed connect leaves the cache empty, so the next call tries again.
GDBusConnection *CachedSystemBus(ConnectionPtr &cache, std::mutex &lock);

// Broadcasts a signal (no destination) and flushes the connection, so that a process that exits
// right after still delivers it. Takes the floating body. False after logging the error.
bool BroadcastSignal(GDBusConnection *connection, const char *path, const char *interface,
                     const char *member, GVariant *body);

} // namespace hadrix
