"""quelmctl: what it finds before a start, and the accounts that it writes."""

import json
import os
import signal
import socket
import subprocess

from harness import ClientError, ImpacketClient, SiteTest, program

# What the demo plant has on purpose.
DEMO = [('NORTH', '[OPC-0140] This application does not support OPC writes; any writes will be ignored '
                  '(Tag=North.Stack1.SO2.Raw)'),
        ('NORTH', '[OPC-0139] Cannot determine Quelm PID or I/O Channel ID (Tag=North.Stack2.Refused)'),
        ('NORTH', "[OPC-0120] Could not load OPC tag 'North.Stack2.Refused'")]
MENDED = '''UPDATE Q5OPCDEF SET Write = 0; DELETE FROM Q5OPCDEF WHERE Tagname = 'North.Stack2.Refused';'''


class Control(SiteTest):
    def quelmctl(self, *arguments, given=None, conf='dcom.conf'):
        return subprocess.run([program('quelmctl'), '--ini', self.site.path('Quelm.ini'),
                               '--conf', self.site.path(conf), *arguments],
                              input=given, capture_output=True, text=True, timeout=60)


class Check(Control):
    def check(self):
        ended = self.quelmctl('check', '--json')
        found = json.loads(ended.stdout)
        self.assertEqual((ended.returncode, ended.stderr), (1 if found['problems'] else 0, ''))
        return found, [(problem['area'], problem['text']) for problem in found['problems']]

    def test_a_site_that_is_well_and_one_that_is_not(self):
        found, problems = self.check()
        self.assertEqual(problems, DEMO)
        self.assertEqual(found['sites'], [
            {'site': 'NORTH', 'reached': True, 'definitions': 21, 'items': 20, 'channelRecords': 19},
            {'site': 'SOUTH', 'reached': True, 'definitions': 7, 'items': 7, 'channelRecords': 8}])
        self.site.execute('configuration.db', MENDED)
        ended = self.quelmctl('check')
        self.assertEqual((ended.returncode, ended.stdout.splitlines()[-1]), (0, 'Nothing is wrong'))
        self.assertFalse(os.path.exists(self.site.path('logs')), 'looking leaves nothing behind')

    def test_each_fault_is_named_where_it_is_and_hides_no_other(self):
        self.site.execute('configuration.db', MENDED)
        ini, conf, address = self.site.read('Quelm.ini'), self.site.read('dcom.conf'), self.site.address
        realtime = f"Connection2 = Driver=SQLite;Database={self.site.path('realtime.db')}"
        with socket.create_server((address, 135)):
            self.assertIn(f'{address}:135 is in use', str(self.check()[0]['notes']))
        for file, old, new, area, words in (
                ('Quelm.ini', '[System]', '[Sytem]', 'Quelm.ini', "('Sytem')"),
                ('Quelm.ini', 'Default = yes', 'Default = no', 'Quelm.ini', '[OPC-0130]'),
                ('Quelm.ini', 'SiteID = SOUTH', 'SiteID = NORTH', 'Quelm.ini', '[OPC-0131] Site NORTH'),
                ('Quelm.ini', realtime, realtime + '/none', 'NORTH', 'unable to open'),
                ('Quelm.ini', realtime, 'Connection2 = Driver=Nonesuch', 'NORTH', 'Nonesuch'),
                ('Quelm.ini', '/logs', '/Quelm.ini', 'log', 'is no folder'),
                ('Quelm.ini', f'LogFolder = {self.site.folder}/logs', 'LogFolder = logs', 'log', 'no absolute path'),
                ('dcom.conf', f'Address = {address}', 'Address = 192.0.2.1', 'network', '192.0.2.1:135'),
                ('dcom.conf', 'ObjectPort', 'ObjektPort', 'dcom.conf', 'ObjektPort'),
                ('dcom.conf', '[Accounts]\n', '[Accounts]\n;', 'dcom.conf', 'every client is refused')):
            with self.subTest(new):
                self.site.edit(file, (old, new))
                problems = self.check()[1]
                self.assertTrue([1 for where, text in problems if where == area and words in text], problems)
                self.site.write('Quelm.ini', ini)
                self.site.write('dcom.conf', conf)
        os.remove(self.site.path('Quelm.ini'))
        self.assertIn('No such file', str(self.check()[1]))
        self.site.write('Quelm.ini', ini)
        self.site.execute('realtime.db', 'DROP TABLE CurrentIO; DROP TABLE ParameterValue;')
        texts = [text for _, text in self.check()[1]]
        for table in ('CurrentIO', 'ParameterValue'):
            self.assertTrue([text for text in texts if f'no such table: {table}' in text], texts)


class Accounts(Control):
    def test_accounts_come_change_and_go_and_everything_else_stays(self):
        before = self.site.read('dcom.conf')
        os.chmod(self.site.path('dcom.conf'), 0o640)
        os.symlink('dcom.conf', self.site.path('link.conf'))
        for arguments, given, code, said in (
                (('add', 'PLANT\\histörian'), 'first\n', 0, 'added'),
                (('add', 'plant\\Histörian'), 'x\n', 1, 'already'),
                (('change', 'PLANT\\HISTÖRIAN'), 'stack;=8 \n', 0, 'changed'),
                (('change', 'historian'), 'x\n', 1, 'no account'),
                (('add', 'a=b'), 'x\n', 1, 'no account name'), (('add', 'a\n[Listen]'), 'x\n', 1, 'no account name'),
                (('add', 'guest'), '\n', 1, 'nothing is changed'), (('add', 'guest'), 'g' * 1025, 1, 'nothing is changed'),
                (('add', 'guest'), 'g\n', 0, 'added'),
                (('remove', 'nobody'), '', 1, 'no account'), (('remove', '*\\Guest'), '', 0, 'removed')):
            with self.subTest(arguments):
                ended = self.quelmctl('passwd', *arguments, given=given, conf='link.conf')
                self.assertEqual(ended.returncode, code, ended.stderr)
                self.assertIn(said, ended.stdout if code == 0 else ended.stderr)
        self.assertEqual(self.quelmctl('passwd', 'list').stdout, 'DEMO\\operator\nPLANT\\HISTÖRIAN\n')
        after = self.site.read('dcom.conf')
        self.assertEqual([line for line in after.splitlines() if 'HIST' not in line], before.splitlines())
        self.assertNotIn('stack;=8', after)
        self.assertTrue(os.path.islink(self.site.path('link.conf')))
        self.assertEqual(os.stat(self.site.path('dcom.conf')).st_mode & 0o777, 0o640)
        self.site.start().started()
        self.client(ImpacketClient, domain='PLANT', user='histörian', password='stack;=8 ')
        self.client()

    def test_a_new_file_is_its_owners_alone(self):
        os.remove(self.site.path('dcom.conf'))
        self.assertEqual(self.quelmctl('passwd', 'add', 'user', given='password').returncode, 0)
        self.assertEqual(os.stat(self.site.path('dcom.conf')).st_mode & 0o777, 0o600)
        self.assertEqual(self.quelmctl('passwd', 'list', '--json').stdout, '{"accounts":["user"]}\n')


class Reload(Control):
    def reload(self, *words):
        at = len(self.site.log())
        self.site.process.send_signal(signal.SIGHUP)
        number = self.site.wait_log('was read anew', after=at)
        line = self.site.log()[number - 1]
        for word in words:
            self.assertIn(word, line)

    def test_settings_are_read_anew_and_no_client_notices(self):
        self.site.start().started()
        reader = self.steady()
        self.quelmctl('passwd', 'add', 'PLANT\\reader', given='first\n')
        with self.assertRaises(ClientError):
            self.client(domain='PLANT', user='reader', password='first')
        self.reload('hold from now on')
        new = self.client(domain='PLANT', user='reader', password='first', items=['North.Stack1.NOx'])
        self.assertEqual(new('read')['errors'], [0])
        # Log-ons that are there go on, whatever is asked of later ones.
        self.quelmctl('passwd', 'remove', 'PLANT\\reader')
        self.site.edit('dcom.conf', ('[Security]\n', '[Security]\nMinimumLevel = privacy\n'))
        self.reload()
        self.assertEqual(new('read')['errors'], [0])
        for words, logon in ((('account',), {'domain': 'PLANT', 'user': 'reader', 'password': 'first'}),
                             (('level integrity', 'privacy'), {'level': 'integrity'})):
            with self.refused(*words), self.assertRaises(ClientError):
                self.client(**logon)
        # Damage changes nothing.
        good = self.site.read('dcom.conf')
        self.site.edit('dcom.conf', ('MinimumLevel = privacy', 'MinimumLevel = private'))
        self.reload('damaged', 'nothing is changed')
        self.assertIn('"private" is none of the choices', self.site.errors())
        with self.refused('privacy'), self.assertRaises(ClientError):
            self.client(level='integrity')
        self.site.write('dcom.conf', good)
        self.site.edit('dcom.conf', ('ObjectPort = 49200', 'ObjectPort = 49201'),
                       ('MinimumLevel = privacy', 'MinimumLevel = integrity'), ('[Clients]', '[Clients]\nKeepRunning = yes'))
        self.reload('restart the server for ObjectPort')
        self.client(level='integrity')('close')
        self.assertLess(reader.longest_read(), 1)


