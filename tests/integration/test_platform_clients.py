"""The host's platform service clients (through hadrix-probe): values both ways, signals to the
registered callbacks on the registering thread's main loop, and the result codes of absent,
failing, silent and malformed services (PlatformService, shared by every client). The daemon's
tests cover the rest: key events (test_volume_keys.py), zone lists (its multiview test)."""
import re

import dbus
import pytest

IO_ERROR = 'error -5'
SOUND_MANAGER = 'org.nimbos.SoundManager'


def watch(launcher, probe, command):
    """Starts a probe watch command once its callbacks are registered."""
    watcher = launcher.start(probe.path, [command, '20'], label=command)
    watcher.wait_for_output('ready')
    return watcher


def finish(watcher):
    """Stops a watch; returns the lines its callbacks printed."""
    assert watcher.stop() == 0
    return [line for line in watcher.out.lines() if line != 'ready']


def test_routes_are_set_and_read_per_zone_and_negative_ones_refused(mocks, probe):
    sound = mocks.spawn('sound_manager')

    assert probe.lines('route-set', '-1') == (1, ['error -22'])
    assert probe.lines('zone-route-set', '-1', '0') == (1, ['error -22'])
    assert sound.calls() == []

    assert probe.lines('zone-route-set', '15', '2') == (0, [])
    assert probe.lines('zone-route-get', '2') == (0, ['route 15'])
    assert probe.lines('zone-route-get', '1') == (0, ['route 7'])
    assert probe.lines('route-get') == (0, ['route 7'])
    assert sound.calls('GetMultiviewSpeakerSelection') == [
        ('GetMultiviewSpeakerSelection', [2]), ('GetMultiviewSpeakerSelection', [1])]


def test_route_changes_reach_the_replacing_callbacks_on_their_loop_until_unset(mocks, probe, launcher):
    sound = mocks.spawn('sound_manager')
    watcher = watch(launcher, probe, 'sound-watch')

    sound.call('UserSetRoute', -2)
    assert probe.lines('route-set', '15') == (0, [])
    watcher.wait_for_output('sound speaker-changed 15')
    # Each callback unsets itself after its first change. Signals of one sender arrive in order:
    # by the time the multiview change is heard, the route change to 3 was delivered to nobody.
    sound.call('UserSetRoute', 3)
    assert probe.lines('zone-route-set', '4', '1') == (0, [])
    watcher.wait_for_output('sound multiview-changed 4 zone 1')

    assert finish(watcher) == ['sound speaker-changed 15 on-loop', 'sound multiview-changed 4 zone 1 on-loop']
    assert 'SpeakerChanged with route -2 refused' in watcher.log.dump()


def test_power_changes_reach_the_subscribed_callbacks_on_their_loop_until_unsubscribed(mocks, probe, launcher):
    power = mocks.spawn('device_power', {'state': 4})
    assert probe.lines('power-get') == (0, ['state 4'])
    watcher = watch(launcher, probe, 'power-watch')

    # Subscribing a callback again replaced its user data: one call per change, as "power".
    power.call('ChangeState', 0)
    watcher.wait_for_output('power state-changed 4 0')
    for state in (2, -3, 1, 0):
        power.call('ChangeState', state)
    watcher.wait_for_output('witness state-changed 1 0')

    assert sorted(finish(watcher)) == ['power state-changed 4 0 on-loop', 'witness state-changed 0 2 on-loop',
                                       'witness state-changed 1 0 on-loop', 'witness state-changed 4 0 on-loop']
    assert 'StateChanged from 2 to -3 refused' in watcher.log.dump()
    power.call('ChangeState', -3)
    assert probe.lines('power-get') == (1, [IO_ERROR])


def took_seconds(lines):
    """Takes the last line, "took <ms> ms" of a timed probe command; returns the seconds."""
    return int(re.fullmatch(r'took (\d+) ms', lines.pop())[1]) / 1000


def test_connecting_without_a_key_router_fails_at_once(probe, system_bus):
    assert not system_bus.has_owner('org.nimbos.KeyRouter')

    status, lines = probe.lines('timed', 'key-router-connect')

    assert took_seconds(lines) < 0.5
    assert (status, lines) == (1, ['error -2'])


def own_name_and_never_answer(system_bus, mocks):
    system_bus.connect_shared()
    assert system_bus.connect().request_name(SOUND_MANAGER, dbus.bus.NAME_FLAG_DO_NOT_QUEUE) == \
        dbus.bus.REQUEST_NAME_REPLY_PRIMARY_OWNER


def answer_a_string(system_bus, mocks):
    mock = mocks.spawn('sound_manager')
    mock.mock.AddMethod(mock.interface, 'GetSpeakerSelection', '', 's', "ret = '15'")


SERVICES = {
    'absent': (lambda system_bus, mocks: None, IO_ERROR, 0.0, 0.5),
    'failing': (lambda system_bus, mocks: mocks.spawn('sound_manager', {'failing': True}), IO_ERROR, 0.0, 0.5),
    'silent': (own_name_and_never_answer, 'error -110', 0.9, 1.5),
    'wrong-reply-type': (answer_a_string, IO_ERROR, 0.0, 0.5),
}


@pytest.mark.parametrize('service', SERVICES)
def test_service_failure_is_a_result_code_within_the_call_timeout(service, system_bus, mocks, probe):
    set_up, error, least, most = SERVICES[service]
    set_up(system_bus, mocks)

    status, lines = probe.lines('timed', 'route-get')

    assert least <= took_seconds(lines) < most
    assert (status, lines) == (1, [error])
