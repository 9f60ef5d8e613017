// The remote's volume keys while a headset carries the TV sound: when the key router holds them
// for the service, what a press or a hold does to the level and the mute, and what the TV viewer
// is asked to show and say.
#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "KeyEventHandler.h"
#include "nimbos/keyrouter.h"
#include "ServiceHarness.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using hadrix::test::kHeadset;
using hadrix::test::ServiceHarness;

namespace {

constexpr int kWindow = 0;
const char kUp[] = "XF86AudioRaiseVolume";
const char kDown[] = "XF86AudioLowerVolume";
const char kMute[] = "XF86AudioMute";
const std::set<std::string> kVolumeKeys = {kUp, kDown, kMute};
const char kRemote[] = "rc device 0";

const char kTtsKey[] = "db/setting/accessibility/tts";
const char kLevelKey[] = "db/hadrix/volume_level";
const char kMuteKey[] = "db/hadrix/volume_mute_status";
const char kSpokenKey[] = "memory/tv-viewer/ext_volume_tts_play";
const char kViewerBusyKey[] = "memory/tv-viewer/show_ext_volume";
const char kLearnRemoteKey[] = "memory/org.nimbos.emanual-app/active_category";

// The on-screen name of kHeadset.
const char kOsdName[] = "Evolve 20(USB)";

// (cmd, value) of a launch of the TV viewer.
using Command = std::pair<std::string, std::string>;

// The TV and what a test of its keys does with it.
class KeysTv {
public:
    // The service starts in USB audio mode with kHeadset plugged, so the headset carries the sound
    // and the keys are the service's (Press fails otherwise).
    void Start(int storedLevel = 50, bool tts = false)
    {
        fake::SetInt(kLevelKey, storedLevel);
        fake::SetBool(kTtsKey, tts);
        tv.PresentAtBoot(kHeadset);
        tv.SetUsbAudioMode(true);
        tv.Start();
        m_LaunchesBefore = fake::Launches().size();
    }

    void Press(const char *key, const std::optional<std::string> &device = std::string(kRemote))
    {
        ASSERT_TRUE(fake::PressKey(key, device)) << key << " is not grabbed";
        tv.Settle();
    }
    void Release(const char *key)
    {
        ASSERT_TRUE(fake::ReleaseKey(key, std::string(kRemote))) << key << " is not grabbed";
        tv.Settle();
    }

    // The TV viewer's launches since Start.
    std::vector<fake::Launch> Launches() const
    {
        std::vector<fake::Launch> all = fake::Launches();
        return std::vector<fake::Launch>(all.begin() + static_cast<long>(m_LaunchesBefore), all.end());
    }
    std::vector<Command> Commands() const
    {
        std::vector<Command> commands;
        for (const fake::Launch &launch : Launches())
            commands.emplace_back(launch.extraData.at(0).second, launch.extraData.at(1).second);
        return commands;
    }
    std::vector<std::string> Values() const
    {
        std::vector<std::string> values;
        for (const Command &command : Commands())
            values.push_back(command.second);
        return values;
    }
    static int StoredLevel() { return fake::GetInt(kLevelKey).value_or(-1); }
    // The stored mute state and the USB output's.
    using MuteState = std::pair<std::optional<int>, bool>;
    static MuteState Mute() { return {fake::GetInt(kMuteKey), fake::UsbOutput().mute}; }

    ServiceHarness tv;

private:
    size_t m_LaunchesBefore = 0;
};

class VolumeKeys : public ::testing::Test, public KeysTv {};

// When the keys are grabbed and released: test_output.cpp.
TEST_F(VolumeKeys, AHeadsetInUseGrabsTheThreeKeysLettingVolumeThroughWithThePictureOff)
{
    Start();
    for (const auto &[key, mode] : fake::StagedKeys(kWindow))
        EXPECT_EQ(mode, 3) << key;
    EXPECT_EQ(fake::SpecialKeyMode(kWindow, kUp), 6);
    EXPECT_EQ(fake::SpecialKeyMode(kWindow, kDown), 6);
    EXPECT_EQ(fake::SpecialKeyMode(kWindow, kMute), std::nullopt);
}

TEST(VolumeKeyGrab, TheRouterIsToldFromTheMainLoopAndOnlyTheLatestDecisionReachesIt)
{
    ServiceHarness tv;
    tv.Start();
    CKeyHandler *keys = CKeyHandler::GetInstance();
    ASSERT_TRUE(keys->GrabVolumeKey(nullptr, nullptr, nullptr));
    EXPECT_FALSE(keys->GrabVolumeKey(nullptr, nullptr, nullptr)) << "grabbed already";
    EXPECT_TRUE(fake::GrabbedKeys(kWindow).empty()) << "not before the loop runs";
    tv.clock.RunDue();
    EXPECT_EQ(fake::GrabbedKeys(kWindow), kVolumeKeys);

    keys->UngrabVolumeKey();
    keys->GrabVolumeKey(nullptr, nullptr, nullptr);
    tv.clock.RunDue();
    EXPECT_EQ(fake::GrabbedKeys(kWindow), kVolumeKeys);
    EXPECT_TRUE(fake::CallsTo("capi_window_tv_unset_grabbed_keys").empty()) << "the release was overtaken";
}

TEST_F(VolumeKeys, TheLearnRemotePageKeepsTheKeysWithTheViewerWhileItIsShown)
{
    fake::SetInt(kLearnRemoteKey, 1);
    tv.PresentAtBoot(kHeadset);
    tv.SetUsbAudioMode(true);
    tv.Start();
    EXPECT_TRUE(fake::CallsTo("capi_window_tv_set_grabbed_keys").empty());

    fake::SetString(kLearnRemoteKey, "0");
    tv.Settle();
    EXPECT_TRUE(fake::GrabbedKeys(kWindow).empty()) << "the page is a number";
    const std::pair<int, std::set<std::string>> pages[] = {{7, {}}, {0, kVolumeKeys}, {1, {}}, {0, kVolumeKeys}};
    for (const auto &[page, grabbed] : pages) {
        fake::SetInt(kLearnRemoteKey, page);
        tv.Settle();
        EXPECT_EQ(fake::GrabbedKeys(kWindow), grabbed) << "page " << page;
    }

    fake::SetInt(kLearnRemoteKey, 1);
    tv.Unplug(kHeadset);
    fake::SetInt(kLearnRemoteKey, 0);
    tv.Settle();
    EXPECT_TRUE(fake::GrabbedKeys(kWindow).empty()) << "the page is not watched once the keys are released";
}

TEST(VolumeKeyGrab, AFailingKeyRouterIsLoggedAndTheGrabGoesOn)
{
    ServiceHarness tv;
    tv.Start();
    const std::pair<int, const char *> connectFailures[] = {{KEYROUTER_ERROR_NO_DISPLAY, "wl2_display is null"},
                                                            {KEYROUTER_ERROR_NO_ROUTER, "wl_registry is null"},
                                                            {KEYROUTER_ERROR_NO_SEAT, "seat is null"},
                                                            {KEYROUTER_ERROR_TIMED_OUT, "display is null"}};
    for (const auto &[code, message] : connectFailures) {
        fake::FailNext("keyrouter_connect", code);
        EXPECT_FALSE(CKeyHandler::GetInstance()->m_InitializeGrab());
        const std::vector<std::string> logged = ServiceHarness::LoggedMessages();
        EXPECT_EQ(std::vector<std::string>(logged.end() - 2, logged.end()),
                  (std::vector<std::string>{message, "keyrouter_connect return : " + std::to_string(code)}));
    }

    fake::FailNext("capi_window_tv_reset_key_grab_config", KEYROUTER_ERROR_IO_ERROR);
    fake::FailNext("capi_window_tv_add_key", KEYROUTER_ERROR_IO_ERROR);
    CKeyHandler::GetInstance()->GrabVolumeKey(nullptr, nullptr, nullptr);
    tv.Settle();
    EXPECT_EQ(fake::GrabbedKeys(kWindow), (std::set<std::string>{kDown, kMute}));
    EXPECT_TRUE(fake::PressKey(kDown, std::string(kRemote)));
    tv.Settle();
    EXPECT_EQ(fake::GetInt(kLevelKey), 49);
}

TEST_F(VolumeKeys, APressFromTheRemoteStoresAppliesShowsAndSpeaksTheLevel)
{
    Start(50, true);
    Press(kUp);
    Release(kUp);
    auto launch = [](fake::ExtraData extraData) {
        return fake::Launch{"org.nimbos.volume-app", "default", std::move(extraData)};
    };
    EXPECT_EQ(Launches(), (std::vector<fake::Launch>{
                              launch({{"cmd", "play_tts"}, {"value", "beep"}}),
                              launch({{"cmd", "extvolume_updown"},
                                      {"value", "up,51"},
                                      {"speaker_name", kOsdName},
                                      {"tts_content", std::string(kOsdName) + "up,51"}}),
                              launch({{"cmd", "play_tts"}, {"value", "Volume,51,"}}),
                          }));
    EXPECT_EQ(StoredLevel(), 51);
    EXPECT_EQ(fake::UsbOutput().gain, 51u);
    EXPECT_EQ(fake::GetString(kSpokenKey), "Volume,51,");
}

TEST(VolumeKeyLevels, APressStepsTheStoredLevelByOneAndEachRepeatOfAHeldKeyByTwoWithin0To100)
{
    struct Step {
        const char *key;
        bool release;
    };
    const Step up{kUp, false}, down{kDown, false}, letGoUp{kUp, true};
    const struct {
        int stored;
        std::vector<Step> steps;
        std::vector<std::string> values;
    } cases[] = {
        {95, {up, up, up, up}, {"up,96", "up2,98", "up2,100", "down2,100"}},
        {100, {up}, {"down,100"}},
        {98, {up, up}, {"up,99", "up2,100"}},
        {3, {down, down, down}, {"down,2", "down2,0", "down2,0"}},
        {0, {down}, {"down,0"}},
        {2, {down, down}, {"down,1", "down2,0"}},
        {50, {up, up, letGoUp, up}, {"up,51", "up2,53", "up,54"}},
        {50, {up, up, down}, {"up,51", "up2,53", "down,52"}},
        {120, {up}, {"down,100"}}, // the settings store holds any number
        {-7, {down}, {"up,0"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("stored level " + std::to_string(c.stored));
        KeysTv run;
        run.Start(c.stored);
        for (const Step &step : c.steps) {
            if (step.release)
                run.Release(step.key);
            else
                run.Press(step.key);
        }
        EXPECT_EQ(run.Values(), c.values);
    }
}

TEST_F(VolumeKeys, WithSpeechOnEveryPressBeepsAndTheLevelIsSpokenOnceOnRelease)
{
    Start(50, true);
    Press(kDown);
    Press(kDown);
    Release(kDown);
    EXPECT_EQ(Commands(), (std::vector<Command>{{"play_tts", "beep"},
                                                {"extvolume_updown", "down,49"},
                                                {"play_tts", "beep"},
                                                {"extvolume_updown", "down2,47"},
                                                {"play_tts", "Volume,47,"}}));

    fake::SetBool(kTtsKey, false);
    tv.Settle();
    Press(kUp);
    Release(kUp);
    ASSERT_FALSE(Commands().empty());
    EXPECT_EQ(Commands().back(), Command("extvolume_updown", "up,48")) << "the setting is followed";
}

TEST_F(VolumeKeys, TheMuteKeyTogglesAndAVolumePressWhileMutedUnmutesFirst)
{
    Start();
    Press(kMute);
    EXPECT_EQ(Mute(), MuteState(1, true));
    Press(kMute);
    EXPECT_EQ(Mute(), MuteState(0, false));
    Press(kMute);
    Press(kDown);
    EXPECT_EQ(Commands(), (std::vector<Command>{{"extvolume", "-4"},
                                                {"extvolume", "-5"},
                                                {"extvolume", "-4"},
                                                {"extvolume", "-5"},
                                                {"extvolume_updown", "down,49"}}));
    EXPECT_EQ(Mute(), MuteState(0, false));
}

TEST_F(VolumeKeys, KeysOfTheAttachedHeadsetItselfAreDroppedBeforeAnyBeep)
{
    Start(50, true);
    Press(kUp, std::string("Jabra Evolve 20 Consumer Control"));
    EXPECT_TRUE(Commands().empty());
    EXPECT_EQ(StoredLevel(), 50);
}

TEST_F(VolumeKeys, KeysOfTheRemoteTheSmartControlAndDevicesWithoutANameOrNotAttachedAreHandled)
{
    Start();
    const std::optional<std::string> devices[] = {
        std::string("rc device Jabra Evolve 20"), std::string("Smart Control 2016"), std::string(""), std::nullopt,
        std::string("USB Keyboard"), std::string("Logitech H390 USB Headset")};
    int level = 50;
    for (const std::optional<std::string> &device : devices) {
        Press(kUp, device);
        Release(kUp);
        EXPECT_EQ(StoredLevel(), ++level) << (device ? "\"" + *device + "\"" : "no device");
    }
}

TEST_F(VolumeKeys, PressesThatComeBeforeTheLoopRunsAreHandledAsTheLastOfThem)
{
    Start();
    ASSERT_TRUE(fake::PressKey(kUp, std::string(kRemote)));
    ASSERT_TRUE(fake::PressKey(kDown, std::string(kRemote)));
    tv.Settle();
    EXPECT_EQ(Commands(), (std::vector<Command>{{"extvolume_updown", "down,49"}}));
}

TEST_F(VolumeKeys, NothingChangesWhileTheTvViewerShowsItsOwnVolumeButThePressStillBeeps)
{
    Start(50, true);
    fake::SetString(kViewerBusyKey, "1");
    Press(kUp);
    Press(kMute);
    EXPECT_EQ(Commands(), (std::vector<Command>{{"play_tts", "beep"}}));
    EXPECT_EQ(StoredLevel(), 50);
    EXPECT_FALSE(fake::UsbOutput().mute);

    fake::Unset(kViewerBusyKey);
    Press(kMute);
    EXPECT_TRUE(fake::UsbOutput().mute);
}

} // namespace
