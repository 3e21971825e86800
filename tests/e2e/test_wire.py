"""What comes over the wire from programs that are broken, hostile or in the way, while a good client reads on."""

import itertools
import os
import resource
import socket
import struct
import time
import unittest
import uuid

from impacket.dcerpc.v5 import transport
from impacket.uuid import uuidtup_to_bin

from harness import ClientError, SiteTest, wait_for
from raw_rpc import (ACCESS_DENIED, ACTIVATION, ACTIVATOR, BIND, BIND_ACK, BIND_NAK, FAULT, FIRST, LAST, OBJECT_EXPORTER,
                     OBJECTS, REM_UNKNOWN, REQUEST, RESPONSE, Raw, bind, pdu, request, status_of)

SERVER_ALIVE = 3
INTERFACE = {ACTIVATION: OBJECT_EXPORTER, OBJECTS: REM_UNKNOWN}

MAX_CONNECTIONS = 512


class Wire(SiteTest):
    def setUp(self):
        super().setUp()
        self.site.start().started()
        self.good = self.steady()

    def raw(self, port=ACTIVATION, source=None):
        connection = Raw(self.site.address, port, source)
        self.addCleanup(connection.close)
        return connection

    def assert_good_client_went_on(self):
        self.assertLess(self.good.longest_read(), 3)
        self.assertFalse(self.site.exited())

    def descriptors(self):
        return len(os.listdir(f'/proc/{self.site.process.pid}/fd'))

    def memory(self):
        """Resident, in KB."""
        with open(f'/proc/{self.site.process.pid}/status') as file:
            return next(int(line.split()[1]) for line in file if line.startswith('VmRSS'))


class BadMessages(Wire):
    def test_each_bad_message_closes_its_own_connection_with_a_reason(self):
        large = b'\0' * 5000
        begun = request(SERVER_ALIVE, flags=FIRST)
        cases = [
            ('another protocol', b'GET / HTTP/1.1\r\nHost: x\r\n\r\n', [], 'not RPC version 5'),
            ('big endian', pdu(BIND, large[:40], representation=0), [BIND_NAK], 'data representation'),
            ('length of nothing', pdu(REQUEST, length=0), [], "a message's length is out of range"),
            ('call before bind', request(SERVER_ALIVE), [FAULT], 'it did not bind first'),
            ('bind without contexts that it counts', pdu(BIND, struct.pack('<HHIBBH', 5840, 5840, 0, 200, 0, 0)),
             [BIND_NAK], 'a bind message is malformed'),
        ]
        behind_bind = [
            ('log-on larger than its call', pdu(REQUEST, bytes(20), auth=4000), 'a call is malformed'),
            ('beginning twice', begun * 2, 'out of order'),
        ]
        for port in (ACTIVATION, OBJECTS):
            hello = bind(INTERFACE[port])
            for number, (name, message, answers, reason) in enumerate(cases + [
                    (name, hello + message, [BIND_ACK, FAULT], reason) for name, message, reason in behind_bind], 1):
                if port == OBJECTS and begun in message:  # refused before its further parts are looked at
                    reason = 'the client did not log on'
                with self.subTest(port=port, case=name), self.refused(reason):
                    # Each from a host of its own: what one host repeats is summed up.
                    source = f'127.9.{port == OBJECTS:d}.{number}'
                    arrived = self.raw(port, source).send(message).messages
                    self.assertEqual([kind for kind, _ in itertools.groupby(answer[2] for answer in arrived)], answers)
        self.assert_good_client_went_on()

    def test_calls_without_end_are_not_gathered(self):
        memory = self.memory()
        part = bytes(5000)
        too_large = 'a call is larger than this server takes'
        with self.refused('no account', too_large):
            connection = self.raw().send(bind(OBJECT_EXPORTER) + request(SERVER_ALIVE, part, flags=FIRST)
                                         + request(SERVER_ALIVE, part, flags=0) * 15)
            self.assertEqual([answer[2] for answer in connection.messages], [BIND_ACK, FAULT])
        # A call that is refused anyhow is not kept, however large.
        connection = self.raw().send(bind(ACTIVATOR) + request(0, part, flags=FIRST))
        for _ in range(4000):
            connection.send(request(0, part, flags=0))
        connection.send(request(0, flags=LAST))
        self.assertEqual([connection.receive()[2] for _ in range(2)], [BIND_ACK, FAULT])
        self.assertLess(self.memory() - memory, 1024)
        with self.refused(too_large), self.assertRaises(ClientError):
            self.client(level='integrity')('raw', on='server', opnum=6, stub='00' * (17 << 20))
        wait_for('memory given back', lambda: self.memory() - memory < 2048)
        self.assert_good_client_went_on()

    def test_a_message_in_pieces_is_understood_and_nothing_but_what_machines_ask_is_answered_without_log_on(self):
        connection = self.raw()
        connection.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in bind(OBJECT_EXPORTER) + request(SERVER_ALIVE):
            connection.send(bytes([byte]))
        self.assertEqual(connection.receive()[2], BIND_ACK)
        answer = connection.receive()
        self.assertEqual((answer[2], answer[24:]), (RESPONSE, bytes(4)))
        for opnum, status in ((0, 1910), (1, 1912), (2, 0), (4, 1910), (5, 0)):  # unknown exporter, unknown ping set
            answer = connection.send(request(opnum, bytes(24))).receive()
            self.assertEqual((answer[2], struct.unpack('<I', answer[-4:])[0]), (RESPONSE, status))
        self.assertNotIn('Refused', self.site.errors())
        for port, interface in ((OBJECTS, REM_UNKNOWN), (ACTIVATION, ACTIVATOR)):
            connection = self.raw(port).send(bind(interface) + request(0, target=uuid.uuid4()))
            self.assertEqual(connection.receive()[2], BIND_ACK)
            self.assertEqual(status_of(connection.receive()), ACCESS_DENIED)
        self.assert_good_client_went_on()

class DeadObjects(Wire):
    def test_what_is_gone_or_never_was_fails_alone(self):
        gone, other = (self.client(items=['North.Stack1.NOx']) for _ in range(2))
        ipids = [gone('ipid', on=on) for on in ('server', 'group', 'items', 'sync')]
        gone.kill()
        self.site.wait_log('[OPC-0113] Client disconnecting:  remaining clients=2')
        for ipid in ipids + [uuid.uuid4().hex, '00' * 16, 'ff' * 16]:
            with self.subTest(ipid=ipid):
                answer = other.raw('raw', on='server', opnum=6, stub='', ipid=ipid)
                self.assertIn('RPC_E_DISCONNECTED', answer.get('error', '').upper())
        answer = other('read', items=[0xDEADBEEF, 0])
        self.assertEqual((answer['errors'], answer['result']), ([0xC0040001, 0xC0040001], 1))
        huge = 'ffffffff' * 4
        for on, opnum, stub in (('server', 3, huge), ('items', 3, huge), ('items', 5, huge), ('sync', 3, '0100' + huge),
                                ('sync', 4, huge), ('group', 3, ''), ('sync', 3, '')):
            with self.subTest(on=on, opnum=opnum):
                other.raw('raw', on=on, opnum=opnum, stub=stub)
                self.assertEqual(other('read')['errors'], [0])
        with self.assertRaises(ClientError):
            other('raw', on='server', opnum=4711, stub='')
        self.assertEqual(other('read')['errors'], [0])
        self.assert_good_client_went_on()


class Pings(Wire):
    """A client machine's pings, which come from the machine and not from the client's account."""

    TIMEOUT = 8

    def setUp(self):
        SiteTest.setUp(self)
        self.site.edit('dcom.conf', ('[Clients]', f'[Clients]\nPingTimeout = {self.TIMEOUT}'))
        self.site.start().started()
        self.good = self.steady()

    def test_an_idle_client_lives_by_its_machines_pings_whoever_the_machine_is(self):
        silent, pinged = (self.client(items=['North.Stack1.NOx']) for _ in range(2))
        oids = [pinged('oid', on=on) for on in ('server', 'group')]
        foreign = transport.DCERPCTransportFactory(f'ncacn_ip_tcp:{self.site.address}[{ACTIVATION}]')
        foreign.set_credentials('PC1$', 'unknown here', 'PC1')
        machine = foreign.get_dce_rpc()
        machine.set_auth_level(5)
        machine.connect()
        machine.bind(uuidtup_to_bin((OBJECT_EXPORTER, '0.0')))
        with self.assertRaisesRegex(Exception, 'access_denied'):
            machine.call(1, bytes(8))
            machine.recv()
        exporter = self.raw().send(bind(OBJECT_EXPORTER))
        exporter.receive()
        ping = struct.pack('<QHHHxxIIQQI', 0, 0, len(oids), 0, 1, len(oids), *oids, 0)
        answer = exporter.send(request(2, ping)).receive()
        ping_set, _, status = struct.unpack('<QHxxI', answer[24:])
        self.assertEqual(status, 0)
        end = time.monotonic() + 2 * self.TIMEOUT
        while time.monotonic() < end:
            time.sleep(self.TIMEOUT / 4)
            answer = exporter.send(request(1, struct.pack('<Q', ping_set))).receive()
            self.assertEqual(struct.unpack('<I', answer[24:])[0], 0)
        self.assertEqual(pinged('read')['errors'], [0])
        with self.assertRaises(ClientError):
            silent('read')
        self.assertNotIn('Refused', self.site.errors())
        gone = [line for line in self.site.errors().splitlines() if 'without releasing' in line]
        self.assertEqual(len(gone), 1, gone)
        self.assert_good_client_went_on()

class Crowds(Wire):
    def setUp(self):
        # The tests side by side share this process's descriptors.
        _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        super().setUp()

    def crowd(self, count):
        connections = []
        try:
            for number in range(count):
                port = (ACTIVATION, OBJECTS)[number % 2]
                # From several hosts, as each has its share of the places.
                connections.append(Raw(self.site.address, port, f'127.0.0.{70 + number % 7}'))
                if number % 3 == 0:
                    connections[-1].send(bind(INTERFACE[port])[:40])
            wait_for('the limit kept', lambda: self.descriptors() <= MAX_CONNECTIONS + 40)
            wait_for('the limit reached', lambda: self.descriptors() >= MAX_CONNECTIONS)
            newcomer = self.client()  # who can log on is let in all the same
            self.assertEqual(newcomer('status')['state'], 1)
            newcomer('close')
        finally:
            for one in connections:
                one.close()

    def test_crowds_without_log_on_come_and_go(self):
        before = self.descriptors()
        sizes = []
        for _ in range(3):
            self.crowd(700)
            wait_for('descriptors given back', lambda: self.descriptors() <= before)
            sizes.append(self.memory())
        self.assertLess(sizes[-1] - sizes[0], 2048, sizes)
        self.assert_good_client_went_on()

if __name__ == '__main__':
    unittest.main()
