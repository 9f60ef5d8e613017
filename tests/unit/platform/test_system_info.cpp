// System information read from the key file under a test root.
#include "nimbos/system_info.h"

#include "TempRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace {

constexpr const char *kConfig = "/etc/nimbos/system-info.conf";
constexpr const char *kDeviceSid = "com.corvel/featureconf/product.device_sid";
constexpr const char *kTunerSupport = "com.corvel/featureconf/broadcast.removable_rf_tuner_support";

// What a query answers: its value, "<error>", or "<written on failure>" when a failing query
// touched the caller's result.
std::string Answer(int rc, char *raw)
{
    g_autofree char *text = raw;
    if (rc != SYSTEM_INFO_ERROR_NONE)
        return rc < 0 && !text ? "<error>" : "<written on failure>";
    return text ? text : "<null>";
}

std::string Model()
{
    char *raw = nullptr;
    const int rc = system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &raw);
    return Answer(rc, raw);
}

std::string Feature(const char *key)
{
    char *raw = nullptr;
    const int rc = system_info_get_feature_string(key, &raw);
    return Answer(rc, raw);
}

std::string Flag(const char *key)
{
    bool flag = true;
    const int rc = system_info_get_feature_bool(key, &flag);
    if (rc != SYSTEM_INFO_ERROR_NONE)
        return rc < 0 && flag ? "<error>" : "<written on failure>";
    return flag ? "true" : "false";
}

TEST(SystemInfoTest, ReadsModelAndFeaturesByFullNameFromTheFileAsItIsNow)
{
    TempRoot root;
    root.WriteFile(kConfig, "[system]\nmodel=UA55TV\n[features]\n"
                            "com.corvel/featureconf/product.device_sid=REP.DEVICE.TV\n"
                            "com.corvel/featureconf/broadcast.removable_rf_tuner_support=false\n"
                            "com.corvel/featureconf/multiview.support=true\n");
    EXPECT_EQ(Model(), "UA55TV");
    EXPECT_EQ(Feature(kDeviceSid), "REP.DEVICE.TV");
    EXPECT_EQ(Flag(kTunerSupport), "false");
    EXPECT_EQ(Flag("com.corvel/featureconf/multiview.support"), "true");

    root.WriteFile(kConfig, "[system]\nmodel=SECOND\n");
    EXPECT_EQ(Model(), "SECOND");
}

TEST(SystemInfoTest, UnreadableValuesFailAndLeaveTheResultAlone)
{
    const std::optional<std::string> configs[] = {
        std::nullopt,
        "[features]\ncom.corvel/featureconf/product.device_sid=REP.DEVICE.TV\n",
        "model without a group\n",
        "[system]\n[features]\ncom.corvel/featureconf/broadcast.removable_rf_tuner_support=maybe\n",
    };
    for (const auto &config : configs) {
        SCOPED_TRACE(config.value_or("no file"));
        TempRoot root;
        if (config)
            root.WriteFile(kConfig, *config);
        EXPECT_EQ(Model(), "<error>");
        EXPECT_EQ(Feature("com.corvel/featureconf/absent"), "<error>");
        EXPECT_EQ(Flag(kTunerSupport), "<error>");
    }
}

TEST(SystemInfoTest, RefusesBadArguments)
{
    TempRoot root;
    root.WriteFile(kConfig, "[system]\nmodel=UA55TV\n");
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
