"""A catalogue of realistic USB devices to plug into the testbed, by name.

Each entry gives the device's ids, strings, USB port and sound-card number; `plug` adds it to a
testbed (with the kernel-log lines its enumeration causes, when a KernelLog is given) and
returns the testbed's Headset. A gamepad with an audio function also brings its input device,
which `testbed.remove` takes away with the card.
"""
from dataclasses import dataclass


@dataclass(frozen=True)
class Device:
    product: str
    manufacturer: str
    vid: str
    pid: str
    port: str
    card: int
    interface_class: int = 1  # USB audio
    # A gamepad's sound card: the name of the gamepad's own input device (a joystick).
    joystick: str = ''

    def numbers(self):
        return int(self.vid, 16), int(self.pid, 16)


CATALOGUE = {
    'headset': Device('Evolve 20', 'Jabra', '0b0e', '0300', '1-1', 1),
    'headset2': Device('H390 USB Headset', 'Logitech', '046d', '0a44', '1-2', 2),
    'headset3': Device('Arctis 1 Wireless', 'SteelSeries', '1038', '12b3', '1-3', 3),
    # In the service's camera table (the name and the ids of one of its rows).
    'webcam': Device('HD Pro Webcam C920', 'Logitech', '046d', '082d', '1-4', 4),
    'astro': Device('Astro A20', 'Astro Gaming', '9886', '002c', '1-5', 5),
    # A sound card behind a vendor-specific interface, not a USB audio one.
    'vendor-audio': Device('USB Capture HDMI', 'MACROSILICON', '534d', '2109', '1-6', 6,
                           interface_class=0xff),
    # Two devices on the ports of one hub.
    'twin-a': Device('USB Speaker', 'Creative', '041e', '3272', '2-1.1', 7),
    'twin-b': Device('USB Audio Device', 'C-Media', '0d8c', '0014', '2-1.2', 8),
    # A gamepad with a headphone jack: a USB sound card beside its joystick.
    'gamepad': Device('8BitDo Pro 2 Audio', '8BitDo', '2dc8', '3106', '1-7', 9,
                      joystick='8BitDo Pro 2'),
}


def plug(testbed, name, kernel_log=None, at=None, initialized=True):
    """Plugs catalogue device `name`; with a kernel log, first writes the lines of its
    enumeration stamped `at` seconds after boot. Without `initialized` its card waits for
    testbed.initialize (to attach an emulated mixer first)."""
    device = CATALOGUE[name]
    if kernel_log is not None:
        kernel_log.detect(device.port, at, device.vid, device.pid, device.product)
    # The joystick first: the service may look for it as soon as it hears of the card.
    joystick = testbed.add_joystick(device.vid, device.pid, device.joystick, port=device.port,
                                    number=device.card) if device.joystick else None
    headset = testbed.add_headset(card=device.card, vid=device.vid, pid=device.pid,
                                  product=device.product, manufacturer=device.manufacturer,
                                  port=device.port, devnum=2 + device.card,
                                  interface_class=device.interface_class, initialized=initialized)
    if joystick:
        # After the card's devices, so that removal (children first) takes the input device
        # away before the USB device it sits below.
        headset.sysfs.update(joystick.sysfs)
    return headset
