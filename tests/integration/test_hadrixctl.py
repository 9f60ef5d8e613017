"""hadrixctl, the command-line client: what it prints and how it exits, against the real daemon
on the test's bus, with a USB headset in the umockdev testbed."""
import re
import signal

import pytest

from simtv.client_api import SERVER_NAME
from simtv.devices import plug

USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
SUBSCRIBER_FILE = '/home/owner/apps_rw/hadrix/data/.subscriber'
LEVEL_KEY = 'db/hadrix/volume_level'
COLUMNS = ['SELECTED', 'TYPE', 'STATUS', 'VOLUME', 'PRODUCT', 'MANUFACTURER']
LATER = 120.0
AT_BOOT = 3.5
NOT_RUNNING = 'hadrix is not running'


def device_rows(lines):
    """The device lines of `devices` output as dicts by column; columns are at least two blanks
    apart."""
    assert lines[0].split() == COLUMNS, lines
    return [dict(zip(COLUMNS, re.split(r'\s{2,}', line.strip()))) for line in lines[1:]]


@pytest.fixture
def tv(platform_services, kernel_log, testbed, system_bus, daemon, hadrix_root):
    kernel_log.boot()

    class TV:
        root = hadrix_root

        def start(self, headset_at_boot=False):
            """With headset_at_boot, in USB audio mode with a headset there: it carries the
            sound once start-up is done."""
            self.services = platform_services(cards=[1])
            if headset_at_boot:
                self.root.write(USB_AUDIO_MODE, '')
                plug(testbed, 'headset', kernel_log, AT_BOOT)
            self.daemon = daemon.start()
            system_bus.wait_for_name(SERVER_NAME)
            return self.daemon

        def plug(self, name):
            mark = self.daemon.log.mark()
            device = plug(testbed, name, kernel_log, LATER)
            self.daemon.wait_for_log('Ondetect info end', since=mark, timeout=10)
            return device

    return TV()


def test_devices_lists_the_headset_carrying_the_sound(tv, hadrixctl):
    tv.root.set_setting(LEVEL_KEY, 35)
    tv.start(headset_at_boot=True)
    tv.daemon.wait_for_log('switch to usb speaker as it is usb audio mode...', timeout=20)

    status, lines = hadrixctl.lines('devices')

    assert status == 0
    assert device_rows(lines) == [{'SELECTED': 'yes', 'TYPE': 'USB Headphone', 'STATUS': 'connected',
                                   'VOLUME': '35', 'PRODUCT': 'Evolve 20 (USB)',
                                   'MANUFACTURER': 'Jabra'}]


def test_devices_says_so_when_there_are_none(tv, hadrixctl):
    tv.start()
    assert hadrixctl.lines('devices') == (0, ['no USB audio devices'])


def test_monitor_prints_the_signals_and_the_list_after_a_plug(tv, launcher, hadrixctl):
    tv.root.set_setting(LEVEL_KEY, 35)
    tv.start()
    tv.daemon.wait_for_log('No devices found.', timeout=20)
    monitor = launcher.start(hadrixctl.path, ['monitor'], label='hadrixctl-monitor')
    monitor.wait_for_output('watching for changes')
    assert monitor.out.lines() == ['no USB audio devices', 'watching for changes']
    mark = monitor.out.mark()

    tv.plug('headset')

    monitor.wait_for_output('Evolve 20 (USB)', since=mark)
    lines = monitor.out.lines(since=mark)
    assert lines[:2] == ['signal Notify_client_message {123: 321}', 'signal send_message 10']
    assert device_rows(lines[2:]) == [{'SELECTED': 'yes', 'TYPE': 'USB Headphone',
                                       'STATUS': 'connected', 'VOLUME': '35',
                                       'PRODUCT': 'Evolve 20 (USB)', 'MANUFACTURER': 'Jabra'}]
    assert monitor.stop(signal.SIGTERM) == 0


def test_subscribe_and_unsubscribe_change_the_subscriber_file(tv, hadrixctl):
    tv.start()
    assert hadrixctl.lines('subscribe', 'org.example.player') == (0, ['objorg.example.player'])
    assert tv.root.read(SUBSCRIBER_FILE) == 'org.example.player objorg.example.player\n'
    assert hadrixctl.lines('unsubscribe', 'org.example.player') == (0, ['objorg.example.player'])
    assert tv.root.read(SUBSCRIBER_FILE) == ''

    refused = hadrixctl('subscribe', 'two words')
    assert refused.returncode == 1
    assert 'SubscribeHadrixServiceCallback failed' in refused.stderr
    assert tv.root.read(SUBSCRIBER_FILE) == ''


def test_ping_returns_the_service_reply(tv, hadrixctl):
    tv.start()
    assert hadrixctl.lines('ping') == (0, ['objhadrixctl'])
    assert hadrixctl.lines('ping', 'org.example.player') == (0, ['objorg.example.player'])


def test_debug_sends_one_command_as_a_launch_request(tv, hadrixctl):
    tv.start()
    tv.daemon.wait_for_log('m_DeviceInit out', timeout=10)
    audio = tv.services.audio
    audio.clear_calls()

    status, lines = hadrixctl.lines('debug', 'audio_control', 'setUsbOutGain')

    assert status == 0
    assert lines == ["sent audio_control=setUsbOutGain to org.nimbos.hadrix; the result is in the "
                     "service's log"]
    assert audio.wait_for_calls('SetUsbOutGain') == [('SetUsbOutGain', [20])]


@pytest.mark.parametrize('args', [
    ['devices'], ['monitor'], ['subscribe', 'app.a'], ['unsubscribe', 'app.a'], ['ping'],
    ['debug', 'pulse', 'off'],
])
def test_every_command_fails_with_exit_1_when_the_service_is_not_running(system_bus, hadrixctl, args):
    result = hadrixctl(*args)
    assert result.returncode == 1
    assert NOT_RUNNING in result.stderr
    assert result.stdout == ''


def test_no_system_bus_is_a_failure_not_a_hang(hadrixctl, tmp_path):
    result = hadrixctl('ping', env={'DBUS_SYSTEM_BUS_ADDRESS': f'unix:path={tmp_path}/none'})
    assert result.returncode == 1
    assert 'cannot reach the system bus' in result.stderr


@pytest.mark.parametrize('args, problem', [
    ([], 'no command given'),
    (['status'], 'unknown command "status"'),
    (['subscribe'], 'missing argument'),
    (['ping', 'a', 'b'], 'too many arguments'),
    (['devices', 'all'], 'too many arguments'),
    (['debug', 'pulse'], 'missing argument'),
    (['debug', 'reboot', 'now'], 'unknown debug key "reboot"'),
])
def test_bad_usage_exits_2_with_the_usage(hadrixctl, args, problem):
    result = hadrixctl(*args)
    assert result.returncode == 2
    assert result.stderr.startswith(f'hadrixctl: {problem}\n')
    assert 'Usage: hadrixctl' in result.stderr
    assert result.stdout == ''


@pytest.mark.parametrize('args, usage', [
    (['--help'], 'Usage: hadrixctl COMMAND [ARGUMENTS]'),
    (['debug', '--help'], 'Usage: hadrixctl debug KEY VALUE'),
    (['monitor', '-h'], 'Usage: hadrixctl monitor'),
])
def test_help_goes_to_standard_output(hadrixctl, args, usage):
    result = hadrixctl(*args)
    assert result.returncode == 0
    assert result.stdout.startswith(usage + '\n')
    assert 'Exit status: 0 done, 1 ' in result.stdout
