// Which controls the mixer keeps at maximum and how a second device on the same USB port is
// recognised. What the mixer does with a card is tested against an emulated one (test_mixer.py).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "UsbMixer.h"

namespace {

USBDeviceInfo DeviceAt(const std::string &path)
{
    USBDeviceInfo device;
    device.strDevPath = path;
    return device;
}

const std::string kUsb = "/sys/devices/pci0000:00/0000:00:14.0/usb";

TEST(UsbMixer, PlaybackVolumesQualifyAndPlaybackVolumWinsOverExcludingWords)
{
    for (const char *name : {"Headset Playback Volume", "PCM Playback Volume", "Speaker Playback Volume", "PCM Volume",
                             "Master Playback Volum", "Playback Volum", "Mic Playback Volume",
                             "Sidetone Playback Volume", "Capture Playback Volume"})
        EXPECT_TRUE(CUsbMixer::IsPlaybackControl(name)) << name;
    for (const char *name : {"Mic Capture Volume", "Sidetone Volume", "PCM Playback Switch", "Speaker Playback Switch",
                             "PCM Capture Volume", "PCM Bypass Volume", "PCM Mic Volume", "PCM Switch Volume",
                             "PCM Map Volume", "Headset Volume", "PCM", "Playback Volu", "", "pcm volume"})
        EXPECT_FALSE(CUsbMixer::IsPlaybackControl(name)) << '"' << name << '"';
}

TEST(UsbMixer, TwinIsAnotherDeviceOnTheSameUsbBus)
{
    const std::vector<USBDeviceInfo> port1{DeviceAt(kUsb + "1/1-1")};
    const std::vector<USBDeviceInfo> both{DeviceAt(kUsb + "1/1-1"), DeviceAt(kUsb + "1/1-2")};
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert(kUsb + "1/1-1", {}));
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert(kUsb + "1/1-1", port1)) << "itself is no twin";
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert(kUsb + "1/1-1", both));
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert(kUsb + "1/1-2", both));
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert(kUsb + "1/1-2", port1)) << "a device about to be added";
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert(kUsb + "2/2-1", port1));
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert("/sys/devices/platform/sound/card1", port1));
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert("", port1));
    // "usb" needs one more character to name a port.
    const std::vector<USBDeviceInfo> onRootPort{DeviceAt("/sys/devices/pci0000:00/usb1/1-1")};
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert("/sys/devices/pci0000:00/usb", onRootPort));
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert("/sys/devices/pci0000:00/usb1", onRootPort));
}

} // namespace
