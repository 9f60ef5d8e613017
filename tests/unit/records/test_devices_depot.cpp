// Reading the device depot file back: well-formed files, and refusals of everything else.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
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

// The saved fields of a record, in the order of the structure.
auto Fields(const USBDeviceInfo &d)
{
    return std::make_tuple(d.strProductName, d.nVendorId, d.nProductId, d.strDevPath, d.strManufature, d.nCardNum,
                           d.eStatus, d.timeStamp);
}

class DevicesDepotTest : public ::testing::Test {
protected:
    void SetUp() override { DevicesDepot::ReleaseInstance(); }
    void TearDown() override { DevicesDepot::ReleaseInstance(); }

    std::vector<USBDeviceInfo> Load(const std::string &content)
    {
        root.WriteFile(DEVICES_DEPOT_FILE, content);
        return Reload();
    }
    // The records of a depot read afresh; what it logged is kept in m_log.
    std::vector<USBDeviceInfo> Reload()
    {
        DevicesDepot::ReleaseInstance();
        ::testing::internal::CaptureStderr();
        std::vector<USBDeviceInfo> records;
        DevicesDepot::GetInstance()->ForeachDevice([&records](const USBDeviceInfo &info) { records.push_back(info); });
        m_log = ::testing::internal::GetCapturedStderr();
        return records;
    }
    bool Logged(const std::string &text) const { return m_log.find(text) != std::string::npos; }

    TempRoot root;
    std::string m_log;
};

TEST_F(DevicesDepotTest, ReadsEveryFieldInFileOrderAndFindsBothIdsInTheSnapshot)
{
    std::vector<USBDeviceInfo> records = Load(kTwoEntries);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(Fields(records[0]), std::make_tuple(std::string("Headset A"), 1133, 2115, std::string("/usb1/card1"),
                                                  std::string("Maker A"), 1, DEVICE_STATUS_USING, 4000000000u));
    EXPECT_EQ(Fields(records[1]), std::make_tuple(std::string("Headset B"), 39046, 71, std::string("/usb2/card2"),
                                                  std::string("Maker B"), 2, DEVICE_STATUS_RELEASED, 17u));

    root.WriteFile(DEVICES_DEPOT_FILE, "[]"); // the depot keeps what it read
    DevicesDepot &depot = *DevicesDepot::GetInstance();
    EXPECT_TRUE(depot.FindDevice(1133, 2115));
    EXPECT_TRUE(depot.FindDevice(39046, 71));
    EXPECT_FALSE(depot.FindDevice(1133, 71)) << "ids of two different entries";
    EXPECT_FALSE(depot.FindDevice(1133, 0));
    EXPECT_FALSE(depot.FindDevice(0, 2115));

    EXPECT_TRUE(Reload().empty());
    EXPECT_FALSE(DevicesDepot::GetInstance()->FindDevice(0, 0)) << "an empty depot has no zero-id record";
}

TEST_F(DevicesDepotTest, MissingUnreadableInvalidOrHugeFileGivesAnEmptyDepot)
{
    EXPECT_TRUE(Reload().empty());
    EXPECT_TRUE(Logged("fail to open the fail.")) << m_log;
    root.WriteFile(DEVICES_DEPOT_FILE + std::string("/inside"), "[]"); // the depot path is a directory
    EXPECT_TRUE(Reload().empty());
    EXPECT_TRUE(Logged("fail to open the fail.")) << m_log;
    ASSERT_EQ(system(("rm -r '" + root.Path(DEVICES_DEPOT_FILE) + "'").c_str()), 0);

    std::string huge = "[";
    while (huge.size() < 4 * 1024 * 1024)
        huge += R"({"vendor_id": 1133, "product_id": 2115, "dev_path": "/usb1/card1"},)";
    const std::string invalid = "prase device depot fail.";
    const std::pair<std::string, std::string> cases[] = {
        {"", invalid},
        {std::string(kTwoEntries).substr(0, 120), invalid},
        {std::string("\x7f" "ELF\x02\x01\x00\xff\xfe{[\x00\x80", 14), invalid},
        {std::string(100000, '[') + std::string(100000, ']'), invalid},
        {"{\"a\": }", invalid},
        {R"({"product_name": "x", "vendor_id": 1133, "product_id": 2115})", "not an array"},
        {"42", "not an array"},
        {"\"text\"", "not an array"},
        {huge + "{}]", "larger than"}};
    for (const auto &c : cases) {
        EXPECT_TRUE(Load(c.first).empty()) << c.first.size() << " bytes";
        EXPECT_TRUE(Logged(c.second)) << m_log.substr(0, 2000);
    }
}

TEST_F(DevicesDepotTest, FieldOfTheWrongTypeIsSkippedAndTheRestKept)
{
    std::vector<USBDeviceInfo> records =
        Load(R"([{"product_name": 5, "vendor_id": "1133", "product_id": 2115.5, "dev_path": "/usb1/card1",
                  "manufature": ["M"], "card_num": true, "status": "1", "time_stamp": 42},
                 null, 7, "x", [1],
                 {"vendor_id": 4294967295, "product_id": -1, "card_num": 2.0}])");
    // Entries that are no objects are skipped; a missing key or a value out of the signed
    // 32-bit range, or a floating-point one, leaves the field at its default.
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(Fields(records[0]), std::make_tuple(std::string(), 0, 0, std::string("/usb1/card1"), std::string(), 0,
                                                  DEVICE_STATUS_IDLE, 0u));
    EXPECT_TRUE(Logged("\"vendor_id\" is not a 32-bit integer")) << m_log;
    EXPECT_EQ(Fields(records[1]),
              std::make_tuple(std::string(), 0, -1, std::string(), std::string(), 0, DEVICE_STATUS_IDLE, 0u));
}

TEST_F(DevicesDepotTest, TimeStampMustBeUnsignedDecimalDigitsWithin32Bits)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"0", 0u},   {"4294967295", 4294967295u}, {"000123", 123u}, {"4294967296", 0u}, {"99999999999999999999", 0u},
        {"12ab", 0u}, {"-1", 0u}, {" 5", 0u}, {"5 ", 0u}, {"", 0u}, {"+5", 0u}, {"0x10", 0u}};
    for (const auto &c : cases) {
        std::vector<USBDeviceInfo> records =
            Load(std::string(R"([{"dev_path": "/usb1/card1", "vendor_id": 9, "time_stamp": ")") + c.first + "\"}]");
        ASSERT_EQ(records.size(), 1u) << c.first;
        EXPECT_EQ(records[0].timeStamp, c.second) << '"' << c.first << '"';
        EXPECT_EQ(records[0].nVendorId, 9) << "the rest of the entry is kept";
        if (c.second == 0u && std::string(c.first).find_first_not_of('0') != std::string::npos) {
            EXPECT_TRUE(Logged("\"time_stamp\" is not an unsigned 32-bit number")) << m_log;
        }
    }
}

} // namespace
