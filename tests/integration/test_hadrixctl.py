"""hadrixctl, the command-line client: what it prints and how it exits, against the real daemon
on the test's bus, with a USB headset in the umockdev testbed."""
import re
import signal

from conftest import LEVEL_KEY, SUBSCRIBER_FILE

COLUMNS = ['SELECTED', 'TYPE', 'STATUS', 'VOLUME', 'PRODUCT', 'MANUFACTURER']
HEADSET_ROW = {'SELECTED': 'yes', 'TYPE': 'USB Headphone', 'STATUS': 'connected', 'VOLUME': '35',
               'PRODUCT': 'Evolve 20 (USB)', 'MANUFACTURER': 'Jabra'}


def device_rows(lines):
    """The device lines of `devices` output as dicts by column (two blanks or more apart)."""
    assert lines[0].split() == COLUMNS, lines
    return [dict(zip(COLUMNS, re.split(r'\s{2,}', line.strip()))) for line in lines[1:]]


def test_devices_lists_the_headset_carrying_the_sound(tv, hadrixctl):
    tv.root.set_setting(LEVEL_KEY, 35)
    tv.start('switch to usb speaker as it is usb audio mode...', boot=['headset'],
             usb_audio_mode=True)
    status, lines = hadrixctl.lines('devices')
    assert status == 0 and device_rows(lines) == [HEADSET_ROW]


def test_monitor_prints_the_signals_and_the_list_after_a_plug(tv, launcher, hadrixctl):
    tv.root.set_setting(LEVEL_KEY, 35)
    tv.start('No devices found.')
    assert hadrixctl.lines('devices') == (0, ['no USB audio devices'])
    monitor = launcher.start(hadrixctl.path, ['monitor'], label='hadrixctl-monitor')
    monitor.wait_for_output('watching for changes')
    assert monitor.out.lines() == ['no USB audio devices', 'watching for changes']
    mark = monitor.out.mark()

    tv.plug('headset')
    monitor.wait_for_output('Evolve 20 (USB)', since=mark)
    lines = monitor.out.lines(since=mark)
    assert lines[:2] == ['signal Notify_client_message {123: 321}', 'signal send_message 10']
    assert device_rows(lines[2:]) == [HEADSET_ROW]
    assert monitor.stop(signal.SIGTERM) == 0


def test_ping_subscribe_unsubscribe_and_debug_reach_the_service(tv, hadrixctl):
    tv.start('m_DeviceInit out')
    assert hadrixctl.lines('ping') == (0, ['objhadrixctl'])
    assert hadrixctl.lines('ping', 'org.example.player') == (0, ['objorg.example.player'])
    assert hadrixctl.lines('subscribe', 'org.example.player') == (0, ['objorg.example.player'])
    assert hadrixctl.lines('unsubscribe', 'org.example.player') == (0, ['objorg.example.player'])
    refused = hadrixctl('subscribe', 'two words')
    assert refused.returncode == 1 and 'SubscribeHadrixServiceCallback failed' in refused.stderr
    assert tv.root.read(SUBSCRIBER_FILE) == ''

    tv.services.audio.clear_calls()
    assert hadrixctl.lines('debug', 'audio_control', 'setUsbOutGain') == (0, [
        "sent audio_control=setUsbOutGain to org.nimbos.hadrix; the result is in the service's "
        "log"])
    assert tv.services.audio.wait_for_calls('SetUsbOutGain') == [('SetUsbOutGain', [20])]


def test_every_command_fails_with_exit_1_without_the_service_or_the_bus(system_bus, hadrixctl,
                                                                        tmp_path):
    for args in (['devices'], ['monitor'], ['subscribe', 'app.a'], ['unsubscribe', 'app.a'],
                 ['ping'], ['debug', 'pulse', 'off']):
        result = hadrixctl(*args)
        assert (result.returncode, result.stdout) == (1, ''), args
        assert 'hadrix is not running' in result.stderr, args
    result = hadrixctl('ping', env={'DBUS_SYSTEM_BUS_ADDRESS': f'unix:path={tmp_path}/none'})
    assert result.returncode == 1 and 'cannot reach the system bus' in result.stderr


def test_bad_usage_exits_2_with_the_usage_and_help_goes_to_standard_output(hadrixctl):
    for args, problem in [([], 'no command given'), (['status'], 'unknown command "status"'),
                          (['subscribe'], 'missing argument'),
                          (['ping', 'a', 'b'], 'too many arguments'),
                          (['devices', 'all'], 'too many arguments'),
                          (['debug', 'pulse'], 'missing argument'),
                          (['debug', 'reboot', 'now'], 'unknown debug key "reboot"')]:
        result = hadrixctl(*args)
        assert (result.returncode, result.stdout) == (2, ''), args
        assert result.stderr.startswith(f'hadrixctl: {problem}\n'), result.stderr
        assert 'Usage: hadrixctl' in result.stderr
    for args, usage in [(['--help'], 'Usage: hadrixctl COMMAND [ARGUMENTS]'),
                        (['debug', '--help'], 'Usage: hadrixctl debug KEY VALUE'),
                        (['monitor', '-h'], 'Usage: hadrixctl monitor')]:
        result = hadrixctl(*args)
        assert result.returncode == 0 and result.stdout.startswith(usage + '\n'), args
        assert 'Exit status: 0 done, 1 ' in result.stdout
