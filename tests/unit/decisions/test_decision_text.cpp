// The decisions in plain words, as hadrixctl prints them, from the records' own JSON form and
// after the trip through a D-Bus dictionary; and which device a user's name picks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "DecisionSamples.h"
#include "DecisionText.h"
#include "JsonVariant.h"

namespace {

using namespace decision;

class DecisionTextTest : public ::testing::Test {
protected:
    // Times of day as a TV in Greenwich would show them.
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }

    // A verdict as a client reads it: the service's JSON, carried as an a{sv}.
    static Json::Value AsClientReadsIt(const Verdict &verdict)
    {
        GVariant *dictionary = g_variant_ref_sink(JsonToVariant(ToJson(verdict)));
        Json::Value json = VariantToJson(dictionary);
        g_variant_unref(dictionary);
        return json;
    }
};

TEST_F(DecisionTextTest, AFreshPlugAndADevicePresentAtBootInWholeSentences)
{
    EXPECT_EQ(decision_text::Why(AsClientReadsIt({samples::FreshPlug()})),
              "Evolve 20 (Jabra, 0b0e:0300, port 1-1, card 1): took the sound when it was plugged in at 19:41:02. "
              "The kernel log shows it detected 117.9 s after the USB core came up, more than 5 s: the viewer "
              "plugged it in. \"Start\" for card 1 went out 12 ms later; the audio server listed the card at the "
              "first ask (3 ms).");
    EXPECT_EQ(decision_text::Why(AsClientReadsIt({samples::PresentAtBoot()})),
              "Evolve 20 (Jabra, 0b0e:0300, port 1-1, card 1): stayed off the sound as present at boot when the "
              "service looked for devices at start-up at 19:40:00. The kernel log shows it detected 1.4 s after the "
              "USB core came up, within 5 s.");
}

TEST_F(DecisionTextTest, AHistoryLineBeginsWithDateAndTimeAndAVerdictSaysWhenItsDeviceWent)
{
    Decision waiting = samples::FreshPlug();
    waiting.rule = kNoFreePlace;
    waiting.outcome = kWaits;
    waiting.inputs.usingCount = 2;
    waiting.inputs.attachedCount = 2;
    waiting.start.reset();
    EXPECT_EQ(decision_text::Line(ToJson(waiting)),
              "2025-11-25 19:41:02.123  #7  Evolve 20 (Jabra, 0b0e:0300, port 1-1, card 1): waits for a free place "
              "when it was plugged in. Two devices take the sound at most: 2 attached, 2 in use.");

    Verdict gone{samples::FreshPlug()};
    gone.plugged = false;
    gone.unpluggedTimeMs = 1764099700000;
    gone.decision.start->listed = false;
    gone.decision.start->attempts = 50;
    gone.decision.start->waitedMs = 99000;
    const std::string words = decision_text::Why(AsClientReadsIt(gone));
    EXPECT_NE(words.find("although the audio server had not listed the card after 50 asks (99000 ms). It was "
                         "unplugged at 19:41:40."),
              std::string::npos)
        << words;
}

// Every rule the service records has words of its own.
TEST_F(DecisionTextTest, EveryRuleHasItsOwnWords)
{
    const char *const rules[] = {
        kPowerStateNotNormal, kResumePending, kNotAudioInterface, kNoCardNumber, kCameraName, kCameraIds,
        kNoSoundNodes, kGamepadKnownIds, kGamepadKnownMaker, kGamepadListIds, kGamepadListName, kGamepadJoystick,
        kAstroName, kAstroIds, kUsbAudioMode, kDetectedAfterCore, kDetectedWithCore, kCoreUpRecently,
        kCoreUpLongAgo, kCoreUnknownEarly, kCoreUnknownLate, kPowerChanged, kResumeWithoutUsbAudioMode,
        kNoFreePlace, kFreedPlace, kOutputToAttached, kFirstTwoAtSwitch, kRouteUsb, kRouteNotUsb, kStandby,
        kAsked};
    for (const char *rule : rules) {
        Decision decision = samples::PresentAtBoot();
        decision.rule = rule;
        const std::string words = decision_text::Line(ToJson(decision));
        EXPECT_EQ(words.find("The rule was"), std::string::npos) << words;
    }
    Decision unknown = samples::PresentAtBoot();
    unknown.rule = "from-a-later-version";
    EXPECT_NE(decision_text::Line(ToJson(unknown)).find("The rule was \"from-a-later-version\"."), std::string::npos);
}

TEST_F(DecisionTextTest, ADeviceIsNamedByProductInAnyCaseByItsIdsOrByItsPort)
{
    const Json::Value verdict = AsClientReadsIt({samples::FreshPlug()});
    for (const char *name : {"Evolve 20", "EVOLVE 20", "0b0e:0300", "0B0E:0300", "1-1"})
        EXPECT_TRUE(decision_text::Matches(verdict, name)) << name;
    for (const char *name : {"Evolve", "0b0e", "1-10", "card1", "\xff\xfe"})
        EXPECT_FALSE(decision_text::Matches(verdict, name)) << name;
}

} // namespace
