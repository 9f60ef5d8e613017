"""The service's client API as an application sees it: names, and the device-list records of
GetDeviceListInfo."""
import struct

SERVER_NAME = 'org.nimbos.hadrix.server'
SERVER_PATH = '/org/nimbos/tv/hadrix/server'
SERVER_IFACE = 'org.nimbos.hadrix.server.interface'
SIGNAL_PATH = '/org/nimbos/hadrex'
# One device-list record: selected, type, status, volume, product, manufacturer, reserved.
RECORD = struct.Struct('<B14s20si128s128s32s')
MAX_RECORDS = 2


class BadReply(AssertionError):
    pass


def _text(field):
    return field.split(b'\0', 1)[0].decode()


def records(data):
    """The records of a GetDeviceListInfo reply, as dicts of their fields; raises BadReply for
    a reply that is not whole records with terminated texts and zero reserved bytes."""
    if len(data) % RECORD.size != 0:
        raise BadReply(f'{len(data)} bytes is no whole number of records')
    if len(data) > MAX_RECORDS * RECORD.size:
        raise BadReply(f'{len(data) // RECORD.size} records, at most {MAX_RECORDS} expected')
    result = []
    for offset in range(0, len(data), RECORD.size):
        selected, kind, status, volume, product, maker, rest = RECORD.unpack_from(data, offset)
        if rest != bytes(len(rest)):
            raise BadReply('the reserved bytes are not zero')
        for field in (kind, status, product, maker):
            if b'\0' not in field:
                raise BadReply('a text field has no terminator')
        result.append({'selected': selected, 'type': _text(kind), 'status': _text(status),
                       'volume': volume, 'product': _text(product),
                       'manufacturer': _text(maker)})
    return result
