/* Notification popups: build a notification, post it, and take it down again.
 * Calls may come from any thread (one thread per notification at a time); posting and deleting
 * block at most 1000 ms. Calls return 0 (NOTIFICATION_ERROR_NONE) or a negative
 * notification_error_e. */
#pragma once

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    NOTIFICATION_ERROR_NONE = 0,
    NOTIFICATION_ERROR_IO_ERROR = -5,            /* the notification service failed or is not running */
    NOTIFICATION_ERROR_OUT_OF_MEMORY = -12,
    NOTIFICATION_ERROR_INVALID_PARAMETER = -22,
    NOTIFICATION_ERROR_TIMED_OUT = -110,         /* no answer within 1000 ms */
} notification_error_e;

typedef enum {
    NOTIFICATION_STYLE_SIMPLE = 0,  /* a one-off message */
} notification_style_e;

typedef enum {
    NOTIFICATION_TEXT_TITLE = 0,
    NOTIFICATION_TEXT_CONTENT = 1,
} notification_text_part_e;

/* arg_count of notification_set_text for a text without arguments. */
#define NOTIFICATION_TEXT_NO_ARGS (-1)

/* Where a notification is shown (display applist): a set of areas. */
typedef enum {
    NOTIFICATION_DISPLAY_AREA_POPUP = 16,  /* the popup area */
} notification_display_area_e;

/* What happened to a posted notification. */
typedef enum {
    NOTIFICATION_EVENT_EXPIRED = 1,    /* its hide timeout passed */
    NOTIFICATION_EVENT_DISMISSED = 2,  /* the user closed it */
    NOTIFICATION_EVENT_CLOSED = 3,     /* it went away for another reason */
} notification_event_type_e;

typedef struct notification notification;
typedef notification *notification_h;

/* event_type is a notification_event_type_e. */
typedef void (*notification_event_cb)(notification *noti, int event_type, void *user_data);

/* A new notification the caller deletes or frees, or NULL on failure. */
notification_h notification_create(notification_style_e style);
/* Takes the notification off the screen if it was posted, then frees the handle. */
int notification_delete(notification_h noti);
/* Frees the handle and leaves a posted notification on screen. */
int notification_free(notification_h noti);

/* Sets one text part. With arg_count NOTIFICATION_TEXT_NO_ARGS the text is shown as it stands;
 * with arg_count n >= 0 it is followed by n strings (const char *), which replace the text's
 * "%s" in order. */
int notification_set_text(notification_h noti, notification_text_part_e part, const char *text, int arg_count, ...);
/* layout is the notification service's layout number, passed through. */
int notification_set_layout(notification_h noti, int layout);
/* Sets the image of slot image_type (the service's image slot number) to the image file at path,
 * an absolute platform path (resolved like every platform path, see paths.h). A popup on this
 * system shows one image: the last one set. */
int notification_set_image(notification_h noti, int image_type, const char *path);
/* applist: a set of notification_display_area_e. */
int notification_set_display_applist(notification_h noti, int applist);
/* Seconds the popup stays on screen; 0 keeps it until it is deleted or dismissed. */
int notification_set_hide_timeout(notification_h noti, int seconds);
/* Whether the notification is removed once it has been shown; false keeps it until deleted. */
int notification_set_auto_remove(notification_h noti, bool auto_remove);

/* Shows the notification; posting it again updates the one on screen. */
int notification_post(notification_h noti);
/* As notification_post, and calls cb on the default main context when the notification goes
 * away by itself or by the user. cb is not called once the handle is deleted or freed. */
int notification_post_with_event_cb(notification_h noti, notification_event_cb cb, void *user_data);

#ifdef __cplusplus
}
#endif
