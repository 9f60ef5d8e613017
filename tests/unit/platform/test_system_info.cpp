// System information read from the key file under a test root.
#include "nimbos/system_info.h"

#include "TempRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace {

constexpr const char *kConfig = "/etc/nimbos/system-info.conf";
constexpr const char *kDeviceSid = "com.corvel/featureconf/product.device_sid";
constexpr const char *kTunerSupport = "com.corvel/featureconf/broadcast.removable_rf_tuner_support";

struct FreeDeleter {
    void operator()(char *text) const { free(text); }
};
using Text = std::unique_ptr<char, FreeDeleter>;

class SystemInfoTest : public ::testing::Test {
protected:
    void WriteConfig(const std::string &content) { m_root.WriteFile(kConfig, content); }

    TempRoot m_root;
};

TEST_F(SystemInfoTest, ReadsModelAndFeaturesByFullName)
{
    WriteConfig("[system]\nmodel=UA55TV\n"
                "[features]\n"
                "com.corvel/featureconf/product.device_sid=REP.DEVICE.TV\n"
                "com.corvel/featureconf/broadcast.removable_rf_tuner_support=false\n"
                "com.corvel/featureconf/multiview.support=true\n");

    char *raw = nullptr;
    ASSERT_EQ(system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &raw), SYSTEM_INFO_ERROR_NONE);
    EXPECT_STREQ(Text(raw).get(), "UA55TV");

    ASSERT_EQ(system_info_get_feature_string(kDeviceSid, &raw), SYSTEM_INFO_ERROR_NONE);
    EXPECT_STREQ(Text(raw).get(), "REP.DEVICE.TV");

    bool flag = true;
    ASSERT_EQ(system_info_get_feature_bool(kTunerSupport, &flag), SYSTEM_INFO_ERROR_NONE);
    EXPECT_FALSE(flag);
    ASSERT_EQ(system_info_get_feature_bool("com.corvel/featureconf/multiview.support", &flag),
              SYSTEM_INFO_ERROR_NONE);
    EXPECT_TRUE(flag);
}

TEST_F(SystemInfoTest, SeesAnEditedFileAtOnce)
{
    WriteConfig("[system]\nmodel=FIRST\n");
    char *raw = nullptr;
    ASSERT_EQ(system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &raw), SYSTEM_INFO_ERROR_NONE);
    EXPECT_STREQ(Text(raw).get(), "FIRST");

    WriteConfig("[system]\nmodel=SECOND\n");
    ASSERT_EQ(system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &raw), SYSTEM_INFO_ERROR_NONE);
    EXPECT_STREQ(Text(raw).get(), "SECOND");
}

TEST_F(SystemInfoTest, MissingFileFailsEveryQuery)
{
    char *raw = nullptr;
    bool flag = false;
    EXPECT_LT(system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &raw), 0);
    EXPECT_LT(system_info_get_feature_string(kDeviceSid, &raw), 0);
    EXPECT_LT(system_info_get_feature_bool(kTunerSupport, &flag), 0);
    EXPECT_EQ(raw, nullptr);
}

TEST_F(SystemInfoTest, MissingKeyOrGroupFails)
{
    WriteConfig("[features]\ncom.corvel/featureconf/product.device_sid=REP.DEVICE.TV\n");
    char *raw = nullptr;
    bool flag = false;
    EXPECT_LT(system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &raw), 0);
    EXPECT_LT(system_info_get_feature_string("com.corvel/featureconf/absent", &raw), 0);
    EXPECT_LT(system_info_get_feature_bool(kTunerSupport, &flag), 0);
    EXPECT_EQ(raw, nullptr);
}

TEST_F(SystemInfoTest, NonBooleanValueFailsAndLeavesResultAlone)
{
    WriteConfig("[features]\ncom.corvel/featureconf/broadcast.removable_rf_tuner_support=maybe\n");
    bool flag = true;
    EXPECT_LT(system_info_get_feature_bool(kTunerSupport, &flag), 0);
    EXPECT_TRUE(flag);
}

TEST_F(SystemInfoTest, UnparsableFileFails)
{
    WriteConfig("model without a group\n");
    char *raw = nullptr;
    EXPECT_LT(system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &raw), 0);
    EXPECT_EQ(raw, nullptr);
}

TEST_F(SystemInfoTest, RefusesBadArguments)
{
    WriteConfig("[system]\nmodel=UA55TV\n");
    char *raw = nullptr;
    bool flag = false;
    EXPECT_EQ(system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, nullptr), SYSTEM_INFO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(system_info_get_value_string(static_cast<system_info_key_e>(7), &raw),
              SYSTEM_INFO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(system_info_get_feature_string(nullptr, &raw), SYSTEM_INFO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(system_info_get_feature_bool("", &flag), SYSTEM_INFO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(raw, nullptr);
}

} // namespace
