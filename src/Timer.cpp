#include "Timer.h"

#include <mutex>

#include "Clock.h"

// What a pending timeout carries: the callback to run and the timer that armed it. The link is
// cut (timer null) when the timer is stopped or re-armed, so that a callback still being
// dispatched does not touch a timer that has moved on or is gone.
struct CTimer::Arming {
    CTimer *timer;
    GSourceFunc callback;
    gpointer data;
};

namespace {

// Guards the links between timers and their armings, for every timer: they are reached from the
// main loop (a timeout ending) and from the threads that start and stop timers.
std::mutex g_armingLock;

// The arming whose callback this thread runs now, if any.
thread_local const void *t_firing = nullptr;

} // namespace

CTimer::~CTimer()
{
    Stop();
}

void CTimer::Start(unsigned int intervalMs, GSourceFunc callback, gpointer data)
{
    Stop();
    auto *arming = new Arming{this, callback, data};
    std::lock_guard<std::mutex> lock(g_armingLock);
    m_pArming = arming;
    m_Id = CClock::Get().AddTimeout(intervalMs, m_OnTimeout, arming, m_ForgetArming);
}

void CTimer::Stop()
{
    guint id = 0;
    {
        std::lock_guard<std::mutex> lock(g_armingLock);
        if (m_pArming)
            m_pArming->timer = nullptr;
        m_pArming = nullptr;
        id = m_Id;
        m_Id = 0;
    }
    // Outside the lock: removing a timeout may run its destroy notification at once.
    if (id != 0)
        CClock::Get().RemoveTimeout(id);
}

bool CTimer::IsPending() const
{
    return Id() != 0;
}

guint CTimer::Id() const
{
    std::lock_guard<std::mutex> lock(g_armingLock);
    return m_Id;
}

bool CTimer::IsFiring() const
{
    std::lock_guard<std::mutex> lock(g_armingLock);
    return m_pArming && m_pArming == t_firing;
}

gboolean CTimer::m_OnTimeout(gpointer data)
{
    auto *arming = static_cast<Arming *>(data);
    const void *outer = t_firing;
    t_firing = arming;
    const gboolean again = arming->callback(arming->data);
    t_firing = outer;
    if (!again) {
        std::lock_guard<std::mutex> lock(g_armingLock);
        if (arming->timer) {
            arming->timer->m_Id = 0;
            arming->timer->m_pArming = nullptr;
            arming->timer = nullptr;
        }
    }
    return again;
}

// The timeout is gone, whoever removed it (a clock that ends removes what is pending): a timer
// still linked to it is pending no more.
void CTimer::m_ForgetArming(gpointer data)
{
    auto *arming = static_cast<Arming *>(data);
    {
        std::lock_guard<std::mutex> lock(g_armingLock);
        if (arming->timer) {
            arming->timer->m_Id = 0;
            arming->timer->m_pArming = nullptr;
        }
    }
    delete arming;
}
