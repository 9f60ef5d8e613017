// Settings store on the host: value files, key names and what killed writes leave. What every
// settings store does (types, unset keys, refused values, change callbacks) is the contract suite's
// (tests/contract/test_settings.cpp); across processes, and writers killed mid-write:
// test_settings.py. Every test gets its own store directories.
#include "nimbos/settings.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <glib.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "TempRoot.h"
#include "UniqueFd.h"

namespace fs = std::filesystem;

namespace {

const std::string kDb = "/var/lib/nimbos/settings/";
const std::string kMemory = "/run/nimbos/settings/";

// The string at key, or "<none>" when the get fails.
std::string Str(const char *key)
{
    g_autofree char *value = vconf_get_str(key);
    return value ? value : "<none>";
}

// A change callback for the registrations that must be refused.
void IgnoreChange(keynode_t *, void *) {}

class SettingsTest : public ::testing::Test {
protected:
    TempRoot temp_;
};

TEST_F(SettingsTest, EachTypeRoundTripsThroughItsOneLineFileInDirectoriesOfMode0755)
{
    const mode_t old = umask(022);
    ASSERT_EQ(vconf_set_int("db/hadrix/volume_level", -2147483647 - 1), 0);
    umask(old);
    ASSERT_EQ(vconf_set_bool("db/setting/accessibility/tts", 7), 0);
    ASSERT_EQ(vconf_set_dbl("memory/test/ratio", 0.1), 0);
    ASSERT_EQ(vconf_set_str("memory/tv-viewer/show_ext_volume", "a:b\tc \\ \xc3\xa9"), 0);

    // The extremes of the file format; the other types read back in the contract suite.
    int number = 0;
    double real = 0;
    EXPECT_EQ(vconf_get_int("db/hadrix/volume_level", &number), 0);
    EXPECT_EQ(number, -2147483647 - 1);
    EXPECT_EQ(Str("memory/tv-viewer/show_ext_volume"), "a:b\tc \\ \xc3\xa9");

    EXPECT_EQ(temp_.ReadFile(kDb + "db/hadrix/volume_level"), "int:-2147483648\n");
    EXPECT_EQ(temp_.ReadFile(kDb + "db/setting/accessibility/tts"), "bool:1\n");
    EXPECT_EQ(temp_.ReadFile(kMemory + "memory/test/ratio"), "double:0.1\n");
    EXPECT_EQ(temp_.ReadFile(kMemory + "memory/tv-viewer/show_ext_volume"), "string:a:b\tc \\ \xc3\xa9\n");
    // The longest value a key holds: its file is 1 MiB.
    const std::string longest((1 << 20) - sizeof "string:", 'v');
    ASSERT_EQ(vconf_set_str("db/test/long", longest.c_str()), 0);
    EXPECT_EQ(Str("db/test/long"), longest);
    for (const char *dir : {"", "db", "db/hadrix"}) {
        struct stat info {};
        ASSERT_EQ(stat(temp_.Path(kDb + dir).c_str(), &info), 0) << dir;
        EXPECT_EQ(info.st_mode & 07777, 0755u) << dir;
    }

    // Written by hand without the trailing newline.
    temp_.WriteFile(kDb + "db/test/name", "string:hello: world");
    temp_.WriteFile(kDb + "db/test/ratio", "double:-1.5e3");
    EXPECT_EQ(Str("db/test/name"), "hello: world");
    EXPECT_EQ(vconf_get_dbl("db/test/ratio", &real), 0);
    EXPECT_EQ(real, -1500.0);
}

TEST_F(SettingsTest, MalformedOrNonRegularFilesAreRefusedByEveryGetter)
{
    const std::vector<std::string> malformed = {
        "", "\n", "garbage", "int:", "int:abc", "int: 5", "int:5x", "int:2147483648", "int:-99999999999999999999",
        "bool:2", "bool:true", "double:nan", "double:inf", "double:1e999", "double:0,5", "float:1.0", ":1",
        "int:5\nint:6\n", "string:two\nlines", std::string("string:nul\0byte", 15), std::string(2 << 20, 'x'),
    };
    for (const std::string &content : malformed) {
        SCOPED_TRACE(testing::PrintToString(content.substr(0, 40)));
        temp_.WriteFile(kMemory + "memory/test/bad", content);
        int number = 77;
        double real = 7.5;
        EXPECT_EQ(vconf_get_int("memory/test/bad", &number), -1);
        EXPECT_EQ(vconf_get_bool("memory/test/bad", &number), -1);
        EXPECT_EQ(vconf_get_dbl("memory/test/bad", &real), -1);
        EXPECT_EQ(Str("memory/test/bad"), "<none>");
        EXPECT_EQ(number, 77);
        EXPECT_EQ(real, 7.5);
    }
    fs::create_directories(temp_.Path(kMemory + "memory/test/dir"));
    ASSERT_EQ(mkfifo(temp_.Path(kMemory + "memory/test/fifo").c_str(), 0600), 0);
    int number = 0;
    EXPECT_EQ(vconf_get_int("memory/test/dir", &number), -1);
    // Would block forever if the FIFO were opened for a normal read.
    EXPECT_EQ(vconf_get_int("memory/test/fifo", &number), -1);
}

TEST_F(SettingsTest, BadKeyNamesAreRefusedByEveryCall)
{
    const std::vector<std::string> badKeys = {
        "",       "hadrix/volume", "db",          "db/",       "memory/", "/db/a",  "db/a/",  "db//a",
        "db/../etc/x", "db/a/../b", "db/a..b",    "db/./a",    "db/.a",   "memory/a/.hidden", "db/a b",
        "db/a\nb", "db/a\\b",      "db/a*b",      "db/\x7f",   "file/x",  "DB/x",   std::string("db/") + std::string(300, 'k'),
    };
    for (const std::string &key : badKeys) {
        SCOPED_TRACE(testing::PrintToString(key));
        int number = 0;
        double real = 0;
        EXPECT_EQ(vconf_set_int(key.c_str(), 1), -1);
        EXPECT_EQ(vconf_set_bool(key.c_str(), 1), -1);
        EXPECT_EQ(vconf_set_dbl(key.c_str(), 1.0), -1);
        EXPECT_EQ(vconf_set_str(key.c_str(), "x"), -1);
        EXPECT_EQ(vconf_get_int(key.c_str(), &number), -1);
        EXPECT_EQ(vconf_get_dbl(key.c_str(), &real), -1);
        EXPECT_EQ(Str(key.c_str()), "<none>");
        EXPECT_EQ(vconf_unset(key.c_str()), -1);
        EXPECT_EQ(vconf_notify_key_changed(key.c_str(), IgnoreChange, nullptr), -1);
    }
    EXPECT_EQ(vconf_set_int(nullptr, 1), -1);
    EXPECT_EQ(vconf_get_str(nullptr), nullptr);
    // Nothing was created anywhere, inside or outside the store directories.
    EXPECT_FALSE(temp_.Exists(kDb));
    EXPECT_FALSE(temp_.Exists(kMemory));
    EXPECT_FALSE(fs::exists(fs::path(temp_.Path("")).parent_path() / "etc/x"));
}

TEST_F(SettingsTest, RefusedWritesLeaveNoTemporaryAnUnsetLeavesNoFileAndAWriteReplacesASymlinkNotItsTarget)
{
    ASSERT_EQ(vconf_set_str("db/test/name", "old"), 0);
    EXPECT_EQ(vconf_set_str("db/test/name", "two\nlines"), -1);
    EXPECT_EQ(vconf_set_str("db/test/name", std::string(2 << 20, 'x').c_str()), -1);
    EXPECT_EQ(Str("db/test/name"), "old");
    EXPECT_EQ(vconf_get_int("db/test/name", nullptr), -1);
    const fs::path dir = temp_.Path(kDb + "db/test");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1) << "a temporary file was left";
    ASSERT_EQ(vconf_unset("db/test/name"), 0);
    EXPECT_FALSE(temp_.Exists(kDb + "db/test/name"));

    temp_.WriteFile("/precious", "keep me");
    fs::create_symlink(temp_.Path("/precious"), dir / "level");
    ASSERT_EQ(vconf_set_int("db/test/level", 5), 0);
    EXPECT_FALSE(fs::is_symlink(dir / "level"));
    EXPECT_EQ(temp_.ReadFile(kDb + "db/test/level"), "int:5\n");
    EXPECT_EQ(temp_.ReadFile("/precious"), "keep me");
}

TEST_F(SettingsTest, FirstUseOfTheStoresRemovesWhatKilledWritesLeftAndNothingElse)
{
    // Temporary files of writes cut short, in both stores and in the directories of keys.
    const std::vector<std::string> leftovers = {kDb + "db/hadrix/.volume_level.a1B2c3", kDb + "db/.top.ZZZZZZ",
                                                kMemory + "memory/tv-viewer/.show_ext_volume.000000"};
    // Names a write never gives its temporary file, and one below a hidden directory.
    const std::vector<std::string> others = {kDb + "db/hadrix/.volume_level.a1B2c", kDb + "db/hadrix/volume_level.a1B2c3",
                                             kDb + "db/hadrix/.volume_level.a1-2c3", kDb + "db/hadrix/..x.a1B2c3",
                                             kDb + "db/.hidden/.key.a1B2c3", kMemory + "memory/.key.a1B2c3.x"};
    const std::string live = kDb + "db/hadrix/.volume_mute_status.qwerty";
    for (const auto &group : {leftovers, others, {live}})
        for (const std::string &path : group)
            temp_.WriteFile(path, "int:1\n");
    temp_.WriteFile("/victim", "keep me");
    fs::create_symlink(temp_.Path("/victim"), temp_.Path(kDb + "db/hadrix/.link.a1B2c3"));
    // A writer still at it holds its temporary file's lock.
    UniqueFd writing(open(temp_.Path(live).c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(writing.get(), LOCK_EX), 0);

    int level = 0;
    EXPECT_EQ(vconf_get_int("db/hadrix/volume_level", &level), -1);
    for (const std::string &path : leftovers)
        EXPECT_FALSE(temp_.Exists(path)) << path;
    for (const std::string &path : others)
        EXPECT_TRUE(temp_.Exists(path)) << path;
    EXPECT_TRUE(temp_.Exists(live));
    EXPECT_TRUE(fs::is_symlink(temp_.Path(kDb + "db/hadrix/.link.a1B2c3")));
    EXPECT_EQ(temp_.ReadFile("/victim"), "keep me");
}

} // namespace
