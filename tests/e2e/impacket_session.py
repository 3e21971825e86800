"""An OPC DA client over impacket, driven by lines of JSON like demo/client/session.js.

impacket does activation, NTLMv2, signing and sealing, and the object connection; the OPC calls are put together here.
"""

import json
import struct
import sys
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
IOPC_ASYNC_IO2 = '39C13A71' + OPC
IOPC_ITEM_PROPERTIES = '39C13A72' + OPC
IOPC_ITEM_IO = '85C0B427-2893-4CBC-BD78-E5FC5146F08F'
IOPC_COMMON = 'F31DFDE2-07B6-11D2-B2D8-0060083BA1FB'
IENUM_STRING = '00000101-0000-0000-C000-000000000046'

VT_EMPTY, VT_NULL, VT_I2, VT_I4, VT_R4, VT_R8, VT_CY, VT_DATE, VT_BSTR, VT_ERROR, VT_BOOL = 0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11


class Writer:
    def __init__(self):
        # ORPCTHIS: version 5.7, flags, reserved, causality id, no extensions
        self.data = bytearray(struct.pack('<HHII', 5, 7, 0, 0) + uuid.uuid4().bytes_le + b'\0\0\0\0')

    def align(self, size):
        self.data += b'\0' * (-len(self.data) % size)

    def put(self, form, value):
        self.align(struct.calcsize(form))
        self.data += struct.pack('<' + form, value)
        return self

    def u16(self, value):
        return self.put('H', value)

    def u32(self, value):
        return self.put('I', value & 0xFFFFFFFF)

    def f32(self, value):
        return self.put('f', value)

    def f64(self, value):
        return self.put('d', value)

    def guid(self, text):
        self.align(4)
        self.data += uuid.UUID(text).bytes_le
        return self

    def string(self, text):
        units = (text + '\0').encode('utf-16le')
        self.u32(len(units) // 2).u32(0).u32(len(units) // 2)
        self.data += units
        return self

    def handles(self, values):
        self.u32(len(values))
        for value in values:
            self.u32(value)
        return self

    def double_variant(self, value):
        self.align(8)
        self.data += struct.pack('<IIHHHHIId', 4, 0, VT_R8, 0, 0, 0, VT_R8, 0, value)
        return self


class Reader:
    def __init__(self, data):
        self.data = data
        self.at = 0
        self.u32()
        if self.u32():
            raise ValueError('unexpected ORPC extensions')

    def align(self, size):
        self.at += -self.at % size

    def get(self, form):
        size = struct.calcsize(form)
        self.align(size)
        value, = struct.unpack_from('<' + form, self.data, self.at)
        self.at += size
        return value

    def u16(self):
        return self.get('H')

    def u32(self):
        return self.get('I')

    def u64(self):
        return self.get('Q')

    def filetime(self):
        low, high = self.u32(), self.u32()
        return high << 32 | low

    def raw(self, size):
        self.at += size
        return self.data[self.at - size:self.at]

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
        size = self.u32()
        self.u32()
        return bytes(self.raw(size))

    def variant(self):
        self.align(8)
        self.u32(), self.u32()
        kind = self.u16()
        self.raw(6)
        self.u32()
        if kind == VT_EMPTY:
            value = None
        elif kind == VT_I2:
            value = self.get('h')
        elif kind in (VT_I4, VT_ERROR):
            value = self.get('i')
        elif kind == VT_R4:
            value = self.get('f')
        elif kind in (VT_R8, VT_DATE):
            value = self.get('d')
        elif kind == VT_CY:
            value = self.get('q') / 10000
        elif kind == VT_BOOL:
            value = self.get('h') != 0
        elif kind == VT_BSTR:
            value = None
            if self.u32():
                self.u32()
                size = self.u32()
                self.u32()
                value = self.raw(size).decode('utf-16le')
        else:
            raise ValueError(f'VARIANT of type {kind}')
        return kind, value


class Interface:
    """One interface pointer: an impacket interface plus its interface id."""

    def __init__(self, pointer, iid):
        self.pointer = pointer
        self.iid = iid
        self.binary = uuidtup_to_bin((iid, '0.0'))

    def call(self, opnum, request, ipid=None):
        self.pointer.connect(self.binary)
        connection = self.pointer.get_dce_rpc()
        connection.call(opnum, bytes(request.data), uuid=ipid or self.pointer.get_iPid())
        return Reader(connection.recv())

    def query(self, iid):
        return Interface(self.pointer.RemQueryInterface(1, (uuid.UUID(iid).bytes_le,)), iid)

    def wrap(self, objref, iid):
        made = dcomrt.INTERFACE(self.pointer.get_cinstance(), objref, self.pointer.get_ipidRemUnknown(),
                                target=self.pointer.get_target())
        return Interface(dcomrt.IRemUnknown2(made), iid)


class Client:
    LEVELS = {'connect': 2, 'integrity': 5, 'privacy': 6}

    def connect(self, address='127.0.0.1', domain='DEMO', user='', password='', level='privacy', objectPort=None, **_):
        """objectPort: where the objects are called instead of where the server says."""
        self.connection = dcomrt.DCOMConnection(address, user, password, domain, authLevel=self.LEVELS[level])
        pointer = self.connection.CoCreateInstanceEx(string_to_bin(CLASS_ID), string_to_bin(IOPC_SERVER))
        if objectPort is not None:
            for binding in pointer.get_cinstance().get_string_bindings():
                binding['aNetworkAddr'] = f'{address}[{objectPort}]\0'
        self.server = Interface(pointer, IOPC_SERVER)

    def status(self):
        reply = self.server.call(6, Writer())
        reply.u32()
        start, now, update = reply.filetime(), reply.filetime(), reply.filetime()
        state, groups, bandwidth = reply.u16(), reply.u32(), reply.u32()
        version = [reply.u16() for _ in range(4)]
        vendor = reply.string() if reply.u32() else None
        return {'start': start, 'now': now, 'update': update, 'state': state, 'groups': groups,
                'bandwidth': bandwidth, 'version': version[:3], 'vendor': vendor, 'result': reply.u32()}

    def strings(self, reply, owner):
        """All strings of the enumerator that a reply returns."""
        enumerator = owner.wrap(reply.interface(), IENUM_STRING)
        texts = []
        while True:
            part = enumerator.call(3, Writer().u32(10))
            part.u32(), part.u32()
            pointers = [part.u32() for _ in range(part.u32())]
            texts += [part.string() for pointer in pointers if pointer]
            fetched, result = part.u32(), part.u32()
            if fetched < 10 or result != 0:
                return texts

    def browse(self, kind=3):
        """kind: 1 branches, 2 leaves, 3 flat."""
        browser = self.server.query(IOPC_BROWSE)
        reply = browser.call(5, Writer().u16(kind).string('').u16(0).u32(0))
        return self.strings(reply, browser)

    def browseTree(self, path=''):
        browser = self.server.query(IOPC_BROWSE)

        def level():
            leaves = {}
            for leaf in self.strings(browser.call(5, Writer().u16(2).string('').u16(0).u32(0)), browser):
                reply = browser.call(6, Writer().string(leaf))
                leaves[leaf] = reply.string() if reply.u32() else None
            for branch in self.strings(browser.call(5, Writer().u16(1).string('').u16(0).u32(0)), browser):
                browser.call(4, Writer().u16(2).string(branch))
                leaves[branch + '/'] = level()
                browser.call(4, Writer().u16(1).string(''))
            return leaves

        return level()

    def watch(self, items, types=None):
        request = Writer().string('e2e').u32(1).u32(1000).u32(7)
        request.u32(1).u32(0).u32(2).f32(0.0).u32(0x409).guid(IOPC_GROUP_STATE)
        reply = self.server.call(3, request)
        self.group_handle, rate = reply.u32(), reply.u32()
        self.group = self.server.wrap(reply.interface(), IOPC_GROUP_STATE)
        if reply.u32() & 0x80000000:
            raise ValueError('AddGroup failed')
        self.items = self.group.query(IOPC_ITEM_MGT)
        self.sync = self.group.query(IOPC_SYNC_IO)
        request = Writer().u32(len(items)).u32(len(items))
        for index in range(len(items)):
            wanted = types[index] if types else 0
            request.u32(0).u32(0x20000 + 4 * index).u32(1).u32(index).u32(0).u32(0).u16(wanted).u16(0)
        for item in items:
            request.string(item)
        reply = self.items.call(3, request)
        found = reply.array(lambda: (reply.u32(), reply.u16(), reply.u16(), reply.u32(), reply.u32(), reply.u32()))
        errors = reply.hresults()
        self.handles = {name: result[0] for name, result, error in zip(items, found, errors) if error == 0}
        return [{'itemID': name, 'error': error, 'dataType': result[1], 'accessRights': result[3]}
                for name, result, error in zip(items, found, errors)]

    def read(self, source='cache', items=None, handles=None):
        names = list(self.handles) if items is None else items
        wanted = handles if handles is not None else [self.handles[name] for name in names]
        reply = self.sync.call(3, Writer().u16(2 if source == 'device' else 1).u32(len(wanted)).handles(wanted))
        states = reply.array(lambda: (reply.u32(), reply.filetime(), reply.u16(), reply.u16(), reply.u32()))
        values = [reply.variant() if state[4] else (None, None) for state in states]
        errors, result = reply.hresults(), reply.u32()
        return {'result': result, 'items': [
            {'itemID': names[i] if handles is None else None, 'value': values[i][1], 'type': values[i][0],
             'quality': states[i][2], 'filetime': states[i][1], 'error': errors[i]} for i in range(len(states))],
            'errors': errors}

    def write(self, items, value=1.0):
        request = Writer().u32(len(items)).handles([self.handles[name] for name in items])
        request.u32(len(items))
        for _ in items:
            request.u32(0x72657355)
        for _ in items:
            request.double_variant(value)
        reply = self.sync.call(4, request)
        return {'errors': reply.hresults(), 'result': reply.u32()}

    def errorString(self, code):
        reply = self.server.call(4, Writer().u32(code).u32(0x409))
        return reply.string() if reply.u32() else None

    def properties(self, item):
        reply = self.server.query(IOPC_ITEM_PROPERTIES).call(4, Writer().string(item).u32(6).handles([1, 2, 3, 4, 5, 6]))
        pointers = []
        if reply.u32():
            count = reply.u32()
            # an array of VARIANT structures by pointer: referents first, then the bodies
            pointers = [reply.u32() for _ in range(count)]
        values = [reply.variant() for pointer in pointers if pointer]
        return {'values': [value for _, value in values], 'types': [kind for kind, _ in values],
                'errors': reply.hresults(), 'result': reply.u32()}

    def interfaces(self):
        """Which interfaces the server object and its group hand out."""
        found = {}
        for owner, iids in ((self.server, (IOPC_COMMON, IOPC_BROWSE, IOPC_ITEM_PROPERTIES, IOPC_ITEM_IO)),
                            (self.group, (IOPC_GROUP_STATE, IOPC_ITEM_MGT, IOPC_SYNC_IO, IOPC_ASYNC_IO2))):
            for iid in iids:
                owner.query(iid)
                found[iid] = True
        return len(found)

    def removeGroup(self):
        return self.server.call(7, Writer().u32(self.group_handle).u32(0)).u32()

    def raw(self, opnum, stub, on='server', ipid=None):
        """A call with a hand-made stub; gives the reply's length, or the fault as an error. ipid: of another object."""
        request = Writer()
        request.data += bytes.fromhex(stub)
        return len(getattr(self, on).call(opnum, request, ipid and bytes.fromhex(ipid)).data)

    def ipid(self, on='server'):
        return getattr(self, on).pointer.get_iPid().hex()

    def close(self):
        for name in ('sync', 'items', 'group', 'server'):
            pointer = getattr(self, name, None)
            if pointer is not None:
                pointer.pointer.RemRelease()
        self.connection.disconnect()


def main():
    client = Client()
    for line in sys.stdin:
        command = json.loads(line)
        operation = command.pop('do')
        try:
            answer = {'ok': getattr(client, operation)(**command)}
        except Exception as error:  # whatever the client library raises is the test's business
            answer = {'error': f'{type(error).__name__}: {error}'}
        print(json.dumps(answer), flush=True)


if __name__ == '__main__':
    main()
