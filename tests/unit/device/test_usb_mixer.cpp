// Which controls the mixer keeps at maximum, how a second device on the same USB port is
// recognised, and that an impossible card number is refused before ALSA is asked.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "UsbMixer.h"

namespace {

USBDeviceInfo DeviceAt(const std::string &path, int card)
{
    USBDeviceInfo device;
    device.strDevPath = path;
    device.nCardNum = card;
    return device;
}

const std::string kPort1Device = "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-1";
const std::string kPort1Sibling = "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2";
const std::string kPort2Device = "/sys/devices/pci0000:00/0000:00:14.0/usb2/2-1";

} // namespace

TEST(UsbMixerPlaybackControl, PlaybackVolumesQualify)
{
    for (const char *name : {"Headset Playback Volume", "PCM Playback Volume", "Speaker Playback Volume",
                             "PCM Volume", "Master Playback Volum", "Playback Volum"})
        EXPECT_TRUE(CUsbMixer::IsPlaybackControl(name)) << name;
}

TEST(UsbMixerPlaybackControl, PlaybackVolumWinsOverExcludingWords)
{
    // The "Playback Volum" rule comes first, so these words do not exclude such a control.
    for (const char *name : {"Mic Playback Volume", "Sidetone Playback Volume", "Capture Playback Volume"})
        EXPECT_TRUE(CUsbMixer::IsPlaybackControl(name)) << name;
}

TEST(UsbMixerPlaybackControl, OtherControlsDoNotQualify)
{
    for (const char *name : {"Mic Capture Volume", "Sidetone Volume", "PCM Playback Switch",
                             "Speaker Playback Switch", "PCM Capture Volume", "PCM Bypass Volume",
                             "PCM Mic Volume", "PCM Switch Volume", "PCM Map Volume", "Headset Volume",
                             "PCM", "Playback Volu", "", "pcm volume"})
        EXPECT_FALSE(CUsbMixer::IsPlaybackControl(name)) << '"' << name << '"';
}

TEST(UsbMixerTwinPort, NoOtherDeviceMeansNoTwin)
{
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert(kPort1Device, {}));
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert(kPort1Device, {DeviceAt(kPort1Device, 1)}));
}

TEST(UsbMixerTwinPort, SiblingOnTheSamePortIsATwin)
{
    const std::vector<USBDeviceInfo> devices{DeviceAt(kPort1Device, 1), DeviceAt(kPort1Sibling, 2)};
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert(kPort1Device, devices));
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert(kPort1Sibling, devices));
    // A device about to be added is not in the list yet.
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert(kPort1Sibling, {DeviceAt(kPort1Device, 1)}));
}

TEST(UsbMixerTwinPort, DeviceOnAnotherPortIsNoTwin)
{
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert(kPort2Device, {DeviceAt(kPort1Device, 1)}));
}

TEST(UsbMixerTwinPort, PathWithoutAUsbPortIsNoTwin)
{
    const std::vector<USBDeviceInfo> devices{DeviceAt(kPort1Device, 1)};
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert("/sys/devices/platform/sound/card1", devices));
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert("", devices));
    // "usb" needs one more character to name a port.
    const std::vector<USBDeviceInfo> onRootPort{DeviceAt("/sys/devices/pci0000:00/usb1/1-1", 1)};
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert("/sys/devices/pci0000:00/usb", onRootPort));
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert("/sys/devices/pci0000:00/usb1", onRootPort));
}

TEST(UsbMixerSetMaxVolume, ImpossibleCardNumbersAreRefused)
{
    for (int card : {32, 33, 1000, -1, -32})
        EXPECT_EQ(MAX_VOLUME_CARD_UNUSABLE, CUsbMixer::SetMaxVolume(card)) << card;
}

TEST(UsbMixerDiagnostics, ImpossibleCardNumbersAreRefused)
{
    std::string value = "untouched";
    EXPECT_FALSE(CUsbMixer::ControlGet(32, "numid=1", value));
    EXPECT_FALSE(CUsbMixer::ControlGet(-1, "numid=1", value));
    EXPECT_EQ("untouched", value);
    EXPECT_FALSE(CUsbMixer::ControlWrite(32, "numid=1", "0"));
    EXPECT_FALSE(CUsbMixer::ControlWrite(-1, "numid=1", "0"));
}
