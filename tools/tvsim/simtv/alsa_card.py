"""An emulated ALSA control device (/dev/snd/controlC<N>) for umockdev testbeds.

`EmulatedCard` is a UMockdev.IoctlBase that answers the SNDRV_CTL_IOCTL_* requests alsa-lib's
"hw" control plugin makes, so the real alsa-lib in the program under test walks, reads and
writes the controls listed here. Every ELEM_WRITE is recorded in order (`writes`). The mixer's
rules are proven in-process against the C++ emulation of tests/unit/common/EmulatedCard.h; this
one serves the running daemon of the integration tests and the simulated TV.

The ioctl numbers and structure layouts come from the build: the `alsa-abi` target compiles a
small C program against this machine's <sound/asound.h> that writes them to
<build>/tools/tvsim/alsa_abi.json.
"""
import errno
import json
import struct
import threading
import traceback
from dataclasses import dataclass, field
from typing import List

import gi

gi.require_version('UMockdev', '1.0')
from gi.repository import UMockdev  # noqa: E402

from . import paths  # noqa: E402

ABI_FILE = 'tools/tvsim/alsa_abi.json'


class Abi:
    """The control-device ABI as generated at build time."""

    def __init__(self, data):
        self.ioctl = data['ioctl']
        self.const = data['const']
        self._struct = data['struct']
        for name, native in (('sizeof_int', 'i'), ('sizeof_long', 'l'),
                             ('sizeof_long_long', 'q')):
            if self.const[name] != struct.calcsize(native):
                raise RuntimeError(f'{name} differs between the build ({self.const[name]}) and '
                                   f'this Python ({struct.calcsize(native)})')
        self.request_names = {number: name.replace('SNDRV_CTL_IOCTL_', '')
                              for name, number in self.ioctl.items()}

    def size(self, struct_name):
        return self._struct[f'sizeof_{struct_name}']

    def offset(self, struct_name, member):
        return self._struct[f'{struct_name}.{member}']

    def member_size(self, struct_name, member):
        return self._struct[f'{struct_name}.{member}.size']

    def __getattr__(self, name):
        for table in ('ioctl', 'const'):
            values = self.__dict__.get(table, {})
            if name in values:
                return values[name]
        raise AttributeError(name)


_abi = None


def abi():
    """The ABI of the build in HADRIX_BUILD_DIR (loaded once)."""
    global _abi
    if _abi is None:
        path = paths.build_dir() / ABI_FILE
        if not path.is_file():
            raise paths.MissingProgram(
                f'{path} does not exist. Build it with "cmake --build {paths.build_dir()} '
                f'--target alsa-abi", or point HADRIX_BUILD_DIR at the build directory that '
                f'has it.')
        _abi = Abi(json.loads(path.read_text()))
    return _abi


BOOLEAN, INTEGER = 'boolean', 'integer'
MIXER = 'mixer'


@dataclass
class Control:
    """One control element. `values` has one entry per channel; `fail_errno` makes every
    write fail with that error."""
    name: str
    type: str = INTEGER
    values: List[int] = field(default_factory=lambda: [0])
    min: int = 0
    max: int = 1
    step: int = 1
    iface: str = MIXER
    index: int = 0
    readable: bool = True
    writable: bool = True
    inactive: bool = False
    fail_errno: int = 0

    @property
    def count(self):
        return len(self.values)


@dataclass(frozen=True)
class Write:
    """One ELEM_WRITE request: the control it named, the values sent, and the error it was
    answered with (0 for success)."""
    name: str
    values: tuple
    error: int = 0


class EmulatedCard(UMockdev.IoctlBase):
    """The control device of one sound card. Attach with Testbed.attach_ioctl."""

    def __init__(self, card, controls, card_id='Headset', name='USB Headset',
                 driver='USB-Audio', components='USB0b0e:245e'):
        super().__init__()
        self.abi = abi()
        self.card = card
        self.card_id = card_id
        self.card_name = name
        self.driver = driver
        self.components = components
        self.controls = list(controls)
        self._writes = []
        self._lock = threading.Lock()
        self.connect('handle-ioctl', self._on_ioctl)

    # What the test reads ----------------------------------------------------------------------

    @property
    def writes(self):
        """Every ELEM_WRITE so far, in order."""
        with self._lock:
            return list(self._writes)

    def accepted_writes(self):
        return [write for write in self.writes if not write.error]

    # The device -------------------------------------------------------------------------------

    def _on_ioctl(self, _handler, client):
        request = client.get_request()
        try:
            with self._lock:
                result = self._dispatch(request, client.get_arg())
        except Exception:  # an answer is owed whatever happened; the traceback tells the test
            traceback.print_exc()
            result = -errno.EIO
        if result < 0:
            client.complete(-1, -result)
        else:
            client.complete(result, 0)
        return True

    def _dispatch(self, request, arg):
        name = self.abi.request_names.get(request, f'UNKNOWN_{request:#x}')
        handler = {
            'PVERSION': self._pversion,
            'CARD_INFO': self._card_info,
            'ELEM_LIST': self._elem_list,
            'ELEM_INFO': self._elem_info,
            'ELEM_READ': self._elem_read,
            'ELEM_WRITE': self._elem_write,
            'SUBSCRIBE_EVENTS': self._subscribe_events,
            'ELEM_LOCK': lambda _arg: 0,
            'ELEM_UNLOCK': lambda _arg: 0,
            'POWER_STATE': self._power_state,
        }.get(name)
        if handler is None:
            # No TLV data, no PCM/rawmidi/hwdep enumeration through this node, no user controls.
            return -errno.ENXIO if name.startswith(('TLV_', 'PCM_', 'RAWMIDI_', 'HWDEP_')) \
                else -errno.ENOTTY
        return handler(arg)

    def _pversion(self, arg):
        arg.resolve(0, 4).update(0, struct.pack('@i', self.abi.SNDRV_CTL_VERSION))
        return 0

    def _power_state(self, arg):
        arg.resolve(0, 4).update(0, struct.pack('@i', 0))  # D0, running
        return 0

    def _subscribe_events(self, arg):
        data = arg.resolve(0, 4)
        (subscribe,) = struct.unpack('@i', data.retrieve())
        if subscribe < 0:
            data.update(0, struct.pack('@i', 0))
        return 0

    def _put_text(self, buf, struct_name, member, text):
        offset = self.abi.offset(struct_name, member)
        size = self.abi.member_size(struct_name, member)
        raw = text.encode()[:size - 1]
        buf[offset:offset + size] = raw + bytes(size - len(raw))

    def _card_info(self, arg):
        size = self.abi.size('snd_ctl_card_info')
        buf = bytearray(size)
        struct.pack_into('@i', buf, self.abi.offset('snd_ctl_card_info', 'card'), self.card)
        for member, text in (('id', self.card_id), ('driver', self.driver),
                             ('name', self.card_name),
                             ('longname', f'{self.card_name} at usb-0000:00:14.0-1, full speed'),
                             ('mixername', 'USB Mixer'), ('components', self.components)):
            self._put_text(buf, 'snd_ctl_card_info', member, text)
        arg.resolve(0, size).update(0, bytes(buf))
        return 0

    # Element ids ------------------------------------------------------------------------------

    def _iface_number(self, iface):
        return self.abi.const[f'SNDRV_CTL_ELEM_IFACE_{iface.upper()}']

    def _pack_id(self, numid, control):
        buf = bytearray(self.abi.size('snd_ctl_elem_id'))
        for member, value in (('numid', numid), ('iface', self._iface_number(control.iface)),
                              ('device', 0), ('subdevice', 0), ('index', control.index)):
            struct.pack_into('@I', buf, self.abi.offset('snd_ctl_elem_id', member), value)
        self._put_text(buf, 'snd_ctl_elem_id', 'name', control.name)
        return bytes(buf)

    def _id_field(self, raw_id, member):
        return struct.unpack_from('@I', raw_id, self.abi.offset('snd_ctl_elem_id', member))[0]

    def _find(self, raw_id):
        """(numid, control) for an id the way the kernel looks it up: by numid when given,
        else by interface, device, subdevice, name and index. (0, None) when there is none."""
        numid = self._id_field(raw_id, 'numid')
        if numid:
            return (numid, self.controls[numid - 1]) if numid <= len(self.controls) else (0, None)
        offset = self.abi.offset('snd_ctl_elem_id', 'name')
        name = raw_id[offset:offset + self.abi.member_size('snd_ctl_elem_id', 'name')]
        name = name.split(b'\0', 1)[0].decode(errors='replace')
        for position, control in enumerate(self.controls, start=1):
            if (control.name == name and control.index == self._id_field(raw_id, 'index')
                    and self._iface_number(control.iface) == self._id_field(raw_id, 'iface')
                    and self._id_field(raw_id, 'device') == 0
                    and self._id_field(raw_id, 'subdevice') == 0):
                return position, control
        return 0, None

    # Elements ---------------------------------------------------------------------------------

    def _elem_list(self, arg):
        size = self.abi.size('snd_ctl_elem_list')
        data = arg.resolve(0, size)
        raw = data.retrieve()

        def field_of(member):
            return struct.unpack_from('@I', raw, self.abi.offset('snd_ctl_elem_list', member))[0]

        offset, space = field_of('offset'), field_of('space')
        listed = self.controls[offset:offset + space] if space else []
        if listed:
            id_size = self.abi.size('snd_ctl_elem_id')
            pids = data.resolve(self.abi.offset('snd_ctl_elem_list', 'pids'), space * id_size)
            pids.update(0, b''.join(self._pack_id(offset + i + 1, control)
                                    for i, control in enumerate(listed)))
        data.update(self.abi.offset('snd_ctl_elem_list', 'used'), struct.pack('@I', len(listed)))
        data.update(self.abi.offset('snd_ctl_elem_list', 'count'),
                    struct.pack('@I', len(self.controls)))
        return 0

    def _access(self, control):
        bits = 0
        for flag, name in ((control.readable, 'READ'), (control.writable, 'WRITE'),
                           (control.inactive, 'INACTIVE')):
            if flag:
                bits |= self.abi.const[f'SNDRV_CTL_ELEM_ACCESS_{name}']
        return bits

    def _elem_info(self, arg):
        size = self.abi.size('snd_ctl_elem_info')
        data = arg.resolve(0, size)
        raw = data.retrieve()
        id_size = self.abi.size('snd_ctl_elem_id')
        numid, control = self._find(raw[:id_size])
        if control is None:
            return -errno.ENOENT
        info = 'snd_ctl_elem_info'
        buf = bytearray(size)
        buf[:id_size] = self._pack_id(numid, control)
        type_number = self.abi.const[f'SNDRV_CTL_ELEM_TYPE_{control.type.upper()}']
        struct.pack_into('@i', buf, self.abi.offset(info, 'type'), type_number)
        struct.pack_into('@I', buf, self.abi.offset(info, 'access'), self._access(control))
        struct.pack_into('@I', buf, self.abi.offset(info, 'count'), control.count)
        struct.pack_into('@i', buf, self.abi.offset(info, 'owner'), -1)
        for member, value in (('min', control.min), ('max', control.max), ('step', control.step)):
            struct.pack_into('@l', buf, self.abi.offset(info, f'integer.{member}'), value)
        data.update(0, bytes(buf))
        return 0

    def _values_offset(self):
        """Where the channels' values (longs, of a boolean control too) are in snd_ctl_elem_value."""
        return self.abi.offset('snd_ctl_elem_value', 'integer.value')

    def _elem_read(self, arg):
        size = self.abi.size('snd_ctl_elem_value')
        data = arg.resolve(0, size)
        id_size = self.abi.size('snd_ctl_elem_id')
        numid, control = self._find(data.retrieve()[:id_size])
        if control is None:
            return -errno.ENOENT
        if not control.readable:
            return -errno.EPERM
        buf = bytearray(size)
        buf[:id_size] = self._pack_id(numid, control)
        struct.pack_into(f'@{control.count}l', buf, self._values_offset(), *control.values)
        data.update(0, bytes(buf))
        return 0

    def _valid(self, control, values):
        if control.type == BOOLEAN:
            return all(v in (0, 1) for v in values)
        return all(control.min <= v <= control.max for v in values)

    def _elem_write(self, arg):
        size = self.abi.size('snd_ctl_elem_value')
        data = arg.resolve(0, size)
        raw = data.retrieve()
        id_size = self.abi.size('snd_ctl_elem_id')
        numid, control = self._find(raw[:id_size])
        if control is None:
            return -errno.ENOENT
        values = struct.unpack_from(f'@{control.count}l', raw, self._values_offset())
        if not control.writable:
            error = errno.EPERM
        elif not self._valid(control, values):
            error = errno.EINVAL
        else:
            error = control.fail_errno
        self._writes.append(Write(control.name, tuple(values), error))
        if error:
            return -error
        control.values = list(values)
        return 0


# Control sets of USB headsets ---------------------------------------------------------------

def stereo_headset():
    """A plain USB headset: stereo PCM volume well below its maximum."""
    return [
        Control('PCM Playback Switch', BOOLEAN, [1]),
        Control('PCM Playback Volume', INTEGER, [30, 30], 0, 127),
        Control('Mic Capture Switch', BOOLEAN, [1]),
        Control('Mic Capture Volume', INTEGER, [16], 0, 31),
        Control('Sidetone Volume', INTEGER, [8], 0, 15),
    ]

