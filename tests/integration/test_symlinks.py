"""A symbolic link planted, before the service runs, at each path the service writes, pointing
at a file of someone else (the victim) or at a victim's place where nothing is yet: the victim
is never written, created or touched, and the service carries on. At each path the service
either replaces the link by its own file or declines to write there, logging why (or, for a
marker, takes the link as the marker being there).

Every file the service or its host platform writes:

| Path | Written by |
|---|---|
| /home/owner/apps_rw/hadrix/data/devices.depot | the depot save, half a second after the device list changes |
| /home/owner/apps_rw/hadrix/data/.subscriber | a client's subscribe or unsubscribe |
| /home/owner/apps_rw/hadrix/data/USB_AUDIO_mode | the TV sound going to a USB headset |
| /var/log/hadrix/kpi.jsonl | KPI events (appended), e.g. a new connected device |
| /tmp/hadrix.running | the first start since boot |
| /tmp/dmesg.txt.success, /tmp/dmesg.txt.err.<n> | every kernel-log analysis (a usable log, a failed attempt) |
| /tmp/usb_devices_uptime_<uptime ms> | the start-up enumeration finding devices (the kernel's USB table) |
| settings keys, one file each | the settings store (db/hadrix/volume_mute_status at the first start, db/hadrix/volume_level on a volume change, ...) |
"""
import os
import re
import time
from dataclasses import dataclass
from typing import Callable

import pytest

from simtv.bus import HADRIX_BUS_NAME, launch
from simtv.client_api import SERVER_IFACE, SERVER_NAME, SERVER_PATH
from simtv.devices import plug
from simtv.wait import WaitTimeout

AT_BOOT = 3.5
LATER = 120.0
VICTIM_TEXT = 'precious\n'
VICTIM_MTIME_NS = 1_000_000_000 * 10**9
# The start-up enumeration writes the kernel's USB table within this many ms of the test
# planting its links (the name holds the uptime, so every name of the span gets one).
USB_TABLE_SPAN_MS = 30_000
USB_TABLE = 'T:  Bus=01 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  3 Spd=12   MxCh= 0\n' \
            'P:  Vendor=0b0e ProdID=0300 Rev= 1.00\n'


class Tv:
    """The TV with its platform services; the service is started by a scenario."""

    def __init__(self, platform_services, kernel_log, testbed, daemon, system_bus, hadrix_root):
        self.kernel_log = kernel_log
        self.testbed = testbed
        self.daemon = daemon
        self.bus = system_bus
        self.root = hadrix_root
        self.services = platform_services(cards=[1, 2])
        self.hadrix = None

    def start(self, headset_at_boot):
        if headset_at_boot:
            plug(self.testbed, 'headset', self.kernel_log, AT_BOOT)
        self.hadrix = self.daemon.start()
        if headset_at_boot:
            # The end of the start-up enumeration: its broadcast to clients.
            self.hadrix.wait_for_log('m_SendEventToClient end', timeout=15)
        return self.hadrix

    def plug_later(self, name):
        mark = self.hadrix.log.mark()
        plug(self.testbed, name, self.kernel_log, LATER)
        self.hadrix.wait_for_log('Ondetect info end', since=mark, timeout=10)

    def api(self, method, argument):
        self.bus.wait_for_name(SERVER_NAME)
        return self.bus.connect().call_blocking(SERVER_NAME, SERVER_PATH, SERVER_IFACE, method,
                                                's', [argument], timeout=5)


# Scenarios: each runs the service up to the point where it has written, or declined to write,
# the file of its case.

def boot_with_a_headset(tv):
    tv.start(headset_at_boot=True)


def boot_then_a_headset_plugged_by_the_viewer(tv):
    tv.start(headset_at_boot=True)
    tv.plug_later('headset2')


def boot_with_an_unusable_kernel_log(tv):
    tv.kernel_log.path.write_text('<5>[0.000000] Booting Linux on physical CPU 0x0\n')
    tv.start(headset_at_boot=False)


def boot_with_the_kernel_usb_table(tv):
    table = os.path.join(tv.testbed.root, 'sys/kernel/debug/usb/devices')
    os.makedirs(os.path.dirname(table), exist_ok=True)
    with open(table, 'w') as out:
        out.write(USB_TABLE)
    tv.start(headset_at_boot=True)


def a_client_subscribes(tv):
    tv.start(headset_at_boot=False)
    assert str(tv.api('SubscribeHadrixServiceCallback', 'org.example.player')) == \
        'objorg.example.player'


def a_volume_step(tv):
    tv.start(headset_at_boot=False)
    tv.hadrix.wait_for_log('m_DeviceInit out', timeout=10)
    launch(tv.bus.connect(), HADRIX_BUS_NAME, 'default', [('localFileData', 'volumeUp')])


@dataclass
class Case:
    planted: Callable  # Tv -> {the path as the service names it: its host path}
    scenario: Callable
    # A regular expression for the service's log line saying it went for the file (a group
    # "path" naming it, where several links are planted), or None when the scenario's end says
    # so.
    attempt: str
    # A regular expression for the whole message the service logs when it declines to write
    # there ({} is the path as the service names it).
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
    'depot': Case(service_path('/home/owner/apps_rw/hadrix/data/devices.depot'),
                  boot_with_a_headset, WRITE.format(r'/home/\S+/devices\.depot'),
                  OPEN_FAILED),
    'subscriber-file': Case(service_path('/home/owner/apps_rw/hadrix/data/.subscriber'),
                            a_client_subscribes, None, 'symbolic link is detected'),
    'usb-audio-mode-marker': Case(service_path('/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'),
                                  boot_then_a_headset_plugged_by_the_viewer,
                                  'SetUSBAudioMode enter : 1', MARKER_THERE_OR_REFUSED),
    'kpi-log': Case(service_path('/var/log/hadrix/kpi.jsonl'),
                    boot_then_a_headset_plugged_by_the_viewer,
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
    'mute-setting': Case(setting('db/hadrix/volume_mute_status'), boot_with_a_headset,
                         'usb sound service first launch', SETTING_REFUSED),
    'volume-setting': Case(setting('db/hadrix/volume_level'), a_volume_step,
                           re.escape('ChangeVolume step:[1],bUp:[1]'), SETTING_REFUSED),
}


@pytest.fixture
def tv(platform_services, kernel_log, testbed, daemon, system_bus, hadrix_root):
    kernel_log.boot()
    return Tv(platform_services, kernel_log, testbed, daemon, system_bus, hadrix_root)


def plant(links, victim):
    for link in links:
        link.parent.mkdir(parents=True, exist_ok=True)
        os.symlink(victim, link)


def victim_state(victim):
    if not victim.exists():
        return None
    return victim.read_text(), victim.stat().st_mtime_ns


@pytest.mark.timeout(90)
@pytest.mark.parametrize('victim_exists', [True, False], ids=['victim', 'dangling'])
@pytest.mark.parametrize('case', CASES.values(), ids=CASES.keys())
def test_a_planted_link_is_never_written_through(tv, tmp_path, case, victim_exists):
    victim = tmp_path / 'victim'
    if victim_exists:
        victim.write_text(VICTIM_TEXT)
        os.utime(victim, ns=(VICTIM_MTIME_NS, VICTIM_MTIME_NS))
    before = victim_state(victim)
    links = case.planted(tv)
    plant(links.values(), victim)

    case.scenario(tv)
    hadrix = tv.hadrix
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
    assert str(tv.api('check_dbus_connection', 'org.example.probe')) == 'objorg.example.probe'
    assert hadrix.stop() == 0
    assert victim_state(victim) == before
    print(f'{target.name}: {outcome}')
