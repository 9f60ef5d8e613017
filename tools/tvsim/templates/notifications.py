'''The notification service on the system bus: org.freedesktop.Notifications at
/org/freedesktop/Notifications, the freedesktop interface (Notify, CloseNotification,
GetCapabilities, GetServerInformation, signal NotificationClosed).

Every call ends in the call log (GetCalls) with its arguments, Notify's hints included. Notify
gives each new notification the next id from 1 on; a Notify whose replaces_id is on screen
updates that notification and keeps its id. CloseNotification takes a notification off the
screen and emits NotificationClosed(id, 3); an unknown id is accepted and changes nothing.

Parameters:
  failing  Notify fails with org.freedesktop.Notifications.Error.Failed; default False.

Mock-only methods (not the notification service's):
  OnScreen() -> a(uss)       the notifications on screen: id, summary, body, oldest first.
  OnScreenDetails() -> a(ussa{sv}i)   the same, with the hints and expire_timeout each was
                             last posted with.
  Dismiss(u id)              the user closes it: off screen, NotificationClosed(id, 2).
  Expire(u id)               its time is up: off screen, NotificationClosed(id, 1).
'''
import dbus

BUS_NAME = 'org.freedesktop.Notifications'
MAIN_OBJ = '/org/freedesktop/Notifications'
MAIN_IFACE = 'org.freedesktop.Notifications'
SYSTEM_BUS = True

FAILED = 'org.freedesktop.Notifications.Error.Failed'
REASON_EXPIRED, REASON_DISMISSED, REASON_CLOSED = 1, 2, 3


def load(mock, parameters):
    mock.failing = bool(parameters.get('failing', False))
    mock.next_id = 1
    # id -> (summary, body, hints, expire_timeout), in the order they appeared
    mock.on_screen = {}


def _close(mock, notification_id, reason):
    if mock.on_screen.pop(int(notification_id), None) is not None:
        mock.EmitSignal(MAIN_IFACE, 'NotificationClosed', 'uu', [notification_id, reason])


@dbus.service.method(MAIN_IFACE, in_signature='susssasa{sv}i', out_signature='u')
def Notify(self, app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout):
    if self.failing:
        raise dbus.exceptions.DBusException('the notification service failed', name=FAILED)
    notification_id = int(replaces_id)
    if notification_id not in self.on_screen:
        notification_id = self.next_id
        self.next_id += 1
    self.on_screen[notification_id] = (str(summary), str(body), hints, expire_timeout)
    return dbus.UInt32(notification_id)


@dbus.service.method(MAIN_IFACE, in_signature='u', out_signature='')
def CloseNotification(self, notification_id):
    _close(self, notification_id, REASON_CLOSED)


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='as')
def GetCapabilities(self):
    return ['body', 'persistence']


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='ssss')
def GetServerInformation(self):
    return ('hadrix test notifications', 'hadrix', '1.0', '1.2')


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='a(uss)')
def OnScreen(self):
    return dbus.Array([dbus.Struct((dbus.UInt32(i), summary, body), signature='uss')
                       for i, (summary, body, _, _) in self.on_screen.items()], signature='(uss)')


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='a(ussa{sv}i)')
def OnScreenDetails(self):
    return dbus.Array([dbus.Struct((dbus.UInt32(i), summary, body,
                                    dbus.Dictionary(hints, signature='sv'), expire),
                                   signature='ussa{sv}i')
                       for i, (summary, body, hints, expire) in self.on_screen.items()],
                      signature='(ussa{sv}i)')


@dbus.service.method(MAIN_IFACE, in_signature='u', out_signature='')
def Dismiss(self, notification_id):
    _close(self, notification_id, REASON_DISMISSED)


@dbus.service.method(MAIN_IFACE, in_signature='u', out_signature='')
def Expire(self, notification_id):
    _close(self, notification_id, REASON_EXPIRED)
