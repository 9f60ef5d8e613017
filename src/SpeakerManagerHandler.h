// Tells the platform's speaker manager that the USB sound device has gone ("SpkDisconnected").
#pragma once

#include <gio/gio.h>

#include "Singleton.h"

class CSpeakerManagerHandler : public CSingleton<CSpeakerManagerHandler> {
    friend class CSingleton<CSpeakerManagerHandler>;

public:
    ~CSpeakerManagerHandler() override;

    bool SendSignalToSpeakerManager();

private:
    CSpeakerManagerHandler();

    GDBusConnection *m_GetConnec();

    GDBusConnection *m_connection = nullptr;
};
