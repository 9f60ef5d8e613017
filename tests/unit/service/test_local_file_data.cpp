// Stored volume and mute, marker files and whole-file operations.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "LocalFileData.h"
#include "TempRoot.h"
#include "nimbos/settings.h"

namespace {

const char kLevelKey[] = "db/hadrix/volume_level";
const char kMuteKey[] = "db/hadrix/volume_mute_status";

int StoredInt(const char *key, int missing = -999)
{
    int value = missing;
    vconf_get_int(key, &value);
    return value;
}

class LocalFileDataTest : public ::testing::Test {
protected:
    // Every test starts from a fresh store and a freshly constructed object.
    CLocalFileData &Fresh()
    {
        CLocalFileData::ReleaseInstance();
        return *CLocalFileData::GetInstance();
    }
    void TearDown() override { CLocalFileData::ReleaseInstance(); }

    TempRoot root;
};

TEST_F(LocalFileDataTest, VolumeDefaultsAndStoredValues)
{
    EXPECT_EQ(Fresh().GetVolumeLevel(), 50) << "a missing level falls back to 50";
    EXPECT_FALSE(Fresh().GetMuteState()) << "a missing mute state means not muted";

    ASSERT_EQ(vconf_set_int(kLevelKey, 120), 0);
    ASSERT_EQ(vconf_set_int(kMuteKey, 7), 0);
    CLocalFileData &data = Fresh();
    EXPECT_EQ(data.GetVolumeLevel(), 120) << "a stored level is taken as it is, even out of range";
    EXPECT_TRUE(data.GetMuteState()) << "any non-zero mute value means muted";
}

TEST_F(LocalFileDataTest, SetVolumeLevelRefusesOutOfRange)
{
    CLocalFileData &data = Fresh();
    data.SetVolumeLevel(30);
    EXPECT_EQ(StoredInt(kLevelKey), 30);

    data.SetVolumeLevel(120);
    data.SetVolumeLevel(-1);
    EXPECT_EQ(data.GetVolumeLevel(), 30);
    EXPECT_EQ(StoredInt(kLevelKey), 30);

    data.SetVolumeLevel(100);
    data.SetVolumeLevel(0);
    EXPECT_EQ(StoredInt(kLevelKey), 0) << "both bounds are valid levels";
}

TEST_F(LocalFileDataTest, ChangeVolumeClampsAndStopsAtTheBounds)
{
    CLocalFileData &data = Fresh();
    data.SetVolumeLevel(98);
    data.ChangeVolume(5, true);
    EXPECT_EQ(StoredInt(kLevelKey), 100);

    // At a bound a further step must not write at all: make the store differ from the cache
    // and check that it is left alone.
    ASSERT_EQ(vconf_set_int(kLevelKey, 77), 0);
    data.ChangeVolume(5, true);
    EXPECT_EQ(StoredInt(kLevelKey), 77);

    data.SetVolumeLevel(3);
    data.ChangeVolume(5, false);
    EXPECT_EQ(StoredInt(kLevelKey), 0);
    ASSERT_EQ(vconf_set_int(kLevelKey, 77), 0);
    data.ChangeVolume(5, false);
    EXPECT_EQ(StoredInt(kLevelKey), 77);
}

TEST_F(LocalFileDataTest, ChangeVolumeIgnoresStepsBelowOne)
{
    CLocalFileData &data = Fresh();
    data.SetVolumeLevel(40);
    ASSERT_EQ(vconf_set_int(kLevelKey, 77), 0);
    for (int step : {0, -3}) {
        data.ChangeVolume(step, true);
        data.ChangeVolume(step, false);
    }
    EXPECT_EQ(data.GetVolumeLevel(), 40);
    EXPECT_EQ(StoredInt(kLevelKey), 77);
}

TEST_F(LocalFileDataTest, MuteStateIsWrittenThrough)
{
    CLocalFileData &data = Fresh();
    data.SetMuteState(true);
    EXPECT_EQ(StoredInt(kMuteKey), 1);
    EXPECT_TRUE(Fresh().GetMuteState());
    Fresh().SetMuteState(false);
    EXPECT_EQ(StoredInt(kMuteKey), 0);
}

TEST_F(LocalFileDataTest, UsbAudioModeMarker)
{
    CLocalFileData &data = Fresh();
    const std::string marker = "/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode";
    EXPECT_FALSE(data.IsUSBAudioMode());
    data.SetUSBAudioMode(false); // nothing to delete: must not fail
    data.SetUSBAudioMode(true);
    data.SetUSBAudioMode(true);
    EXPECT_TRUE(data.IsUSBAudioMode());
    EXPECT_EQ(root.ReadFile(marker), "") << "the marker is always empty";
    data.SetUSBAudioMode(false);
    EXPECT_FALSE(root.Exists(marker));
}

TEST_F(LocalFileDataTest, RunningMarkerIsNeverCreatedThroughALink)
{
    ASSERT_EQ(symlink(root.Path("/victim").c_str(), root.Path("/tmp/hadrix.running").c_str()), 0);
    CLocalFileData &data = Fresh();
    data.SetUSBServiceRunning();
    EXPECT_FALSE(root.Exists("/victim"));

    unlink(root.Path("/tmp/hadrix.running").c_str());
    EXPECT_FALSE(data.IsUSBServiceRunning());
    data.SetUSBServiceRunning();
    EXPECT_TRUE(data.IsUSBServiceRunning());
}

TEST_F(LocalFileDataTest, WriteReplacesTheFileWholeAndNeverFollowsALink)
{
    CLocalFileData &data = Fresh();
    root.WriteFile("/victim", "keep");
    ASSERT_EQ(symlink(root.Path("/victim").c_str(), root.Path("/tmp/dmesg.txt.success").c_str()), 0);

    data.WriteToFile("/tmp/dmesg.txt.success", "log text");
    EXPECT_EQ(root.ReadFile("/victim"), "keep");
    EXPECT_EQ(root.ReadFile("/tmp/dmesg.txt.success"), "log text");

    data.WriteToFile("/tmp/dmesg.txt.success", "abcdef", 3);
    EXPECT_EQ(root.ReadFile("/tmp/dmesg.txt.success"), "abc") << "an explicit size writes that many bytes";
}

TEST_F(LocalFileDataTest, LeftoversOfInterruptedSavesAreRemovedAndNothingElse)
{
    const std::string depot = "/home/owner/apps_rw/hadrix/data/devices.depot";
    root.WriteFile(depot, "[]");
    for (const char *name : {".a1B2c3", ".Zz9999", ".abc", ".abcdefg", ".ab-123", ".saved~"})
        root.WriteFile(depot + name, "x");
    root.WriteFile("/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode.a1B2c3", "x");

    CLocalFileData::RemoveUnfinishedReplacements(root.Path(depot));

    EXPECT_FALSE(root.Exists(depot + ".a1B2c3"));
    EXPECT_FALSE(root.Exists(depot + ".Zz9999"));
    EXPECT_EQ(root.ReadFile(depot), "[]");
    for (const char *name : {".abc", ".abcdefg", ".ab-123", ".saved~"})
        EXPECT_TRUE(root.Exists(depot + name)) << name << " is not a temporary name";
    EXPECT_TRUE(root.Exists("/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode.a1B2c3"))
        << "another file's temporaries are its own business";
}

TEST_F(LocalFileDataTest, WriteCreatesMissingDirectoriesAndReadGetsItBack)
{
    CLocalFileData &data = Fresh();
    const std::string depot = "/home/owner/apps_rw/hadrix/data/devices.depot";
    data.WriteToFile(depot, "[]");
    std::string content = "stale";
    data.ReadFromFile(depot, content);
    EXPECT_EQ(content, "[]");

    data.ReadFromFile("/no/such/file", content);
    EXPECT_EQ(content, "") << "an unreadable file leaves the content empty";
}

TEST_F(LocalFileDataTest, AppendAddsToTheEndAndRefusesALink)
{
    CLocalFileData &data = Fresh();
    data.AppendToFile("/var/log/hadrix/kpi.jsonl", "one\n");
    data.AppendToFile("/var/log/hadrix/kpi.jsonl", "two\n");
    EXPECT_EQ(root.ReadFile("/var/log/hadrix/kpi.jsonl"), "one\ntwo\n");

    root.WriteFile("/victim", "keep");
    ASSERT_EQ(symlink(root.Path("/victim").c_str(), root.Path("/tmp/append").c_str()), 0);
    data.AppendToFile("/tmp/append", "more");
    EXPECT_EQ(root.ReadFile("/victim"), "keep");
    struct stat st {};
    ASSERT_EQ(lstat(root.Path("/tmp/append").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode)) << "the link is left in place, not replaced";
}

} // namespace
