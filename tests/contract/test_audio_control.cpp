// audio_control.h: mute, gain and delay of the USB output, passed through unchanged, from any
// thread; failures leave the caller's variable alone.
#include "ContractTest.h"

#include "nimbos/audio_control.h"

#include <cerrno>
#include <thread>
#include <tuple>

namespace contract {
namespace {

using AudioControlContract = ContractTest;

TEST_F(AudioControlContract, ValuesGoThroughUnchangedFromAnyThread)
{
    IAudioControl *control = IAudioControl::getInstance();
    ASSERT_NE(control, nullptr);
    EXPECT_EQ(control, IAudioControl::getInstance());
    bool mute = true;
    unsigned gain = 1, delay = 1;
    EXPECT_EQ(control->getUsbOutMute(&mute), 0);
    EXPECT_EQ(control->getUsbOutGain(&gain), 0);
    EXPECT_EQ(control->getUsbOutDelay(&delay), 0);
    EXPECT_EQ(std::make_tuple(mute, gain, delay), std::make_tuple(false, 0u, 0u));

    std::thread([control] {
        EXPECT_EQ(control->setUsbOutMute(true), 0);
        EXPECT_EQ(control->setUsbOutGain(4294967295u), 0);
    }).join();
    EXPECT_EQ(control->setUsbOutDelay(250), 0);
    EXPECT_EQ(control->getUsbOutMute(&mute), 0);
    EXPECT_EQ(control->getUsbOutGain(&gain), 0);
    EXPECT_EQ(control->getUsbOutDelay(&delay), 0);
    EXPECT_EQ(std::make_tuple(mute, gain, delay), std::make_tuple(true, 4294967295u, 250u));
    EXPECT_EQ(control->getUsbOutGain(nullptr), -EINVAL);
}

TEST_F(AudioControlContract, AMissingOrSilentServiceFailsAndWritesNothing)
{
    IAudioControl *control = IAudioControl::getInstance();
    bool mute = true;
    unsigned gain = 77, delay = 88;
    driver.SetAvailability(Service::AudioControl, Availability::Missing);
    EXPECT_EQ(control->getUsbOutMute(&mute), -EIO);
    EXPECT_EQ(control->getUsbOutDelay(&delay), -EIO);
    EXPECT_EQ(control->setUsbOutGain(10), -EIO);
    driver.SetAvailability(Service::AudioControl, Availability::Silent);
    EXPECT_LE(ElapsedMs([&] { EXPECT_EQ(control->getUsbOutGain(&gain), -ETIMEDOUT); }), kSilentCallBoundMs);
    EXPECT_EQ(std::make_tuple(mute, gain, delay), std::make_tuple(true, 77u, 88u));
}

} // namespace
} // namespace contract
