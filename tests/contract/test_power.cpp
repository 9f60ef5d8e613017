// power.h: the power state, and its changes delivered to every subscriber on its own context.
#include "ContractTest.h"

#include "nimbos/power.h"

namespace contract {
namespace {

using hadrix::test::LoopThread;

using Change = std::pair<int, int>; // previous, current

void Record(_device_power_state_info *info, void *heard)
{
    static_cast<Heard<Change> *>(heard)->Add({info->previous, info->current});
}

void RecordToo(_device_power_state_info *info, void *heard)
{
    Record(info, heard);
}

class PowerContract : public ContractTest {
protected:
    void TearDown() override
    {
        device_power_unsubscribe_state_changed_event(Record);
        device_power_unsubscribe_state_changed_event(RecordToo);
        ContractTest::TearDown();
    }
};

TEST_F(PowerContract, TheStateIsThePowerServicesAndChangesReachEverySubscriberOnItsThread)
{
    driver.SetPowerState(3);
    EXPECT_EQ(device_power_get_state(), 3);
    driver.SetPowerState(0);

    LoopThread thread;
    Heard<Change> onThread, onMain;
    thread.Run([&onThread] { ASSERT_EQ(device_power_subscribe_state_changed_event(Record, &onThread), 0); });
    ASSERT_EQ(device_power_subscribe_state_changed_event(RecordToo, &onMain), 0);
    driver.ChangePowerState(4);
    EXPECT_EQ(onMain.Count(), 0u) << "delivered later, never inside the event";
    ASSERT_TRUE(onThread.WaitFor(1) && onMain.WaitFor(1));
    EXPECT_EQ(onThread.Events(), std::vector<Change>{Change(0, 4)});
    EXPECT_EQ(onMain.Events(), std::vector<Change>{Change(0, 4)});
    EXPECT_TRUE(onThread.AllOn(thread.Id()));
    EXPECT_TRUE(onMain.AllOn(std::this_thread::get_id()));
    EXPECT_EQ(device_power_get_state(), 4);
    thread.Run([] { EXPECT_EQ(device_power_unsubscribe_state_changed_event(Record), 0); });
}

TEST_F(PowerContract, SubscribingAgainReplacesTheUserDataAndUnsubscribingStops)
{
    Heard<Change> replaced, kept, other;
    ASSERT_EQ(device_power_subscribe_state_changed_event(Record, &replaced), 0);
    ASSERT_EQ(device_power_subscribe_state_changed_event(Record, &kept), 0);
    ASSERT_EQ(device_power_subscribe_state_changed_event(RecordToo, &other), 0);
    driver.ChangePowerState(2);
    ASSERT_TRUE(kept.WaitFor(1) && other.WaitFor(1));

    EXPECT_EQ(device_power_unsubscribe_state_changed_event(Record), 0);
    EXPECT_EQ(device_power_unsubscribe_state_changed_event(Record), DEVICE_POWER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(device_power_unsubscribe_state_changed_event(nullptr), DEVICE_POWER_ERROR_INVALID_PARAMETER);
    driver.ChangePowerState(0);
    ASSERT_TRUE(other.WaitFor(2));
    RunPending();
    EXPECT_EQ(replaced.Count(), 0u);
    EXPECT_EQ(kept.Events(), std::vector<Change>{Change(0, 2)});
    EXPECT_EQ(other.Events(), (std::vector<Change>{Change(0, 2), Change(2, 0)}));
}

TEST_F(PowerContract, AMissingOrSilentPowerServiceFailsTheQuery)
{
    driver.SetAvailability(Service::DevicePower, Availability::Missing);
    EXPECT_EQ(device_power_get_state(), DEVICE_POWER_ERROR_IO_ERROR);
    driver.SetAvailability(Service::DevicePower, Availability::Silent);
    EXPECT_LE(ElapsedMs([] { EXPECT_EQ(device_power_get_state(), DEVICE_POWER_ERROR_TIMED_OUT); }), kSilentCallBoundMs);
}

} // namespace
} // namespace contract
