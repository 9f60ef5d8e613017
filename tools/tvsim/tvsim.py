#!/usr/bin/python3
"""tvsim — hadrix on a simulated TV.

Starts a private system bus, a fresh installation root with its settings store, and the real
hadrix daemon, then either runs a scripted story (`demo`) or keeps everything up for an
engineer to drive by hand (`run`), printing a readable timeline of what the service does and
why, taken from its log and the service manager's notify socket.

Run with Debian's /usr/bin/python3 (it needs the gi and dbus modules).
"""
import argparse
import os
import shutil
import signal
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPO / 'tests' / 'integration'))

from harness import paths  # noqa: E402  (the path above must come first)
from harness.bus import SystemBus, launch  # noqa: E402
from harness.daemon import Launcher  # noqa: E402
from harness.env import ChildEnv  # noqa: E402
from harness.notify import NotifySocket  # noqa: E402
from harness.root import HadrixRoot  # noqa: E402

SERVICE_BUS_NAME = 'org.nimbos.hadrix'

# What a log message means to someone watching the TV, by the message's start.
EXPLAINED = [
    ('hadrix main', 'the service process starts'),
    ('setlocale ret : ', 'menu language applied: {rest}'),
    ('setlocale return null', 'menu language not installed here; texts stay in the default'),
    ('bindtextdomain ret : ', 'popup texts come from {rest}'),
    ('hadrix loop start', 'entering the main loop'),
    ('service_app_create', 'create callback: local files and the stored headset state come up'),
    ('get usb sound volume level ', 'stored headset volume read: {rest}'),
    ('fail to get usb sound volume, set to default :', 'no stored volume: using the default {rest}'),
    ('get usb sound mute state  ', 'stored mute state read: {rest} (0 = not muted)'),
    ('service_app_control', 'an application-control request reached the service'),
    ('service_app_terminate', 'terminate callback: the service shuts down'),
]


class Timeline:
    """Prints events with the seconds since the simulation started."""

    def __init__(self):
        self.start = time.monotonic()

    def say(self, who, text):
        print(f'{time.monotonic() - self.start:7.2f}s  {who:<8} {text}', flush=True)


class SimulatedTV:
    def __init__(self, timeline, keep=False):
        self.timeline = timeline
        self.keep = keep
        self.work = Path(tempfile.mkdtemp(prefix='tvsim-'))
        self.sockets = paths.SocketDir()
        self.bus = SystemBus(self.sockets.path, self.work)
        self.root = HadrixRoot(self.work / 'root')
        self.notify = NotifySocket(self.sockets / 'notify')
        env = ChildEnv()
        env.set('DBUS_SYSTEM_BUS_ADDRESS', self.bus.address)
        env.set('NOTIFY_SOCKET', self.notify.path)
        for key, value in self.root.env().items():
            env.set(key, value)
        self.launcher = Launcher(env, self.work)
        self.daemon = None
        self._log_seen = 0
        self._notify_seen = 0
        timeline.say('tv', f'private system bus at {self.bus.address}')
        timeline.say('tv', f'installation root {self.root.path}')

    def start_service(self):
        self.daemon = self.launcher.start(paths.program('hadrix'), label='hadrix')
        self.timeline.say('tv', f'hadrix started (pid {self.daemon.pid})')
        self.daemon.wait_for_log('service_app_create', timeout=10)
        self.bus.wait_for_name(SERVICE_BUS_NAME)
        self.follow()

    def follow(self):
        """Prints what the service did since the last call."""
        records = self.daemon.log.records(self._log_seen)
        self._log_seen += len(records)
        for record in records:
            for prefix, explanation in EXPLAINED:
                if record.message.startswith(prefix):
                    rest = record.message[len(prefix):].strip()
                    self.timeline.say('hadrix', explanation.format(rest=rest))
        messages = self.notify.messages()[self._notify_seen:]
        self._notify_seen += len(messages)
        for _, text in messages:
            for line in text.split('\n'):
                if line == 'READY=1':
                    self.timeline.say('systemd', 'the service reported it is ready')
                elif line == 'WATCHDOG=1':
                    self.timeline.say('systemd', 'watchdog heartbeat')

    def settle(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(0.1)
            self.follow()

    def set_setting(self, key, kind, value):
        result = self.launcher.run(paths.program('hadrix-settings'), ['set', key, kind, value])
        self.timeline.say('viewer', f'settings: {key} = {value}'
                          + ('' if result.returncode == 0 else f' (failed: {result.stderr.strip()})'))

    def send_request(self, pairs):
        launch(self.bus.connect_shared(), SERVICE_BUS_NAME, extra=pairs)
        self.timeline.say('engineer', f'application-control request {dict(pairs)}')

    def stop_service(self):
        self.timeline.say('tv', 'asking the service to terminate (SIGTERM)')
        status = self.daemon.stop()
        self.follow()
        self.timeline.say('tv', f'hadrix exited with status {status}')
        return status

    def close(self):
        self.launcher.reap()
        self.notify.close()
        self.bus.stop()
        self.sockets.remove()
        if self.keep:
            self.timeline.say('tv', f'files kept in {self.work}')
        else:
            shutil.rmtree(self.work, ignore_errors=True)


def demo(tv):
    tv.root.set_setting('db/hadrix/volume_level', 35)
    tv.timeline.say('tv', 'the settings store holds a headset volume of 35 from an earlier run')
    tv.start_service()
    tv.settle(1)
    tv.send_request([('origin', 'tvsim')])
    tv.settle(1)
    tv.set_setting('db/menu_widget/language', 'string', 'C.UTF-8')
    tv.settle(5.5)
    return tv.stop_service()


def run(tv):
    tv.start_service()
    print(f'\nThe service runs. In another shell:\n'
          f'  export DBUS_SYSTEM_BUS_ADDRESS={tv.bus.address}\n'
          f'  export HADRIX_ROOT={tv.root.path} HADRIX_SETTINGS_DIR={tv.root.settings_dir} '
          f'HADRIX_RUNTIME_SETTINGS_DIR={tv.root.runtime_settings_dir}\n'
          f'  {paths.program("hadrix-settings")} get db/hadrix/volume_level\n'
          f'Ctrl-C stops the simulation.\n', flush=True)
    stop = []
    signal.signal(signal.SIGINT, lambda *_: stop.append(True))
    signal.signal(signal.SIGTERM, lambda *_: stop.append(True))
    while not stop and tv.daemon.running():
        tv.settle(0.2)
    return tv.stop_service()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('command', choices=['demo', 'run'], help='demo: the scripted story; '
                        'run: keep the simulated TV up until Ctrl-C')
    parser.add_argument('--keep', action='store_true', help='keep the simulation\'s files')
    args = parser.parse_args()
    try:
        paths.program('hadrix')
        paths.program('hadrix-settings')
    except paths.MissingProgram as error:
        sys.exit(f'tvsim: {error}')
    timeline = Timeline()
    tv = SimulatedTV(timeline, keep=args.keep)
    try:
        status = {'demo': demo, 'run': run}[args.command](tv)
    finally:
        tv.close()
    sys.exit(0 if status == 0 else 1)


if __name__ == '__main__':
    main()
