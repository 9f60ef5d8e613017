#include "SpeakerManagerHandler.h"

#include <mutex>

#include "Log.h"
#include "SystemBus.h"

namespace {

// The capital letters of the path are the speaker manager's own; it matches the signal on them.
constexpr char kSpeakerManagerPath[] = "/Org/Nimbos/SpeakerManager";
constexpr char kSpeakerManagerInterface[] = "org.nimbos.speakermanager";
// The speaker type of the USB sound device, the same code as its sound-manager route.
constexpr int kUsbSpeakerType = 15;
constexpr char kUsbSpeakerName[] = "HADRIX_DEVICE";

std::mutex g_connectionLock;

} // namespace

CSpeakerManagerHandler::CSpeakerManagerHandler()
{
    m_GetConnec();
}

GDBusConnection *CSpeakerManagerHandler::m_GetConnec()
{
    return hadrix::CachedSystemBus(m_connection, g_connectionLock);
}

bool CSpeakerManagerHandler::SendSignalToSpeakerManager()
{
    GDBusConnection *connection = m_GetConnec();
    if (!connection) {
        LOGE("no connection");
        return false;
    }
    return hadrix::BroadcastSignal(connection, kSpeakerManagerPath, kSpeakerManagerInterface,
                                   "SpkDisconnected", g_variant_new("(is)", kUsbSpeakerType, kUsbSpeakerName));
}
