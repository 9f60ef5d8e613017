'''The key router: windows grab keys of the remote, whose presses then reach the grabbing
process as signals, on org.nimbos.KeyRouter at /org/nimbos/KeyRouter.

A window stages keys (ResetKeyGrabConfig clears its list, AddKey adds one), then grabs them
(SetGrabbedKeys, replacing the window's previous grab) or releases them (UnsetGrabbedKeys).
SetSpecialKeyMode stores a key's special mode. KeyDown(s key, s device) and KeyUp(s key, s device)
are sent only for keys some window has grabbed; a held key repeats KeyDown.

Parameters:
  failing  every key-router method fails with org.nimbos.KeyRouter.Error.Failed; default False.

Mock-only methods (not the key router's):
  PressKey(s key, s device)              the user presses a key: KeyDown if it is grabbed.
  ReleaseKey(s key, s device)            the user releases it: KeyUp if it is grabbed.
  HoldKey(s key, s device, i repeats)    a held key: KeyDown `repeats` times 0.1 s apart,
                                         then KeyUp, if it is grabbed.
  GetGrabbedKeys() -> as                 the keys grabbed by any window, sorted.
  GetSpecialKeyModes() -> a(isi)         (window, key, mode) of every special key, sorted.
  SetFailing(b failing)                  switches the failing mode.
'''
import time

import dbus

BUS_NAME = 'org.nimbos.KeyRouter'
MAIN_OBJ = '/org/nimbos/KeyRouter'
MAIN_IFACE = 'org.nimbos.KeyRouter'
SYSTEM_BUS = True

# Seconds between the repeated KeyDown signals of a held key.
REPEAT_INTERVAL = 0.1

FAILED = 'org.nimbos.KeyRouter.Error.Failed'


def load(mock, parameters):
    mock.staged = {}        # window -> {key: grab mode}
    mock.grabbed = {}       # window -> set of keys
    mock.special = {}       # (window, key) -> mode
    mock.failing = bool(parameters.get('failing', False))


def _check(mock):
    if mock.failing:
        raise dbus.exceptions.DBusException('the key router failed', name=FAILED)


def _is_grabbed(mock, key):
    return any(key in keys for keys in mock.grabbed.values())


def _emit(mock, signal, key, device):
    mock.EmitSignal(MAIN_IFACE, signal, 'ss', [key, device])


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='')
def ResetKeyGrabConfig(self, window):
    _check(self)
    self.staged[window] = {}


@dbus.service.method(MAIN_IFACE, in_signature='isi', out_signature='')
def AddKey(self, window, key, mode):
    _check(self)
    self.staged.setdefault(window, {})[str(key)] = mode


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='')
def SetGrabbedKeys(self, window):
    _check(self)
    self.grabbed[window] = set(self.staged.get(window, {}))


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='')
def UnsetGrabbedKeys(self, window):
    _check(self)
    self.grabbed[window] = self.grabbed.get(window, set()) - set(self.staged.get(window, {}))


@dbus.service.method(MAIN_IFACE, in_signature='iis', out_signature='')
def SetSpecialKeyMode(self, window, mode, key):
    _check(self)
    self.special[(window, str(key))] = mode


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='')
def PressKey(self, key, device):
    if _is_grabbed(self, key):
        _emit(self, 'KeyDown', key, device)


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='')
def ReleaseKey(self, key, device):
    if _is_grabbed(self, key):
        _emit(self, 'KeyUp', key, device)


@dbus.service.method(MAIN_IFACE, in_signature='ssi', out_signature='')
def HoldKey(self, key, device, repeats):
    if not _is_grabbed(self, key):
        return
    # A held key repeats at the pace of a remote control, not in one burst: a burst would be
    # taken as several separate quick presses.
    for repeat in range(repeats):
        if repeat:
            time.sleep(REPEAT_INTERVAL)
        _emit(self, 'KeyDown', key, device)
    time.sleep(REPEAT_INTERVAL)
    _emit(self, 'KeyUp', key, device)


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='as')
def GetGrabbedKeys(self):
    keys = set().union(*self.grabbed.values())
    return dbus.Array(sorted(keys), signature='s')


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='a(isi)')
def GetSpecialKeyModes(self):
    return dbus.Array([dbus.Struct((window, key, mode), signature='isi')
                       for (window, key), mode in sorted(self.special.items())], signature='(isi)')


@dbus.service.method(MAIN_IFACE, in_signature='b', out_signature='')
def SetFailing(self, failing):
    self.failing = bool(failing)
