// system_info.h: the model and feature keys, read anew at every query; absent ones fail.
#include "ContractTest.h"

#include "nimbos/system_info.h"

#include <glib.h>

namespace contract {
namespace {

constexpr const char *kDeviceSid = "com.corvel/featureconf/product.device_sid";
constexpr const char *kMultiview = "com.corvel/featureconf/multiview.support";
constexpr const char *kTuner = "com.corvel/featureconf/broadcast.removable_rf_tuner_support";
constexpr const char *kAbsent = "com.corvel/featureconf/absent";

using SystemInfoContract = ContractTest;

std::string Model()
{
    g_autofree char *model = nullptr;
    const int result = system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &model);
    if (result != SYSTEM_INFO_ERROR_NONE)
        return model ? "(written on failure)" : "(error " + std::to_string(result) + ")";
    return model ? model : "(null)";
}

TEST_F(SystemInfoContract, QueriesReadTheInformationAsItIsNow)
{
    driver.SetModel("UA55TV");
    driver.SetFeature(kDeviceSid, "REP.DEVICE.TV");
    driver.SetFeature(kMultiview, "true");
    driver.SetFeature(kTuner, "maybe");
    EXPECT_EQ(Model(), "UA55TV");
    g_autofree char *sid = nullptr;
    ASSERT_EQ(system_info_get_feature_string(kDeviceSid, &sid), SYSTEM_INFO_ERROR_NONE);
    EXPECT_STREQ(sid, "REP.DEVICE.TV");
    bool flag = false;
    ASSERT_EQ(system_info_get_feature_bool(kMultiview, &flag), SYSTEM_INFO_ERROR_NONE);
    EXPECT_TRUE(flag);
    EXPECT_EQ(system_info_get_feature_bool(kTuner, &flag), SYSTEM_INFO_ERROR_IO_ERROR) << "not a boolean";
    EXPECT_TRUE(flag) << "a failed query writes nothing";

    driver.SetModel("SECOND");
    driver.SetFeature(kTuner, "false");
    EXPECT_EQ(Model(), "SECOND");
    ASSERT_EQ(system_info_get_feature_bool(kTuner, &flag), SYSTEM_INFO_ERROR_NONE);
    EXPECT_FALSE(flag);
}

TEST_F(SystemInfoContract, AbsentInformationFailsWithIoError)
{
    EXPECT_EQ(Model(), "(error " + std::to_string(SYSTEM_INFO_ERROR_IO_ERROR) + ")") << "nothing at all";
    driver.SetFeature(kDeviceSid, "REP.DEVICE.TV");
    EXPECT_EQ(Model(), "(error " + std::to_string(SYSTEM_INFO_ERROR_IO_ERROR) + ")") << "features but no model";
    char *text = nullptr;
    bool flag = true;
    EXPECT_EQ(system_info_get_feature_string(kAbsent, &text), SYSTEM_INFO_ERROR_IO_ERROR);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(system_info_get_feature_bool(kAbsent, &flag), SYSTEM_INFO_ERROR_IO_ERROR);
    EXPECT_TRUE(flag);
    EXPECT_EQ(system_info_get_feature_string(kDeviceSid, nullptr), SYSTEM_INFO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(system_info_get_value_string(static_cast<system_info_key_e>(99), &text),
              SYSTEM_INFO_ERROR_INVALID_PARAMETER);
}

} // namespace
} // namespace contract
