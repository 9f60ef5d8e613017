// libudev handles owned by unique_ptr, and the GLib source that reads a udev monitor on the
// main context of the thread that asked for it: shared by the host libraries that watch devices.
#pragma once

#include <glib-unix.h>
#include <glib.h>
#include <libudev.h>

#include <memory>
#include <new>
#include <string>

#include "HostLog.h"

namespace nimbos {

template <typename T, T *(*Unref)(T *)>
struct UdevUnref {
    void operator()(T *object) const { Unref(object); }
};
using UdevPtr = std::unique_ptr<udev, UdevUnref<udev, udev_unref>>;
using UdevDevicePtr = std::unique_ptr<udev_device, UdevUnref<udev_device, udev_device_unref>>;
using UdevEnumeratePtr = std::unique_ptr<udev_enumerate, UdevUnref<udev_enumerate, udev_enumerate_unref>>;
using UdevMonitorPtr = std::unique_ptr<udev_monitor, UdevUnref<udev_monitor, udev_monitor_unref>>;

struct SourceRemover {
    void operator()(GSource *source) const
    {
        g_source_destroy(source);
        g_source_unref(source);
    }
};
using SourcePtr = std::unique_ptr<GSource, SourceRemover>;

inline std::string UdevText(const char *value)
{
    return value ? value : "";
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

} // namespace nimbos
