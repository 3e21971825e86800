"""What the operator can get wrong: INI file, command line, log folder, ports, DCOM settings. Each costs what it stands
in, says so in plain words, and nothing more."""

import glob
import os
import re
import socket
import unittest

from harness import ClientError, ImpacketClient, NodeClient, Site, wait_for

from test_demo_site import EXPECTED, LOGON

HELP = '''\
Quelm 5 OPC DA Server

Command line options

regserver
      Register COM server (installer use only)

unregserver
      Unregister COM server (installer use only)

visible
      Show main window
'''
CANNOT_READ = '[OPC-0129] Cannot read INI file'
CANNOT_SELECT = '[OPC-0130] Cannot select DAHS entry in INI file'


class BadInput(unittest.TestCase):
    maxDiff = None

    def site(self, **settings):
        site = Site(**settings)
        self.addCleanup(site.remove)
        return site

    def client(self, site, kind=ImpacketClient, **logon):
        client = kind()
        self.addCleanup(client.end)
        client('connect', address=site.address, **{**LOGON, **logon})
        return client

    def assert_not_listening(self, site):
        with socket.socket() as probe:
            self.assertNotEqual(probe.connect_ex((site.address, 135)), 0, 'activation port is open')

    def assert_serves(self, site):
        client = self.client(site)
        self.assertEqual(sorted(client('browse')), sorted(EXPECTED))
        client('close')


class BadIniFile(BadInput):
    def idle_until_told_to_end(self, site, *lines):
        """The process stays with its message list shown, serves nobody, and ends when told to."""
        for line in lines:
            site.wait_error(line)
        self.assertFalse(site.exited())
        self.assert_not_listening(site)
        site.terminate()
        self.assertEqual(site.exit_code(5), 1)

    def test_without_a_usable_file_the_reason_is_shown_and_nothing_runs(self):
        too_large = '; filler\n' * 500000
        cases = [('missing', None, 'cannot be opened: No such file or directory'),
                 ('empty', '', 'no usable DAHS entry'),
                 ('noise', bytes(range(256)) * 64, 'no usable DAHS entry'),
                 ('another format', '<ini><site id="NORTH"/></ini>\n' * 50, 'no usable DAHS entry'),
                 ('too large', too_large, 'larger than 4194304 bytes')]
        for name, contents, reason in cases:
            with self.subTest(name):
                site = self.site()
                if contents is None:
                    os.remove(site.path('Quelm.ini'))
                else:
                    site.write('Quelm.ini', contents)
                site.start()
                self.idle_until_told_to_end(site, f"{site.path('Quelm.ini')}: {reason}", CANNOT_READ, CANNOT_SELECT)
                self.assertLess(site.errors().index(CANNOT_READ), site.errors().index(CANNOT_SELECT))
                self.assertEqual(glob.glob(site.path('logs', '*')), [])
        with self.subTest('folder in its place'):
            site = self.site()
            os.remove(site.path('Quelm.ini'))
            os.mkdir(site.path('Quelm.ini'))
            site.start()
            self.idle_until_told_to_end(site, 'Quelm.ini: cannot be read', CANNOT_READ, CANNOT_SELECT)

    def test_no_entry_for_this_computer(self):
        site = self.site()
        site.edit('Quelm.ini', ('Default = yes', 'Default = no'))
        site.start()
        self.idle_until_told_to_end(
            site, f"no DAHS entry names this computer ('{os.uname().nodename}'), and none is marked as default",
            CANNOT_SELECT)
        self.assertNotIn(CANNOT_READ, site.errors())

    def test_damaged_entries_and_duplicates_cost_nobody_else(self):
        site = self.site()
        with open(site.path('Quelm.ini'), 'a') as file:
            file.write('[DAHS.Nameless]\nDAHSID = 7\n'
                       '[DAHS.Numberless]\nSiteID = X\nDAHSID = 12x\nDefault = perhaps\n'
                       '[DAHS.Doubtful]\nSiteID = NORTH\nDAHSID = 9\nDefault = perhaps\n'
                       '[DAHS.Open\nSiteID = SOUTH\nConnection2 = Driver=Other\n')
        site.start().started()
        self.assert_serves(site)
        for reason in ('[DAHS.Nameless]: SiteID is missing; the entry is left out',
                       "[DAHS.Numberless]: DAHSID '12x' is not a 32-bit whole number; the entry is left out",
                       "[DAHS.Doubtful]: Default 'perhaps' is neither yes nor no; read as no",
                       "'[DAHS.Open': a heading without ]"):
            self.assertIn(reason, site.errors())
        self.assertEqual([line for line in site.log() if 'OPC-0208' in line or 'OPC-013' in line][:3],
                         ['Information [OPC-0208] found site NORTH, DAHSID 1',
                          'Information [OPC-0208] found site SOUTH, DAHSID 2',
                          'Error [OPC-0131] Site NORTH is already loaded; will not load again; DAHS 9 is a duplicate'])

    def test_unusable_connection_strings(self):
        damage = ('Connection2 = Driver=SQLite;Database=', 'Connection2 = geheim ')
        found = {name: f'Information [OPC-0208] found site {name}, DAHSID {number}'
                 for name, number in (('NORTH', 1), ('SOUTH', 2))}
        failed = {name: f'Error [OPC-0132] DBIL setup failed for site {name}, DAHSID {number}'
                  for name, number in (('NORTH', 1), ('SOUTH', 2))}
        # This computer's own entry is tried once as such and once in its turn.
        twice = [found['NORTH'], failed['NORTH']] * 2
        for broken, lines in (('NORTH', twice + [found['SOUTH']]),
                              ('SOUTH', [found['NORTH'], found['SOUTH'], failed['SOUTH']])):
            with self.subTest(broken):
                site = self.site()
                section = f'SiteID = {broken}'
                with open(site.path('Quelm.ini')) as file:
                    before, behind = file.read().split(section)
                site.write('Quelm.ini', before + section + behind.replace(*damage, 1))
                site.start()
                self.idle_until_told_to_end(site, f"Site '{broken}': connection 1", failed[broken][6:])
                self.assertEqual([line for line in site.log() if 'OPC-0208' in line or 'OPC-0132' in line], lines)
                self.assertEqual(site.logged('OPC-0223'), [])
                self.assertNotIn('geheim', site.errors() + ''.join(site.log()))
                self.assertEqual(site.log()[-1], 'Information [OPC-0134] Stopping log...')


class CommandLine(BadInput):
    def test_help_prints_its_lines_and_does_nothing_else(self):
        for arguments in (['?'], ['/?'], ['regserver', '?'], ['visible', '-?']):
            with self.subTest(arguments=arguments):
                site = self.site()
                self.assertEqual(site.start(*arguments).exit_code(5), 0)
                self.assertEqual((site.output(), site.errors()), (HELP, ''))
                self.assertFalse(os.path.exists(site.path('logs')))

    def test_visible_shows_the_message_list_even_inside_another_word(self):
        site = self.site().start('/INVISIBLE').started()
        site.wait_error('startup complete')
        shown = [line for line in site.errors().splitlines() if not line.startswith('Q5OPCServer: ')]
        self.assertRegex(shown[0], r"^\[OPC-0133\] Starting log '.*'\.\.\.$")
        self.assertEqual(shown[1], '[OPC-0100] Command Line:  /INVISIBLE')
        without_type = [line.split(' ', 1)[1] for line in site.log()]
        self.assertEqual(shown[1:], without_type)
        site.terminate()
        self.assertEqual(site.exit_code(5), 0)
        self.assertTrue(site.errors().rstrip().endswith('[OPC-0134] Stopping log...'))


class LogFolder(BadInput):
    def test_a_missing_folder_is_made(self):
        site = self.site()
        site.edit('Quelm.ini', (site.path('logs'), site.path('new', 'deeper', 'logs')))
        site.start()
        names = wait_for('a log file', lambda: glob.glob(site.path('new', 'deeper', 'logs', '*')))
        self.assertEqual(len(names), 1)
        self.assertRegex(os.path.basename(names[0]),
                         rf'^OPCServer \d{{4}}-\d\d-\d\d \d\d\.\d\d\.\d\d\.{site.process.pid:05}\.log$')

    def test_a_file_in_the_folders_place_costs_the_log_alone(self):
        site = self.site()
        site.write('logs', 'in the way')
        site.start('visible')
        site.wait_error('startup complete')
        self.assert_serves(site)
        with open(site.path('logs')) as file:
            self.assertEqual(file.read(), 'in the way')

    def test_a_full_disk_costs_lines_and_says_how_many(self):
        site = self.site()
        os.mkdir(site.path('logs'))
        mount = ['unshare', '-m', 'sh', '-c', 'mount -t tmpfs -o size=32k tmpfs "$0" && exec "$@"', site.path('logs')]
        if os.system(f"unshare -m sh -c 'mount -t tmpfs -o size=32k tmpfs {site.path('logs')}' 2>/dev/null") != 0:
            self.skipTest('no file system of its own to be had here')
        site.start('visible', prefix=mount)
        site.wait_error('startup complete')
        # The folder as the server sees it.
        folder = f"/proc/{site.process.pid}/root{site.path('logs')}"
        log, = glob.glob(folder + '/*.log')
        with open(folder + '/filler', 'wb', buffering=0) as filler:
            with self.assertRaises(OSError):
                while filler.write(b'x' * 4096):
                    pass
        with open(log, 'rb') as file:
            room = -len(file.read()) % 4096
        client = self.client(site)
        client('watch', items=['North.Stack1.NOx'])
        # Each device read writes a line; two pages' worth cannot fit into what is left of the last page.
        for _ in range(8192 // 60):
            self.assertEqual(client('read', source='device')['items'][0]['error'], 0)
        with open(log, 'rb') as file:
            self.assertLessEqual(-len(file.read()) % 4096, room)
        os.remove(folder + '/filler')

        def lost():
            client('read', source='device')
            with open(log) as file:
                return re.findall(r'^\S+ \S+ \((\d+) lines before this could not be written\)$', file.read(), re.M)
        self.assertGreater(int(wait_for('the line that counts the lost ones', lost, 10)[0]), 0)
        with open(log) as file:
            lines = file.read().splitlines()
        self.assertRegex(lines[-1], r'^[-0-9]{10} [:.0-9]{12} Information ')


class BadPorts(BadInput):
    def test_a_port_in_use_ends_the_start_with_address_port_and_remedy(self):
        for port in (135, 49200):
            with self.subTest(port=port):
                site = self.site(dcom='', accounts='')
                with socket.create_server((site.address, port)):
                    site.start()
                    self.assertEqual(site.exit_code(), 1)
                for word in (f'{site.address}:{port}', 'address already in use', f"ss -ltnp 'sport = :{port}'"):
                    self.assertIn(word, site.errors())
                    self.assertTrue([line for line in site.log() if word in line], word)
                self.assertTrue([line for line in site.log() if line.startswith('Error The server cannot start: ')])
                self.assertEqual(site.logged('OPC-0108'), [])
                self.assertEqual(site.log()[-1], 'Information [OPC-0134] Stopping log...')

    def test_an_address_of_no_interface(self):
        site = self.site()
        site.edit('dcom.conf', (site.address, '192.0.2.77'))
        self.assertEqual(site.start().exit_code(), 1)
        self.assertIn('192.0.2.77', site.errors())
        self.assertIn('no network interface has this address', site.errors())


class BadDcomSettings(BadInput):
    def test_damage_is_named_and_the_strict_defaults_hold(self):
        site = self.site()
        site.write('dcom.conf', (
            '# comment\nMinimumLevel = connect\n'
            f'[Listen]\nAddress = {site.address}, 300.1.1.1, all\nActivationPort = 70000\nObjectPort = banana\n'
            '[Security\nMinimumLevel = connect\nAllowNTLMv1 = yes\n'
            '[Security]\nMinimumLevel = conect\nAllowNTLMv1 = ja\nAllowAnonymous = 2\nSecret=1\nno sign here\n'
            '[Accounts]\nDEMO\\operator = password:stack-7\nDEMO\\short = nt:abc123def\nDEMO\\bare = geheim99\n'
            'DEMO\\nobody = password:\n[Else]\nx = y\n').encode() + b'\xff\xfe\0 = \xff\n')
        site.start().started()
        for words in ('"300.1.1.1" is not an IPv4 address', '"70000" is not a port, 135 holds',
                      '"banana" is not a port', 'a section heading without ]',
                      '"conect" is none of the choices, integrity holds', '"ja" is none of the choices, no holds',
                      '"2" is none of the choices, no holds', '[Security] Secret: there is no setting of that name',
                      'neither a [section] heading nor', '[Accounts] DEMO\\short', '[Accounts] DEMO\\bare',
                      'the password is empty', '[Else]'):
            self.assertIn(words, site.errors())
        for secret in ('geheim99', 'abc123def', 'stack-7'):
            self.assertNotIn(secret, site.errors() + ''.join(site.log()))
        self.assert_serves(site)
        for kind, logon in ((NodeClient, {}), (ImpacketClient, {'level': 'connect'}),
                            (ImpacketClient, {'user': '', 'password': ''}),
                            (ImpacketClient, {'user': 'nobody', 'password': ''})):
            with self.subTest(logon=logon), self.assertRaises(ClientError):
                self.client(site, kind, **logon)

    def test_without_the_file_nobody_is_let_in(self):
        site = self.site()
        os.remove(site.path('dcom.conf'))
        site.address = '127.0.0.1'  # the default
        site.start().started()
        with self.assertRaises(ClientError):
            self.client(site)
        site.wait_error("Refused OPC client")
        self.assertIn('every client is refused', site.errors() + ''.join(site.log()))


if __name__ == '__main__':
    unittest.main()
