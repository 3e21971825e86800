"""A client machine's pings over the wire, while a good client reads on."""

import struct
import time
import unittest

from impacket.dcerpc.v5 import transport
from impacket.uuid import uuidtup_to_bin

from harness import ClientError, SiteTest
from raw_rpc import ACTIVATION, OBJECT_EXPORTER, Raw, bind, request


class Pings(SiteTest):
    """A client machine's pings, which come from the machine and not from the client's account."""

    TIMEOUT = 8

    def setUp(self):
        super().setUp()
        self.site.edit('dcom.conf', ('[Clients]', f'[Clients]\nPingTimeout = {self.TIMEOUT}'))
        self.site.start().started()
        self.good = self.steady()

    def raw(self):
        connection = Raw(self.site.address, ACTIVATION)
        self.addCleanup(connection.close)
        return connection

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
        self.assertLess(self.good.longest_read(), 3)


if __name__ == '__main__':
    unittest.main()
