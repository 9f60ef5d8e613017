// sound.h: the output route (also per multiview zone), announced to the route-change callback
// when it changes, on the registering thread's context; mute gain and fade-in requests.
#include "ContractTest.h"

#include "nimbos/sound.h"

namespace contract {
namespace {

using hadrix::test::LoopThread;

using RouteInZone = std::pair<int, int>; // route, zone

void Record(sound_tv_output_route_e route, void *heard)
{
    static_cast<Heard<int> *>(heard)->Add(route);
}

void RecordToo(sound_tv_output_route_e route, void *heard)
{
    Record(route, heard);
}

void RecordAndUnset(sound_tv_output_route_e route, void *heard)
{
    Record(route, heard);
    EXPECT_EQ(sound_manager_unset_speaker_changed_cb(), SOUND_MANAGER_ERROR_NONE);
}

void RecordZone(sound_tv_output_route_e route, int zone, void *heard)
{
    static_cast<Heard<RouteInZone> *>(heard)->Add({route, zone});
}

int Route()
{
    sound_tv_output_route_e route = static_cast<sound_tv_output_route_e>(-1);
    EXPECT_EQ(sound_manager_get_speaker_selection(&route), SOUND_MANAGER_ERROR_NONE);
    return route;
}

int ZoneRoute(int zone)
{
    sound_tv_output_route_e route = static_cast<sound_tv_output_route_e>(-1);
    EXPECT_EQ(sound_manager_get_multiview_speaker_selection_with_zone_id(&route, zone), SOUND_MANAGER_ERROR_NONE);
    return route;
}

class SoundContract : public ContractTest {
protected:
    void TearDown() override
    {
        sound_manager_unset_speaker_changed_cb();
        sound_manager_unset_multiview_speaker_selection_changed_cb();
        ContractTest::TearDown();
    }
};

TEST_F(SoundContract, SettingTheRouteAnnouncesAChangeAndOnlyAChange)
{
    EXPECT_EQ(Route(), SOUND_TV_OUTPUT_DEFAULT);
    Heard<int> heard;
    ASSERT_EQ(sound_manager_set_speaker_changed_cb(Record, &heard), SOUND_MANAGER_ERROR_NONE);
    ASSERT_EQ(sound_manager_set_speaker_selection(SOUND_TV_OUTPUT_USB_HEADSET), SOUND_MANAGER_ERROR_NONE);
    EXPECT_EQ(heard.Count(), 0u) << "announced later, never inside the call";
    EXPECT_EQ(Route(), SOUND_TV_OUTPUT_USB_HEADSET);
    ASSERT_TRUE(heard.WaitFor(1));

    ASSERT_EQ(sound_manager_set_speaker_selection(SOUND_TV_OUTPUT_USB_HEADSET), SOUND_MANAGER_ERROR_NONE);
    EXPECT_EQ(sound_manager_set_speaker_selection(static_cast<sound_tv_output_route_e>(-3)),
              SOUND_MANAGER_ERROR_INVALID_PARAMETER);
    driver.UserPicksRoute(0);
    ASSERT_TRUE(heard.WaitFor(2));
    RunPending();
    EXPECT_EQ(heard.Events(), (std::vector<int>{SOUND_TV_OUTPUT_USB_HEADSET, 0}));
    EXPECT_TRUE(heard.AllOn(std::this_thread::get_id()));
    EXPECT_EQ(Route(), 0);
}

TEST_F(SoundContract, TheCallbackRunsOnTheRegisteringThreadAndMayUnsetItself)
{
    LoopThread thread;
    Heard<int> unsetting, replaced, current;
    thread.Run([&unsetting] { ASSERT_EQ(sound_manager_set_speaker_changed_cb(RecordAndUnset, &unsetting), 0); });
    driver.UserPicksRoute(SOUND_TV_OUTPUT_USB_HEADSET);
    ASSERT_TRUE(unsetting.WaitFor(1));
    EXPECT_TRUE(unsetting.AllOn(thread.Id()));

    EXPECT_EQ(sound_manager_unset_speaker_changed_cb(), SOUND_MANAGER_ERROR_NONE) << "none set: succeeds";
    ASSERT_EQ(sound_manager_set_speaker_changed_cb(Record, &replaced), SOUND_MANAGER_ERROR_NONE);
    ASSERT_EQ(sound_manager_set_speaker_changed_cb(RecordToo, &current), SOUND_MANAGER_ERROR_NONE);
    driver.UserPicksRoute(0);
    ASSERT_TRUE(current.WaitFor(1));
    RunPending();
    EXPECT_EQ(unsetting.Events(), std::vector<int>{SOUND_TV_OUTPUT_USB_HEADSET});
    EXPECT_EQ(replaced.Count(), 0u);
    EXPECT_EQ(current.Events(), std::vector<int>{0});
}

TEST_F(SoundContract, MultiviewZonesHaveRoutesOfTheirOwn)
{
    EXPECT_EQ(ZoneRoute(1), SOUND_TV_OUTPUT_DEFAULT);
    LoopThread thread;
    Heard<RouteInZone> heard;
    thread.Run([&heard] {
        ASSERT_EQ(sound_manager_set_multiview_speaker_selection_changed_cb(RecordZone, &heard), 0);
    });
    ASSERT_EQ(sound_manager_set_multiview_speaker_selection_with_zone_id(SOUND_TV_OUTPUT_USB_HEADSET, 1),
              SOUND_MANAGER_ERROR_NONE);
    EXPECT_EQ(ZoneRoute(1), SOUND_TV_OUTPUT_USB_HEADSET);
    EXPECT_EQ(ZoneRoute(2), SOUND_TV_OUTPUT_DEFAULT);
    EXPECT_EQ(Route(), SOUND_TV_OUTPUT_DEFAULT);
    driver.UserPicksMultiviewRoute(0, 2);
    ASSERT_TRUE(heard.WaitFor(2));
    EXPECT_EQ(heard.Events(), (std::vector<RouteInZone>{{SOUND_TV_OUTPUT_USB_HEADSET, 1}, {0, 2}}));
    EXPECT_TRUE(heard.AllOn(thread.Id()));
    thread.Run([] { sound_manager_unset_multiview_speaker_selection_changed_cb(); });
}

TEST_F(SoundContract, MuteGainAndFadeInReachTheSoundManager)
{
    EXPECT_EQ(sound_manager_set_mute_gain(3, 40), SOUND_MANAGER_ERROR_NONE);
    EXPECT_EQ(sound_manager_apply_unmute_fade_in(3), SOUND_MANAGER_ERROR_NONE);
    EXPECT_EQ(driver.Requests(Service::SoundManager),
              (std::vector<std::string>{"SetMuteGain(3, 40)", "ApplyUnmuteFadeIn(3)"}));
}

TEST_F(SoundContract, AMissingOrSilentSoundManagerFailsAndWritesNothing)
{
    auto route = static_cast<sound_tv_output_route_e>(99);
    driver.SetAvailability(Service::SoundManager, Availability::Missing);
    EXPECT_EQ(sound_manager_get_speaker_selection(&route), SOUND_MANAGER_ERROR_IO_ERROR);
    EXPECT_EQ(sound_manager_get_multiview_speaker_selection_with_zone_id(&route, 1), SOUND_MANAGER_ERROR_IO_ERROR);
    EXPECT_EQ(sound_manager_set_speaker_selection(SOUND_TV_OUTPUT_USB_HEADSET), SOUND_MANAGER_ERROR_IO_ERROR);
    EXPECT_EQ(sound_manager_set_mute_gain(3, 0), SOUND_MANAGER_ERROR_IO_ERROR);
    driver.SetAvailability(Service::SoundManager, Availability::Silent);
    EXPECT_LE(ElapsedMs([&] { EXPECT_EQ(sound_manager_get_speaker_selection(&route), SOUND_MANAGER_ERROR_TIMED_OUT); }),
              kSilentCallBoundMs);
    EXPECT_EQ(route, 99) << "written only on success";
}

} // namespace
} // namespace contract
