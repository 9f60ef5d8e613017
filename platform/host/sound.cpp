// The sound manager on the host: a client of org.nimbos.SoundManager on the system bus.
#include "nimbos/sound.h"

#include "HostLog.h"
#include "PlatformService.h"

#include <memory>
#include <mutex>
#include <utility>

namespace {

using nimbos::kServiceOk;
using nimbos::PlatformService;
using nimbos::SignalSubscription;

static_assert(nimbos::UsesServiceCodes(SOUND_MANAGER_ERROR_NONE, SOUND_MANAGER_ERROR_IO_ERROR,
                                       SOUND_MANAGER_ERROR_TIMED_OUT, SOUND_MANAGER_ERROR_INVALID_PARAMETER));

// Routes are the sound manager's own integers, any of them valid but never negative; a negative one
// on the bus is bad input.
bool IsRoute(gint32 value)
{
    return value >= 0;
}

// A route a caller asks for; a negative one is refused with a log line.
bool IsRouteToSet(sound_tv_output_route_e route, const char *function)
{
    if (IsRoute(route))
        return true;
    HOST_LOG(DLOG_ERROR, "%s refused: route %d is negative", function, static_cast<int>(route));
    return false;
}

const PlatformService &SoundManager()
{
    static const PlatformService service("org.nimbos.SoundManager");
    return service;
}

// The one registered callback of a kind: registering another replaces it.
class CallbackSlot {
public:
    void Replace(std::unique_ptr<SignalSubscription> subscription)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_subscription.swap(subscription);
    }

private:
    std::mutex m_lock;
    std::unique_ptr<SignalSubscription> m_subscription;
};

CallbackSlot &SpeakerChangedSlot()
{
    static CallbackSlot slot;
    return slot;
}

CallbackSlot &MultiviewChangedSlot()
{
    static CallbackSlot slot;
    return slot;
}

int ReadRoute(const char *method, GVariant *arguments, sound_tv_output_route_e *route)
{
    gint32 value = 0;
    int result = SoundManager().ReadInt32(method, arguments, &value);
    if (result != kServiceOk)
        return result;
    if (!IsRoute(value)) {
        HOST_LOG(DLOG_ERROR, "%s answered route %d, refused: not a route", method, value);
        return SOUND_MANAGER_ERROR_IO_ERROR;
    }
    *route = static_cast<sound_tv_output_route_e>(value);
    return SOUND_MANAGER_ERROR_NONE;
}

int Register(CallbackSlot &slot, const char *signal, const char *type, PlatformService::SignalHandler handler)
{
    auto subscription = SoundManager().Subscribe(signal, G_VARIANT_TYPE(type), std::move(handler));
    if (!subscription)
        return SOUND_MANAGER_ERROR_IO_ERROR;
    slot.Replace(std::move(subscription));
    return SOUND_MANAGER_ERROR_NONE;
}

void DeliverSpeakerChanged(GVariant *arguments, sound_manager_speaker_changed_cb cb, void *userData)
{
    gint32 route = 0;
    g_variant_get(arguments, "(i)", &route);
    if (!IsRoute(route)) {
        HOST_LOG(DLOG_WARN, "SpeakerChanged with route %d refused: not a route", route);
        return;
    }
    cb(static_cast<sound_tv_output_route_e>(route), userData);
}

void DeliverMultiviewSpeakerChanged(GVariant *arguments, sound_manager_multiview_speaker_selection_changed_cb cb,
                                    void *userData)
{
    gint32 route = 0;
    gint32 zone = 0;
    g_variant_get(arguments, "(ii)", &route, &zone);
    if (!IsRoute(route)) {
        HOST_LOG(DLOG_WARN, "MultiviewSpeakerChanged with route %d (zone %d) refused: not a route", route, zone);
        return;
    }
    cb(static_cast<sound_tv_output_route_e>(route), zone, userData);
}

} // namespace

extern "C" int sound_manager_get_speaker_selection(sound_tv_output_route_e *route)
{
    if (!route)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    return ReadRoute("GetSpeakerSelection", nullptr, route);
}

extern "C" int sound_manager_set_speaker_selection(sound_tv_output_route_e route)
{
    if (!IsRouteToSet(route, __func__))
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    return SoundManager().Command("SetSpeakerSelection", g_variant_new("(i)", static_cast<gint32>(route)));
}

extern "C" int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb cb, void *user_data)
{
    if (!cb)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    return Register(SpeakerChangedSlot(), "SpeakerChanged", "(i)",
                    [cb, user_data](GVariant *arguments) { DeliverSpeakerChanged(arguments, cb, user_data); });
}

extern "C" int sound_manager_unset_speaker_changed_cb(void)
{
    SpeakerChangedSlot().Replace(nullptr);
    return SOUND_MANAGER_ERROR_NONE;
}

extern "C" int sound_manager_set_mute_gain(int type, int gain)
{
    return SoundManager().Command("SetMuteGain", g_variant_new("(ii)", type, gain));
}

extern "C" int sound_manager_apply_unmute_fade_in(int type)
{
    return SoundManager().Command("ApplyUnmuteFadeIn", g_variant_new("(i)", type));
}

extern "C" int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e *route,
                                                                          int zone_id)
{
    if (!route)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    return ReadRoute("GetMultiviewSpeakerSelection", g_variant_new("(i)", zone_id), route);
}

extern "C" int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route,
                                                                          int zone_id)
{
    if (!IsRouteToSet(route, __func__))
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    return SoundManager().Command("SetMultiviewSpeakerSelection",
                                  g_variant_new("(ii)", static_cast<gint32>(route), zone_id));
}

extern "C" int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb cb, void *user_data)
{
    if (!cb)
        return SOUND_MANAGER_ERROR_INVALID_PARAMETER;
    return Register(MultiviewChangedSlot(), "MultiviewSpeakerChanged", "(ii)", [cb, user_data](GVariant *arguments) {
        DeliverMultiviewSpeakerChanged(arguments, cb, user_data);
    });
}

extern "C" int sound_manager_unset_multiview_speaker_selection_changed_cb(void)
{
    MultiviewChangedSlot().Replace(nullptr);
    return SOUND_MANAGER_ERROR_NONE;
}
