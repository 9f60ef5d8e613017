"""Debug commands: one extra-data key in a launch request to the running service drives one
operation, seen here through the platform's mocked services, the bus and an emulated card."""
import pytest

from simtv.alsa_card import EmulatedCard, Write, stereo_headset
from simtv.bus import HADRIX_BUS_NAME, launch

VOLUME_LEVEL = 'db/hadrix/volume_level'
USB_HEADSET_ROUTE = 15
OUTPUT_GAIN_TYPE = 3


class Service:
    """The running service with the platform's services up."""

    def __init__(self, platform_services, daemon, system_bus):
        self.services = platform_services(cards=[0])
        self.hadrix = start_initialised(daemon)
        self.bus = system_bus.connect()

    def send(self, *pairs):
        """Launches the service with these extra-data pairs (key, value, key, value ...);
        returns the log mark from before, once the request has reached the service."""
        mark = self.hadrix.log.mark()
        extra = list(zip(pairs[::2], pairs[1::2]))
        launch(self.bus, HADRIX_BUS_NAME, 'default', extra)
        self.hadrix.wait_for_log('service_app_control', since=mark)
        return mark

    def wait_for(self, pattern, since, timeout=5.0):
        return self.hadrix.wait_for_log(pattern, since=since, timeout=timeout)

    def new_card_writes(self):
        """The emulated card's writes since the test's own requests began."""
        return self.card.writes[self.writes_before:]

    def messages(self, since):
        return [record.message for record in self.hadrix.log.records(since)]


def start_initialised(daemon):
    """Starts the service and waits for its device initialisation (which sets the USB output
    gain), so that what a test then sees the platform receive comes from its own request."""
    hadrix = daemon.start()
    hadrix.wait_for_log('m_DeviceInit out', timeout=10)
    return hadrix


@pytest.fixture
def service(platform_services, daemon, system_bus, kernel_log):
    # A kernel log of a normal boot: a card plugged later is analysed at once.
    kernel_log.boot()
    return Service(platform_services, daemon, system_bus)


def test_every_request_first_asks_the_audio_server(service):
    pulse = service.services.pulse
    pulse.clear_calls()

    service.send('no_such_key', 'x')

    assert pulse.wait_for_calls('GetConnectedUsbHeadset') == [('GetConnectedUsbHeadset', [])]


@pytest.mark.parametrize('value, method, args', [
    ('setUsbOutGain', 'SetUsbOutGain', [20]),
    ('setUsbOutDelays', 'SetUsbOutDelay', [100]),
    ('setUsbOutMuteOn', 'SetUsbOutMute', [True]),
    ('setUsbOutMuteOff', 'SetUsbOutMute', [False]),
    ('setUsbOutGain=99', 'SetUsbOutGain', [20]),
])
def test_audio_control_sets_use_fixed_values(service, value, method, args):
    audio = service.services.audio
    audio.clear_calls()

    mark = service.send('audio_control', value)

    assert audio.wait_for_calls(method) == [(method, args)]
    service.wait_for(f'value: {value}', since=mark)
    service.wait_for('ret : 1', since=mark)


@pytest.mark.parametrize('value, logged', [
    ('getUsbOutGain', 'ret : 1, gain : 20'),
    ('getUsbOutDelay', 'ret : 1, delay : 100'),
    ('getUsbOutMute', 'ret : 1, bMute : 1'),
])
def test_audio_control_gets_log_what_the_library_reports(platform_services, daemon, system_bus,
                                                          value, logged):
    services = platform_services()
    hadrix = start_initialised(daemon)
    services.audio.obj.SetUsbOutGain(20, dbus_interface=services.audio.interface)
    services.audio.obj.SetUsbOutDelay(100, dbus_interface=services.audio.interface)
    services.audio.obj.SetUsbOutMute(True, dbus_interface=services.audio.interface)

    mark = hadrix.log.mark()
    launch(system_bus.connect(), HADRIX_BUS_NAME, 'default', [('audio_control', value)])

    hadrix.wait_for_log(logged, since=mark)


@pytest.mark.parametrize('value, method, args', [
    ('SetSpeaker', 'SetSpeakerSelection', [USB_HEADSET_ROUTE]),
    ('SetMute', 'SetMuteGain', [OUTPUT_GAIN_TYPE, 100]),
    ('UnmuteFadeIn', 'ApplyUnmuteFadeIn', [OUTPUT_GAIN_TYPE]),
])
def test_sound_manager_commands(service, value, method, args):
    sound = service.services.sound
    sound.clear_calls()

    service.send('soundManager', value)

    assert sound.wait_for_calls(method) == [(method, args)]


def test_sound_manager_unregister_then_register(service):
    mark = service.send('soundManager', 'Unregister')
    service.wait_for('ReleaseInstance', since=mark)

    mark = service.send('soundManager', 'Register')
    service.wait_for('GetInstance 333', since=mark)
    service.services.sound.clear_calls()

    service.send('soundManager', 'SetSpeaker')
    service.services.sound.wait_for_calls('SetSpeakerSelection')
    assert service.hadrix.running()


def test_speaker_manager_is_told_the_device_is_gone(service, bus_signals):
    service.send('speakerManager', 'anything')

    assert bus_signals.wait_for('SpkDisconnected')[0].args == (USB_HEADSET_ROUTE, 'HADRIX_DEVICE')


@pytest.mark.parametrize('value, member', [('off', 'Stop'), ('on', 'Start'), ('onward', 'Start')])
def test_pulse_tells_the_audio_server_about_card_0(service, bus_signals, value, member):
    service.send('pulse', value)

    assert bus_signals.wait_for(member, timeout=10)[0].args == (0,)


@pytest.mark.parametrize('value, change', [('volumeUp', 1), ('volumeDown', -1)])
def test_local_file_data_steps_the_stored_volume(platform_services, daemon, system_bus,
                                                 hadrix_root, value, change):
    hadrix_root.set_setting(VOLUME_LEVEL, 10, 'int')
    service = Service(platform_services, daemon, system_bus)

    service.send('localFileData', value)

    service.hadrix.wait_until(
        lambda: hadrix_root.get_setting(VOLUME_LEVEL) == ('int', str(10 + change)),
        what=f'volume level {10 + change}')


def test_first_key_in_the_fixed_order_wins(service, bus_signals):
    audio = service.services.audio
    sound = service.services.sound
    audio.clear_calls()
    sound.clear_calls()

    # Sent in the reverse of the order the keys are looked for.
    mark = service.send('soundManager', 'SetSpeaker', 'audio_control', 'setUsbOutGain',
                        'pulse', 'off')

    bus_signals.wait_for('Stop')
    values = [m for m in service.messages(mark) if m.startswith('value: ')]
    assert values == ['value: off']
    assert audio.calls('SetUsbOutGain') == []
    assert sound.calls('SetSpeakerSelection') == []


@pytest.mark.parametrize('key, value', [
    ('audio_control', 'setUsbOut'),
    ('audio_control', 'SETUSBOUTGAIN'),
    ('soundManager', 'Set'),
    ('pulse', 'o'),
    ('localFileData', ''),
    ('setMaxVolume', 'abc'),
    ('setMaxVolume', '0'),
    ('setMaxVolume', '-4'),
])
def test_unknown_sub_command_does_nothing(service, bus_signals, key, value):
    audio = service.services.audio
    sound = service.services.sound
    audio.clear_calls()
    sound.clear_calls()

    mark = service.send(key, value)

    service.wait_for(f'value: {value}', since=mark)
    # A request sent after it is handled, so anything the first did would be done by now.
    after = service.send('audio_control', 'getUsbOutDelay')
    service.wait_for('ret : 1, delay : ', since=after)
    assert [name for name, _ in audio.calls() if name.startswith('Set')] == []
    assert sound.calls() == []
    assert bus_signals.signals() == []
    assert not [m for m in service.messages(mark) if m.startswith('ret : ') and 'delay' not in m]
    assert service.hadrix.running()


CARD = 2


@pytest.fixture
def card_service(testbed, service):
    """The running service (started after the testbed, so that it sees it) and, plugged after
    it started, an emulated stereo headset on card 2 whose writes the test reads."""
    mark = service.hadrix.log.mark()
    card = EmulatedCard(CARD, stereo_headset())
    headset = testbed.add_headset(card=CARD, port='1-2')
    testbed.attach_ioctl(headset.control, card)
    # The service sets a new card's mixer to its maximum: the test looks at what follows.
    service.wait_for('Ondetect info end', since=mark, timeout=10)
    service.card = card
    service.writes_before = len(card.writes)
    return service


def test_cset_writes_one_control(card_service):
    card = card_service.card

    mark = card_service.send('cset', f"{CARD} name='PCM Playback Volume' 10,12")

    card_service.wait_for("cset card : 2, control : name='PCM Playback Volume', value : 10,12, "
                          'ret : 1', since=mark)
    assert Write('PCM Playback Volume', (10, 12)) in card.accepted_writes()
    assert card.writes_to('Mic Capture Volume') == []


def test_cset_by_numid_and_percentage(card_service):
    card = card_service.card
    numid = 1 + [c.name for c in card.controls].index('Sidetone Volume')

    mark = card_service.send('cset', f'{CARD} numid={numid} 100%')

    card_service.wait_for('ret : 1', since=mark)
    assert card.writes_to('Sidetone Volume') == [Write('Sidetone Volume', (15,))]


def test_cget_logs_the_values(card_service):
    mark = card_service.send('cget', f"{CARD} name='Mic Capture Volume'")

    card_service.wait_for("cget card : 2, control : name='Mic Capture Volume', ret : 1, "
                          'values : 16', since=mark)
    assert card_service.new_card_writes() == []


@pytest.mark.parametrize('key, value, reason', [
    ('cset', f"{CARD} name='PCM Playback Volume'", 'no value'),
    ('cset', "x name='PCM Playback Volume' 10", 'is not a number'),
    ('cset', f"{CARD} name='PCM Playback Volume 10", 'unterminated quote'),
    ('cget', '', 'no card number'),
    ('cget', f'{CARD}', 'no control identifier'),
    ('cget', f'{CARD} numid=2 extra', 'unexpected text'),
    ('cset', '99 numid=2 1', 'from 0 to 31'),
])
def test_malformed_mixer_commands_are_refused(card_service, key, value, reason):
    mark = card_service.send(key, value)

    refusal = card_service.wait_for(lambda r: f'{key} refused' in r.message, since=mark)
    assert reason in refusal.message
    assert refusal.prio == 'E'
    assert card_service.new_card_writes() == []
    assert card_service.hadrix.running()


def test_mixer_command_on_a_missing_control_fails(card_service):
    mark = card_service.send('cset', f"{CARD} name='No Such Volume' 3")

    card_service.wait_for('ret : 0', since=mark)
    assert card_service.new_card_writes() == []


def test_set_max_volume_maximises_the_card(card_service):
    card = card_service.card
    # The service maximised the card when it was plugged: turn it down first.
    lowered = card_service.send('cset', f"{CARD} name='PCM Playback Volume' 30,30")
    card_service.wait_for('ret : 1', since=lowered)

    mark = card_service.send('setMaxVolume', str(CARD))

    done = card_service.wait_for('ret : 0', since=mark)
    handled = card_service.messages(mark)
    handled = handled[:handled.index(done.message) + 1]
    assert 'm_ControlsSet, card : [hw:2], cId: [numid=2], value: [127]' in handled
    assert card_service.new_card_writes()[-1] == Write('PCM Playback Volume', (127, 127))
    assert card.values('PCM Playback Volume') == [127, 127]
    assert card.writes_to('Mic Capture Volume') == []
