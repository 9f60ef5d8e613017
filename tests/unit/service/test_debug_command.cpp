// Arguments of the mixer debug commands and the card number of "setMaxVolume".
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "DebugCommand.h"

namespace {

TEST(MixerCommandArgs, SplitsCardControlAndValue)
{
    struct Case {
        const char *text;
        bool withValue;
        int card;
        const char *control, *value;
    };
    const Case cases[] = {
        {"  1   numid=3   80%  ", true, 1, "numid=3", "80%"},
        {"2 name='PCM Playback Volume' 100,90", true, 2, "name='PCM Playback Volume'", "100,90"},
        {"0 iface=MIXER,name=\"Headset Switch\"", false, 0, "iface=MIXER,name=\"Headset Switch\"", ""},
        {"1 numid=4 on, off", true, 1, "numid=4", "on, off"}}; // the value keeps its inner blanks
    for (const Case &c : cases) {
        MixerCommandArgs args;
        std::string reason;
        ASSERT_TRUE(ParseMixerCommandArgs(c.text, c.withValue, args, reason)) << c.text << ": " << reason;
        EXPECT_EQ(std::tie(args.card, args.control, args.value),
                  std::make_tuple(c.card, std::string(c.control), std::string(c.value)));
    }
}

TEST(MixerCommandArgs, RefusesMalformedValuesWithTheReason)
{
    struct Case {
        const char *text;
        bool withValue;
        const char *reason;
    };
    const Case cases[] = {
        {"", false, "no card number"}, {"   ", true, "no card number"}, {"x numid=3", false, "is not a number"},
        {"-1 numid=3", false, "is not a number"}, {"123456789012 numid=3", false, "is not a number"},
        {"32 numid=3", false, "from 0 to 31"}, {"1", false, "no control identifier"},
        {"1 name='PCM Playback Volume", false, "unterminated quote"}, {"1 numid=3", true, "no value"},
        {"1 numid=3   ", true, "no value"}, {"1 numid=3 80%", false, "unexpected text"},
    };
    for (const Case &c : cases) {
        MixerCommandArgs args;
        args.card = 7;
        std::string reason;
        EXPECT_FALSE(ParseMixerCommandArgs(c.text, c.withValue, args, reason)) << c.text;
        EXPECT_NE(reason.find(c.reason), std::string::npos) << c.text << " -> " << reason;
        EXPECT_EQ(args.card, 7) << "left untouched on refusal: " << c.text;
    }
}

TEST(CardNumber, DecimalTextOrZero)
{
    const std::pair<const char *, int> cases[] = {{"1", 1},   {"12", 12}, {"-3", -3}, {"", 0},
                                                  {"abc", 0}, {"2x", 0},  {"99999999999999999999", 0}};
    for (const auto &c : cases)
        EXPECT_EQ(ParseCardNumber(c.first), c.second) << c.first;
}

} // namespace
