// The popups' choices where the integration tests (test_popups.py, every kind of popup on every
// product) cannot see them: unreadable or odd system information, when the model is asked, and
// every name placeholder of a text.
#include <gtest/gtest.h>

#include <string>

#include "NotificationPopup.h"

namespace {

TEST(ProductDeviceTypeTest, UnreadableOrInexactValuesMeanATv)
{
    const std::string screen = "REP.DEVICE.SCREEN";
    EXPECT_EQ(DecideProductDeviceType(std::nullopt, std::nullopt), PRODUCT_DEVICE_TV) << "unreadable key";
    EXPECT_EQ(DecideProductDeviceType(std::string(""), std::nullopt), PRODUCT_DEVICE_TV);
    EXPECT_EQ(DecideProductDeviceType(std::string("REP.DEVICE.SMART.MONITOR "), std::nullopt), PRODUCT_DEVICE_TV)
        << "values compare exactly";
    EXPECT_EQ(DecideProductDeviceType(screen, std::nullopt), PRODUCT_DEVICE_TV) << "tuner feature unreadable";
    EXPECT_EQ(DecideProductDeviceType(screen, true), PRODUCT_DEVICE_SCREEN);
}

TEST(PopupContentTest, ModelIsAskedOnlyForTheNoisePopupOnATv)
{
    int asked = 0;
    auto choose = [&asked](notification_type type, int product) {
        return ChoosePopupContent(type, "USB Speaker", product, [](const char *id) { return std::string(id); }, [&] {
            ++asked;
            return false;
        });
    };
    for (notification_type type : {NOTI_TYPE_UNSUPPORTED_DEVICE, NOTI_TYPE_DEVICE_CONNECTED, NOTI_TYPE_MAY_NOT_WORK_NORMALLY})
        choose(type, PRODUCT_DEVICE_TV);
    for (int product : {PRODUCT_DEVICE_SMART_MONITOR, PRODUCT_DEVICE_KESTRAL_ARK, PRODUCT_DEVICE_SCREEN})
        EXPECT_FALSE(choose(NOTI_TYPE_USB_PORT_NOISE, product).portGuide) << product;
    EXPECT_EQ(asked, 0);
    EXPECT_TRUE(choose(NOTI_TYPE_USB_PORT_NOISE, PRODUCT_DEVICE_TV).portGuide);
    EXPECT_EQ(asked, 1);
}

TEST(PopupContentTest, ConnectedTextLosesEveryNamePlaceholder)
{
    auto translate = [](const char *) { return std::string("<<A>> is ready. Sound goes to <<A>> now."); };
    PopupContent connected =
        ChoosePopupContent(NOTI_TYPE_DEVICE_CONNECTED, "Evolve 20", PRODUCT_DEVICE_TV, translate, [] { return false; });
    EXPECT_EQ(connected.content, " is ready. Sound goes to  now.");
}

} // namespace
