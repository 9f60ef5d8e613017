#include "SoundManagerHandler.h"

#include "Log.h"
#include "MultiviewHandler.h"

namespace {

// The sound manager's gain type of the TV output, the same in the fade-in and mute-gain calls.
constexpr int kOutputGainType = 3;

} // namespace

CSoundManagerHandler::~CSoundManagerHandler()
{
    int ret = sound_manager_unset_speaker_changed_cb();
    if (ret != SOUND_MANAGER_ERROR_NONE)
        LOGE("sound_manager_unset_speaker_changed_cb return : %d", ret);
    ret = sound_manager_unset_multiview_speaker_selection_changed_cb();
    if (ret != SOUND_MANAGER_ERROR_NONE)
        LOGE("sound_manager_unset_multiview_speaker_selection_changed_cb return : %d", ret);
}

bool CSoundManagerHandler::ApplyUnmuteFadeIn()
{
    int ret = sound_manager_apply_unmute_fade_in(kOutputGainType);
    LOGE("sound_manager_apply_unmute_fade_in return : %d", ret);
    return ret == SOUND_MANAGER_ERROR_NONE;
}

bool CSoundManagerHandler::ApplyMuteGain(int gain)
{
    int ret = sound_manager_set_mute_gain(kOutputGainType, gain);
    LOGE("sound_manager_set_mute_gain return : %d", ret);
    return ret == SOUND_MANAGER_ERROR_NONE;
}

bool CSoundManagerHandler::SetSpeakerSelection(sound_tv_output_route_e route)
{
    int ret = sound_manager_set_speaker_selection(route);
    if (ret != SOUND_MANAGER_ERROR_NONE) {
        LOGE("sound_manager_set_speaker_selection return : %d", ret);
        return false;
    }
    return true;
}

// In multiview the route is the multiview zone's, which the TV-wide selection does not tell.
sound_tv_output_route_e CSoundManagerHandler::GetSpeakerSelection()
{
    CMultiviewHandler *multiview = CSingleton<CMultiviewHandler>::GetInstance();
    if (multiview->IsMultiviewOn())
        return multiview->GetSpeakerSelection();

    sound_tv_output_route_e route = SOUND_TV_OUTPUT_DEFAULT;
    int ret = sound_manager_get_speaker_selection(&route);
    if (ret != SOUND_MANAGER_ERROR_NONE)
        LOGE("sound_manager_get_speaker_selection return fail : %d", ret);
    return route;
}
