"""Why the service did what it did: the decision records that `hadrixctl why` and `history` show
and the diagnostics D-Bus interface serves, against the real daemon on a simulated TV. One TV
goes through every outcome in turn, so that a single start covers them all."""
import json
import re

import dbus
import pytest

from conftest import LATER
from simtv.client_api import SERVER_NAME
from simtv.devices import plug
from simtv.wait import wait_until

DIAGNOSTICS_PATH = '/org/nimbos/hadrix/Diagnostics'
DIAGNOSTICS_IFACE = 'org.nimbos.hadrix.Diagnostics'
CARDS = range(1, 14)  # the audio server lists every card at once
# Sound cards that only a test plugs: a gamepad of the built-in table, and a second card with
# the ids of the catalogue's gamepad (whose joystick the gamepad library then lists).
KNOWN_PAD = dict(card=12, vid='054c', pid='09cc', product='Wireless Controller',
                 manufacturer='Sony Interactive Entertainment', port='1-8', devnum=14)
LISTED_PAD = dict(card=13, vid='2dc8', pid='3106', product='8BitDo Pro 2 Audio 2',
                  manufacturer='8BitDo', port='1-10', devnum=15)


class Why:
    """What hadrixctl says about the service's decisions."""

    def __init__(self, hadrixctl):
        self.hadrixctl = hadrixctl

    def _json(self, *args):
        result = self.hadrixctl(*args, '--json')
        assert result.returncode == 0, result.stderr
        return json.loads(result.stdout)

    def verdicts(self):
        return self._json('why')

    def of(self, device):
        (verdict,) = self._json('why', device)
        return verdict

    def words(self, device):
        result = self.hadrixctl('why', device)
        assert result.returncode == 0, result.stderr
        return result.stdout

    def history(self):
        return self._json('history')

    def wait(self, device, predicate, what):
        """The verdict on `device` once it satisfies the predicate."""
        def satisfied():
            verdict = self.of(device)
            return verdict if predicate(verdict) else None
        return wait_until(satisfied, timeout=10, what=what)


def decided(record, event, outcome, rule, **inputs):
    assert (record['event'], record['outcome'], record['rule']) == (event, outcome, rule), record
    for key, value in inputs.items():
        assert record['inputs'].get(key) == value, (key, record)


def plain_words(template):
    """The paragraph, its time of day ({t}) and milliseconds ({ms}) left open."""
    pattern = re.escape(template).replace(re.escape('{t}'), r'\d\d:\d\d:\d\d')
    return re.compile(pattern.replace(re.escape('{ms}'), r'\d+ ms') + '\n')


def plug_card(tv, until, **card):
    """A sound card of no catalogue device, plugged by the viewer."""
    mark = tv.daemon.log.mark()
    tv.log.detect(card['port'], LATER, card['vid'], card['pid'], card['product'])
    tv.bed.add_headset(**card)
    tv.daemon.wait_for_log(until, since=mark, timeout=10)


def sent(verdict):
    return not verdict['start']['pending']


def as_plain(value):
    """A dbus-python value as json.loads gives it."""
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, dict):
        return {str(key): as_plain(member) for key, member in value.items()}
    if isinstance(value, list):
        return [as_plain(member) for member in value]
    return str(value) if isinstance(value, str) else int(value)


@pytest.mark.timeout(180)
def test_every_outcome_names_its_rule_with_its_numbers(tv, hadrixctl):
    why = Why(hadrixctl)
    tv.start('Not switch to usb speaker...', boot=['headset'], cards=CARDS)
    boot = why.of('Evolve 20')
    decided(boot, 'startup-enumeration', 'present-at-boot', 'detected-with-core', detected_ms=3500,
            core_init_ms=2100, power_changed_ms=-1, usb_audio_mode=False)
    assert plain_words(
        'Evolve 20 (Jabra, 0b0e:0300, port 1-1, card 1): stayed off the sound as present at boot when '
        'the service looked for devices at start-up at {t}. The kernel log shows it detected 1.4 s '
        'after the USB core came up, within 5 s.').fullmatch(why.words('1-1'))

    # The gamepad library is asked only ten seconds after the start: until then the joystick
    # itself tells a gamepad.
    tv.plug('gamepad')
    decided(why.of('1-7'), 'hotplug-added', 'left-alone', 'gamepad-joystick')
    plug_card(tv, 'Ondetect info end', **KNOWN_PAD)
    decided(why.of('054c:09cc'), 'hotplug-added', 'left-alone', 'gamepad-known-ids')

    tv.plug('headset2')
    fresh = why.wait('H390 USB Headset', sent, '"Start" for the fresh plug')
    decided(fresh, 'hotplug-added', 'took-sound', 'detected-after-core', detected_ms=120000,
            core_init_ms=2100, usb_audio_mode=False, using_count=0, attached_count=1)
    assert (fresh['device']['card'], fresh['start']['sent'], fresh['start']['listed']) == (2, True, True)
    assert plain_words(
        'H390 USB Headset (Logitech, 046d:0a44, port 1-2, card 2): took the sound when it was plugged in '
        'at {t}. The kernel log shows it detected 117.9 s after the USB core came up, more than 5 s: the '
        'viewer plugged it in. "Start" for card 2 went out {ms} later; the audio server listed the card '
        'at the first ask ({ms}).').fullmatch(why.words('046d:0a44'))
    # Its route gives the sound to the headset attached since boot too, which the next plug counts.
    decided(why.wait('1-1', lambda v: v['outcome'] == 'took-sound', 'the unmute of route 15'),
            'route-change', 'took-sound', 'route-usb', route=15)

    tv.plug('headset3')
    decided(why.of('1-3'), 'hotplug-added', 'waits', 'no-free-place', usb_audio_mode=True, using_count=2,
            attached_count=2)
    tv.unplug('headset2')
    freed = why.of('1-3')
    decided(freed, 'hotplug-removed', 'took-sound', 'freed-place', using_count=1)
    assert freed['cause'] == 'H390 USB Headset'
    assert why.of('1-2')['plugged'] is False

    tv.plug('astro')
    decided(why.of('Astro A20'), 'hotplug-added', 'not-supported', 'astro-name', usb_audio_mode=True)
    tv.plug('webcam', until='camera device')
    decided(why.of('HD Pro Webcam C920'), 'hotplug-added', 'left-alone', 'camera-name')
    tv.plug('vendor-audio', until='Not audio deveice')
    decided(why.of('1-6'), 'hotplug-added', 'left-alone', 'not-audio-interface', interface_class=255)

    # Standby releases the two headsets in use; what is plugged meanwhile, and in the three
    # seconds before the devices are looked at again, is dropped.
    mark = tv.daemon.log.mark()
    tv.services.change_power(4)
    for port in ('1-1', '1-3'):
        decided(why.wait(port, lambda v: v['outcome'] == 'released', 'the release at standby'),
                'power-change', 'released', 'standby', power_state=4)
    tv.plug('headset2', at=LATER + 30, until='power state is not normal')
    decided(why.of('1-2'), 'hotplug-added', 'dropped', 'power-state-not-normal', power_state=4)
    tv.services.change_power(0)
    tv.daemon.wait_for_log('launch delay timer', since=mark)
    tv.plug('twin-a', at=LATER + 40, until='delay to check usb device timer exist')
    tv.daemon.wait_for_log('switch to usb speaker as it is usb audio mode...', since=mark, timeout=15)
    resumed_at = tv.daemon.log.mark()
    [pending] = [d for d in why.history() if d['rule'] == 'resume-pending']
    assert pending['device']['product'] == 'USB Speaker' and pending['event'] == 'hotplug-added'
    assert 0 <= pending['inputs']['uptime_ms'] - pending['inputs']['power_changed_ms'] < 3000
    resumed = [v for v in why.verdicts() if v['event'] == 'resume-enumeration']
    assert sorted((v['outcome'], v['rule']) for v in resumed if v['device']['port'] in
                  ('1-1', '1-2', '1-3', '2-1.1')) == [('took-sound', 'usb-audio-mode')] * 2 + \
        [('waits', 'no-free-place')] * 2
    assert {v['device']['port']: v['rule'] for v in resumed if v['outcome'] == 'left-alone'} == {
        '1-4': 'camera-name', '1-6': 'not-audio-interface', '1-7': 'gamepad-joystick',
        '1-8': 'gamepad-known-ids'}

    # A second after the resume's look the gamepad library is asked: it lists the joystick.
    tv.daemon.wait_for_log('register gamepad cb : 1', since=resumed_at, timeout=10)
    plug_card(tv, 'Ondetect info end', **LISTED_PAD)
    decided(why.of('1-10'), 'hotplug-added', 'left-alone', 'gamepad-list-ids')

    tv.services.user_sets_route(7)
    def both_released():
        released = [v for v in why.verdicts() if v['outcome'] == 'released']
        return released if len(released) == 2 else None
    for verdict in wait_until(both_released, what='the release of both headsets for route 7'):
        decided(verdict, 'route-change', 'released', 'route-not-usb', route=7)

    # Within 5 s of a power change a detection counts as caused by it.
    mark = tv.daemon.log.mark()
    tv.services.change_power(1)
    tv.daemon.wait_for_log('power on pre state : 0, cur state: 1', since=mark)
    tv.plug('twin-b', at=LATER + 60)
    power = why.of('2-1.2')
    decided(power, 'hotplug-added', 'present-at-resume', 'power-change', detected_ms=(LATER + 60) * 1000,
            usb_audio_mode=False)
    assert 0 <= power['inputs']['uptime_ms'] - power['inputs']['power_changed_ms'] < 5000

    # The D-Bus method gives what hadrixctl prints.
    connection = tv.bus.connect()
    verdicts = connection.call_blocking(SERVER_NAME, DIAGNOSTICS_PATH, DIAGNOSTICS_IFACE, 'GetVerdicts',
                                        '', [], timeout=5)
    assert as_plain(verdicts) == why.verdicts()

    # A stop right after a decision saves it; the next start reads the history back.
    before = why.history()
    assert before[-1]['seq'] == power['seq']
    assert tv.daemon.stop() == 0
    tv.start()
    assert why.history()[:len(before)] == before


def test_at_start_up_a_device_plugged_well_after_boot_switches_the_sound_for_the_first_two(tv, hadrixctl):
    """A device found at start-up whose detection came well after the USB core's start was plugged
    by the viewer while the service did not run: it switches the sound, which the first two take."""
    why = Why(hadrixctl)
    plug(tv.bed, 'headset2', tv.log, LATER)
    tv.start('switch to usb speaker...', boot=['headset'], cards=(1, 2))
    [boot, late, other] = [d for d in why.history() if d['event'] == 'startup-enumeration']
    decided(boot, 'startup-enumeration', 'present-at-boot', 'detected-with-core', detected_ms=3500)
    assert boot['device']['port'] == '1-1'
    by_port = {late['device']['port']: late, other['device']['port']: other}
    decided(by_port['1-2'], 'startup-enumeration', 'took-sound', 'detected-after-core', detected_ms=120000,
            core_init_ms=2100)
    decided(by_port['1-1'], 'startup-enumeration', 'took-sound', 'first-two-at-switch')
    assert by_port['1-1']['cause'] == 'H390 USB Headset'
    assert why.of('1-1')['rule'] == 'first-two-at-switch'
