// watchdog.h: registration takes effect when the default main loop first dispatches, the first
// period stays, and every notification reaches the watchdog. One case: a process registers once
// for its life, on the host as on a device.
#include "ContractTest.h"

#include "nimbos/watchdog.h"

namespace contract {
namespace {

using WatchdogContract = ContractTest;

TEST_F(WatchdogContract, RegistrationTakesEffectOnTheFirstDispatchAndKeepsTheFirstPeriod)
{
    EXPECT_LT(smart_deadlock_register_watchdog_service(0), 0);
    EXPECT_LT(smart_deadlock_register_watchdog_service(-5), 0);
    ASSERT_EQ(smart_deadlock_register_watchdog_service(5), 0);
    EXPECT_FALSE(driver.Watchdog().ready) << "ready only once the loop dispatches";
    RunPending();
    EXPECT_TRUE(driver.Watchdog().ready);
    EXPECT_EQ(driver.Watchdog().periodSeconds, 5);

    EXPECT_EQ(smart_deadlock_register_watchdog_service(60), 0);
    RunPending();
    EXPECT_EQ(driver.Watchdog().periodSeconds, 5);

    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    EXPECT_EQ(driver.Watchdog().beats, 2);
}

} // namespace
} // namespace contract
