'''Audio control: mute, gain and delay of the USB headset output, on org.nimbos.AudioControl at
/org/nimbos/AudioControl. Set* store the value, Get* return it; every call ends in the call log
(GetCalls).

Parameters (the values at start):
  mute   default False
  gain   default 0
  delay  default 0
'''
import dbus

BUS_NAME = 'org.nimbos.AudioControl'
MAIN_OBJ = '/org/nimbos/AudioControl'
MAIN_IFACE = 'org.nimbos.AudioControl'
SYSTEM_BUS = True


def load(mock, parameters):
    mock.usb_out = {
        'mute': bool(parameters.get('mute', False)),
        'gain': int(parameters.get('gain', 0)),
        'delay': int(parameters.get('delay', 0)),
    }


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='b')
def GetUsbOutMute(self):
    return self.usb_out['mute']


@dbus.service.method(MAIN_IFACE, in_signature='b', out_signature='')
def SetUsbOutMute(self, mute):
    self.usb_out['mute'] = bool(mute)


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='u')
def GetUsbOutGain(self):
    return self.usb_out['gain']


@dbus.service.method(MAIN_IFACE, in_signature='u', out_signature='')
def SetUsbOutGain(self, gain):
    self.usb_out['gain'] = int(gain)


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='u')
def GetUsbOutDelay(self):
    return self.usb_out['delay']


@dbus.service.method(MAIN_IFACE, in_signature='u', out_signature='')
def SetUsbOutDelay(self, delay):
    self.usb_out['delay'] = int(delay)
