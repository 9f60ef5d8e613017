#include "ZoneList.h"

#include <memory>

namespace nimbos::common {

rc_zone_list_s *NewZoneList(const int *ids, size_t count)
{
    auto list = std::make_unique<rc_zone_list_s>();
    list->zones.reserve(count);
    for (size_t i = 0; i < count; ++i)
        list->zones.push_back(rc_zone_s{ids[i]});
    return list.release();
}

rc_zone_s *NextZone(rc_zone_list_s *list)
{
    if (!list || list->next >= list->zones.size())
        return nullptr;
    return &list->zones[list->next++];
}

int ZoneId(const rc_zone_s *zone, int *zoneId)
{
    if (!zone || !zoneId)
        return RC_ERROR_INVALID_PARAMETER;
    *zoneId = zone->id;
    return RC_ERROR_NONE;
}

void FreeZoneList(rc_zone_list_s *list)
{
    delete list;
}

} // namespace nimbos::common
