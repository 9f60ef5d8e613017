"""Debug commands: one extra-data key in a launch request to the running service drives one
operation, seen here through the platform's mocked services and the bus. The mixer commands
("cset", "cget", "setMaxVolume") are proven in-process against emulated cards
(tests/unit/device/test_usb_mixer.cpp)."""
import pytest

from conftest import LEVEL_KEY, USB_HEADSET_ROUTE
from simtv.bus import HADRIX_BUS_NAME, launch

OUTPUT_GAIN_TYPE = 3


@pytest.fixture
def service(tv):
    """The service once its device initialisation (which sets the USB output gain) is done, so
    that what the platform then receives comes from the test's requests."""
    tv.start('m_DeviceInit out', cards=[0])
    tv.connection = tv.bus.connect()
    return tv


def send(tv, *pairs):
    """Launches the service with these extra-data pairs (key, value, key, value ...); returns
    the log mark from before, once the request has reached the service."""
    mark = tv.daemon.log.mark()
    launch(tv.connection, HADRIX_BUS_NAME, 'default', list(zip(pairs[::2], pairs[1::2])))
    tv.daemon.wait_for_log('service_app_control', since=mark)
    return mark


def messages(tv, since):
    return [record.message for record in tv.daemon.log.records(since)]


def test_audio_control_sets_fixed_values_and_gets_log_what_the_library_reports(service):
    audio = service.services.audio
    for value, method, args in [('setUsbOutGain', 'SetUsbOutGain', [20]),
                                ('setUsbOutDelays', 'SetUsbOutDelay', [100]),
                                ('setUsbOutMuteOn', 'SetUsbOutMute', [True]),
                                ('setUsbOutMuteOff', 'SetUsbOutMute', [False]),
                                ('setUsbOutGain=99', 'SetUsbOutGain', [20])]:
        audio.clear_calls()
        mark = send(service, 'audio_control', value)
        assert audio.wait_for_calls(method) == [(method, args)], value
        service.daemon.wait_for_log(f'value: {value}', since=mark)
        service.daemon.wait_for_log('ret : 1', since=mark)
    for method, set_to in [('SetUsbOutGain', 33), ('SetUsbOutDelay', 70), ('SetUsbOutMute', True)]:
        getattr(audio.obj, method)(set_to, dbus_interface=audio.interface)
    for value, logged in [('getUsbOutGain', 'ret : 1, gain : 33'),
                          ('getUsbOutDelay', 'ret : 1, delay : 70'),
                          ('getUsbOutMute', 'ret : 1, bMute : 1')]:
        service.daemon.wait_for_log(logged, since=send(service, 'audio_control', value))


def test_sound_manager_commands_and_its_unregister_then_register(service):
    sound = service.services.sound
    for value, method, args in [('SetSpeaker', 'SetSpeakerSelection', [USB_HEADSET_ROUTE]),
                                ('SetMute', 'SetMuteGain', [OUTPUT_GAIN_TYPE, 100]),
                                ('UnmuteFadeIn', 'ApplyUnmuteFadeIn', [OUTPUT_GAIN_TYPE])]:
        sound.clear_calls()
        send(service, 'soundManager', value)
        assert sound.wait_for_calls(method) == [(method, args)], value
    service.daemon.wait_for_log('ReleaseInstance', since=send(service, 'soundManager', 'Unregister'))
    service.daemon.wait_for_log('GetInstance 333', since=send(service, 'soundManager', 'Register'))
    sound.clear_calls()
    send(service, 'soundManager', 'SetSpeaker')
    sound.wait_for_calls('SetSpeakerSelection')


def test_pulse_and_speaker_manager_signal_the_audio_server_and_the_speaker_manager(service):
    signals = service.signals
    for value, member, count in [('off', 'Stop', 1), ('on', 'Start', 1), ('onward', 'Start', 2)]:
        send(service, 'pulse', value)
        assert signals.wait_for(member, count, timeout=10)[count - 1].args == (0,), value
    send(service, 'speakerManager', 'anything')
    assert signals.wait_for('SpkDisconnected')[0].args == (USB_HEADSET_ROUTE, 'HADRIX_DEVICE')


def test_local_file_data_steps_the_stored_volume(tv):
    tv.root.set_setting(LEVEL_KEY, 10, 'int')
    tv.start('m_DeviceInit out', cards=[0])
    tv.connection = tv.bus.connect()
    for value, level in [('volumeUp', '11'), ('volumeDown', '10')]:
        send(tv, 'localFileData', value)
        tv.daemon.wait_until(lambda: tv.root.get_setting(LEVEL_KEY) == ('int', level),
                             what=f'volume level {level}')


def test_first_key_in_the_fixed_order_wins(service):
    service.services.audio.clear_calls()
    service.services.sound.clear_calls()
    # Sent in the reverse of the order the keys are looked for.
    mark = send(service, 'soundManager', 'SetSpeaker', 'audio_control', 'setUsbOutGain',
                'pulse', 'off')
    service.signals.wait_for('Stop')
    assert [m for m in messages(service, mark) if m.startswith('value: ')] == ['value: off']
    assert service.services.audio.calls('SetUsbOutGain') == []
    assert service.services.sound.calls('SetSpeakerSelection') == []


def test_unknown_keys_and_sub_commands_do_nothing_but_ask_the_audio_server(service):
    unknown = [('no_such_key', 'x'), ('audio_control', 'setUsbOut'),
               ('audio_control', 'SETUSBOUTGAIN'), ('soundManager', 'Set'), ('pulse', 'o'),
               ('localFileData', ''), ('setMaxVolume', 'abc'), ('setMaxVolume', '0'),
               ('setMaxVolume', '-4')]
    for service_mock in (service.services.audio, service.services.sound, service.services.pulse):
        service_mock.clear_calls()
    mark = send(service)
    for key, value in unknown:
        send(service, key, value)
    # A request sent after them is handled after them: anything they did is done by now.
    after = send(service, 'audio_control', 'getUsbOutDelay')
    service.daemon.wait_for_log('ret : 1, delay : ', since=after)
    # Every request first asks the audio server.
    assert service.services.pulse.calls() == [('GetConnectedUsbHeadset', [])] * (len(unknown) + 2)
    assert [name for name, _ in service.services.audio.calls() if name.startswith('Set')] == []
    assert service.services.sound.calls() == [] and service.signals.signals() == []
    assert not [m for m in messages(service, mark) if m.startswith('ret : ') and 'delay' not in m]
    # A value that starts with none of its command's words is refused by name, as a warning.
    with_words = ('audio_control', 'soundManager', 'pulse', 'localFileData')
    refusals = [r for r in service.daemon.log.records(mark) if 'starts with no sub-command' in r.message]
    assert [r.message for r in refusals] == [f'{key}: "{value}" starts with no sub-command, ignored'
                                             for key, value in unknown if key in with_words]
    assert {r.prio for r in refusals} == {'W'}
    assert service.daemon.running()
