// A main-loop timeout owned by the object that arms it. The timer keeps the source id of its
// pending timeout (0 when none) and zeroes it when the timeout ends — its callback returned
// false — or is stopped; the owner's destruction stops it, so no callback reaches a destroyed
// owner. Time comes from CClock, so tests fire timers by moving their clock on.
//
// Start and Stop may be called from any thread, also from inside the timer's own callback.
#pragma once

#include <glib.h>

class CTimer {
public:
    CTimer() = default;
    ~CTimer();
    CTimer(const CTimer &) = delete;
    CTimer &operator=(const CTimer &) = delete;

    // Stops a pending timeout and arms a new one: callback(data) after intervalMs, and again
    // every intervalMs while it returns true (G_SOURCE_CONTINUE).
    void Start(unsigned int intervalMs, GSourceFunc callback, gpointer data);
    void Stop();
    bool IsPending() const;
    // The pending timeout's source id; 0 when none is pending.
    guint Id() const;
    // Called from a callback: whether this timer fired it and has not been stopped or armed
    // again since (from another thread, while the callback waited for a lock, say).
    bool IsFiring() const;

private:
    struct Arming;
    static gboolean m_OnTimeout(gpointer arming);
    static void m_ForgetArming(gpointer arming);

    // The timeout armed last; its link back to this timer is cut when it is stopped.
    Arming *m_pArming = nullptr;
    guint m_Id = 0;
};
