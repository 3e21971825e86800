"""The server as a service: started by its first client on sockets of the service manager, registered, packaged."""

import fcntl
import glob
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest
from pathlib import Path

import harness
from harness import ROOT, SiteTest

# Gives its process the sockets as descriptors 3 and up, as a service manager does.
HANDOVER = ['bash', '-c', 'n=3; for d in $DESCRIPTORS; do eval "exec $n<&$d"; n=$((n+1)); done; '
            'LISTEN_PID=${FOREIGN_PID:-$$} exec "$@"', 'handover']
OBJECTS, SERVICE, ACTIVATION = UNITS = ['quelm-opc-server-objects.socket', 'quelm-opc-server.service',
                                        'quelm-opc-server.socket']
SETTINGS = [f'{unit}.d/settings.conf' for unit in UNITS]


class Activation(SiteTest):
    def setUp(self):
        super().setUp()
        self.sockets = [socket.create_server((self.site.address, port)) for port in (135, 49200)]
        # Out of the way of 3 and up.
        self.descriptors = [fcntl.fcntl(one, fcntl.F_DUPFD, 40) for one in self.sockets]
        for one, descriptor in zip(self.sockets, self.descriptors):
            self.addCleanup(one.close)
            self.addCleanup(os.close, descriptor)
        self.site.write('stderr.txt', '')
        status = os.stat(self.site.path('stderr.txt'))
        self.news = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.news.close)
        self.news.bind(self.site.path('notify'))
        self.news.settimeout(30)
        self.environment = {'JOURNAL_STREAM': f'{status.st_dev}:{status.st_ino}'}

    def hand_over(self, descriptors, names='activation:object', **environment):
        return self.site.start(prefix=HANDOVER, descriptors=descriptors, environment={
            'DESCRIPTORS': ' '.join(map(str, descriptors)), 'LISTEN_FDS': str(len(descriptors)),
            'LISTEN_FDNAMES': names, **self.environment, **environment})

    def test_a_client_starts_it_again_and_again_and_it_tells_of_itself(self):
        news = self.news
        for _ in range(2):
            # The client is there before the server.
            connected = socket.create_connection((self.site.address, 135))
            self.hand_over(self.descriptors, NOTIFY_SOCKET=self.site.path('notify'))
            self.assertIn('activation on port 135, objects on port 49200', news.recv(4096).decode())
            self.assertEqual(news.recv(4096), b'READY=1')
            self.assertRegex(self.site.errors(), r'(?m)^<6>Q5OPCServer: OPC clients are served on ')
            connected.close()
            client = self.assert_serves()
            self.site.process.send_signal(signal.SIGHUP)  # nothing
            self.assertEqual(client('status')['state'], 1)
            client('close')
            self.assertEqual(self.site.exit_code(), 0)
            self.assertEqual(news.recv(4096), b'STOPPING=1')
            for one in self.sockets:  # neither closed nor shut down for the next start
                self.assertEqual(one.getsockopt(socket.SOL_SOCKET, socket.SO_ACCEPTCONN), 1)

    def test_a_stop_ends_in_order_and_a_broken_configuration_is_a_failure(self):
        notify = {'NOTIFY_SOCKET': self.site.path('notify'), 'QUELM_STOP_WAIT': '1'}
        self.site.edit('dcom.conf', (f'Address = {self.site.address}', 'Address = 10.1.2.3'))
        self.hand_over(self.descriptors, **notify).started()
        self.assertIn(f'not those of the settings: clients are served on {self.site.address}: activation on port 135, '
                      'objects on port 49200, and the settings ask for 10.1.2.3: ', self.site.errors())
        client = self.assert_serves()
        self.site.terminate()
        self.site.wait_log('[OPC-0110]')
        self.assertEqual(client('status')['state'], 1)
        self.assertEqual(self.site.exit_code(5), 0)
        # A tick may fall in between.
        codes = [line.split('] ')[0][-4:] for line in self.site.log() if not re.search('OPC-01(27|83|84)', line)]
        self.assertEqual(codes[-8:],
                         ['0109', '0110', '0113', '0114', 'gone', '0109', '0111', '0134'])
        came, went = self.site.logged('Notice OPC client 127.')
        self.assertRegex(came, r":\d+ \(account 'DEMO\\operator', level privacy\) is here$")
        self.assertEqual(went, came.replace('is here', 'is gone'))

        self.site.edit('Quelm.ini', (';Database=', ';Base='))
        self.hand_over(self.descriptors, **notify)
        self.assertEqual(self.site.exit_code(10), 1)
        self.news.setblocking(False)
        told = b''
        with self.assertRaises(BlockingIOError):
            while True:
                told = self.news.recv(4096)
        self.assertTrue(told.startswith(b'STATUS=Cannot serve anybody'), told)

    def test_wrong_sockets_are_refused_with_the_reason(self):
        with socket.socket() as plain:
            idle = fcntl.fcntl(plain, fcntl.F_DUPFD, 40)
        self.addCleanup(os.close, idle)
        both = self.descriptors
        for given, environment, reason in (
                (both, {'names': 'activation:printer'}, 'descriptor 4 is named "printer"'),
                (both, {'names': ''}, 'descriptor 3 is named ""'),
                (both[:1], {'names': 'activation'}, 'there is none named "object"'),
                ([both[0], idle], {}, 'descriptor 4, named "object", is not a listening TCP socket'),
                (both, {'LISTEN_FDS': 'many'}, 'LISTEN_FDS = "many" is no number of sockets')):
            with self.subTest(reason):
                self.hand_over(given, **environment)
                self.assertEqual(self.site.exit_code(10), 1)
                self.assertIn('<3>Q5OPCServer: 5, The sockets handed over at start cannot be used: ' + reason,
                              self.site.errors())
        # Those that are meant for another process are left alone.
        self.hand_over(both, FOREIGN_PID='1')
        self.assertEqual(self.site.exit_code(10), 1)
        self.assertIn('address already in use', self.site.errors())


class Registration(SiteTest):
    def setUp(self):
        super().setUp()
        # Where the service sees it, wherever the tests run.
        self.program = self.site.path('dest/usr/sbin/Q5OPCServer')
        os.makedirs(os.path.dirname(self.program))
        shutil.copy(harness.SERVER, self.program)

    def run_server(self, switch, **environment):
        return subprocess.run([self.program, switch], capture_output=True, text=True, timeout=30, env={
            **os.environ, 'QUELM_INI': self.site.path('Quelm.ini'), 'QUELM_DCOM_CONF': self.site.path('dcom.conf'),
            'QUELM_DESTDIR': self.site.path('dest'), **environment})

    def written(self):
        top = Path(self.site.path('dest/etc/systemd/system'))
        return {str(path.relative_to(top)): path.read_text() for path in top.rglob('*') if path.is_file()}

    def test_units_follow_the_settings_and_go_again(self):
        self.assertEqual(self.run_server('regserver').returncode, 0)
        first = self.written()
        self.assertEqual(sorted(first), sorted(UNITS + SETTINGS))
        self.assertEqual(self.run_server('/RegServer').returncode, 0)
        self.assertEqual(self.written(), first)
        for unit, port in ((ACTIVATION, 135), (OBJECTS, 49200)):
            self.assertTrue(first[f'{unit}.d/settings.conf'].endswith(
                f'[Socket]\nListenStream=\nListenStream={self.site.address}:{port}\n'))
        self.assertIn(f'ReadWritePaths="-{self.site.folder}/logs"\n', first[f'{SERVICE}.d/settings.conf'])
        self.assertNotIn('ExecStart', first[f'{SERVICE}.d/settings.conf'])
        self.site.edit('dcom.conf', ('FirstPing', 'KeepRunning = yes\nFirstPing'))
        self.assertEqual(self.run_server('regserver').returncode, 0)
        self.assertEqual({name for name, text in self.written().items() if text != first[name]},
                         {f'{ACTIVATION}.d/settings.conf', f'{OBJECTS}.d/settings.conf'})
        self.assertIn(f'[Unit]\nWants={SERVICE}\n[Socket]\n', self.written()[f'{ACTIVATION}.d/settings.conf'])
        if shutil.which('systemd-analyze'):
            self.site.write(f'dest/etc/systemd/system/{SERVICE}.d/there.conf', '[Service]\nExecStart=\nExecStart=/bin/true\n')
            verified = subprocess.run(['systemd-analyze', 'verify', '--man=no', *(
                self.site.path('dest/etc/systemd/system', unit) for unit in UNITS)], capture_output=True, text=True)
            self.assertEqual((verified.returncode, verified.stderr), (0, ''))
            os.remove(self.site.path(f'dest/etc/systemd/system/{SERVICE}.d/there.conf'))
        # Once the package is there, its units count.
        shutil.copytree(os.path.join(ROOT, 'packaging', 'systemd'), self.site.path('dest/usr/lib/systemd/system'))
        self.assertEqual(self.run_server('regserver').returncode, 0)
        self.assertEqual(sorted(self.written()), SETTINGS)
        for said in ('Unregistered: ', 'Nothing to unregister'):
            ended = self.run_server('unregserver')
            self.assertEqual(ended.returncode, 0)
            self.assertIn(said, ended.stderr)
        self.assertEqual(self.written(), {})
        self.assertFalse(os.path.exists(self.site.path('logs')))

    def test_what_cannot_be_done_is_said_and_fails(self):
        self.site.write('dest/etc', '')
        failed = self.run_server('regserver')
        self.assertEqual(failed.returncode, 1)
        self.assertIn('Not a directory', failed.stderr)
        os.remove(self.site.path('dest/etc'))
        self.site.edit('dcom.conf', ('ObjectPort = 49200', 'ObjectPort = 0'))
        failed = self.run_server('regserver')
        self.assertEqual((failed.returncode, self.written()), (1, {}))
        self.assertIn('ObjectPort must be', failed.stderr)
        hidden = self.site.path('dest/home/Q5OPCServer')
        os.makedirs(os.path.dirname(hidden))
        self.program = shutil.move(self.program, hidden)
        failed = self.run_server('regserver')
        self.assertEqual((failed.returncode, self.written()), (1, {}))
        self.assertIn('The service cannot see the program /home/Q5OPCServer', failed.stderr)


@unittest.skipUnless(os.geteuid() == 0 and shutil.which('dpkg-shlibdeps') and shutil.which('systemd-sysusers'),
                     'needs root, dpkg-dev and systemd')
class Package(SiteTest):
    def test_installs_serves_and_is_purged_without_a_trace(self):
        folder = tempfile.mkdtemp(prefix='quelm-package-')
        self.addCleanup(shutil.rmtree, folder, True)
        scratch = os.path.join(ROOT, 'packaging', 'scratch-install')

        def run(*command):
            done = subprocess.run(command, capture_output=True, text=True, timeout=300)
            self.assertEqual(done.returncode, 0, done.stderr)
            return done.stdout

        package = run(os.path.join(ROOT, 'scripts', 'package'), '--programs', os.path.dirname(harness.SERVER)).strip()
        run(scratch, 'install', folder, os.path.join(ROOT, package))
        self.assertEqual(os.stat(f'{folder}/etc/quelm/dcom.conf').st_mode & 0o777, 0o600)
        self.assertEqual(sorted(os.listdir(f'{folder}/etc/systemd/system')),
                         sorted([f'{unit}.d' for unit in UNITS] + ['sockets.target.wants']))
        self.assertEqual(sorted(os.listdir(f'{folder}/etc/systemd/system/sockets.target.wants')), [OBJECTS, ACTIVATION])
        installed = f'{folder}/usr/sbin/Q5OPCServer'
        self.site.start(prefix=['sh', '-c', f'exec {installed}']).started()
        self.assert_serves()('close')
        self.assertEqual(self.site.exit_code(), 0)
        run(scratch, 'purge', folder)
        self.assertEqual([name for _, _, names in os.walk(folder) for name in names if 'uelm' in name or 'OPC' in name],
                         [])
        # Databases may be left behind, and belong to the user.
        self.assertIn('quelm:', Path(folder, 'etc', 'passwd').read_text())


class Guide(unittest.TestCase):
    def test_explains_every_message_code(self):
        codes = {code for path in Path(ROOT, 'src').rglob('*.cpp')
                 for code in re.findall(r'(?:OPC|XMLDOM)-\d{4}', path.read_text())}
        explained = set()
        guide = Path(ROOT, 'docs', 'operators-guide.md').read_text()
        for kind, numbers in re.findall(r'(?m)^\| (OPC|XMLDOM)-([^|]*)', guide):
            meant = [int(number) for number in re.findall(r'\d{4}', numbers)]
            if ' to ' in numbers:
                meant = range(meant[0], meant[1] + 1)
            explained |= {f'{kind}-{number:04}' for number in meant}
        self.assertGreater(len(codes), 100)
        self.assertEqual(codes - explained, set())


if __name__ == '__main__':
    unittest.main()
