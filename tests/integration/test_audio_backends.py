"""Telling the audio server and the speaker manager what the service does with a USB headset
(CPulseAudioHandler, CSpeakerManagerHandler, getCardFromPulse through hadrix-probe), as the
audio server mock and a listening peer on the bus see it."""
import re

import pytest

from simtv.log import parse
from simtv.observer import HADRIX_SIGNAL_IFACE, HADRIX_SIGNAL_PATH

FAKETIME_LIB = '/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1'
QUERY = 'GetConnectedUsbHeadset'
MAX_TRIES = 50
TRY = re.compile(r'try (\d+) time to get card number (\d+) from pulseaudio\. quit flag (\d)')


def messages(result):
    return [parse(line).message for line in result.stderr.splitlines()]


def tries(result, card):
    """The attempt numbers the wait logged for `card`, in order."""
    found = [TRY.search(message) for message in messages(result)]
    return [int(match[1]) for match in found if match and int(match[2]) == card]


def speed_up_clock(child_env):
    """Programs started from now on see time pass 100 times faster."""
    child_env.set('FAKETIME', '+0 x100')
    child_env.preload(FAKETIME_LIB)


def assert_broadcast(signal, member, args):
    assert (signal.member, signal.args) == (member, args)
    assert (signal.path, signal.interface) == (HADRIX_SIGNAL_PATH, HADRIX_SIGNAL_IFACE)


class TestStart:
    def test_card_listed_at_once_is_asked_for_once(self, mocks, probe, bus_signals):
        server = mocks.spawn('pulse_audio', {'cards': [1, 3]})

        result = probe('pulse-start', '3')

        assert result.returncode == 0, result.stderr
        assert server.calls(QUERY) == [(QUERY, [])]
        [start] = bus_signals.wait_for('Start')
        assert_broadcast(start, 'Start', (3,))
        assert tries(result, 3) == [1]
        assert 'Card 3 seems not ready...' not in messages(result)

    def test_empty_replies_count_as_not_found_until_the_card_appears(self, mocks, probe,
                                                                     bus_signals):
        server = mocks.spawn('pulse_audio', {'cards': [3], 'listed_from': 3})

        result = probe('pulse-start', '3')

        assert result.returncode == 0, result.stderr
        assert len(server.calls(QUERY)) == 3
        times = [float(t) for t in server.mock.GetQueryTimes()]
        pauses = [later - earlier for earlier, later in zip(times, times[1:])]
        assert all(0.9 <= pause <= 1.6 for pause in pauses), pauses
        assert tries(result, 3) == [1, 2, 3]
        [start] = bus_signals.wait_for('Start')
        assert_broadcast(start, 'Start', (3,))

    def test_server_listing_other_cards_only_is_not_ready(self, mocks, probe, bus_signals,
                                                          child_env):
        server = mocks.spawn('pulse_audio', {'cards': [0, 2]})
        speed_up_clock(child_env)

        result = probe('pulse-start', '5', timeout=30.0)

        assert result.returncode == 0, result.stderr
        assert len(server.calls(QUERY)) == MAX_TRIES
        assert tries(result, 5) == list(range(1, MAX_TRIES + 1))
        assert 'Card 5 seems not ready...' in messages(result)
        [start] = bus_signals.wait_for('Start')
        assert_broadcast(start, 'Start', (5,))

    @pytest.mark.parametrize('server', [None, {'reply_type': 'as', 'cards': [4]},
                                        {'error': 'org.pulseaudio.Error.Failed', 'cards': [4]}],
                             ids=['absent', 'wrong-reply-type', 'failing'])
    def test_start_is_sent_after_the_bounded_wait(self, server, mocks, probe, bus_signals,
                                                  child_env):
        mock = mocks.spawn('pulse_audio', server) if server else None
        speed_up_clock(child_env)

        result = probe('pulse-start', '4', timeout=30.0)

        assert result.returncode == 0, result.stderr
        assert tries(result, 4) == list(range(1, MAX_TRIES + 1))
        assert sum(m.startswith('error : ') for m in messages(result)) == MAX_TRIES
        assert 'Card 4 seems not ready...' in messages(result)
        if mock:
            assert len(mock.calls(QUERY)) == MAX_TRIES
        [start] = bus_signals.wait_for('Start')
        assert_broadcast(start, 'Start', (4,))


def test_stop_is_sent_at_once_without_asking_the_server(mocks, probe, bus_signals):
    server = mocks.spawn('pulse_audio', {'cards': [3]})

    result = probe('pulse-stop', '3')

    assert result.returncode == 0, result.stderr
    [stop] = bus_signals.wait_for('Stop')
    assert_broadcast(stop, 'Stop', (3,))
    assert server.calls(QUERY) == []
    # No attempt, so no pause either.
    assert tries(result, 3) == []
    assert bus_signals.signals('Start') == []


def test_second_request_makes_the_waiting_one_give_up(mocks, probe, bus_signals):
    server = mocks.spawn('pulse_audio', {'cards': [2]})

    result = probe('pulse-async-twice', '7', '2')

    assert result.returncode == 0, result.stderr
    # The first request gave up after its one attempt instead of waiting about 50 s.
    assert tries(result, 7) == [1]
    assert 'Card 7 seems not ready...' in messages(result)
    assert tries(result, 2) == [1]
    assert len(server.calls(QUERY)) == 2
    first, second = bus_signals.wait_for('Start', count=2)
    assert_broadcast(first, 'Start', (7,))
    assert_broadcast(second, 'Start', (2,))


@pytest.mark.parametrize('command', [('pulse-stop', '3'), ('spk-disconnected',)],
                         ids=['stop', 'spk-disconnected'])
def test_no_bus_fails_the_signal_without_waiting(command, probe, tmp_path):
    missing = f'unix:path={tmp_path / "no-such-bus"}'

    result = probe(*command, env={'DBUS_SYSTEM_BUS_ADDRESS': missing}, timeout=5.0)

    assert result.returncode == 1
    found = messages(result)
    assert any(m.startswith('g_bus_get_sync() error (') for m in found), found
    assert 'no connection' in found


def test_card_list_diagnostic_logs_every_card(mocks, probe):
    server = mocks.spawn('pulse_audio', {'cards': [1, 4, 9]})

    result = probe('card-from-pulse')

    assert (result.returncode, result.stdout) == (0, '1\n')
    assert [m for m in messages(result) if m.startswith('cardNum : ')] == [
        'cardNum : 1', 'cardNum : 4', 'cardNum : 9']
    assert server.calls(QUERY) == [(QUERY, [])]


def test_card_list_diagnostic_without_server_only_logs(probe):
    result = probe('card-from-pulse')

    assert (result.returncode, result.stdout) == (0, '1\n')
    assert any(m.startswith('error : ') for m in messages(result))


# --- sound manager and audio control adapters --------------------------------------------------

def test_failing_sound_manager_yields_route_7_and_failures(mocks, probe):
    mocks.spawn('sound_manager', {'failing': True})

    get = probe('sound-manager', 'get')
    assert (get.returncode, get.stdout) == (0, '7\n')
    assert any(m.startswith('sound_manager_get_speaker_selection return fail : -')
               for m in messages(get))
    put = probe('sound-manager', 'set', '15')
    assert put.returncode == 1
    assert any(m.startswith('sound_manager_set_speaker_selection return : -')
               for m in messages(put))
    mute_gain = probe('sound-manager', 'mute-gain', '100')
    assert mute_gain.returncode == 1
    assert any(m.startswith('sound_manager_set_mute_gain return : -')
               for m in messages(mute_gain))


@pytest.mark.parametrize('command, failure', [
    (('get-gain',), 'setUgetUsbOutGainbOutMute return err : '),
    (('set-gain', '20'), 'setUsbOutGain return err : '),
    (('get-delay',), 'getUsbOutDelay return err : '),
    (('set-delay', '100'), 'setUsbOutDelay return err : '),
    (('get-mute',), 'getUsbOutMute return err : '),
    (('set-mute', '0'), 'setUsbOutMute return err : '),
], ids=lambda value: value[0] if isinstance(value, tuple) else None)
def test_absent_audio_control_fails_each_operation_with_its_message(command, failure, probe):
    result = probe('audio-control-mgr', *command)

    assert (result.returncode, result.stdout) == (1, '')
    assert any(m.startswith(failure + '-') for m in messages(result)), messages(result)
