// Where the service's time comes from: the monotonic clock, the main loop's timeouts and the
// pauses of worker threads. The service runs on the system's clock; a test puts a clock of its
// own in place, which moves on only when the test says so, so that every timer and every
// uptime-based judgement can be driven without waiting.
#pragma once

#include <cstdint>

#include <glib.h>

class CClock {
public:
    virtual ~CClock() = default;

    // Milliseconds of the monotonic clock (the kernel log's time base).
    virtual uint64_t NowMs() = 0;
    // A timeout on the default main context: fn(data) after ms, and again every ms while it
    // returns true; destroy(data) once it has ended or been removed. Callable from any thread.
    virtual guint AddTimeout(unsigned int ms, GSourceFunc fn, gpointer data, GDestroyNotify destroy) = 0;
    virtual void RemoveTimeout(guint id) = 0;
    // Blocks the calling thread for ms (a worker's pause between attempts).
    virtual void Sleep(unsigned long ms) = 0;

    // The clock in use: the system's, unless a test has put another in place.
    static CClock &Get();
    // For tests: clock (not owned) replaces the system's; null puts the system's back.
    static void Set(CClock *clock);
};
