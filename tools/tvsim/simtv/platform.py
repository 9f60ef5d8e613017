"""The TV platform's services the service talks to, each a python-dbusmock template of
templates/: sound manager, audio control, device power, the audio server and the notification
service."""
import dbus

from .popups import Popups


class PlatformServices:
    """Starts the services through `spawn(template, parameters)` (returning a MockService)."""

    def __init__(self, spawn, route=7, power_state=0, cards=(), audio_server=True,
                 notifications=True, **pulse):
        self.sound = spawn('sound_manager', {'route': route})
        self.audio = spawn('audio_control', {})
        self.power = spawn('device_power', {'state': power_state})
        cards = dbus.Array([int(card) for card in cards], signature='i')
        self.pulse = spawn('pulse_audio', dict(pulse, cards=cards)) if audio_server else None
        self.notifications = spawn('notifications', {}) if notifications else None
        self.popups = Popups(self.notifications) if notifications else None

    def route(self):
        return int(self.sound.call('GetSpeakerSelection'))

    def user_sets_route(self, route):
        """The viewer picks another output on the TV."""
        self.sound.call('UserSetRoute', route)

    def change_power(self, state):
        self.power.call('ChangeState', state)

    def list_cards(self, *cards):
        """The audio server has opened these cards (from its next answer on)."""
        self.pulse.mock.SetCards(dbus.Array([int(card) for card in cards], signature='i'))

    def all(self):
        return [service for service in (self.sound, self.audio, self.power, self.pulse,
                                        self.notifications) if service]
