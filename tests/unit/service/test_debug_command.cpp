// Arguments of the mixer debug commands and the card number of "setMaxVolume".
#include <gtest/gtest.h>

#include "DebugCommand.h"

namespace {

struct Parsed {
    bool ok;
    MixerCommandArgs args;
    std::string reason;
};

Parsed Parse(const std::string &text, bool withValue)
{
    Parsed parsed{};
    parsed.ok = ParseMixerCommandArgs(text, withValue, parsed.args, parsed.reason);
    return parsed;
}

TEST(MixerCommandArgs, SplitsCardControlAndValue)
{
    Parsed set = Parse("  1   numid=3   80%  ", true);
    ASSERT_TRUE(set.ok) << set.reason;
    EXPECT_EQ(set.args.card, 1);
    EXPECT_EQ(set.args.control, "numid=3");
    EXPECT_EQ(set.args.value, "80%");

    Parsed quoted = Parse("2 name='PCM Playback Volume' 100,90", true);
    ASSERT_TRUE(quoted.ok) << quoted.reason;
    EXPECT_EQ(quoted.args.card, 2);
    EXPECT_EQ(quoted.args.control, "name='PCM Playback Volume'");
    EXPECT_EQ(quoted.args.value, "100,90");

    Parsed get = Parse("0 iface=MIXER,name=\"Headset Playback Switch\"", false);
    ASSERT_TRUE(get.ok) << get.reason;
    EXPECT_EQ(get.args.card, 0);
    EXPECT_EQ(get.args.control, "iface=MIXER,name=\"Headset Playback Switch\"");
    EXPECT_EQ(get.args.value, "");
}

TEST(MixerCommandArgs, ValueKeepsItsInnerSpaces)
{
    Parsed set = Parse("1 numid=4 on, off", true);
    ASSERT_TRUE(set.ok) << set.reason;
    EXPECT_EQ(set.args.value, "on, off");
}

TEST(MixerCommandArgs, RefusesMalformedValuesWithTheReason)
{
    struct Case {
        const char *text;
        bool withValue;
        const char *reason;
    };
    const Case cases[] = {
        {"", false, "no card number"},
        {"   ", true, "no card number"},
        {"x numid=3", false, "is not a number"},
        {"-1 numid=3", false, "is not a number"},
        {"32 numid=3", false, "from 0 to 31"},
        {"123456789012 numid=3", false, "is not a number"},
        {"1", false, "no control identifier"},
        {"1 name='PCM Playback Volume", false, "unterminated quote"},
        {"1 numid=3", true, "no value"},
        {"1 numid=3   ", true, "no value"},
        {"1 numid=3 80%", false, "unexpected text"},
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
    EXPECT_EQ(ParseCardNumber("1"), 1);
    EXPECT_EQ(ParseCardNumber("12"), 12);
    EXPECT_EQ(ParseCardNumber("-3"), -3);
    EXPECT_EQ(ParseCardNumber(""), 0);
    EXPECT_EQ(ParseCardNumber("abc"), 0);
    EXPECT_EQ(ParseCardNumber("2x"), 0);
    EXPECT_EQ(ParseCardNumber("99999999999999999999"), 0);
}

} // namespace
