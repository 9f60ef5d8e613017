"""The USB card's mixer: real alsa-lib in hadrix-probe against an emulated control device.

The mixer keeps every playback volume of a USB card at its maximum, leaves every other control
alone, and reports 0 (done), 1 (card unusable) or 3 (a write failed).
"""
import errno

import pytest

from simtv.alsa_card import (BOOLEAN, CARD, ENUMERATED, INTEGER, Control, EmulatedCard,
                               Write, gaming_headset, headset_at_max, stereo_headset)
from simtv.log import parse

CARD_NUMBER = 1


@pytest.fixture
def plug(testbed):
    """plug(controls, card=1, **card options) -> the EmulatedCard of a new USB headset."""
    def plug_card(controls, card=CARD_NUMBER, **options):
        headset = testbed.add_headset(card=card)
        emulated = EmulatedCard(card, controls, **options)
        testbed.attach_ioctl(headset.control, emulated)
        return emulated
    return plug_card


@pytest.fixture
def set_max_volume(probe):
    """Runs the mixer on a card; returns (result code, log messages)."""
    def run(card=CARD_NUMBER):
        result = probe('set-max-volume', card)
        assert result.returncode == 0, result.stderr
        return int(result.stdout), messages(result.stderr)
    return run


def messages(stderr):
    return [parse(line).message for line in stderr.splitlines()]


def written(card):
    """Accepted writes as {control name: [values of each write]}."""
    writes = {}
    for write in card.accepted_writes():
        writes.setdefault(write.name, []).append(list(write.values))
    return writes


@pytest.mark.parametrize('controls, volume, before, maximum', [
    (stereo_headset, 'PCM Playback Volume', [30, 30], 127),
    (gaming_headset, 'Headset Playback Volume', [40, 55], 100),
], ids=['stereo-headset', 'gaming-headset'])
def test_playback_volume_below_max_is_set_to_max_by_numid(plug, set_max_volume, controls, volume,
                                                          before, maximum):
    card = plug(controls())
    untouched = {c.name: list(c.values) for c in card.controls if c.name != volume}
    numid = next(n for n, c in enumerate(card.controls, start=1) if c.name == volume)
    assert card.values(volume) == before

    result, log = set_max_volume()

    assert result == 0
    assert written(card) == {volume: [[maximum, maximum]]}
    assert card.values(volume) == [maximum, maximum]
    assert {c.name: c.values for c in card.controls if c.name != volume} == untouched
    assert f'm_ControlsSet, card : [hw:1], cId: [numid={numid}], value: [{maximum}]' in log
    assert not [key for key in card.lookups if key[0] == 'name'], 'no write by name was needed'
    assert 'card name: USB Headset' in log


def test_controls_at_max_are_not_written(plug, set_max_volume):
    card = plug(headset_at_max())

    result, _ = set_max_volume()

    assert result == 0
    assert card.writes == []


@pytest.mark.parametrize('kept, rewritten_by_name', [(95, False), (94, True)],
                         ids=['exactly-95-percent', 'one-below-95-percent'])
def test_volume_the_device_keeps_below_95_percent_is_written_again_by_name(
        plug, set_max_volume, kept, rewritten_by_name):
    # The device takes a write of 100 as `kept`, as some headsets cap their own volume.
    card = plug([Control('Speaker Playback Volume', INTEGER, [20, 20], 0, 100, limit=kept)])

    result, log = set_max_volume()

    assert result == 0
    by_name = "m_ControlsSet, card : [hw:1], cId: [name='Speaker Playback Volume'], value: [100]"
    if rewritten_by_name:
        assert written(card) == {'Speaker Playback Volume': [[100, 100], [100, 100]]}
        assert ('name', 'Speaker Playback Volume') in card.lookups
        assert by_name in log
    else:
        assert written(card) == {'Speaker Playback Volume': [[100, 100]]}
        assert ('name', 'Speaker Playback Volume') not in card.lookups
        assert by_name not in log
    assert card.values('Speaker Playback Volume') == [kept, kept]


def test_smallest_channel_decides(plug, set_max_volume):
    card = plug([Control('Headset Playback Volume', INTEGER, [100, 99], 0, 100)])

    result, _ = set_max_volume()

    assert result == 0
    assert written(card) == {'Headset Playback Volume': [[100, 100]]}


def test_controls_that_are_not_usable_playback_volumes_are_left_alone(plug, set_max_volume):
    controls = [
        Control('PCM Playback Switch', BOOLEAN, [0]),
        Control('Speaker Playback Switch', BOOLEAN, [0]),
        Control('Mic Capture Volume', INTEGER, [1], 0, 31),
        Control('Sidetone Volume', INTEGER, [1], 0, 15),
        Control('Aux Playback Volume', ENUMERATED, [0], items=('Low', 'Mid', 'High')),
        Control('Master Playback Volume', INTEGER, [0, 0], 0, 64, inactive=True),
        Control('Monitor Playback Volume', INTEGER, [3], 0, 64, writable=False),
        Control('Rear Playback Volume', INTEGER, [3], 0, 64, readable=False),
        Control('Line Playback Volume', INTEGER, [0], 0, 0),
        Control('Booth Playback Volume', INTEGER, [-30], -60, 0),
        Control('Card Playback Volume', INTEGER, [0], 0, 10, iface=CARD),
    ]
    card = plug(controls)
    before = {c.name: list(c.values) for c in card.controls}

    result, _ = set_max_volume()

    assert result == 0
    assert card.writes == []
    assert {c.name: c.values for c in card.controls} == before


def test_failed_write_gives_3_and_the_walk_goes_on(plug, set_max_volume):
    card = plug([
        Control('PCM Playback Volume', INTEGER, [10, 10], 0, 127, fail_errno=errno.EIO),
        Control('Headset Playback Volume', INTEGER, [10], 0, 100),
    ])

    result, log = set_max_volume()

    assert result == 3
    # Still low after the failed write by numid, so it is tried once more by name.
    assert card.writes_to('PCM Playback Volume') == \
        [Write('PCM Playback Volume', (127, 127), errno.EIO)] * 2
    assert ('name', 'PCM Playback Volume') in card.lookups
    assert written(card) == {'Headset Playback Volume': [[100]]}
    assert log.count('Control hw:1 element write error: Input/output error') == 2


@pytest.mark.parametrize('card_number', [2, 32, 33, -1])
def test_impossible_or_absent_card_number_gives_1_without_touching_any_card(plug, set_max_volume,
                                                                             card_number):
    card = plug(stereo_headset())

    result, log = set_max_volume(card_number)

    assert result == 1
    assert 'Invalid card number' in log
    assert card.connections == 0
    assert card.requests == []
    # The same card is reached with its own number.
    assert set_max_volume(CARD_NUMBER)[0] == 0
    assert card.connections > 0 and card.requests


@pytest.mark.parametrize('failing, message', [
    ('ELEM_LIST', 'Control hw:1 local error: Input/output error'),
    ('ELEM_INFO', 'Control hw:1 snd_hctl_elem_info error: Input/output error'),
], ids=['load', 'element-info'])
def test_card_that_fails_to_answer_gives_1(plug, set_max_volume, failing, message):
    card = plug(stereo_headset(), fail_requests={failing: errno.EIO})

    result, log = set_max_volume()

    assert result == 1
    assert any(line.rstrip() == message for line in log), log
    assert card.writes == []


def test_cset_and_cget_round_trip(plug, probe):
    card = plug(gaming_headset())

    def cget(control_id):
        result = probe('cget', CARD_NUMBER, control_id)
        assert result.returncode == 0, result.stderr
        return result.stdout.strip()

    def cset(control_id, value):
        result = probe('cset', CARD_NUMBER, control_id, value)
        assert result.returncode == 0, result.stderr

    assert cget("name='Headset Playback Volume'") == '40,55'
    cset("name='Headset Playback Volume'", '70,90')
    assert card.values('Headset Playback Volume') == [70, 90]
    assert cget('numid=2') == '70,90'

    cset('numid=2', '50%')
    assert card.values('Headset Playback Volume') == [50, 50]

    cset("name='Headset Playback Switch'", 'off')
    assert card.values('Headset Playback Switch') == [0]
    assert cget("name='Headset Playback Switch'") == 'off'

    cset("name='Chat Mix'", 'Chat')
    assert card.values('Chat Mix') == [2]
    assert cget("name='Chat Mix'") == 'Chat'


@pytest.mark.parametrize('args, message', [
    (('cget', CARD_NUMBER, "name='No Such Control'"),
     'Cannot find the given element from control hw:1'),
    (('cset', CARD_NUMBER, 'iface=MIXER', '1'), 'Wrong control identifier: iface=MIXER'),
    (('cget', 32, 'numid=1'), 'Invalid card number'),
], ids=['unknown-control', 'identifier-without-element', 'bad-card'])
def test_cset_and_cget_refuse_bad_input(plug, probe, args, message):
    card = plug(gaming_headset())
    before = {c.name: list(c.values) for c in card.controls}

    result = probe(*args)

    assert result.returncode == 1
    assert message in messages(result.stderr)
    assert card.writes == []
    assert {c.name: c.values for c in card.controls} == before

