// libudev handles owned by unique_ptr, a subsystem's udev monitor and the GLib source that reads
// it on the main context of the thread that asked for it, and the state a library keeps between
// its calls: shared by the host libraries that watch devices.
#pragma once

#include <glib-unix.h>
#include <glib.h>
#include <libudev.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "HostLog.h"
#include "SourcePtr.h"
#include "UniqueHandle.h"

namespace nimbos {

using UdevPtr = UniqueHandle<udev, udev_unref>;
using UdevDevicePtr = UniqueHandle<udev_device, udev_device_unref>;
using UdevEnumeratePtr = UniqueHandle<udev_enumerate, udev_enumerate_unref>;
using UdevMonitorPtr = UniqueHandle<udev_monitor, udev_monitor_unref>;

inline std::string UdevText(const char *value)
{
    return value ? value : "";
}

// A receiving monitor of one subsystem's udev events; null, logged, when it cannot be opened.
inline UdevMonitorPtr OpenSubsystemMonitor(udev *context, const char *subsystem, const char *what)
{
    UdevMonitorPtr monitor(udev_monitor_new_from_netlink(context, "udev"));
    if (!monitor || udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), subsystem, nullptr) < 0 ||
        udev_monitor_enable_receiving(monitor.get()) < 0) {
        HOST_LOG(DLOG_ERROR, "cannot watch the %s: %s", what, strerror(errno));
        return UdevMonitorPtr();
    }
    return monitor;
}

// A source calling onReadable whenever the monitor has events, attached to the caller's
// thread-default main context.
inline SourcePtr AttachMonitorToCallerContext(udev_monitor *monitor, GUnixFDSourceFunc onReadable, const char *name)
{
    SourcePtr source(g_unix_fd_source_new(udev_monitor_get_fd(monitor), G_IO_IN));
    g_source_set_callback(source.get(), G_SOURCE_FUNC(onReadable), nullptr, nullptr);
    g_source_set_name(source.get(), name);
    g_autoptr(GMainContext) context = g_main_context_ref_thread_default();
    g_source_attach(source.get(), context);
    return source;
}

// What the monitor source's next round finds: an event for the callback, no more events, or a
// callback this source no longer serves (unset, replaced or closed meanwhile).
enum class Next { Deliver, Drained, Stale };

// The body of a monitor source's callback: one event at a time from next(delivery), each handed
// to deliver(delivery) without the library's lock held, since the callback may unset itself or
// close the library, which the next round notices. Returns whether the source stays.
template <typename Delivery, typename NextFn, typename DeliverFn>
gboolean DeliverMonitorEvents(NextFn next, DeliverFn deliver, const char *lostWhat)
{
    try {
        for (;;) {
            Delivery delivery;
            switch (next(delivery)) {
            case Next::Deliver:
                deliver(delivery);
                break;
            case Next::Drained:
                return G_SOURCE_CONTINUE;
            case Next::Stale:
                return G_SOURCE_REMOVE;
            }
        }
    } catch (const std::bad_alloc &) {
        HOST_LOG(DLOG_ERROR, "out of memory; %s event is lost", lostWhat);
        return G_SOURCE_CONTINUE;
    }
}

inline bool IsOnCallerContext(GSource *source)
{
    g_autoptr(GMainContext) context = g_main_context_ref_thread_default();
    return g_source_get_context(source) == context;
}

// The results of one library's calls; each library numbers them its own way.
struct LibraryCodes {
    int ok;
    int notOpen;
    int ioError;
    int outOfMemory;
    int invalidParameter;
};

// What a library keeps between its calls, under one lock: its udev context, opened once, and the
// watch that hands events to its one callback. A Watch has the members monitor, source, callback
// and userData; start(context) begins watching (null on failure), attach(monitor) reads the
// monitor on the caller's main context.
template <typename Watch>
class UdevLibrary {
public:
    using Callback = decltype(Watch::callback);
    using StartFn = std::unique_ptr<Watch> (*)(udev *);
    using AttachFn = SourcePtr (*)(udev_monitor *);

    constexpr UdevLibrary(LibraryCodes codes, StartFn start, AttachFn attach)
        : m_codes(codes), m_start(start), m_attach(attach)
    {
    }

    int Open()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_context)
            return m_codes.ok;
        m_context.reset(udev_new());
        if (!m_context) {
            HOST_LOG(DLOG_ERROR, "cannot open udev: %s", strerror(errno));
            return m_codes.ioError;
        }
        return m_codes.ok;
    }

    int Close()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_context)
            return m_codes.notOpen;
        m_watch.reset();
        m_context.reset();
        return m_codes.ok;
    }

    // Registering from another thread moves the watch's source to that thread's main context.
    int SetCallback(Callback callback, void *userData)
    {
        if (!callback)
            return m_codes.invalidParameter;
        try {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_context)
                return m_codes.notOpen;
            if (!m_watch) {
                m_watch = m_start(m_context.get());
                if (!m_watch)
                    return m_codes.ioError;
            } else if (!IsOnCallerContext(m_watch->source.get())) {
                m_watch->source = m_attach(m_watch->monitor.get());
            }
            m_watch->callback = callback;
            m_watch->userData = userData;
            return m_codes.ok;
        } catch (const std::bad_alloc &) {
            return m_codes.outOfMemory;
        }
    }

    int UnsetCallback()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_context)
            return m_codes.notOpen;
        m_watch.reset();
        return m_codes.ok;
    }

    // list(context) under the lock: its result, or notOpen.
    template <typename List>
    int WithContext(List list)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_context ? list(m_context.get()) : m_codes.notOpen;
    }

    // take(watch) under the lock while the running source still serves the callback.
    template <typename Take>
    Next WithCurrentWatch(Take take)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_watch || m_watch->source.get() != g_main_current_source())
            return Next::Stale;
        return take(*m_watch);
    }

private:
    const LibraryCodes m_codes;
    const StartFn m_start;
    const AttachFn m_attach;
    std::mutex m_mutex;
    UdevPtr m_context;
    std::unique_ptr<Watch> m_watch;
};

} // namespace nimbos
