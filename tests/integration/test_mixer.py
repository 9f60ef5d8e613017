"""The USB card's mixer: real alsa-lib in hadrix-probe against an emulated control device. The
mixer keeps every playback volume of a USB card at its maximum, leaves every other control
alone, and reports 0 (done), 1 (card unusable) or 3 (a write failed)."""
import errno

import pytest

from simtv.alsa_card import (BOOLEAN, CARD, ENUMERATED, INTEGER, Control, EmulatedCard,
                               Write, gaming_headset, headset_at_max, stereo_headset)
from simtv.log import parse


@pytest.fixture
def plug(testbed):
    """plug(controls, **card options) -> the EmulatedCard of a new USB headset on card 1."""
    def plug_card(controls, **options):
        emulated = EmulatedCard(1, controls, **options)
        testbed.attach_ioctl(testbed.add_headset(card=1).control, emulated)
        return emulated
    return plug_card


def messages(stderr):
    return [parse(line).message for line in stderr.splitlines()]


@pytest.fixture
def set_max_volume(probe):
    """Runs the mixer on a card; returns (result code, log messages)."""
    def run(card=1):
        result = probe('set-max-volume', card)
        assert result.returncode == 0, result.stderr
        return int(result.stdout), messages(result.stderr)
    return run


def written(card):
    """Accepted writes as {control name: [values of each write]}."""
    writes = {}
    for write in card.accepted_writes():
        writes.setdefault(write.name, []).append(list(write.values))
    return writes


def values(card):
    return {c.name: list(c.values) for c in card.controls}


@pytest.mark.parametrize('controls, volume, before, maximum', [
    (stereo_headset, 'PCM Playback Volume', [30, 30], 127),
    (gaming_headset, 'Headset Playback Volume', [40, 55], 100),
], ids=['stereo-headset', 'gaming-headset'])
def test_playback_volume_below_max_is_set_to_max_by_numid(plug, set_max_volume, controls, volume,
                                                          before, maximum):
    card = plug(controls())
    expected = dict(values(card), **{volume: [maximum, maximum]})
    numid = next(n for n, c in enumerate(card.controls, start=1) if c.name == volume)
    assert card.values(volume) == before
    result, log = set_max_volume()
    assert result == 0
    assert written(card) == {volume: [[maximum, maximum]]}
    assert values(card) == expected
    assert f'm_ControlsSet, card : [hw:1], cId: [numid={numid}], value: [{maximum}]' in log
    assert not [key for key in card.lookups if key[0] == 'name'], 'no write by name was needed'
    assert 'card name: USB Headset' in log


@pytest.mark.parametrize('controls, expected', [
    (headset_at_max(), {}),
    ([Control('Headset Playback Volume', INTEGER, [100, 99], 0, 100)],
     {'Headset Playback Volume': [[100, 100]]}),
    ([Control('PCM Playback Switch', BOOLEAN, [0]),
      Control('Speaker Playback Switch', BOOLEAN, [0]),
      Control('Mic Capture Volume', INTEGER, [1], 0, 31),
      Control('Sidetone Volume', INTEGER, [1], 0, 15),
      Control('Aux Playback Volume', ENUMERATED, [0], items=('Low', 'Mid', 'High')),
      Control('Master Playback Volume', INTEGER, [0, 0], 0, 64, inactive=True),
      Control('Monitor Playback Volume', INTEGER, [3], 0, 64, writable=False),
      Control('Rear Playback Volume', INTEGER, [3], 0, 64, readable=False),
      Control('Line Playback Volume', INTEGER, [0], 0, 0),
      Control('Booth Playback Volume', INTEGER, [-30], -60, 0),
      Control('Card Playback Volume', INTEGER, [0], 0, 10, iface=CARD)], {}),
], ids=['at-max', 'smallest-channel-decides', 'not-usable-playback-volumes'])
def test_only_usable_playback_volumes_below_max_are_written(plug, set_max_volume, controls,
                                                           expected):
    card = plug(controls)
    assert set_max_volume()[0] == 0
    assert written(card) == expected and len(card.writes) == len(expected)
    if not expected:
        assert values(card) == {c.name: list(c.values) for c in controls}


@pytest.mark.parametrize('kept, rewritten_by_name', [(95, False), (94, True)],
                         ids=['exactly-95-percent', 'one-below-95-percent'])
def test_volume_the_device_keeps_below_95_percent_is_written_again_by_name(
        plug, set_max_volume, kept, rewritten_by_name):
    # The device takes a write of 100 as `kept`, as some headsets cap their own volume.
    card = plug([Control('Speaker Playback Volume', INTEGER, [20, 20], 0, 100, limit=kept)])
    result, log = set_max_volume()
    assert result == 0
    assert written(card) == {'Speaker Playback Volume': [[100, 100]] * (1 + rewritten_by_name)}
    assert (('name', 'Speaker Playback Volume') in card.lookups) == rewritten_by_name
    assert ("m_ControlsSet, card : [hw:1], cId: [name='Speaker Playback Volume'], value: [100]"
            in log) == rewritten_by_name
    assert card.values('Speaker Playback Volume') == [kept, kept]


def test_failed_write_gives_3_and_the_walk_goes_on(plug, set_max_volume):
    card = plug([Control('PCM Playback Volume', INTEGER, [10, 10], 0, 127, fail_errno=errno.EIO),
                 Control('Headset Playback Volume', INTEGER, [10], 0, 100)])
    result, log = set_max_volume()
    assert result == 3
    # Still low after the failed write by numid, so it is tried once more by name.
    assert card.writes_to('PCM Playback Volume') == \
        [Write('PCM Playback Volume', (127, 127), errno.EIO)] * 2
    assert ('name', 'PCM Playback Volume') in card.lookups
    assert written(card) == {'Headset Playback Volume': [[100]]}
    assert log.count('Control hw:1 element write error: Input/output error') == 2


def test_impossible_or_absent_card_number_gives_1_without_touching_any_card(plug, set_max_volume):
    card = plug(stereo_headset())
    for card_number in (2, 32, 33, -1):
        result, log = set_max_volume(card_number)
        assert result == 1 and 'Invalid card number' in log, card_number
    assert card.connections == 0 and card.requests == []
    # The same card is reached with its own number.
    assert set_max_volume(1)[0] == 0
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
