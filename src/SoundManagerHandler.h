// The sound manager: which output route the TV sound takes, the mute gain and the unmute
// fade-in. One platform call per operation; failures are logged with the platform's code.
#pragma once

#include "Singleton.h"
#include "nimbos/sound.h"

class CSoundManagerHandler : public CSingleton<CSoundManagerHandler> {
    friend class CSingleton<CSoundManagerHandler>;

public:
    // Removes the speaker-changed and the multiview speaker-selection callbacks.
    ~CSoundManagerHandler() override;

    bool ApplyUnmuteFadeIn();
    bool ApplyMuteGain(int gain);
    bool SetSpeakerSelection(sound_tv_output_route_e route);
    // The current route (the multiview zone's while multiview is on); SOUND_TV_OUTPUT_DEFAULT (7)
    // when it cannot be read.
    sound_tv_output_route_e GetSpeakerSelection();

private:
    CSoundManagerHandler() = default;
};
