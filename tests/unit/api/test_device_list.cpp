// The device list for client applications: where long texts are cut and which devices it shows
// (the layout as a client reads it: core/test_client_api.cpp).
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HadrixDeviceListInfo.h"

namespace {

constexpr int kRecord = 327; // bytes of one record on the wire

USBDeviceInfo Device(const std::string &product, device_status status, uint32_t timeStamp,
                     const std::string &manufacturer = "Maker")
{
    return {product, 0, 0, "/dev/bus/usb/001/" + product, manufacturer, 0, status, timeStamp};
}

// A filled list, read as the bytes a client receives.
struct Filled {
    HadrixDeviceListInfo_t list{};
    int count = 0;

    const uint8_t *At(int record, int offset = 0) const
    {
        return reinterpret_cast<const uint8_t *>(&list) + record * kRecord + offset;
    }
    std::string Text(int record, int offset) const { return reinterpret_cast<const char *>(At(record, offset)); }
    bool ZeroFrom(int record, int offset = 0) const
    {
        return std::all_of(At(record, offset), At(kNetDeviceListCapacity), [](uint8_t b) { return b == 0; });
    }
};

Filled Fill(std::vector<USBDeviceInfo> devices, int32_t volume = 0)
{
    Filled filled;
    filled.count = FillNetDeviceList(devices, volume, &filled.list);
    return filled;
}

TEST(NetDeviceList, LongTextsAreCutInsideTheirFields)
{
    const std::string name(122, 'n');
    const std::string manufacturer(200, 'm');
    const Filled filled = Fill({Device(name, DEVICE_STATUS_USING, 1, manufacturer)});
    // 122 + " (USB)" is 128 characters: the last one gives way to the terminator.
    EXPECT_EQ(filled.Text(0, 39), name + " (USB");
    EXPECT_EQ(filled.Text(0, 167), manufacturer.substr(0, 127));
    EXPECT_TRUE(filled.ZeroFrom(0, 295));
}

TEST(NetDeviceList, DevicesInUseComeFirstThenTheOldestOthersAtMostTwo)
{
    EXPECT_EQ(Fill({}).count, 0);
    EXPECT_TRUE(Fill({}).ZeroFrom(0));

    // Listed newest first; two others are older than the one in use.
    const Filled mixed = Fill({Device("C", DEVICE_STATUS_IDLE, 30), Device("InUse", DEVICE_STATUS_USING, 20),
                               Device("A", DEVICE_STATUS_IDLE, 10), Device("B", DEVICE_STATUS_RELEASED, 15)},
                              7);
    ASSERT_EQ(mixed.count, 2);
    EXPECT_EQ(mixed.Text(0, 39), "InUse (USB)");
    EXPECT_EQ(mixed.Text(1, 39), "A (USB)");
    EXPECT_EQ(*mixed.At(1), 0) << "not selected";
    EXPECT_EQ(mixed.Text(1, 15), "disconnected");
    int32_t volume = 0;
    memcpy(&volume, mixed.At(1, 35), 4);
    EXPECT_EQ(volume, 7);
    EXPECT_TRUE(mixed.ZeroFrom(2));

    const Filled noneInUse = Fill({Device("C", DEVICE_STATUS_IDLE, 30), Device("A", DEVICE_STATUS_RELEASED, 10),
                                   Device("B", DEVICE_STATUS_IDLE, 20)});
    ASSERT_EQ(noneInUse.count, 2);
    EXPECT_EQ(noneInUse.Text(0, 39) + ", " + noneInUse.Text(1, 39), "A (USB), B (USB)");

    const Filled inUse = Fill({Device("Third", DEVICE_STATUS_USING, 3), Device("First", DEVICE_STATUS_USING, 1),
                               Device("Second", DEVICE_STATUS_USING, 2)});
    ASSERT_EQ(inUse.count, 2);
    EXPECT_EQ(inUse.Text(0, 39), "First (USB)");
    EXPECT_EQ(inUse.Text(1, 39), "Second (USB)");
    EXPECT_TRUE(inUse.ZeroFrom(2));
}

} // namespace
