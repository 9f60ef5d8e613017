// Tells the platform's speaker manager that the USB sound device has gone ("SpkDisconnected").
#pragma once

#include <gio/gio.h>

#include "Singleton.h"
#include "SystemBus.h"

class CSpeakerManagerHandler : public CSingleton<CSpeakerManagerHandler> {
    friend class CSingleton<CSpeakerManagerHandler>;

public:
    ~CSpeakerManagerHandler() override = default;

    bool SendSignalToSpeakerManager();

private:
    CSpeakerManagerHandler();

    GDBusConnection *m_GetConnec();

    hadrix::ConnectionPtr m_connection;
};
