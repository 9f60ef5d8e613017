// Popups about USB audio devices as the notification service receives them: the texts of each
// kind on each product and one popup on screen at a time (which popup a plug brings:
// test_attach.cpp). Texts are message ids here: no catalogue is bound in the tests.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "NotificationPopup.h"
#include "ServiceHarness.h"
#include "nimbos/fake.h"

namespace fake = nimbos::fake;
using hadrix::test::ServiceHarness;

namespace {

const char kGuideImage[] = "/usr/apps/hadrix/shared/res/img_usb_port_guide.svg";
const char kNoiseOnPort[] = "TV_SID_SOUND_CCJUN_NOISE_OCCUR_USB_PORT_CONNECTED";
const char kDeviceSidKey[] = "com.corvel/featureconf/product.device_sid";
const char kRemovableTunerKey[] = "com.corvel/featureconf/broadcast.removable_rf_tuner_support";

// The popups posted once there are count of them.
std::vector<fake::Notification> Posted(size_t count)
{
    EXPECT_TRUE(fake::RunUntil([count] { return fake::Posted().size() >= count; })) << "no popup " << count;
    return fake::Posted();
}

fake::Notification Show(notification_type type, const std::string &name)
{
    const size_t before = fake::Posted().size();
    CNotificationPopup::GetInstance()->ShowNotiPopup(type, name);
    return Posted(before + 1).back();
}

TEST(Popups, EachKindHasItsTextTitledByTheDeviceAndStaysSixtySecondsInThePopupArea)
{
    ServiceHarness tv;
    const struct {
        notification_type type;
        const char *name, *title, *content;
    } kinds[] = {
        {NOTI_TYPE_UNSUPPORTED_DEVICE, "Astro A20", "Astro A20", "TV_SID_SOUND_CBDEC_USB_DEVICE_NOT_SUPPORTED"},
        {NOTI_TYPE_DEVICE_CONNECTED, "", "TV_SID_CONNECT", "TV_SID_SOUND_MIX_CBSEP_CONNECT_USB_AUDIO_DEVICE_MSG"},
        {NOTI_TYPE_MAY_NOT_WORK_NORMALLY, "Evolve 20", "Evolve 20",
         "REP.DEVICE.TV_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE"},
    };
    for (const auto &kind : kinds) {
        const fake::Notification popup = Show(kind.type, kind.name);
        EXPECT_EQ(popup.title, kind.title);
        EXPECT_EQ(popup.content, kind.content);
        EXPECT_EQ(popup.hideTimeoutSeconds, 60);
        EXPECT_EQ(popup.displayApplist, NOTIFICATION_DISPLAY_AREA_POPUP);
        EXPECT_EQ(popup.autoRemove, false);
        EXPECT_TRUE(popup.withEventCallback);
        EXPECT_EQ(popup.image, "");
    }
}

TEST(Popups, TheNoiseGuideAndTheMayNotWorkTextFollowTheProduct)
{
    const std::string tvText = "REP.DEVICE.TV_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE";
    const struct {
        const char *product;
        std::optional<std::string> model, deviceSid;
        std::optional<bool> removableTuner;
        bool guide;
        std::string mayNotWork;
    } products[] = {
        {"TV", "UA55TV", "REP.DEVICE.TV", {}, true, tvText},
        {"unreadable system information", {}, {}, {}, true, tvText},
        {"Easel 32 TV", "UE32KF03BXA", "REP.DEVICE.TV", {}, false, tvText},
        {"smart monitor", "LS32MONITOR", "REP.DEVICE.SMART.MONITOR", {}, false,
         "REP.DEVICE.SMART.MONITOR_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE"},
        {"inexact device key", "LS32MONITOR", "REP.DEVICE.SMART.MONITOR ", {}, true, tvText},
        {"kestral ark", "LS55ARK", "REP.DEVICE.KESTRAL.ARK", {}, false,
         "REP.DEVICE.KESTRAL.ARK_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE"},
        {"screen with a removable tuner", "LH43SCREEN", "REP.DEVICE.SCREEN", true, false,
         "REP.DEVICE.SCREEN_SID_SOUND_CCJUL_CONNECTED_DEVICE_NORMALLY_ON_DEVICE"},
        {"screen without one", "LH43SCREEN", "REP.DEVICE.SCREEN", false, true, tvText},
        {"screen, tuner unknown", "LH43SCREEN", "REP.DEVICE.SCREEN", {}, true, tvText},
    };
    for (const auto &product : products) {
        SCOPED_TRACE(product.product);
        ServiceHarness tv;
        fake::SetModel(product.model);
        if (product.deviceSid)
            fake::SetFeatureString(kDeviceSidKey, *product.deviceSid);
        if (product.removableTuner)
            fake::SetFeatureBool(kRemovableTunerKey, *product.removableTuner);

        const fake::Notification noise = Show(NOTI_TYPE_USB_PORT_NOISE, "H390");
        if (product.guide) {
            EXPECT_EQ(noise.content, std::string("TV_SID_SOUND_CCJUN_CONNECT_TO_ANOTHER_USBSID_SPACE") + kNoiseOnPort);
            EXPECT_EQ(noise.layout, 3);
            EXPECT_EQ(noise.image, tv.root.Path(kGuideImage));
        } else {
            EXPECT_EQ(noise.content, kNoiseOnPort);
            EXPECT_EQ(noise.layout, std::nullopt);
            EXPECT_EQ(noise.image, "");
        }
        EXPECT_EQ(Show(NOTI_TYPE_MAY_NOT_WORK_NORMALLY, "H390").content, product.mayNotWork);
    }
}

TEST(Popups, TheNextPopupTakesThePreviousOneDown)
{
    ServiceHarness tv;
    const int first = Show(NOTI_TYPE_DEVICE_CONNECTED, "Evolve 20").id;
    const int second = Show(NOTI_TYPE_UNSUPPORTED_DEVICE, "Astro A20").id;
    EXPECT_EQ(fake::Deleted(), std::vector<int>{first});
    ASSERT_EQ(fake::OnScreen().size(), 1u);
    EXPECT_EQ(fake::OnScreen()[0].id, second);

    // The service hears only of its popup on screen going away.
    EXPECT_FALSE(fake::CloseNotification(first, NOTIFICATION_EVENT_CLOSED));
    EXPECT_TRUE(fake::CloseNotification(second, NOTIFICATION_EVENT_DISMISSED));
    fake::RunPending();
    ASSERT_FALSE(ServiceHarness::LoggedMessages().empty());
    EXPECT_EQ(ServiceHarness::LoggedMessages().back(), "event_type: 2");
}

TEST(Popups, TheConnectedTextLosesEveryNamePlaceholder)
{
    auto translate = [](const char *) { return std::string("<<A>> is ready. Sound goes to <<A>> now."); };
    const PopupContent connected = ChoosePopupContent(NOTI_TYPE_DEVICE_CONNECTED, "Evolve 20", PRODUCT_DEVICE_TV,
                                                      translate, [] { return false; });
    EXPECT_EQ(connected.content, " is ready. Sound goes to  now.");
}

} // namespace
