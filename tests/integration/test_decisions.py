"""Why the service did what it did, end to end: the decision records of the real daemon on a
simulated TV — the kernel log's times read through klogctl, "Start" answered by the audio server
on the bus — as `hadrixctl why` and `history` show them, as the diagnostics D-Bus interface
serves them, and as the file keeps them across a restart. Which rule each outcome records is
proven in-process (tests/unit/core, `Decided`), the records' words and the history's bounds and
file in tests/unit/decisions."""
import json
import re

import dbus

from simtv.client_api import SERVER_NAME
from simtv.wait import wait_until

DIAGNOSTICS_PATH = '/org/nimbos/hadrix/Diagnostics'
DIAGNOSTICS_IFACE = 'org.nimbos.hadrix.Diagnostics'


def why(hadrixctl, *args, json_form=True):
    result = hadrixctl('why', *args, *(['--json'] if json_form else []))
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout) if json_form else result.stdout


def decided(record, event, outcome, rule, **inputs):
    assert (record['event'], record['outcome'], record['rule']) == (event, outcome, rule), record
    for key, value in inputs.items():
        assert record['inputs'].get(key) == value, (key, record)


def plain_words(template):
    """The paragraph, its time of day ({t}) and milliseconds ({ms}) left open."""
    pattern = re.escape(template).replace(re.escape('{t}'), r'\d\d:\d\d:\d\d')
    return re.compile(pattern.replace(re.escape('{ms}'), r'\d+ ms') + '\n')


def as_plain(value):
    """A dbus-python value as json.loads gives it."""
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, dict):
        return {str(key): as_plain(member) for key, member in value.items()}
    if isinstance(value, list):
        return [as_plain(member) for member in value]
    return str(value) if isinstance(value, str) else int(value)


def test_a_fresh_plug_is_explained_on_the_bus_and_by_hadrixctl_and_outlives_a_restart(tv, hadrixctl):
    tv.start('Not switch to usb speaker...', boot=['headset'], cards=(1, 2))
    [boot] = why(hadrixctl, 'Evolve 20')
    decided(boot, 'startup-enumeration', 'present-at-boot', 'detected-with-core', detected_ms=3500,
            core_init_ms=2100, power_changed_ms=-1, usb_audio_mode=False)

    tv.plug('headset2')
    fresh = wait_until(lambda: next((v for v in why(hadrixctl, '1-2') if not v['start']['pending']), None),
                       timeout=10, what='"Start" for the fresh plug')
    decided(fresh, 'hotplug-added', 'took-sound', 'detected-after-core', detected_ms=120000,
            core_init_ms=2100, usb_audio_mode=False, using_count=0, attached_count=1)
    assert (fresh['device']['card'], fresh['start']['sent'], fresh['start']['listed']) == (2, True, True)
    assert plain_words(
        'H390 USB Headset (Logitech, 046d:0a44, port 1-2, card 2): took the sound when it was plugged in '
        'at {t}. The kernel log shows it detected 117.9 s after the USB core came up, more than 5 s: the '
        'viewer plugged it in. "Start" for card 2 went out {ms} later; the audio server listed the card '
        'at the first ask ({ms}).').fullmatch(why(hadrixctl, '046d:0a44', json_form=False))

    # The D-Bus method gives what hadrixctl prints.
    verdicts = tv.bus.connect().call_blocking(SERVER_NAME, DIAGNOSTICS_PATH, DIAGNOSTICS_IFACE, 'GetVerdicts',
                                              '', [], timeout=5)
    assert as_plain(verdicts) == why(hadrixctl)

    # A stop right after a decision saves it; the next start reads the history back.
    history = json.loads(hadrixctl('history', '--json').stdout)
    assert fresh['seq'] in [decision['seq'] for decision in history]
    assert tv.daemon.stop() == 0
    tv.start()
    assert json.loads(hadrixctl('history', '--json').stdout)[:len(history)] == history
