// The zone list of zones.h as both platform implementations hand it out: the ids in the order
// given, walked once by rc_get_next_zone.
#pragma once

#include "nimbos/zones.h"

#include <cstddef>
#include <vector>

struct rc_zone_s {
    int id;
};

struct rc_zone_list_s {
    std::vector<rc_zone_s> zones;
    size_t next = 0; // the zone rc_get_next_zone returns next
};

namespace nimbos::common {

// A list of the `count` zones of `ids`, for rc_free_zone_list to free.
rc_zone_list_s *NewZoneList(const int *ids, size_t count);
// rc_get_next_zone, rc_get_zone_id and rc_free_zone_list as zones.h states them.
rc_zone_s *NextZone(rc_zone_list_s *list);
int ZoneId(const rc_zone_s *zone, int *zoneId);
void FreeZoneList(rc_zone_list_s *list);

} // namespace nimbos::common
