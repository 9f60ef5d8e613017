// The KPI event log of the audio back end.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "HadrixUtil.h"
#include "KPILog.h"
#include "TempRoot.h"

namespace {

const char kKpiFile[] = "/var/log/hadrix/kpi.jsonl";

Json::Value Parse(const std::string &line)
{
    Json::CharReaderBuilder builder;
    Json::Value value;
    std::string errors;
    std::istringstream in(line);
    EXPECT_TRUE(Json::parseFromStream(builder, in, &value, &errors)) << errors << " in: " << line;
    return value;
}

TEST(KpiLogTest, EachEventIsOneJsonLineAppendedWithItsFieldsAndTimes)
{
    TempRoot root;
    root.WriteFile(kKpiFile, "{\"event\":\"earlier\"}\n");
    CKPILog &kpi = *CKPILog::GetInstance();
    const std::string hostile = "Head\"set\n{\"event\":\"forged\"}\\";
    const uint32_t uptimeBefore = CUsbServiceUtil::GetUptime();
    const uint32_t timeBefore = CUsbServiceUtil::GetCurrentTimeStamp();
    kpi.SendNewConnectedDevice("USB Audio Headset", 0x046d, 0x0a44);
    kpi.SendConnectStatus(true, "First Headset", "Second Headset");
    kpi.SendConnectStatus(false, "First Headset", "");
    kpi.SendWarnings(KPI_WARNING_DEVICE_SETUP_FAILED, "Odd Card");
    kpi.SendWarnings(KPI_WARNING_UNSUPPORTED_DEVICE, "Gamepad");
    kpi.SendNewConnectedDevice(hostile, 1, 2);
    kpi.SendWarnings(static_cast<KPI_WARNING>(99), hostile);
    const uint32_t uptimeAfter = CUsbServiceUtil::GetUptime();
    const uint32_t timeAfter = CUsbServiceUtil::GetCurrentTimeStamp();

    const std::vector<Json::Value> expected = {
        Parse(R"({"event":"earlier"})"),
        Parse(R"({"event":"new_connected_device","product_name":"USB Audio Headset","vendor_id":1133,"product_id":2628})"),
        Parse(R"({"event":"connect_status","connected":true,"first_name":"First Headset","second_name":"Second Headset"})"),
        Parse(R"({"event":"connect_status","connected":false,"first_name":"First Headset","second_name":""})"),
        Parse(R"({"event":"warning","warning":"device_setup_failed","warning_code":2,"product_name":"Odd Card"})"),
        Parse(R"({"event":"warning","warning":"unsupported_device","warning_code":1,"product_name":"Gamepad"})"),
        Parse(R"({"event":"new_connected_device","vendor_id":1,"product_id":2,"product_name":)" +
              Json::valueToQuotedString(hostile.c_str()) + "}"),
        Parse(R"({"event":"warning","warning":"unknown","warning_code":99,"product_name":)" +
              Json::valueToQuotedString(hostile.c_str()) + "}"),
    };
    std::istringstream lines(root.ReadFile(kKpiFile));
    size_t index = 0;
    for (std::string line; std::getline(lines, line); ++index) {
        SCOPED_TRACE(line);
        Json::Value event = Parse(line);
        if (index > 0) {
            ASSERT_TRUE(event["uptime_ms"].isUInt() && event["time_ms"].isUInt());
            EXPECT_GE(event["uptime_ms"].asUInt(), uptimeBefore);
            EXPECT_LE(event["uptime_ms"].asUInt(), uptimeAfter);
            EXPECT_GE(event["time_ms"].asUInt(), timeBefore);
            EXPECT_LE(event["time_ms"].asUInt(), timeAfter);
            event.removeMember("uptime_ms");
            event.removeMember("time_ms");
        }
        ASSERT_LT(index, expected.size());
        EXPECT_EQ(event, expected[index]);
    }
    EXPECT_EQ(index, expected.size());
}

} // namespace
