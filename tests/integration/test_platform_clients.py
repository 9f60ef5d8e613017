"""The host's clients of the sound manager, audio control and device power services (through
hadrix-probe): values both ways, signals to the registered callbacks on the registering thread's
main loop, and the result codes of absent, failing, silent and malformed services."""
import re

import dbus
import pytest

SOUND_MANAGER = 'org.nimbos.SoundManager'
AUDIO_CONTROL = 'org.nimbos.AudioControl'
DEVICE_POWER = 'org.nimbos.DevicePower'

IO_ERROR = 'error -5'
INVALID_PARAMETER = 'error -22'
TIMED_OUT = 'error -110'


def watch(launcher, probe, command, *args):
    """Starts a probe watch command and waits until its callbacks are registered."""
    watcher = launcher.start(probe.path, [command, '20', *args], label=command)
    watcher.wait_for_output('ready')
    return watcher


def finish(watcher):
    """Stops a watch and returns the lines its callbacks printed."""
    assert watcher.stop() == 0
    return [line for line in watcher.out.lines() if line != 'ready']


# --- sound manager ----------------------------------------------------------------------------

def test_negative_route_is_refused_before_the_bus(mocks, probe):
    sound = mocks.spawn('sound_manager')

    assert probe.lines('sound', 'set', '-1') == (1, [INVALID_PARAMETER])
    assert probe.lines('sound', 'zone-set', '-1', '0') == (1, [INVALID_PARAMETER])

    assert sound.calls() == []


def test_multiview_routes_are_per_zone(mocks, probe):
    sound = mocks.spawn('sound_manager')

    assert probe.lines('sound', 'zone-set', '15', '2') == (0, [])

    assert probe.lines('sound', 'zone-get', '2') == (0, ['route 15'])
    assert probe.lines('sound', 'zone-get', '1') == (0, ['route 7'])
    assert probe.lines('sound', 'get') == (0, ['route 7'])
    assert sound.calls('GetMultiviewSpeakerSelection') == [
        ('GetMultiviewSpeakerSelection', [2]), ('GetMultiviewSpeakerSelection', [1])]


def test_route_changes_reach_the_replacing_callbacks_on_their_loop(mocks, probe, launcher):
    sound = mocks.spawn('sound_manager')
    watcher = watch(launcher, probe, 'sound-watch')

    assert probe.lines('sound', 'set', '15') == (0, [])
    watcher.wait_for_output('sound speaker-changed 15')
    sound.call('UserSetRoute', 3)
    sound.call('UserSetRoute', 3)
    sound.call('UserSetRoute', -2)
    assert probe.lines('sound', 'zone-set', '15', '1') == (0, [])
    watcher.wait_for_output('sound multiview-changed 15 zone 1')

    # The repeated route is no change; the negative one is refused by the client.
    assert finish(watcher) == ['sound speaker-changed 15 on-loop',
                               'sound speaker-changed 3 on-loop',
                               'sound multiview-changed 15 zone 1 on-loop']
    assert 'SpeakerChanged with route -2 refused' in watcher.log.dump()


def test_unset_callbacks_hear_no_more_changes(mocks, probe, launcher):
    sound = mocks.spawn('sound_manager')
    watcher = watch(launcher, probe, 'sound-watch', 'once')

    sound.call('UserSetRoute', 15)
    watcher.wait_for_output('sound speaker-changed 15')
    sound.call('UserSetRoute', 3)
    # Signals of one sender arrive in order: by the time the multiview change is heard, the
    # second route change has been delivered, to no callback.
    assert probe.lines('sound', 'zone-set', '4', '1') == (0, [])
    watcher.wait_for_output('sound multiview-changed 4 zone 1')
    assert finish(watcher) == ['sound speaker-changed 15 on-loop',
                               'sound multiview-changed 4 zone 1 on-loop']


def test_failing_sound_manager_fails_every_call(mocks, probe):
    sound = mocks.spawn('sound_manager', {'failing': True})

    assert probe.lines('sound', 'get') == (1, [IO_ERROR])
    assert probe.lines('sound', 'set', '15') == (1, [IO_ERROR])
    assert probe.lines('sound', 'mute-gain', '3', '0') == (1, [IO_ERROR])
    assert probe.lines('sound', 'fade-in', '3') == (1, [IO_ERROR])
    assert probe.lines('sound', 'zone-get', '0') == (1, [IO_ERROR])
    assert probe.lines('sound', 'zone-set', '15', '0') == (1, [IO_ERROR])

    sound.call('SetFailing', False)
    assert probe.lines('sound', 'get') == (0, ['route 7'])


# --- audio control ----------------------------------------------------------------------------

# --- device power -----------------------------------------------------------------------------

def test_power_state_is_read(mocks, probe):
    mocks.spawn('device_power', {'state': 4})

    assert probe.lines('power-get') == (0, ['state 4'])


def test_negative_power_state_is_refused(mocks, probe):
    mocks.spawn('device_power', {'state': -3})

    status, lines = probe.lines('power-get')

    assert (status, lines) == (1, [IO_ERROR])


def test_state_changes_reach_the_subscribed_callbacks_on_their_loop(mocks, probe, launcher):
    power = mocks.spawn('device_power')
    watcher = watch(launcher, probe, 'power-watch')

    power.call('ChangeState', 2)
    power.call('ChangeState', 0)
    watcher.wait_for_output('witness state-changed 2 0')

    # Subscribing a callback again replaced its user data: one call per change, as "power".
    lines = finish(watcher)
    assert sorted(lines) == ['power state-changed 0 2 on-loop', 'power state-changed 2 0 on-loop',
                             'witness state-changed 0 2 on-loop',
                             'witness state-changed 2 0 on-loop']
    assert probe.lines('power-get') == (0, ['state 0'])


def test_unsubscribed_callback_hears_no_more_changes(mocks, probe, launcher):
    power = mocks.spawn('device_power')
    watcher = watch(launcher, probe, 'power-watch', 'once')

    power.call('ChangeState', 4)
    watcher.wait_for_output('power state-changed 0 4')
    power.call('ChangeState', 0)
    power.call('ChangeState', 1)
    watcher.wait_for_output('witness state-changed 0 1')

    assert [line for line in finish(watcher) if line.startswith('power')] == [
        'power state-changed 0 4 on-loop']


# --- every client: absent, silent and malformed services ---------------------------------------

GETTERS = {
    SOUND_MANAGER: ('sound_manager', ['sound', 'get'], 'GetSpeakerSelection', 's'),
    AUDIO_CONTROL: ('audio_control', ['audio-control', 'get-gain'], 'GetUsbOutGain', 'i'),
    DEVICE_POWER: ('device_power', ['power-get'], 'GetState', 'u'),
}


def timed_run(probe, args):
    """Runs a probe command on a connected bus; returns (exit status, stdout lines, seconds the
    command took)."""
    status, lines = probe.lines('timed', *args)
    took = re.fullmatch(r'took (\d+) ms', lines.pop())
    assert took, lines
    return status, lines, int(took[1]) / 1000


@pytest.mark.parametrize('service', GETTERS)
def test_absent_service_fails_at_once(probe, system_bus, service):
    assert not system_bus.has_owner(service)

    status, lines, elapsed = timed_run(probe, GETTERS[service][1])

    assert (status, lines) == (1, [IO_ERROR])
    assert elapsed < 0.5


@pytest.mark.parametrize('service', GETTERS)
def test_service_that_never_answers_times_out(probe, system_bus, service):
    # A peer that owns the name and never reads its messages: a hung service.
    system_bus.connect_shared()
    silent = system_bus.connect()
    assert silent.request_name(service, dbus.bus.NAME_FLAG_DO_NOT_QUEUE) == \
        dbus.bus.REQUEST_NAME_REPLY_PRIMARY_OWNER

    status, lines, elapsed = timed_run(probe, GETTERS[service][1])

    assert (status, lines) == (1, [TIMED_OUT])
    assert 0.9 <= elapsed < 1.5


@pytest.mark.parametrize('service', GETTERS)
def test_reply_of_the_wrong_type_is_a_failure(mocks, probe, service):
    template, args, method, wrong_type = GETTERS[service]
    mock = mocks.spawn(template)
    value = {'s': dbus.String('15'), 'i': dbus.Int32(15), 'u': dbus.UInt32(15)}[wrong_type]
    mock.mock.AddMethod(mock.interface, method, '', wrong_type, f'ret = {value!r}')

    assert probe.lines(*args) == (1, [IO_ERROR])
    assert len(mock.calls(method)) == 1
