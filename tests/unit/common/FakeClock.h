// A clock for in-process tests: time moves on only when the test says so. The timeouts the
// service arms through CClock fire in the order they fall due, each followed by the main-loop work
// it set off, so that a test can let ten minutes pass in a few microseconds.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include <glib.h>

#include "Clock.h"

class FakeClock : public CClock {
public:
    // Puts itself in place of the system's clock; startMs is the uptime the test starts at.
    explicit FakeClock(uint64_t startMs = 60000) : m_NowMs(startMs) { CClock::Set(this); }
    ~FakeClock() override
    {
        CClock::Set(nullptr);
        std::vector<Timeout> left;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            left.swap(m_Timeouts);
        }
        for (Timeout &timeout : left)
            Forget(timeout);
    }
    FakeClock(const FakeClock &) = delete;
    FakeClock &operator=(const FakeClock &) = delete;

    uint64_t NowMs() override { return m_NowMs.load(); }

    guint AddTimeout(unsigned int ms, GSourceFunc fn, gpointer data, GDestroyNotify destroy) override
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        const guint id = ++m_LastId;
        m_Timeouts.push_back({id, m_NowMs.load() + ms, ms, fn, data, destroy, false});
        return id;
    }

    void RemoveTimeout(guint id) override
    {
        std::optional<Timeout> removed;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            auto it = Find(id);
            if (it == m_Timeouts.end())
                return;
            if (id == m_FiringId) {
                it->removed = true; // forgotten once its callback has returned
                return;
            }
            removed = *it;
            m_Timeouts.erase(it);
        }
        Forget(*removed);
    }

    // A worker's pause takes no time: the clock moves on by ms at once.
    void Sleep(unsigned long ms) override { m_NowMs += ms; }

    // Puts the clock at ms, firing nothing: for tests of uptime-based rules with no timer pending.
    void SetNowMs(uint64_t ms) { m_NowMs = ms; }

    // Moves time on by ms, firing on the way every timeout that falls due, in the order they fall
    // due; after each, the work that became ready on the default main context runs.
    void Advance(uint64_t ms)
    {
        const uint64_t target = m_NowMs.load() + ms;
        while (FireNextDueBy(target))
            RunReadyWork();
        m_NowMs = std::max(m_NowMs.load(), target);
    }

    // Fires what is due now (0 ms timeouts, say).
    void RunDue() { Advance(0); }

    size_t PendingCount()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Timeouts.size();
    }

    // Milliseconds until the next timeout falls due; none when no timeout is pending.
    std::optional<uint64_t> NextDueIn()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_Timeouts.empty())
            return std::nullopt;
        auto next = std::min_element(m_Timeouts.begin(), m_Timeouts.end(), Earlier);
        return next->dueMs > m_NowMs.load() ? next->dueMs - m_NowMs.load() : 0;
    }

    // Runs what is ready on the default main context now, without blocking.
    static void RunReadyWork()
    {
        for (int i = 0; i < 10000 && g_main_context_iteration(nullptr, FALSE); ++i) {
        }
    }

private:
    struct Timeout {
        guint id;
        uint64_t dueMs;
        unsigned int intervalMs;
        GSourceFunc fn;
        gpointer data;
        GDestroyNotify destroy;
        bool removed;
    };

    static bool Earlier(const Timeout &a, const Timeout &b)
    {
        return a.dueMs != b.dueMs ? a.dueMs < b.dueMs : a.id < b.id;
    }

    static void Forget(Timeout &timeout)
    {
        if (timeout.destroy)
            timeout.destroy(timeout.data);
    }

    std::vector<Timeout>::iterator Find(guint id)
    {
        return std::find_if(m_Timeouts.begin(), m_Timeouts.end(), [id](const Timeout &t) { return t.id == id; });
    }

    // Fires the earliest timeout due by target; false when none is.
    bool FireNextDueBy(uint64_t target)
    {
        Timeout due{};
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            auto next = std::min_element(m_Timeouts.begin(), m_Timeouts.end(), Earlier);
            if (next == m_Timeouts.end() || next->dueMs > target)
                return false;
            due = *next;
            m_NowMs = std::max(m_NowMs.load(), due.dueMs);
            m_FiringId = due.id;
        }
        const gboolean again = due.fn(due.data);
        std::optional<Timeout> ended;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_FiringId = 0;
            auto it = Find(due.id);
            if (!again || it->removed) {
                ended = *it;
                m_Timeouts.erase(it);
            } else {
                it->dueMs = m_NowMs.load() + std::max(it->intervalMs, 1u);
            }
        }
        if (ended)
            Forget(*ended);
        return true;
    }

    std::atomic<uint64_t> m_NowMs;
    std::mutex m_Mutex;
    std::vector<Timeout> m_Timeouts;
    guint m_LastId = 0;
    guint m_FiringId = 0;
};
