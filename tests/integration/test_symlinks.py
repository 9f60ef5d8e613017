"""A symbolic link planted, before the service runs, at each path the service or its host
platform writes (CASES), pointing at someone else's file (the victim) or where the victim would
be: the victim is never written, created or touched, and the service carries on. It either
replaces the link by its own file or declines to write there, logging why (or, for a marker,
takes the link as the marker being there)."""
import os
import re
import time
from dataclasses import dataclass
from typing import Callable

import pytest

from conftest import DECISIONS, DEPOT, KPI_FILE, MUTE_KEY, SUBSCRIBER_FILE, USB_AUDIO_MODE
from simtv.bus import HADRIX_BUS_NAME, launch
from simtv.wait import WaitTimeout

VICTIM_MTIME_NS = 1_000_000_000 * 10**9
# The start-up enumeration writes the kernel's USB table within this many ms of the test
# planting its links (the name holds the uptime, so every name of the span gets one).
USB_TABLE_SPAN_MS = 30_000


# Scenarios: each runs the service up to where it has written, or declined to write, its file.

def boot_with_a_headset(tv):
    tv.start('m_SendEventToClient end', boot=['headset'], cards=[1, 2])


def boot_then_a_headset_plugged_by_the_viewer(tv):
    boot_with_a_headset(tv)
    tv.plug('headset2')


def boot_with_an_unusable_kernel_log(tv):
    tv.log.path.write_text('<5>[0.000000] Booting Linux on physical CPU 0x0\n')
    tv.start(cards=[1, 2])


def boot_with_the_kernel_usb_table(tv):
    table = os.path.join(tv.bed.root, 'sys/kernel/debug/usb/devices')
    os.makedirs(os.path.dirname(table), exist_ok=True)
    with open(table, 'w') as out:
        out.write('T:  Bus=01 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  3 Spd=12   MxCh= 0\n'
                  'P:  Vendor=0b0e ProdID=0300 Rev= 1.00\n')
    boot_with_a_headset(tv)


def boot_until_the_decisions_are_saved(tv):
    """The decision taken at start-up is saved half a second later."""
    boot_with_a_headset(tv)
    saved = tv.root / DECISIONS
    tv.daemon.wait_until(lambda: saved.is_file() and not saved.is_symlink(), what='the decisions saved')


def a_client_subscribes(tv):
    tv.start(cards=[1, 2])
    assert str(tv.call('SubscribeHadrixServiceCallback', 's', 'org.example.player')) == \
        'objorg.example.player'


def a_volume_step(tv):
    tv.start('m_DeviceInit out', cards=[1, 2])
    launch(tv.bus.connect(), HADRIX_BUS_NAME, 'default', [('localFileData', 'volumeUp')])


@dataclass
class Case:
    planted: Callable  # Tv -> {the path as the service names it: its host path}
    scenario: Callable
    # The log line (a regular expression) saying the service went for the file, its group
    # "path" naming it where several links are planted; None when the scenario's end says so.
    attempt: str
    # The whole message logged when the service declines to write there ({}: the path).
    declined: str


def service_path(path):
    return lambda tv: {path: tv.root / path}


def setting(key):
    return lambda tv: {key: tv.root.setting_path(key)}


def usb_table_names(tv):
    now = int(time.monotonic() * 1000) & 0xFFFFFFFF
    names = (f'/tmp/usb_devices_uptime_{now + ms}' for ms in range(USB_TABLE_SPAN_MS))
    return {name: tv.root / name for name in names}


WRITE = r'write to file (?P<path>{})  size'
OPEN_FAILED = 'open file error'
MARKER_THERE_OR_REFUSED = r'(file )?{} exist|open {} fail: .*'
SETTING_REFUSED = r'fail to vconfkey {}\[\d+\]'
CASES = {
    'depot': Case(service_path(DEPOT), boot_with_a_headset,
                  WRITE.format(r'/home/\S+/devices\.depot'), OPEN_FAILED),
    'subscriber-file': Case(service_path(SUBSCRIBER_FILE), a_client_subscribes, None,
                            'symbolic link is detected'),
    # Refused when read at start (the link is moved aside, not followed), replaced when saved.
    'decision-history': Case(service_path(DECISIONS), boot_until_the_decisions_are_saved, None, ''),
    'usb-audio-mode-marker': Case(service_path(USB_AUDIO_MODE),
                                  boot_then_a_headset_plugged_by_the_viewer,
                                  'SetUSBAudioMode enter : 1', MARKER_THERE_OR_REFUSED),
    'kpi-log': Case(service_path(KPI_FILE), boot_then_a_headset_plugged_by_the_viewer,
                    WRITE.format(r'/var/log/hadrix/kpi\.jsonl'), OPEN_FAILED),
    'running-marker': Case(service_path('/tmp/hadrix.running'), boot_with_a_headset,
                           re.escape('try to usb_device_list_get 1 tail.'), MARKER_THERE_OR_REFUSED),
    'kernel-log-copy': Case(service_path('/tmp/dmesg.txt.success'), boot_with_a_headset,
                            WRITE.format(r'/tmp/dmesg\.txt\.success'), OPEN_FAILED),
    'kernel-log-failed-copy': Case(service_path('/tmp/dmesg.txt.err.1'),
                                   boot_with_an_unusable_kernel_log,
                                   WRITE.format(r'/tmp/dmesg\.txt\.err\.1'), OPEN_FAILED),
    'usb-device-table': Case(usb_table_names, boot_with_the_kernel_usb_table,
                             WRITE.format(r'/tmp/usb_devices_uptime_\d+'), OPEN_FAILED),
    'mute-setting': Case(setting(MUTE_KEY), boot_with_a_headset,
                         'usb sound service first launch', SETTING_REFUSED),
    'volume-setting': Case(setting('db/hadrix/volume_level'), a_volume_step,
                           re.escape('ChangeVolume step:[1],bUp:[1]'), SETTING_REFUSED),
}


def victim_state(victim):
    return (victim.read_text(), victim.stat().st_mtime_ns) if victim.exists() else None


@pytest.mark.timeout(90)
@pytest.mark.parametrize('victim_exists', [True, False], ids=['victim', 'dangling'])
@pytest.mark.parametrize('case', CASES.values(), ids=CASES.keys())
def test_a_planted_link_is_never_written_through(tv, tmp_path, case, victim_exists):
    victim = tmp_path / 'victim'
    if victim_exists:
        victim.write_text('precious\n')
        os.utime(victim, ns=(VICTIM_MTIME_NS, VICTIM_MTIME_NS))
    before = victim_state(victim)
    links = case.planted(tv)
    for link in links.values():
        link.parent.mkdir(parents=True, exist_ok=True)
        os.symlink(victim, link)

    case.scenario(tv)
    hadrix = tv.daemon
    name = next(iter(links))
    if case.attempt:
        attempt = hadrix.wait_for_log(re.compile(case.attempt), timeout=15)
        name = re.search(case.attempt, attempt.message).groupdict().get('path') or name
        assert name in links, f'the service wrote {name}, where no link was planted'
    target = links[name]
    declined = re.compile(case.declined.replace('{}', re.escape(name)))
    try:
        outcome = hadrix.wait_until(
            lambda: ('replaced' if not target.is_symlink() else
                     'declined' if hadrix.log.find(lambda r: declined.fullmatch(r.message)) else
                     None), timeout=10)
    except WaitTimeout:
        outcome = None

    assert victim_state(victim) == before, f'the victim was written through {target}'
    assert outcome, f'{target} neither replaced nor a refusal matching {declined.pattern!r}'
    if outcome == 'replaced':
        assert target.is_file() and not target.is_symlink()
    else:
        assert os.readlink(target) == str(victim)
    # The service carries on: it answers its clients and ends normally.
    assert str(tv.call('check_dbus_connection', 's', 'org.example.probe')) == 'objorg.example.probe'
    assert hadrix.stop() == 0
    assert victim_state(victim) == before
