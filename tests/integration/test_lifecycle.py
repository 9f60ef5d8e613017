"""Start-up, application control, watchdog and termination of the service."""
import signal

import dbus
import pytest

from simtv.bus import HADRIX_BUS_NAME, launch
from simtv.log import RED


def first_index(daemon, text):
    lines = daemon.log.lines()
    return next((i for i, line in enumerate(lines) if text in line), None)


def test_startup_runs_in_order_and_creates_the_service(daemon):
    hadrix = daemon.start()

    order = ['hadrix main', 'setlocale re', 'bindtextdomain re', 'hadrix loop start',
             'service_app_create']
    positions = [first_index(hadrix, text) for text in order]
    assert None not in positions, dict(zip(order, positions))
    assert positions == sorted(positions), dict(zip(order, positions))

    main = hadrix.log.find('hadrix main')[0]
    assert (main.prio, main.tag, main.pid) == ('E', 'hadrix', hadrix.pid)
    assert main.colour == RED
    assert main.file == 'src/main.cpp'


@pytest.mark.parametrize('stored, logged', [
    (None, 'fail to get usb sound volume, set to default :50'),
    (120, 'get usb sound volume level 120'),
    (0, 'get usb sound volume level 0'),
])
def test_create_brings_up_stored_volume(daemon, hadrix_root, stored, logged):
    if stored is not None:
        hadrix_root.set_setting('db/hadrix/volume_level', stored)

    hadrix = daemon.start()

    hadrix.wait_for_log('get usb sound mute state')
    assert hadrix.log.find(logged)
    assert bool(hadrix.log.find('set to default')) == (stored is None)


@pytest.mark.parametrize('stored, logged', [(None, 0), (1, 1), (0, 0)])
def test_create_brings_up_stored_mute_state(daemon, hadrix_root, stored, logged):
    if stored is not None:
        hadrix_root.set_setting('db/hadrix/volume_mute_status', stored)

    hadrix = daemon.start()

    hadrix.wait_for_log(f'get usb sound mute state  {logged}')


def test_each_launch_request_reaches_app_control(daemon, system_bus):
    hadrix = daemon.start()
    bus = system_bus.connect()
    assert not hadrix.log.find('service_app_control')

    launch(bus, HADRIX_BUS_NAME, 'default', [('pulse', 'start'), ('cget', '1')])
    launch(bus, HADRIX_BUS_NAME, 'default', [])

    hadrix.wait_for_log('service_app_control', count=2)


@pytest.mark.parametrize('signature, args', [
    ('s', ['default']),
    ('si', ['default', 3]),
    ('sa{ss}', ['default', {'pulse': 'start'}]),
    ('aa(ss)', [[[('pulse', 'start')]]]),
], ids=['missing-extra', 'int-extra', 'dict-extra', 'no-operation'])
def test_launch_with_wrong_argument_types_is_refused(daemon, system_bus, signature, args):
    hadrix = daemon.start()
    bus = system_bus.connect()

    with pytest.raises(dbus.exceptions.DBusException) as refused:
        launch(bus, HADRIX_BUS_NAME, signature=signature, args=args)
    assert refused.value.get_dbus_name() == 'org.freedesktop.DBus.Error.InvalidArgs'
    hadrix.wait_for_log(lambda record: record.prio in 'WE' and 'refused' in record.message)

    launch(bus, HADRIX_BUS_NAME, 'default', [('key', 'value')])
    hadrix.wait_for_log('service_app_control')
    assert len(hadrix.log.find('service_app_control')) == 1
    assert hadrix.running()


def test_ready_once_then_watchdog_every_five_seconds(daemon, notify_socket):
    daemon.start()

    watchdog = notify_socket.wait_for('WATCHDOG=1', count=2, timeout=13)
    ready = notify_socket.assignments('READY=1')

    assert len(ready) == 1
    assert ready[0] < watchdog[0]
    assert 4.0 <= watchdog[1] - watchdog[0] <= 6.5


@pytest.mark.parametrize('signum', [signal.SIGTERM, signal.SIGINT], ids=['SIGTERM', 'SIGINT'])
def test_terminate_request_runs_terminate_and_exits_0(daemon, system_bus, signum):
    hadrix = daemon.start()
    mark = hadrix.log.mark()

    assert hadrix.stop(signum) == 0

    hadrix.log.wait_for('service_app_terminate', since=mark)
    assert not system_bus.has_owner(HADRIX_BUS_NAME)
