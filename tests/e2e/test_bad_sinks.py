"""Callbacks to clients that have gone wrong, while another client is called as ever."""

import os
import re
import socket
import time
import unittest
from contextlib import suppress

from harness import wait_for
from opc_sink import dual_string
from test_callbacks import CALLER, S_OK, SETTINGS, Called

CANNOT_CONNECT, ADVISE_LIMIT, INVALID_ARGUMENT = 0x80040202, 0x80040201, 0x80070057
BROKEN = 'the other end closed the connection|the connection broke'
# What the sink does and what the log says of it.
SILENT = (
    ({'at': 'resolver accept', 'does': 'hang'}, 'log-on: no answer for'),
    ({'at': 'resolver call', 'does': 'hang'}, 'asking where its program is called: no answer for'),
    ({'at': 'object accept', 'does': 'hang'}, 'log-on: no answer for'),
    ({'at': 'object bound', 'does': 'hang'}, 'asking for the callback interface: no answer for'),
    ({'at': 'callback', 'does': 'hang'}, 'call: no answer for'),
    ({'at': 'callback', 'does': 'half'}, 'call: no answer for'),
    ({'at': 'object bound', 'does': 'reset'}, BROKEN),
    ({'at': 'callback', 'does': 'reset'}, BROKEN),
)
WRONG = (
    ({'at': 'object bind', 'does': 'garbage'}, 'log-on: what answers there does not speak RPC'),
    ({'at': 'callback', 'does': 'garbage'}, 'call: what answers there does not speak RPC'),
    ({'at': 'callback', 'does': 'flood'}, 'call: an answer was not protected as agreed'),
    ({'at': 'callback', 'does': 'flood', 'level': 'connect'}, 'call: an answer is too large'),
    ({'at': 'callback', 'does': 'fault'}, 'call: the other end answered with'),
    ({'at': 'resolver call', 'does': 'fault'}, 'asking where its program is called: the other end answered with'),
    ({'account': ('caller', 'another')}, 'log-on: the other end refused the log-on'),
    ({'log_on_at': []}, 'log-on: it takes no binding; remedy: if this program takes no log-ons, allow calls without'),
    ({'interfaces': []}, "asking for the callback interface: the client's object does not have the interface"),
    # The address that the client came from is tried then.
    ({'bindings': []}, 'sink at 127.0.0.1:135, connecting: no connection'),
    ({'bindings': ['127.0.0.1[0]']}, 'sink at 127.0.0.1:135, connecting: no connection'),
    ({'bindings': ['plant-pc[7]', '224.0.0.1', '255.255.255.255[9]']}, 'sink at 127.0.0.1:.*connecting: no connection'),
)


class Bad(Called):
    settings = SETTINGS + 'MinimumLevel = connect\n[Accounts]\n' + ''.join(f'DEMO\\bad-{number} = password:open\n' for number in range(8))

    def setUp(self):
        super().setUp()
        self.good = self.subscriber(level='integrity')
        self.assertEqual(len(self.good('callbacks')), 1)

    def bad_client(self, number):
        client = self.client(items=['North.Stack1.NOx'], user=f'bad-{number}', password='open')
        return client

    def assert_good_is_called(self, seconds=2):
        began = time.monotonic()
        self.assert_refreshes(self.good, 9)
        self.assertLess(time.monotonic() - began, seconds)

    def lines(self, number):
        """What is said of the sinks of a bad client."""
        return [line for line in self.site.errors().splitlines() if f"'DEMO\\bad-{number}'" in line and 'sink' in line]

    def test_sinks_that_fall_silent_have_their_lines_and_others_are_called_on(self):
        self.each_has_its_line(SILENT)

    def test_sinks_that_answer_wrongly_have_their_lines_and_others_are_called_on(self):
        self.each_has_its_line(WRONG)

    def each_has_its_line(self, table):
        clients = [self.bad_client(number) for number in range(2)]
        for place, (options, _) in enumerate(table):
            client, sink = clients[place % 2], place // 2
            client('sink', **{'account': CALLER, **options})
            self.assertEqual(client('subscribe', sink=sink)['result'], S_OK, options)
            self.assert_good_is_called()
        for place, (options, words) in enumerate(table):
            with self.subTest(**options):
                with suppress(AssertionError):
                    wait_for('a line', lambda: any(re.search(words, line) for line in self.lines(place % 2)), 60)
                self.assertRegex('\n'.join(self.lines(place % 2)), f'({words}).*; ')
            self.assert_good_is_called()
        self.assertFalse(self.site.exited())

    def test_references_that_are_none_are_refused_and_those_that_lead_nowhere_cost_nothing(self):
        client = self.bad_client(3)
        client('sink', account=CALLER)
        good = bytes.fromhex(client('reference'))
        results = {INVALID_ARGUMENT, CANNOT_CONNECT}
        for length in range(0, len(good) - 1, 3):
            self.assertIn(client('subscribe', reference=good[:length].hex())['result'], results, length)
        for changed in (b'WOEM' + good[4:], good[:4] + b'\4' + good[5:], good[:64] + b'\xff' * 4 + good[68:], os.urandom(5000)):
            self.assertIn(client('subscribe', reference=changed.hex())['result'], results)
        huge = good[:64] + dual_string(['x' * 30000])
        self.assertIn(client('subscribe', reference=huge.hex())['result'], {S_OK, *results})
        self.assert_good_is_called()
        # Where nobody accepts what is asked, and nobody refuses it either.
        hole = socket.create_server(('127.0.0.1', 0), backlog=0)
        self.addCleanup(hole.close)
        port = hole.getsockname()[1]
        filling = []
        for _ in range(3):
            filling.append(socket.socket())
            filling[-1].setblocking(False)
            filling[-1].connect_ex(('127.0.0.1', port))
            self.addCleanup(filling[-1].close)
        itself = self.site.address
        for reference in (*(good[:64] + dual_string([binding]) for binding in (f'127.0.0.1[{port}]', itself, f'{itself}[49200]')),
                          bytes.fromhex(client('own_reference'))):
            self.assertEqual(client('subscribe', reference=reference.hex())['result'], S_OK)
            self.assert_good_is_called()
        wait_for('the lines', lambda: len(self.lines(3)) >= 2, 30)

    def test_advises_again_and_again_give_back_what_they_took(self):
        client = self.bad_client(4)
        client('sink', account=CALLER)
        results = client('subscribe_often', times=1000)
        self.assertEqual(results.keys(), {str(S_OK), str(ADVISE_LIMIT), 'taken back'})
        self.assertTrue(results['taken back'])
        self.assert_good_is_called()
        client('close')
        wait_for('everything let go', lambda: client('held') == 0)
        self.assert_good_is_called()

    def test_a_client_that_takes_nothing_is_waited_for_and_holds_nobody_up(self):
        client = self.bad_client(5)
        client('sink', account=CALLER, at='callback', does='hang')
        self.assertEqual(client('subscribe')['result'], S_OK)
        for number in range(200):
            client('refresh', transaction=number)
        self.assert_good_is_called()
        wait_for('its line', lambda: self.lines(5), 60)
        self.assert_good_is_called()


if __name__ == '__main__':
    unittest.main()
