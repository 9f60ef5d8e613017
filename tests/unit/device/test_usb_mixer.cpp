// The USB card's mixer against emulated cards: the real alsa-lib walks, reads and writes the
// controls of /dev/snd/controlC<N> in a umockdev testbed (EmulatedCard). What counts is what the
// card receives: which controls are written, with which values, and how they were looked up.
#include <gtest/gtest.h>

#include <sys/ioctl.h>

#include <sound/asound.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DebugCommand.h"
#include "EmulatedCard.h"
#include "UsbMixer.h"
#include "nimbos/fake.h"

namespace {

using hadrix::test::CardControl;
using hadrix::test::CardWrite;
using hadrix::test::ControlIface;
using hadrix::test::ControlType;
using hadrix::test::EmulatedCard;
using hadrix::test::Enumerated;
using hadrix::test::Switch;
using hadrix::test::Volume;

CardWrite ByNumid(const std::string &control, unsigned int numid, std::vector<long> values)
{
    return {control, "numid=" + std::to_string(numid), std::move(values), 0};
}

CardWrite ByName(const std::string &control, std::vector<long> values)
{
    return {control, "name='" + control + "'", std::move(values), 0};
}

class UsbMixer : public testing::Test {
protected:
    void SetUp() override { nimbos::fake::Reset(); }

    // A card plugged again at the same number replaces the one before.
    EmulatedCard &Plug(std::vector<CardControl> controls, int number = 1)
    {
        std::unique_ptr<EmulatedCard> &card = m_cards[number];
        card.reset();
        card = std::make_unique<EmulatedCard>(number, std::move(controls));
        return *card;
    }

private:
    std::map<int, std::unique_ptr<EmulatedCard>> m_cards;
};

TEST_F(UsbMixer, PlaybackVolumesCountByNameAndPlaybackVolumWinsOverExcludingWords)
{
    const std::vector<std::string> counted{
        "Headset Playback Volume", "PCM Playback Volume", "Speaker Playback Volume",  "PCM Volume",
        "Master Playback Volum",   "Playback Volum",      "Mic Playback Volume",      "Sidetone Playback Volume",
        "Capture Playback Volume"};
    const std::vector<std::string> ignored{
        "Mic Capture Volume", "Sidetone Volume", "PCM Playback Switch", "Speaker Playback Switch",
        "PCM Capture Volume", "PCM Bypass Volume", "PCM Mic Volume", "PCM Switch Volume",
        "PCM Map Volume",     "Headset Volume",  "PCM",                 "Playback Volu",
        "pcm volume",         ""};
    std::vector<CardControl> controls;
    for (const auto *names : {&counted, &ignored}) {
        for (const std::string &name : *names)
            controls.push_back(Volume(name, {0}, 0, 10));
    }
    EmulatedCard &card = Plug(controls);

    EXPECT_EQ(CUsbMixer::SetMaxVolume(1), MAX_VOLUME_DONE);
    std::vector<std::string> written;
    for (const CardWrite &write : card.Writes())
        written.push_back(write.control);
    std::sort(written.begin(), written.end());
    std::vector<std::string> expected = counted;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(written, expected);
}

// A device that keeps at most `keeps` of a written maximum: below 95 % of the maximum (floor of
// max * 95 / 100) it is written once more, by name.
TEST_F(UsbMixer, BelowMaxIsWrittenByNumidAndAgainByNameWhileBelow95Percent)
{
    struct Case {
        const char *what;
        std::vector<long> before;
        long max;
        std::optional<long> keeps;
        bool byNumid, byName;
    };
    const Case cases[] = {
        {"below max", {30, 30}, 127, std::nullopt, true, false},
        {"the smallest channel decides", {100, 99}, 100, std::nullopt, true, false},
        {"at max", {127, 127}, 127, std::nullopt, false, false},
        {"kept at exactly 95 %", {20, 20}, 100, 95, true, false},
        {"kept one below 95 %", {20, 20}, 100, 94, true, true},
        {"kept at the floor of 95 % of 127", {20, 20}, 127, 120, true, false},
        {"kept one below it", {20, 20}, 127, 119, true, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        CardControl volume = Volume("Speaker Playback Volume", c.before, 0, c.max);
        volume.keeps = c.keeps;
        EmulatedCard &card = Plug({Switch("Speaker Playback Switch", {1}), volume});

        EXPECT_EQ(CUsbMixer::SetMaxVolume(1), MAX_VOLUME_DONE);
        std::vector<CardWrite> expected;
        const std::vector<long> max(c.before.size(), c.max);
        if (c.byNumid)
            expected.push_back(ByNumid("Speaker Playback Volume", 2, max));
        if (c.byName)
            expected.push_back(ByName("Speaker Playback Volume", max));
        EXPECT_EQ(card.Writes(), expected);
        EXPECT_EQ(card.Values("Speaker Playback Volume"),
                  c.byNumid ? std::vector<long>(c.before.size(), c.keeps.value_or(c.max)) : c.before);
    }
}

TEST_F(UsbMixer, PlaybackVolumesTheMixerCannotUseAreLeftAlone)
{
    EmulatedCard &card = Plug({
        Volume("Master Playback Volume", {0, 0}, 0, 64).Inactive(),
        Volume("Monitor Playback Volume", {3}, 0, 64).Unwritable(),
        Volume("Rear Playback Volume", {3}, 0, 64).Unreadable(),
        Switch("Headset Playback Volume", {0}),
        Enumerated("Aux Playback Volume", 0, {"Low", "Mid", "High"}),
        Volume("Card Playback Volume", {0}, 0, 10).On(ControlIface::Card),
        Volume("Line Playback Volume", {0}, 0, 0),
        Volume("Booth Playback Volume", {-30}, -60, 0),
        Volume("Side Playback Volume", {3}, 5, 5),
    });
    EXPECT_EQ(CUsbMixer::SetMaxVolume(1), MAX_VOLUME_DONE);
    EXPECT_EQ(card.Writes(), std::vector<CardWrite>());
}

CardWrite Failed(CardWrite write, int error)
{
    write.error = error;
    return write;
}

TEST_F(UsbMixer, FailedWriteGives3AndTheWalkGoesOn)
{
    struct Case {
        const char *what;
        std::vector<CardControl> controls;
        std::vector<CardWrite> writes;
    };
    const Case cases[] = {
        // Still low after the failed write by numid, so it is tried once more by name.
        {"by numid and by name",
         {Volume("Master Playback Volume", {10, 10}, 0, 127).FailsWrites(EIO),
          Volume("PCM Playback Volume", {10}, 0, 100)},
         {Failed(ByNumid("Master Playback Volume", 1, {127, 127}), EIO),
          Failed(ByName("Master Playback Volume", {127, 127}), EIO), ByNumid("PCM Playback Volume", 2, {100})}},
        {"by name only",
         {Volume("Speaker Playback Volume", {20}, 0, 100).Keeps(50).FailsWrites(EIO, 1)},
         {ByNumid("Speaker Playback Volume", 1, {100}), Failed(ByName("Speaker Playback Volume", {100}), EIO)}},
    };
    for (const Case &c : cases) {
        EmulatedCard &card = Plug(c.controls);
        EXPECT_EQ(CUsbMixer::SetMaxVolume(1), MAX_VOLUME_WRITE_FAILED) << c.what;
        EXPECT_EQ(card.Writes(), c.writes) << c.what;
    }
}

TEST_F(UsbMixer, CardNumbersOutsideTheCardsGive1WithoutOpeningAny)
{
    EmulatedCard &card = Plug({Volume("PCM Playback Volume", {30}, 0, 127)});
    // A number alsa-lib does not take as an index makes it open every card in search of that id.
    for (int number : {2, 32, 100, -1, -100}) {
        EXPECT_EQ(CUsbMixer::SetMaxVolume(number), MAX_VOLUME_CARD_UNUSABLE) << number;
        std::string values;
        EXPECT_FALSE(CUsbMixer::ControlGet(number, "numid=1", values)) << number;
        EXPECT_FALSE(CUsbMixer::ControlWrite(number, "numid=1", "5")) << number;
    }
    EXPECT_EQ(card.Connections(), 0);
}

TEST_F(UsbMixer, EveryCardFrom0To31IsReached)
{
    for (int number : {0, 31}) {
        EmulatedCard &card = Plug({Volume("PCM Playback Volume", {30}, 0, 127)}, number);
        EXPECT_EQ(CUsbMixer::SetMaxVolume(number), MAX_VOLUME_DONE) << number;
        EXPECT_EQ(card.Writes(), std::vector<CardWrite>{ByNumid("PCM Playback Volume", 1, {127})}) << number;
    }
}

// Failing to open, load or describe the card abandons it; a control that cannot be read is
// skipped.
TEST_F(UsbMixer, CardThatFailsToAnswerGives1AndAControlThatFailsToBeReadIsSkipped)
{
    const std::pair<unsigned long, int> cases[] = {{SNDRV_CTL_IOCTL_PVERSION, MAX_VOLUME_CARD_UNUSABLE},
                                                   {SNDRV_CTL_IOCTL_ELEM_LIST, MAX_VOLUME_CARD_UNUSABLE},
                                                   {SNDRV_CTL_IOCTL_ELEM_INFO, MAX_VOLUME_CARD_UNUSABLE},
                                                   {SNDRV_CTL_IOCTL_ELEM_READ, MAX_VOLUME_DONE}};
    for (const auto &[request, result] : cases) {
        EmulatedCard &card = Plug({Volume("PCM Playback Volume", {30}, 0, 127)});
        card.FailRequest(request, EIO);
        EXPECT_EQ(CUsbMixer::SetMaxVolume(1), result) << std::hex << request;
        EXPECT_EQ(card.Writes(), std::vector<CardWrite>());
    }
}

TEST_F(UsbMixer, ControlsSetWritesEveryChannelOrRefuses)
{
    EmulatedCard &card = Plug({Volume("PCM Playback Volume", {30, 30}, 0, 127),
                               Volume("Rear Playback Volume", {3}, 0, 64).Unreadable(),
                               Volume("Monitor Playback Volume", {3}, 0, 64).Unwritable()});
    EXPECT_TRUE(CUsbMixer::ControlsSet("hw:1", "name='PCM Playback Volume'", 100));
    EXPECT_EQ(card.Values("PCM Playback Volume"), (std::vector<long>{100, 100}));

    struct Refusal {
        const char *card, *control;
    };
    for (const Refusal &r : {Refusal{"hw:1", "bogus"}, Refusal{"hw:1", "iface=MIXER"}, Refusal{"hw:5", "numid=1"},
                             Refusal{"hw:1", "numid=9"}, Refusal{"hw:1", "name='Nothing'"}, Refusal{"hw:1", "numid=2"}})
        EXPECT_FALSE(CUsbMixer::ControlsSet(r.card, r.control, 10)) << r.card << ' ' << r.control;
    EXPECT_EQ(card.Writes().size(), 1u) << "only the first one reached the card";

    EXPECT_FALSE(CUsbMixer::ControlsSet("hw:1", "numid=3", 10));
    ASSERT_EQ(card.Writes().size(), 2u);
    EXPECT_EQ(card.Writes().back().error, EPERM);
}

TEST_F(UsbMixer, RestVolumeSetsTheMaximumOnEveryListedCard)
{
    EmulatedCard &first = Plug({Volume("PCM Playback Volume", {30}, 0, 127)}, 1);
    EmulatedCard &second = Plug({Volume("PCM Playback Volume", {30}, 0, 100)}, 2);
    std::vector<USBDeviceInfo> devices(3);
    devices[0].nCardNum = 2;
    devices[1].nCardNum = 7; // gone meanwhile
    devices[2].nCardNum = 1;
    CUsbMixer::RestVolume(devices);
    EXPECT_EQ(first.Values("PCM Playback Volume"), std::vector<long>{127});
    EXPECT_EQ(second.Values("PCM Playback Volume"), std::vector<long>{100});
}

USBDeviceInfo DeviceAt(const std::string &path)
{
    USBDeviceInfo device;
    device.strDevPath = path;
    return device;
}

TEST(UsbMixerTwinPort, IsAnotherDeviceOnTheSameUsbBus)
{
    const std::string usb = "/sys/devices/pci0000:00/0000:00:14.0/usb";
    const std::vector<USBDeviceInfo> port1{DeviceAt(usb + "1/1-1")};
    const std::vector<USBDeviceInfo> both{DeviceAt(usb + "1/1-1"), DeviceAt(usb + "1/1-2")};
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert(usb + "1/1-1", {}));
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert(usb + "1/1-1", port1)) << "itself is no twin";
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert(usb + "1/1-1", both));
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert(usb + "1/1-2", both));
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert(usb + "1/1-2", port1)) << "a device about to be added";
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert(usb + "2/2-1", port1));
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert("/sys/devices/platform/sound/card1", port1));
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert("", port1));
    // "usb" needs one more character to name a port.
    const std::vector<USBDeviceInfo> onRootPort{DeviceAt("/sys/devices/pci0000:00/usb1/1-1")};
    EXPECT_FALSE(CUsbMixer::IsTwinPortInsert("/sys/devices/pci0000:00/usb", onRootPort));
    EXPECT_TRUE(CUsbMixer::IsTwinPortInsert("/sys/devices/pci0000:00/usb1", onRootPort));
}

// The mixer's debug commands, as a launch request hands them to the service.
class MixerDebugCommand : public UsbMixer {
protected:
    static void Send(const char *key, const char *value)
    {
        app_control_h raw = nullptr;
        ASSERT_EQ(app_control_create(&raw), APP_CONTROL_ERROR_NONE);
        UniqueHandle<app_control_s, app_control_destroy> request(raw);
        app_control_add_extra_data(request.get(), key, value);
        ParseCommand(request.get(), nullptr);
    }

    static bool Logged(const std::string &text)
    {
        const auto lines = nimbos::fake::LogLines();
        return std::any_of(lines.begin(), lines.end(), [&](const nimbos::fake::LogLine &line) {
            return line.text.find(text) != std::string::npos;
        });
    }
};

TEST_F(MixerDebugCommand, CsetWritesTheValueTextToTheControl)
{
    EmulatedCard &card = Plug({Volume("PCM Playback Volume", {30, 30}, 0, 127)});
    Send("cset", "1 name='PCM Playback Volume' 100,90");
    Send("cset", "1 numid=1"); // no value: refused before reaching the card
    EXPECT_EQ(card.Writes(), std::vector<CardWrite>{ByName("PCM Playback Volume", {100, 90})});
}

// "cget" only logs: the log line is what the engineer gets.
TEST_F(MixerDebugCommand, CgetLogsTheValuesOfEveryChannel)
{
    CardControl rate = Volume("Sample Rate", {5000000000}, 0, 6000000000);
    rate.type = ControlType::Integer64;
    CardControl serial = Volume("Serial", {10, 255}, 0, 255);
    serial.type = ControlType::Bytes;
    Plug({Volume("PCM Playback Volume", {30, 20}, 0, 127), Switch("PCM Playback Switch", {1, 0}),
          Enumerated("Chat Mix", 1, {"Game", "Balanced", "Chat"}), rate, serial});
    const std::pair<std::string, const char *> cases[] = {
        {"numid=1", "ret : 1, values : 30,20"},    {"name='PCM Playback Switch'", "ret : 1, values : on,off"},
        {"numid=3", "ret : 1, values : Balanced"}, {"numid=4", "ret : 1, values : 5000000000"},
        {"numid=5", "ret : 1, values : 0x0a,0xff"}, {"numid=9", "ret : 0, values : "},
    };
    for (const auto &[control, result] : cases) {
        Send("cget", ("1 " + control).c_str());
        EXPECT_TRUE(Logged("cget card : 1, control : " + control + ", " + result)) << control;
    }
}

TEST_F(MixerDebugCommand, SetMaxVolumeRunsTheMixerOnCardsAbove0)
{
    EmulatedCard &card0 = Plug({Volume("PCM Playback Volume", {30}, 0, 127)}, 0);
    EmulatedCard &card1 = Plug({Volume("PCM Playback Volume", {30}, 0, 127)}, 1);
    Send("setMaxVolume", "0");
    Send("setMaxVolume", "1");
    EXPECT_EQ(card0.Connections(), 0);
    EXPECT_EQ(card1.Values("PCM Playback Volume"), std::vector<long>{127});
    EXPECT_TRUE(Logged("ret : 0"));
}

} // namespace
