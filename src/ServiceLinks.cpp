#include "ServiceLinks.h"

#include "DecisionLog.h"
#include "DiagnosticsApi.h"
#include "HadrixDbusAPIServer.h"
#include "KeyEventHandler.h"
#include "MultiviewHandler.h"
#include "USBDevice.h"
#include "USBHeadsetMgr.h"

namespace {

CUSBHeadsetMgr *HeadsetManager()
{
    return CSingleton<CUSBHeadsetMgr>::GetInstance();
}

CUSBDevice *DeviceManager()
{
    return CSingleton<CUSBDevice>::GetInstance();
}

} // namespace

void LinkManagers()
{
    CUSBDevice::SetLinks({
        [] { CUSBAPIServer::m_SendEventToClient(nullptr); },
        [] { HeadsetManager()->OnEnumerationDone(); },
    });
    CMultiviewHandler::SetLinks({
        [] { HeadsetManager()->InitVolumeOnMultiViewEnabled(); },
        [](sound_tv_output_route_e route) { HeadsetManager()->HandleMultiViewSpeakerChange(route); },
    });
    CDecisionLog::SetLinks({
        [](const Decision &decision) {
            if (CDiagnosticsApi *diagnostics = CSingleton<CDiagnosticsApi>::PeekInstance())
                diagnostics->Announce(decision);
        },
    });
    CKeyHandler::SetLinks({
        [](const std::string &deviceName) { return DeviceManager()->CheckWhetherUsbDevice(deviceName); },
        [] { return DeviceManager()->GetDeviceInfoForOSD(); },
    });
}
