// The detected-device list: list semantics, and the debounced save to the device depot file.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <json/json.h>
#include <unistd.h>

#include "DevicesDepot.h"
#include "DevicesDetected.h"
#include "FakeClock.h"
#include "LocalFileData.h"
#include "TempRoot.h"

namespace {

constexpr uint64_t kSaveDelayMs = 500;

USBDeviceInfo Device(const std::string &path, uint32_t timeStamp = 0, device_status status = DEVICE_STATUS_IDLE)
{
    return {"Headset " + path, 0x046D, 0x0843, path, "Maker", 1, status, timeStamp};
}

std::vector<std::string> Paths(const std::vector<USBDeviceInfo> &devices)
{
    std::vector<std::string> paths;
    for (const USBDeviceInfo &info : devices)
        paths.push_back(info.strDevPath);
    return paths;
}

class DevicesDetectedTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        DevicesDetected::ReleaseInstance();
        CLocalFileData::ReleaseInstance();
    }
    void TearDown() override
    {
        DevicesDetected::ReleaseInstance();
        CLocalFileData::ReleaseInstance();
    }

    DevicesDetected &List() { return *DevicesDetected::GetInstance(); }
    // What the saves so far wrote to the depot file ("" for nothing); the file is taken away, so
    // that the next save shows.
    std::string TakeDepot()
    {
        if (!root.Exists(DEVICES_DEPOT_FILE))
            return "";
        const std::string content = root.ReadFile(DEVICES_DEPOT_FILE);
        unlink(root.Path(DEVICES_DEPOT_FILE).c_str());
        return content;
    }

    TempRoot root;
    FakeClock clock;
};

TEST_F(DevicesDetectedTest, ReAddedDeviceMovesToTheEndWithNewValues)
{
    List().AddDevice(Device("/a", 10, DEVICE_STATUS_USING));
    List().AddDevice(Device("/b", 20));
    List().AddDevice(Device("/c", 30));
    USBDeviceInfo again = Device("/a", 5, DEVICE_STATUS_RELEASED);
    again.strProductName = "Renamed";
    again.nCardNum = 7;
    List().AddDevice(again);

    std::vector<USBDeviceInfo> devices = List().GetDevices();
    ASSERT_EQ(Paths(devices), (std::vector<std::string>{"/b", "/c", "/a"}));
    EXPECT_EQ(List().GetSize(), 3);
    EXPECT_EQ(std::make_tuple(devices[2].strProductName, devices[2].nCardNum, devices[2].timeStamp, devices[2].eStatus),
              std::make_tuple(std::string("Renamed"), 7, 5u, DEVICE_STATUS_RELEASED));

    // Foreach keeps the list order, not the time order.
    std::vector<USBDeviceInfo> seen;
    List().ForeachDevice([&seen](const USBDeviceInfo &info) { seen.push_back(info); });
    EXPECT_EQ(Paths(seen), (std::vector<std::string>{"/b", "/c", "/a"}));
    EXPECT_EQ(seen[0].timeStamp, 20u);
    List().Clear();
    EXPECT_EQ(List().GetSize(), 0);
}

TEST_F(DevicesDetectedTest, LookupsAndChangesActOnTheWholeNamedPathOnly)
{
    EXPECT_EQ(List().GetDeviceStatus("/usb1/card0"), DEVICE_STATUS_IDLE) << "empty list";
    EXPECT_FALSE(List().FindDevice("/usb1/card0"));
    for (device_status status : {DEVICE_STATUS_USING, DEVICE_STATUS_RELEASED, DEVICE_STATUS_IDLE,
                                 DEVICE_STATUS_RESERVED, DEVICE_STATUS_USING})
        List().AddDevice(Device("/usb1/card" + std::to_string(List().GetSize()), 0, status));
    for (const char *other : {"/usb1/card", "/usb1/card12", ""})
        EXPECT_FALSE(List().FindDevice(other)) << other;
    EXPECT_TRUE(List().FindDevice("/usb1/card1"));
    EXPECT_EQ(List().GetDeviceStatus("/usb1/card0"), DEVICE_STATUS_USING);
    EXPECT_EQ(List().GetDeviceStatus("/usb1/card"), DEVICE_STATUS_IDLE);
    EXPECT_EQ(List().GetUsingCnt(), 2) << "status 1 only";

    List().SetDeviceStatus("/usb1/card2", DEVICE_STATUS_RESERVED);
    List().SetDeviceStatus("/usb1/card0", DEVICE_STATUS_RELEASED);
    EXPECT_EQ(List().GetDeviceStatus("/usb1/card2"), DEVICE_STATUS_RESERVED);
    EXPECT_EQ(List().GetDeviceStatus("/usb1/card3"), DEVICE_STATUS_RESERVED);
    EXPECT_EQ(List().GetDeviceStatus("/usb1/card4"), DEVICE_STATUS_USING);
    EXPECT_EQ(List().GetUsingCnt(), 1);

    List().RemoveDevice("/usb1/card2");
    List().RemoveDevice("/unknown");
    List().SetDeviceStatus("/unknown", DEVICE_STATUS_USING);
    EXPECT_EQ(Paths(List().GetDevices()), (std::vector<std::string>{"/usb1/card0", "/usb1/card1", "/usb1/card3",
                                                                     "/usb1/card4"}));
    EXPECT_EQ(List().GetUsingCnt(), 1);
}

TEST_F(DevicesDetectedTest, SortOrdersTimeStampsAsUnsignedNumbers)
{
    for (auto device : {Device("/late", 4000000000u), Device("/early", 5), Device("/half", 2147483648u),
                        Device("/mid", 100)})
        List().AddDevice(device);
    List().SortDevices();
    EXPECT_EQ(Paths(List().GetDevices()), (std::vector<std::string>{"/early", "/mid", "/half", "/late"}));
}

TEST_F(DevicesDetectedTest, ClearSortAndUnknownPathChangesScheduleNoSave)
{
    List().AddDevice(Device("/b", 2));
    List().AddDevice(Device("/a", 1));
    clock.Advance(kSaveDelayMs);
    ASSERT_NE(TakeDepot(), "");

    List().SortDevices();
    List().Clear();
    List().RemoveDevice("/unknown");
    List().SetDeviceStatus("/unknown", DEVICE_STATUS_USING);
    clock.Advance(10 * kSaveDelayMs);
    EXPECT_EQ(TakeDepot(), "");
}

TEST_F(DevicesDetectedTest, BurstOfThreeChangesIsSavedOnceHalfASecondAfterTheLast)
{
    List().AddDevice(Device("/a"));
    clock.Advance(200);
    List().AddDevice(Device("/b"));
    clock.Advance(200);
    List().SetDeviceStatus("/a", DEVICE_STATUS_USING);
    clock.Advance(kSaveDelayMs - 1);
    EXPECT_EQ(TakeDepot(), "");
    clock.Advance(1);
    // The one write holds the list as it was after the last change.
    const std::string content = TakeDepot();
    EXPECT_NE(content.find("\"/b\""), std::string::npos) << content;
    EXPECT_NE(content.find("\"status\" : 1"), std::string::npos) << content;
    clock.Advance(10 * kSaveDelayMs);
    EXPECT_EQ(TakeDepot(), "") << "saved once";
}

TEST_F(DevicesDetectedTest, ChangesFromAnotherThreadAreSavedOnce)
{
    DevicesDetected *list = &List();
    std::thread worker([list] {
        for (int i = 0; i < 3; ++i)
            list->AddDevice(Device("/w" + std::to_string(i)));
    });
    worker.join();
    clock.Advance(kSaveDelayMs);
    EXPECT_NE(TakeDepot().find("\"/w2\""), std::string::npos);
    clock.Advance(10 * kSaveDelayMs);
    EXPECT_EQ(TakeDepot(), "") << "saved once";
}

TEST_F(DevicesDetectedTest, SavedFileHoldsTheRecordsWithTheTimeStampAsText)
{
    USBDeviceInfo info = Device("/devices/usb1/1-1/1-1:1.0/sound/card1", 4000000000u, DEVICE_STATUS_USING);
    info.bNotified = true;
    List().AddDevice(info);
    clock.Advance(kSaveDelayMs);

    Json::Value saved;
    std::string errors;
    const std::string text = root.ReadFile(DEVICES_DEPOT_FILE);
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &saved, &errors)) << errors;
    ASSERT_TRUE(saved.isArray() && saved.size() == 1u) << text;
    EXPECT_EQ(saved[0].getMemberNames(), (std::vector<std::string>{"card_num", "dev_path", "manufature", "product_id",
                                                                    "product_name", "status", "time_stamp",
                                                                    "vendor_id"}))
        << "the flags are not saved";
    // Read back as a number by the depot (test_devices_depot.cpp).
    EXPECT_EQ(saved[0]["time_stamp"], Json::Value("4000000000"));
}

} // namespace
