"""The demo plant as clients see it: items, values, qualities, time stamps, log lines, and the server's life."""

import re
import time
import unittest

from harness import ClientError, ImpacketClient, NodeClient, SiteTest, wait_for
from plant import BSTR, EXPECTED, I4, R4, precise

E_FAIL = 0x80004005
VT_R8 = 5
# Those that the clients here never use: IOPCCommon, IOPCItemIO, IOPCAsyncIO2.
INTERFACES = (('server', 'F31DFDE2-07B6-11D2-B2D8-0060083BA1FB'), ('server', '85C0B427-2893-4CBC-BD78-E5FC5146F08F'),
              ('group', '39C13A71-011E-11D0-9675-0020AFD8ADB3'))

SITE_LOADED = ['0219', '0217', '0218']
START_UP = ['0100', '0101', '0102', '0208', '0208', '0223', '0104', '0212', '0213', '0214', '0215',
            '0115', '0209', '0140', '0139', '0120', *SITE_LOADED, '0115', '0209', *SITE_LOADED,
            '0105', '0106', '0107', '0108']
ITEM_LINES = ['Information   1-001-0-01-01 30M   North.Stack1.NOx',
              'Information         102       202  North.Stack1.SO2.Raw']
# The site of these tests is set weaker than the default.
NOTICES = ['Notice [Security] MinimumLevel = connect: calls are neither signed nor sealed and can be altered on their way',
           'Notice [Security] AllowNTLMv1 = yes: log-ons with NTLMv1 can be broken by who records them']
LAST_CLIENT_LEAVES = ['[OPC-0113] Client disconnecting:  remaining clients=0',
                      '[OPC-0114] Client count is 0, starting shutdown timer']
UNLOADED = ['[OPC-0109] Attempting to unload OPC server...', '[OPC-0111] Unloading of OPC Server complete',
            '[OPC-0134] Stopping log...']


def life(lines):
    """What a log says of clients coming and going and of the server's end."""
    return [line.split(' ', 1)[1] for line in lines if re.search(r'\[OPC-01(09|1[0-4]|34)\]', line)]


def before_the_next_pass():
    """Update passes come at seconds 5, 25 and 45: waits until the next one is at least ten seconds away."""
    wait_for('quiet part of a 20-second period', lambda: 6 <= time.time() % 20 <= 14, 25)


class WholeRoad(SiteTest):
    weak = True

    def test_everything_that_two_clients_of_different_make_can_see(self):
        before_the_next_pass()
        self.site.start().started()
        names = list(EXPECTED)
        first = self.assert_serves()
        added = first('watch', items=names)
        self.assertEqual({a['itemID']: (a['error'], a['dataType'], a['accessRights']) for a in added},
                         {name: (0, kind, 1) for name, (kind, _, _) in EXPECTED.items()})
        self.assertEqual({r['quality'] for r in first('read')['items']}, {0x18}, 'before the first pass')
        log = self.site.log()
        self.assertEqual([code for line in log for code in re.findall(r'\[OPC-(\d{4})\]', line)][:len(START_UP)], START_UP)
        self.assertEqual([line for line in log if line in ITEM_LINES + NOTICES], ITEM_LINES + NOTICES)

        second = self.client(NodeClient, names)
        tree = second('browseTree')
        self.assertEqual(sorted(tree), ['North', 'South'])
        self.assertEqual(tree['North']['Stack1']['NOx'], {'Raw': 'North.Stack1.NOx.Raw'})
        self.assertEqual(tree['South']['Boiler']['Fuel'], 'South.Boiler.Fuel')
        converting = self.client(level='integrity')
        converting('watch', types=[VT_R8, BSTR, I4, R4],
                   items=['North.Stack2.Flow', 'South.Boiler.Fuel', 'North.Stack2.Purge', 'South.Boiler.Alarm'])

        self.site.wait_pass()
        readings = self.assert_values(first, EXPECTED)
        stamps = {r['filetime'] for r in readings.values()}
        for stamp in stamps:
            seconds = stamp / 1e7 - 11644473600
            self.assertLess(seconds % 20 - 5, 2)
            self.assertLess(abs(time.time() - seconds), 25)
        self.assertLessEqual(len(stamps), 2, 'one time stamp a site and pass')
        self.assertEqual([(r['type'], r['value']) for r in converting('read')['items']],
                         [(VT_R8, 48211.0), (BSTR, '120045'), (I4, -1), (R4, 0.0)])

        other = second('read', source='cache')
        self.assertEqual([r['quality'] for r in other], [readings[name]['quality'] for name in names])
        wanted = names[:3]
        device = second('read', source='device', items=wanted)
        self.assertEqual([(r['value'], r['quality']) for r in device], [(r['value'], r['quality']) for r in other[:3]])
        self.assertEqual(self.site.logged('OPC-0122'), ['Information [OPC-0122] OnRead   count=3'])

        self.assertEqual(second('write', items=wanted, value=5.5), [E_FAIL] * 3)
        self.assertEqual([line for line in self.site.log() if 'OPC-0124' in line or 'OPC-0125' in line], [
            'Information [OPC-0124] OnWrite   count=3',
            'Error [OPC-0125] This application does not support OPC writes; write attempt will be ignored'])
        self.assert_values(first, EXPECTED)

        properties = first('properties', item='North.Stack1.SO2')
        self.assertEqual(properties['errors'], [0] * 6)
        kind, value, quality, _, *rights_and_rate = properties['values']
        self.assertEqual((kind, precise(R4, value), quality & 0xFFFF), (R4, precise(R4, 34.5), 0x80C0))
        self.assertEqual(rights_and_rate, [1, 20000.0])
        for item, told in (('North.Stack1.SO2', ['SO2, corrected', 100100102, None, None, 'NORTH', '30M']),
                           ('North.Stack1.SO2.Raw', ['SO2 analyser', None, 102, 202, 'NORTH', None])):
            properties = first('properties', item=item, ids=[101, 5000, 5001, 5002, 5003, 5004])
            self.assertEqual(properties['values'], told)
        for on, iid in INTERFACES:
            first('query', on=on, iid=iid)
        self.assertEqual(first('status'), {'state': 1, 'groups': 1, 'vendor': 'Ombrel'})

        # The clients leave one by one, and five seconds after the last one the server is gone.
        at = len(self.site.log())
        for remaining, client in ((2, converting), (1, second), (0, first)):
            client('close')
            self.site.wait_log(f'[OPC-0113] Client disconnecting:  remaining clients={remaining}')
        self.assertEqual(self.site.exit_code(), 0)
        self.assertEqual(life(self.site.log()[at:]), [
            '[OPC-0113] Client disconnecting:  remaining clients=2',
            '[OPC-0113] Client disconnecting:  remaining clients=1', *LAST_CLIENT_LEAVES, *UNLOADED])
        self.assertEqual(self.site.log()[-1], 'Information ' + UNLOADED[-1])


class Lifetime(SiteTest):
    weak = True

    def test_clients_keep_the_server_until_the_last_is_gone_or_dead(self):
        self.site.start().started()
        at = len(self.site.log())
        brief = self.client(NodeClient)
        self.assertEqual(sorted(brief('browse')), sorted(EXPECTED))
        brief('close')
        self.site.wait_log('[OPC-0114]')
        again = self.client(NodeClient, ['North.Stack1.NOx'])  # within the five seconds of the shutdown timer
        self.site.interrupt()
        self.site.wait_log('[OPC-0110]')
        self.assertEqual(again('status')['serverState'], 1)
        again.kill()
        # Noticed after ten seconds, when the timer has long run out and found a client.
        self.assertEqual(self.site.exit_code(), 0)
        self.assertEqual(life(self.site.log()[at:]), [
            *LAST_CLIENT_LEAVES, UNLOADED[0], '[OPC-0110] Server in use; cancelling OPC server unload attempt',
            *LAST_CLIENT_LEAVES, *UNLOADED])


class KeptRunning(SiteTest):
    def test_a_client_that_comes_reads_and_leaves_again_and_again_finds_good_values_each_time(self):
        self.site.edit('dcom.conf', ('FirstPing', 'KeepRunning = yes\nFirstPing'))
        self.site.start().started()
        self.site.wait_pass()
        at = len(self.site.log())
        for _ in range(3):
            client = self.client(items=['North.Stack1.NOx'])
            self.assertEqual(client('read')['items'][0]['quality'], 0xC0)
            client('close')
            self.site.wait_log('remaining clients=1', after=at)
            at = len(self.site.log())
        self.site.terminate()
        self.assertEqual(self.site.exit_code(), 0)
        self.assertEqual(life(self.site.log()[at:]), [*LAST_CLIENT_LEAVES, *UNLOADED])


class Refusals(SiteTest):
    def test_who_may_not_come_in_gets_one_plain_line_and_others_go_on(self):
        self.site.start().started()
        good = self.client(items=['North.Stack1.NOx'])
        for kind, words, logon in (
                (ImpacketClient, ("'DEMO\\operator'", 'password'), {'password': 'wrong'}),
                (ImpacketClient, ("'PLANT\\operator'", 'domain'), {'domain': 'PLANT'}),
                (ImpacketClient, ("'DEMO\\stranger'", 'account'), {'user': 'stranger'}),
                (ImpacketClient, ('level connect', 'integrity'), {'level': 'connect'}),
                (ImpacketClient, ('no account',), {'user': '', 'password': ''}),
                (NodeClient, ("'DEMO\\operator'", 'NTLMv1'), {})):
            with self.subTest(words), self.refused(*words), self.assertRaises(ClientError):
                self.client(kind, **logon)
        self.assertEqual(good('read')['errors'], [0])
        self.assertNotIn('stack-7', self.site.errors())

        self.site.terminate()
        self.site.wait_error('they have 8 seconds to leave')
        self.site.terminate()
        self.assertEqual(self.site.exit_code(5), 1)


if __name__ == '__main__':
    unittest.main()
