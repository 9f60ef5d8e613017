// Reading the device depot file back: well-formed files, and refusals of everything else.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DevicesDepot.h"
#include "TempRoot.h"

namespace {

const char kTwoEntries[] = R"([
  {"product_name": "Headset A", "vendor_id": 1133, "product_id": 2115, "dev_path": "/usb1/card1",
   "manufature": "Maker A", "card_num": 1, "status": 1, "time_stamp": "4000000000"},
  {"product_name": "Headset B", "vendor_id": 39046, "product_id": 71, "dev_path": "/usb2/card2",
   "manufature": "Maker B", "card_num": 2, "status": 3, "time_stamp": "17"}
])";

class DevicesDepotTest : public ::testing::Test {
protected:
    void SetUp() override { DevicesDepot::ReleaseInstance(); }
    void TearDown() override { DevicesDepot::ReleaseInstance(); }

    // A depot read from a file with this content; the captured log is kept in m_log.
    DevicesDepot &Load(const std::string &content)
    {
        root.WriteFile(DEVICES_DEPOT_FILE, content);
        return Reload();
    }
    DevicesDepot &Reload()
    {
        DevicesDepot::ReleaseInstance();
        ::testing::internal::CaptureStderr();
        DevicesDepot &depot = *DevicesDepot::GetInstance();
        m_log = ::testing::internal::GetCapturedStderr();
        return depot;
    }
    std::vector<USBDeviceInfo> Records()
    {
        std::vector<USBDeviceInfo> records;
        DevicesDepot::GetInstance()->ForeachDevice([&records](const USBDeviceInfo &info) { records.push_back(info); });
        return records;
    }
    bool Logged(const std::string &text) const { return m_log.find(text) != std::string::npos; }

    TempRoot root;
    std::string m_log;
};

TEST_F(DevicesDepotTest, ReadsEveryFieldInFileOrder)
{
    Load(kTwoEntries);
    std::vector<USBDeviceInfo> records = Records();
    ASSERT_EQ(records.size(), 2u);

    EXPECT_EQ(records[0].strProductName, "Headset A");
    EXPECT_EQ(records[0].nVendorId, 1133);
    EXPECT_EQ(records[0].nProductId, 2115);
    EXPECT_EQ(records[0].strDevPath, "/usb1/card1");
    EXPECT_EQ(records[0].strManufature, "Maker A");
    EXPECT_EQ(records[0].nCardNum, 1);
    EXPECT_EQ(records[0].eStatus, DEVICE_STATUS_USING);
    EXPECT_EQ(records[0].timeStamp, 4000000000u);

    EXPECT_EQ(records[1].strDevPath, "/usb2/card2");
    EXPECT_EQ(records[1].eStatus, DEVICE_STATUS_RELEASED);
    EXPECT_EQ(records[1].timeStamp, 17u);
}

TEST_F(DevicesDepotTest, FindDeviceNeedsBothIds)
{
    DevicesDepot &depot = Load(kTwoEntries);
    EXPECT_TRUE(depot.FindDevice(1133, 2115));
    EXPECT_TRUE(depot.FindDevice(39046, 71));
    EXPECT_FALSE(depot.FindDevice(1133, 71)) << "ids of two different entries";
    EXPECT_FALSE(depot.FindDevice(1133, 0));
    EXPECT_FALSE(depot.FindDevice(0, 2115));

    DevicesDepot &empty = Load("[]");
    EXPECT_FALSE(empty.FindDevice(1133, 2115));
    EXPECT_FALSE(empty.FindDevice(0, 0)) << "an empty depot has no zero-id record";
}

TEST_F(DevicesDepotTest, MissingOrUnreadableFileGivesAnEmptyDepot)
{
    Reload();
    EXPECT_TRUE(Records().empty());
    EXPECT_TRUE(Logged("fail to open the fail.")) << m_log;

    root.WriteFile(DEVICES_DEPOT_FILE + std::string("/inside"), "[]"); // the depot path is a directory
    Reload();
    EXPECT_TRUE(Records().empty());
    EXPECT_TRUE(Logged("fail to open the fail.")) << m_log;
}

TEST_F(DevicesDepotTest, InvalidJsonOrARootThatIsNoArrayGivesAnEmptyDepot)
{
    const std::string invalid = "prase device depot fail.";
    const std::pair<std::string, std::string> cases[] = {
        {"", invalid},
        {std::string(kTwoEntries).substr(0, 120), invalid},
        {std::string("\x7f" "ELF\x02\x01\x00\xff\xfe{[\x00\x80", 14), invalid},
        {std::string(100000, '[') + std::string(100000, ']'), invalid},
        {"{\"a\": }", invalid},
        {R"({"product_name": "x", "vendor_id": 1133, "product_id": 2115})", "not an array"},
        {"42", "not an array"},
        {"\"text\"", "not an array"}};
    for (const auto &c : cases) {
        Load(c.first);
        EXPECT_TRUE(Records().empty()) << c.first.size() << " bytes";
        EXPECT_TRUE(Logged(c.second)) << m_log;
    }
}

TEST_F(DevicesDepotTest, HugeFileIsRefusedWithoutParsing)
{
    std::string entry = R"({"vendor_id": 1133, "product_id": 2115, "dev_path": "/usb1/card1"},)";
    std::string huge = "[";
    while (huge.size() < 4 * 1024 * 1024)
        huge += entry;
    huge += "{}]";
    Load(huge);
    EXPECT_TRUE(Records().empty());
    EXPECT_TRUE(Logged("larger than")) << m_log.substr(0, 2000);
}

TEST_F(DevicesDepotTest, FieldOfTheWrongTypeIsSkippedAndTheRestKept)
{
    Load(R"([{"product_name": 5, "vendor_id": "1133", "product_id": 2115.5, "dev_path": "/usb1/card1",
              "manufature": ["M"], "card_num": true, "status": "1", "time_stamp": 42},
             null, 7, "x", [1],
             {"vendor_id": 4294967295, "product_id": -1, "card_num": 2.0}])");
    // Entries that are no objects are skipped.
    std::vector<USBDeviceInfo> records = Records();
    ASSERT_EQ(records.size(), 2u);

    EXPECT_EQ(records[0].strDevPath, "/usb1/card1");
    EXPECT_EQ(records[0].strProductName, "");
    EXPECT_EQ(records[0].nVendorId, 0);
    EXPECT_EQ(records[0].nProductId, 0);
    EXPECT_EQ(records[0].strManufature, "");
    EXPECT_EQ(records[0].nCardNum, 0);
    EXPECT_EQ(records[0].eStatus, DEVICE_STATUS_IDLE);
    EXPECT_EQ(records[0].timeStamp, 0u);
    EXPECT_TRUE(Logged("\"vendor_id\" is not a 32-bit integer")) << m_log;

    EXPECT_EQ(records[1].nVendorId, 0) << "above the signed 32-bit range";
    EXPECT_EQ(records[1].nProductId, -1);
    EXPECT_EQ(records[1].nCardNum, 0) << "a floating-point number is not an integer";
    EXPECT_EQ(records[1].strDevPath, "") << "a missing key leaves the field empty";
}

TEST_F(DevicesDepotTest, TimeStampMustBeUnsignedDecimalDigitsWithin32Bits)
{
    struct Case {
        const char *text;
        uint32_t expected;
    };
    const Case cases[] = {
        {"0", 0u},           {"4294967295", 4294967295u}, {"000123", 123u}, {"4294967296", 0u},
        {"99999999999999999999", 0u}, {"12ab", 0u},      {"-1", 0u},       {" 5", 0u},
        {"5 ", 0u},          {"", 0u},                    {"+5", 0u},       {"0x10", 0u},
    };
    for (const Case &c : cases) {
        Load(std::string(R"([{"dev_path": "/usb1/card1", "vendor_id": 9, "time_stamp": ")") + c.text + "\"}]");
        std::vector<USBDeviceInfo> records = Records();
        ASSERT_EQ(records.size(), 1u) << c.text;
        EXPECT_EQ(records[0].timeStamp, c.expected) << '"' << c.text << '"';
        EXPECT_EQ(records[0].nVendorId, 9) << "the rest of the entry is kept";
        if (c.expected == 0u && std::string(c.text).find_first_not_of('0') != std::string::npos) {
            EXPECT_TRUE(Logged("\"time_stamp\" is not an unsigned 32-bit number")) << m_log;
        }
    }
}

TEST_F(DevicesDepotTest, SnapshotDoesNotFollowLaterWrites)
{
    DevicesDepot &depot = Load(kTwoEntries);
    root.WriteFile(DEVICES_DEPOT_FILE, "[]");
    EXPECT_TRUE(depot.FindDevice(1133, 2115));
    EXPECT_EQ(Records().size(), 2u);
}

} // namespace
