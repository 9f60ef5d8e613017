// Debug commands: one extra-data key of a launch request drives one operation of the service with
// fixed values; what it got back goes to the log, which is all the sender ever sees of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "DebugCommand.h"
#include "ServiceHarness.h"
#include "SoundManagerHandler.h"
#include "UniqueHandle.h"
#include "nimbos/app.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using hadrix::test::ServiceHarness;

namespace {

using Request = std::vector<std::pair<std::string, std::string>>;
using AppControl = UniqueHandle<app_control_s, app_control_destroy>;

constexpr int kUsbHeadsetRoute = 15;
const char kLevelKey[] = "db/hadrix/volume_level";

class DebugCommands : public ::testing::Test {
protected:
    // Runs the request as the service does; returns the messages it logged.
    std::vector<std::string> Send(const Request &extraData)
    {
        app_control_h raw = nullptr;
        EXPECT_EQ(app_control_create(&raw), APP_CONTROL_ERROR_NONE);
        AppControl request(raw);
        for (const auto &[key, value] : extraData)
            app_control_add_extra_data(request.get(), key.c_str(), value.c_str());
        const size_t before = ServiceHarness::LoggedMessages().size();
        ParseCommand(request.get(), nullptr);
        const std::vector<std::string> all = ServiceHarness::LoggedMessages();
        return std::vector<std::string>(all.begin() + static_cast<long>(before), all.end());
    }
    static bool Has(const std::vector<std::string> &messages, const std::string &message)
    {
        return std::find(messages.begin(), messages.end(), message) != messages.end();
    }

    ServiceHarness tv;
};

TEST_F(DebugCommands, AudioControlSetsFixedValuesAndLogsWhatItGets)
{
    const struct {
        const char *value;
        fake::UsbOut output;
    } sets[] = {
        {"setUsbOutGain", {false, 20, 0}},    {"setUsbOutGain=99", {false, 20, 0}},
        {"setUsbOutDelays", {false, 20, 100}}, {"setUsbOutMuteOn", {true, 20, 100}},
        {"setUsbOutMuteOff", {false, 20, 100}},
    };
    for (const auto &set : sets) {
        EXPECT_TRUE(Has(Send({{"audio_control", set.value}}), "ret : 1")) << set.value;
        const fake::UsbOut output = fake::UsbOutput();
        EXPECT_EQ(std::make_tuple(output.mute, output.gain, output.delay),
                  std::make_tuple(set.output.mute, set.output.gain, set.output.delay))
            << set.value;
    }
    fake::SetUsbOutput({true, 33, 70});
    EXPECT_TRUE(Has(Send({{"audio_control", "getUsbOutGain"}}), "ret : 1, gain : 33"));
    EXPECT_TRUE(Has(Send({{"audio_control", "getUsbOutDelay"}}), "ret : 1, delay : 70"));
    EXPECT_TRUE(Has(Send({{"audio_control", "getUsbOutMute"}}), "ret : 1, bMute : 1"));
    fake::FailNext("IAudioControl::getUsbOutGain", -5);
    EXPECT_TRUE(Has(Send({{"audio_control", "getUsbOutGain"}}), "ret : 0, gain : 0"));
}

TEST_F(DebugCommands, SoundManagerCommandsUseTheUsbRouteAndTheFixedGains)
{
    Send({{"soundManager", "SetSpeaker"}});
    EXPECT_EQ(fake::Route(), kUsbHeadsetRoute);
    Send({{"soundManager", "SetMute"}});
    Send({{"soundManager", "UnmuteFadeIn"}});
    EXPECT_EQ(fake::CallsTo("sound_manager_set_mute_gain"),
              (std::vector<fake::Call>{{"sound_manager_set_mute_gain", {"3", "100"}}}));
    EXPECT_EQ(fake::CallsTo("sound_manager_apply_unmute_fade_in"),
              (std::vector<fake::Call>{{"sound_manager_apply_unmute_fade_in", {"3"}}}));

    Send({{"soundManager", "Unregister"}});
    EXPECT_EQ(CSoundManagerHandler::PeekInstance(), nullptr);
    EXPECT_EQ(fake::CallsTo("sound_manager_unset_speaker_changed_cb").size(), 1u);
    EXPECT_EQ(fake::CallsTo("sound_manager_unset_multiview_speaker_selection_changed_cb").size(), 1u);
    Send({{"soundManager", "Register"}});
    EXPECT_NE(CSoundManagerHandler::PeekInstance(), nullptr);
}

TEST_F(DebugCommands, PulseSignalsCardZeroToTheAudioServerAndSpeakerManagerTheSpeakerManager)
{
    tv.ListCards({0});
    Send({{"pulse", "off"}});
    Send({{"pulse", "on"}});
    Send({{"pulse", "onward"}});
    EXPECT_EQ(tv.StoppedCards(), std::vector<int>{0});
    EXPECT_EQ(tv.StartedCards(), (std::vector<int>{0, 0}));
    Send({{"speakerManager", "anything"}});
    EXPECT_EQ(tv.SpeakerDisconnects(), 1u);
}

TEST_F(DebugCommands, LocalFileDataStepsTheStoredVolumeByOne)
{
    fake::SetInt(kLevelKey, 10);
    Send({{"localFileData", "volumeUp"}});
    EXPECT_EQ(fake::GetInt(kLevelKey), 11);
    Send({{"localFileData", "volumeDown"}});
    Send({{"localFileData", "volumeDown"}});
    EXPECT_EQ(fake::GetInt(kLevelKey), 9);
}

TEST_F(DebugCommands, TheFirstKeyInTheFixedOrderIsTheCommand)
{
    const Request order = {{"pulse", "p"},         {"audio_control", "a"}, {"speakerManager", "s"},
                           {"soundManager", "m"},  {"localFileData", "l"}, {"cset", "x"},
                           {"cget", "y"},          {"setMaxVolume", "z"}};
    for (size_t first = 0; first < order.size(); ++first) {
        // Sent last first: the order of the request does not matter.
        const Request request(order.rbegin(), order.rend() - static_cast<long>(first));
        std::vector<std::string> values;
        for (const std::string &message : Send(request))
            if (message.compare(0, 7, "value: ") == 0)
                values.push_back(message);
        EXPECT_EQ(values, std::vector<std::string>{"value: " + order[first].second}) << order[first].first;
    }
}

TEST_F(DebugCommands, UnknownKeysAndSubCommandsAreRefusedAndChangeNothing)
{
    fake::SetInt(kLevelKey, 10);
    const Request unknown = {{"no_such_key", "x"},   {"audio_control", "setUsbOut"}, {"audio_control", "SETUSBOUTGAIN"},
                             {"soundManager", "Set"}, {"pulse", "o"},                 {"localFileData", ""}};
    std::vector<std::string> refusals;
    for (const auto &pair : unknown)
        for (const std::string &message : Send({pair}))
            if (message.find("starts with no sub-command") != std::string::npos)
                refusals.push_back(message);
    EXPECT_EQ(refusals, (std::vector<std::string>{
                            "audio_control: \"setUsbOut\" starts with no sub-command, ignored",
                            "audio_control: \"SETUSBOUTGAIN\" starts with no sub-command, ignored",
                            "soundManager: \"Set\" starts with no sub-command, ignored",
                            "pulse: \"o\" starts with no sub-command, ignored",
                            "localFileData: \"\" starts with no sub-command, ignored",
                        }));
    for (const fake::Call &call : fake::Calls())
        EXPECT_EQ(call.function.find("set"), std::string::npos) << call;
    EXPECT_EQ(fake::GetInt(kLevelKey), 10);
    EXPECT_TRUE(tv.StartedCards().empty() && tv.StoppedCards().empty());
}

TEST_F(DebugCommands, MixerCommandsRefuseMalformedValuesAndReportAnAbsentCard)
{
    EXPECT_TRUE(Has(Send({{"cset", "2 numid=3"}}), "cset refused (no value); expected \"CARD CONTROL VALUE\""));
    EXPECT_TRUE(Has(Send({{"cget", "x numid=3"}}),
                    "cget refused (card \"x\" is not a number from 0 to 31); expected \"CARD CONTROL\""));
    EXPECT_TRUE(Has(Send({{"cset", "2 name='PCM Playback Volume' 80%"}}),
                    "cset card : 2, control : name='PCM Playback Volume', value : 80%, ret : 0"));
    EXPECT_TRUE(Has(Send({{"cget", "2 numid=3"}}), "cget card : 2, control : numid=3, ret : 0, values : "));
    EXPECT_TRUE(Has(Send({{"setMaxVolume", "2"}}), "ret : 1")) << "no card 2";
}

TEST(MixerCommandArgs, SplitsCardControlAndValue)
{
    struct Case {
        const char *text;
        bool withValue;
        int card;
        const char *control, *value;
    };
    const Case cases[] = {
        {"  1   numid=3   80%  ", true, 1, "numid=3", "80%"},
        {"2 name='PCM Playback Volume' 100,90", true, 2, "name='PCM Playback Volume'", "100,90"},
        {"0 iface=MIXER,name=\"Headset Switch\"", false, 0, "iface=MIXER,name=\"Headset Switch\"", ""},
        {"1 numid=4 on, off", true, 1, "numid=4", "on, off"}}; // the value keeps its inner blanks
    for (const Case &c : cases) {
        MixerCommandArgs args;
        std::string reason;
        ASSERT_TRUE(ParseMixerCommandArgs(c.text, c.withValue, args, reason)) << c.text << ": " << reason;
        EXPECT_EQ(std::tie(args.card, args.control, args.value),
                  std::make_tuple(c.card, std::string(c.control), std::string(c.value)));
    }
}

TEST(MixerCommandArgs, RefusesMalformedValuesWithTheReason)
{
    struct Case {
        const char *text;
        bool withValue;
        const char *reason;
    };
    const Case cases[] = {
        {"", false, "no card number"}, {"   ", true, "no card number"}, {"x numid=3", false, "is not a number"},
        {"-1 numid=3", false, "is not a number"}, {"123456789012 numid=3", false, "is not a number"},
        {"32 numid=3", false, "from 0 to 31"}, {"1", false, "no control identifier"},
        {"1 name='PCM Playback Volume", false, "unterminated quote"}, {"1 numid=3", true, "no value"},
        {"1 numid=3   ", true, "no value"}, {"1 numid=3 80%", false, "unexpected text"},
    };
    for (const Case &c : cases) {
        MixerCommandArgs args;
        args.card = 7;
        std::string reason;
        EXPECT_FALSE(ParseMixerCommandArgs(c.text, c.withValue, args, reason)) << c.text;
        EXPECT_NE(reason.find(c.reason), std::string::npos) << c.text << " -> " << reason;
        EXPECT_EQ(args.card, 7) << "left untouched on refusal: " << c.text;
    }
}

TEST(MixerCommandArgs, TheCardOfSetMaxVolumeIsDecimalTextOrZero)
{
    const std::pair<const char *, int> cases[] = {{"1", 1},   {"12", 12}, {"-3", -3}, {"", 0},
                                                  {"abc", 0}, {"2x", 0},  {"99999999999999999999", 0}};
    for (const auto &c : cases)
        EXPECT_EQ(ParseCardNumber(c.first), c.second) << c.first;
}

} // namespace
