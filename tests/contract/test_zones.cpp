// zones.h: the multiview zones in the resource centre's order.
#include "ContractTest.h"

#include "nimbos/zones.h"

namespace contract {
namespace {

using ZonesContract = ContractTest;

std::vector<int> Zones()
{
    rc_zone_list_s *list = nullptr;
    EXPECT_EQ(rc_get_zone_list(RC_ZONE_TYPE_MULTIVIEW, &list), RC_ERROR_NONE);
    std::vector<int> ids;
    for (rc_zone_s *zone = rc_get_next_zone(list); zone; zone = rc_get_next_zone(list)) {
        int id = -1;
        EXPECT_EQ(rc_get_zone_id(zone, &id), RC_ERROR_NONE);
        ids.push_back(id);
    }
    EXPECT_EQ(rc_get_next_zone(list), nullptr) << "still none after the last";
    rc_free_zone_list(list);
    return ids;
}

TEST_F(ZonesContract, TheZonesComeInTheResourceCentresOrder)
{
    EXPECT_TRUE(Zones().empty()) << "no zone is an empty list";
    driver.SetZones({3, 1, 2});
    EXPECT_EQ(Zones(), (std::vector<int>{3, 1, 2}));
    EXPECT_EQ(driver.Requests(Service::ResourceCenter), (std::vector<std::string>{"GetZones(1)", "GetZones(1)"}));
    EXPECT_EQ(rc_get_next_zone(nullptr), nullptr);
    int id = 0;
    EXPECT_EQ(rc_get_zone_id(nullptr, &id), RC_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(rc_get_zone_list(RC_ZONE_TYPE_MULTIVIEW, nullptr), RC_ERROR_INVALID_PARAMETER);
    rc_free_zone_list(nullptr);
}

TEST_F(ZonesContract, AMissingOrSilentResourceCentreFailsAndWritesNothing)
{
    rc_zone_list_s *list = nullptr;
    driver.SetAvailability(Service::ResourceCenter, Availability::Missing);
    EXPECT_EQ(rc_get_zone_list(RC_ZONE_TYPE_MULTIVIEW, &list), RC_ERROR_IO_ERROR);
    driver.SetAvailability(Service::ResourceCenter, Availability::Silent);
    EXPECT_LE(ElapsedMs([&] { EXPECT_EQ(rc_get_zone_list(RC_ZONE_TYPE_MULTIVIEW, &list), RC_ERROR_TIMED_OUT); }),
              kSilentCallBoundMs);
    EXPECT_EQ(list, nullptr);
}

} // namespace
} // namespace contract
