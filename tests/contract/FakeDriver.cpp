// The contract suites' driver for nimbos-fake: the fake's control panel is the world.
#include "ContractTest.h"

#include "nimbos/fake.h"

#include <map>

namespace contract {
namespace {

namespace fake = nimbos::fake;

fake::Availability FakeAvailability(Availability availability)
{
    switch (availability) {
    case Availability::Running: return fake::Availability::Running;
    case Availability::Missing: return fake::Availability::Missing;
    case Availability::Silent: return fake::Availability::Silent;
    }
    return fake::Availability::Running;
}

fake::Service FakeService(Service service)
{
    switch (service) {
    case Service::SoundManager: return fake::Service::SoundManager;
    case Service::AudioControl: return fake::Service::AudioControl;
    case Service::DevicePower: return fake::Service::DevicePower;
    case Service::ResourceCenter: return fake::Service::ResourceCenter;
    case Service::KeyRouter: return fake::Service::KeyRouter;
    case Service::Notifications: return fake::Service::Notifications;
    }
    return fake::Service::SoundManager;
}

// The functions whose calls are Requests, and the request each stands for.
const std::map<std::string, std::pair<Service, std::string>> kRequests = {
    {"sound_manager_set_mute_gain", {Service::SoundManager, "SetMuteGain"}},
    {"sound_manager_apply_unmute_fade_in", {Service::SoundManager, "ApplyUnmuteFadeIn"}},
    {"rc_get_zone_list", {Service::ResourceCenter, "GetZones"}},
};

std::string Joined(const std::vector<std::string> &args)
{
    std::string text;
    for (const std::string &arg : args)
        text += (text.empty() ? "" : ", ") + arg;
    return text;
}

fake::UsbDevice DeviceOf(const UsbCard &card)
{
    return fake::UsbDevice{DevpathOf(card),  DevnameOf(card), card.product, card.manufacturer,
                           card.vendorId,    card.productId,  card.devnum,  card.interfaceClass};
}

class FakeDriver final : public PlatformDriver {
public:
    void SetUp() override { fake::Reset(); }
    void TearDown() override { fake::Reset(); }

    void SetAvailability(Service service, Availability availability) override
    {
        fake::SetAvailability(FakeService(service), FakeAvailability(availability));
    }

    std::vector<std::string> Requests(Service service) override
    {
        std::vector<std::string> requests;
        for (const fake::Call &call : fake::Calls()) {
            auto request = kRequests.find(call.function);
            if (request != kRequests.end() && request->second.first == service)
                requests.push_back(request->second.second + "(" + Joined(call.args) + ")");
        }
        return requests;
    }

    void StartLogCapture() override { m_logStart = fake::LogLines().size(); }

    std::vector<LogLine> StopLogCapture() override
    {
        std::vector<LogLine> lines;
        const std::vector<fake::LogLine> all = fake::LogLines();
        for (size_t i = m_logStart; i < all.size(); ++i)
            lines.push_back(LogLine{all[i].priority, all[i].tag, all[i].text});
        return lines;
    }

    void SetRoot(const std::string &dir) override { fake::SetRoot(dir); }

    void WriteSetting(const std::string &key, const std::string &type, const std::string &value) override
    {
        if (type == "int")
            fake::SetInt(key, std::stoi(value));
        else if (type == "bool")
            fake::SetBool(key, value == "1" || value == "true");
        else if (type == "double")
            fake::SetDouble(key, std::stod(value));
        else
            fake::SetString(key, value);
    }

    void RemoveSetting(const std::string &key) override { fake::Unset(key); }

    void SetApp(const std::string &appId, Availability availability) override
    {
        fake::SetAppAvailability(appId, FakeAvailability(availability));
    }

    std::vector<Launch> Launches() override
    {
        std::vector<Launch> launches;
        for (const fake::Launch &launch : fake::Launches())
            launches.push_back(Launch{launch.appId, launch.operation, launch.extraData});
        return launches;
    }

    void SendLaunchRequest(const std::string &operation, const ExtraData &extraData) override
    {
        fake::SendLaunchRequest(operation, extraData);
    }

    void SetModel(const std::optional<std::string> &model) override { fake::SetModel(model); }
    void SetFeature(const std::string &key, const std::string &value) override { fake::SetFeatureString(key, value); }

    WatchdogView Watchdog() override
    {
        const fake::Watchdog state = fake::WatchdogState();
        return WatchdogView{state.periodSeconds, state.ready, state.beats};
    }

    void PlugCard(const UsbCard &card, bool ready) override { fake::Plug(DeviceOf(card), ready); }
    void MakeCardReady(const UsbCard &card) override { fake::MakeReady(DevpathOf(card)); }
    void UnplugCard(const UsbCard &card) override { fake::Unplug(DevpathOf(card)); }

    void ConnectGamepad(int vendorId, int productId, const std::string &name) override
    {
        fake::ConnectGamepad(fake::GamepadUid(vendorId, productId), name);
    }

    void DisconnectGamepad(int vendorId, int productId) override
    {
        fake::DisconnectGamepad(fake::GamepadUid(vendorId, productId));
    }

    void SetPowerState(int state) override { fake::SetPowerState(state); }
    void ChangePowerState(int state) override { fake::ChangePowerState(fake::PowerState(), state); }

    void UserPicksRoute(int route) override { fake::AnnounceRoute(route); }
    void UserPicksMultiviewRoute(int route, int zone) override { fake::AnnounceMultiviewRoute(route, zone); }

    void SetZones(const std::vector<int> &zoneIds) override { fake::SetZones(zoneIds); }

    void PressKey(const std::string &key, const std::string &deviceName) override { fake::PressKey(key, deviceName); }
    void ReleaseKey(const std::string &key, const std::string &deviceName) override
    {
        fake::ReleaseKey(key, deviceName);
    }
    std::optional<int> SpecialKeyMode(int window, const std::string &key) override
    {
        return fake::SpecialKeyMode(window, key);
    }

    std::vector<Popup> OnScreen() override
    {
        std::vector<Popup> popups;
        for (const fake::Notification &shown : fake::OnScreen())
            popups.push_back(Popup{static_cast<unsigned>(shown.id), shown.title, shown.content, shown.image,
                                   shown.layout, shown.displayApplist, shown.hideTimeoutSeconds, shown.autoRemove});
        return popups;
    }

    void CloseNotification(unsigned id, int eventType) override
    {
        fake::CloseNotification(static_cast<int>(id), eventType);
    }

private:
    size_t m_logStart = 0;
};

} // namespace

PlatformDriver &Driver()
{
    static FakeDriver driver;
    return driver;
}

} // namespace contract

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
