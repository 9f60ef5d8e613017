// The deadlock watchdog on the host is systemd's service watchdog: the notify protocol carries the
// heartbeat ("WATCHDOG=1"), the allowed period ("WATCHDOG_USEC=") and readiness ("READY=1").
// Without NOTIFY_SOCKET (not started by systemd) sd_notify sends nothing and succeeds.
#include "nimbos/watchdog.h"

#include "HostLog.h"

#include <glib.h>
#include <systemd/sd-daemon.h>

#include <atomic>
#include <cerrno>
#include <string>

namespace {

std::atomic<long long> registeredPeriodUs{0};

int Notify(const char *state)
{
    int ret = sd_notify(0, state);
    if (ret < 0)
        HOST_LOG(DLOG_ERROR, "watchdog notification \"%s\" failed: %s", state, g_strerror(-ret));
    return ret < 0 ? ret : 0;
}

// The service is ready once its loop dispatches; the period is handed over with it so that a
// unit file need not repeat it.
gboolean AnnounceReady(gpointer)
{
    Notify("READY=1");
    Notify(("WATCHDOG_USEC=" + std::to_string(registeredPeriodUs.load())).c_str());
    return G_SOURCE_REMOVE;
}

} // namespace

extern "C" int smart_deadlock_register_watchdog_service(int timeout_s)
{
    if (timeout_s <= 0) {
        HOST_LOG(DLOG_ERROR, "watchdog period %d s refused", timeout_s);
        return -EINVAL;
    }
    long long unregistered = 0;
    if (!registeredPeriodUs.compare_exchange_strong(unregistered, static_cast<long long>(timeout_s) * G_USEC_PER_SEC)) {
        HOST_LOG(DLOG_WARN, "watchdog already registered, period %lld us kept", unregistered);
        return 0;
    }
    g_idle_add(AnnounceReady, nullptr);
    return 0;
}

extern "C" int smart_deadlock_watchdog_notify(void)
{
    return Notify("WATCHDOG=1");
}
