"""Debug commands: an extra-data key in a launch request to the running service drives one
operation — here the stored volume, which another process reads back. Each command and its
refusals are proven in-process (tests/unit/core/test_debug_commands.cpp, and the mixer ones
against emulated cards in tests/unit/device/test_usb_mixer.cpp)."""
from conftest import LEVEL_KEY
from simtv.bus import HADRIX_BUS_NAME, launch


def send(tv, *pairs):
    """Launches the service with these extra-data pairs (key, value, key, value ...); returns
    the log mark from before, once the request has reached the service."""
    mark = tv.daemon.log.mark()
    launch(tv.connection, HADRIX_BUS_NAME, 'default', list(zip(pairs[::2], pairs[1::2])))
    tv.daemon.wait_for_log('service_app_control', since=mark)
    return mark


def test_local_file_data_steps_the_stored_volume(tv):
    tv.root.set_setting(LEVEL_KEY, 10, 'int')
    tv.start('m_DeviceInit out', cards=[0])
    tv.connection = tv.bus.connect()
    for value, level in [('volumeUp', '11'), ('volumeDown', '10')]:
        send(tv, 'localFileData', value)
        tv.daemon.wait_until(lambda: tv.root.get_setting(LEVEL_KEY) == ('int', level),
                             what=f'volume level {level}')

