'''The resource centre: the screen zones of a zone type (the zones of multiview), on
org.nimbos.ResourceCenter at /org/nimbos/ResourceCenter.

GetZones(i type) answers the configured zone ids, whatever the type; the call log (GetCalls)
shows the type asked for.

Parameters:
  zones    the zone ids; default [0, 1]. An empty list must be a typed dbus.Array (signature
           'i'): dbus-python cannot send an untyped empty one.
  failing  GetZones fails with org.nimbos.ResourceCenter.Error.Failed; default False.

Mock-only methods (not the resource centre's):
  SetZones(ai zones)      replaces the zone ids.
  SetFailing(b failing)   switches the failing mode.
'''
import dbus

BUS_NAME = 'org.nimbos.ResourceCenter'
MAIN_OBJ = '/org/nimbos/ResourceCenter'
MAIN_IFACE = 'org.nimbos.ResourceCenter'
SYSTEM_BUS = True

FAILED = 'org.nimbos.ResourceCenter.Error.Failed'
DEFAULT_ZONES = [0, 1]


def load(mock, parameters):
    mock.zones = [int(zone) for zone in parameters.get('zones', DEFAULT_ZONES)]
    mock.failing = bool(parameters.get('failing', False))


@dbus.service.method(MAIN_IFACE, in_signature='i', out_signature='ai')
def GetZones(self, zone_type):
    if self.failing:
        raise dbus.exceptions.DBusException('the resource centre failed', name=FAILED)
    return dbus.Array(self.zones, signature='i')


@dbus.service.method(MAIN_IFACE, in_signature='ai', out_signature='')
def SetZones(self, zones):
    self.zones = [int(zone) for zone in zones]


@dbus.service.method(MAIN_IFACE, in_signature='b', out_signature='')
def SetFailing(self, failing):
    self.failing = bool(failing)
