"""The demo plant as clients see it: items, values, qualities, time stamps, log lines, and the server's life."""

import time
import unittest

from harness import ClientError, ImpacketClient, NodeClient, Site, wait_for

E_FAIL = 0x80004005
R4, I4, BSTR, BOOL, DATE = 4, 3, 8, 11, 7
OPEN = 'MinimumLevel = connect\nAllowNTLMv1 = yes'
LOGON = {'user': 'operator', 'password': 'stack-7'}

# What the demo plant's data must come out as: data type, value, quality word.
EXPECTED = {
    'North.Stack1.NOx': (R4, 182.4, 0x00C0),                # monitor code 0: good
    'North.Stack1.SO2': (R4, 34.5, 0x80C0),                 # 60, down is valid
    'North.Stack1.CO': (R4, 17.25, 0x8000),                 # 60, down is not valid
    'North.Stack1.Dust': (R4, 9.5, 0x0050),                 # 14 with sub-status
    'North.Stack1.O2': (R4, 6.9, 0x00C0),                   # no monitor code, numeric value
    'North.Stack1.Flow': (I4, 48212, 0x0018),               # 48211.5 to the even neighbour; 22 with sub-status
    'North.Stack1.HCl': (R4, None, 0x0000),                 # no value at all
    'North.Stack1.Operating': (BOOL, True, 0x00C0),
    'North.Stack1.Mode': (BSTR, 'Full load', 0x00C0),
    'North.Stack1.LastCalibration': (DATE, 46340 + (10 * 60 + 15) / 1440, 0x00C0),
    'North.Stack1.NOx.Raw': (R4, 211.5, 0x00C0),            # no monitor-code channel
    'North.Stack1.SO2.Raw': (R4, 38.25, 0x00C0),            # code 0
    'North.Stack1.Dust.Raw': (R4, 11.2, 0x80C0),            # 13, down is valid
    'North.Stack1.Opacity': (R4, 4.75, 0x0000),             # 5 is not ranked
    'North.Stack1.Temperature': (R4, 143.5, 0x0040),        # monitor-code channel without value
    'North.Stack1.Moisture': (R4, 12.5, 0x00C0),
    'North.Stack2.Flow': (I4, 48211, 0x00C0),
    'North.Stack2.Purge': (BOOL, True, 0x00C0),
    'North.Stack2.Spectrum': (BSTR, '7;8;9', 0x0000),       # channel texts are always bad
    'North.Stack2.Analyser': (R4, 12.75, 0x00C0),           # number in XML text
    'South.Boiler.NOx': (R4, 96.25, 0x00C0),
    'South.Boiler.NOx.Budget': (R4, -1.0, 0x00C0),          # Null value: the default stands in
    'South.Boiler.Steam': (R4, 62.5, 0x00C0),
    'South.Boiler.Pressure': (R4, 118.5, 0x8000),           # 65 with sub-status
    'South.Boiler.Fuel': (I4, 120045, 0x00C0),
    'South.Boiler.Alarm': (BOOL, False, 0x00C0),
    'South.Boiler.Started': (DATE, 46342 + 330 / 1440, 0x0000),  # channel dates are always bad
}

START_UP = [
    'Information [OPC-0100] Command Line:  ',
    'Information [OPC-0101] Initializing DBIL...',
    'Information [OPC-0102] Loading site IDs and connection strings...',
    'Information [OPC-0208] found site NORTH, DAHSID 1',
    'Information [OPC-0208] found site SOUTH, DAHSID 2',
    'Information [OPC-0223] Testing database connections...',
    'Information [OPC-0104] Loading tag definitions and initializing tags...',
    'Information [OPC-0212] NOTE: These OPCDef fields are ignored: ',
    'Information [OPC-0213]       Write (writes are not supported)',
    'Information [OPC-0214]       RefreshRate (server automatically picks up latest current value)',
    'Information [OPC-0215]       ShowStartOfPeriodTStamp (server automatically picks up latest current value)',
    'Information [OPC-0115] Loading OPC tag definitions for NORTH----------',
    'Information [OPC-0209] Loading DI for NORTH...',
    'Error [OPC-0140] This application does not support OPC writes; any writes will be ignored (Tag=North.Stack1.SO2.Raw)',
    'Error [OPC-0139] Cannot determine Quelm PID or I/O Channel ID (Tag=North.Stack2.Refused)',
    "Error [OPC-0120] Could not load OPC tag 'North.Stack2.Refused'",
    'Information [OPC-0219] Tearing down DI for NORTH',
    'Information [OPC-0217] ========== 10 OPC tags from Quelm tags for NORTH',
    'Information   1-001-0-01-01 30M   North.Stack1.NOx',
    'Information   1-001-0-01-02 30M   North.Stack1.SO2',
    'Information   1-001-0-01-03 30M   North.Stack1.CO',
    'Information   1-001-0-01-04 30M   North.Stack1.Dust',
    'Information   1-001-0-01-05 1M    North.Stack1.O2',
    'Information   1-001-0-01-06 1H    North.Stack1.Flow',
    'Information   1-001-0-01-09 30M   North.Stack1.HCl',
    'Information   1-001-0-02-01 1M    North.Stack1.Operating',
    'Information   1-001-0-02-02 1M    North.Stack1.Mode',
    'Information   1-001-0-02-03 1D    North.Stack1.LastCalibration',
    'Information [OPC-0218] ========== 10 OPC tags from I/O channels for NORTH',
    'Information         101         0  North.Stack1.NOx.Raw',
    'Information         102       202  North.Stack1.SO2.Raw',
    'Information         103       203  North.Stack1.Dust.Raw',
    'Information         104       204  North.Stack1.Opacity',
    'Information         105       205  North.Stack1.Temperature',
    'Information         110         0  North.Stack1.Moisture',
    'Information         301         0  North.Stack2.Flow',
    'Information         302         0  North.Stack2.Purge',
    'Information         401         0  North.Stack2.Spectrum',
    'Information         501         0  North.Stack2.Analyser',
    'Information [OPC-0115] Loading OPC tag definitions for SOUTH----------',
    'Information [OPC-0209] Loading DI for SOUTH...',
    'Information [OPC-0219] Tearing down DI for SOUTH',
    'Information [OPC-0217] ========== 2 OPC tags from Quelm tags for SOUTH',
    'Information   2-003-0-01-01 1H    South.Boiler.NOx',
    'Information   2-003-0-01-02 1H    South.Boiler.NOx.Budget',
    'Information [OPC-0218] ========== 5 OPC tags from I/O channels for SOUTH',
    'Information          11         0  South.Boiler.Steam',
    'Information          12        22  South.Boiler.Pressure',
    'Information          13         0  South.Boiler.Fuel',
    'Information          14         0  South.Boiler.Alarm',
    'Information          15         0  South.Boiler.Started',
    'Information [OPC-0105] Starting NDI SLIK server...',
    # The site of these tests is set weaker than the default.
    'Notice [Security] MinimumLevel = connect: calls are neither signed nor sealed and can be altered on their way',
    'Notice [Security] AllowNTLMv1 = yes: log-ons with NTLMv1 can be broken by who records them',
    'Information [OPC-0106] SLIKServer AppID={5A24BCDD-AEB1-4ED4-849D-27B85648B932}',
    'Information [OPC-0107] SLIKServer AppName=Quelm 5 OPC DA Server',
    'Information [OPC-0108] ---------- Quelm 5 OPC DA Server startup complete ----------',
]


def before_the_next_pass():
    """Update passes come at seconds 5, 25 and 45: waits until the next one is at least ten seconds away."""
    wait_for('quiet part of a 20-second period', lambda: 6 <= time.time() % 20 <= 14, 25)


class DemoSite(unittest.TestCase):
    maxDiff = None
    dcom = OPEN

    def setUp(self):
        self.site = Site(dcom=self.dcom)
        self.addCleanup(self.site.remove)

    def client(self, kind, **logon):
        client = kind()
        self.addCleanup(client.end)
        client('connect', address=self.site.address, **{**LOGON, **logon})
        return client

    def assert_readings(self, readings):
        found = {r['itemID']: (r['value'], r['quality'], r['error']) for r in readings}
        self.assertEqual(found.keys(), EXPECTED.keys())
        for name, (kind, value, quality) in EXPECTED.items():
            with self.subTest(item=name):
                got, got_quality, error = found[name]
                self.assertEqual(error, 0)
                self.assertEqual(f'{got_quality:#06x}', f'{quality:#06x}')
                if isinstance(value, float):
                    self.assertAlmostEqual(got, value, delta=abs(value) * 1e-6 if kind == R4 else 1e-9)
                else:
                    self.assertEqual(got, value)


class WholeRoad(DemoSite):
    def test_values_of_every_item_over_sealed_and_plain_connections(self):
        before_the_next_pass()
        self.site.start().started()
        first = self.client(ImpacketClient, level='privacy')
        names = first('browse')
        self.assertEqual(sorted(names), sorted(EXPECTED))
        added = first('watch', items=names)
        self.assertEqual({a['itemID']: (a['error'], a['dataType'], a['accessRights']) for a in added},
                         {name: (0, kind, 1) for name, (kind, _, _) in EXPECTED.items()})
        self.assertEqual({r['quality'] for r in first('read')['items']}, {0x18}, 'before the first pass')
        self.assertEqual(self.site.log()[:len(START_UP)], START_UP)
        self.assertEqual(first('interfaces'), 8)

        second = self.client(NodeClient)
        self.assertEqual(sorted(second('browse')), sorted(EXPECTED))
        second('watch', items=names)

        self.site.wait_pass()
        readings = first('read')
        self.assertEqual(readings['result'], 0)
        self.assert_readings(readings['items'])
        stamps = {r['filetime'] for r in readings['items']}
        for stamp in stamps:
            seconds = stamp / 1e7 - 11644473600
            self.assertLess(seconds % 20 - 5, 2)
            self.assertLess(abs(time.time() - seconds), 25)
        self.assertLessEqual(len(stamps), 2, 'one time stamp a site and pass')

        other = second('read', source='cache')
        self.assertEqual([r['quality'] for r in other], [r['quality'] for r in readings['items']])
        wanted = names[:3]
        device = second('read', source='device', items=wanted)
        self.assertEqual([(r['value'], r['quality']) for r in device],
                         [(r['value'], r['quality']) for r in other if r['itemID'] in wanted])
        self.assertEqual(self.site.logged('OPC-0122'), ['Information [OPC-0122] OnRead   count=3'])

        self.assertEqual(first('write', items=wanted[:2])['errors'], [E_FAIL, E_FAIL])
        self.assertEqual(second('write', items=wanted[:1], value=5.5), [E_FAIL])
        refused = 'Error [OPC-0125] This application does not support OPC writes; write attempt will be ignored'
        self.assertEqual([line for line in self.site.log() if 'OPC-0124' in line or 'OPC-0125' in line],
                         ['Information [OPC-0124] OnWrite   count=2', refused,
                          'Information [OPC-0124] OnWrite   count=1', refused])
        self.assert_readings(first('read')['items'])

        properties = first('properties', item='North.Stack1.SO2')
        self.assertEqual(properties['errors'], [0] * 6)
        self.assertEqual(properties['values'][0], R4)
        self.assertAlmostEqual(properties['values'][1], 34.5)
        self.assertEqual(properties['values'][2] & 0xFFFF, 0x80C0)
        self.assertEqual(properties['values'][4:], [1, 20000.0])
        status = first('status')
        self.assertEqual((status['state'], status['groups'], status['vendor']), (1, 1, 'Ombrel'))
        self.assertIn('handle', first('errorString', code=0xC0040001).lower())

        # Two clients: the first leaves, then the last, and five seconds later the server is gone.
        second('close')
        self.site.wait_log('[OPC-0113] Client disconnecting:  remaining clients=1')
        self.assertEqual(self.site.logged('OPC-0114'), [])
        first('removeGroup')
        first('close')
        self.site.wait_log('[OPC-0113] Client disconnecting:  remaining clients=0')
        self.assertEqual(self.site.exit_code(), 0)
        self.assertEqual([line for line in self.site.log() if line.startswith('Information [OPC-01')][-5:],
                         ['Information [OPC-0113] Client disconnecting:  remaining clients=0',
                          'Information [OPC-0114] Client count is 0, starting shutdown timer',
                          'Information [OPC-0109] Attempting to unload OPC server...',
                          'Information [OPC-0111] Unloading of OPC Server complete',
                          'Information [OPC-0134] Stopping log...'])
        self.assertEqual(self.site.log()[-1], 'Information [OPC-0134] Stopping log...')

    def test_tree_browsing_splits_names_at_their_points(self):
        self.site.start().started()
        tree = self.client(ImpacketClient)('browseTree')
        self.assertEqual(sorted(tree), ['North/', 'South/'])
        stack = tree['North/']['Stack1/']
        self.assertEqual(stack['SO2'], 'North.Stack1.SO2')
        self.assertEqual(stack['NOx'], 'North.Stack1.NOx')
        self.assertEqual(stack['NOx/'], {'Raw': 'North.Stack1.NOx.Raw'})
        self.assertEqual(tree['South/']['Boiler/']['NOx/']['Budget'], 'South.Boiler.NOx.Budget')

    def test_values_come_in_the_type_that_the_client_asks_for(self):
        self.site.start().started()
        client = self.client(ImpacketClient, level='integrity')
        items = ['North.Stack1.NOx', 'South.Boiler.Fuel', 'North.Stack2.Purge', 'North.Stack2.Flow']
        client('watch', items=items, types=[5, 8, 3, 4])
        self.site.wait_pass()
        readings = client('read')['items']
        self.assertEqual([r['type'] for r in readings], [5, 8, 3, 4])
        self.assertAlmostEqual(readings[0]['value'], 182.4, places=4)
        self.assertEqual([r['value'] for r in readings[1:]], ['120045', -1, 48211.0])


class Lifetime(DemoSite):
    def test_a_client_that_comes_back_within_five_seconds_keeps_the_server(self):
        self.site.start().started()
        self.client(NodeClient)('close')
        self.site.wait_log('[OPC-0114]')
        again = self.client(NodeClient)
        time.sleep(6)  # the shutdown timer's five seconds must have passed
        self.assertFalse(self.site.exited())
        self.assertEqual(self.site.logged('OPC-0109'), [])
        again('close')
        self.assertEqual(self.site.exit_code(), 0)

    def test_a_request_to_end_is_refused_while_a_client_is_connected(self):
        self.site.start().started()
        client = self.client(NodeClient)
        self.site.terminate()
        self.site.wait_log('[OPC-0110]')
        self.assertEqual([line[12:] for line in self.site.log() if 'OPC-0109' in line or 'OPC-0110' in line],
                         ['[OPC-0109] Attempting to unload OPC server...',
                          '[OPC-0110] Server in use; cancelling OPC server unload attempt'])
        self.assertEqual(client('status')['serverState'], 1)
        client('close')
        self.assertEqual(self.site.exit_code(), 0)

    def test_a_killed_client_is_run_down(self):
        self.site.start().started()
        client = self.client(NodeClient)
        client('watch', items=['North.Stack1.NOx'])
        client.kill()
        self.site.wait_log('[OPC-0113] Client disconnecting:  remaining clients=0')
        self.assertEqual(self.site.exit_code(), 0)

    def test_without_clients_a_request_to_end_is_honoured_at_once(self):
        self.site.start().started()
        self.site.terminate()
        self.assertEqual(self.site.exit_code(5), 0)
        self.assertEqual(self.site.log()[-1], 'Information [OPC-0134] Stopping log...')


class Refusals(DemoSite):
    dcom = ''  # the strict defaults

    def refused(self, kind, *words, **logon):
        client = kind()
        self.addCleanup(client.end)
        answer = client.raw('connect', address=self.site.address, **{**LOGON, **logon})
        self.assertIn('error', answer)
        line = wait_for('refusal line', lambda: next(
            (line for line in self.site.errors().splitlines() if 'Refused OPC client' in line and line not in self.seen),
            None))
        self.seen.append(line)
        for word in (*words, 'remedy:'):
            self.assertIn(word, line)

    def test_who_may_not_come_in_gets_one_plain_line_and_others_go_on(self):
        self.site.start().started()
        self.seen = []
        good = self.client(ImpacketClient)
        good('watch', items=['North.Stack1.NOx'])
        self.refused(ImpacketClient, "'DEMO\\operator'", 'password', password='wrong')
        self.refused(ImpacketClient, "'PLANT\\operator'", 'domain', domain='PLANT')
        self.refused(ImpacketClient, "'DEMO\\stranger'", 'account', user='stranger')
        self.refused(ImpacketClient, 'level connect', 'integrity', level='connect')
        self.refused(ImpacketClient, 'no account', user='', password='')
        self.refused(NodeClient, "'DEMO\\operator'", 'NTLMv1')
        self.assertEqual(len(good('read')['items']), 1)
        self.assertNotIn('stack-7', self.site.errors())
        self.assertEqual(len([line for line in self.site.errors().splitlines() if 'Refused' in line]), 6)


class DeadHandles(DemoSite):
    def test_bad_calls_fail_alone(self):
        self.site.start().started()
        client = self.client(ImpacketClient)
        client('watch', items=['North.Stack1.NOx', 'South.Boiler.Fuel'])
        answer = client('read', handles=[0xDEADBEEF, 0])
        self.assertEqual(answer['errors'], [0xC0040001, 0xC0040001])
        self.assertEqual(answer['result'], 1)
        huge = 'ffffffff' * 4
        for on, opnum, stub in (('server', 3, huge), ('items', 3, huge), ('items', 5, huge), ('sync', 3, '0100' + huge),
                                ('sync', 4, huge), ('group', 3, ''), ('server', 99, ''), ('sync', 3, '')):
            with self.subTest(on=on, opnum=opnum):
                client.raw('raw', on=on, opnum=opnum, stub=stub)
                self.assertEqual(len(client('read')['items']), 2)
        with self.assertRaises(ClientError):
            client('raw', on='server', opnum=99, stub='')


if __name__ == '__main__':
    unittest.main()
