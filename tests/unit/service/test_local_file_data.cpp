// Stored volume and mute, marker files and whole-file operations.
#include <gtest/gtest.h>

#include "LocalFileData.h"
#include "TempRoot.h"
#include "nimbos/settings.h"

namespace {

const char kLevelKey[] = "db/hadrix/volume_level";
const char kMuteKey[] = "db/hadrix/volume_mute_status";
const std::string kData = "/home/owner/apps_rw/hadrix/data/";

int StoredInt(const char *key)
{
    int value = -999;
    vconf_get_int(key, &value);
    return value;
}

class LocalFileDataTest : public ::testing::Test {
protected:
    // A freshly constructed object, which reads the store anew.
    CLocalFileData &Fresh()
    {
        CLocalFileData::ReleaseInstance();
        return *CLocalFileData::GetInstance();
    }
    void TearDown() override { CLocalFileData::ReleaseInstance(); }

    TempRoot root;
};

TEST_F(LocalFileDataTest, VolumeAndMuteDefaultsAndStoredValues)
{
    EXPECT_EQ(Fresh().GetVolumeLevel(), 50) << "a missing level falls back to 50";
    EXPECT_FALSE(Fresh().GetMuteState()) << "a missing mute state means not muted";
    ASSERT_EQ(vconf_set_int(kLevelKey, 0), 0);
    EXPECT_EQ(Fresh().GetVolumeLevel(), 0) << "a stored 0 is no missing level";

    ASSERT_EQ(vconf_set_int(kLevelKey, 120), 0);
    ASSERT_EQ(vconf_set_int(kMuteKey, 7), 0);
    CLocalFileData &data = Fresh();
    EXPECT_EQ(data.GetVolumeLevel(), 120) << "a stored level is taken as it is, even out of range";
    EXPECT_TRUE(data.GetMuteState()) << "any non-zero mute value means muted";

    data.SetMuteState(false);
    EXPECT_EQ(StoredInt(kMuteKey), 0);
    data.SetMuteState(true);
    EXPECT_EQ(StoredInt(kMuteKey), 1);
    EXPECT_TRUE(Fresh().GetMuteState());
}

TEST_F(LocalFileDataTest, LevelChangesStayWithinZeroToHundred)
{
    CLocalFileData &data = Fresh();
    for (int level : {100, 0, 30}) {
        data.SetVolumeLevel(level);
        EXPECT_EQ(StoredInt(kLevelKey), level);
    }
    data.SetVolumeLevel(120);
    data.SetVolumeLevel(-1);
    EXPECT_EQ(data.GetVolumeLevel(), 30);
    EXPECT_EQ(StoredInt(kLevelKey), 30);

    // A step clamps at a bound; a further step there, or a step below 1, writes nothing, which shows
    // as the store keeping a value that differs from the object's.
    data.SetVolumeLevel(98);
    data.ChangeVolume(5, true);
    EXPECT_EQ(StoredInt(kLevelKey), 100);
    ASSERT_EQ(vconf_set_int(kLevelKey, 77), 0);
    data.ChangeVolume(5, true);
    EXPECT_EQ(StoredInt(kLevelKey), 77);

    data.SetVolumeLevel(3);
    data.ChangeVolume(5, false);
    EXPECT_EQ(StoredInt(kLevelKey), 0);
    ASSERT_EQ(vconf_set_int(kLevelKey, 77), 0);
    data.ChangeVolume(5, false);
    EXPECT_EQ(StoredInt(kLevelKey), 77);

    data.SetVolumeLevel(40);
    ASSERT_EQ(vconf_set_int(kLevelKey, 77), 0);
    for (int step : {0, -3}) {
        data.ChangeVolume(step, true);
        data.ChangeVolume(step, false);
    }
    EXPECT_EQ(data.GetVolumeLevel(), 40);
    EXPECT_EQ(StoredInt(kLevelKey), 77);
}

TEST_F(LocalFileDataTest, WriteReplacesWholeFilesInNewDirectoriesAndAppendAddsToTheEnd)
{
    CLocalFileData &data = Fresh();
    const std::string depot = kData + "devices.depot";
    data.WriteToFile(depot, "[{}, {}]");
    std::string content = "stale";
    data.ReadFromFile(depot, content);
    EXPECT_EQ(content, "[{}, {}]");
    data.WriteToFile(depot, "abcdef", 3);
    EXPECT_EQ(root.ReadFile(depot), "abc") << "an explicit size writes that many bytes";
    data.ReadFromFile("/no/such/file", content);
    EXPECT_EQ(content, "") << "an unreadable file leaves the content empty";

    data.AppendToFile("/var/log/hadrix/kpi.jsonl", "one\n");
    data.AppendToFile("/var/log/hadrix/kpi.jsonl", "two\n");
    EXPECT_EQ(root.ReadFile("/var/log/hadrix/kpi.jsonl"), "one\ntwo\n");
}

TEST_F(LocalFileDataTest, LeftoversOfInterruptedSavesAreRemovedAndNothingElse)
{
    const std::string depot = kData + "devices.depot";
    for (const char *name : {"", ".a1B2c3", ".Zz9999", ".abc", ".abcdefg", ".ab-123", ".saved~"})
        root.WriteFile(depot + name, "x");
    root.WriteFile(kData + "USB_AUDIO_mode.a1B2c3", "x"); // another file's temporaries are its own business

    CLocalFileData::RemoveUnfinishedReplacements(root.Path(depot));
    for (const char *name : {".a1B2c3", ".Zz9999"})
        EXPECT_FALSE(root.Exists(depot + name)) << name;
    for (const char *name : {"", ".abc", ".abcdefg", ".ab-123", ".saved~"})
        EXPECT_TRUE(root.Exists(depot + name)) << name << " is not a temporary name";
    EXPECT_TRUE(root.Exists(kData + "USB_AUDIO_mode.a1B2c3"));
}

} // namespace
