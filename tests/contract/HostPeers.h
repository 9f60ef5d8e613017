// The host's platform services as mock peers on the test bus, doing what the simulated TV's
// services do (tools/tvsim/templates/), and the applications launch requests go to: the world of
// the D-Bus clients in platform/host/.
#pragma once

#include "MockService.h"
#include "PlatformDriver.h"

#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace contract {

class HostPeers {
public:
    // Every service running with its defaults, no application, nothing recorded.
    void Reset();
    // The peers leave the bus (before it goes).
    void Close();

    void SetAvailability(Service service, Availability availability);
    std::vector<std::string> Requests(Service service);
    void SetApp(const std::string &appId, Availability availability);
    std::vector<Launch> Launches();

    // What the peers do on their own, each sent once everything the process asked of the bus
    // before (its signal subscriptions) is in force.
    void SetPowerState(int state);
    void ChangePowerState(int state);
    void UserPicksRoute(int route);
    void UserPicksMultiviewRoute(int route, int zone);
    void SetZones(const std::vector<int> &zoneIds);
    // signal is KeyDown or KeyUp; the router sends it only for a key some window grabbed.
    void SendKey(const char *signal, const std::string &key, const std::string &deviceName);
    std::optional<int> SpecialKeyMode(int window, const std::string &key);
    std::vector<Popup> OnScreen();
    void CloseNotification(unsigned id, int eventType);

private:
    // What the services hold, as their python counterparts do.
    struct World {
        int route = 7;
        std::map<int, int> zoneRoutes;
        bool mute = false;
        guint32 gain = 0;
        guint32 delay = 0;
        int powerState = 0;
        std::vector<int> zones;
        std::map<int, std::set<std::string>> staged;
        std::map<int, std::set<std::string>> grabbed;
        std::map<std::pair<int, std::string>, int> special;
        guint32 nextNotification = 1;
        std::vector<Popup> onScreen;
        std::vector<Launch> launches;
    };
    using Handler = hadrix::test::MockService::Handler;

    std::unique_ptr<hadrix::test::MockService> Start(Service service);
    template <typename Build>
    Handler Answer(Build build);
    void ServeSoundManager(hadrix::test::MockService &mock);
    void ServeAudioControl(hadrix::test::MockService &mock);
    void ServeDevicePower(hadrix::test::MockService &mock);
    void ServeResourceCenter(hadrix::test::MockService &mock);
    void ServeKeyRouter(hadrix::test::MockService &mock);
    void ServeNotifications(hadrix::test::MockService &mock);
    bool SelectRoute(int route);
    bool SelectZoneRoute(int route, int zone);
    bool TakeDown(guint32 id);
    void Emit(Service service, const char *signal, GVariant *arguments);

    std::mutex m_lock; // the mocks' handlers run on their own threads
    World m_world;
    std::map<Service, std::unique_ptr<hadrix::test::MockService>> m_services;
    std::map<std::string, std::unique_ptr<hadrix::test::MockService>> m_apps;
};

} // namespace contract
