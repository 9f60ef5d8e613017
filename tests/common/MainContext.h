// Iterating a GLib main context from a test, and a thread with a main context and loop of its
// own: for waiting on deliveries with a deadline, and for code that must run where the code under
// test cannot block it.
#pragma once

#include <glib.h>

#include <functional>
#include <thread>

#include "UniqueHandle.h"

namespace hadrix::test {

// Dispatches what is ready on context now, without blocking, until nothing is left; returns the
// number of iterations that dispatched something.
int RunPending(GMainContext *context);

// Iterates context until done() holds or timeoutMs of real time have passed, looking at done()
// at least every 10 ms; then runs what is pending. Returns done().
bool RunUntil(GMainContext *context, const std::function<bool()> &done, int timeoutMs = 5000);

// A thread whose thread-default main context is a new one, iterated by a loop until the object
// goes. What it registers delivers there, on this thread.
class LoopThread {
public:
    LoopThread();
    ~LoopThread();
    LoopThread(const LoopThread &) = delete;
    LoopThread &operator=(const LoopThread &) = delete;

    // Runs work on the thread, from its loop, and returns when it has run. Not from the thread.
    void Run(const std::function<void()> &work);

    GMainContext *Context() const { return m_context.get(); }
    std::thread::id Id() const { return m_thread.get_id(); }

private:
    UniqueHandle<GMainContext, g_main_context_unref> m_context;
    UniqueHandle<GMainLoop, g_main_loop_unref> m_loop;
    std::thread m_thread;
};

} // namespace hadrix::test
