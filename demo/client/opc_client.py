"""An OPC DA client over impacket, which does activation, NTLMv2, signing and sealing, and the object connection; the OPC
calls are put together here.
"""

import struct
import uuid

from impacket.dcerpc.v5 import dcomrt
from impacket.uuid import string_to_bin, uuidtup_to_bin

CLASS_ID = '43FB6634-CC72-4EE9-A292-BEDF9FF018BD'
OPC = '-011E-11D0-9675-0020AFD8ADB3'
IOPC_SERVER = '39C13A4D' + OPC
IOPC_BROWSE = '39C13A4F' + OPC
IOPC_GROUP_STATE = '39C13A50' + OPC
IOPC_SYNC_IO = '39C13A52' + OPC
IOPC_ITEM_MGT = '39C13A54' + OPC
IOPC_ITEM_PROPERTIES = '39C13A72' + OPC
IOPC_ASYNC_IO2 = '39C13A71' + OPC
IOPC_DATA_CALLBACK = '39C13A70' + OPC
IOPC_SHUTDOWN = 'F31DFDE1-07B6-11D2-B2D8-0060083BA1FB'
ICONNECTION_POINT_CONTAINER = 'B196B284-BAB4-101A-B69C-00AA00341D07'
ICONNECTION_POINT = 'B196B286-BAB4-101A-B69C-00AA00341D07'
IREM_UNKNOWN = '00000131-0000-0000-C000-000000000046'
IENUM_STRING = '00000101-0000-0000-C000-000000000046'

FLAT = 3
CACHE, DEVICE = 1, 2
VT_EMPTY, VT_I2, VT_I4, VT_R4, VT_R8, VT_DATE, VT_BSTR, VT_BOOL = 0, 2, 3, 4, 5, 7, 8, 11
FORMS = {VT_I2: 'h', VT_I4: 'i', VT_R4: 'f', VT_R8: 'd', VT_DATE: 'd', VT_BOOL: 'h'}


class Writer:
    def __init__(self):
        # ORPCTHIS: version 5.7, flags, reserved, causality id, no extensions
        self.data = bytearray(struct.pack('<HHII', 5, 7, 0, 0) + uuid.uuid4().bytes_le + b'\0\0\0\0')

    def put(self, form, *values):
        size = struct.calcsize(form)
        for value in values:
            self.data += b'\0' * (-len(self.data) % size) + struct.pack('<' + form, value)
        return self

    def u16(self, *values):
        return self.put('H', *values)

    def u32(self, *values):
        return self.put('I', *values)

    def handles(self, values):
        return self.u32(len(values), *values)

    def bytes(self, data):
        self.data += data
        return self

    def guid(self, text):
        self.data += b'\0' * (-len(self.data) % 4) + uuid.UUID(text).bytes_le
        return self

    def string(self, text):
        units = (text + '\0').encode('utf-16le')
        self.u32(len(units) // 2, 0, len(units) // 2)
        self.data += units
        return self


class Reader:
    def __init__(self, data):
        self.data = data
        self.at = 0
        self.u32()
        if self.u32():
            raise ValueError('unexpected ORPC extensions')

    def get(self, form):
        size = struct.calcsize(form)
        self.at += -self.at % size
        value, = struct.unpack('<' + form, self.raw(size))
        return value

    def u16(self):
        return self.get('H')

    def u32(self):
        return self.get('I')

    def filetime(self):
        low, high = self.u32(), self.u32()
        return high << 32 | low

    def raw(self, size):
        self.at += size
        return self.data[self.at - size:self.at]

    def guid(self):
        self.at += -self.at % 4
        return str(uuid.UUID(bytes_le=bytes(self.raw(16)))).upper()

    def string(self):
        self.u32(), self.u32()
        return self.raw(2 * self.u32()).decode('utf-16le').rstrip('\0')

    def array(self, read):
        return [read() for _ in range(self.u32())] if self.u32() else []

    def hresults(self):
        return self.array(self.u32)

    def interface(self):
        if not self.u32():
            return None
        size, _ = self.u32(), self.u32()
        return bytes(self.raw(size))

    def variant(self):
        """Type and value."""
        self.at += -self.at % 8
        self.u32(), self.u32()
        kind = self.u16()
        self.raw(6)
        self.u32()
        if kind == VT_EMPTY:
            return kind, None
        if kind != VT_BSTR:
            value = self.get(FORMS[kind])
            return kind, value != 0 if kind == VT_BOOL else value
        if not self.u32():
            return kind, None
        _, size, _ = self.u32(), self.u32(), self.u32()
        return kind, self.raw(size).decode('utf-16le')


class Interface:
    """One interface pointer: an impacket interface plus its interface id. held: the client's references, by their IPIDs."""

    def __init__(self, pointer, iid, held, references=5):
        self.pointer, self.held = pointer, held
        self.binary = uuidtup_to_bin((iid, '0.0'))
        held[pointer.get_iPid()] = held.get(pointer.get_iPid(), 0) + references

    def call(self, opnum, request, ipid=None):
        self.pointer.connect(self.binary)
        connection = self.pointer.get_dce_rpc()
        connection.call(opnum, bytes(request.data), uuid=ipid or self.pointer.get_iPid())
        return Reader(connection.recv())

    def query(self, iid):
        return Interface(self.pointer.RemQueryInterface(1, (uuid.UUID(iid).bytes_le,)), iid, self.held, 1)

    def wrap(self, objref, iid):
        made = dcomrt.INTERFACE(self.pointer.get_cinstance(), objref, self.pointer.get_ipidRemUnknown(),
                                target=self.pointer.get_target())
        return Interface(dcomrt.IRemUnknown2(made), iid, self.held)

    def release_all(self):
        """Gives back whatever the client holds."""
        self.pointer.connect(uuidtup_to_bin((IREM_UNKNOWN, '0.0')))
        request = Writer().u16(len(self.held)).u32(len(self.held))
        for ipid, references in self.held.items():
            request.bytes(ipid).u32(references, 0)
        connection = self.pointer.get_dce_rpc()
        connection.call(5, bytes(request.data), uuid=self.pointer.get_ipidRemUnknown())
        connection.recv()
        self.held.clear()


class Client:
    LEVELS = {'none': 1, 'connect': 2, 'integrity': 5, 'privacy': 6}

    def __init__(self):
        self.points, self.advised, self.references = {}, {}, {}

    def connect(self, address, user, password, domain='DEMO', level='privacy'):
        self.server = self.activate(CLASS_ID, IOPC_SERVER, address, user, password, domain, level)

    def activate(self, class_id, iid, address, user, password, domain='DEMO', level='privacy'):
        self.connection = dcomrt.DCOMConnection(address, user, password, domain, authLevel=self.LEVELS[level])
        pointer = self.connection.CoCreateInstanceEx(string_to_bin(class_id), string_to_bin(iid))
        return Interface(pointer, iid, self.references)

    def status(self):
        reply = self.server.call(6, Writer())
        reply.raw(28)  # the pointer, and when it was started, asked and updated
        state, groups, _ = reply.u16(), reply.u32(), reply.u32()
        reply.raw(8)  # version
        return {'state': state, 'groups': groups, 'vendor': reply.string() if reply.u32() else None}

    def browse(self):
        browser = self.server.query(IOPC_BROWSE)
        reply = browser.call(5, Writer().u16(FLAT).string('').u16(0).u32(0))
        enumerator = browser.wrap(reply.interface(), IENUM_STRING)
        texts, result = [], 0
        while result == 0:
            part = enumerator.call(3, Writer().u32(10))
            part.u32(), part.u32()
            pointers = [part.u32() for _ in range(part.u32())]
            texts += [part.string() for pointer in pointers if pointer]
            _, result = part.u32(), part.u32()
        return texts

    def watch(self, items, types=None, name='e2e', active=True, rate=1000):
        """A group with these items, whose client handles are their places in the list; the group's is 7."""
        request = Writer().string(name).u32(active, rate, 7, 1, 0, 2).put('f', 0.0).u32(0x409).guid(IOPC_GROUP_STATE)
        reply = self.server.call(3, request)
        self.group_handle = reply.u32()
        reply.u32()
        self.group = self.server.wrap(reply.interface(), IOPC_GROUP_STATE)
        if reply.u32() & 0x80000000:
            raise ValueError('AddGroup failed')
        self.items = self.group.query(IOPC_ITEM_MGT)
        self.sync = self.group.query(IOPC_SYNC_IO)
        self.asynchronous = self.group.query(IOPC_ASYNC_IO2)
        request = Writer().u32(len(items), len(items))
        for index in range(len(items)):
            request.u32(0, 0x20000 + 4 * index, 1, index, 0, 0).u16(types[index] if types else 0, 0)
        for item in items:
            request.string(item)
        reply = self.items.call(3, request)
        found = reply.array(lambda: (reply.u32(), reply.u16(), reply.u16(), reply.u32(), reply.u32(), reply.u32()))
        errors = reply.hresults()
        self.handles = {name: result[0] for name, result, error in zip(items, found, errors) if error == 0}
        return [{'itemID': name, 'error': error, 'dataType': result[1], 'accessRights': result[3]}
                for name, result, error in zip(items, found, errors)]

    def read(self, source='cache', items=None):
        """items: names of those watched, or handles."""
        items = items or list(self.handles)
        request = Writer().u16(DEVICE if source == 'device' else CACHE).u32(len(items))
        reply = self.sync.call(3, request.handles([self.handles.get(item, item) for item in items]))
        states = reply.array(lambda: (reply.u32(), reply.filetime(), reply.u16(), reply.u16(), reply.u32()))
        values = [reply.variant() if pointer else (None, None) for *_, pointer in states]
        errors, result = reply.hresults(), reply.u32()
        return {'result': result, 'errors': errors, 'items': [
            {'itemID': item, 'value': value, 'type': kind, 'quality': quality, 'filetime': stamp, 'error': error}
            for item, (kind, value), (_, stamp, quality, _, _), error in zip(items, values, states, errors)]}

    def set_state(self, **changes):
        """rate, active, bias, deadband, lcid, client: those that are to change."""
        request = Writer()
        for number, name in enumerate(('rate', 'active', 'bias', 'deadband', 'lcid', 'client'), 1):
            request.u32(number if name in changes else 0)
            if name in changes:
                request.put('f' if name == 'deadband' else 'i' if name == 'bias' else 'I', changes[name])
        reply = self.group.call(4, request)
        return {'rate': reply.u32(), 'result': reply.u32()}

    def point(self, on, iid):
        """The connection point of group or server, None without one, and the call's result."""
        if (on, iid) not in self.points:
            container = getattr(self, on).query(ICONNECTION_POINT_CONTAINER)
            reply = container.call(4, Writer().guid(iid))
            objref, result = reply.interface(), reply.u32()
            if result:
                return None, result
            self.points[on, iid] = container.wrap(objref, ICONNECTION_POINT)
        return self.points[on, iid], 0

    def advise(self, on, iid, reference):
        """reference: the sink's, as bytes. Gives the cookie, by which unadvise() ends it."""
        point, result = self.point(on, iid)
        if result:
            return {'cookie': None, 'result': result}
        reply = point.call(5, Writer().u32(1, len(reference), len(reference)).bytes(reference))
        answer = {'cookie': reply.u32(), 'result': reply.u32()}
        self.advised[answer['cookie']] = point
        return answer

    def unadvise(self, cookie):
        return self.advised[cookie].call(6, Writer().u32(cookie)).u32()

    def later(self, opnum, request):
        """A call of IOPCAsyncIO2 that begins a transaction."""
        reply = self.asynchronous.call(opnum, request)
        return {'cancel': reply.u32(), 'errors': reply.hresults() if opnum < 5 else None, 'result': reply.u32()}

    def read_later(self, transaction, items=None):
        return self.later(3, self.items_asked(items).u32(transaction))

    def write_later(self, transaction, value, items=None):
        """The same number into each item."""
        request = self.items_asked(items)
        count = len(items or self.handles)
        request.handles(range(1, count + 1))
        for _ in range(count):
            request.put('Q', 4).u16(VT_R8, 0, 0, 0).u32(VT_R8).put('d', value)
        return self.later(4, request.u32(transaction))

    def items_asked(self, items):
        """Count and handles; items: names of those watched, or handles; else all."""
        items = items or list(self.handles)
        return Writer().u32(len(items)).handles([self.handles.get(item, item) for item in items])

    def refresh(self, transaction, source=CACHE):
        return self.later(5, Writer().u16(source).u32(transaction))

    def cancel(self, cancel_id):
        return self.asynchronous.call(6, Writer().u32(cancel_id)).u32()

    def enable(self, enabled):
        """What GetEnable says after it, and both results."""
        result = self.asynchronous.call(7, Writer().u32(enabled)).u32()
        reply = self.asynchronous.call(8, Writer())
        return [reply.u32(), result, reply.u32()]

    def properties(self, item, ids=range(1, 7)):
        request = Writer().string(item).u32(len(ids)).handles(ids)
        reply = self.server.query(IOPC_ITEM_PROPERTIES).call(4, request)
        # an array of VARIANT structures by pointer: referents first, then the bodies
        values = [reply.variant()[1] for pointer in reply.array(reply.u32) if pointer]
        return {'values': values, 'errors': reply.hresults(), 'result': reply.u32()}

    def close(self):
        self.server.release_all()
        self.connection.disconnect()
