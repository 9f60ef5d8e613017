// Multiview (split screen): the USB headset's route is set per screen zone, and its level and
// mute are published to the multiview UI through a settings value instead of the TV viewer.
#pragma once

#include <atomic>
#include <functional>

#include "Singleton.h"
#include "nimbos/settings.h"
#include "nimbos/sound.h"

// Volume control of an output that is not driven through the TV viewer.
class IVolumeControl {
public:
    virtual bool SetVolumeLevel(int level) = 0;
    virtual bool SetMute(bool mute) = 0;
    virtual bool SetSpeakerSelection(sound_tv_output_route_e route) = 0;
    virtual sound_tv_output_route_e GetSpeakerSelection() = 0;
    virtual ~IVolumeControl() = default;
};

class CMultiviewHandler : public CSingleton<CMultiviewHandler>, public IVolumeControl {
    friend class CSingleton<CMultiviewHandler>;

public:
    // What the handler tells the service around it; set once at start-up.
    struct Links {
        // Multiview was switched on.
        std::function<void()> multiviewEnabled;
        // The multiview speaker route changed while multiview is on.
        std::function<void(sound_tv_output_route_e)> speakerChanged;
    };
    static void SetLinks(Links links);

    ~CMultiviewHandler() override;
    bool SetMute(bool mute) override;
    bool SetVolumeLevel(int level) override;
    bool SetSpeakerSelection(sound_tv_output_route_e route) override;
    // The route of the first multiview zone; SOUND_TV_OUTPUT_DEFAULT (7) when there is none.
    sound_tv_output_route_e GetSpeakerSelection() override;

    bool IsMultiviewOn() const;

private:
    CMultiviewHandler();

    static void m_OnMultiViewChangeCb(keynode_t *node, void *user_data);
    static void m_OnMultiViewerSpeakerChangeCb(sound_tv_output_route_e route, int zone, void *data);

    // Written on the main loop, read also by the API and worker threads.
    std::atomic<bool> m_bMultiviewOn{false};
};
