"""Start-up, application control, watchdog and termination of the service."""
import os
import re
import signal
import stat

import dbus
import pytest

from conftest import MUTE_KEY
from simtv import paths
from simtv.bus import HADRIX_BUS_NAME, launch
from simtv.log import RED

RUNNING_MARKER = '/tmp/hadrix.running'


def test_startup_runs_in_order_and_creates_the_service(daemon):
    hadrix = daemon.start()
    # The create callback brings up the volume and mute (stored values and their bounds:
    # test_local_file_data.cpp; a stored level: test_settings.py).
    hadrix.wait_for_log('get usb sound mute state  0')

    order = ['hadrix main', 'setlocale re', 'bindtextdomain re', 'hadrix loop start', 'service_app_create',
             'fail to get usb sound volume, set to default :50']
    lines = hadrix.log.lines()
    positions = [next((i for i, line in enumerate(lines) if text in line), None) for text in order]
    assert None not in positions and positions == sorted(positions), dict(zip(order, positions))

    main = hadrix.log.find('hadrix main')[0]
    assert (main.prio, main.tag, main.pid, main.colour, main.file) == ('E', 'hadrix', hadrix.pid, RED, 'src/main.cpp')


def test_help_and_version_answer_and_exit_and_other_arguments_are_usage_errors(launcher):
    """Each run ends by itself (a service started by an argument would not, and time out)."""
    version = re.search(r'project\(hadrix VERSION (\S+)',
                        (paths.REPO / 'CMakeLists.txt').read_text()).group(1)
    hadrix = paths.program('hadrix')
    results = {args: launcher.run(hadrix, args) for args in
               [('--help',), ('--version',), ('--verbose',), ('--help', 'now'), ('start',)]}
    answers = {args: (r.returncode, r.stdout.splitlines()[:1], r.stderr.splitlines()[1:2])
               for args, r in results.items()}
    usage = [f'Usage: {hadrix} [--help | --version]']
    assert answers == {('--help',): (0, usage, []), ('--version',): (0, [f'hadrix {version}'], []),
                       ('--verbose',): (2, [], usage), ('--help', 'now'): (2, [], usage),
                       ('start',): (2, [], usage)}


def test_launch_requests_reach_app_control_and_wrong_arguments_are_refused(daemon, system_bus):
    hadrix = daemon.start()
    bus = system_bus.connect()
    assert not hadrix.log.find('service_app_control')

    wrong = [('s', ['default']), ('si', ['default', 3]), ('sa{ss}', ['default', {'pulse': 'start'}]),
             ('aa(ss)', [[[('pulse', 'start')]]]), ('sa(ss)', ['default', [('', 'start')]])]
    for signature, args in wrong:
        with pytest.raises(dbus.exceptions.DBusException) as refused:
            launch(bus, HADRIX_BUS_NAME, signature=signature, args=args)
        assert refused.value.get_dbus_name() == 'org.freedesktop.DBus.Error.InvalidArgs', signature
    hadrix.wait_for_log(lambda record: record.prio in 'WE' and 'refused' in record.message, count=len(wrong))

    launch(bus, HADRIX_BUS_NAME, 'default', [('pulse', 'start'), ('cget', '1')])
    launch(bus, HADRIX_BUS_NAME, 'default', [])
    hadrix.wait_for_log('service_app_control', count=2)
    assert len(hadrix.log.find('service_app_control')) == 2
    assert hadrix.running()


@pytest.mark.parametrize('signum', [signal.SIGTERM, signal.SIGINT], ids=['SIGTERM', 'SIGINT'])
def test_terminate_request_runs_terminate_and_exits_0(daemon, system_bus, signum):
    hadrix = daemon.start()
    mark = hadrix.log.mark()

    assert hadrix.stop(signum) == 0

    hadrix.log.wait_for('service_app_terminate', since=mark)
    assert not system_bus.has_owner(HADRIX_BUS_NAME)


def test_losing_the_system_bus_ends_the_service_with_a_failure(daemon, system_bus):
    hadrix = daemon.start()
    mark = hadrix.log.mark()

    system_bus.restart()

    # A failure, so that the service manager (Restart=on-failure) starts it again.
    assert hadrix.wait() not in (0, None)
    assert hadrix.log.find('system bus connection lost', since=mark)
    hadrix.log.wait_for('service_app_terminate', since=mark)


@pytest.mark.parametrize('planted', ['foreign-file', 'dangling-link'])
def test_a_start_marker_planted_by_someone_else_is_replaced_and_the_first_start_recovers(
        tv, tmp_path, planted):
    """The marker lives in a directory anyone may write to: another user's file there must not
    skip the first start's unmute, nor a dangling link stop the marker being made."""
    tv.root.set_setting(MUTE_KEY, 1)
    marker = tv.root / RUNNING_MARKER
    victim = tmp_path / 'victim'
    if planted == 'foreign-file':
        if os.geteuid() != 0:
            pytest.skip('only root can give a file to another user')
        marker.write_text('')
        os.chown(marker, 65534, 65534)
    else:
        marker.symlink_to(victim)

    tv.start()
    # The marker is made just before the unmute.
    tv.daemon.wait_until(lambda: tv.setting(MUTE_KEY) == '0', what='the first start\'s unmute')
    made = os.lstat(marker)
    assert stat.S_ISREG(made.st_mode) and made.st_uid == os.geteuid()
    assert not os.path.lexists(victim)
