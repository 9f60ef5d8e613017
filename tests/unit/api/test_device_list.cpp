// The device list for client applications: its wire layout and which devices it shows.
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HadrixDeviceListInfo.h"

namespace {

USBDeviceInfo Device(const std::string &product, const std::string &manufacturer,
                     device_status status, uint32_t timeStamp)
{
    USBDeviceInfo info;
    info.strProductName = product;
    info.strManufature = manufacturer;
    info.strDevPath = "/dev/bus/usb/001/" + product;
    info.eStatus = status;
    info.timeStamp = timeStamp;
    return info;
}

const uint8_t *Bytes(const HadrixDeviceListInfo_t &list, int record)
{
    return reinterpret_cast<const uint8_t *>(&list) + record * 327;
}

std::string Text(const uint8_t *at)
{
    return reinterpret_cast<const char *>(at);
}

struct Filled {
    HadrixDeviceListInfo_t list{};
    int count = 0;
};

Filled Fill(std::vector<USBDeviceInfo> devices, int32_t volume = 0)
{
    Filled filled;
    filled.count = FillNetDeviceList(devices, volume, &filled.list);
    return filled;
}

} // namespace

TEST(NetDeviceRecord, FieldsSitAtTheirWireOffsets)
{
    EXPECT_EQ(offsetof(HadrixDeviceRecord_t, selected), 0u);
    EXPECT_EQ(offsetof(HadrixDeviceRecord_t, type), 1u);
    EXPECT_EQ(offsetof(HadrixDeviceRecord_t, connectStatus), 15u);
    EXPECT_EQ(offsetof(HadrixDeviceRecord_t, volumeLevel), 35u);
    EXPECT_EQ(offsetof(HadrixDeviceRecord_t, productName), 39u);
    EXPECT_EQ(offsetof(HadrixDeviceRecord_t, manufacturer), 167u);
    EXPECT_EQ(offsetof(HadrixDeviceRecord_t, reserved), 295u);
}

TEST(NetDeviceRecord, DeviceInUseIsWrittenByteForByte)
{
    const Filled filled = Fill({Device("Evolve 20", "Jabra", DEVICE_STATUS_USING, 5)}, 0x01020302);
    ASSERT_EQ(filled.count, 1);
    const uint8_t *record = Bytes(filled.list, 0);
    EXPECT_EQ(record[0], 1);
    EXPECT_EQ(Text(record + 1), "USB Headphone");
    EXPECT_EQ(Text(record + 15), "connected");
    const uint8_t volume[4] = {0x02, 0x03, 0x02, 0x01}; // 0x01020302, little-endian
    EXPECT_EQ(memcmp(record + 35, volume, 4), 0);
    EXPECT_EQ(Text(record + 39), "Evolve 20 (USB)");
    EXPECT_EQ(Text(record + 167), "Jabra");
    for (int offset = 295; offset < 327; ++offset)
        EXPECT_EQ(record[offset], 0) << "reserved byte " << offset;
    // The next record stays clear.
    for (int offset = 0; offset < 327; ++offset)
        EXPECT_EQ(Bytes(filled.list, 1)[offset], 0);
}

TEST(NetDeviceRecord, IdleDeviceIsDisconnectedAndNotSelected)
{
    const Filled filled = Fill({Device("H390 USB Headset", "Logitech", DEVICE_STATUS_IDLE, 1)}, 7);
    ASSERT_EQ(filled.count, 1);
    const uint8_t *record = Bytes(filled.list, 0);
    EXPECT_EQ(record[0], 0);
    EXPECT_EQ(Text(record + 15), "disconnected");
    int32_t volume = 0;
    memcpy(&volume, record + 35, 4);
    EXPECT_EQ(volume, 7);
}

TEST(NetDeviceRecord, LongTextsAreCutInsideTheirFields)
{
    const std::string name(122, 'n');
    const std::string manufacturer(200, 'm');
    const Filled filled = Fill({Device(name, manufacturer, DEVICE_STATUS_USING, 1)});
    const uint8_t *record = Bytes(filled.list, 0);
    // 122 + " (USB)" is 128 characters: the last one gives way to the terminator.
    EXPECT_EQ(Text(record + 39), name + " (USB");
    EXPECT_EQ(record[39 + 127], 0);
    EXPECT_EQ(Text(record + 167), manufacturer.substr(0, 127));
    EXPECT_EQ(record[167 + 127], 0);
    EXPECT_EQ(record[295], 0);
}

TEST(NetDeviceList, NoDevicesFillNothing)
{
    const Filled filled = Fill({});
    EXPECT_EQ(filled.count, 0);
    const HadrixDeviceListInfo_t zero{};
    EXPECT_EQ(memcmp(&filled.list, &zero, sizeof zero), 0);
}

TEST(NetDeviceList, DevicesInUseComeFirstThenTheOldestOthers)
{
    // Listed newest first; two idle devices are older than the one in use.
    const Filled filled = Fill({Device("C", "c", DEVICE_STATUS_IDLE, 30),
                                Device("InUse", "u", DEVICE_STATUS_USING, 20),
                                Device("A", "a", DEVICE_STATUS_RELEASED, 10),
                                Device("B", "b", DEVICE_STATUS_IDLE, 15)});
    ASSERT_EQ(filled.count, 2);
    EXPECT_EQ(Text(Bytes(filled.list, 0) + 39), "InUse (USB)");
    EXPECT_EQ(Text(Bytes(filled.list, 1) + 39), "A (USB)");
    EXPECT_EQ(Bytes(filled.list, 1)[0], 0);
    EXPECT_EQ(Bytes(filled.list, 2)[39], 0) << "a third record was written";
}

TEST(NetDeviceList, NeverMoreThanTwoEvenWithThreeInUse)
{
    const Filled filled = Fill({Device("Third", "t", DEVICE_STATUS_USING, 3),
                                Device("First", "f", DEVICE_STATUS_USING, 1),
                                Device("Second", "s", DEVICE_STATUS_USING, 2)});
    ASSERT_EQ(filled.count, 2);
    EXPECT_EQ(Text(Bytes(filled.list, 0) + 39), "First (USB)");
    EXPECT_EQ(Text(Bytes(filled.list, 1) + 39), "Second (USB)");
    for (int offset = 0; offset < 327 * 6; ++offset)
        ASSERT_EQ(Bytes(filled.list, 2)[offset], 0);
}
