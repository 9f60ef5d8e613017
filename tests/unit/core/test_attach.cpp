// A USB audio device coming and going: which one takes the TV sound, which is left alone, and
// what the audio server, the sound manager and the KPI log hear of it.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "ServiceHarness.h"
#include "USBDevice.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using hadrix::test::kHeadset;
using hadrix::test::kHeadset2;
using hadrix::test::ServiceHarness;

namespace {

constexpr int kUsbHeadsetRoute = 15;

std::vector<std::string> KpiEvents(ServiceHarness &tv)
{
    std::vector<std::string> events;
    std::istringstream lines(tv.root.ReadFile("/var/log/hadrix/kpi.jsonl"));
    for (std::string line; std::getline(lines, line);)
        events.push_back(line.substr(0, line.find(',')));
    return events;
}

TEST(Attach, AFreshPlugTakesTheRouteThenTheUnmuteMarksItInUse)
{
    ServiceHarness tv;
    tv.Start();
    tv.Plug(kHeadset);
    EXPECT_EQ(fake::Route(), kUsbHeadsetRoute);
    // The plug starts the card; the route's change unmutes the headset, which starts it again.
    EXPECT_EQ(tv.StartedCards(), (std::vector<int>{1, 1}));
    EXPECT_EQ(tv.DeviceManager()->GetDeviceUsingCnt(), 1);
    EXPECT_EQ(KpiEvents(tv), (std::vector<std::string>{R"({"event":"new_connected_device")",
                                                        R"({"connected":true)"}));
}

TEST(Attach, APlugBetweenTwoPassesOfTheStartUpEnumerationIsAttachedAndStartedOnce)
{
    ServiceHarness tv;
    tv.SetUsbAudioMode(true);
    tv.BeginStart(); // the first pass found nothing
    tv.Plug(kHeadset);
    EXPECT_TRUE(tv.DeviceManager()->IsEnumerating());
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 0) << "held until the enumeration ends";
    tv.FinishEnumeration();
    EXPECT_EQ(tv.DeviceManager()->GetDeviceCnt(), 1);
    EXPECT_EQ(tv.StartedCards(), std::vector<int>{1});
}

} // namespace
