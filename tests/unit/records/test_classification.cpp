// Classification of USB audio devices: cameras, Astro headsets, card numbers and device ids.
#include <gtest/gtest.h>

#include "HadrixUtil.h"
#include "TempRoot.h"

namespace {

class ClassificationTest : public ::testing::Test {
protected:
    TempRoot root;
};

TEST_F(ClassificationTest, CameraMatchesByNameOrByBothIds)
{
    EXPECT_TRUE(CUsbServiceUtil::IsCamera("HD Pro Webcam C920", 0, 0)) << "name match";
    EXPECT_TRUE(CUsbServiceUtil::IsCamera("Corvel Trimline Cam", 0, 0)) << "name of the last row";
    EXPECT_TRUE(CUsbServiceUtil::IsCamera("unknown", 0x046D, 0x0892)) << "ids of row 5";
    EXPECT_TRUE(CUsbServiceUtil::IsCamera("unknown", 0x046D, 0x082D)) << "ids of row 4, same name as row 5";
    EXPECT_TRUE(CUsbServiceUtil::IsCamera("", 0x04E8, 0x20D3)) << "ids of the last row";
    EXPECT_TRUE(CUsbServiceUtil::IsCamera("", 0x1BCF, 0x2283));

    EXPECT_FALSE(CUsbServiceUtil::IsCamera("unknown", 0x046D, 0x0000)) << "vendor alone is not enough";
    EXPECT_FALSE(CUsbServiceUtil::IsCamera("unknown", 0x1BCF, 0x0843)) << "ids of two different rows";
    EXPECT_FALSE(CUsbServiceUtil::IsCamera("hd pro webcam c920", 0, 0)) << "names compare exactly";
    EXPECT_FALSE(CUsbServiceUtil::IsCamera("HD Pro Webcam C920 ", 0, 0));
    EXPECT_FALSE(CUsbServiceUtil::IsCamera("HD Pro Webcam", 0, 0));
    EXPECT_FALSE(CUsbServiceUtil::IsCamera("", 0, 0));
}

TEST_F(ClassificationTest, AstroProductMatchesByNameOrByBothIds)
{
    EXPECT_TRUE(CUsbServiceUtil::IsAstroProduct("Astro A20", 0, 0));
    EXPECT_TRUE(CUsbServiceUtil::IsAstroProduct("Astro Gaming", 0, 0));
    EXPECT_TRUE(CUsbServiceUtil::IsAstroProduct("", 0x9886, 0x47));
    EXPECT_TRUE(CUsbServiceUtil::IsAstroProduct("Other", 39046, 71));

    EXPECT_FALSE(CUsbServiceUtil::IsAstroProduct("Other", 0x9886, 0x48));
    EXPECT_FALSE(CUsbServiceUtil::IsAstroProduct("Other", 0x9887, 0x47));
    EXPECT_FALSE(CUsbServiceUtil::IsAstroProduct("Astro A20 ", 0, 0)) << "names compare exactly";
    EXPECT_FALSE(CUsbServiceUtil::IsAstroProduct("astro gaming", 0, 0));
    EXPECT_FALSE(CUsbServiceUtil::IsAstroProduct("Astro", 0, 0));
}

TEST_F(ClassificationTest, CardNumberIsRefusedWithoutDigitsAfterCard)
{
    const int untouched = -7;
    int card = untouched;
    EXPECT_FALSE(CUsbServiceUtil::GetCardNum("", &card));
    EXPECT_FALSE(CUsbServiceUtil::GetCardNum("/devices/usb1/1-1/1-1:1.0/sound/controlC1", &card));
    EXPECT_FALSE(CUsbServiceUtil::GetCardNum("/devices/usb1/1-1/1-1:1.0/sound/card", &card));
    EXPECT_FALSE(CUsbServiceUtil::GetCardNum("card", &card));
    EXPECT_EQ(card, untouched) << "a refused path leaves the number alone";
}

TEST_F(ClassificationTest, CardNumberTakesEveryDigitAfterTheFirstCard)
{
    struct Case {
        const char *path;
        int expected;
    };
    const Case cases[] = {
        {"/devices/platform/usb1/1-1/1-1:1.0/sound/card3", 3},
        {"/devices/platform/usb1/1-1/1-1:1.0/sound/card12", 12},
        {"/devices/usb1/card1/pcmC1D0p", 110}, // the digits 1, 1 and 0 run together
        {"/sound/cardX", 0},
        {"/sound/card/", 0},
        {"/sound/card0", 0},
        {"/sound/card2/card3", 23},
    };
    for (const Case &c : cases) {
        int card = -1;
        EXPECT_TRUE(CUsbServiceUtil::GetCardNum(c.path, &card)) << c.path;
        EXPECT_EQ(card, c.expected) << c.path;
    }
}

TEST_F(ClassificationTest, IdIsFourLowerCaseHexDigitsEachBetweenBlanks)
{
    EXPECT_EQ(CUsbServiceUtil::MakeId(0x46D, 0x843), " 046d#0843 ");
    EXPECT_EQ(CUsbServiceUtil::MakeId(0, 1), " 0000#0001 ");
    EXPECT_EQ(CUsbServiceUtil::MakeId(0xABCD, 0xEF01), " abcd#ef01 ");
    EXPECT_EQ(CUsbServiceUtil::MakeId(0x12345, 0x1), " 12345#0001 ") << "wider values are printed in full";
    EXPECT_EQ(CUsbServiceUtil::MakeId(0x1, 0xFFFFF), " 0001#fffff ");
    EXPECT_EQ(CUsbServiceUtil::MakeId(0x46D, 0x843).size(), 11u);
}

} // namespace
