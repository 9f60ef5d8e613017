// The fake service loop: create, a GLib main loop on the default context until service_app_exit
// (or SIGTERM/SIGINT), then terminate. Launch requests a test sends reach the app_control
// callback on that loop, as Launch calls on the bus do on the host.
#include "AppControlHandle.h"
#include "FakeCore.h"
#include "SourcePtr.h"

#include <glib-unix.h>

#include <cerrno>
#include <csignal>
#include <deque>
#include <mutex>

namespace {

using nimbos::fake::ExtraData;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Record;
using nimbos::fake::detail::Text;

struct Request {
    std::string operation;
    ExtraData extraData;
};

struct Loop {
    std::mutex lock;
    GMainLoop *running = nullptr;
    bool exitRequested = false;
    unsigned long run = 0; // tells the requests of one run of the loop from a later run's
    service_app_lifecycle_callback_s *callbacks = nullptr;
    void *userData = nullptr;
    std::deque<Request> waiting; // sent while no loop ran
};

Loop &TheLoop()
{
    static Loop *loop = new Loop;
    return *loop;
}

void RequestExit()
{
    Loop &loop = TheLoop();
    std::lock_guard<std::mutex> lock(loop.lock);
    loop.exitRequested = true;
    if (loop.running)
        g_main_loop_quit(loop.running);
}

void Serve(unsigned long run, const Request &request)
{
    Loop &loop = TheLoop();
    std::unique_lock<std::mutex> lock(loop.lock);
    if (loop.run != run || !loop.running || !loop.callbacks->app_control)
        return;
    const service_app_control_cb serve = loop.callbacks->app_control;
    void *const userData = loop.userData;
    lock.unlock();
    app_control_s handle;
    handle.operation = request.operation;
    handle.extraData = request.extraData;
    serve(&handle, userData);
}

// Under the loop's lock.
void PostRequest(Loop &loop, Request request)
{
    const unsigned long run = loop.run;
    nimbos::fake::detail::Post(nullptr, [run, request = std::move(request)] { Serve(run, request); });
}

// g_main_loop_quit before g_main_loop_run is forgotten, so a request made before the loop ran is
// honoured from inside the loop as its first dispatch.
gboolean QuitIfRequested(gpointer)
{
    Loop &loop = TheLoop();
    std::lock_guard<std::mutex> lock(loop.lock);
    if (loop.exitRequested && loop.running)
        g_main_loop_quit(loop.running);
    return G_SOURCE_REMOVE;
}

gboolean OnTerminateSignal(gpointer)
{
    RequestExit();
    return G_SOURCE_CONTINUE;
}

using nimbos::SourcePtr;

SourcePtr Attach(GSource *source, GSourceFunc callback, int priority)
{
    g_source_set_callback(source, callback, nullptr, nullptr);
    g_source_set_priority(source, priority);
    g_source_attach(source, nullptr);
    return SourcePtr(source);
}

// Publishes the loop to service_app_exit and SendLaunchRequest while it exists.
class RunningLoop {
public:
    RunningLoop(GMainLoop *mainLoop, service_app_lifecycle_callback_s *callbacks, void *userData)
    {
        Loop &loop = TheLoop();
        std::lock_guard<std::mutex> lock(loop.lock);
        loop.running = mainLoop;
        loop.callbacks = callbacks;
        loop.userData = userData;
        ++loop.run;
        for (Request &request : loop.waiting)
            PostRequest(loop, std::move(request));
        loop.waiting.clear();
    }
    ~RunningLoop()
    {
        Loop &loop = TheLoop();
        std::lock_guard<std::mutex> lock(loop.lock);
        loop.running = nullptr;
        loop.callbacks = nullptr;
        loop.exitRequested = false;
        ++loop.run;
    }
    RunningLoop(const RunningLoop &) = delete;
    RunningLoop &operator=(const RunningLoop &) = delete;
};

void RunLoop(service_app_lifecycle_callback_s *callbacks, void *userData)
{
    g_autoptr(GMainLoop) mainLoop = g_main_loop_new(nullptr, FALSE);
    RunningLoop published(mainLoop, callbacks, userData);
    SourcePtr pendingExit = Attach(g_idle_source_new(), QuitIfRequested, G_PRIORITY_HIGH);
    g_main_loop_run(mainLoop);
}

} // namespace

extern "C" int service_app_main(int argc, char **argv, service_app_lifecycle_callback_s *callback, void *user_data)
{
    if (auto injected = Enter(__func__, {Text(argc)}))
        return *injected;
    if (!callback)
        return -EINVAL;
    // Watched from before create to the end of terminate, as on the host.
    SourcePtr term = Attach(g_unix_signal_source_new(SIGTERM), OnTerminateSignal, G_PRIORITY_DEFAULT);
    SourcePtr interrupt = Attach(g_unix_signal_source_new(SIGINT), OnTerminateSignal, G_PRIORITY_DEFAULT);
    if (callback->create && !callback->create(user_data)) {
        nimbos::fake::detail::ResetApp(); // an exit asked for in create ends no later loop
        return -ECANCELED;
    }
    RunLoop(callback, user_data);
    if (callback->terminate)
        callback->terminate(user_data);
    return 0;
}

extern "C" void service_app_exit(void)
{
    Record(__func__, {});
    RequestExit();
}

namespace nimbos::fake {

void SendLaunchRequest(const std::string &operation, const ExtraData &extraData)
{
    Loop &loop = TheLoop();
    std::lock_guard<std::mutex> lock(loop.lock);
    if (loop.running)
        PostRequest(loop, Request{operation, extraData});
    else
        loop.waiting.push_back(Request{operation, extraData});
}

bool ServiceLoopRunning()
{
    Loop &loop = TheLoop();
    std::lock_guard<std::mutex> lock(loop.lock);
    return loop.running != nullptr;
}

namespace detail {

void ResetApp()
{
    Loop &loop = TheLoop();
    std::lock_guard<std::mutex> lock(loop.lock);
    loop.waiting.clear();
    loop.exitRequested = false;
}

} // namespace detail

} // namespace nimbos::fake
