// The fake platform's control panel (nimbos/fake.h): what it records, what it injects, and that
// Reset leaves nothing behind. What the fake does as a platform is the contract suites' business.
#include "nimbos/audio_control.h"
#include "nimbos/events.h"
#include "nimbos/fake.h"
#include "nimbos/keyrouter.h"
#include "nimbos/paths.h"
#include "nimbos/settings.h"
#include "nimbos/sound.h"
#include "nimbos/usb.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace fake = nimbos::fake;

namespace {

class FakeControlTest : public ::testing::Test {
protected:
    void SetUp() override { fake::Reset(); }
};

TEST_F(FakeControlTest, CallsAreRecordedInOrderWithTheirArgumentsAsTextFromEveryThread)
{
    sound_manager_set_speaker_selection(SOUND_TV_OUTPUT_USB_HEADSET);
    vconf_set_str("db/test/name", "x y");
    IAudioControl::getInstance()->setUsbOutMute(true);
    capi_window_tv_add_key(0, nullptr, 2);
    EXPECT_EQ(fake::Calls(), (std::vector<fake::Call>{{"sound_manager_set_speaker_selection", {"15"}},
                                                      {"vconf_set_str", {"db/test/name", "x y"}},
                                                      {"IAudioControl::setUsbOutMute", {"1"}},
                                                      {"capi_window_tv_add_key", {"0", "(null)", "2"}}}));

    fake::ClearCalls();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 100; ++i)
                vconf_set_int("memory/test/level", i);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(fake::CallsTo("vconf_set_int").size(), 400u);
    EXPECT_EQ(fake::Calls().size(), 400u);
}

TEST_F(FakeControlTest, InjectedResultsAreReturnedAndChangeNothing)
{
    sound_tv_output_route_e route = SOUND_TV_OUTPUT_DEFAULT;
    int heard = 0;
    sound_manager_set_speaker_changed_cb([](sound_tv_output_route_e, void *data) { ++*static_cast<int *>(data); },
                                         &heard);
    fake::FailNext("sound_manager_set_speaker_selection", SOUND_MANAGER_ERROR_TIMED_OUT);
    fake::FailNext("sound_manager_set_speaker_selection", SOUND_MANAGER_ERROR_IO_ERROR);
    fake::SetResult("sound_manager_set_speaker_selection", SOUND_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(sound_manager_set_speaker_selection(SOUND_TV_OUTPUT_USB_HEADSET), SOUND_MANAGER_ERROR_TIMED_OUT);
    EXPECT_EQ(sound_manager_set_speaker_selection(SOUND_TV_OUTPUT_USB_HEADSET), SOUND_MANAGER_ERROR_IO_ERROR);
    EXPECT_EQ(sound_manager_set_speaker_selection(SOUND_TV_OUTPUT_USB_HEADSET), SOUND_MANAGER_ERROR_INVALID_PARAMETER);
    fake::SetResult("sound_manager_get_speaker_selection", SOUND_MANAGER_ERROR_IO_ERROR);
    route = static_cast<sound_tv_output_route_e>(99);
    EXPECT_EQ(sound_manager_get_speaker_selection(&route), SOUND_MANAGER_ERROR_IO_ERROR);
    EXPECT_EQ(route, 99) << "nothing written";
    fake::RunPending();
    EXPECT_EQ(fake::Route(), SOUND_TV_OUTPUT_DEFAULT);
    EXPECT_EQ(heard, 0) << "nothing announced";

    fake::ClearResult("sound_manager_set_speaker_selection");
    EXPECT_EQ(sound_manager_set_speaker_selection(SOUND_TV_OUTPUT_USB_HEADSET), SOUND_MANAGER_ERROR_NONE);
    fake::SetResult("vconf_get_str", -1);
    EXPECT_EQ(vconf_get_str("db/test/name"), nullptr) << "a pointer result is NULL";

    EXPECT_THROW(fake::SetResult("sound_manager_set_speaker_selektion", -5), std::invalid_argument);
    EXPECT_THROW(fake::FailNext("keyrouter_disconnect", -5), std::invalid_argument) << "void";
    EXPECT_THROW(fake::SetString("hadrix/name", "x"), std::invalid_argument) << "not a key";
}

TEST_F(FakeControlTest, ResetDropsPendingDeliveriesAndRestoresTheDefaults)
{
    int heard = 0;
    sound_manager_set_speaker_changed_cb([](sound_tv_output_route_e, void *data) { ++*static_cast<int *>(data); },
                                         &heard);
    fake::AnnounceRoute(0);
    fake::SetAvailability(fake::Service::SoundManager, fake::Availability::Missing);
    fake::SetResult("vconf_set_int", -1);
    fake::SetInt("db/test/level", 3);
    fake::SetDeviceRoot("/srv/devices");
    EXPECT_EQ(nimbos::Path("/dev/snd/controlC1"), "/srv/devices/dev/snd/controlC1");
    fake::Reset();
    fake::RunPending();
    EXPECT_EQ(heard, 0);
    EXPECT_EQ(fake::Route(), SOUND_TV_OUTPUT_DEFAULT);
    EXPECT_TRUE(fake::Calls().empty());
    EXPECT_EQ(fake::GetInt("db/test/level"), std::nullopt);
    EXPECT_EQ(vconf_set_int("db/test/level", 4), 0);
    EXPECT_EQ(nimbos::Path("/dev/snd/controlC1"), "/dev/snd/controlC1") << "device nodes back to the system's";
    sound_tv_output_route_e route;
    EXPECT_EQ(sound_manager_get_speaker_selection(&route), SOUND_MANAGER_ERROR_NONE);
}

TEST_F(FakeControlTest, EventsBeyondTheRulesCanBeDelivered)
{
    usb_device_init();
    std::string action;
    usb_set_connected_cb([](usb_device_s *device, char *text, void *data) {
        *static_cast<std::string *>(data) = text + std::string(" ") + usb_device_get_devpath(device);
        free_usb_device_h(device);
    }, &action);
    fake::UsbDevice card;
    card.devpath = "/devices/x/sound/card9";
    fake::DeliverHotplug(card, "bound");
    EXPECT_TRUE(fake::RunUntil([&] { return !action.empty(); }, 1000));
    EXPECT_EQ(action, "bound /devices/x/sound/card9");

    bool noDevice = false;
    ecore_event_handler_add(ECORE_EVENT_KEY_DOWN, [](int, void *event, void *data) {
        *static_cast<bool *>(data) = static_cast<ecore_event_key_s *>(event)->device == nullptr;
        return int(ECORE_EVENT_CONTINUE);
    }, &noDevice);
    keyrouter_connect();
    capi_window_tv_add_key(0, "XF86AudioMute", 0);
    capi_window_tv_set_grabbed_keys(0);
    EXPECT_TRUE(fake::PressKey("XF86AudioMute", std::nullopt));
    fake::RunPending();
    EXPECT_TRUE(noDevice) << "a key from no known device";
}

// Waiting for work of other threads is what every in-process test of a worker does with it.
TEST_F(FakeControlTest, RunUntilGivesUpAtItsDeadline)
{
    const gint64 start = g_get_monotonic_time();
    EXPECT_FALSE(fake::RunUntil([] { return false; }, 50));
    EXPECT_GE(g_get_monotonic_time() - start, 50 * 1000);
}

} // namespace
