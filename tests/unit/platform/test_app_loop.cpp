// The service loop without a system bus: what starts and ends it, and which callbacks run.
#include "nimbos/app.h"

#include <gtest/gtest.h>

#include <glib.h>

#include <csignal>
#include <cstdlib>
#include <thread>

namespace {

enum class End { ExitInCreate, SigtermInCreate, ExitFromAnotherThread, CreateFails };

struct LoopRun {
    End end = End::ExitInCreate;
    int creates = 0;
    int terminates = 0;
    bool loopRan = false;
    bool timedOut = false;
    std::thread exiter;
};

bool Create(void *data)
{
    auto *run = static_cast<LoopRun *>(data);
    run->creates++;
    if (run->end == End::ExitInCreate)
        service_app_exit();
    if (run->end == End::SigtermInCreate)
        raise(SIGTERM);
    if (run->end == End::ExitFromAnotherThread)
        g_idle_add([](gpointer data) {
            auto *run = static_cast<LoopRun *>(data);
            run->loopRan = true;
            run->exiter = std::thread(service_app_exit);
            return G_SOURCE_REMOVE;
        }, run);
    return run->end != End::CreateFails;
}

// Runs the service loop with a deadline: a loop that does not end within 5 s is ended and marked.
int RunService(LoopRun *run)
{
    service_app_lifecycle_callback_s callbacks{};
    callbacks.create = Create;
    callbacks.terminate = [](void *data) { static_cast<LoopRun *>(data)->terminates++; };
    guint guard = g_timeout_add_seconds(5, [](gpointer data) {
        static_cast<LoopRun *>(data)->timedOut = true;
        service_app_exit();
        return G_SOURCE_REMOVE;
    }, run);
    int ret = service_app_main(0, nullptr, &callbacks, run);
    if (!run->timedOut)
        g_source_remove(guard);
    if (run->exiter.joinable())
        run->exiter.join();
    return ret;
}

// One loop after another in the same process: an ended loop leaves no exit pending, so the
// loops that end from another thread must have run their idle callback first.
TEST(ServiceLoopTest, EachWayOfEndingRunsTerminateOnceAndLeavesNothingPending)
{
    // No bus answers here, so the loop runs without application control.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/hadrix-test-bus", 1);
    for (End end : {End::ExitInCreate, End::ExitFromAnotherThread, End::SigtermInCreate, End::ExitFromAnotherThread,
                    End::CreateFails}) {
        SCOPED_TRACE(static_cast<int>(end));
        LoopRun run;
        run.end = end;
        const int ret = RunService(&run);
        EXPECT_FALSE(run.timedOut);
        EXPECT_EQ(run.creates, 1);
        if (end == End::CreateFails) {
            EXPECT_LT(ret, 0);
            EXPECT_EQ(run.terminates, 0) << "a failed create skips the loop and terminate";
            continue;
        }
        EXPECT_EQ(ret, 0);
        EXPECT_EQ(run.terminates, 1);
        EXPECT_EQ(run.loopRan, end == End::ExitFromAnotherThread);
    }
    EXPECT_LT(service_app_main(0, nullptr, nullptr, nullptr), 0);
}

} // namespace
