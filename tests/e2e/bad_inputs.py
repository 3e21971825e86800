#!/usr/bin/python3
"""Distinct bad inputs over live connections, while a good client reads on: mangled messages and log-ons, and, behind a
log-on, mangled messages and parameters of every method. The server must be a sanitizer's build (preset sanitize): nothing
may be found, and at the end it must stop in order.

    bad_inputs.py --server build/sanitize/Q5OPCServer [--inputs N] [--seed N]
"""

import argparse
import collections
import hashlib
import os
import random
import socket
import struct
import sys
import time
import uuid
from contextlib import suppress

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import attacks  # noqa: E402
import harness  # noqa: E402
from impacket import ntlm  # noqa: E402
from impacket.spnego import SPNEGO_NegTokenInit, TypesMech  # noqa: E402
from impacket_session import (CLASS_ID, IDATA_OBJECT, IENUM_STRING, IOPC_ASYNC_IO, IOPC_ASYNC_IO3,  # noqa: E402
                              IOPC_BROWSE, IOPC_GROUP_STATE, IOPC_ITEM_DEADBAND, IOPC_ITEM_SAMPLING, IOPC_ITEM_MGT, IOPC_ITEM_PROPERTIES, IOPC_SERVER, IOPC_SYNC_IO,
                              IOPC_SYNC_IO2, Writer)
from raw_rpc import (ACTIVATION, ACTIVATOR, ALTER_CONTEXT, AUTH3, BIND, BIND_NAK, FAULT, OBJECT_EXPORTER,  # noqa: E402
                     OBJECTS, REM_UNKNOWN, RESPONSE, Raw, answer_to, bind, contexts, pdu, request, with_log_on)

REMOTE_ACTIVATOR = '000001A0-0000-0000-C000-000000000046'
REM_UNKNOWN2 = '00000143-0000-0000-C000-000000000046'
IOPC_COMMON = 'F31DFDE2-07B6-11D2-B2D8-0060083BA1FB'
IOPC_ASYNC_IO2 = '39C13A71-011E-11D0-9675-0020AFD8ADB3'
IOPC_GROUP_STATE2 = '8E368666-D72E-4F78-87ED-647611C61C9F'
ICONNECTION_POINTS = 'B196B284-BAB4-101A-B69C-00AA00341D07'
ICONNECTION_POINT = 'B196B286-BAB4-101A-B69C-00AA00341D07'
IOPC_DATA_CALLBACK = '39C13A70-011E-11D0-9675-0020AFD8ADB3'
ON_SERVER = [IOPC_SERVER, IOPC_BROWSE, attacks.IOPC_ITEM_IO, IOPC_ITEM_PROPERTIES, IOPC_COMMON, ICONNECTION_POINTS]
ON_GROUP = [IOPC_ITEM_MGT, IOPC_SYNC_IO, IOPC_SYNC_IO2, IOPC_GROUP_STATE, IOPC_GROUP_STATE2, IOPC_ASYNC_IO2, IOPC_ASYNC_IO3,
            IOPC_ITEM_DEADBAND, IOPC_ITEM_SAMPLING, IOPC_ASYNC_IO, IDATA_OBJECT, ICONNECTION_POINTS]
ALL = ON_SERVER + ON_GROUP + [IENUM_STRING, attacks.IENUM_ITEMS, ICONNECTION_POINT, REM_UNKNOWN, REM_UNKNOWN2]
METHODS = range(3, 13)
CALLS = 40  # on one connection before the next begins, since mangled calls may release the objects

ODD = (0, 1, 2, 0x7F, 0x80, 0xFF, 0x7FFF, 0x8000, 0xFFFF, 0x10000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF)


def variant(kind=3, value=7):
    body = struct.pack('<IIHHHHI', 3, 0, kind, 0, 0, 0, kind) + struct.pack('<i', value)
    return struct.pack('<I', 0x20000) + bytes(4) + body


def definitions(count):
    stub = Writer().u32(count, count)
    for number in range(count):
        stub.u32(0, 0x20000, 1, number, 0, 0).u16(0, 0)
    for _ in range(count):
        stub.string(attacks.ITEM)
    return stub


def reference():
    """A client's own object as it stands in parameters."""
    binding = struct.pack('<HH', 20, 16) + struct.pack('<H', 7) + '127.0.0.1[9]'.encode('utf-16le') + bytes(14)
    objref = b'MEOW' + struct.pack('<I', 1) + uuid.UUID(IOPC_DATA_CALLBACK).bytes_le + struct.pack(
        '<IIQQ', 0, 5, 1, 2) + uuid.uuid4().bytes_le + binding
    return Writer().u32(0x20000, len(objref), len(objref)), objref


def well_formed():
    """The methods of each interface, and parameters that each takes."""
    marshalled, objref = reference()
    marshalled.data += objref
    write = Writer().u32(1, 1, 1, 1)
    write.data += variant()
    handles, item = Writer().u32(2).handles([1, 2]), Writer().string(attacks.ITEM)
    nothing, number = Writer(), Writer().u32(5)
    group = Writer().string('g').u32(1, 1000, 7, 0, 0, 0x409).guid(IOPC_GROUP_STATE)
    ages = Writer().u32(1, 1, 0x20000).string(attacks.ITEM).u32(1, 0)
    state = Writer().u32(0x20000, 500, 0x20004, 1, 0, 0, 0, 0x20008, 7)
    calls = {3: nothing, 4: state, 5: item, 6: Writer().string('clone').guid(IOPC_SYNC_IO)}
    flagged, doubled = Writer().u32(2).handles([1, 2]).u32(1), Writer().u32(2).handles([1, 2]).handles([3, 4])
    synchronous = {3: Writer().u16(1).u32(3).handles([1, 2, 3]), 4: write}
    asynchronous = {3: flagged, 4: write, 5: Writer().u16(1).u32(7), 6: number, 7: number, 8: nothing}
    vqt = Writer().u32(1, 1, 1, 1, 0x20000, 1).u16(0xC0, 0).u32(1, 0, 0, 0)
    vqt.data += variant()[4:]
    taken = {
        IOPC_SERVER: {3: group, 4: Writer().u32(0xC0040007, 9), 5: Writer().string('many').guid(IOPC_SYNC_IO), 6: nothing,
                      7: Writer().u32(1, 1), 8: Writer().u16(6).guid(IENUM_STRING)},
        IOPC_BROWSE: {3: nothing, 4: Writer().u16(2).string('North'), 5: Writer().u16(3).string('N*[a-z]?').u16(5).u32(1),
                      6: item, 7: item},
        attacks.IOPC_ITEM_IO: {3: ages, 4: write},
        IOPC_ITEM_PROPERTIES: {3: item, 4: Writer().string(attacks.ITEM).u32(3).handles([1, 2, 600]),
                               5: Writer().string(attacks.ITEM).u32(3).handles([1, 2, 600])},
        IOPC_COMMON: {3: number, 4: nothing, 5: nothing, 6: number, 7: item},
        ICONNECTION_POINTS: {3: nothing, 4: Writer().guid(IOPC_DATA_CALLBACK)},
        ICONNECTION_POINT: {5: marshalled, 6: number, 7: nothing},
        IOPC_ITEM_MGT: {3: definitions(3), 4: definitions(2).u32(0), 5: handles, 6: flagged, 7: doubled, 8: doubled,
                        9: Writer().guid(attacks.IENUM_ITEMS)},
        IOPC_SYNC_IO: synchronous,
        IOPC_SYNC_IO2: {**synchronous, 5: doubled, 6: vqt},
        IOPC_GROUP_STATE: calls,
        IOPC_GROUP_STATE2: {**calls, 7: number, 8: nothing},
        IOPC_ASYNC_IO2: asynchronous,
        IOPC_ASYNC_IO3: {**asynchronous, 9: doubled, 10: vqt, 11: doubled},
        IOPC_ITEM_DEADBAND: {3: doubled, 4: handles, 5: handles},
        IOPC_ITEM_SAMPLING: {3: doubled, 4: handles, 5: handles, 6: doubled, 7: handles},
        IENUM_STRING: {3: number, 4: number, 5: nothing, 6: nothing},
    }
    return {(ALL.index(iid), opnum): bytes(stub.data) for iid, methods in taken.items() for opnum, stub in methods.items()}


class Inputs:
    """Mangles, and counts what has never been sent before."""

    def __init__(self, seed):
        self.random, self.seen = random.Random(seed), set()

    def mangled(self, data):
        while True:
            bad = bytearray(data)
            for _ in range(self.random.choice((1, 1, 1, 2, 3, 8))):
                self.mangle(bad)
            digest = hashlib.sha1(bad).digest()
            if digest not in self.seen:
                self.seen.add(digest)
                return bytes(bad)

    def mangle(self, bad):
        at = self.random.randrange(len(bad) + 1)
        way = self.random.choice((0, 0, 1, 2, 3, 4, 5, 6, 6, 6, 6))  # most often a field has an odd value
        if way == 0:
            bad[at:at + 1] = bytes([self.random.randrange(256)])
        elif way == 1:
            bad[at:] = b''
        elif way == 2:
            bad[at:at] = self.random.randbytes(self.random.choice((1, 2, 4, 8, 100)))
        elif way == 3:
            size = self.random.choice((1, 4, 16, 64))
            bad[at:at] = bad[at:at + size] * self.random.choice((1, 2, 50))
        elif way == 4:
            del bad[at:at + self.random.choice((1, 2, 4, 16))]
        else:  # the fields are where their size divides the place
            size = (2, 4)[way - 5]
            at -= at % size
            bad[at:at + size] = (self.random.choice(ODD) % (1 << 8 * size)).to_bytes(size, 'little')


class Run:
    def __init__(self, address, inputs):
        self.address, self.inputs, self.stubs = address, inputs, well_formed()
        self.answers = collections.Counter()  # by kind of message

    def drain(self, connection, data):
        """Sends and takes what comes until the server has no more to say."""
        with suppress(OSError):  # it may close early
            connection.send(data).socket.shutdown(socket.SHUT_WR)
            for message in connection.messages:
                self.answers[message[2]] += 1
        connection.close()

    def choice(self, *values):
        return self.inputs.random.choice(values)

    def messages_before_log_on(self):
        port, interface = self.choice((ACTIVATION, OBJECT_EXPORTER), (OBJECTS, REM_UNKNOWN))
        good = bind(interface) + request(self.choice(0, 1, 2, 3, 4, 5), bytes(24), target=self.choice(None, uuid.uuid4()))
        self.drain(Raw(self.address, port, attacks.SOURCE), self.inputs.mangled(good))

    def log_ons(self):
        """The first or the last message of one, bare or in a negotiation."""
        first = ntlm.getNTLMSSPType1('', '')
        connection = Raw(self.address, OBJECTS, attacks.SOURCE)
        token, wrapped = first.getData(), self.choice(False, True)
        if wrapped:
            offer = SPNEGO_NegTokenInit()
            offer['MechTypes'] = [TypesMech['NTLMSSP - Microsoft NTLM Security Support Provider']]
            offer['MechToken'] = token
            token = offer.getData()
        if wrapped or self.choice(False, True):
            message = self.log_on_message(BIND, contexts(REM_UNKNOWN), self.inputs.mangled(token), wrapped)
            return self.drain(connection, message)
        with suppress(OSError, StopIteration):
            answer = connection.send(with_log_on(BIND, contexts(REM_UNKNOWN), token)).receive()
            last = self.inputs.mangled(answer_to(first, answer, attacks.USER, attacks.PASSWORD))
            kind, body = self.choice((AUTH3, bytes(4)), (ALTER_CONTEXT, contexts(REM_UNKNOWN)))
            connection.send(with_log_on(kind, body, last))
        self.drain(connection, request(3, bytes(40), target=uuid.uuid4()))

    def log_on_message(self, kind, body, token, wrapped):
        message = bytearray(with_log_on(kind, body, token, self.choice(2, 5, 6)))
        message[16 + len(body)] = 9 if wrapped else 10
        return bytes(message)

    def activations(self):
        connection = attacks.log_on(self.address, ACTIVATION, [ACTIVATOR, REMOTE_ACTIVATOR, OBJECT_EXPORTER])
        good = Writer().guid(CLASS_ID).u32(0, 0, 3, 0, 1, 0x20000, 1).guid(IOPC_SERVER).u16(1).u32(1).u16(7)
        seeds = [(0, 0, bytes(good.data)), (1, 4, bytes(good.data)), (2, 2, attacks.ping(0, 1, [1, 2, 3], [4])),
                 (2, 0, bytes(8) + struct.pack('<HHIHH', 1, 0, 1, 7, 0)), (2, 4, bytes(24))]
        self.calls(connection, [(*self.choice(*seeds), None) for _ in range(CALLS)])

    def objects(self):
        """An attacker's connection, and what it may call: context, IPID."""
        attacker = attacks.Attacker(self.address)
        group, *_ = attacker.group_with(3)
        made = [(iid, ipid) for of, iids in ((attacker.ipids[0], ON_SERVER), (group, ON_GROUP))
                for iid, ipid in attacker.query(of, iids).items()]
        scopes = Writer().u16(3).string('').u16(0).u32(0)
        names = [(IENUM_STRING, ipid) for _, ipid in attacks.references(
            attacker.call(attacks.BROWSE, attacks.BROWSE_ITEMS, scopes))]
        attacker.connection.close()
        connection = attacks.log_on(self.address, OBJECTS, ALL)
        return connection, [(ALL.index(iid), ipid) for iid, ipid in
                            [(REM_UNKNOWN, attacker.ipids[attacks.REM]), *made, *names]]

    def call_of(self, context, ipid):
        """A method with its own parameters, or else any with any."""
        methods = [opnum for of, opnum in self.stubs if of == context]
        if not methods or self.inputs.random.random() < 0.2:
            return context, self.choice(*METHODS), self.choice(*self.stubs.values()), ipid
        opnum = self.choice(*methods)
        return context, opnum, self.stubs[context, opnum], ipid

    def parameters(self):
        connection, targets = self.objects()
        self.calls(connection, [self.call_of(*self.choice(*targets)) for _ in range(CALLS)])

    def calls(self, connection, seeds):
        """All at once, then whatever comes. Most keep the header that all object calls have."""
        kept = self.choice(0, 32, 32, 32)
        bad = [(context, opnum, stub[:kept] + self.inputs.mangled(stub[kept:]), ipid) for context, opnum, stub, ipid in seeds]
        self.drain(connection, b''.join(request(opnum, stub, context, target=ipid) for context, opnum, stub, ipid in bad
                                        if len(stub) < 5700))

    def messages_behind_log_on(self):
        connection, targets = self.objects()
        calls = []
        for context, opnum, stub, ipid in (self.call_of(*self.choice(*targets)) for _ in range(4)):
            calls.append(request(opnum, stub, self.choice(context, context, 99), target=ipid))
        calls += [pdu(self.choice(ALTER_CONTEXT, BIND), contexts(*ALL[:3])), pdu(self.choice(17, 18, 19, AUTH3), bytes(8))]
        self.drain(connection, self.inputs.mangled(b''.join(self.inputs.random.sample(calls, 4))))


class BadInputs(harness.SiteTest):
    weak = True

    def runTest(self):
        """Nothing: the steps are taken one by one."""

    def run_all(self, count, seed):
        self.setUp()
        # The objects of clients that only come and go would use the account's budget up.
        self.site.edit('dcom.conf', ('FirstPing = 10\nCloseGrace = 5\n', 'FirstPing = 1\nCloseGrace = 1\n'),
                       ('[Accounts]\n', f'[Accounts]\nDEMO\\{attacks.USER} = password:{attacks.PASSWORD}\n'))
        self.site.start(environment={'ASAN_OPTIONS': 'exitcode=99:detect_leaks=1', 'UBSAN_OPTIONS': 'print_stacktrace=1'})
        self.site.started()
        steady = self.steady()
        inputs = Inputs(seed)
        run = Run(self.site.address, inputs)
        ways = 10 * [run.messages_before_log_on, run.log_ons, run.log_ons, run.messages_behind_log_on]
        ways += [run.activations] + 3 * [run.parameters]
        while len(inputs.seen) < count and not self.site.exited():
            for way in ways:
                before = len(inputs.seen)
                try:
                    way()
                except (OSError, StopIteration) as error:
                    if self.site.exited():
                        break
                    print(f'{way.__name__}: {type(error).__name__}: {error}')
                    if len(inputs.seen) == before:
                        time.sleep(0.1)
        print(f'{len(inputs.seen)} distinct bad inputs; answers: {run.answers[RESPONSE]} results, '
              f'{run.answers[FAULT]} faults, {run.answers[BIND_NAK]} refused to bind')
        if not self.site.exited():
            print(f'the good client waited {steady.longest_read():.2f} s at most')
            steady.client('close')
            steady.client.kill()
            self.site.terminate()
        return self.site.exit_code(60), self.site.errors()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--server', required=True)
    parser.add_argument('--inputs', type=int, default=20_000)
    parser.add_argument('--seed', type=int, default=20261123)
    options = parser.parse_args()
    harness.SERVER = os.path.abspath(options.server)
    os.environ.pop('DISPLAY', None)
    test = BadInputs()
    try:
        code, errors = test.run_all(options.inputs, options.seed)
    finally:
        test.doCleanups()
    found = [line for line in errors.splitlines() if 'Sanitizer' in line or 'runtime error' in line]
    print(f'exit code {code}', *found, sep='\n')
    return 1 if found or code != 0 else 0


if __name__ == '__main__':
    sys.exit(main())
