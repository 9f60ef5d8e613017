// Screen mirroring: the mirroring source sets the headset's level and mute through two settings
// keys, which count only in USB audio mode and only when they differ from what was last acted on.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "ServiceHarness.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using hadrix::test::kHeadset;
using hadrix::test::ServiceHarness;

namespace {

const char kMirroringLevelKey[] = "memory/menu/network/screenmirroring/set_volume_level";
const char kMirroringMuteKey[] = "memory/menu/network/screenmirroring/set_volume_mute";
const char kLevelKey[] = "db/hadrix/volume_level";
const char kMuteKey[] = "db/hadrix/volume_mute_status";

struct Volume {
    int level;
    int mute;
    bool operator==(const Volume &other) const { return level == other.level && mute == other.mute; }
};

std::ostream &operator<<(std::ostream &out, const Volume &volume)
{
    return out << "level " << volume.level << (volume.mute ? " muted" : "");
}

Volume Stored()
{
    return {fake::GetInt(kLevelKey).value_or(-1), fake::GetInt(kMuteKey).value_or(0)};
}

void Mirror(ServiceHarness &tv, const char *key, int value)
{
    fake::SetInt(key, value);
    tv.Settle();
}

TEST(Mirroring, OutsideUsbAudioModeTheSourceChangesNothing)
{
    ServiceHarness tv;
    fake::SetInt(kLevelKey, 50);
    tv.Start();
    Mirror(tv, kMirroringLevelKey, 30);
    Mirror(tv, kMirroringMuteKey, 1);
    EXPECT_EQ(Stored(), (Volume{50, 0}));
    EXPECT_TRUE(fake::Launches().empty());
}

TEST(Mirroring, InUsbAudioModeEachNewValueIsAppliedLikeAKeyAndARepeatedOneIsIgnored)
{
    ServiceHarness tv;
    tv.PresentAtBoot(kHeadset);
    tv.SetUsbAudioMode(true);
    tv.Start();
    const size_t launches = fake::Launches().size();

    Mirror(tv, kMirroringLevelKey, 30);
    EXPECT_EQ(fake::UsbOutput().gain, 30u);
    ASSERT_TRUE(fake::PressKey("XF86AudioRaiseVolume", std::string("rc device 0")));
    tv.Settle();
    const struct {
        const char *key;
        int value;
        Volume stored;
    } steps[] = {
        {kMirroringLevelKey, 30, {31, 0}},  // the last value acted on, though the level moved since
        {kMirroringLevelKey, 101, {31, 0}}, // no level
        {kMirroringMuteKey, 1, {31, 1}},
        {kMirroringMuteKey, 0, {31, 0}},
        {kMirroringMuteKey, 0, {31, 0}},
        {kMirroringMuteKey, 7, {31, 1}},
        {kMirroringLevelKey, 45, {45, 0}},
    };
    for (const auto &step : steps) {
        Mirror(tv, step.key, step.value);
        EXPECT_EQ(Stored(), step.stored) << step.key << " " << step.value;
    }
    const std::vector<fake::Launch> all = fake::Launches();
    std::vector<std::string> values;
    for (auto launch = all.begin() + static_cast<long>(launches); launch != all.end(); ++launch)
        values.push_back(launch->extraData.at(1).second);
    EXPECT_EQ(values, (std::vector<std::string>{"down,30", "up,31", "-4", "-5", "-4", "-5", "up,45"}));
}

} // namespace
