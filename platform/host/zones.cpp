// Resource centre zones on the host: a client of org.nimbos.ResourceCenter on the system bus.
#include "nimbos/zones.h"

#include "PlatformService.h"
#include "ZoneList.h"

namespace {

using nimbos::kServiceOk;

static_assert(nimbos::UsesServiceCodes(RC_ERROR_NONE, RC_ERROR_IO_ERROR, RC_ERROR_TIMED_OUT,
                                       RC_ERROR_INVALID_PARAMETER));

const nimbos::PlatformService &ResourceCenter()
{
    static const nimbos::PlatformService service("org.nimbos.ResourceCenter");
    return service;
}

rc_zone_list_s *ZoneListOf(GVariant *reply)
{
    g_autoptr(GVariant) ids = g_variant_get_child_value(reply, 0);
    gsize count = 0;
    const auto *id = static_cast<const gint32 *>(g_variant_get_fixed_array(ids, &count, sizeof(gint32)));
    return nimbos::common::NewZoneList(id, count);
}

} // namespace

extern "C" int rc_get_zone_list(rc_zone_type_e type, rc_zone_list_s **list)
{
    if (!list)
        return RC_ERROR_INVALID_PARAMETER;
    g_autoptr(GVariant) reply = nullptr;
    int result = ResourceCenter().Call("GetZones", g_variant_new("(i)", static_cast<gint32>(type)),
                                       G_VARIANT_TYPE("(ai)"), &reply);
    if (result != kServiceOk)
        return result;
    *list = ZoneListOf(reply);
    return RC_ERROR_NONE;
}

extern "C" rc_zone_s *rc_get_next_zone(rc_zone_list_s *list)
{
    return nimbos::common::NextZone(list);
}

extern "C" int rc_get_zone_id(const rc_zone_s *zone, int *zone_id)
{
    return nimbos::common::ZoneId(zone, zone_id);
}

extern "C" void rc_free_zone_list(rc_zone_list_s *list)
{
    nimbos::common::FreeZoneList(list);
}
