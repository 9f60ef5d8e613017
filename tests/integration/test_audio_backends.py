"""The service's adapters of the audio server, sound manager and audio control (through
hadrix-probe), as the mocks and a listening peer on the bus see them."""
import re

import pytest

from simtv.log import parse
from simtv.observer import HADRIX_SIGNAL_IFACE, HADRIX_SIGNAL_PATH

QUERY = 'GetConnectedUsbHeadset'
MAX_TRIES = 50
TRY = re.compile(r'try (\d+) time to get card number (\d+) from pulseaudio\. quit flag (\d)')


def messages(result):
    return [parse(line).message for line in result.stderr.splitlines()]


def tries(result, card):
    """The attempt numbers the wait logged for `card`, in order."""
    found = [TRY.search(message) for message in messages(result)]
    return [int(match[1]) for match in found if match and int(match[2]) == card]


def broadcasts(bus_signals, member, count=1):
    """The cards of the first `count` `member` signals, checked to come from the service."""
    signals = bus_signals.wait_for(member, count=count)
    assert {(s.path, s.interface) for s in signals} == {(HADRIX_SIGNAL_PATH, HADRIX_SIGNAL_IFACE)}
    return [s.args for s in signals]


def test_start_waits_a_second_between_queries_until_the_card_is_listed(mocks, probe, bus_signals):
    server = mocks.spawn('pulse_audio', {'cards': [3], 'listed_from': 3})

    result = probe('pulse-start', '3')

    assert result.returncode == 0, result.stderr
    assert len(server.calls(QUERY)) == 3
    times = [float(t) for t in server.mock.GetQueryTimes()]
    pauses = [later - earlier for earlier, later in zip(times, times[1:])]
    assert all(0.9 <= pause <= 1.6 for pause in pauses), pauses
    assert tries(result, 3) == [1, 2, 3]
    assert 'Card 3 seems not ready...' not in messages(result)
    assert broadcasts(bus_signals, 'Start') == [(3,)]


# The absent server is the daemon's own case: test_usb_timers.py.
@pytest.mark.parametrize('server, errors', [({'cards': [0, 2]}, 0), ({'reply_type': 'as', 'cards': [4]}, MAX_TRIES),
                                            ({'error': 'org.pulseaudio.Error.Failed', 'cards': [4]}, MAX_TRIES)],
                         ids=['other-cards-only', 'wrong-reply-type', 'failing'])
def test_start_is_sent_after_the_bounded_wait(server, errors, mocks, probe, bus_signals, fast_clock):
    mock = mocks.spawn('pulse_audio', server)

    result = probe('pulse-start', '5', timeout=30.0)

    assert result.returncode == 0, result.stderr
    assert len(mock.calls(QUERY)) == MAX_TRIES
    assert tries(result, 5) == list(range(1, MAX_TRIES + 1))
    assert sum(m.startswith('error : ') for m in messages(result)) == errors
    assert 'Card 5 seems not ready...' in messages(result)
    assert broadcasts(bus_signals, 'Start') == [(5,)]


def test_stop_is_sent_at_once_without_asking_the_server(mocks, probe, bus_signals):
    server = mocks.spawn('pulse_audio', {'cards': [3]})

    result = probe('pulse-stop', '3')

    assert result.returncode == 0, result.stderr
    assert broadcasts(bus_signals, 'Stop') == [(3,)]
    assert (server.calls(QUERY), tries(result, 3), bus_signals.signals('Start')) == ([], [], [])


def test_second_request_makes_the_waiting_one_give_up(mocks, probe, bus_signals):
    server = mocks.spawn('pulse_audio', {'cards': [2]})

    result = probe('pulse-async-twice', '7', '2')

    assert result.returncode == 0, result.stderr
    # The first request gave up after its one attempt instead of waiting about 50 s.
    assert (tries(result, 7), tries(result, 2)) == ([1], [1])
    assert 'Card 7 seems not ready...' in messages(result)
    assert len(server.calls(QUERY)) == 2
    assert broadcasts(bus_signals, 'Start', count=2) == [(7,), (2,)]


def test_no_bus_fails_the_signal_without_waiting(probe, tmp_path):
    result = probe('pulse-stop', '3', env={'DBUS_SYSTEM_BUS_ADDRESS': f'unix:path={tmp_path / "none"}'},
                   timeout=5.0)

    assert result.returncode == 1
    assert any(m.startswith('g_bus_get_sync() error (') for m in messages(result)), messages(result)
    assert 'no connection' in messages(result)


# (args, exit status, stdout, what the adapter logs)
ADAPTER_FAILURES = [
    (('handler-route-get',), 0, '7\n', 'sound_manager_get_speaker_selection return fail : -'),
    (('handler-route-set', '15'), 1, '', 'sound_manager_set_speaker_selection return : -'),
    (('handler-mute-gain', '100'), 1, '', 'sound_manager_set_mute_gain return : -'),
    (('audio-mgr-get-gain',), 1, '', 'setUgetUsbOutGainbOutMute return err : -'),
    (('audio-mgr-set-gain', '20'), 1, '', 'setUsbOutGain return err : -'),
    (('audio-mgr-get-delay',), 1, '', 'getUsbOutDelay return err : -'),
    (('audio-mgr-set-delay', '100'), 1, '', 'setUsbOutDelay return err : -'),
    (('audio-mgr-get-mute',), 1, '', 'getUsbOutMute return err : -'),
    (('audio-mgr-set-mute', '0'), 1, '', 'setUsbOutMute return err : -'),
]


def test_adapters_report_a_failing_sound_manager_and_an_absent_audio_control(mocks, probe):
    mocks.spawn('sound_manager', {'failing': True})

    for args, status, stdout, failure in ADAPTER_FAILURES:
        result = probe(*args)
        assert (result.returncode, result.stdout) == (status, stdout), args
        assert any(m.startswith(failure) for m in messages(result)), messages(result)
