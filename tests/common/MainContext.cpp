#include "MainContext.h"

#include <future>

namespace hadrix::test {

namespace {

gboolean Tick(gpointer)
{
    return G_SOURCE_CONTINUE;
}

void DestroySource(GSource *source)
{
    g_source_destroy(source);
    g_source_unref(source);
}

gboolean RunWork(gpointer data)
{
    (*static_cast<std::function<void()> *>(data))();
    return G_SOURCE_REMOVE;
}

} // namespace

int RunPending(GMainContext *context)
{
    // A source that is always ready would keep this going for ever; this many rounds is a test bug.
    constexpr int kMaxRounds = 100000;
    int rounds = 0;
    while (rounds < kMaxRounds && g_main_context_iteration(context, FALSE))
        ++rounds;
    return rounds;
}

bool RunUntil(GMainContext *context, const std::function<bool()> &done, int timeoutMs)
{
    const gint64 end = g_get_monotonic_time() + gint64(timeoutMs) * 1000;
    {
        // Wakes the blocking iteration, so done() is looked at while nothing arrives.
        UniqueHandle<GSource, DestroySource> tick(g_timeout_source_new(10));
        g_source_set_callback(tick.get(), Tick, nullptr, nullptr);
        g_source_attach(tick.get(), context);
        while (!done() && g_get_monotonic_time() < end)
            g_main_context_iteration(context, TRUE);
    }
    RunPending(context);
    return done();
}

LoopThread::LoopThread() : m_context(g_main_context_new()), m_loop(g_main_loop_new(m_context.get(), FALSE))
{
    m_thread = std::thread([this] {
        g_main_context_push_thread_default(m_context.get());
        g_main_loop_run(m_loop.get());
        g_main_context_pop_thread_default(m_context.get());
    });
}

LoopThread::~LoopThread()
{
    Run([this] { g_main_loop_quit(m_loop.get()); });
    m_thread.join();
}

void LoopThread::Run(const std::function<void()> &work)
{
    std::promise<void> ran;
    std::function<void()> task = [&work, &ran] {
        work();
        ran.set_value();
    };
    // A source, not g_main_context_invoke: that would run the work here while the loop has not
    // taken the context yet.
    GSource *source = g_idle_source_new();
    g_source_set_callback(source, RunWork, &task, nullptr);
    g_source_attach(source, m_context.get());
    g_source_unref(source);
    ran.get_future().wait();
}

} // namespace hadrix::test
