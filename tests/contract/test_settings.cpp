// settings.h: typed values under "db/" and "memory/" keys, and change callbacks that hear every
// completed write by any process, on the registering thread's context.
#include "ContractTest.h"

#include "nimbos/settings.h"

#include <glib.h>

#include <cmath>

namespace contract {
namespace {

using hadrix::test::LoopThread;

using SettingsContract = ContractTest;

// A change callback's view of its node: "key=int:5", "key=string:x", "key gone".
std::string Describe(keynode_t *node)
{
    const std::string name = vconf_keynode_get_name(node);
    switch (vconf_keynode_get_type(node)) {
    case VCONF_TYPE_INT: return name + "=int:" + std::to_string(vconf_keynode_get_int(node));
    case VCONF_TYPE_BOOL: return name + "=bool:" + std::to_string(vconf_keynode_get_bool(node));
    case VCONF_TYPE_DOUBLE: return name + "=double:" + std::to_string(vconf_keynode_get_dbl(node));
    case VCONF_TYPE_STRING: return name + "=string:" + vconf_keynode_get_str(node);
    case VCONF_TYPE_NONE: return name + (vconf_keynode_get_str(node) ? " gone, with a string" : " gone");
    }
    return name + "=?";
}

void Record(keynode_t *node, void *heard)
{
    static_cast<Heard<std::string> *>(heard)->Add(Describe(node));
}

void RecordToo(keynode_t *node, void *heard)
{
    Record(node, heard);
}

std::string Str(const char *key)
{
    g_autofree char *value = vconf_get_str(key);
    return value ? value : "(failed)";
}

TEST_F(SettingsContract, EachTypeReadsBackAndOnlyAsItsOwnType)
{
    ASSERT_EQ(vconf_set_int("db/test/level", -7), 0);
    ASSERT_EQ(vconf_set_bool("memory/test/flag", 7), 0);
    ASSERT_EQ(vconf_set_dbl("db/test/ratio", 0.25), 0);
    ASSERT_EQ(vconf_set_str("memory/test/name", "a:b \xc3\xa9"), 0);
    ASSERT_EQ(vconf_set_str("db/test/empty", ""), 0);

    int number = 0;
    double real = 0;
    EXPECT_EQ(vconf_get_int("db/test/level", &number), 0);
    EXPECT_EQ(number, -7);
    EXPECT_EQ(vconf_get_bool("memory/test/flag", &number), 0);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(vconf_get_dbl("db/test/ratio", &real), 0);
    EXPECT_EQ(real, 0.25);
    EXPECT_EQ(Str("memory/test/name"), "a:b \xc3\xa9");
    EXPECT_EQ(Str("db/test/empty"), "");

    number = 3;
    real = 9.5;
    EXPECT_EQ(vconf_get_bool("db/test/level", &number), -1);
    EXPECT_EQ(vconf_get_int("memory/test/flag", &number), -1);
    EXPECT_EQ(vconf_get_dbl("db/test/level", &real), -1);
    EXPECT_EQ(Str("db/test/level"), "(failed)");
    EXPECT_EQ(vconf_get_int("db/test/missing", &number), -1);
    EXPECT_EQ(number, 3) << "a failed get writes nothing";
    EXPECT_EQ(real, 9.5);

    ASSERT_EQ(vconf_unset("db/test/level"), 0);
    EXPECT_EQ(vconf_get_int("db/test/level", &number), -1);
    EXPECT_EQ(vconf_unset("db/test/level"), -1) << "removing a missing key fails";
}

TEST_F(SettingsContract, KeysOutsideTheStoresAndValuesItCannotHoldAreRefused)
{
    for (const char *key : {"hadrix/volume", "db/", "memory/", ""}) {
        int number = 0;
        EXPECT_EQ(vconf_set_int(key, 1), -1) << key;
        EXPECT_EQ(vconf_get_int(key, &number), -1) << key;
        EXPECT_EQ(vconf_notify_key_changed(key, Record, nullptr), -1) << key;
    }
    EXPECT_EQ(vconf_set_int(nullptr, 1), -1);
    ASSERT_EQ(vconf_set_str("db/test/name", "old"), 0);
    EXPECT_EQ(vconf_set_str("db/test/name", "two\nlines"), -1);
    EXPECT_EQ(vconf_set_str("db/test/name", nullptr), -1);
    EXPECT_EQ(vconf_set_dbl("db/test/name", HUGE_VAL), -1);
    EXPECT_EQ(Str("db/test/name"), "old");
}

TEST_F(SettingsContract, AnotherProcesssWriteReachesTheCallbackOnTheRegisteringThread)
{
    LoopThread thread;
    Heard<std::string> heard;
    thread.Run([&heard] { ASSERT_EQ(vconf_notify_key_changed("memory/test/watched", Record, &heard), 0); });

    driver.WriteSetting("memory/test/watched", "int", "42");
    ASSERT_TRUE(heard.WaitFor(1));
    driver.WriteSetting("memory/test/watched", "string", "hello");
    ASSERT_TRUE(heard.WaitFor(2));
    EXPECT_EQ(heard.Events(), (std::vector<std::string>{"memory/test/watched=int:42", "memory/test/watched=string:hello"}));
    EXPECT_TRUE(heard.AllOn(thread.Id()));
    thread.Run([] { EXPECT_EQ(vconf_ignore_key_changed("memory/test/watched", Record), 0); });
}

TEST_F(SettingsContract, TheProcesssOwnWriteIsAnnouncedLaterNotDuringTheCall)
{
    Heard<std::string> heard;
    ASSERT_EQ(vconf_notify_key_changed("db/test/level", Record, &heard), 0);
    ASSERT_EQ(vconf_set_bool("db/test/level", 1), 0);
    EXPECT_EQ(heard.Count(), 0u);
    ASSERT_TRUE(heard.WaitFor(1));
    EXPECT_EQ(heard.Events(), std::vector<std::string>{"db/test/level=bool:1"});
    EXPECT_EQ(vconf_ignore_key_changed("db/test/level", Record), 0);
}

// A removal is not a write: it is not announced, but a callback that runs after it finds the key
// gone.
TEST_F(SettingsContract, ACallbackReadsTheKeyAsItIsWhenItRuns)
{
    const char *key = "memory/test/watched";
    ASSERT_EQ(vconf_set_int(key, 1), 0);
    Heard<std::string> heard;
    ASSERT_EQ(vconf_notify_key_changed(key, Record, &heard), 0);

    driver.RemoveSetting(key);
    driver.WriteSetting(key, "double", "0.5");
    ASSERT_TRUE(heard.WaitFor(1));
    driver.WriteSetting(key, "string", "soon gone");
    driver.RemoveSetting(key);
    ASSERT_TRUE(heard.WaitFor(2));
    RunPending();
    EXPECT_EQ(heard.Events(), (std::vector<std::string>{"memory/test/watched=double:0.500000", "memory/test/watched gone"}));
    EXPECT_EQ(vconf_ignore_key_changed(key, Record), 0);
}

TEST_F(SettingsContract, OneRegistrationPerKeyAndCallbackUntilIgnored)
{
    const char *key = "db/test/level";
    Heard<std::string> replaced, kept, other;
    ASSERT_EQ(vconf_notify_key_changed(key, Record, &replaced), 0);
    ASSERT_EQ(vconf_notify_key_changed(key, Record, &kept), 0) << "registering again replaces the user data";
    ASSERT_EQ(vconf_notify_key_changed(key, RecordToo, &other), 0);
    driver.WriteSetting(key, "int", "1");
    ASSERT_TRUE(kept.WaitFor(1) && other.WaitFor(1));

    ASSERT_EQ(vconf_ignore_key_changed(key, Record), 0);
    driver.WriteSetting(key, "int", "2");
    ASSERT_TRUE(other.WaitFor(2));
    RunPending();
    EXPECT_EQ(replaced.Count(), 0u);
    EXPECT_EQ(kept.Events(), std::vector<std::string>{"db/test/level=int:1"});
    EXPECT_EQ(vconf_ignore_key_changed(key, Record), -1);
    EXPECT_EQ(vconf_ignore_key_changed(key, RecordToo), 0);
}

} // namespace
} // namespace contract
