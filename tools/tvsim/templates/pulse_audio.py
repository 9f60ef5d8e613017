'''The audio server's own D-Bus extension: which USB headset cards it has opened.

GetConnectedUsbHeadset() -> ai on org.pulseaudio.NimbosTV at /org/pulseaudio/NimbosTV answers
with the card numbers the server has opened. Every call is kept in the mock's call log; the
wall-clock time of each call is also kept, with sub-second precision, for GetQueryTimes.

Parameters:
  cards         card numbers the server lists; default none (an empty array).
  listed_from   the first call (counted from 1) that lists the cards; the calls before it get an
                empty array, as while the server is still opening a card just plugged in;
                default 1.
  delay         seconds the server takes before it answers (blocking the mock); default 0.
  error         D-Bus error name every call fails with; default: calls succeed.
  reply_type    'ai' (default), or 'as' for a server that answers with the wrong type (the
                card numbers as strings).

Mock-only methods (interface org.freedesktop.DBus.Mock):
  SetCards(ai)       replaces the listed cards (listed from the next call on).
  SetDelay(d)        replaces the answer delay, in seconds.
  SetError(s)        replaces the error name; '' makes calls succeed again.
  GetQueryTimes() -> ad   wall-clock time of every GetConnectedUsbHeadset call, in order.
'''
import time

import dbus

from dbusmock import MOCK_IFACE

BUS_NAME = 'org.pulseaudio.Server'
MAIN_OBJ = '/org/pulseaudio/NimbosTV'
MAIN_IFACE = 'org.pulseaudio.NimbosTV'
SYSTEM_BUS = True


def load(mock, parameters):
    mock.pulse_cards = [int(card) for card in parameters.get('cards', [])]
    mock.pulse_listed_from = int(parameters.get('listed_from', 1))
    mock.pulse_delay = float(parameters.get('delay', 0))
    mock.pulse_error = str(parameters.get('error', ''))
    mock.pulse_query_times = []
    reply_type = str(parameters.get('reply_type', 'ai'))
    if reply_type not in ('ai', 'as'):
        raise ValueError(f'reply_type must be ai or as, not {reply_type!r}')
    convert = int if reply_type == 'ai' else str
    mock.AddMethod(MAIN_IFACE, 'GetConnectedUsbHeadset', '', reply_type,
                   lambda self: _connected_cards(self, convert))


def _connected_cards(mock, convert):
    mock.pulse_query_times.append(time.time())
    if mock.pulse_delay > 0:
        time.sleep(mock.pulse_delay)
    if mock.pulse_error:
        raise dbus.exceptions.DBusException('the audio server failed', name=mock.pulse_error)
    if len(mock.pulse_query_times) < mock.pulse_listed_from:
        return []
    return [convert(card) for card in mock.pulse_cards]


@dbus.service.method(MOCK_IFACE, in_signature='ai', out_signature='')
def SetCards(self, cards):
    self.pulse_cards = [int(card) for card in cards]
    self.pulse_listed_from = 1


@dbus.service.method(MOCK_IFACE, in_signature='d', out_signature='')
def SetDelay(self, seconds):
    self.pulse_delay = float(seconds)


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def SetError(self, name):
    self.pulse_error = str(name)


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='ad')
def GetQueryTimes(self):
    return dbus.Array(self.pulse_query_times, signature='d')
