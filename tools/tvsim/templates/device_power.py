'''The device power service: the power state code, on org.nimbos.DevicePower at
/org/nimbos/DevicePower. 0 and 1 are the working states, 2 and 4 the standby states.

Parameters:
  state  the state at start; default 0.

Mock-only methods (not the power service's):
  ChangeState(i current)  the device changes state: stored, and StateChanged(i previous,
                          i current) is emitted.
  SetState(i current)     the state becomes `current` without a signal, as the state at start.
'''
import dbus

BUS_NAME = 'org.nimbos.DevicePower'
MAIN_OBJ = '/org/nimbos/DevicePower'
MAIN_IFACE = 'org.nimbos.DevicePower'
SYSTEM_BUS = True


def load(mock, parameters):
    mock.state = int(parameters.get('state', 0))


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='i')
def GetState(self):
    return self.state


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='')
def ChangeState(self, current):
    previous, self.state = self.state, current
    self.EmitSignal(MAIN_IFACE, 'StateChanged', 'ii', [previous, current])


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='')
def SetState(self, current):
    self.state = current
