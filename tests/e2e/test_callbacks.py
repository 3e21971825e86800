"""The server calls its clients: changed values, answers to asynchronous calls, the request to leave. They arrive at a sink
that is made of other blocks than the server, and that complains about whatever is wrong with a call.
"""

import time
import unittest

from harness import SiteTest, wait_for
from impacket_session import IOPC_DATA_CALLBACK, IOPC_SHUTDOWN, IOPC_SYNC_IO
from plant import EXPECTED, precise
from test_demo_site import UNLOADED, before_the_next_pass, life

S_OK, S_FALSE, E_FAIL, INVALID_HANDLE, NO_CONNECTION = 0, 1, 0x80004005, 0xC0040001, 0x80040200
# Not the account that clients use here: what a client's machine lets in is the client's affair.
CALLER = ('caller', 'ring-ring')
DEMO_SETTINGS = 'Account = DEMO\\operator\nSecret = password:stack-7\n'
SETTINGS = 'Account = DEMO\\caller\nSecret = password:ring-ring\n'
OPEN = 'MinimumLevel = connect\nAllowNoLogOn = yes\n'


class Called(SiteTest):
    settings = SETTINGS + OPEN
    changes = ()  # of the settings
    quiet = False  # started when there is time before the first pass

    def setUp(self):
        super().setUp()
        self.site.edit('dcom.conf', (DEMO_SETTINGS, self.settings), *self.changes)
        if self.quiet:
            before_the_next_pass()
        self.site.start().started()

    def subscriber(self, items=('North.Stack1.NOx',), on='group', **sink):
        """A client whose first sink is advised."""
        client = self.client(items=items)
        client('sink', **{'account': CALLER, **sink})
        self.assertEqual(client('subscribe', on=on)['result'], S_OK)
        return client

    def assert_call(self, made, /, **expected):
        """A callback, in what is said of it; clients: the client handles of its items."""
        shown = {**made, 'clients': [item['client'] for item in made.get('items', ())]}
        self.assertEqual({name: shown.get(name) for name in expected}, expected, made)

    def assert_refreshes(self, client, transaction, *sinks):
        """Changes that come by subscription meanwhile are passed over."""
        self.assertEqual(client('refresh', transaction=transaction)['result'], S_OK)
        for sink in sinks or (0,):
            made = [call for call in client('callbacks', sink=sink) if call['transaction']]
            made = made or [call for call in client('callbacks', sink=sink) if call['transaction']]
            self.assertEqual([call['transaction'] for call in made], [transaction])

    def assert_quiet(self, client, seconds=2.5, **arguments):
        """Longer than two update periods."""
        self.assertEqual(client('callbacks', seconds=seconds, **arguments), [])


class Subscription(Called):
    quiet = True

    def gathered(self, client, level, wanted):
        """What callbacks at this level say of the items until all these have come; gives the items by name."""
        items = {}
        while items.keys() < wanted.keys():
            calls = client('callbacks')
            self.assertTrue(calls, f'only {sorted(items)}')
            for call in calls:
                bad = any(item['quality'] & 0xC0 != 0xC0 for item in call['items'])
                self.assert_call(call, call='OnDataChange', level=level, transaction=0, group=7, masterError=S_OK,
                                 masterQuality=S_FALSE if bad else S_OK)
                items.update((list(EXPECTED)[item['client']], item) for item in call['items'])
        self.assertEqual({name: (precise(EXPECTED[name][0], item['value']), f"{item['quality']:#06x}", item['error'])
                          for name, item in items.items()},
                         {name: (precise(kind, value), f'{quality:#06x}', S_OK)
                          for name, (kind, value, quality) in wanted.items()})
        return items

    def test_at_each_level_values_come_as_the_database_has_them_and_then_only_those_that_change(self):
        # As clients of different age and make are: one on port 135 of a machine that names others of its addresses first.
        sinks = {'connect': {'com_minor': 2, 'log_on_at': ['object']}, 'integrity': {}, 'none': {'log_on_at': ['resolver']},
                 'privacy': {'address': '127.0.3.1', 'resolver_port': 135, 'bindings': ['pc', '127.0.3.2', '127.0.3.1']}}
        clients = {level: self.subscriber(EXPECTED, level=level, **sink) for level, sink in sinks.items()}
        for level, client in clients.items():
            first, = client('callbacks')
            self.assert_call(first, call='OnDataChange', level=level, transaction=0, group=7, masterError=S_OK,
                             masterQuality=S_FALSE, clients=list(range(len(EXPECTED))))
            self.assertEqual({item['quality'] for item in first['items']}, {0x18}, 'before the first pass')
        at = self.site.wait_pass()
        for level, client in clients.items():
            for item in self.gathered(client, level, EXPECTED).values():
                self.assertLess(abs(time.time() - (item['filetime'] / 1e7 - 11644473600)), 10)
            self.assert_quiet(client)
        self.site.execute('realtime.db', """UPDATE CurrentIO SET NValue = 99.5 WHERE IOID = 'C110';
                                            UPDATE CurrentIO SET NValue = NValue WHERE IOID = 'C12';
                                            UPDATE ParameterValue SET MonitorCode = 0 WHERE PID = 100100102""")
        self.site.beat()
        at = self.site.wait_pass(at)
        for level, client in clients.items():
            self.gathered(client, level, {'North.Stack1.Moisture': (4, 99.5, 0xC0), 'North.Stack1.SO2': (4, 34.5, 0xC0)})
        self.site.beat()
        self.site.wait_pass(at)
        for client in clients.values():  # time stamps alone have moved
            self.assert_quiet(client)
            self.assertEqual(client('held'), 10)


class Transactions(Called):
    def test_each_call_of_the_asynchronous_interface_has_its_result_and_its_callback(self):
        names = list(EXPECTED)[:3]
        client = self.client(items=names)
        for operation, arguments in (('read_later', {'transaction': 1}), ('write_later', {'transaction': 2, 'value': 1}),
                                     ('refresh', {'transaction': 3})):
            self.assertEqual(client(operation, **arguments), {
                'cancel': 0, 'errors': None if operation == 'refresh' else [], 'result': NO_CONNECTION})
        self.assertEqual(client('enable', enabled=False), [0, NO_CONNECTION, NO_CONNECTION])
        for on, iid in (('group', IOPC_DATA_CALLBACK), ('server', IOPC_SHUTDOWN)):
            self.assertEqual(client('enumerate_points', on=on), [iid])
            self.assertEqual(client('find', on=on, iid=IOPC_SYNC_IO), [False, NO_CONNECTION])

        self.site.wait_pass()  # and time for what follows before the next one
        client('sink', account=CALLER)
        cookie = client('subscribe')['cookie']
        self.assertTrue(cookie)
        first, = client('callbacks')
        self.assert_call(first, call='OnDataChange', transaction=0, clients=[0, 1, 2])
        bad = 4711
        change, read, written = 'OnDataChange', 'OnReadComplete', 'OnWriteComplete'
        # Operation, its arguments, its result and errors, the callback (none where there is none) and its client handles.
        for operation, arguments, result, errors, call, handles in (
                ('read_later', {'transaction': 11}, S_OK, [S_OK] * 3, read, [0, 1, 2]),
                ('read_later', {'transaction': 0xFFFFFFFF, 'items': [names[1], bad]}, S_FALSE, [S_OK, INVALID_HANDLE], read, [1]),
                ('read_later', {'transaction': 13, 'items': [bad]}, S_FALSE, [INVALID_HANDLE], None, []),
                ('write_later', {'transaction': 20, 'value': 1.5}, S_OK, [S_OK] * 3, written, [0, 1, 2]),
                ('refresh', {'transaction': 30}, S_OK, None, change, [0, 1, 2]),
                ('refresh', {'transaction': 31, 'source': 2}, S_OK, None, change, [0, 1, 2]),
                ('refresh', {'transaction': 32, 'source': 3}, 0x80070057, None, None, []),
                ('enable', {'enabled': False}, None, None, None, []),
                ('refresh', {'transaction': 33}, S_OK, None, change, [0, 1, 2]),
                ('enable', {'enabled': True}, None, None, None, []),
                ('set_state', {'active': 0}, None, None, None, []),
                ('refresh', {'transaction': 34}, E_FAIL, None, None, []),
                ('read_later', {'transaction': 14}, S_OK, [S_OK] * 3, read, [0, 1, 2]),
                ('set_state', {'active': 1}, None, None, change, [0, 1, 2])):
            with self.subTest(operation, **arguments):
                answer = client(operation, **arguments)
                if result is not None:
                    self.assertEqual((answer['result'], answer['errors']), (result, errors))
                    self.assertTrue(answer['cancel'] or not call, answer)
                for made in client('callbacks', seconds=10 if call else 1.5):
                    self.assert_call(made, call=call, transaction=arguments.get('transaction', 0), group=7, clients=handles)
                    self.assertNotIn(0x1C, [item.get('quality') for item in made['items']])
                    call = None
                self.assertIsNone(call, 'no callback')

        self.assertEqual(client('cancel', cancel_id=bad), E_FAIL)
        began = client('read_later', transaction=40)
        cancelled = client('cancel', cancel_id=began['cancel'])
        answer, = client('callbacks')
        self.assertEqual((cancelled, answer['call'], answer['transaction']),
                         (S_OK, 'OnCancelComplete', 40) if cancelled == S_OK else (E_FAIL, read, 40))
        self.assertEqual(client('cancel', cancel_id=began['cancel']), E_FAIL)

        client('sink', account=CALLER, level='integrity')
        second = client('subscribe', sink=1)
        self.assertEqual(second['result'], S_OK)
        self.assertNotIn(second['cookie'], (0, cookie))
        self.assert_call(*client('callbacks', sink=1), call=change, clients=[0, 1, 2])
        self.assert_refreshes(client, 50, 0, 1)
        self.assertEqual(client('unadvise', cookie=cookie), S_OK)
        self.assertEqual(client('unadvise', cookie=cookie), NO_CONNECTION)
        self.assert_refreshes(client, 51, 1)
        self.assert_quiet(client, 1, sink=0)
        wait_for('the first sink let go', lambda: client('held') == 0)
        self.assertEqual(client('remove_group'), S_OK)
        wait_for('the second sink let go', lambda: client('held', sink=1) == 0)


class KeepAlive(Called):
    def test_a_client_that_is_told_nothing_for_long_is_told_so(self):
        self.site.wait_pass()  # after which nothing changes
        client = self.subscriber(level='integrity')
        self.assert_call(*client('callbacks'), clients=[0])
        self.assertEqual(client('keep_alive', time=50), [[100, 0x4000D], [100, S_OK]])
        self.assertEqual(client('keep_alive', time=1000), [[1000, S_OK], [1000, S_OK]])
        began = time.monotonic()
        for call in client('callbacks', count=4):
            self.assert_call(call, call='OnDataChange', level='integrity', transaction=0, group=7, masterQuality=S_OK,
                             masterError=S_OK, items=[])
        self.assertTrue(2.8 < time.monotonic() - began < 6)
        self.assertEqual(client('keep_alive', time=0), [[0, S_OK], [0, S_OK]])
        self.assert_quiet(client)


class Connections(Called):
    changes = (('[Clients]\n', '[Clients]\nPingTimeout = 9\n'),)  # and a sink is pinged three times as often

    def test_sinks_are_pinged_as_long_as_they_are_held_and_connections_that_were_cut_are_made_anew(self):
        client = self.subscriber()
        self.assertEqual(len(client('callbacks')), 1)
        for added in (1, 2):
            # The client calls meanwhile, because nobody pings for it.
            wait_for('the sink in the set', lambda: client('status') and client('pings').count(['sink']) == added)
            pings = len(client('pings'))
            wait_for('more pings', lambda: client('status') and len(client('pings')) > pings + 1)
            self.assertEqual(client('pings').count(['sink']), added)
            client('cut')
            self.assert_refreshes(client, 5)
            client('forget_pings')
        client('unadvise', cookie=1)
        wait_for('the sink let go', lambda: client('held') == 0)
        pings = len(client('pings'))
        time.sleep(7)
        self.assertEqual(len(client('pings')), pings)


class Ends(Called):
    def test_a_stop_asks_the_clients_to_leave_and_waits_for_them_but_not_for_ever(self):
        deaf = self.subscriber(on='server', at='callback', does='hang')
        self.site.terminate()
        self.assert_call(*deaf('callbacks'), call='ShutdownRequest')
        self.assertEqual(self.site.exit_code(15), 0)

        self.site.start().started()
        staying = self.subscriber()
        client = self.subscriber(on='server')
        client('subscribe', on='group')
        self.assert_call(*client('callbacks'), call='OnDataChange')
        at = len(self.site.log())
        self.site.terminate()
        asked, = client('callbacks')
        self.assert_call(asked, call='ShutdownRequest', reason='Unloading Server', level='privacy')
        self.assertFalse(self.site.exited())
        client('close')
        self.assertEqual(self.site.exit_code(10), 0)
        wait_for('the sink let go', lambda: client('held') == 0)
        wait_for('the sink of whoever stays let go', lambda: staying('held') == 0)
        self.assertEqual(life(self.site.log()[at:])[-3:], UNLOADED)

    def test_clients_that_go_or_die_in_a_callback_cost_the_others_nothing(self):
        good = self.subscriber()
        good('callbacks')
        leaving, dying = self.subscriber(), self.subscriber(slowly=60)
        self.assertEqual(len(leaving('callbacks')), 1)
        dying('callbacks')
        dying.kill()
        leaving('close')
        wait_for('the sink let go', lambda: leaving('held') == 0)
        wait_for('two clients gone', lambda: len(self.site.logged('is gone')) >= 2, 60)
        self.assert_refreshes(good, 9)


if __name__ == '__main__':
    unittest.main()
