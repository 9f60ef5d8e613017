// Screen mirroring: a mirroring source changes the USB headset's level and mute through two
// settings keys, while the TV is in USB audio mode.
#pragma once

#include "Singleton.h"
#include "nimbos/settings.h"

class CSoundMirroringEventHandler : public CSingleton<CSoundMirroringEventHandler> {
    friend class CSingleton<CSoundMirroringEventHandler>;

public:
    ~CSoundMirroringEventHandler() override;

private:
    CSoundMirroringEventHandler();

    void m_RegisterVconfCallback();
    static void OnSetVolumeMuteChanged(keynode_t *node, void *user_data);
    static void OnSetVolumeLevelChanged(keynode_t *node, void *user_data);

    // The last values acted on. They start outside what a source writes (level 0 to 100, mute 0
    // or 1), so its first write always acts.
    int m_nLastMute = -1;
    int m_nLastLevel = -1;
};
