// The host's service loop without a system bus: it runs on, unreachable for launch requests. How
// every implementation's loop starts, serves and ends is the contract suite's (contract/test_app.cpp).
#include "nimbos/app.h"

#include <gtest/gtest.h>

#include <glib.h>

#include <cstdlib>

namespace {

struct LoopRun {
    bool loopRan = false;
    int terminates = 0;
};

TEST(ServiceLoopTest, WithoutASystemBusTheLoopRunsUntilItIsEnded)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/hadrix-test-bus", 1);
    service_app_lifecycle_callback_s callbacks{};
    callbacks.create = [](void *data) {
        g_idle_add([](gpointer data) {
            static_cast<LoopRun *>(data)->loopRan = true;
            service_app_exit();
            return G_SOURCE_REMOVE;
        }, data);
        return true;
    };
    callbacks.terminate = [](void *data) { static_cast<LoopRun *>(data)->terminates++; };
    LoopRun run;
    EXPECT_EQ(service_app_main(0, nullptr, &callbacks, &run), 0);
    EXPECT_TRUE(run.loopRan);
    EXPECT_EQ(run.terminates, 1);
}

} // namespace
