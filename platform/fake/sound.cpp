// The fake sound manager: the TV's route and the routes of multiview zones, announced to the
// route-change callbacks when they change.
#include "nimbos/sound.h"

#include "CallbackSlot.h"

#include <map>
#include <mutex>

namespace {

using nimbos::fake::Service;
using nimbos::fake::detail::CallbackSlot;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Text;

struct Routes {
    std::mutex lock;
    int route = SOUND_TV_OUTPUT_DEFAULT;
    std::map<int, int> zoneRoutes; // a zone nobody set has the default route
};

Routes &TheRoutes()
{
    static Routes *routes = new Routes;
    return *routes;
}

CallbackSlot<sound_manager_speaker_changed_cb> &SpeakerChanged()
{
    static auto *slot = new CallbackSlot<sound_manager_speaker_changed_cb>;
    return *slot;
}

CallbackSlot<sound_manager_multiview_speaker_selection_changed_cb> &MultiviewChanged()
{
    static auto *slot = new CallbackSlot<sound_manager_multiview_speaker_selection_changed_cb>;
    return *slot;
}

std::optional<int> Unavailable()
{
    return nimbos::fake::detail::Unavailable(Service::SoundManager, SOUND_MANAGER_ERROR_IO_ERROR,
                                             SOUND_MANAGER_ERROR_TIMED_OUT);
}

int ZoneRoute(const Routes &routes, int zone)
{
    auto found = routes.zoneRoutes.find(zone);
    return found == routes.zoneRoutes.end() ? SOUND_TV_OUTPUT_DEFAULT : found->second;
}

// Sets the route; returns whether it changed.
bool Select(int route)
{
    Routes &routes = TheRoutes();
    std::lock_guard<std::mutex> lock(routes.lock);
    const bool changed = routes.route != route;
    routes.route = route;
    return changed;
}

bool SelectForZone(int route, int zone)
{
    Routes &routes = TheRoutes();
    std::lock_guard<std::mutex> lock(routes.lock);
    const bool changed = ZoneRoute(routes, zone) != route;
    routes.zoneRoutes[zone] = route;
    return changed;
}

void AnnounceSpeaker(int route)
{
    SpeakerChanged().Deliver([route](sound_manager_speaker_changed_cb cb, void *userData) {
        cb(static_cast<sound_tv_output_route_e>(route), userData);
    });
}

void AnnounceMultiview(int route, int zone)
{
    MultiviewChanged().Deliver([route, zone](sound_manager_multiview_speaker_selection_changed_cb cb, void *userData) {
        cb(static_cast<sound_tv_output_route_e>(route), zone, userData);
    });
}

} // namespace

extern "C" int sound_manager_get_speaker_selection(sound_tv_output_route_e *route)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!route)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    if (auto unavailable = Unavailable())
        return *unavailable;
    *route = static_cast<sound_tv_output_route_e>(nimbos::fake::Route());
    return SOUND_MANAGER_ERROR_NONE;
}

extern "C" int sound_manager_set_speaker_selection(sound_tv_output_route_e route)
{
    if (auto injected = Enter(__func__, {Text(static_cast<int>(route))}))
        return *injected;
    if (route < 0)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    if (auto unavailable = Unavailable())
        return *unavailable;
    if (Select(route))
        AnnounceSpeaker(route);
    return SOUND_MANAGER_ERROR_NONE;
}

extern "C" int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb cb, void *user_data)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!cb)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    SpeakerChanged().Set(cb, user_data);
    return SOUND_MANAGER_ERROR_NONE;
}

extern "C" int sound_manager_unset_speaker_changed_cb(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    SpeakerChanged().Unset();
    return SOUND_MANAGER_ERROR_NONE;
}

extern "C" int sound_manager_set_mute_gain(int type, int gain)
{
    if (auto injected = Enter(__func__, {Text(type), Text(gain)}))
        return *injected;
    return Unavailable().value_or(SOUND_MANAGER_ERROR_NONE);
}

extern "C" int sound_manager_apply_unmute_fade_in(int type)
{
    if (auto injected = Enter(__func__, {Text(type)}))
        return *injected;
    return Unavailable().value_or(SOUND_MANAGER_ERROR_NONE);
}

extern "C" int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e *route,
                                                                          int zone_id)
{
    if (auto injected = Enter(__func__, {Text(zone_id)}))
        return *injected;
    if (!route)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    if (auto unavailable = Unavailable())
        return *unavailable;
    *route = static_cast<sound_tv_output_route_e>(nimbos::fake::MultiviewRoute(zone_id));
    return SOUND_MANAGER_ERROR_NONE;
}

extern "C" int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route,
                                                                          int zone_id)
{
    if (auto injected = Enter(__func__, {Text(static_cast<int>(route)), Text(zone_id)}))
        return *injected;
    if (route < 0)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    if (auto unavailable = Unavailable())
        return *unavailable;
    if (SelectForZone(route, zone_id))
        AnnounceMultiview(route, zone_id);
    return SOUND_MANAGER_ERROR_NONE;
}

extern "C" int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb cb, void *user_data)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    if (!cb)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    MultiviewChanged().Set(cb, user_data);
    return SOUND_MANAGER_ERROR_NONE;
}

extern "C" int sound_manager_unset_multiview_speaker_selection_changed_cb(void)
{
    if (auto injected = Enter(__func__, {}))
        return *injected;
    MultiviewChanged().Unset();
    return SOUND_MANAGER_ERROR_NONE;
}

namespace nimbos::fake {

int Route()
{
    Routes &routes = TheRoutes();
    std::lock_guard<std::mutex> lock(routes.lock);
    return routes.route;
}

void SetRoute(int route)
{
    Select(route);
}

void AnnounceRoute(int route)
{
    Select(route);
    AnnounceSpeaker(route);
}

int MultiviewRoute(int zone)
{
    Routes &routes = TheRoutes();
    std::lock_guard<std::mutex> lock(routes.lock);
    return ZoneRoute(routes, zone);
}

void SetMultiviewRoute(int route, int zone)
{
    SelectForZone(route, zone);
}

void AnnounceMultiviewRoute(int route, int zone)
{
    SelectForZone(route, zone);
    AnnounceMultiview(route, zone);
}

namespace detail {

void ResetSound()
{
    {
        Routes &routes = TheRoutes();
        std::lock_guard<std::mutex> lock(routes.lock);
        routes.route = SOUND_TV_OUTPUT_DEFAULT;
        routes.zoneRoutes.clear();
    }
    SpeakerChanged().Unset();
    MultiviewChanged().Unset();
}

} // namespace detail

} // namespace nimbos::fake
