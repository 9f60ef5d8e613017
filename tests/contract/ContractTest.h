// The fixture every contract case uses, and what the cases share: recording what callbacks
// heard (and on which thread), waiting for it with a deadline, timing a call.
#pragma once

#include "MainContext.h"
#include "PlatformDriver.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace contract {

// A call to a silent service gives up after 1000 ms; this bounds it with room for a busy machine.
constexpr int kSilentCallBoundMs = 2000;

class ContractTest : public ::testing::Test {
protected:
    void SetUp() override { Driver().SetUp(); }
    void TearDown() override { Driver().TearDown(); }

    PlatformDriver &driver = Driver();
};

// Waits for done() on the main thread, iterating its (the default) main context.
inline bool WaitFor(const std::function<bool()> &done)
{
    return hadrix::test::RunUntil(nullptr, done);
}

inline int RunPending()
{
    return hadrix::test::RunPending(nullptr);
}

// How long f takes, in milliseconds.
template <typename F>
long ElapsedMs(F f)
{
    const auto start = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

// What a callback heard, in order, and the thread each call came on. Callbacks may run on any
// thread.
template <typename Event>
class Heard {
public:
    void Add(Event event)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_events.push_back(std::move(event));
        m_threads.push_back(std::this_thread::get_id());
    }

    std::vector<Event> Events() const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_events;
    }

    size_t Count() const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_events.size();
    }

    // Whether every call came on the given thread.
    bool AllOn(std::thread::id thread) const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        for (std::thread::id id : m_threads)
            if (id != thread)
                return false;
        return true;
    }

    // Waits on the main thread until count calls were heard.
    bool WaitFor(size_t count) const
    {
        return contract::WaitFor([this, count] { return Count() >= count; });
    }

private:
    mutable std::mutex m_lock;
    std::vector<Event> m_events;
    std::vector<std::thread::id> m_threads;
};

} // namespace contract
