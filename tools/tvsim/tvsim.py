#!/usr/bin/python3
"""tvsim — hadrix on a simulated TV.

Starts a private system bus with the TV platform's services (sound manager, audio control,
device power, audio server, notification service), a USB device testbed, a kernel log, a fresh installation root with
its settings store, and the real hadrix daemon. Then it runs a scripted story (`demo`) or takes
commands from an engineer (`run`), printing a readable timeline of what the service did and
why: from its log, the calls the platform services received, the popups it posted, the signals
on the bus and the service manager's notify socket.

Run it under the device emulation with Debian's Python (scripts/demo does):
    umockdev-wrapper /usr/bin/python3 tools/tvsim/tvsim.py demo|run
"""
import argparse
import json
import re
import shutil
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPO / 'sim'))

# The simulated platform must be importable before these lines run.
from simtv import paths  # noqa: E402
from simtv.bus import MockService, SystemBus  # noqa: E402
from simtv.daemon import Launcher  # noqa: E402
from simtv.devices import CATALOGUE, plug  # noqa: E402
from simtv.env import ChildEnv  # noqa: E402
from simtv.klog import KernelLog  # noqa: E402
from simtv.locales import MissingLocales, compile_locales  # noqa: E402
from simtv.notify import NotifySocket  # noqa: E402
from simtv.observer import SignalObserver  # noqa: E402
from simtv.platform import PlatformServices  # noqa: E402
from simtv.root import HadrixRoot  # noqa: E402
from simtv.testbed import NotMocked, Testbed  # noqa: E402

SERVICE_BUS_NAME = 'org.nimbos.hadrix'
REMOTE = 'rc device 0'
KEYS = {'up': 'XF86AudioRaiseVolume', 'down': 'XF86AudioLowerVolume', 'mute': 'XF86AudioMute'}
USB_HEADSET_ROUTE = 15
TV_SPEAKER_ROUTE = 7
POWER_NORMAL, POWER_STANDBY = 0, 4
# The TV booted this long before the simulation starts (kernel-log time).
BOOTED_SECONDS_AGO = 30.0
USB_AUDIO_MODE = '/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode'
DEPOT = '/home/owner/apps_rw/hadrix/data/devices.depot'
MENU_LANGUAGE = 'db/menu_widget/language'
SYSTEM_INFO = '/etc/nimbos/system-info.conf'
# The menu languages the simulated TV offers (compiled at start, a second or two each).
LANGUAGES = ('en_US.UTF-8', 'de_DE.UTF-8')

# What a log message means to someone watching the TV: (pattern, explanation); the pattern's
# groups fill the explanation.
EXPLAINED = [(re.compile(pattern), text) for pattern, text in [
    (r'^hadrix main$', 'the service process starts'),
    (r'^setlocale ret : (.*)$', 'menu language applied: {0}'),
    (r'^hadrix loop start$', 'entering the main loop'),
    (r'^service_app_create$', 'create callback: local files and the stored headset state come up'),
    (r'^get usb sound volume level (-?\d+)$', 'stored headset volume: {0}'),
    (r'^get usb sound mute state  (\d+)$', 'stored mute state: {0} (0 = not muted)'),
    (r'^No devices found\.$', 'no USB audio device at start-up'),
    (r'^\[START\] detect usb audio device \S+,(\w+)$', 'hot-plug: a USB sound card was {0}'),
    (r'^camera device$', 'it is a webcam: ignored'),
    (r'^Not audio deveice$', 'not a USB audio device: ignored'),
    (r'^\[END\] result of speakerChange  1$',
     'kernel log: detected well after boot, so plugged by the viewer: the sound follows it'),
    (r'^\[END\] result of speakerChange  0$',
     'kernel log: present since boot or resume: the TV speakers keep the sound'),
    (r'^Astro device$', 'an Astro headset: not supported, left alone'),
    (r'^USB HEADSET more than 2\.\.$', 'two headsets already carry the sound: this one waits'),
    (r'^switch to usb speaker as it is usb audio mode\.\.\.$',
     'USB audio mode from the last run: the sound goes to the headset'),
    (r'^Not switch to usb speaker\.\.\.$', 'the headset was there at boot: TV speakers stay'),
    (r'^m_SpeakerChangeCb, route : (\d+),', 'the TV output route is now {0}'),
    (r'^SetUSBAudioMode enter : 1$', 'USB audio mode saved (survives restarts)'),
    (r'^SetUSBAudioMode enter : 0$', 'USB audio mode cleared'),
    (r'^No Usb Headset exist\.\.$', 'the last headset is gone'),
    (r'^enable 10mins quit service timer\.$', 'the service quits in 10 minutes unless a headset comes'),
    (r'^power on pre state : (\d+), cur state: (\d+)$', 'power state {0} -> {1}'),
    (r'^launch delay timer$', 'back from standby: the devices are looked at again in 3 s'),
    (r'^begin to intit device file$', 'rebuilding the device manager after standby'),
    (r'^start GrabVolumeKey$', "the remote's volume keys are to go to the headset"),
    (r'^stop GrabVolumeKey$', 'the volume keys are to go back to the TV'),
    (r'^service_app_control$', 'an application-control request reached the service'),
    (r'^Volume control from USB_HEADSET_DEVICE,block it', "a key of the headset itself: the headset handles it"),
    (r'^sound mirroring volumelevel changed (\d+)\.$', 'screen mirroring changed the level to {0}'),
    (r'^not usb headset mode, ignore\.$', 'not in USB audio mode: screen mirroring left alone'),
    (r'^service_app_terminate$', 'terminate callback: the service shuts down'),
    (r'^\[START\] 10mins quit service timeout, byebye\.\.\.$', 'ten minutes without a headset: quitting'),
]]

# Calls of the platform services worth showing: (service attribute, method) -> text.
CALLS = {
    ('sound', 'SetSpeakerSelection'): 'sound manager <- output route {0}',
    ('audio', 'SetUsbOutGain'): 'audio control <- headset gain {0}',
    ('audio', 'SetUsbOutMute'): 'audio control <- headset mute {0}',
    ('key_router', 'SetGrabbedKeys'): 'key router <- grab the staged keys',
    ('key_router', 'UnsetGrabbedKeys'): 'key router <- release the staged keys',
    ('sound', 'SetMultiviewSpeakerSelection'): 'sound manager <- route {0} for zone {1}',
}

SIGNALS = {
    'Start': 'audio server <- "Start" card {0}',
    'Stop': 'audio server <- "Stop" card {0}',
    'SpkDisconnected': 'speaker manager <- "SpkDisconnected" ({0}, {1})',
}


class Timeline:
    """Prints events with the seconds since the simulation started."""

    def __init__(self):
        self.start = time.monotonic()

    def elapsed(self):
        return time.monotonic() - self.start

    def say(self, who, text):
        print(f'{self.elapsed():7.2f}s  {who:<10} {text}', flush=True)


class SimulatedTV:
    def __init__(self, timeline, keep=False):
        self.timeline = timeline
        self.keep = keep
        self.work = Path(tempfile.mkdtemp(prefix='tvsim-'))
        locales = compile_locales(self.work / 'locales', LANGUAGES)
        self.sockets = paths.SocketDir()
        self.bus = SystemBus(self.sockets.path, self.work)
        self.root = HadrixRoot(self.work / 'root')
        self.root.install_app_files(paths.app_files())
        self.root.set_setting(MENU_LANGUAGE, LANGUAGES[0])
        self.root.write(SYSTEM_INFO, '[system]\nmodel=UA55TV\n[features]\n'
                                     'com.corvel/featureconf/product.device_sid=REP.DEVICE.TV\n')
        self.notify = NotifySocket(self.sockets / 'notify')
        self.kernel_log = KernelLog(self.work / 'kernel.log')
        self.kernel_log.boot()
        self.testbed = Testbed()
        self.env = ChildEnv()
        for key, value in {**self.root.env(), **self.testbed.env(),
                           'DBUS_SYSTEM_BUS_ADDRESS': self.bus.address,
                           'NOTIFY_SOCKET': self.notify.path,
                           'HADRIX_FAKE_KLOG': self.kernel_log.path,
                           'LOCPATH': locales}.items():
            self.env.set(key, value)
        self.env.preload(paths.program('hadrix-klog-shim'))
        self.launcher = Launcher(self.env, self.work)
        self.mocks = []
        self.services = PlatformServices(self._spawn, route=TV_SPEAKER_ROUTE)
        self.key_router = self._spawn('key_router', {})
        self.resource_center = self._spawn('resource_center', {})
        self.tv_viewer = self._spawn('app', {})
        self.signals = SignalObserver(self.bus.address)
        self.plugged = {}
        self.hubs = set()
        self.daemon = None
        self._until_mark = 0
        self._seen = {'log': 0, 'notify': 0, 'signals': 0, 'launches': 0, 'popups': 0, 'closed': 0}
        self._calls_seen = {}
        timeline.say('tv', f'private system bus at {self.bus.address}')
        timeline.say('tv', f'installation root {self.root.path}')

    def _spawn(self, template, parameters):
        mock = MockService(self.bus, self.env.for_peer(), self.work, template, parameters)
        self.mocks.append(mock)
        return mock

    def kernel_time(self):
        return BOOTED_SECONDS_AGO + self.timeline.elapsed()

    # -- the viewer and the TV ---------------------------------------------------------------
    def start_service(self):
        self.daemon = self.launcher.start(paths.program('hadrix'), label='hadrix')
        self.timeline.say('tv', f'hadrix started (pid {self.daemon.pid})')
        self.daemon.wait_for_log('service_app_create', timeout=10)
        self.bus.wait_for_name(SERVICE_BUS_NAME)
        self.follow()

    def plug(self, name):
        if name not in CATALOGUE:
            raise KeyError(f'no device {name!r}; known: {", ".join(CATALOGUE)}')
        if name in self.plugged:
            raise KeyError(f'{name} is plugged already')
        device = CATALOGUE[name]
        self.timeline.say('viewer', f'plugs {device.manufacturer} {device.product} '
                                    f'into USB port {device.port}')
        hub = device.port.rsplit('.', 1)[0] if '.' in device.port else None
        if hub and hub not in self.hubs:
            self.testbed.add_hub(hub)
            self.hubs.add(hub)
        self.plugged[name] = plug(self.testbed, name, self.kernel_log, self.kernel_time())
        self._audio_server_opens()

    def unplug(self, name):
        if name not in self.plugged:
            raise KeyError(f'{name} is not plugged')
        device = CATALOGUE[name]
        self.timeline.say('viewer', f'unplugs {device.manufacturer} {device.product}')
        self.kernel_log.disconnect(device.port, self.kernel_time())
        self.testbed.remove(self.plugged.pop(name))
        self._audio_server_opens()

    def _audio_server_opens(self):
        """The audio server opens the cards of the USB audio devices plugged in."""
        self.services.list_cards(*(CATALOGUE[name].card for name in self.plugged))

    def standby(self):
        self.timeline.say('viewer', 'presses the power button: the TV goes to standby')
        self.services.change_power(POWER_STANDBY)

    def resume(self):
        self.timeline.say('viewer', 'presses the power button: the TV wakes up')
        self.services.change_power(POWER_NORMAL)

    def route(self, route):
        self.timeline.say('viewer', f'picks output route {route} in the sound menu')
        self.services.user_sets_route(route)

    def key(self, name, hold=0):
        """The viewer presses a volume key on the remote (and holds it for `hold` repeats)."""
        key = KEYS[name]
        if hold:
            self.timeline.say('viewer', f'holds {name} on the remote')
            self.key_router.obj.HoldKey(key, REMOTE, int(hold), dbus_interface=self.key_router.interface)
            return
        self.timeline.say('viewer', f'presses {name} on the remote')
        self.key_router.obj.PressKey(key, REMOTE, dbus_interface=self.key_router.interface)
        self.key_router.obj.ReleaseKey(key, REMOTE, dbus_interface=self.key_router.interface)

    def tts(self, on):
        self.timeline.say('viewer', f'turns the screen reader {on}')
        self.root.set_setting('db/setting/accessibility/tts', on == 'on', 'bool')

    def multiview(self, on):
        self.timeline.say('viewer', f'turns multiview {on}')
        self.root.set_setting('memory/multiscreen/ui_mode', on)

    def mirror(self, what, value):
        key = {'level': 'set_volume_level', 'mute': 'set_volume_mute'}[what]
        self.timeline.say('phone', f'screen mirroring sets the {what} to {value}')
        self.root.set_setting(f'memory/menu/network/screenmirroring/{key}', int(value))

    def language(self, name):
        if name not in LANGUAGES:
            raise KeyError(f'no language {name!r}; known: {", ".join(LANGUAGES)}')
        self.timeline.say('viewer', f'sets the menu language to {name}')
        self.root.set_setting(MENU_LANGUAGE, name)

    def state(self):
        volume = self.root.get_setting('db/hadrix/volume_level')
        grabbed = self.key_router.obj.GetGrabbedKeys(dbus_interface=self.key_router.interface)
        mute = self.root.get_setting('db/hadrix/volume_mute_status')
        devices = json.loads(self.root.read(DEPOT)) if self.root.exists(DEPOT) else []
        lines = [f'output route {self.services.route()}',
                 f'USB audio mode {"on" if self.root.exists(USB_AUDIO_MODE) else "off"}',
                 f'headset volume {volume[1] if volume else "(not stored: 50)"}, '
                 f'muted {mute[1] if mute else "0"}',
                 f'devices known: {", ".join(d["product_name"] + " (status " + str(d["status"]) + ")" for d in devices) or "none"}',
                 f'plugged: {", ".join(self.plugged) or "nothing"}',
                 f'keys grabbed: {", ".join(str(key) for key in grabbed) or "none"}']
        for line in lines:
            self.timeline.say('state', line)

    # -- the timeline ------------------------------------------------------------------------
    def follow(self):
        """Prints what happened since the last call."""
        self._follow_log()
        self._follow_calls()
        self._follow_launches()
        self._follow_signals()
        self._follow_popups()
        self._follow_notify()

    def _follow_log(self):
        if not self.daemon:
            return
        records = self.daemon.log.records(self._seen['log'])
        self._seen['log'] += len(records)
        for record in records:
            for pattern, text in EXPLAINED:
                match = pattern.search(record.message)
                if match:
                    self.timeline.say('hadrix', text.format(*match.groups()))

    def _follow_calls(self):
        for (service, method), text in CALLS.items():
            calls = (getattr(self.services, service, None) or getattr(self, service)).calls(method)
            seen = self._calls_seen.get((service, method), 0)
            for _, args in calls[seen:]:
                self.timeline.say('platform', text.format(*args))
            self._calls_seen[(service, method)] = len(calls)

    def _follow_launches(self):
        launches = self.tv_viewer.calls('Launch')
        for _, args in launches[self._seen['launches']:]:
            extra = dict(tuple(pair) for pair in args[1])
            text = f'TV viewer <- {extra.get("cmd")} "{extra.get("value")}"'
            if 'speaker_name' in extra:
                text += f' on "{extra["speaker_name"]}"'
            self.timeline.say('platform', text)
        self._seen['launches'] = len(launches)

    def _follow_signals(self):
        received = self.signals.signals()
        for signal in received[self._seen['signals']:]:
            self.timeline.say('bus', SIGNALS[signal.member].format(*signal.args))
        self._seen['signals'] = len(received)

    def _follow_popups(self):
        """Each popup as the viewer would see it: title, text, and whether the port guide
        image is shown beside it."""
        popups = self.services.popups
        closed = popups.closed()
        for notification_id in closed[self._seen['closed']:]:
            self.timeline.say('popup', f'popup {notification_id} taken down')
        self._seen['closed'] = len(closed)
        posted = popups.posted()
        for popup in posted[self._seen['popups']:]:
            guide = ' [beside it: the USB-port guide image]' if 'image-path' in popup.hints else ''
            self.timeline.say('popup', f'┌ {popup.title}')
            self.timeline.say('popup', f'└ {popup.body}{guide}')
        self._seen['popups'] = len(posted)

    def _follow_notify(self):
        messages = self.notify.messages()
        for _, text in messages[self._seen['notify']:]:
            for line in text.split('\n'):
                if line == 'READY=1':
                    self.timeline.say('systemd', 'the service reported it is ready')
        self._seen['notify'] = len(messages)

    def settle(self, seconds, until=None):
        """Follows the service for `seconds`, or until its log says `until`."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(0.1)
            self.follow()
            if until and self.daemon.log.find(until, since=self._until_mark):
                return

    def settle_until(self, message, timeout):
        self._until_mark = self.daemon.log.mark()
        self.settle(timeout, until=message)

    def stop_service(self):
        self.timeline.say('tv', 'asking the service to terminate (SIGTERM)')
        status = self.daemon.stop()
        self.follow()
        self.timeline.say('tv', f'hadrix exited with status {status}')
        return status

    def close(self):
        self.launcher.reap()
        self.signals.stop()
        for mock in self.mocks:
            mock.stop()
        self.notify.close()
        self.bus.stop()
        self.testbed.close()
        self.sockets.remove()
        if self.keep:
            self.timeline.say('tv', f'files kept in {self.work}')
        else:
            shutil.rmtree(self.work, ignore_errors=True)


def demo(tv):
    tv.root.set_setting('db/hadrix/volume_level', 35)
    tv.timeline.say('tv', 'the settings store holds a headset volume of 35 from an earlier run')
    tv.start_service()
    tv.settle_until('No devices found.', 15)
    tv.plug('headset')
    tv.settle(2)
    tv.key('up')
    tv.settle(1)
    tv.key('up', hold=3)
    tv.settle(1)
    tv.key('mute')
    tv.settle(1)
    tv.key('down')
    tv.settle(1)
    tv.state()
    tv.route(TV_SPEAKER_ROUTE)
    tv.settle(1.5)
    tv.route(USB_HEADSET_ROUTE)
    tv.settle(1.5)
    tv.standby()
    tv.settle(1)
    tv.resume()
    tv.settle_until('switch to usb speaker as it is usb audio mode...', 8)
    tv.settle(1)
    tv.unplug('headset')
    tv.settle(2)
    tv.state()
    # Two devices on the ports of one hub pick up each other's noise.
    tv.plug('twin-a')
    tv.settle(2)
    tv.plug('twin-b')
    tv.settle(2)
    tv.language('de_DE.UTF-8')
    tv.settle(0.5)
    tv.plug('astro')
    tv.settle(2)
    return tv.stop_service()


COMMANDS_HELP = '''commands:
  plug NAME | unplug NAME     a catalogue device ({names})
  key up|down|mute [HOLD]     a remote's volume key (held for HOLD repeats)
  tts on|off                  the screen reader
  multiview on|off            split screen
  mirror level N | mirror mute 0|1   screen mirroring's volume
  standby | resume            the TV's power button
  route N                     the viewer picks output route N (7 TV speakers, 15 USB headset)
  language NAME               the menu language ({languages})
  state                       what the TV knows now
  wait SECONDS                just watch
  quit                        stop the service and the simulation'''


def run(tv):
    tv.start_service()
    print(f'\nThe service runs. To reach it from another shell:\n'
          f'  export DBUS_SYSTEM_BUS_ADDRESS={tv.bus.address}\n'
          f'  export HADRIX_ROOT={tv.root.path} HADRIX_SETTINGS_DIR={tv.root.settings_dir} '
          f'HADRIX_RUNTIME_SETTINGS_DIR={tv.root.runtime_settings_dir}\n'
          + COMMANDS_HELP.format(names=', '.join(CATALOGUE), languages=', '.join(LANGUAGES)) + '\n', flush=True)
    actions = {'plug': tv.plug, 'unplug': tv.unplug, 'standby': tv.standby, 'resume': tv.resume,
               'route': lambda n: tv.route(int(n)), 'state': tv.state,
               'wait': lambda s: tv.settle(float(s)), 'key': tv.key, 'tts': tv.tts,
               'multiview': tv.multiview, 'mirror': tv.mirror, 'language': tv.language}
    for line in sys.stdin:
        words = line.split()
        if not words:
            tv.follow()
            continue
        if words[0] == 'quit' or not tv.daemon.running():
            break
        action = actions.get(words[0])
        if action is None:
            print(COMMANDS_HELP.format(names=', '.join(CATALOGUE), languages=', '.join(LANGUAGES)), flush=True)
            continue
        try:
            action(*words[1:])
        except (KeyError, TypeError, ValueError) as error:
            print(f'? {error}', flush=True)
        tv.settle(0.5)
    return tv.stop_service() if tv.daemon.running() else tv.daemon.returncode


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('command', choices=['demo', 'run'], help='demo: the scripted story; '
                        'run: commands from standard input')
    parser.add_argument('--keep', action='store_true', help="keep the simulation's files")
    args = parser.parse_args()
    try:
        for name in ('hadrix', 'hadrix-settings', 'hadrix-klog-shim'):
            paths.program(name)
        paths.app_files()
    except paths.MissingProgram as error:
        sys.exit(f'tvsim: {error}')
    timeline = Timeline()
    try:
        tv = SimulatedTV(timeline, keep=args.keep)
    except (NotMocked, MissingLocales) as error:
        sys.exit(f'tvsim: {error}')
    try:
        status = {'demo': demo, 'run': run}[args.command](tv)
    finally:
        tv.close()
    sys.exit(0 if status == 0 else 1)


if __name__ == '__main__':
    main()
