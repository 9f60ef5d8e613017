// System information read from the key file under a test root.
#include "nimbos/system_info.h"

#include "TempRoot.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr const char *kConfig = "/etc/nimbos/system-info.conf";
constexpr const char *kDeviceSid = "com.corvel/featureconf/product.device_sid";
constexpr const char *kTunerSupport = "com.corvel/featureconf/broadcast.removable_rf_tuner_support";

std::string Model()
{
    g_autofree char *raw = nullptr;
    const int rc = system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &raw);
    return rc == SYSTEM_INFO_ERROR_NONE && raw ? raw : rc < 0 && !raw ? "<error>" : "<written on failure>";
}

// The file is read as it is at each query; a failed query leaves the caller's result alone.
TEST(SystemInfoTest, ReadsTheFileAsItIsNowAndFailsWithoutTouchingTheResult)
{
    TempRoot root;
    EXPECT_EQ(Model(), "<error>") << "no file";
    root.WriteFile(kConfig, "[system]\nmodel=UA55TV\n[features]\n"
                            "com.corvel/featureconf/product.device_sid=REP.DEVICE.TV\n"
                            "com.corvel/featureconf/broadcast.removable_rf_tuner_support=maybe\n"
                            "com.corvel/featureconf/multiview.support=true\n");
    EXPECT_EQ(Model(), "UA55TV");
    g_autofree char *sid = nullptr;
    ASSERT_EQ(system_info_get_feature_string(kDeviceSid, &sid), SYSTEM_INFO_ERROR_NONE);
    EXPECT_STREQ(sid, "REP.DEVICE.TV");
    char *raw = nullptr;
    EXPECT_LT(system_info_get_feature_string("com.corvel/featureconf/absent", &raw), 0);
    EXPECT_EQ(raw, nullptr);
    bool flag = false;
    ASSERT_EQ(system_info_get_feature_bool("com.corvel/featureconf/multiview.support", &flag), SYSTEM_INFO_ERROR_NONE);
    EXPECT_TRUE(flag);
    EXPECT_LT(system_info_get_feature_bool(kTunerSupport, &flag), 0) << "not a boolean";
    EXPECT_LT(system_info_get_feature_bool("com.corvel/featureconf/absent", &flag), 0);
    EXPECT_TRUE(flag);

    root.WriteFile(kConfig, "[system]\nmodel=SECOND\n[features]\n"
                            "com.corvel/featureconf/broadcast.removable_rf_tuner_support=false\n");
    EXPECT_EQ(Model(), "SECOND");
    ASSERT_EQ(system_info_get_feature_bool(kTunerSupport, &flag), SYSTEM_INFO_ERROR_NONE);
    EXPECT_FALSE(flag);
    root.WriteFile(kConfig, "[features]\n");
    EXPECT_EQ(Model(), "<error>") << "no model";
    root.WriteFile(kConfig, "model without a group\n");
    EXPECT_EQ(Model(), "<error>") << "unparsable";
}

} // namespace
