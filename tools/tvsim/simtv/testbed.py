"""USB sound devices in a umockdev testbed.

The test process must run under the umockdev preload (`umockdev-wrapper /usr/bin/python3 -m
pytest`); programs started with UMOCKDEV_DIR=<testbed.root> (see `env()`) then see the
testbed's /sys and /dev instead of the machine's.

    bed = Testbed()
    headset = bed.add_headset(card=1, vid='0b0e', pid='245e', product='Evolve 20',
                              manufacturer='Jabra', port='1-1')
    bed.attach_ioctl(headset.control, EmulatedCard(1, stereo_headset()))
    ...
    bed.remove(headset)

umockdev 0.17 has pitfalls these helpers take care of: /dev nodes come from DEVNAME/MAJOR/MINOR
lines plus plain files made here (an "N:" line makes a pty that cannot be added again after
removal), and removing a device sends no uevent, so "remove" is sent first, children before
parents.
"""
import grp
import os
from dataclasses import dataclass, field
from typing import Dict

import gi

gi.require_version('UMockdev', '1.0')
from gi.repository import UMockdev  # noqa: E402

# Shaped like the TV's: no ':' before the USB interface, which the kernel-log port rule relies on.
USB_CONTROLLER = '/devices/platform/soc/xhci-hcd.0'
SOUND_MAJOR = 116
USB_DEVICE_MAJOR = 189
# udev's mark of a sound card whose controls are set up: the card is ready for use.
INITIALIZED_LINE = 'E: SOUND_INITIALIZED=1\n'
# Sound nodes belong to root and the audio group, 0660, as udev makes them (in a run by another
# user than root they stay that user's).
SOUND_NODE_GROUP = 'audio'
SOUND_NODE_MODE = 0o660


def _own_as_sound_node(path):
    if os.geteuid() == 0:
        os.chown(path, 0, grp.getgrnam(SOUND_NODE_GROUP).gr_gid)
    os.chmod(path, SOUND_NODE_MODE)


def _usb_device_path(port):
    """sysfs path of the USB device on `port`: a device behind a hub sits below the hub
    (1-1.2 is /usb1/1-1/1-1.2)."""
    bus = int(port.split('-', 1)[0])
    path = f'{USB_CONTROLLER}/usb{bus}'
    hops = port.split('.')
    for depth in range(1, len(hops) + 1):
        path += '/' + '.'.join(hops[:depth])
    return path


class NotMocked(RuntimeError):
    pass


@dataclass
class Headset:
    """Paths of one USB headset in the testbed.

    `sysfs` maps each device of the tree (usb, interface, card, controlC<N>, pcmC<N>D0p,
    pcmC<N>D0c) to its /sys path, parents first; `control` is the /dev path of its control
    node, `usb` the /sys path of the USB device and `card_path` that of the sound card.
    """
    card: int
    usb: str
    card_path: str
    control: str
    playback: str
    capture: str
    sysfs: Dict[str, str] = field(default_factory=dict)


@dataclass
class Joystick:
    """Paths of a gamepad's input device: `sysfs` maps `input` (inputN) and `event` (its event
    node's device) to their /sys paths, parents first, as for a Headset."""
    input: str
    sysfs: Dict[str, str] = field(default_factory=dict)


class Testbed:
    __test__ = False  # not a pytest test class

    def __init__(self):
        self._bed = UMockdev.Testbed.new()
        # in_mock_environment() caches its answer: ask only after the testbed exists.
        if not UMockdev.in_mock_environment():
            raise NotMocked('the test process is not under the umockdev preload; run pytest as '
                            '"umockdev-wrapper /usr/bin/python3 -m pytest"')
        self.root = self._bed.get_root_dir()
        self._attached = []

    def env(self):
        """Variables for a child process that should see this testbed."""
        return {'UMOCKDEV_DIR': self.root}

    def add_headset(self, card=1, vid='0b0e', pid='245e', product='USB Headset',
                    manufacturer='ACME', port='1-1', devnum=2, card_id='Headset',
                    initialized=True, interface_class=1):
        """Adds a USB audio device on USB port `port` (bus-port, for example 1-1, or 1-1.2 for
        port 2 of a hub on 1-1, see add_hub) with sound card `card`: its control node and a
        playback and a capture PCM node. Sends an "add" uevent for each device, parents first.
        With `initialized` the card carries SOUND_INITIALIZED from the start (its controls are
        ready); without, it waits for initialize(). `interface_class` is the USB class of the
        interface carrying the card (1, audio, for a headset)."""
        bus = int(port.split('-', 1)[0])
        usb = _usb_device_path(port)
        interface = f'{usb}/{port}:1.0'
        card_path = f'{interface}/sound/card{card}'
        nodes = {f'controlC{card}': card * 32, f'pcmC{card}D0p': card * 32 + 16,
                 f'pcmC{card}D0c': card * 32 + 24}
        self._make_dev_files(f'snd/{name}' for name in nodes)

        records = [f'''P: {usb}
E: DEVNAME=/dev/bus/usb/{bus:03d}/{devnum:03d}
E: SUBSYSTEM=usb
E: DEVTYPE=usb_device
E: ID_VENDOR_ID={vid}
E: ID_MODEL_ID={pid}
A: idVendor={vid}
A: idProduct={pid}
A: product={product}
A: manufacturer={manufacturer}
A: busnum={bus}
A: devnum={devnum}
A: dev={USB_DEVICE_MAJOR}:{(bus - 1) * 128 + devnum - 1}
''', f'''P: {interface}
E: SUBSYSTEM=usb
E: DEVTYPE=usb_interface
E: INTERFACE=1/1/0
A: bInterfaceClass={interface_class:02x}
A: bInterfaceSubClass=01
A: bInterfaceNumber=00
''', f'''P: {card_path}
E: SUBSYSTEM=sound
{INITIALIZED_LINE if initialized else ''}A: id={card_id}
A: number={card}
''']
        for name, minor in nodes.items():
            records.append(f'''P: {card_path}/{name}
E: DEVNAME=/dev/snd/{name}
E: MAJOR={SOUND_MAJOR}
E: MINOR={minor}
E: SUBSYSTEM=sound
A: dev={SOUND_MAJOR}:{minor}
''')
        self._bed.add_from_string('\n'.join(records))

        sysfs = {'usb': '/sys' + usb, 'interface': '/sys' + interface, 'card': '/sys' + card_path}
        sysfs.update({name: f'/sys{card_path}/{name}' for name in nodes})
        return Headset(card=card, usb=sysfs['usb'], card_path=sysfs['card'],
                       control=f'/dev/snd/controlC{card}', playback=f'/dev/snd/pcmC{card}D0p',
                       capture=f'/dev/snd/pcmC{card}D0c', sysfs=sysfs)

    def initialize(self, headset):
        """Marks the card's controls ready, as udev does once the card is set up: the
        SOUND_INITIALIZED property and a "change" uevent of the card."""
        UMockdev.Testbed.set_property(self._bed, headset.card_path, 'SOUND_INITIALIZED', '1')
        self._bed.uevent(headset.card_path, 'change')

    def add_hub(self, port='1-1', devnum=2):
        """Adds a USB hub on `port`; devices on its ports are at `<port>.<n>`."""
        bus = int(port.split('-', 1)[0])
        self._bed.add_from_string(f'''P: {_usb_device_path(port)}
E: DEVNAME=/dev/bus/usb/{bus:03d}/{devnum:03d}
E: SUBSYSTEM=usb
E: DEVTYPE=usb_device
A: idVendor=05e3
A: idProduct=0610
A: product=USB2.0 Hub
A: bDeviceClass=09
A: busnum={bus}
A: devnum={devnum}
A: dev={USB_DEVICE_MAJOR}:{(bus - 1) * 128 + devnum - 1}
''')
        return '/sys' + _usb_device_path(port)

    def add_joystick(self, vendor, product, name, port='1-7', number=5):
        """Adds the input device of a gamepad on USB port `port` (its HID interface, 3) as udev
        describes it: `inputN` with an event node below, both marked ID_INPUT_JOYSTICK=1 and
        carrying the USB ids (ID_VENDOR_ID, ID_MODEL_ID: four hexadecimal digits) and the model
        name (ID_MODEL, with blanks as udev writes them: underscores). Sends an "add" uevent for
        each, parents first. The sound card of the same gamepad is add_headset on that port."""
        input_path = f'{_usb_device_path(port)}/{port}:1.3/input/input{number}'
        event_path = f'{input_path}/event{number}'
        self._make_dev_files([f'input/event{number}'])
        marks = (f'E: ID_INPUT=1\nE: ID_INPUT_JOYSTICK=1\nE: ID_BUS=usb\n'
                 f'E: ID_VENDOR_ID={vendor}\nE: ID_MODEL_ID={product}\n'
                 f'E: ID_MODEL={name.replace(" ", "_")}\n')
        minor = 64 + number
        self._bed.add_from_string(
            f'P: {input_path}\nE: SUBSYSTEM=input\nE: PRODUCT=3/{vendor}/{product}/100\n{marks}'
            f'A: name={name}\n\n'
            f'P: {event_path}\nE: DEVNAME=/dev/input/event{number}\nE: MAJOR=13\n'
            f'E: MINOR={minor}\nE: SUBSYSTEM=input\n{marks}A: dev=13:{minor}\n')
        sysfs = {'input': '/sys' + input_path, 'event': '/sys' + event_path}
        return Joystick(input=sysfs['input'], sysfs=sysfs)

    def remove(self, headset):
        """Unplugs a headset or a Joystick: a "remove" uevent for each device, children first,
        then the device itself (its /sys directory and /dev node)."""
        for path in reversed(list(headset.sysfs.values())):
            self._bed.uevent(path, 'remove')
            self._bed.remove_device(path)

    def attach_ioctl(self, dev_path, handler):
        """Serves the ioctls on a /dev node with a UMockdev.IoctlBase handler. A sound node's
        handler is reached with the node's own rights."""
        if not self._bed.attach_ioctl(dev_path, handler):
            raise RuntimeError(f'cannot attach an ioctl handler to {dev_path}')
        self._attached.append(dev_path)
        if dev_path.startswith('/dev/snd/'):
            _own_as_sound_node(os.path.join(self.root, 'ioctl', dev_path.lstrip('/')))

    def admit_other_users(self):
        """Lets programs under test that run as another user than the test in: they create
        their uevent sockets in the testbed's root and reach ioctls through its sockets."""
        os.chmod(self.root, 0o1777)
        os.chmod(os.path.join(self.root, 'ioctl', '_default'), 0o666)

    def detach_ioctl(self, dev_path):
        self._bed.detach_ioctl(dev_path)
        self._attached.remove(dev_path)

    def close(self):
        for dev_path in list(self._attached):
            self.detach_ioctl(dev_path)
        self._bed = None

    def _make_dev_files(self, names):
        # Before the uevents go out: a listener may look at the node as soon as it hears "add".
        for name in names:
            path = os.path.join(self.root, 'dev', name)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            open(path, 'a').close()
            if name.startswith('snd/'):
                _own_as_sound_node(path)
