// The service loop without a system bus: what starts and ends it, and which callbacks run.
#include "nimbos/app.h"

#include <gtest/gtest.h>

#include <glib.h>

#include <csignal>
#include <cstdlib>
#include <thread>

namespace {

// No bus answers here, so the loop runs without application control.
class NoSystemBus : public ::testing::Environment {
public:
    void SetUp() override { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/hadrix-test-bus", 1); }
};
const auto *const kNoSystemBus = ::testing::AddGlobalTestEnvironment(new NoSystemBus);

struct Lifecycle {
    int creates = 0;
    int terminates = 0;
    bool createResult = true;
    bool exitInCreate = false;
    bool timedOut = false;
};

service_app_lifecycle_callback_s Callbacks()
{
    service_app_lifecycle_callback_s callbacks{};
    callbacks.create = [](void *data) {
        auto *seen = static_cast<Lifecycle *>(data);
        seen->creates++;
        if (seen->exitInCreate)
            service_app_exit();
        return seen->createResult;
    };
    callbacks.terminate = [](void *data) { static_cast<Lifecycle *>(data)->terminates++; };
    return callbacks;
}

// Runs the service loop with a deadline: a loop that does not end within 5 s is ended and marked.
int RunService(Lifecycle *seen, service_app_lifecycle_callback_s callbacks = Callbacks())
{
    guint guard = g_timeout_add_seconds(5, [](gpointer data) {
        static_cast<Lifecycle *>(data)->timedOut = true;
        service_app_exit();
        return G_SOURCE_REMOVE;
    }, seen);
    int ret = service_app_main(0, nullptr, &callbacks, seen);
    if (!seen->timedOut)
        g_source_remove(guard);
    return ret;
}

TEST(ServiceLoopTest, ExitRequestedBeforeTheLoopEndsItAtOnce)
{
    Lifecycle seen;
    seen.exitInCreate = true;
    EXPECT_EQ(RunService(&seen), 0);
    EXPECT_FALSE(seen.timedOut);
    EXPECT_EQ(seen.creates, 1);
    EXPECT_EQ(seen.terminates, 1);
}

TEST(ServiceLoopTest, ExitFromAnotherThreadEndsTheLoop)
{
    Lifecycle seen;
    std::thread exiter;
    g_idle_add([](gpointer thread) {
        *static_cast<std::thread *>(thread) = std::thread(service_app_exit);
        return G_SOURCE_REMOVE;
    }, &exiter);
    EXPECT_EQ(RunService(&seen), 0);
    ASSERT_TRUE(exiter.joinable());
    exiter.join();
    EXPECT_FALSE(seen.timedOut);
    EXPECT_EQ(seen.terminates, 1);
}

TEST(ServiceLoopTest, TerminateRequestDuringCreateEndsTheLoopAtOnce)
{
    Lifecycle seen;
    service_app_lifecycle_callback_s callbacks = Callbacks();
    callbacks.create = [](void *data) {
        static_cast<Lifecycle *>(data)->creates++;
        raise(SIGTERM);
        return true;
    };
    EXPECT_EQ(RunService(&seen, callbacks), 0);
    EXPECT_FALSE(seen.timedOut);
    EXPECT_EQ(seen.creates, 1);
    EXPECT_EQ(seen.terminates, 1);
}

TEST(ServiceLoopTest, FailedCreateSkipsLoopAndTerminate)
{
    Lifecycle seen;
    seen.createResult = false;
    EXPECT_LT(RunService(&seen), 0);
    EXPECT_EQ(seen.creates, 1);
    EXPECT_EQ(seen.terminates, 0);
}

TEST(ServiceLoopTest, EndedLoopLeavesNoExitPending)
{
    Lifecycle first;
    first.exitInCreate = true;
    ASSERT_EQ(RunService(&first), 0);

    // A second loop ends only when asked, here from its own idle callback.
    Lifecycle second;
    bool stillRunning = false;
    g_idle_add([](gpointer ran) {
        *static_cast<bool *>(ran) = true;
        service_app_exit();
        return G_SOURCE_REMOVE;
    }, &stillRunning);
    EXPECT_EQ(RunService(&second), 0);
    EXPECT_TRUE(stillRunning);
    EXPECT_FALSE(second.timedOut);
}

TEST(ServiceLoopTest, MissingCallbacksAreRefused)
{
    EXPECT_LT(service_app_main(0, nullptr, nullptr, nullptr), 0);
}

} // namespace
