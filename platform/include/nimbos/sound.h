/* Sound manager: which output route the TV sound takes (per zone in multiview), mute gain and
 * unmute fade-in. Calls may come from any thread and block at most 1000 ms; they return 0
 * (SOUND_MANAGER_ERROR_NONE) or a negative sound_manager_error_e. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    SOUND_MANAGER_ERROR_NONE = 0,
    SOUND_MANAGER_ERROR_IO_ERROR = -5,           /* the sound manager failed or is not running */
    SOUND_MANAGER_ERROR_INVALID_PARAMETER = -22,
    SOUND_MANAGER_ERROR_TIMED_OUT = -110,        /* no answer within 1000 ms */
} sound_manager_error_e;

/* Output routes are the sound manager's integers; values other than those named here exist
 * and are passed through unchanged. */
typedef enum {
    SOUND_TV_OUTPUT_DEFAULT = 7,           /* the route assumed when none can be read */
    SOUND_TV_OUTPUT_USB_HEADSET = 15,
    /* Widens the type to every non-negative int, so unnamed routes are valid values. */
    SOUND_TV_OUTPUT_ROUTE_RANGE_END = 0x7fffffff,
} sound_tv_output_route_e;

/* Called on the thread-default main context of the registering thread when the TV's output
 * route changes. A callback may unset itself. */
typedef void (*sound_manager_speaker_changed_cb)(sound_tv_output_route_e route, void *user_data);
/* As above for the route of one multiview zone. */
typedef void (*sound_manager_multiview_speaker_selection_changed_cb)(sound_tv_output_route_e route,
                                                                     int zone_id, void *user_data);

/* Writes the current route to *route only on success. */
int sound_manager_get_speaker_selection(sound_tv_output_route_e *route);
/* A change of route is announced to the speaker-changed callback. A negative route is an
 * invalid parameter. */
int sound_manager_set_speaker_selection(sound_tv_output_route_e route);
/* One callback at a time: setting another replaces it. Unsetting when none is set succeeds. */
int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb cb, void *user_data);
int sound_manager_unset_speaker_changed_cb(void);

/* type is the sound manager's gain type, passed through; gain is in its units. */
int sound_manager_set_mute_gain(int type, int gain);
/* Unmutes the output of the given gain type with a fade-in. */
int sound_manager_apply_unmute_fade_in(int type);

/* Route of one multiview zone (zone ids come from zones.h). A change of a zone's route is
 * announced to the multiview callback. */
int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e *route, int zone_id);
int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route, int zone_id);
/* One callback at a time: setting another replaces it. Unsetting when none is set succeeds. */
int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb cb, void *user_data);
int sound_manager_unset_multiview_speaker_selection_changed_cb(void);

#ifdef __cplusplus
}
#endif
