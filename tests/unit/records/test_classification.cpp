// Classification of USB audio devices: cameras, Astro headsets, card numbers and device ids.
#include <gtest/gtest.h>

#include <utility>

#include "HadrixUtil.h"

namespace {

TEST(Classification, CamerasAndAstroProductsMatchByExactNameOrByBothIdsOfOneRow)
{
    struct Case {
        const char *name;
        int vendor, product;
        bool camera, astro;
    };
    const Case cases[] = {
        {"HD Pro Webcam C920", 0, 0, true, false}, {"Corvel Trimline Cam", 0, 0, true, false}, // first, last row
        {"unknown", 0x046D, 0x0892, true, false}, {"unknown", 0x046D, 0x082D, true, false}, // rows 5, 4: one name
        {"", 0x04E8, 0x20D3, true, false}, {"", 0x1BCF, 0x2283, true, false},
        {"Astro A20", 0, 0, false, true}, {"Astro Gaming", 0, 0, false, true},
        {"", 0x9886, 0x47, false, true}, {"Other", 39046, 71, false, true},
        // A vendor alone, ids of two rows, names differing in case, blanks or length match nothing.
        {"unknown", 0x046D, 0x0000, false, false}, {"unknown", 0x1BCF, 0x0843, false, false},
        {"Other", 0x9886, 0x48, false, false}, {"Other", 0x9887, 0x47, false, false},
        {"hd pro webcam c920", 0, 0, false, false}, {"HD Pro Webcam C920 ", 0, 0, false, false},
        {"HD Pro Webcam", 0, 0, false, false}, {"", 0, 0, false, false}, {"Astro A20 ", 0, 0, false, false},
        {"astro gaming", 0, 0, false, false}, {"Astro", 0, 0, false, false}};
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message() << '"' << c.name << "\" " << c.vendor << ":" << c.product);
        EXPECT_EQ(CUsbServiceUtil::IsCamera(c.name, c.vendor, c.product), c.camera);
        EXPECT_EQ(CUsbServiceUtil::IsAstroProduct(c.name, c.vendor, c.product), c.astro);
    }
}

TEST(Classification, CardNumberTakesEveryDigitAfterTheFirstCard)
{
    constexpr int kRefused = -7; // a refused path leaves the number alone
    const std::pair<const char *, int> cases[] = {
        {"/devices/platform/usb1/1-1/1-1:1.0/sound/card3", 3}, {"/devices/platform/usb1/1-1/1-1:1.0/sound/card12", 12},
        {"/devices/usb1/card1/pcmC1D0p", 110}, // the digits 1, 1 and 0 run together
        {"/sound/cardX", 0}, {"/sound/card/", 0}, {"/sound/card0", 0}, {"/sound/card2/card3", 23},
        {"", kRefused}, {"/devices/usb1/1-1/1-1:1.0/sound/controlC1", kRefused},
        {"/devices/usb1/1-1/1-1:1.0/sound/card", kRefused}, {"card", kRefused}};
    for (const auto &c : cases) {
        int card = kRefused;
        EXPECT_EQ(CUsbServiceUtil::GetCardNum(c.first, &card), c.second != kRefused) << c.first;
        EXPECT_EQ(card, c.second) << c.first;
    }
}

TEST(Classification, IdIsFourLowerCaseHexDigitsEachBetweenBlanks)
{
    EXPECT_EQ(CUsbServiceUtil::MakeId(0x46D, 0x843), " 046d#0843 ");
    EXPECT_EQ(CUsbServiceUtil::MakeId(0, 1), " 0000#0001 ");
    EXPECT_EQ(CUsbServiceUtil::MakeId(0xABCD, 0xEF01), " abcd#ef01 ");
    // Wider values are printed in full.
    EXPECT_EQ(CUsbServiceUtil::MakeId(0x12345, 0x1), " 12345#0001 ");
    EXPECT_EQ(CUsbServiceUtil::MakeId(0x1, 0xFFFFF), " 0001#fffff ");
}

} // namespace
