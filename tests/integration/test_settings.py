"""The settings store across processes: the service, hadrix-settings, and restarts."""
import signal

from simtv.wait import wait_until

VOLUME = 'db/hadrix/volume_level'


def test_stored_volume_survives_a_restart(daemon, settings_cli, hadrix_root):
    first = daemon.start()
    first.wait_for_log('set to default :50')

    assert settings_cli('set', VOLUME, 'int', '35').returncode == 0
    assert first.stop() == 0

    second = daemon.start()
    second.wait_for_log('get usb sound volume level 35')
    assert hadrix_root.get_setting(VOLUME) == ('int', '35')


def test_cli_get_set_unset_round_trip_and_refusals(settings_cli, hadrix_root):
    missing = settings_cli('get', VOLUME)
    assert (missing.returncode, missing.stdout) == (1, '')
    assert settings_cli('set', VOLUME, 'int', '42').returncode == 0
    stored = settings_cli('get', VOLUME)
    assert (stored.returncode, stored.stdout) == (0, 'int:42\n')
    volatile = 'memory/tv-viewer/show_ext_volume'
    assert settings_cli('set', volatile, 'string', 'volume 7').returncode == 0
    assert settings_cli('get', volatile).stdout == 'string:volume 7\n'

    for args in (('set', VOLUME, 'int', 'loud'), ('set', VOLUME, 'colour', 'red'), ('set', VOLUME, 'int'),
                 ('get',), ('frobnicate', VOLUME)):
        refused = settings_cli(*args)
        assert (refused.returncode, 'Usage' in refused.stderr) == (2, True), args
    assert hadrix_root.get_setting(VOLUME) == ('int', '42')

    assert settings_cli('unset', VOLUME).returncode == 0
    assert settings_cli('get', VOLUME).returncode == 1
    assert not (hadrix_root.settings_dir / VOLUME).exists()


def test_cli_watch_prints_every_change(launcher, settings_cli):
    key = 'memory/tv-viewer/volume_event_value'
    watch = launcher.start(settings_cli.path, ['watch', key], label='watch')

    # The watch is registered some time after the start; write until it reports.
    wait_until(lambda: settings_cli('set', key, 'int', '1').returncode == 0 and
               watch.out.find(f'{key}=int:1'), timeout=5, interval=0.1,
               what='the watch to report a write')

    # The writes of the loop may still be on their way: a fence after them, reported in order.
    assert settings_cli('set', key, 'int', '2').returncode == 0
    watch.wait_for_output(f'{key}=int:2')
    mark = watch.out.mark()
    assert settings_cli('set', key, 'string', 'second').returncode == 0
    watch.wait_for_output(f'{key}=string:second', since=mark)
    assert settings_cli('set', key, 'bool', 'true').returncode == 0
    watch.wait_for_output(f'{key}=bool:1', since=mark)
    assert watch.out.lines(since=mark) == [f'{key}=string:second', f'{key}=bool:1']

    assert watch.stop(signal.SIGTERM) == 0


def temporaries(hadrix_root):
    """The temporary files of settings writes (".<key file>.XXXXXX") in both stores."""
    return [path for base in (hadrix_root.settings_dir, hadrix_root.runtime_settings_dir)
            for path in base.rglob('.*.??????') if path.is_file()]


def test_writers_killed_mid_write_leave_no_temporary_after_the_next_start(launcher, settings_cli,
                                                                          daemon, hadrix_root):
    keys = ('db/hadrix/crash_test', 'memory/tv-viewer/crash_test')
    # Values large enough that a write takes a while, and a kill can land inside it.
    values = ('a' * 100_000, 'b' * 100_000)
    kills = cut_short = 0
    for trial in range(300):
        key, value = keys[trial % 2], values[trial // 2 % 2]
        earlier = set(temporaries(hadrix_root))
        writer = launcher.start(settings_cli.path, ['set', key, 'string', value], label='writer')
        wait_until(lambda: set(temporaries(hadrix_root)) - earlier or writer.returncode is not None,
                   timeout=10, interval=0, what='a temporary file of the writer, or its end')
        writer.send_signal(signal.SIGKILL)
        writer.wait()
        kills += writer.returncode == -signal.SIGKILL
        cut_short += bool(set(temporaries(hadrix_root)) - earlier)
        assert hadrix_root.get_setting(key) in (None, *(('string', v) for v in values))
        if kills >= 30 and temporaries(hadrix_root):
            break
    assert kills >= 30 and temporaries(hadrix_root), f'{kills} kills, no temporary file left'
    print(f'writes cut short: {cut_short} of {kills} kills')

    daemon.start()
    assert temporaries(hadrix_root) == []
