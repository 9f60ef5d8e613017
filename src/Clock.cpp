#include "Clock.h"

#include <atomic>
#include <cerrno>
#include <ctime>

namespace {

class CSystemClock : public CClock {
public:
    uint64_t NowMs() override
    {
        struct timespec now {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
    }

    guint AddTimeout(unsigned int ms, GSourceFunc fn, gpointer data, GDestroyNotify destroy) override
    {
        return g_timeout_add_full(G_PRIORITY_DEFAULT, ms, fn, data, destroy);
    }

    void RemoveTimeout(guint id) override { g_source_remove(id); }

    // A signal that interrupts the pause does not shorten it.
    void Sleep(unsigned long ms) override
    {
        struct timespec remaining {};
        remaining.tv_sec = static_cast<time_t>(ms / 1000);
        remaining.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
        while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
        }
    }
};

// Never destroyed: a worker thread may still be pausing on it while the process exits.
CClock *SystemClock()
{
    static CClock *const clock = new CSystemClock();
    return clock;
}

std::atomic<CClock *> g_clock{nullptr};

} // namespace

CClock &CClock::Get()
{
    CClock *clock = g_clock.load(std::memory_order_acquire);
    return clock ? *clock : *SystemClock();
}

void CClock::Set(CClock *clock)
{
    g_clock.store(clock, std::memory_order_release);
}
