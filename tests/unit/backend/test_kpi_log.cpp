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

std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

Json::Value ParseObject(const std::string &line)
{
    Json::CharReaderBuilder builder;
    Json::Value value;
    std::string errors;
    std::istringstream in(line);
    EXPECT_TRUE(Json::parseFromStream(builder, in, &value, &errors)) << errors << " in: " << line;
    EXPECT_TRUE(value.isObject()) << line;
    return value;
}

class KpiLogTest : public ::testing::Test {
protected:
    std::vector<Json::Value> Events()
    {
        std::vector<Json::Value> events;
        for (const std::string &line : Lines(root.ReadFile(kKpiFile)))
            events.push_back(ParseObject(line));
        return events;
    }

    TempRoot root;
    CKPILog &kpi = *CKPILog::GetInstance();
};

TEST_F(KpiLogTest, EachEventIsOneJsonLineWithItsFields)
{
    uint32_t uptimeBefore = CUsbServiceUtil::GetUptime();
    uint32_t timeBefore = CUsbServiceUtil::GetCurrentTimeStamp();
    kpi.SendNewConnectedDevice("USB Audio Headset", 0x046d, 0x0a44);
    kpi.SendConnectStatus(true, "First Headset", "Second Headset");
    kpi.SendConnectStatus(false, "First Headset", "");
    kpi.SendWarnings(KPI_WARNING_DEVICE_SETUP_FAILED, "Odd Card");
    kpi.SendWarnings(KPI_WARNING_UNSUPPORTED_DEVICE, "Gamepad");
    uint32_t uptimeAfter = CUsbServiceUtil::GetUptime();
    uint32_t timeAfter = CUsbServiceUtil::GetCurrentTimeStamp();

    std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), 5u);
    for (const Json::Value &event : events) {
        ASSERT_TRUE(event["uptime_ms"].isUInt()) << event;
        ASSERT_TRUE(event["time_ms"].isUInt()) << event;
        EXPECT_GE(event["uptime_ms"].asUInt(), uptimeBefore);
        EXPECT_LE(event["uptime_ms"].asUInt(), uptimeAfter);
        EXPECT_GE(event["time_ms"].asUInt(), timeBefore);
        EXPECT_LE(event["time_ms"].asUInt(), timeAfter);
    }

    EXPECT_EQ(events[0]["event"], "new_connected_device");
    EXPECT_EQ(events[0]["product_name"], "USB Audio Headset");
    EXPECT_EQ(events[0]["vendor_id"], 0x046d);
    EXPECT_EQ(events[0]["product_id"], 0x0a44);

    EXPECT_EQ(events[1]["event"], "connect_status");
    EXPECT_EQ(events[1]["connected"], true);
    EXPECT_EQ(events[1]["first_name"], "First Headset");
    EXPECT_EQ(events[1]["second_name"], "Second Headset");
    EXPECT_EQ(events[2]["connected"], false);
    EXPECT_EQ(events[2]["second_name"], "");

    EXPECT_EQ(events[3]["event"], "warning");
    EXPECT_EQ(events[3]["warning"], "device_setup_failed");
    EXPECT_EQ(events[3]["warning_code"], 2);
    EXPECT_EQ(events[3]["product_name"], "Odd Card");
    EXPECT_EQ(events[4]["warning"], "unsupported_device");
    EXPECT_EQ(events[4]["warning_code"], 1);
}

TEST_F(KpiLogTest, DeviceTextsCannotBreakTheLineFormat)
{
    const std::string hostile = "Head\"set\n{\"event\":\"forged\"}\\";
    kpi.SendNewConnectedDevice(hostile, 1, 2);
    kpi.SendWarnings(static_cast<KPI_WARNING>(99), hostile);

    std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["product_name"], hostile);
    EXPECT_EQ(events[1]["warning"], "unknown");
    EXPECT_EQ(events[1]["warning_code"], 99);
}

TEST_F(KpiLogTest, EventsAreAppendedToWhatIsThere)
{
    root.WriteFile(kKpiFile, "{\"event\":\"earlier\"}\n");
    kpi.SendConnectStatus(true, "Headset", "");

    std::vector<Json::Value> events = Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["event"], "earlier");
    EXPECT_EQ(events[1]["event"], "connect_status");
}

} // namespace
