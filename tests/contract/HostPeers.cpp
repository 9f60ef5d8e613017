#include "HostPeers.h"

#include <algorithm>

namespace contract {

namespace {

using hadrix::test::Hold;
using hadrix::test::MockService;
using hadrix::test::VariantRef;
using Reply = MockService::Reply;

constexpr const char *kSoundManagerXml = R"(<node><interface name='org.nimbos.SoundManager'>
  <method name='GetSpeakerSelection'><arg type='i' direction='out'/></method>
  <method name='SetSpeakerSelection'><arg type='i' direction='in'/></method>
  <method name='SetMuteGain'><arg type='i' direction='in'/><arg type='i' direction='in'/></method>
  <method name='ApplyUnmuteFadeIn'><arg type='i' direction='in'/></method>
  <method name='GetMultiviewSpeakerSelection'><arg type='i' direction='in'/><arg type='i' direction='out'/></method>
  <method name='SetMultiviewSpeakerSelection'><arg type='i' direction='in'/><arg type='i' direction='in'/></method>
  <signal name='SpeakerChanged'><arg type='i'/></signal>
  <signal name='MultiviewSpeakerChanged'><arg type='i'/><arg type='i'/></signal>
</interface></node>)";

constexpr const char *kAudioControlXml = R"(<node><interface name='org.nimbos.AudioControl'>
  <method name='GetUsbOutMute'><arg type='b' direction='out'/></method>
  <method name='SetUsbOutMute'><arg type='b' direction='in'/></method>
  <method name='GetUsbOutGain'><arg type='u' direction='out'/></method>
  <method name='SetUsbOutGain'><arg type='u' direction='in'/></method>
  <method name='GetUsbOutDelay'><arg type='u' direction='out'/></method>
  <method name='SetUsbOutDelay'><arg type='u' direction='in'/></method>
</interface></node>)";

constexpr const char *kDevicePowerXml = R"(<node><interface name='org.nimbos.DevicePower'>
  <method name='GetState'><arg type='i' direction='out'/></method>
  <signal name='StateChanged'><arg type='i'/><arg type='i'/></signal>
</interface></node>)";

constexpr const char *kResourceCenterXml = R"(<node><interface name='org.nimbos.ResourceCenter'>
  <method name='GetZones'><arg type='i' direction='in'/><arg type='ai' direction='out'/></method>
</interface></node>)";

constexpr const char *kKeyRouterXml = R"(<node><interface name='org.nimbos.KeyRouter'>
  <method name='ResetKeyGrabConfig'><arg type='i' direction='in'/></method>
  <method name='AddKey'><arg type='i' direction='in'/><arg type='s' direction='in'/><arg type='i' direction='in'/></method>
  <method name='SetGrabbedKeys'><arg type='i' direction='in'/></method>
  <method name='UnsetGrabbedKeys'><arg type='i' direction='in'/></method>
  <method name='SetSpecialKeyMode'><arg type='i' direction='in'/><arg type='i' direction='in'/><arg type='s' direction='in'/></method>
  <signal name='KeyDown'><arg type='s'/><arg type='s'/></signal>
  <signal name='KeyUp'><arg type='s'/><arg type='s'/></signal>
</interface></node>)";

constexpr const char *kNotificationsXml = R"(<node><interface name='org.freedesktop.Notifications'>
  <method name='Notify'>
    <arg type='s' direction='in'/><arg type='u' direction='in'/><arg type='s' direction='in'/>
    <arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='as' direction='in'/>
    <arg type='a{sv}' direction='in'/><arg type='i' direction='in'/><arg type='u' direction='out'/>
  </method>
  <method name='CloseNotification'><arg type='u' direction='in'/></method>
  <signal name='NotificationClosed'><arg type='u'/><arg type='u'/></signal>
</interface></node>)";

constexpr const char *kAppControlXml = R"(<node><interface name='org.nimbos.AppControl'>
  <method name='Launch'><arg type='s' direction='in'/><arg type='a(ss)' direction='in'/></method>
</interface></node>)";

constexpr int kDefaultRoute = 7;
// The freedesktop reason of NotificationClosed for a notification closed by CloseNotification.
// The other reasons number the events as notification.h does.
constexpr guint32 kClosedByCall = 3;

constexpr Service kServices[] = {Service::SoundManager,   Service::AudioControl, Service::DevicePower,
                                 Service::ResourceCenter, Service::KeyRouter,    Service::Notifications};

std::string BusNameOf(Service service)
{
    switch (service) {
    case Service::SoundManager: return "org.nimbos.SoundManager";
    case Service::AudioControl: return "org.nimbos.AudioControl";
    case Service::DevicePower: return "org.nimbos.DevicePower";
    case Service::ResourceCenter: return "org.nimbos.ResourceCenter";
    case Service::KeyRouter: return "org.nimbos.KeyRouter";
    case Service::Notifications: return "org.freedesktop.Notifications";
    }
    return "";
}

const char *XmlOf(Service service)
{
    switch (service) {
    case Service::SoundManager: return kSoundManagerXml;
    case Service::AudioControl: return kAudioControlXml;
    case Service::DevicePower: return kDevicePowerXml;
    case Service::ResourceCenter: return kResourceCenterXml;
    case Service::KeyRouter: return kKeyRouterXml;
    case Service::Notifications: return kNotificationsXml;
    }
    return "";
}

std::string ObjectPathOf(const std::string &busName)
{
    std::string path = "/" + busName;
    std::replace(path.begin(), path.end(), '.', '/');
    return path;
}

// "(3, 40)" for the tuple (3, 40), "(1)" for (1,).
std::string ArgumentText(GVariant *tuple)
{
    std::string text;
    for (gsize i = 0; tuple && i < g_variant_n_children(tuple); ++i) {
        g_autoptr(GVariant) child = g_variant_get_child_value(tuple, i);
        g_autofree gchar *printed = g_variant_print(child, FALSE);
        text += (i ? ", " : "") + std::string(printed);
    }
    return "(" + text + ")";
}

gint32 IntArgument(GVariant *arguments, gsize index)
{
    gint32 value = 0;
    g_variant_get_child(arguments, index, "i", &value);
    return value;
}

std::string TextArgument(GVariant *arguments, gsize index)
{
    const char *text = nullptr;
    g_variant_get_child(arguments, index, "&s", &text);
    return text;
}

// A Notify call as the notification service shows it.
Popup PopupOf(GVariant *arguments, guint32 id)
{
    Popup popup;
    popup.id = id;
    popup.title = TextArgument(arguments, 3);
    popup.content = TextArgument(arguments, 4);
    g_autoptr(GVariant) hints = g_variant_get_child_value(arguments, 6);
    const char *image = nullptr;
    gint32 number = 0;
    gboolean flag = FALSE;
    if (g_variant_lookup(hints, "image-path", "&s", &image))
        popup.image = image;
    if (g_variant_lookup(hints, "x-nimbos-layout", "i", &number))
        popup.layout = number;
    if (g_variant_lookup(hints, "x-nimbos-display-applist", "i", &number))
        popup.displayApplist = number;
    if (g_variant_lookup(hints, "resident", "b", &flag))
        popup.autoRemove = !flag;
    const gint32 expireMs = IntArgument(arguments, 7);
    if (expireMs >= 0)
        popup.hideTimeoutSeconds = expireMs / 1000;
    return popup;
}

Launch LaunchOf(const std::string &appId, GVariant *arguments)
{
    const char *operation = nullptr;
    g_autoptr(GVariantIter) extra = nullptr;
    g_variant_get(arguments, "(&sa(ss))", &operation, &extra);
    Launch launch{appId, operation, {}};
    const char *key = nullptr;
    const char *value = nullptr;
    while (g_variant_iter_next(extra, "(&s&s)", &key, &value))
        launch.extraData.emplace_back(key, value);
    return launch;
}

} // namespace

void HostPeers::Reset()
{
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_world = World();
    }
    m_apps.clear();
    for (Service service : kServices) {
        SetAvailability(service, Availability::Running);
        m_services[service]->ClearCalls();
    }
}

void HostPeers::Close()
{
    m_apps.clear();
    m_services.clear();
}

void HostPeers::SetAvailability(Service service, Availability availability)
{
    std::unique_ptr<MockService> &mock = m_services[service];
    if (availability == Availability::Missing) {
        mock.reset();
        return;
    }
    if (!mock)
        mock = Start(service);
    mock->SetSilent(availability == Availability::Silent);
}

std::vector<std::string> HostPeers::Requests(Service service)
{
    static const std::set<std::string> requests = {"SetMuteGain", "ApplyUnmuteFadeIn", "GetZones"};
    std::vector<std::string> asked;
    if (m_services[service])
        for (const MockService::Call &call : m_services[service]->Calls())
            if (requests.count(call.method))
                asked.push_back(call.method + ArgumentText(call.arguments.get()));
    return asked;
}

void HostPeers::SetApp(const std::string &appId, Availability availability)
{
    std::unique_ptr<MockService> &app = m_apps[appId];
    app.reset();
    if (availability == Availability::Missing)
        return;
    app = std::make_unique<MockService>(appId, "/org/nimbos/AppControl", kAppControlXml);
    app->SetSilent(availability == Availability::Silent);
    app->Handle("Launch", Answer([appId](World &world, GVariant *arguments) {
        world.launches.push_back(LaunchOf(appId, arguments));
        return Reply::Value(nullptr);
    }));
}

std::vector<Launch> HostPeers::Launches()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_world.launches;
}

void HostPeers::SetPowerState(int state)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_world.powerState = state;
}

void HostPeers::ChangePowerState(int state)
{
    int previous = 0;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        previous = m_world.powerState;
        m_world.powerState = state;
    }
    Emit(Service::DevicePower, "StateChanged", g_variant_new("(ii)", previous, state));
}

void HostPeers::UserPicksRoute(int route)
{
    if (SelectRoute(route))
        Emit(Service::SoundManager, "SpeakerChanged", g_variant_new("(i)", route));
}

void HostPeers::UserPicksMultiviewRoute(int route, int zone)
{
    if (SelectZoneRoute(route, zone))
        Emit(Service::SoundManager, "MultiviewSpeakerChanged", g_variant_new("(ii)", route, zone));
}

void HostPeers::SetZones(const std::vector<int> &zoneIds)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_world.zones = zoneIds;
}

void HostPeers::SendKey(const char *signal, const std::string &key, const std::string &deviceName)
{
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (std::none_of(m_world.grabbed.begin(), m_world.grabbed.end(),
                         [&key](const auto &window) { return window.second.count(key) > 0; }))
            return;
    }
    Emit(Service::KeyRouter, signal, g_variant_new("(ss)", key.c_str(), deviceName.c_str()));
}

std::optional<int> HostPeers::SpecialKeyMode(int window, const std::string &key)
{
    std::lock_guard<std::mutex> lock(m_lock);
    auto found = m_world.special.find({window, key});
    return found == m_world.special.end() ? std::nullopt : std::optional<int>(found->second);
}

std::vector<Popup> HostPeers::OnScreen()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_world.onScreen;
}

void HostPeers::CloseNotification(unsigned id, int eventType)
{
    if (TakeDown(id))
        Emit(Service::Notifications, "NotificationClosed", g_variant_new("(uu)", id, guint32(eventType)));
}

std::unique_ptr<MockService> HostPeers::Start(Service service)
{
    const std::string name = BusNameOf(service);
    auto mock = std::make_unique<MockService>(name, ObjectPathOf(name), XmlOf(service));
    switch (service) {
    case Service::SoundManager: ServeSoundManager(*mock); break;
    case Service::AudioControl: ServeAudioControl(*mock); break;
    case Service::DevicePower: ServeDevicePower(*mock); break;
    case Service::ResourceCenter: ServeResourceCenter(*mock); break;
    case Service::KeyRouter: ServeKeyRouter(*mock); break;
    case Service::Notifications: ServeNotifications(*mock); break;
    }
    return mock;
}

// A handler that builds its reply under the lock.
template <typename Build>
HostPeers::Handler HostPeers::Answer(Build build)
{
    return [this, build](GVariant *arguments) {
        std::lock_guard<std::mutex> lock(m_lock);
        return build(m_world, arguments);
    };
}

void HostPeers::ServeSoundManager(MockService &mock)
{
    mock.Handle("GetSpeakerSelection", Answer([](World &world, GVariant *) {
        return Reply::Value(g_variant_new("(i)", world.route));
    }));
    // A change of route is announced, as the sound manager does.
    mock.Handle("SetSpeakerSelection", [this, &mock](GVariant *arguments) {
        const gint32 route = IntArgument(arguments, 0);
        if (SelectRoute(route))
            mock.Emit(BusNameOf(Service::SoundManager), "SpeakerChanged", g_variant_new("(i)", route));
        return Reply::Value(nullptr);
    });
    mock.Handle("GetMultiviewSpeakerSelection", Answer([](World &world, GVariant *arguments) {
        auto found = world.zoneRoutes.find(IntArgument(arguments, 0));
        return Reply::Value(g_variant_new("(i)", found == world.zoneRoutes.end() ? kDefaultRoute : found->second));
    }));
    mock.Handle("SetMultiviewSpeakerSelection", [this, &mock](GVariant *arguments) {
        const gint32 route = IntArgument(arguments, 0), zone = IntArgument(arguments, 1);
        if (SelectZoneRoute(route, zone))
            mock.Emit(BusNameOf(Service::SoundManager), "MultiviewSpeakerChanged", g_variant_new("(ii)", route, zone));
        return Reply::Value(nullptr);
    });
}

void HostPeers::ServeAudioControl(MockService &mock)
{
    mock.Handle("GetUsbOutMute", Answer([](World &world, GVariant *) {
        return Reply::Value(g_variant_new("(b)", world.mute));
    }));
    mock.Handle("SetUsbOutMute", Answer([](World &world, GVariant *arguments) {
        gboolean mute = FALSE;
        g_variant_get(arguments, "(b)", &mute);
        world.mute = mute;
        return Reply::Value(nullptr);
    }));
    for (auto [name, field] : {std::make_pair("Gain", &World::gain), std::make_pair("Delay", &World::delay)}) {
        mock.Handle(std::string("GetUsbOut") + name, Answer([field = field](World &world, GVariant *) {
            return Reply::Value(g_variant_new("(u)", world.*field));
        }));
        mock.Handle(std::string("SetUsbOut") + name, Answer([field = field](World &world, GVariant *arguments) {
            g_variant_get(arguments, "(u)", &(world.*field));
            return Reply::Value(nullptr);
        }));
    }
}

void HostPeers::ServeDevicePower(MockService &mock)
{
    mock.Handle("GetState", Answer([](World &world, GVariant *) {
        return Reply::Value(g_variant_new("(i)", world.powerState));
    }));
}

void HostPeers::ServeResourceCenter(MockService &mock)
{
    mock.Handle("GetZones", Answer([](World &world, GVariant *) {
        return Reply::Value(g_variant_new("(@ai)", g_variant_new_fixed_array(G_VARIANT_TYPE_INT32, world.zones.data(),
                                                                           world.zones.size(), sizeof(gint32))));
    }));
}

void HostPeers::ServeKeyRouter(MockService &mock)
{
    mock.Handle("ResetKeyGrabConfig", Answer([](World &world, GVariant *arguments) {
        world.staged[IntArgument(arguments, 0)].clear();
        return Reply::Value(nullptr);
    }));
    mock.Handle("AddKey", Answer([](World &world, GVariant *arguments) {
        world.staged[IntArgument(arguments, 0)].insert(TextArgument(arguments, 1));
        return Reply::Value(nullptr);
    }));
    mock.Handle("SetGrabbedKeys", Answer([](World &world, GVariant *arguments) {
        const int window = IntArgument(arguments, 0);
        world.grabbed[window] = world.staged[window];
        return Reply::Value(nullptr);
    }));
    mock.Handle("UnsetGrabbedKeys", Answer([](World &world, GVariant *arguments) {
        const int window = IntArgument(arguments, 0);
        for (const std::string &key : world.staged[window])
            world.grabbed[window].erase(key);
        return Reply::Value(nullptr);
    }));
    mock.Handle("SetSpecialKeyMode", Answer([](World &world, GVariant *arguments) {
        world.special[{IntArgument(arguments, 0), TextArgument(arguments, 2)}] = IntArgument(arguments, 1);
        return Reply::Value(nullptr);
    }));
}

void HostPeers::ServeNotifications(MockService &mock)
{
    // A Notify whose replaces_id is on screen updates that notification and keeps its id.
    mock.Handle("Notify", Answer([](World &world, GVariant *arguments) {
        guint32 replaces = 0;
        g_variant_get_child(arguments, 1, "u", &replaces);
        auto current = std::find_if(world.onScreen.begin(), world.onScreen.end(),
                                    [replaces](const Popup &popup) { return popup.id == replaces; });
        if (current != world.onScreen.end()) {
            *current = PopupOf(arguments, replaces);
            return Reply::Value(g_variant_new("(u)", replaces));
        }
        world.onScreen.push_back(PopupOf(arguments, world.nextNotification++));
        return Reply::Value(g_variant_new("(u)", world.onScreen.back().id));
    }));
    mock.Handle("CloseNotification", [this, &mock](GVariant *arguments) {
        guint32 id = 0;
        g_variant_get(arguments, "(u)", &id);
        if (TakeDown(id))
            mock.Emit(BusNameOf(Service::Notifications), "NotificationClosed", g_variant_new("(uu)", id, kClosedByCall));
        return Reply::Value(nullptr);
    });
}

bool HostPeers::SelectRoute(int route)
{
    std::lock_guard<std::mutex> lock(m_lock);
    const bool changed = m_world.route != route;
    m_world.route = route;
    return changed;
}

bool HostPeers::SelectZoneRoute(int route, int zone)
{
    std::lock_guard<std::mutex> lock(m_lock);
    auto found = m_world.zoneRoutes.find(zone);
    const bool changed = (found == m_world.zoneRoutes.end() ? kDefaultRoute : found->second) != route;
    m_world.zoneRoutes[zone] = route;
    return changed;
}

bool HostPeers::TakeDown(guint32 id)
{
    std::lock_guard<std::mutex> lock(m_lock);
    auto shown = std::find_if(m_world.onScreen.begin(), m_world.onScreen.end(),
                              [id](const Popup &popup) { return popup.id == id; });
    if (shown == m_world.onScreen.end())
        return false;
    m_world.onScreen.erase(shown);
    return true;
}

void HostPeers::Emit(Service service, const char *signal, GVariant *arguments)
{
    VariantRef held = Hold(arguments);
    if (m_services[service])
        m_services[service]->Emit(BusNameOf(service), signal, held.get());
}

} // namespace contract
