// The detected-device list: list semantics, and the debounced save to the device depot file.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <glib.h>
#include <json/json.h>
#include <unistd.h>

#include "DevicesDepot.h"
#include "DevicesDetected.h"
#include "LocalFileData.h"
#include "TempRoot.h"

namespace {

constexpr gint64 kMs = 1000; // monotonic clock units per millisecond
constexpr gint64 kSaveDelay = 500 * kMs;
// How late a save may come on a busy machine before it counts as missing.
constexpr gint64 kSaveSlack = 1000 * kMs;

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

struct DepotWrite {
    gint64 at; // monotonic time at which the write was seen
    std::string content;
};

class DevicesDetectedTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        DevicesDetected::ReleaseInstance();
        CLocalFileData::ReleaseInstance();
        // Wakes the loop often, so that a write is seen right after the iteration that made it.
        m_ticker = g_timeout_add(10, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    }
    void TearDown() override
    {
        g_source_remove(m_ticker);
        DevicesDetected::ReleaseInstance();
        CLocalFileData::ReleaseInstance();
    }

    DevicesDetected &List() { return *DevicesDetected::GetInstance(); }
    bool DepotExists() const { return root.Exists(DEVICES_DEPOT_FILE); }

    // Runs the main loop for the given time and adds every write of the depot file to m_writes.
    // Each write found is moved out of the way, so that the next write shows as a new file.
    const std::vector<DepotWrite> &CollectWrites(gint64 duration)
    {
        gint64 deadline = g_get_monotonic_time() + duration;
        while (g_get_monotonic_time() < deadline) {
            g_main_context_iteration(nullptr, TRUE);
            if (DepotExists()) {
                m_writes.push_back({g_get_monotonic_time(), root.ReadFile(DEVICES_DEPOT_FILE)});
                unlink(root.Path(DEVICES_DEPOT_FILE).c_str());
            }
        }
        return m_writes;
    }

    // Runs the main loop until the depot file appears; leaves it in place.
    bool WaitForDepot()
    {
        gint64 deadline = g_get_monotonic_time() + kSaveDelay + kSaveSlack;
        while (!DepotExists() && g_get_monotonic_time() < deadline)
            g_main_context_iteration(nullptr, TRUE);
        return DepotExists();
    }

    // Checks that exactly one write came, a save delay after lastChange; returns its content.
    std::string OneWriteAfter(gint64 lastChange)
    {
        const std::vector<DepotWrite> &writes = CollectWrites(kSaveDelay + kSaveSlack);
        EXPECT_EQ(writes.size(), 1u);
        if (writes.empty())
            return "";
        EXPECT_GE(writes[0].at - lastChange, kSaveDelay);
        EXPECT_LT(writes[0].at - lastChange, kSaveDelay + kSaveSlack);
        return writes[0].content;
    }

    TempRoot root;
    std::vector<DepotWrite> m_writes;

private:
    guint m_ticker = 0;
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
    ASSERT_TRUE(WaitForDepot());
    ASSERT_EQ(unlink(root.Path(DEVICES_DEPOT_FILE).c_str()), 0);

    List().SortDevices();
    List().Clear();
    List().RemoveDevice("/unknown");
    List().SetDeviceStatus("/unknown", DEVICE_STATUS_USING);
    EXPECT_TRUE(CollectWrites(kSaveDelay + 300 * kMs).empty());
}

TEST_F(DevicesDetectedTest, BurstOfThreeChangesIsSavedOnceAfterTheLast)
{
    List().AddDevice(Device("/a"));
    CollectWrites(200 * kMs);
    List().AddDevice(Device("/b"));
    CollectWrites(200 * kMs);
    gint64 lastChange = g_get_monotonic_time();
    List().SetDeviceStatus("/a", DEVICE_STATUS_USING);
    // The one write holds the list as it was after the last change.
    const std::string content = OneWriteAfter(lastChange);
    EXPECT_NE(content.find("\"/b\""), std::string::npos) << content;
    EXPECT_NE(content.find("\"status\" : 1"), std::string::npos) << content;
}

TEST_F(DevicesDetectedTest, ChangesFromAnotherThreadAreSavedOnce)
{
    std::atomic<gint64> lastChange{0};
    std::atomic<bool> done{false};
    DevicesDetected *list = &List();
    std::thread worker([&] {
        for (int i = 0; i < 3; ++i) {
            lastChange = g_get_monotonic_time();
            list->AddDevice(Device("/w" + std::to_string(i)));
            g_usleep(150 * 1000);
        }
        done = true;
    });
    while (!done)
        CollectWrites(50 * kMs);
    worker.join();
    EXPECT_NE(OneWriteAfter(lastChange.load()).find("\"/w2\""), std::string::npos);
}

TEST_F(DevicesDetectedTest, SavedFileHoldsTheRecordsWithTheTimeStampAsText)
{
    USBDeviceInfo info = Device("/devices/usb1/1-1/1-1:1.0/sound/card1", 4000000000u, DEVICE_STATUS_USING);
    info.bNotified = true;
    List().AddDevice(info);
    ASSERT_TRUE(WaitForDepot());

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
