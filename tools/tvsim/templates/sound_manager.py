'''The sound manager: the TV's output route (also per multiview zone), mute gain and unmute
fade-in, on org.nimbos.SoundManager at /org/nimbos/SoundManager.

SetSpeakerSelection and SetMultiviewSpeakerSelection store the route and announce a change with
SpeakerChanged(i route) / MultiviewSpeakerChanged(i route, i zone). SetMuteGain and
ApplyUnmuteFadeIn only end in the call log (GetCalls), as every call does.

It also plays the speaker manager's part in the TV's sound stack: told that the USB sound device
is gone (the broadcast SpkDisconnected(15, "HADRIX_DEVICE") on /Org/Nimbos/SpeakerManager), it
takes the TV sound off the USB headset, back to the TV speakers (route 7).

Parameters:
  route    the TV's output route at start; default 7.
  failing  every sound-manager method fails with org.nimbos.SoundManager.Error.Failed;
           default False.

Mock-only methods (not the sound manager's):
  UserSetRoute(i route)   the user picks a route on the TV: stored, SpeakerChanged on a change.
  UserSetMultiviewRoute(i route, i zone)   the user picks a zone's route: stored,
                          MultiviewSpeakerChanged on a change.
  SetFailing(b failing)   switches the failing mode.
'''
import dbus

BUS_NAME = 'org.nimbos.SoundManager'
MAIN_OBJ = '/org/nimbos/SoundManager'
MAIN_IFACE = 'org.nimbos.SoundManager'
SYSTEM_BUS = True

FAILED = 'org.nimbos.SoundManager.Error.Failed'
# The route of a zone nobody has set, and the TV's own speakers.
DEFAULT_ROUTE = 7
TV_SPEAKERS = 7
USB_HEADSET = 15
SPEAKER_MANAGER_PATH = '/Org/Nimbos/SpeakerManager'
SPEAKER_MANAGER_IFACE = 'org.nimbos.speakermanager'


def load(mock, parameters):
    mock.route = int(parameters.get('route', DEFAULT_ROUTE))
    mock.zone_routes = {}
    mock.failing = bool(parameters.get('failing', False))

    def usb_sound_device_gone(speaker_type, _name):
        if int(speaker_type) == USB_HEADSET and mock.route == USB_HEADSET:
            _select(mock, TV_SPEAKERS)

    # Reset (org.freedesktop.DBus.Mock) runs load again: one receiver, not one per load.
    if getattr(mock, 'speaker_manager_match', None):
        mock.speaker_manager_match.remove()
    mock.speaker_manager_match = mock.bus_name.get_bus().add_signal_receiver(
        usb_sound_device_gone, signal_name='SpkDisconnected', dbus_interface=SPEAKER_MANAGER_IFACE,
        path=SPEAKER_MANAGER_PATH)


def _check(mock):
    if mock.failing:
        raise dbus.exceptions.DBusException('the sound manager failed', name=FAILED)


def _select(mock, route):
    changed = route != mock.route
    mock.route = route
    if changed:
        mock.EmitSignal(MAIN_IFACE, 'SpeakerChanged', 'i', [route])


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='i')
def GetSpeakerSelection(self):
    _check(self)
    return self.route


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='')
def SetSpeakerSelection(self, route):
    _check(self)
    _select(self, route)


@dbus.service.method(MAIN_IFACE, in_signature='ii', out_signature='')
def SetMuteGain(self, gain_type, gain):
    _check(self)


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='')
def ApplyUnmuteFadeIn(self, gain_type):
    _check(self)


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='i')
def GetMultiviewSpeakerSelection(self, zone):
    _check(self)
    return self.zone_routes.get(zone, DEFAULT_ROUTE)


@dbus.service.method(MAIN_IFACE, in_signature='ii', out_signature='')
def SetMultiviewSpeakerSelection(self, route, zone):
    _check(self)
    _select_zone(self, route, zone)


def _select_zone(mock, route, zone):
    changed = mock.zone_routes.get(zone, DEFAULT_ROUTE) != route
    mock.zone_routes[zone] = route
    if changed:
        mock.EmitSignal(MAIN_IFACE, 'MultiviewSpeakerChanged', 'ii', [route, zone])


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='')
def UserSetRoute(self, route):
    _select(self, route)


@dbus.service.method(MAIN_IFACE, in_signature='ii', out_signature='')
def UserSetMultiviewRoute(self, route, zone):
    _select_zone(self, route, zone)


@dbus.service.method(MAIN_IFACE, in_signature='b', out_signature='')
def SetFailing(self, failing):
    self.failing = bool(failing)
