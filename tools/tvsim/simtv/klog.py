"""The kernel log the service reads, written by the test in the TV's time-stamp format.

The daemon runs with the klogctl shim preloaded (tools/tvsim/shims), which serves this file as the
kernel's ring buffer and reads it again on every call, so a test appends the lines a device
would cause before it plugs the device.

    log = KernelLog(path)
    log.boot()                                   # USB core up at 2.1 s
    log.detect('1-1', at=3.5, vid='0b0e', pid='245e')   # present at boot
    log.detect('1-2', at=120.0, vid='0b0e', pid='245f') # plugged by the viewer later
"""
from pathlib import Path

USB_CORE_UP = 'usb_enable mod ld'


class KernelLog:
    def __init__(self, path):
        self.path = Path(path)
        self.path.write_text('')
        self._device_numbers = {}

    def line(self, at, text, level=6):
        """Appends one line stamped `at` seconds after boot ("[12.345678]", no padding)."""
        with self.path.open('a') as log:
            log.write(f'<{level}>[{at:.6f}] {text}\n')

    def boot(self, core_at=2.1):
        """The boot lines, with the USB core coming up at `core_at` seconds."""
        self.line(0.0, 'Booting Linux on physical CPU 0x0', level=5)
        self.line(0.8, 'usbcore: registered new interface driver usbfs')
        self.line(core_at, USB_CORE_UP)
        self.line(core_at + 0.1, 'xhci_hcd xhci_hcd.0: new USB bus registered, assigned bus number 1')

    def detect(self, port, at, vid='0b0e', pid='245e', product='USB Headset'):
        """The lines of a USB device enumerated on `port` at `at` seconds."""
        number = self._device_numbers.get(port, 1) + 1
        self._device_numbers[port] = number
        self.line(at, f'usb {port}: new full-speed USB device number {number} using xhci_hcd')
        self.line(at + 0.1, f'usb {port}: New USB device found, idVendor={vid}, idProduct={pid}, '
                            f'bcdDevice= 1.00')
        self.line(at + 0.1, f'usb {port}: Product: {product}')

    def disconnect(self, port, at):
        self.line(at, f'usb {port}: USB disconnect, device number {self._device_numbers.get(port, 2)}')
        self.line(at + 0.002, f'usb {port}: USB disconnect completed')
