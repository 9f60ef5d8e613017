// The popups' choices: which product the service runs on, and the title, text and guide image of
// each kind of popup there. The catalogue is replaced by a lookup that marks each message id, so
// every text can be traced to the ids it was built from.
#include <gtest/gtest.h>

#include <string>

#include "NotificationPopup.h"
#include "TempRoot.h"

namespace {

constexpr char kSystemInfo[] = "/etc/nimbos/system-info.conf";

std::string Marked(const char *messageId)
{
    return std::string("[") + messageId + "]";
}

class PopupContentTest : public ::testing::Test {
protected:
    PopupContent Choose(notification_type type, const std::string &name, int productType, bool easel32 = false)
    {
        return ChoosePopupContent(type, name, productType, Marked, [&] {
            ++m_easelQuestions;
            return easel32;
        });
    }

    int m_easelQuestions = 0;
};

TEST(ProductDeviceTypeTest, FollowsTheDeviceKey)
{
    EXPECT_EQ(DecideProductDeviceType(std::nullopt, std::nullopt), PRODUCT_DEVICE_TV) << "unreadable key";
    EXPECT_EQ(DecideProductDeviceType(std::string("REP.DEVICE.TV"), std::nullopt), PRODUCT_DEVICE_TV);
    EXPECT_EQ(DecideProductDeviceType(std::string("REP.DEVICE.SMART.MONITOR"), std::nullopt),
              PRODUCT_DEVICE_SMART_MONITOR);
    EXPECT_EQ(DecideProductDeviceType(std::string("REP.DEVICE.KESTRAL.ARK"), std::nullopt), PRODUCT_DEVICE_KESTRAL_ARK);
    EXPECT_EQ(DecideProductDeviceType(std::string("REP.DEVICE.SMART.MONITOR "), std::nullopt), PRODUCT_DEVICE_TV)
        << "values compare exactly";
    EXPECT_EQ(DecideProductDeviceType(std::string(""), std::nullopt), PRODUCT_DEVICE_TV);
}

TEST(ProductDeviceTypeTest, ScreenCountsOnlyWithARemovableTuner)
{
    const std::string screen = "REP.DEVICE.SCREEN";
    EXPECT_EQ(DecideProductDeviceType(screen, true), PRODUCT_DEVICE_SCREEN);
    EXPECT_EQ(DecideProductDeviceType(screen, false), PRODUCT_DEVICE_TV);
    EXPECT_EQ(DecideProductDeviceType(screen, std::nullopt), PRODUCT_DEVICE_TV) << "tuner feature unreadable";
    EXPECT_EQ(DecideProductDeviceType(std::string("REP.DEVICE.TV"), true), PRODUCT_DEVICE_TV);
}

TEST_F(PopupContentTest, TitleIsTheNameOrTheConnectText)
{
    EXPECT_EQ(Choose(NOTI_TYPE_UNSUPPORTED_DEVICE, "Astro A20", PRODUCT_DEVICE_TV).title, "Astro A20");
    EXPECT_EQ(Choose(NOTI_TYPE_UNSUPPORTED_DEVICE, "", PRODUCT_DEVICE_TV).title, "[TV_SID_CONNECT]");
    EXPECT_EQ(Choose(NOTI_TYPE_USB_PORT_NOISE, "", PRODUCT_DEVICE_SCREEN).title, "[TV_SID_CONNECT]");
}

TEST_F(PopupContentTest, UnsupportedAndConnectedTexts)
{
    PopupContent unsupported = Choose(NOTI_TYPE_UNSUPPORTED_DEVICE, "Astro A20", PRODUCT_DEVICE_TV);
    EXPECT_EQ(unsupported.content, "[TV_SID_SOUND_CBDEC_USB_DEVICE_NOT_SUPPORTED]");
    EXPECT_FALSE(unsupported.portGuide);

    PopupContent connected = Choose(NOTI_TYPE_DEVICE_CONNECTED, "Evolve 20", PRODUCT_DEVICE_TV);
    EXPECT_EQ(connected.content, "[TV_SID_SOUND_MIX_CBSEP_CONNECT_USB_AUDIO_DEVICE_MSG]");
    EXPECT_FALSE(connected.portGuide);
    EXPECT_EQ(m_easelQuestions, 0) << "the model matters to the noise popup only";
}

TEST(PopupContentPlaceholderTest, ConnectedTextLosesEveryNamePlaceholder)
{
    auto translate = [](const char *) { return std::string("<<A>> is ready. Sound goes to <<A>> now."); };
    PopupContent connected =
        ChoosePopupContent(NOTI_TYPE_DEVICE_CONNECTED, "Evolve 20", PRODUCT_DEVICE_TV, translate, [] { return false; });
    EXPECT_EQ(connected.content, " is ready. Sound goes to  now.");
}

TEST_F(PopupContentTest, NoiseOnATvShowsBothSentencesAndThePortGuide)
{
    PopupContent noise = Choose(NOTI_TYPE_USB_PORT_NOISE, "USB Speaker", PRODUCT_DEVICE_TV, false);
    EXPECT_EQ(noise.content, "[TV_SID_SOUND_CCJUN_CONNECT_TO_ANOTHER_USB][SID_SPACE]"
                             "[TV_SID_SOUND_CCJUN_NOISE_OCCUR_USB_PORT_CONNECTED]");
    EXPECT_TRUE(noise.portGuide);
    EXPECT_EQ(m_easelQuestions, 1);
}

TEST_F(PopupContentTest, NoiseOnAnEasel32TvIsOneSentenceWithoutGuide)
{
    PopupContent noise = Choose(NOTI_TYPE_USB_PORT_NOISE, "USB Speaker", PRODUCT_DEVICE_TV, true);
    EXPECT_EQ(noise.content, "[TV_SID_SOUND_CCJUN_NOISE_OCCUR_USB_PORT_CONNECTED]");
    EXPECT_FALSE(noise.portGuide);
}

TEST_F(PopupContentTest, NoiseOnOtherProductsIsOneSentenceWithoutAskingTheModel)
{
    for (int product : {PRODUCT_DEVICE_SMART_MONITOR, PRODUCT_DEVICE_KESTRAL_ARK, PRODUCT_DEVICE_SCREEN}) {
        PopupContent noise = Choose(NOTI_TYPE_USB_PORT_NOISE, "USB Speaker", product, false);
        EXPECT_EQ(noise.content, "[TV_SID_SOUND_CCJUN_NOISE_OCCUR_USB_PORT_CONNECTED]") << "product " << product;
        EXPECT_FALSE(noise.portGuide) << "product " << product;
    }
    EXPECT_EQ(m_easelQuestions, 0);
}

TEST_F(PopupContentTest, MayNotWorkNamesTheProduct)
{
    const std::string suffix = "_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE]";
    EXPECT_EQ(Choose(NOTI_TYPE_MAY_NOT_WORK_NORMALLY, "x", PRODUCT_DEVICE_TV).content, "[REP.DEVICE.TV" + suffix);
    EXPECT_EQ(Choose(NOTI_TYPE_MAY_NOT_WORK_NORMALLY, "x", PRODUCT_DEVICE_SMART_MONITOR).content,
              "[REP.DEVICE.SMART.MONITOR" + suffix);
    EXPECT_EQ(Choose(NOTI_TYPE_MAY_NOT_WORK_NORMALLY, "x", PRODUCT_DEVICE_KESTRAL_ARK).content,
              "[REP.DEVICE.KESTRAL.ARK" + suffix);
    EXPECT_EQ(Choose(NOTI_TYPE_MAY_NOT_WORK_NORMALLY, "x", PRODUCT_DEVICE_SCREEN).content,
              "[REP.DEVICE.SCREEN" + suffix);
    EXPECT_FALSE(Choose(NOTI_TYPE_MAY_NOT_WORK_NORMALLY, "x", PRODUCT_DEVICE_TV).portGuide);
}

// The popup object reads its product once, from the system information, when it is made.
class PopupProductTest : public ::testing::Test {
protected:
    void TearDown() override { CSingleton<CNotificationPopup>::ReleaseInstance(); }

    int ProductWith(const std::string &features)
    {
        m_root.WriteFile(kSystemInfo, "[system]\nmodel=UA55TV\n[features]\n" + features);
        CSingleton<CNotificationPopup>::ReleaseInstance();
        return CSingleton<CNotificationPopup>::GetInstance()->GetProductDeviceType();
    }

    TempRoot m_root;
};

TEST_F(PopupProductTest, ReadsTheDeviceKeyAndTheTunerFeature)
{
    EXPECT_EQ(ProductWith("com.corvel/featureconf/product.device_sid=REP.DEVICE.SMART.MONITOR\n"),
              PRODUCT_DEVICE_SMART_MONITOR);
    EXPECT_EQ(ProductWith("com.corvel/featureconf/product.device_sid=REP.DEVICE.SCREEN\n"
                          "com.corvel/featureconf/broadcast.removable_rf_tuner_support=true\n"),
              PRODUCT_DEVICE_SCREEN);
    EXPECT_EQ(ProductWith("com.corvel/featureconf/product.device_sid=REP.DEVICE.SCREEN\n"
                          "com.corvel/featureconf/broadcast.removable_rf_tuner_support=maybe\n"),
              PRODUCT_DEVICE_TV)
        << "a tuner feature that is not a boolean";
    EXPECT_EQ(ProductWith(""), PRODUCT_DEVICE_TV) << "no device key";
}

TEST_F(PopupProductTest, NoSystemInformationMeansATv)
{
    CSingleton<CNotificationPopup>::ReleaseInstance();
    EXPECT_EQ(CSingleton<CNotificationPopup>::GetInstance()->GetProductDeviceType(), PRODUCT_DEVICE_TV);
}

} // namespace
