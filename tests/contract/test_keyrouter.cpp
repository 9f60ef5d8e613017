// keyrouter.h: keys a window grabbed reach the key event handlers while the process is connected,
// and only those.
#include "KeyEvents.h"

#include <optional>

namespace contract {
namespace {

class KeyRouterContract : public ContractTest {
protected:
    void SetUp() override
    {
        ContractTest::SetUp();
        recorder.emplace(heard);
    }
    void TearDown() override
    {
        keyrouter_disconnect();
        recorder.reset();
        ContractTest::TearDown();
    }

    Heard<std::string> heard;
    std::optional<KeyRecorder> recorder;
};

TEST_F(KeyRouterContract, GrabbedKeysReachTheHandlersWithTheirDevice)
{
    ASSERT_EQ(keyrouter_connect(), KEYROUTER_ERROR_NONE);
    EXPECT_EQ(keyrouter_connect(), KEYROUTER_ERROR_NONE) << "connecting again";
    Grab(0, {kRaise});
    driver.PressKey(kRaise, kRemote);
    EXPECT_EQ(heard.Count(), 0u) << "delivered later, never inside the event";
    driver.ReleaseKey(kRaise, kRemote);
    driver.PressKey(kMute, kRemote);
    driver.PressKey(kRaise, "");
    ASSERT_TRUE(heard.WaitFor(3));
    RunPending();
    EXPECT_EQ(heard.Events(), (std::vector<std::string>{"down XF86AudioRaiseVolume from rc device",
                                                         "up XF86AudioRaiseVolume from rc device",
                                                         "down XF86AudioRaiseVolume from ?"}));
    EXPECT_TRUE(heard.AllOn(std::this_thread::get_id()));
}

TEST_F(KeyRouterContract, GrabbingAgainReplacesTheWindowsGrabAndUnsettingReleasesTheStagedKeys)
{
    ASSERT_EQ(keyrouter_connect(), KEYROUTER_ERROR_NONE);
    Grab(0, {kRaise});
    Grab(1, {kMute});
    Grab(0, {kLower});
    driver.PressKey(kRaise, kRemote);
    driver.PressKey(kLower, kRemote);
    ASSERT_EQ(capi_window_tv_unset_grabbed_keys(0), KEYROUTER_ERROR_NONE);
    driver.PressKey(kLower, kRemote);
    driver.PressKey(kMute, kRemote);
    ASSERT_TRUE(heard.WaitFor(2));
    RunPending();
    EXPECT_EQ(heard.Events(), (std::vector<std::string>{"down XF86AudioLowerVolume from rc device",
                                                         "down XF86AudioMute from rc device"}));
}

TEST_F(KeyRouterContract, NothingArrivesWhileDisconnected)
{
    Grab(0, {kMute});
    driver.PressKey(kMute, kRemote);
    ASSERT_EQ(keyrouter_connect(), KEYROUTER_ERROR_NONE);
    driver.PressKey(kMute, kRemote);
    ASSERT_TRUE(heard.WaitFor(1));
    keyrouter_disconnect();
    driver.PressKey(kMute, kRemote);
    ASSERT_EQ(keyrouter_connect(), KEYROUTER_ERROR_NONE);
    driver.ReleaseKey(kMute, kRemote);
    ASSERT_TRUE(heard.WaitFor(2));
    RunPending();
    EXPECT_EQ(heard.Events(), (std::vector<std::string>{"down XF86AudioMute from rc device",
                                                         "up XF86AudioMute from rc device"}));
}

TEST_F(KeyRouterContract, SpecialKeyModesReachTheRouterAndKeyNamesMustBeText)
{
    EXPECT_EQ(capi_window_tv_set_special_key_mode(0, CAPI_WINDOW_TV_KEY_BY_PASS_PICTURE_OFF, kMute),
              KEYROUTER_ERROR_NONE);
    EXPECT_EQ(driver.SpecialKeyMode(0, kMute), CAPI_WINDOW_TV_KEY_BY_PASS_PICTURE_OFF);
    for (const char *bad : {"", "\xff\xfe"}) {
        EXPECT_EQ(capi_window_tv_add_key(0, bad, 1), KEYROUTER_ERROR_INVALID_PARAMETER);
        EXPECT_EQ(capi_window_tv_set_special_key_mode(0, 6, bad), KEYROUTER_ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(capi_window_tv_add_key(0, nullptr, 1), KEYROUTER_ERROR_INVALID_PARAMETER);
}

TEST_F(KeyRouterContract, AMissingOrSilentRouterFailsTheCalls)
{
    driver.SetAvailability(Service::KeyRouter, Availability::Missing);
    EXPECT_EQ(keyrouter_connect(), KEYROUTER_ERROR_NO_ROUTER);
    EXPECT_EQ(capi_window_tv_reset_key_grab_config(0), KEYROUTER_ERROR_IO_ERROR);
    EXPECT_EQ(capi_window_tv_add_key(0, kMute, 1), KEYROUTER_ERROR_IO_ERROR);
    driver.SetAvailability(Service::KeyRouter, Availability::Silent);
    EXPECT_LE(ElapsedMs([] { EXPECT_EQ(capi_window_tv_set_grabbed_keys(0), KEYROUTER_ERROR_TIMED_OUT); }),
              kSilentCallBoundMs);
}

} // namespace
} // namespace contract
