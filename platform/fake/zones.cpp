// Fake resource-centre zones: the ids a test set, for every zone type.
#include "nimbos/zones.h"

#include "FakeCore.h"
#include "ZoneList.h"

#include <mutex>

namespace {

using nimbos::fake::Service;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Record;
using nimbos::fake::detail::Text;

struct Zones {
    std::mutex lock;
    std::vector<int> ids;
};

Zones &TheZones()
{
    static Zones *zones = new Zones;
    return *zones;
}

} // namespace

extern "C" int rc_get_zone_list(rc_zone_type_e type, rc_zone_list_s **list)
{
    if (auto injected = Enter(__func__, {Text(static_cast<int>(type))}))
        return *injected;
    if (!list)
        return RC_ERROR_INVALID_PARAMETER;
    if (auto unavailable = nimbos::fake::detail::Unavailable(Service::ResourceCenter, RC_ERROR_IO_ERROR,
                                                             RC_ERROR_TIMED_OUT))
        return *unavailable;
    Zones &zones = TheZones();
    std::lock_guard<std::mutex> lock(zones.lock);
    *list = nimbos::common::NewZoneList(zones.ids.data(), zones.ids.size());
    return RC_ERROR_NONE;
}

extern "C" rc_zone_s *rc_get_next_zone(rc_zone_list_s *list)
{
    Record(__func__, {});
    return nimbos::common::NextZone(list);
}

extern "C" int rc_get_zone_id(const rc_zone_s *zone, int *zone_id)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    return nimbos::common::ZoneId(zone, zone_id);
}

extern "C" void rc_free_zone_list(rc_zone_list_s *list)
{
    Record(__func__, {});
    nimbos::common::FreeZoneList(list);
}

namespace nimbos::fake {

void SetZones(const std::vector<int> &zoneIds)
{
    Zones &zones = TheZones();
    std::lock_guard<std::mutex> lock(zones.lock);
    zones.ids = zoneIds;
}

namespace detail {

void ResetZones()
{
    SetZones({});
}

} // namespace detail

} // namespace nimbos::fake
