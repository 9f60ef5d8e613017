// notification.h: what a posted notification shows, updating it, taking it down, and the event
// callback that hears on the default context when it goes away.
#include "ContractTest.h"

#include "nimbos/notification.h"

#include <thread>

namespace contract {
namespace {

using NotificationContract = ContractTest;
using Event = std::pair<notification *, int>;

void Record(notification *noti, int eventType, void *heard)
{
    static_cast<Heard<Event> *>(heard)->Add({noti, eventType});
}

notification_h Simple(const char *title)
{
    notification_h noti = notification_create(NOTIFICATION_STYLE_SIMPLE);
    EXPECT_NE(noti, nullptr);
    EXPECT_EQ(notification_set_text(noti, NOTIFICATION_TEXT_TITLE, title, NOTIFICATION_TEXT_NO_ARGS),
              NOTIFICATION_ERROR_NONE);
    return noti;
}

std::vector<std::string> TitlesOnScreen()
{
    std::vector<std::string> titles;
    for (const Popup &popup : Driver().OnScreen())
        titles.push_back(popup.title);
    return titles;
}

TEST_F(NotificationContract, APostShowsWhatWasSetAndPostingAgainUpdatesIt)
{
    driver.SetRoot("/srv/root");
    notification_h noti = Simple("Connected");
    ASSERT_EQ(notification_set_text(noti, NOTIFICATION_TEXT_CONTENT, "%s is connected to %s", 2, "Headset", "USB"),
              NOTIFICATION_ERROR_NONE);
    ASSERT_EQ(notification_set_layout(noti, 4), NOTIFICATION_ERROR_NONE);
    ASSERT_EQ(notification_set_image(noti, 0, "/usr/apps/hadrix/shared/res/icon.png"), NOTIFICATION_ERROR_NONE);
    ASSERT_EQ(notification_set_image(noti, 1, "/usr/apps/hadrix/shared/res/guide.svg"), NOTIFICATION_ERROR_NONE);
    ASSERT_EQ(notification_set_display_applist(noti, NOTIFICATION_DISPLAY_AREA_POPUP), NOTIFICATION_ERROR_NONE);
    ASSERT_EQ(notification_set_hide_timeout(noti, 3), NOTIFICATION_ERROR_NONE);
    ASSERT_EQ(notification_set_auto_remove(noti, false), NOTIFICATION_ERROR_NONE);
    ASSERT_EQ(notification_post(noti), NOTIFICATION_ERROR_NONE);

    std::vector<Popup> shown = driver.OnScreen();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].title, "Connected");
    EXPECT_EQ(shown[0].content, "Headset is connected to USB");
    EXPECT_EQ(shown[0].image, "/srv/root/usr/apps/hadrix/shared/res/guide.svg") << "the last image set";
    EXPECT_EQ(shown[0].layout, 4);
    EXPECT_EQ(shown[0].displayApplist, NOTIFICATION_DISPLAY_AREA_POPUP);
    EXPECT_EQ(shown[0].hideTimeoutSeconds, 3);
    EXPECT_EQ(shown[0].autoRemove, false);

    ASSERT_EQ(notification_set_text(noti, NOTIFICATION_TEXT_CONTENT, "changed", NOTIFICATION_TEXT_NO_ARGS), 0);
    ASSERT_EQ(notification_post(noti), NOTIFICATION_ERROR_NONE);
    shown = driver.OnScreen();
    ASSERT_EQ(shown.size(), 1u) << "posting again updates the one on screen";
    EXPECT_EQ(shown[0].content, "changed");
    EXPECT_EQ(notification_free(noti), NOTIFICATION_ERROR_NONE);

    notification_h plain = Simple("Plain");
    ASSERT_EQ(notification_post(plain), NOTIFICATION_ERROR_NONE);
    shown = driver.OnScreen();
    ASSERT_EQ(shown.size(), 2u) << "a freed handle leaves its notification on screen";
    EXPECT_NE(shown[1].id, shown[0].id);
    EXPECT_EQ(shown[1].hideTimeoutSeconds, std::nullopt);
    EXPECT_EQ(shown[1].image, "");
    EXPECT_EQ(notification_delete(plain), NOTIFICATION_ERROR_NONE);
    EXPECT_EQ(TitlesOnScreen(), std::vector<std::string>{"Connected"}) << "deleting takes it down";
    EXPECT_EQ(notification_create(static_cast<notification_style_e>(5)), nullptr);
}

// Popups are posted from worker threads; their events still come on the default context.
TEST_F(NotificationContract, TheEventCallbackHearsOnTheDefaultContextUntilTheHandleIsFreed)
{
    Heard<Event> heard;
    notification_h dismissed = Simple("Dismissed");
    notification_h freed = Simple("Freed");
    notification_h expired = Simple("Expired");
    std::thread([&] {
        for (notification_h noti : {dismissed, freed, expired})
            EXPECT_EQ(notification_post_with_event_cb(noti, Record, &heard), NOTIFICATION_ERROR_NONE);
    }).join();
    const std::vector<Popup> shown = driver.OnScreen();
    ASSERT_EQ(shown.size(), 3u);

    driver.CloseNotification(shown[0].id, NOTIFICATION_EVENT_DISMISSED);
    EXPECT_EQ(heard.Count(), 0u) << "delivered later, never inside the event";
    ASSERT_TRUE(heard.WaitFor(1));
    EXPECT_EQ(notification_free(freed), NOTIFICATION_ERROR_NONE);
    driver.CloseNotification(shown[1].id, NOTIFICATION_EVENT_DISMISSED);
    driver.CloseNotification(shown[2].id, NOTIFICATION_EVENT_EXPIRED);
    ASSERT_TRUE(heard.WaitFor(2));
    RunPending();
    EXPECT_EQ(heard.Events(), (std::vector<Event>{{dismissed, NOTIFICATION_EVENT_DISMISSED},
                                                   {expired, NOTIFICATION_EVENT_EXPIRED}}));
    EXPECT_TRUE(heard.AllOn(std::this_thread::get_id()));
    EXPECT_TRUE(driver.OnScreen().empty());
    notification_free(dismissed);
    notification_free(expired);
}

TEST_F(NotificationContract, AMissingOrSilentServiceFailsThePost)
{
    notification_h noti = Simple("Not shown");
    driver.SetAvailability(Service::Notifications, Availability::Missing);
    EXPECT_EQ(notification_post(noti), NOTIFICATION_ERROR_IO_ERROR);
    driver.SetAvailability(Service::Notifications, Availability::Silent);
    EXPECT_LE(ElapsedMs([&] { EXPECT_EQ(notification_post(noti), NOTIFICATION_ERROR_TIMED_OUT); }), kSilentCallBoundMs);
    EXPECT_TRUE(driver.OnScreen().empty());
    notification_free(noti);
}

} // namespace
} // namespace contract
