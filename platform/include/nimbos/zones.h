/* Resource centre zones: the screen zones of a given type (the zones of multiview), each with
 * the id the sound manager takes for a zone (sound.h). Calls block at most 1000 ms and return
 * 0 (RC_ERROR_NONE) or a negative rc_error_e unless stated otherwise. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    RC_ERROR_NONE = 0,
    RC_ERROR_IO_ERROR = -5,            /* the resource centre failed or is not running */
    RC_ERROR_OUT_OF_MEMORY = -12,
    RC_ERROR_INVALID_PARAMETER = -22,
    RC_ERROR_TIMED_OUT = -110,         /* no answer within 1000 ms */
} rc_error_e;

/* Zone-type filter of rc_get_zone_list. */
typedef enum {
    RC_ZONE_TYPE_MULTIVIEW = 1,  /* the zones of the multiview screen */
} rc_zone_type_e;

typedef struct rc_zone_s rc_zone_s;
/* A snapshot of zones, walked with rc_get_next_zone. */
typedef struct rc_zone_list_s rc_zone_list_s;

/* The zones of the given type, in the resource centre's order, as a new list the caller frees
 * with rc_free_zone_list. No zone gives an empty list, not an error. */
int rc_get_zone_list(rc_zone_type_e type, rc_zone_list_s **list);
/* The first zone on the first call, then each following one; NULL after the last zone and for
 * a null list. The zone belongs to the list. */
rc_zone_s *rc_get_next_zone(rc_zone_list_s *list);
int rc_get_zone_id(const rc_zone_s *zone, int *zone_id);
/* Frees the list and its zones. NULL is ignored. */
void rc_free_zone_list(rc_zone_list_s *list);

#ifdef __cplusplus
}
#endif
