"""What the operator can get wrong: INI file, command line, log folder, ports, DCOM settings. Each costs what it stands
in, says so in plain words, and nothing more."""

import os
import pty
import socket
import subprocess
import unittest

from harness import ClientError, NodeClient, SiteTest, program

CANNOT_READ = '[OPC-0129] Cannot read INI file'
CANNOT_SELECT = '[OPC-0130] Cannot select DAHS entry in INI file'


class BadIniFile(SiteTest):
    def idle_until_told_to_end(self, *lines):
        """The process stays with its message list shown, serves nobody, and ends when told to."""
        self.site.start()
        for line in lines:
            self.site.wait_error(line)
        self.assertFalse(self.site.exited())
        with socket.socket() as probe:
            self.assertNotEqual(probe.connect_ex((self.site.address, 135)), 0, 'activation port is open')
        self.site.terminate()
        self.assertEqual(self.site.exit_code(5), 1)

    def test_without_a_usable_file_the_reason_is_shown_and_nothing_runs(self):
        self.site.edit('Quelm.ini', ('Default = yes', 'Default = no'))
        self.idle_until_told_to_end(f"no DAHS entry names this computer ('{os.uname().nodename}'), and none is marked "
                                    'as default', CANNOT_SELECT)
        self.assertNotIn(CANNOT_READ, self.site.errors())
        path = self.site.path('Quelm.ini')
        for damage, reason in ((lambda: self.site.write('Quelm.ini', bytes(range(256)) * 64), 'no usable DAHS entry'),
                               (lambda: os.remove(path), 'cannot be opened: No such file or directory'),
                               (lambda: os.mkdir(path), 'cannot be read')):
            with self.subTest(reason):
                damage()
                self.idle_until_told_to_end(f'{path}: {reason}', f'{CANNOT_READ}\n{CANNOT_SELECT}')
        self.assertEqual(os.path.exists(self.site.logs), False)

class Damaged(SiteTest):
    def test_damage_is_named_and_costs_nobody_else(self):
        with open(self.site.path('Quelm.ini'), 'a') as file:
            file.write('[DAHS.Nameless]\nDAHSID = 7\n[DAHS.Doubtful]\nSiteID = NORTH\nDAHSID = 9\nDefault = perhaps\n'
                       '[DAHS.Open\nSiteID = SOUTH\nConnection2 = Driver=Other\n')
        self.site.logs = self.site.path('new', 'deeper', 'logs')
        self.site.edit('Quelm.ini', (self.site.path('logs'), self.site.logs))
        self.site.write('dcom.conf', (
            f'[Listen]\nAddress = {self.site.address}, 300.1.1.1\nActivationPort = 70000\nObjectPort = banana\n'
            '[Security\nMinimumLevel = connect\nAllowNTLMv1 = yes\n'
            '[Security]\nMinimumLevel = conect\nAllowNTLMv1 = ja\nAllowAnonymous = 2\n'
            '[Accounts]\nDEMO\\operator = password:stack-7\nDEMO\\bare = geheim99\n'
            'DEMO\\nobody = password:\n[Else]\nx = y\n').encode() + b'\xff\xfe\0 = \xff\n')
        self.site.start().started()
        name, = os.listdir(self.site.logs)
        self.assertRegex(name, rf'^OPCServer \d{{4}}-\d\d-\d\d \d\d\.\d\d\.\d\d\.{self.site.process.pid:05}\.log$')
        self.assert_serves()('close')
        log = self.site.log()
        self.assertEqual([line for line in log if 'OPC-0208' in line or 'OPC-0131' in line], [
            'Information [OPC-0208] found site NORTH, DAHSID 1', 'Information [OPC-0208] found site SOUTH, DAHSID 2',
            'Error [OPC-0131] Site NORTH is already loaded; will not load again; DAHS 9 is a duplicate'])
        for words in ('[DAHS.Nameless]: SiteID is missing; the entry is left out', "a section heading without ], the lines under it are left out",
                      "[DAHS.Doubtful]: Default 'perhaps' is neither yes nor no; read as no",
                      '"300.1.1.1" is not an IPv4 address', '"banana" is not a port',
                      '"conect" is none of the choices, integrity holds', '[Else]: lines outside the known sections',
                      '[Accounts] DEMO\\bare', 'the password is empty'):
            self.assertIn(words, self.site.errors())
        for secret in ('geheim99', 'stack-7'):
            self.assertNotIn(secret, self.site.errors() + ''.join(log))
        # The strict defaults hold.
        for logon in ({'kind': NodeClient}, {'level': 'connect'}, {'user': '', 'password': ''},
                      {'user': 'nobody', 'password': ''}):
            with self.subTest(logon=logon), self.assertRaises(ClientError):
                self.client(**logon)

    def test_without_dcom_settings_nobody_is_let_in(self):
        os.remove(self.site.path('dcom.conf'))
        self.site.address = '127.0.0.1'  # the default
        self.site.start().started()
        with self.refused(self.site.path('dcom.conf') + ' (a change counts once'), self.assertRaises(ClientError):
            self.client()
        self.assertTrue(self.site.logged('every client is refused'))

    def test_a_port_in_use_ends_the_start_with_address_port_and_remedy(self):
        for port in (135, 49200):
            with self.subTest(port=port):
                with socket.create_server((self.site.address, port)):
                    self.assertEqual(self.site.start().exit_code(), 1)
                log = self.site.log()
                reason, = [line for line in log if line.startswith('Error The server cannot start: ')]
                for word in (f'{self.site.address}:{port}', 'address already in use', f"ss -ltnp 'sport = :{port}'"):
                    self.assertIn(word, self.site.errors())
                    self.assertIn(word, reason)
                self.assertFalse([line for line in log if 'OPC-0108' in line])
                self.assertEqual(log[-1], 'Information [OPC-0134] Stopping log...')


class WithoutDisplay(SiteTest):
    def test_a_password_is_asked_for_twice_and_not_shown(self):
        for second, code in ((b'geheim99\n', 0), (b'geheim98\n', 1)):
            controller, terminal = pty.openpty()
            process = subprocess.Popen([program('Q5OPCServer'), '--nt-hash'], stdin=terminal, stderr=terminal,
                                       stdout=subprocess.PIPE, text=True)
            os.close(terminal)
            shown = b''
            for prompt, answer in ((b'Password: ', b'geheim99\n'), (b'Once more: ', second)):
                while not shown.endswith(prompt):
                    shown += os.read(controller, 100)
                os.write(controller, answer)
            output, _ = process.communicate(timeout=20)
            os.close(controller)
            self.assertEqual(process.returncode, code)
            self.assertRegex(output, r'^nt:[0-9a-f]{32}\n$' if code == 0 else '^$')
            self.assertNotIn(b'geheim', shown)

    def test_what_asks_for_text_only_prints_it_and_does_nothing_else(self):
        for arguments, printed in (
                (('regserver', '?'), 'Quelm 5 OPC DA Server\n\nCommand line options\n\nregserver\n.*Show main window\n$'),
                (('visible', '--version'), r'Quelm 5 OPC DA Server \d+\.\d+\.\d+\n.*Ombrel\.QuelmOPCServer\.5\n.*'
                                           r'\{43FB6634.*\{5A24BCDD.*2\.05a'),
                (('--help',), 'Usage: .*unregserver.*--version.*QUELM_INI'), (('-h',), 'Usage: '), (('-v',), 'Quelm 5')):
            with self.subTest(arguments):
                self.assertEqual(self.site.start(*arguments).exit_code(5), 0)
                self.assertRegex(self.site.output(), '(?s)^' + printed)
                self.assertEqual(self.site.errors(), '')
        self.assertFalse(os.path.exists(self.site.logs))
        self.site.start('--versions').started()
        self.assertIn('Q5OPCServer: "--versions" is no switch of this server and changes nothing; --help lists them',
                      self.site.errors())

    def test_the_message_list_is_printed_even_where_no_log_can_be(self):
        self.site.start('/INVISIBLE', environment={'DISPLAY': ':4711'}).started()
        self.site.terminate()
        self.assertEqual(self.site.exit_code(5), 0)
        first, *shown = [line for line in self.site.errors().splitlines() if 'clients are served on' not in line]
        self.assertEqual(first, 'Q5OPCServer: There is no display for the main window; its messages follow here')
        self.assertRegex(shown[0], r"^\[OPC-0133\] Starting log '.*'\.\.\.$")
        self.assertEqual(shown[1], '[OPC-0100] Command Line:  /INVISIBLE')
        self.assertEqual(shown[1:], [line.split(' ', 1)[1] for line in self.site.log()])

        os.rename(self.site.logs, self.site.path('logs before'))
        self.site.write('logs', 'in the way')
        for arguments in ((), ('visible',)):
            self.site.start(*arguments)
            self.site.wait_error('startup complete')
            self.assertIn('cannot be written: Not a directory', self.site.errors())
            self.assertEqual(self.site.errors().count('startup complete'), 1)
            self.assert_serves()('close')
            self.site.terminate()
            self.site.exit_code(20)
        self.assertEqual(self.site.read('logs'), 'in the way')


if __name__ == '__main__':
    unittest.main()
