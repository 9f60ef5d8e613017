"""hadrixctl, the command-line client: what it prints and how it exits, against the real daemon
on the test's bus, with a USB headset in the umockdev testbed."""
import json
import re
import signal

import dbus
import pytest

from conftest import LEVEL_KEY, SUBSCRIBER_FILE
from simtv.client_api import SERVER_NAME

COLUMNS = ['SELECTED', 'TYPE', 'STATUS', 'VOLUME', 'PRODUCT', 'MANUFACTURER']
HEADSET_ROW = {'SELECTED': 'yes', 'TYPE': 'USB Headphone', 'STATUS': 'connected', 'VOLUME': '35',
               'PRODUCT': 'Evolve 20 (USB)', 'MANUFACTURER': 'Jabra'}


def device_rows(lines):
    """The device lines of `devices` output as dicts by column (two blanks or more apart)."""
    assert lines[0].split() == COLUMNS, lines
    return [dict(zip(COLUMNS, re.split(r'\s{2,}', line.strip()))) for line in lines[1:]]


def test_monitor_prints_the_signals_decisions_and_the_list_after_a_plug(tv, launcher, hadrixctl):
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
    decisions = [line for line in lines if line.startswith('decision ')]
    assert re.match(r'decision \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}  #1  Evolve 20 \(Jabra, 0b0e:0300, '
                    r'port 1-1, card 1\): took the sound when it was plugged in\. ', decisions[0])
    lines = [line for line in lines if line not in decisions]
    assert lines[:2] == ['signal Notify_client_message {123: 321}', 'signal send_message 10']
    assert device_rows(lines[2:]) == [HEADSET_ROW]
    assert monitor.stop(signal.SIGTERM) == 0


@pytest.mark.timeout(60)
def test_json_for_scripts_and_clear_refusals(tv, launcher, hadrixctl):
    tv.root.set_setting(LEVEL_KEY, 35)
    tv.start('switch to usb speaker as it is usb audio mode...', boot=['headset'], usb_audio_mode=True,
             cards=(1, 2))
    devices = hadrixctl('devices', '--json')
    assert json.loads(devices.stdout) == [{
        'selected': True, 'type': 'USB Headphone', 'status': 'connected', 'volume': 35,
        'product': 'Evolve 20 (USB)', 'manufacturer': 'Jabra'}]

    monitor = launcher.start(hadrixctl.path, ['monitor', '--json'], label='hadrixctl-monitor')
    monitor.wait_for_output('"watching"')
    tv.plug('headset2')
    # The record of "Start" sent and the device-change signal come in either order.
    monitor.wait_for_output('"sent":true')
    monitor.wait_for_output('"signal":"send_message"')
    assert monitor.stop(signal.SIGTERM) == 0
    stream = [json.loads(line) for line in monitor.out.lines()]
    assert [line['type'] for line in stream[:2]] == ['devices', 'watching']
    plugged = [line['decision'] for line in stream if line['type'] == 'decision']
    # Once as it is taken, once more when its "Start" went out.
    assert [(d['device']['product'], d['outcome'], d['start']['pending']) for d in plugged] == [
        ('H390 USB Headset', 'took-sound', True), ('H390 USB Headset', 'took-sound', False)]
    assert {'type': 'signal', 'signal': 'send_message', 'value': 10} in stream

    history = json.loads(hadrixctl('history', '-n', '1', '--json').stdout)
    assert [d['seq'] for d in history] == [plugged[0]['seq']]
    status, lines = hadrixctl.lines('history', '-n', '2')
    assert status == 0 and len(lines) == 2 and '  #2  H390 USB Headset (Logitech, 046d:0a44' in lines[1]

    unknown = hadrixctl('why', 'Evolve 30')
    assert (unknown.returncode, unknown.stdout) == (1, '')
    assert unknown.stderr == (
        'hadrixctl: no device the service has seen is "Evolve 30" (a product name, vendor:product or USB '
        'port); it knows:\n  Evolve 20 (Jabra, 0b0e:0300, port 1-1, card 1)\n'
        '  H390 USB Headset (Logitech, 046d:0a44, port 1-2, card 2)\n')

    # The diagnostics interface shows itself, and takes no other arguments than it declares.
    connection = tv.bus.connect()
    described = connection.call_blocking(SERVER_NAME, '/org/nimbos/hadrix/Diagnostics',
                                         'org.freedesktop.DBus.Introspectable', 'Introspect', '', [])
    assert all(part in described for part in (
        '<interface name="org.nimbos.hadrix.Diagnostics">', '<method name="GetVerdicts">',
        '<arg type="u" name="count" direction="in"/>', '<signal name="Decision">'))
    for method, signature, args in [('GetHistory', 's', ['all']), ('GetHistory', '', []),
                                    ('GetVerdicts', 'u', [3])]:
        with pytest.raises(dbus.exceptions.DBusException) as refused:
            connection.call_blocking(SERVER_NAME, '/org/nimbos/hadrix/Diagnostics',
                                     'org.nimbos.hadrix.Diagnostics', method, signature, args, timeout=5)
        assert refused.value.get_dbus_name() == 'org.freedesktop.DBus.Error.InvalidArgs', method
    assert str(tv.call('check_dbus_connection', 's', 'still')) == 'objstill'


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
    for args in (['devices'], ['monitor'], ['why'], ['history', '--json'], ['subscribe', 'app.a'],
                 ['unsubscribe', 'app.a'], ['ping'], ['debug', 'pulse', 'off']):
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
                          (['why', 'a', 'b'], 'too many arguments'),
                          (['why', '--jsn'], 'unknown option "--jsn"'),
                          (['history', '-n', '0'], '-n needs a number of 1 or more'),
                          (['history', '-n'], '-n needs a number of 1 or more'),
                          (['history', '-n', '12x'], '-n needs a number of 1 or more'),
                          (['subscribe', 'app.a', '--json'], 'too many arguments'),
                          (['debug', 'pulse'], 'missing argument'),
                          (['debug', 'reboot', 'now'], 'unknown debug key "reboot"')]:
        result = hadrixctl(*args)
        assert (result.returncode, result.stdout) == (2, ''), args
        assert result.stderr.startswith(f'hadrixctl: {problem}\n'), result.stderr
        assert 'Usage: hadrixctl' in result.stderr
    for args, usage in [(['--help'], 'Usage: hadrixctl COMMAND [ARGUMENTS]'),
                        (['debug', '--help'], 'Usage: hadrixctl debug KEY VALUE'),
                        (['monitor', '-h'], 'Usage: hadrixctl monitor [--json]')]:
        result = hadrixctl(*args)
        assert result.returncode == 0 and result.stdout.startswith(usage + '\n'), args
        assert 'Exit status: 0 done, 1 ' in result.stdout
