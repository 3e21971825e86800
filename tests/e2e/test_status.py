"""The server says how it is: quelmctl status, clients and reload over the control socket, and peers of the socket that mean
no good."""

import json
import os
import signal
import socket
import stat
from contextlib import suppress

from harness import wait_for
from test_callbacks import Called
from test_control import Control


class SystemItems(Control):
    def test_items_about_the_server_stand_below_a_branch_of_their_own_where_they_are_wanted(self):
        self.site.write('dcom.conf', self.site.read('dcom.conf') + '\n[Items]\nSystemBranch = Server\n')
        self.site.start().started()
        self.site.wait_pass()
        names = ['Server.Clients', 'Server.LastPass.Milliseconds', *(
            f'Server.Sites.{site}.{name}' for site in ('NORTH', 'SOUTH')
            for name in ('DatabaseUp', 'Items.Good', 'Items.Uncertain', 'Items.Bad', 'LastSnapshot.Milliseconds'))]
        client = self.client(items=[*names, 'North.Stack1.NOx'])
        # As of the first pass after the client came.
        read = wait_for('the client counted', lambda: (lambda found: found['items'][0]['value'] == 1 and found)(client('read')))
        self.assertEqual((set(read['errors']), {item['quality'] for item in read['items']}), ({0}, {0xC0}))
        values = {item['itemID']: item['value'] for item in read['items']}
        self.assertEqual((values['Server.Clients'], bool(values['Server.Sites.NORTH.DatabaseUp'])), (1, True))
        self.assertEqual([sum(values[f'Server.Sites.{site}.Items.{name}'] for name in ('Good', 'Uncertain', 'Bad'))
                          for site in ('NORTH', 'SOUTH')], [20, 7])


class Status(Called, Control):
    def ask(self, command):
        ended = self.quelmctl('--control', self.site.path('control'), command, '--json')
        self.assertEqual(ended.stderr, '')
        return json.loads(ended.stdout)

    def peer(self):
        one = socket.socket(socket.AF_UNIX)
        self.addCleanup(one.close)
        one.settimeout(30)
        one.connect(self.site.path('control'))
        return one

    def answer(self, question, one=None):
        one = one or self.peer()
        with suppress(BrokenPipeError):  # turned away before it asked, with a line that says why
            one.sendall((question if isinstance(question, str) else json.dumps(question)).encode() + b'\n')
        with one.makefile(encoding='utf-8') as lines:
            return json.loads(lines.readline())

    def test_sites_clients_items_messages(self):
        self.site.wait_pass()
        mode = os.stat(self.site.path('control')).st_mode
        self.assertEqual((stat.S_ISSOCK(mode), mode & 0o777), (True, 0o660))
        self.assertEqual(self.ask('clients'), {'clients': [], 'more': False})
        client = self.subscriber(['North.Stack1.NOx', 'South.Boiler.Steam'])
        client('callbacks')
        client('read')
        status = wait_for('the callback answered', lambda: (lambda found: found['callbacks'] and found)(self.ask('status')))
        self.assertEqual({key: status[key] for key in ('process', 'clients', 'groups', 'refusals', 'callbacksFailed',
                                                       'deviceReadWaits', 'keepRunning', 'unloadsIn')},
                         {'process': self.site.process.pid, 'clients': 1, 'groups': 1, 'refusals': 0, 'callbacksFailed': 0,
                          'deviceReadWaits': 0, 'keepRunning': False, 'unloadsIn': None})
        self.assertGreater(status['memoryBytes'], 1 << 20)
        north, south = status['sites']
        self.assertEqual([(site['site'], site['items'], site['database'], site['databaseMessage'], site['snapshotsFailed'])
                          for site in (north, south)], [('NORTH', 20, 'up', '', 0), ('SOUTH', 7, 'up', '', 0)])
        for site in (north, south):
            self.assertEqual(site['items'], site['good'] + site['uncertain'] + site['bad'])
            self.assertGreater(site['passes'], 0)
            self.assertRegex(site['lastPass'], r'^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$')
        listed, = self.ask('clients')['clients']
        group, = listed.pop('groups')
        self.assertEqual((listed['account'], listed['level'], listed['address'][:4]), ('DEMO\\operator', 'privacy', '127.'))
        self.assertGreater(listed['calls'], 3)
        self.assertGreater(listed['bytesHeld'], 1000)
        self.assertEqual({key: group[key] for key in ('active', 'items', 'activeItems', 'callbacks')},
                         {'active': True, 'items': 2, 'activeItems': 2, 'callbacks': 'advised'})
        found = self.answer({'ask': 'items', 'name': 'stack1.n', 'quality': 'good'})
        self.assertEqual([item['id'] for item in found['items']][:1], ['North.Stack1.NOx'])
        reading = {reading['itemID']: reading for reading in client('read')['items']}['North.Stack1.NOx']
        item = found['items'][0]
        self.assertEqual((item['site'], item['type'], item['quality'], item['qualityText']), ('NORTH', 'VT_R4', 192, 'good'))
        self.assertAlmostEqual(item['value'], reading['value'], 3)
        self.assertEqual(found['total'], len(found['items']))
        everything = self.answer({'ask': 'items', 'from': 25, 'count': 500})
        self.assertEqual((everything['total'], len(everything['items'])), (27, 2))
        self.assertEqual(self.answer({'ask': 'items', 'site': 'SOUTH', 'count': 0}), {'total': 7, 'from': 0, 'items': []})
        messages = self.answer({'ask': 'messages', 'after': 0})
        self.assertIn(('Information', '[OPC-0102] Loading site IDs and connection strings...'),
                      [(line['type'], line['text']) for line in messages['messages']])
        self.assertEqual([line['number'] for line in messages['messages']], list(range(1, messages['last'] + 1)))
        # A database that goes, and comes back.
        os.rename(self.site.path('realtime.db'), self.site.path('away.db'))
        down = wait_for('the database is down', lambda: [site for site in self.ask('status')['sites']
                                                         if site['database'] == 'down'], 60)
        self.assertIn('unable to open', down[0]['databaseMessage'])
        os.rename(self.site.path('away.db'), self.site.path('realtime.db'))
        # In words.
        said = self.quelmctl('--control', self.site.path('control'), 'clients').stdout
        self.assertIn('DEMO\\operator', said)
        self.assertIn('2 items, 2 active; callbacks: advised', said)

    def test_a_reload_tells_what_came_of_it_and_a_reader_notices_nothing(self):
        reader = self.steady()
        for _ in range(20):
            self.assertTrue(self.ask('reload')['reloaded'])
        self.site.edit('dcom.conf', ('[Clients]', '[Klients]'))
        ended = self.quelmctl('--control', self.site.path('control'), 'reload')
        self.assertEqual((ended.returncode, ended.stderr), (1, ''))
        self.assertIn('Klients', ended.stdout)
        self.assertIn('nothing is changed', ended.stdout)
        self.assertLess(reader.longest_read(), 1)

    def test_peers_that_mean_no_good_are_bounded_and_no_client_notices(self):
        reader = self.steady()
        one = self.peer()
        for question, why in (('', 'parse error'), ('\0\xff{', 'parse error'), ('[]', 'an object'), ('{}', '"ask" is none'),
                              ('{"ask":7}', 'type must be string'), ('[' * 4000, 'parse error'),
                              ('{"ask":"items","count":501}', 'greater than 500'),
                              ('{"ask":"items","from":-1}', 'no whole number'),
                              ('{"ask":"items","quality":"fine"}', '"quality" is none')):
            self.assertIn(why, self.answer(question, one)['error'])
        self.assertIn('version', self.answer({'ask': 'status'}, one))
        # Too long a line.
        one.sendall(b'x' * 5000)
        with suppress(ConnectionResetError):
            self.assertEqual(one.recv(1), b'')
        # Many at once; those before them are served on.
        first, *others = [self.peer() for _ in range(8)]
        self.assertIn('too many', self.answer('{}', self.peer()).get('error', ''))
        self.assertIn('version', self.answer({'ask': 'status'}, first))
        # Asks and never reads, and asks and goes.
        for other in others:
            other.sendall(b'{"ask":"items","count":500}\n' * 140)
        for other in others:
            other.close()
        wait_for('room', lambda: 'version' in self.answer({'ask': 'status'}))
        self.assertLess(reader.longest_read(), 1)

    def test_without_a_server_or_with_one_that_died_it_is_said_plainly_and_the_next_one_replaces_it(self):
        self.assertEqual(self.site.process.poll(), None)
        self.site.process.send_signal(signal.SIGKILL)
        self.site.process.wait()
        self.assertTrue(os.path.exists(self.site.path('control')))
        for path in ('control', 'nowhere'):
            ended = self.quelmctl('--control', self.site.path(path), 'status')
            self.assertEqual((ended.returncode, ended.stdout), (1, ''))
            self.assertIn('the server does not run', ended.stderr)
        self.site.start().started()
        self.assertEqual(self.ask('status')['process'], self.site.process.pid)
        self.site.terminate()
        self.assertEqual(self.site.exit_code(), 0)
        self.assertFalse(os.path.exists(self.site.path('control')))
