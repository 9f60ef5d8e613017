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

CSystemClock g_systemClock;
std::atomic<CClock *> g_clock{&g_systemClock};

} // namespace

CClock &CClock::Get()
{
    return *g_clock.load(std::memory_order_acquire);
}

void CClock::Set(CClock *clock)
{
    g_clock.store(clock ? clock : &g_systemClock, std::memory_order_release);
}
