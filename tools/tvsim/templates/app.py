'''An application reachable by application control.

An application owns its app id as bus name and serves Launch(s operation, a(ss) extra_data) on
org.nimbos.AppControl at /org/nimbos/AppControl. Every Launch is kept in the mock's call log
(GetCalls), extra data in the order they came.

Parameters:
  app_id        the application's id; default org.nimbos.volume-app. Start the mock under
                this name (python3 -m dbusmock --system APP_ID /org/nimbos/AppControl
                org.nimbos.AppControl, then AddTemplate); a mock started under another name
                takes the app id as an additional name.
  launch_error  D-Bus error name Launch fails with (the application refuses to start);
                default: Launch succeeds.
'''
import dbus
import dbus.service

BUS_NAME = 'org.nimbos.volume-app'
MAIN_OBJ = '/org/nimbos/AppControl'
MAIN_IFACE = 'org.nimbos.AppControl'
SYSTEM_BUS = True


def load(mock, parameters):
    app_id = str(parameters.get('app_id', BUS_NAME))
    if mock.bus_name.get_name() != app_id:
        mock.app_id_name = dbus.service.BusName(app_id, mock.bus_name.get_bus(),
                                                do_not_queue=True)
    error = parameters.get('launch_error')
    code = f'raise dbus.exceptions.DBusException("launch refused", name={str(error)!r})' \
        if error else ''
    mock.AddMethod(MAIN_IFACE, 'Launch', 'sa(ss)', '', code)
