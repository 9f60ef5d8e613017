#!/usr/bin/python3
"""tvsim — hadrix on a simulated TV.

Starts a private system bus with the TV platform's services (sound manager, audio control,
device power, audio server, notification service, key router, resource centre, the TV viewer),
a USB device testbed, a kernel log, a fresh installation root with its settings store, and the
real hadrix daemon. Then it runs a scripted story (`demo`) or takes commands from an engineer
(`run`), printing a readable timeline of what the viewer did and what the service did in
response: from its log, the calls the platform services received, the popups it posted, the
settings it published, its event log, the signals on the bus, the service manager's notify
socket and the client API as `hadrixctl` shows it.

Run it under the device emulation with Debian's Python (scripts/demo does):
    umockdev-wrapper /usr/bin/python3 tools/tvsim/tvsim.py demo|run
"""
import argparse
import concurrent.futures
import json
import queue
import re
import shutil
import sys
import tempfile
import threading
import time
from dataclasses import dataclass
from pathlib import Path

import dbus

# The simulated platform is the package beside this script.
from simtv import paths
from simtv.bus import MockService, SystemBus
from simtv.daemon import Launcher
from simtv.devices import CATALOGUE, plug
from simtv.env import ChildEnv
from simtv.klog import KernelLog
from simtv.locales import MissingLocales, compile_locales
from simtv.notify import NotifySocket
from simtv.observer import SignalObserver
from simtv.platform import PlatformServices
from simtv.root import HadrixRoot
from simtv.testbed import NotMocked, Testbed
from simtv.wait import WaitTimeout

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
KPI_FILE = '/var/log/hadrix/kpi.jsonl'
MENU_LANGUAGE = 'db/menu_widget/language'
VOLUME_LEVEL = 'db/hadrix/volume_level'
VOLUME_MUTE = 'db/hadrix/volume_mute_status'
TTS = 'db/setting/accessibility/tts'
MULTIVIEW = 'memory/multiscreen/ui_mode'
MULTIVIEW_VOLUME = 'memory/multiscreen/volumeinfo_usbheadset'
MIRRORING = {'level': 'memory/menu/network/screenmirroring/set_volume_level',
             'mute': 'memory/menu/network/screenmirroring/set_volume_mute'}
SYSTEM_INFO = '/etc/nimbos/system-info.conf'
# The menu languages the simulated TV offers (compiled at start, a second or two each).
LANGUAGES = ('en_US.UTF-8', 'de_DE.UTF-8')
# libfaketime's speed for the epilogue: the ten-minute quit in six seconds.
FAST_CLOCK = 'x100'
# The service's last log line for a hot-plug event: handled, or dropped early.
HOTPLUG_ENDS = {'Ondetect info end', 'camera device', 'Not audio deveice', 'no card num, ignore',
                'power state is not normal', 'delay to check usb device timer exist'}

# What the viewer sees of each catalogue device; devices not listed are named by their strings.
KINDS = {
    'headset': 'a USB headset', 'headset2': 'a second USB headset',
    'headset3': 'a third USB headset', 'webcam': 'a webcam with a microphone',
    'astro': 'a gaming headset', 'vendor-audio': 'an HDMI capture stick',
    'twin-a': 'a USB speaker on a hub', 'twin-b': 'a USB sound card on the same hub',
    'gamepad': 'a gamepad with a headphone jack',
}

# What a log message means to someone watching the TV: (pattern, explanation); the pattern's
# groups fill the explanation.
EXPLAINED = [(re.compile(pattern), text) for pattern, text in [
    (r'^hadrix main$', 'the service process starts'),
    (r'^setlocale ret : (.*)$', 'menu language applied: {0}'),
    (r'^hadrix loop start$', 'entering the main loop'),
    (r'^service_app_create$', 'create callback: local files and the stored headset state come up'),
    (r'^get usb sound volume level (-?\d+)$', 'stored headset volume: {0}'),
    (r'^fail to get usb sound volume, set to default :(\d+)$', 'none stored: the volume is {0}'),
    (r'^get usb sound mute state  (\d+)$', 'stored mute state: {0} (0 = not muted)'),
    (r'^No devices found\.$', 'no USB audio device at start-up'),
    (r'^register gamepad cb : 1$', 'listening to the gamepad library'),
    (r'^\[START\] detect usb audio device \S+,(\w+)$', 'hot-plug: a USB sound card was {0}'),
    (r'^camera device$', 'it is a webcam: its microphone is no output, ignored'),
    (r'^Not audio deveice$', 'not a USB audio device: ignored'),
    (r'^power state is not normal$', 'the TV is in standby: hot-plug ignored'),
    (r'^delay to check usb device timer exist$',
     'a resume is pending: the devices will be looked at then'),
    (r'^vid :(\w+), \d+, pid :(\w+), \d+$',
     'the gamepad library reports a change of gamepad {0}:{1}'),
    (r'^gamepad$', "it is a gamepad's sound card: left alone"),
    (r'^\[END\] result of speakerChange  1$',
     'kernel log: found well after boot, so plugged by the viewer: it may take the sound'),
    (r'^\[END\] result of speakerChange  0$',
     'kernel log: present since boot or resume: the TV speakers keep the sound'),
    (r'^Astro device$', 'an Astro headset: not supported, left alone'),
    (r'^USB HEADSET more than 2\.\.$', 'two headsets already carry the sound: this one waits'),
    (r'^switch to usb speaker as it is usb audio mode\.\.\.$',
     'USB audio mode from before: the sound goes to the headset'),
    (r'^Not switch to usb speaker\.\.\.$', 'the headset was there at boot: TV speakers stay'),
    (r'^set delay to leave USBMode timer\.$',
     'USB audio mode from before but no headset: it is left in 15 s unless one comes'),
    (r'^Disable USb output\. \.\.\.$', 'leaving USB audio mode'),
    (r'^m_SpeakerChangeCb, route : (\d+),', 'the TV output route is now {0}'),
    (r'^SetUSBAudioMode enter : 1$', 'USB audio mode saved (survives restarts)'),
    (r'^SetUSBAudioMode enter : 0$', 'USB audio mode cleared'),
    (r'^still usb headset exist\.$', 'other USB audio devices remain'),
    (r'^No Usb Headset exist\.\.$', 'the last headset is gone'),
    (r'^enable 10mins quit service timer\.$',
     'the service quits in 10 minutes unless a headset comes'),
    (r'^power on pre state : (\d+), cur state: (\d+)$', 'power state {0} -> {1}'),
    (r'^launch delay timer$', 'back from standby: the devices are looked at again in 3 s'),
    (r'^begin to intit device file$', 'rebuilding the device manager after standby'),
    (r'^start GrabVolumeKey$', "the remote's volume keys are to go to the headset"),
    (r'^stop GrabVolumeKey$', 'the volume keys are to go back to the TV'),
    (r'^service_app_control$', 'an application-control request reached the service'),
    (r'^value: (.*)$', 'debug command value: {0}'),
    (r'^ret : 1, gain : (\d+)$', 'debug command result: the headset gain is {0}'),
    (r'^Volume control from USB_HEADSET_DEVICE,block it',
     'a key of the headset itself: the headset handles it'),
    (r'^sound mirroring volumelevel changed (\d+)\.$', 'screen mirroring changed the level to {0}'),
    (r'^sound mirroring mute state changed (\d+)\.$',
     'screen mirroring changed the mute state to {0}'),
    (r'^not usb headset mode, ignore\.$', 'not in USB audio mode: screen mirroring left alone'),
    (r'^current usb headset not connect$', 'no headset in use: nothing to publish'),
    (r'^service_app_terminate$', 'terminate callback: the service shuts down'),
    (r'^\[START\] 10mins quit service timeout, byebye\.\.\.$',
     'ten minutes without a headset: quitting'),
]]

# Calls of the platform services worth showing: (service attribute, method) -> text.
CALLS = {
    ('sound', 'SetSpeakerSelection'): 'sound manager <- output route {0}',
    ('sound', 'SetMultiviewSpeakerSelection'): 'sound manager <- route {0} for zone {1}',
    ('audio', 'SetUsbOutGain'): 'audio control <- headset gain {0}',
    ('audio', 'SetUsbOutMute'): 'audio control <- headset mute {0}',
    ('key_router', 'SetGrabbedKeys'): 'key router <- grab the staged keys',
    ('key_router', 'UnsetGrabbedKeys'): 'key router <- release the staged keys',
}

SIGNALS = {
    'Start': 'audio server <- "Start" card {0}',
    'Stop': 'audio server <- "Stop" card {0}',
    'SpkDisconnected': 'speaker manager <- "SpkDisconnected" ({0}, {1})',
}


def shown_name(device):
    """The name a viewer reads on the box: the maker, then the product (once)."""
    if device.product.startswith(device.manufacturer):
        return device.product
    return f'{device.manufacturer} {device.product}'


class Refused(Exception):
    """Something the simulated TV cannot do now (a device plugged twice, say)."""


def on_screen(extra):
    """What the TV viewer does with one launch request of the service."""
    command, value = extra.get('cmd'), extra.get('value', '')
    if command == 'extvolume_updown':
        direction, _, level = value.partition(',')
        return f'the volume bar shows {level} ({direction}) for "{extra.get("speaker_name")}"'
    if command == 'extvolume':
        return {'-4': 'the volume bar shows "muted"', '-5': 'the volume bar shows "unmuted"'} \
            .get(value, 'an unknown volume event')
    if command == 'play_tts':
        return 'the screen reader beeps' if value == 'beep' else f'the screen reader says "{value}"'
    return 'not a command the TV viewer knows'


def describe_kpi(event):
    kind = event.get('event')
    if kind == 'new_connected_device':
        return f'event log <- new device "{event.get("product_name")}"'
    if kind == 'connect_status':
        names = ' + '.join(f'"{name}"' for name in (event.get('first_name'),
                                                    event.get('second_name')) if name)
        return f'event log <- {"connected" if event.get("connected") else "disconnected"} {names}'
    if kind == 'warning':
        return f'event log <- warning {event.get("warning")} "{event.get("product_name")}"'
    return f'event log <- {kind}'


class Timeline:
    """Prints events with the seconds since the simulation started."""

    def __init__(self):
        self.start = time.monotonic()
        self.lock = threading.Lock()

    def elapsed(self):
        return time.monotonic() - self.start

    def say(self, who, text):
        with self.lock:
            print(f'{self.elapsed():7.2f}s  {who:<10} {text}', flush=True)

    def scene(self, title):
        with self.lock:
            print(f'\n          ── {title} ──', flush=True)


class SimulatedTV:
    def __init__(self, timeline, keep=False):
        self.timeline = timeline
        self.keep = keep
        self.work = Path(tempfile.mkdtemp(prefix='tvsim-'))
        locales = self.work / 'locales'
        # Only the service needs them: they compile while the platform comes up.
        self._compiling = concurrent.futures.ThreadPoolExecutor(len(LANGUAGES))
        self._locales = [self._compiling.submit(compile_locales, locales, [name])
                         for name in LANGUAGES]
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
        self.resource_center = self._spawn('resource_center', {'zones': [0, 1]})
        self.tv_viewer = self._spawn('app', {})
        self.signals = SignalObserver(self.bus.address)
        self.plugged = {}
        self.hubs = set()
        self.daemon = None
        self.monitor = None
        self._until_mark = 0
        self._seen = {'log': 0, 'notify': 0, 'signals': 0, 'launches': 0, 'popups': 0,
                      'closed': 0, 'kpi': 0, 'monitor': 0}
        self._calls_seen = {}
        self._multiview_volume = None
        timeline.say('tv', f'private system bus at {self.bus.address}')
        timeline.say('tv', f'installation root {self.root.path}')

    def _spawn(self, template, parameters):
        mock = MockService(self.bus, self.env.for_peer(), self.work, template, parameters)
        self.mocks.append(mock)
        return mock

    def kernel_time(self):
        return BOOTED_SECONDS_AGO + self.timeline.elapsed()

    def reach_me(self):
        """The shell line that reaches this TV's service from another terminal."""
        variables = {'DBUS_SYSTEM_BUS_ADDRESS': self.bus.address, **self.root.env()}
        return 'export ' + ' '.join(f'{key}={value}' for key, value in variables.items())

    # -- the service -------------------------------------------------------------------------
    def start_service(self, fast_clock=False):
        """Starts hadrix; with `fast_clock` on a clock running 100 times faster (libfaketime)."""
        for compiled in self._locales:
            compiled.result()  # raises MissingLocales
        env, preload = {}, []
        if fast_clock:
            if not paths.FAKETIME_LIBS:
                raise Refused('a faster clock needs libfaketime (Debian package libfaketime)')
            env['FAKETIME'] = f'+0 {FAST_CLOCK}'
            preload.append(paths.FAKETIME_LIBS[0])
        self.daemon = self.launcher.start(paths.program('hadrix'), env=env, preload=preload,
                                          label='hadrix')
        self._seen['log'] = 0
        self._until_mark = 0
        clock = f', its clock {FAST_CLOCK[1:]} times faster' if fast_clock else ''
        self.timeline.say('tv', f'hadrix started (pid {self.daemon.pid}{clock})')
        self.daemon.wait_for_log('service_app_create', timeout=10)
        self.bus.wait_for_name(SERVICE_BUS_NAME)
        self.follow()

    def follow_startup_enumeration(self):
        """Follows the service's look for the devices present at start-up (ten seconds when
        there is none) and the gamepad library, which it asks a second later."""
        self.settle_until('No devices found.', 15)
        self.settle(1.2)

    def stop_service(self):
        self.timeline.say('tv', 'asking the service to terminate (SIGTERM)')
        status = self.daemon.stop()
        self.settle(0.3)
        self.timeline.say('tv', f'hadrix exited with status {status}')
        return status

    def wait_for_exit(self, timeout):
        """Follows the service until it ends by itself; returns its exit status."""
        end = time.monotonic() + timeout
        while self.daemon.running() and time.monotonic() < end:
            self.settle(0.2)
        if self.daemon.running():
            raise Refused(f'the service still runs after {timeout:g} s')
        status = self.daemon.wait()
        self.settle(0.3)
        self.timeline.say('tv', f'hadrix exited by itself with status {status}')
        return status

    # -- the viewer and the TV ---------------------------------------------------------------
    def plug(self, name):
        if name not in CATALOGUE:
            raise Refused(f'no device {name!r}; known: {", ".join(CATALOGUE)}')
        if name in self.plugged:
            raise Refused(f'{name} is plugged already')
        device = CATALOGUE[name]
        kind = f'{KINDS[name]}, ' if name in KINDS else ''
        self.timeline.say('viewer', f'plugs {kind}{shown_name(device)}, into USB port {device.port}')
        hub = device.port.rsplit('.', 1)[0] if '.' in device.port else None
        if hub and hub not in self.hubs:
            self.testbed.add_hub(hub)
            self.hubs.add(hub)
        # The audio server is quick: it lists the card by the time the service asks for it.
        self._audio_server_opens(*self.plugged, name)
        self.plugged[name] = plug(self.testbed, name, self.kernel_log, self.kernel_time())

    def unplug(self, name):
        if name not in self.plugged:
            raise Refused(f'{name} is not plugged' + (f'; plugged: {", ".join(self.plugged)}'
                                                      if self.plugged else ''))
        device = CATALOGUE[name]
        self.timeline.say('viewer', f'unplugs {shown_name(device)}')
        self.kernel_log.disconnect(device.port, self.kernel_time())
        self.testbed.remove(self.plugged.pop(name))
        self._audio_server_opens(*self.plugged)

    def plug_and_watch(self, name, then=0.4):
        self._watch_hotplug(self.plug, name, then)

    def unplug_and_watch(self, name, then=0.4):
        self._watch_hotplug(self.unplug, name, then)

    def _watch_hotplug(self, action, name, then):
        """Plugs or unplugs `name`, follows the service until it has handled the event, and then
        `then` seconds more for what it does in the background (audio server, popups)."""
        self._until_mark = self.daemon.log.mark()
        action(name)
        self.settle(5, until=lambda record: record.message in HOTPLUG_ENDS)
        self.settle(then)

    def _audio_server_opens(self, *names):
        """The audio server has the cards of these catalogue devices open."""
        self.services.list_cards(*(CATALOGUE[name].card for name in names))

    def standby(self):
        self.timeline.say('viewer', 'presses the power button: the TV goes to standby')
        self.services.change_power(POWER_STANDBY)

    def resume(self):
        self.timeline.say('viewer', 'presses the power button: the TV wakes up')
        self.services.change_power(POWER_NORMAL)

    def route(self, route):
        names = {TV_SPEAKER_ROUTE: ' (TV speakers)', USB_HEADSET_ROUTE: ' (USB headset)'}
        self.timeline.say('viewer', f'picks output route {route}{names.get(route, "")} '
                                    f'in the sound menu')
        self.services.user_sets_route(route)

    def key(self, name, hold=0, device=REMOTE):
        """A volume key pressed on `device` (the remote), held for `hold` repeats."""
        key = KEYS[name]
        where = 'the remote' if device == REMOTE else device
        if hold:
            self.timeline.say('viewer', f'holds {name} on {where} ({hold} repeats)')
            self.key_router.call('HoldKey', key, device, int(hold))
            return
        self.timeline.say('viewer', f'presses {name} on {where}')
        self.key_router.call('PressKey', key, device)
        self.key_router.call('ReleaseKey', key, device)

    def tts(self, on):
        self.timeline.say('viewer', f'turns the screen reader {"on" if on else "off"}')
        self.root.set_setting(TTS, on, 'bool')

    def multiview(self, on):
        self.timeline.say('viewer', f'turns multiview (split screen) {"on" if on else "off"}')
        self.root.set_setting(MULTIVIEW, 'on' if on else 'off')

    def mirror(self, what, value):
        self.timeline.say('phone', f'screen mirroring sets the {what} to {value}')
        self.root.set_setting(MIRRORING[what], int(value))

    def language(self, name):
        if name not in LANGUAGES:
            raise Refused(f'no language {name!r}; known: {", ".join(LANGUAGES)}')
        self.timeline.say('viewer', f'sets the menu language to {name}')
        self.root.set_setting(MENU_LANGUAGE, name)

    def state(self):
        def setting(key, default):
            stored = self.root.get_setting(key)
            return stored[1] if stored else default
        grabbed = self.key_router.call('GetGrabbedKeys')
        devices = json.loads(self.root.read(DEPOT)) if self.root.exists(DEPOT) else []
        known = ', '.join(f'{device["product_name"]} (status {device["status"]})'
                          for device in devices)
        lines = [f'output route {self.services.route()}, USB audio mode '
                 f'{"on" if self.root.exists(USB_AUDIO_MODE) else "off"}',
                 f'headset volume {setting(VOLUME_LEVEL, "(not stored: 50)")}, '
                 f'muted {setting(VOLUME_MUTE, "0")}',
                 f'screen reader {"on" if setting(TTS, "0") == "1" else "off"}, '
                 f'multiview {setting(MULTIVIEW, "off")}',
                 f'devices in the depot: {known or "none"}',
                 f'plugged: {", ".join(self.plugged) or "nothing"}',
                 f'keys grabbed: {", ".join(str(key) for key in grabbed) or "none"}']
        for line in lines:
            self.timeline.say('state', line)

    # -- the client API through hadrixctl ----------------------------------------------------
    def ctl(self, *args):
        """Runs hadrixctl to its end and prints what it printed."""
        self.timeline.say('client', '$ hadrixctl ' + ' '.join(args))
        result = self.launcher.run(paths.program('hadrixctl'), args, timeout=15)
        for line in (result.stdout + result.stderr).splitlines():
            if line.strip():
                self.timeline.say('client', '  ' + line)
        if result.returncode:
            self.timeline.say('client', f'  (exit status {result.returncode})')
        return result.returncode

    def start_monitor(self):
        """`hadrixctl monitor` in the background: what it prints joins the timeline."""
        if self.monitor and self.monitor.running():
            raise Refused('hadrixctl monitor runs already')
        self.monitor = self.launcher.start(paths.program('hadrixctl'), ['monitor'],
                                           label='hadrixctl-monitor')
        self._seen['monitor'] = 0
        self.timeline.say('client', '$ hadrixctl monitor &   (its lines are marked "monitor")')

    # -- the timeline ------------------------------------------------------------------------
    def follow(self):
        """Prints what happened since the last call."""
        self._follow_log()
        self._follow_calls()
        self._follow_launches()
        self._follow_multiview()
        self._follow_signals()
        self._follow_popups()
        self._follow_kpi()
        self._follow_notify()
        self._follow_monitor()

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
            # The key router is this TV's own mock; the other services are the platform's.
            calls = (getattr(self.services, service, None) or getattr(self, service)).calls(method)
            seen = self._calls_seen.get((service, method), 0)
            for _, args in calls[seen:]:
                self.timeline.say('platform', text.format(*args))
            self._calls_seen[(service, method)] = len(calls)

    def _follow_launches(self):
        launches = self.tv_viewer.calls('Launch')
        for _, args in launches[self._seen['launches']:]:
            extra = dict(tuple(pair) for pair in args[1])
            self.timeline.say('platform', f'TV viewer <- {extra.get("cmd")} '
                                          f'"{extra.get("value")}": {on_screen(extra)}')
        self._seen['launches'] = len(launches)

    def _follow_multiview(self):
        """The volume the service publishes to the multiview screen (a settings key)."""
        stored = self.root.get_setting(MULTIVIEW_VOLUME)
        if not stored or stored[1] == self._multiview_volume:
            return
        self._multiview_volume = stored[1]
        try:
            info = json.loads(stored[1])
            text = (f'mute {info.get("mute")}, level {info.get("volumelevel")}'
                    if isinstance(info, dict) else stored[1])
        except ValueError:
            text = f'unreadable: {stored[1]!r}'
        self.timeline.say('platform', f'multiview screen <- volume info: {text}')

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

    def _follow_kpi(self):
        """The platform's event log, as the service appends to it (one JSON object a line)."""
        if not self.root.exists(KPI_FILE):
            return
        lines = self.root.read(KPI_FILE).splitlines()
        # Only whole lines: the service may be half-way through writing the last one.
        complete = [line for line in lines[self._seen['kpi']:] if line.endswith('}')]
        for line in complete:
            try:
                self.timeline.say('platform', describe_kpi(json.loads(line)))
            except ValueError:
                self.timeline.say('platform', f'event log <- unreadable line {line!r}')
        self._seen['kpi'] += len(complete)

    def _follow_notify(self):
        messages = self.notify.messages()
        for _, text in messages[self._seen['notify']:]:
            for line in text.split('\n'):
                if line == 'READY=1':
                    self.timeline.say('systemd', 'the service reported it is ready')
        self._seen['notify'] = len(messages)

    def _follow_monitor(self):
        if not self.monitor:
            return
        lines = self.monitor.out.lines(self._seen['monitor'])
        self._seen['monitor'] += len(lines)
        for line in lines:
            self.timeline.say('monitor', line)

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

    def close(self):
        """Ends everything; returns the crashes and sanitizer reports of the programs run."""
        self._compiling.shutdown()
        problems = self.launcher.reap()
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
        return problems



# -- the story -------------------------------------------------------------------------------
def demo(tv):
    say, scene = tv.timeline.say, tv.timeline.scene

    scene('The TV is on; the service starts')
    tv.root.set_setting(VOLUME_LEVEL, 35)
    say('tv', 'the settings store holds a headset volume of 35 from an earlier run')
    tv.start_service()
    tv.start_monitor()
    say('tv', 'with no USB audio device the service looks for one for ten seconds')
    tv.follow_startup_enumeration()

    scene('Devices that are not for the TV sound')
    tv.plug_and_watch('webcam')
    tv.plug_and_watch('gamepad')
    say('tv', 'support asks the service why it left them alone')
    tv.ctl('why')
    tv.settle(0.3)

    scene("A headset of the viewer's")
    tv.plug_and_watch('headset', then=0.6)
    tv.ctl('devices')
    tv.settle(0.3)

    scene('Volume keys of the remote, with the on-screen volume')
    tv.key('up')
    tv.settle(0.8)
    tv.key('up', hold=3)
    tv.settle(1)
    tv.key('mute')
    tv.settle(0.8)
    tv.key('down')
    tv.settle(0.8)
    tv.key('up', device='Jabra Evolve 20')
    tv.settle(0.8)
    tv.tts(True)
    tv.settle(0.3)
    tv.key('up')
    tv.settle(0.8)
    tv.tts(False)
    tv.settle(0.3)

    scene('More headsets: two carry the sound, a third waits')
    tv.plug_and_watch('headset2')
    tv.plug_and_watch('headset3', then=0.6)
    tv.ctl('why', 'Arctis 1 Wireless')
    tv.key('down')
    tv.settle(0.8)

    scene('Multiview and screen mirroring')
    tv.multiview(True)
    tv.settle(0.8)
    tv.key('up')
    tv.settle(0.8)
    tv.multiview(False)
    tv.settle(0.3)
    tv.mirror('level', 30)
    tv.settle(0.8)
    tv.mirror('mute', 1)
    tv.settle(0.8)
    tv.mirror('mute', 0)
    tv.settle(0.8)

    scene('The viewer picks another output, then the headset again')
    tv.route(TV_SPEAKER_ROUTE)
    tv.settle(1)
    tv.route(USB_HEADSET_ROUTE)
    tv.settle(1)

    scene('Standby and resume')
    tv.standby()
    tv.settle(1)
    tv.resume()
    tv.settle_until('switch to usb speaker as it is usb audio mode...', 8)
    tv.settle(1.2)  # the gamepad library is asked again a second later
    tv.ctl('why')

    scene('An engineer asks the service directly')
    tv.ctl('debug', 'audio_control', 'getUsbOutGain')
    tv.settle(0.8)
    tv.state()

    scene('The headsets go; devices on a hub; an unsupported headset')
    for name in ('headset3', 'headset2', 'headset'):
        tv.unplug_and_watch(name, then=0.3)
    tv.plug_and_watch('twin-a')
    tv.plug_and_watch('twin-b', then=0.6)
    tv.language('de_DE.UTF-8')
    tv.settle(0.4)
    tv.plug_and_watch('astro', then=0.6)

    scene('Everything unplugged')
    for name in ('astro', 'twin-b', 'gamepad', 'webcam', 'twin-a'):
        tv.unplug_and_watch(name, then=0.2)
    tv.settle(0.5)
    status = tv.stop_service()

    scene(f'The ten-minute quit, on a clock {FAST_CLOCK[1:]} times faster (libfaketime)')
    say('tv', 'the service starts again; the viewer plugs the headset in and out')
    tv.start_service(fast_clock=True)
    tv.daemon.wait_for_log('No devices found.', timeout=5)
    tv.settle(0.5)
    tv.plug_and_watch('headset', then=0.5)
    tv.unplug_and_watch('headset', then=0)
    say('tv', 'six seconds are ten minutes for the service now')
    quit_status = tv.wait_for_exit(30)
    return status or quit_status


# -- commands for an engineer ----------------------------------------------------------------
class Usage(Exception):
    pass


@dataclass
class Command:
    usage: str
    summary: str
    action: object  # (tv, args) -> None; raises Usage on bad arguments


def one_of(word, choices, usage):
    if word not in choices:
        raise Usage(usage)
    return word


def number(word, usage, low, high, kind=int):
    try:
        value = kind(word)
    except ValueError:
        raise Usage(usage) from None
    if not low <= value <= high:
        raise Usage(usage)
    return value


def expect_args(args, count, usage, optional=0):
    """The arguments, when there are `count` of them (up to `optional` more)."""
    if not count <= len(args) <= count + optional:
        raise Usage(usage)
    return args


def _plug(tv, args, unplug=False):
    usage = f'{"unplug" if unplug else "plug"} NAME, NAME one of: {", ".join(CATALOGUE)}'
    (name,) = expect_args(args, 1, usage)
    one_of(name, CATALOGUE, usage)
    (tv.unplug_and_watch if unplug else tv.plug_and_watch)(name)


def _key(tv, args):
    usage = 'key up|down|mute [HOLD]: HOLD repeats, 1 to 50'
    expect_args(args, 1, usage, optional=1)
    name = one_of(args[0], KEYS, usage)
    tv.key(name, number(args[1], usage, 1, 50) if len(args) > 1 else 0)


def _switch(setter, name):
    def action(tv, args):
        usage = f'{name} on|off'
        (word,) = expect_args(args, 1, usage)
        setter(tv, one_of(word, ('on', 'off'), usage) == 'on')
    return action


def _mirror(tv, args):
    usage = 'mirror level 0..100 | mirror mute 0|1'
    what, value = expect_args(args, 2, usage)
    one_of(what, MIRRORING, usage)
    tv.mirror(what, number(value, usage, 0, 100 if what == 'level' else 1))


def _route(tv, args):
    usage = f'route N: {TV_SPEAKER_ROUTE} TV speakers, {USB_HEADSET_ROUTE} USB headset'
    (route,) = expect_args(args, 1, usage)
    tv.route(number(route, usage, 0, 63))


def _language(tv, args):
    (name,) = expect_args(args, 1, f'language NAME, NAME one of: {", ".join(LANGUAGES)}')
    tv.language(name)


def _ctl(tv, args):
    if not args:
        raise Usage('ctl ARGS...: hadrixctl with these arguments, e.g. ctl devices; '
                    'ctl monitor runs in the background')
    if args == ['monitor']:
        tv.start_monitor()
    else:
        tv.ctl(*args)


def _why(tv, args):
    """why [DEVICE]: a product name may hold blanks."""
    tv.ctl('why', *([' '.join(args)] if args else []))


def _wait(tv, args):
    usage = 'wait SECONDS (up to 600)'
    (seconds,) = expect_args(args, 1, usage)
    tv.settle(number(seconds, usage, 0, 600, float))


def _no_args(method, name):
    def action(tv, args):
        expect_args(args, 0, name)
        method(tv)
    return action


COMMANDS = {
    'plug': Command('plug NAME', f'plugs a catalogue device: {", ".join(CATALOGUE)}', _plug),
    'unplug': Command('unplug NAME', 'unplugs it',
                      lambda tv, args: _plug(tv, args, unplug=True)),
    'key': Command('key up|down|mute [HOLD]', "a volume key of the remote (held for HOLD repeats)",
                   _key),
    'tts': Command('tts on|off', 'the screen reader: beeps and spoken levels',
                   _switch(SimulatedTV.tts, 'tts')),
    'multiview': Command('multiview on|off', 'split screen: per-zone routes, volume published',
                         _switch(SimulatedTV.multiview, 'multiview')),
    'mirror': Command('mirror level N | mirror mute 0|1', "screen mirroring's volume", _mirror),
    'route': Command('route N', f'the viewer picks output route N ({TV_SPEAKER_ROUTE} TV '
                                f'speakers, {USB_HEADSET_ROUTE} USB headset)', _route),
    'standby': Command('standby', "the TV's power button: to standby",
                       _no_args(SimulatedTV.standby, 'standby')),
    'resume': Command('resume', "the TV's power button: back on",
                      _no_args(SimulatedTV.resume, 'resume')),
    'language': Command('language NAME', f'the menu language ({", ".join(LANGUAGES)})', _language),
    'ctl': Command('ctl ARGS...', 'hadrixctl ARGS... (ctl devices, ctl monitor, '
                                  'ctl debug localFileData volumeUp)', _ctl),
    'why': Command('why [DEVICE]', 'what the service decided about each device and why '
                                   '(hadrixctl why)', _why),
    'state': Command('state', 'what the TV knows now', _no_args(SimulatedTV.state, 'state')),
    'wait': Command('wait SECONDS', 'just watch', _wait),
    'help': Command('help', 'this list', lambda tv, args: print(commands_help(), flush=True)),
    'quit': Command('quit', 'stop the service and the simulation', None),
}


def commands_help():
    width = max(len(command.usage) for command in COMMANDS.values())
    return 'commands:\n' + '\n'.join(f'  {command.usage:<{width}}  {command.summary}'
                                     for command in COMMANDS.values())


def execute(tv, line):
    """Runs one command line; returns False for quit."""
    parts = line.split()
    if not parts:
        return True
    name, args = parts[0], parts[1:]
    command = COMMANDS.get(name)
    if command is None:
        print(f'? unknown command {name!r}; "help" lists the commands', flush=True)
        return True
    if command.action is None:
        return False
    try:
        command.action(tv, args)
    except Usage as usage:
        print(f'? usage: {usage}', flush=True)
    except Refused as refusal:
        print(f'? {refusal}', flush=True)
    except (WaitTimeout, dbus.exceptions.DBusException) as error:
        print(f'? {error}', flush=True)
    return True


def read_commands(lines, ready):
    """Reads command lines for the main thread, one at a time (None at the end of input);
    on a terminal with a prompt and line editing."""
    interactive = sys.stdin.isatty()
    if interactive:
        import readline  # noqa: F401  (line editing and history for input())
    while ready.get() is not None:
        try:
            line = input('tvsim> ') if interactive else sys.stdin.readline()
        except EOFError:
            line = ''
        if not interactive and line == '':
            lines.put(None)
            return
        lines.put(line)


def run(tv):
    tv.start_service()
    tv.timeline.say('tv', 'the service looks for USB audio devices present at start-up '
                          '(ten seconds when there is none)')
    tv.follow_startup_enumeration()
    print(f'\nThe service runs. To reach it from another shell:\n'
          f'  {tv.reach_me()}\n'
          f'  {paths.program("hadrixctl")} devices\n\n'
          f'{commands_help()}\n', flush=True)
    lines, ready = queue.Queue(), queue.Queue()
    threading.Thread(target=read_commands, args=(lines, ready), daemon=True).start()
    ready.put(True)
    try:
        while tv.daemon.running():
            try:
                line = lines.get(timeout=0.1)
            except queue.Empty:
                tv.follow()
                continue
            if line is None or not execute(tv, line):
                break
            tv.settle(0.5)
            ready.put(True)
    except KeyboardInterrupt:
        print()
    if not tv.daemon.running():
        tv.settle(0.3)
        tv.timeline.say('tv', f'hadrix exited by itself with status {tv.daemon.returncode}')
        return tv.daemon.returncode
    return tv.stop_service()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('command', choices=['demo', 'run'], help='demo: the scripted story; '
                        'run: commands from standard input')
    parser.add_argument('--keep', action='store_true', help="keep the simulation's files")
    args = parser.parse_args()
    try:
        for name in ('hadrix', 'hadrix-settings', 'hadrixctl', 'hadrix-klog-shim'):
            paths.program(name)
        paths.app_files()
    except paths.MissingProgram as error:
        sys.exit(f'tvsim: {error}')
    timeline = Timeline()
    try:
        tv = SimulatedTV(timeline, keep=args.keep)
    except NotMocked as error:
        sys.exit(f'tvsim: {error}')
    try:
        status = {'demo': demo, 'run': run}[args.command](tv)
    except MissingLocales as error:
        timeline.say('tv', f'tvsim: {error}')
        status = 1
    except (Refused, WaitTimeout) as error:
        timeline.say('tv', f'the story cannot go on: {error}')
        status = 1
    finally:
        problems = tv.close()
    for problem in problems:
        print(f'tvsim: crashed or reported by a sanitizer: {problem}', file=sys.stderr)
    sys.exit(0 if status == 0 and not problems else 1)


if __name__ == '__main__':
    main()
