"""The client for the command line against the real server: what it says to people and to programs, how it ends, and that
its check finds the server to be as OPC DA asks."""

import collections
import csv
import itertools
import json
import os
import pty
import shutil
import signal
import subprocess
import time
import unittest
import xml.etree.ElementTree
from concurrent.futures import ThreadPoolExecutor

from harness import ROOT, SiteTest, program, wait_for
from plant import DATE, EXPECTED, precise

GOOD, ITEM_FAILED, USAGE, NOT_REACHED, REFUSED, INTERRUPTED = 0, 1, 2, 3, 4, 130
USER = ('-U', 'DEMO\\operator')
NOX = 'North.Stack1.NOx'
NAMED = (134, 135, 136)  # cases for which the server is stopped
TYPES = {2: 'VT_I2', 3: 'VT_I4', 4: 'VT_R4', 7: 'VT_DATE', 8: 'VT_BSTR', 11: 'VT_BOOL'}


class OpcDa(SiteTest):
    def environment(self, **more):
        return {**os.environ, 'OPCDA_PASSWORD': 'stack-7', 'TERM': 'xterm', **more}

    def opcda(self, command, *arguments, code=GOOD, user=USER, host=None, **environment):
        """Standard output and standard error."""
        result = subprocess.run([program('opcda'), command, host or self.site.address, *user, *arguments],
                                stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=200,
                                start_new_session=True, env=self.environment(**environment))
        self.assertIn(result.returncode, code if isinstance(code, tuple) else (code,), result.stderr + result.stdout[-2000:])
        return result.stdout, result.stderr

    def json(self, *arguments, **options):
        return json.loads(self.opcda(*arguments, '--json', **options)[0])

    def begin(self, *arguments, **streams):
        process = subprocess.Popen([program('opcda'), *arguments], env=self.environment(), **streams)
        self.addCleanup(process.kill)
        return process

    def test_each_command_says_what_the_server_has(self):
        self.site.start().started()
        self.site.wait_pass()
        server, = self.json('discover')['servers']
        self.assertEqual((server['progId'], server['versions']), ('Ombrel.QuelmOPCServer.5', '1.0, 2.0, 3.0'))
        for where in ((), ('--server', 'ombrel.quelmopcserver.5'), ('--server', server['classId'])):
            status = self.json('status', *where)
            self.assertEqual((status['state'], status['speaks'], status['groups']), ('running', 'OPC DA 3.0', 0))
        elements = self.json('browse')['elements']
        self.assertEqual({e['item'] for e in elements if e['isItem']}, set(EXPECTED))
        self.assertEqual([e['name'] for e in elements if e['level'] == 0], ['North', 'South'])
        flat, _ = self.opcda('browse', '--flat', '--filter', 'NO?')
        self.assertEqual(flat.split(), ['North.Stack1.NOx', 'South.Boiler.NOx'])
        readings = {}
        for level, how in (('integrity', '--device'), ('privacy', '--max-age=60000'), ('privacy', '')):
            readings = {r['item']: r for r in self.json('read', *EXPECTED, *filter(None, [how]), '--level', level,
                                                        code=ITEM_FAILED)['items']}
            self.assertEqual([(name, r['quality']) for name, r in readings.items()],
                             [(name, quality) for name, (_, _, quality) in EXPECTED.items()])
            for name, (kind, value, _) in EXPECTED.items():
                if value is not None:
                    self.assertEqual(readings[name]['type'], TYPES[kind])
                    self.assertEqual(0 if kind == DATE else precise(kind, readings[name]['value']),
                                     0 if kind == DATE else precise(kind, value))
        table = list(csv.DictReader(self.opcda('read', NOX, '--csv')[0].splitlines()))
        self.assertEqual([(r['item'], r['value'], r['qualityText']) for r in table], [(NOX, '182.4', 'good')])
        properties = self.json('properties', NOX)['properties']
        self.assertEqual([p['id'] for p in properties], [1, 2, 3, 4, 5, 6, 7, 101, 5000, 5003, 5004])
        self.assertEqual(self.json('groups'), {'groupCount': 0, 'groups': []})
        bench = self.json('bench', NOX, '--seconds', '1')
        self.assertGreater(bench['reads'], 100)
        self.assertLessEqual(bench['latencyMicroseconds']['p50'], bench['latencyMicroseconds']['max'])

    def test_scripts_are_told_what_went_wrong_and_people_what_to_do_about_it(self):
        self.site.start().started()
        items, secret, bare = (self.site.path(name) for name in ('items.txt', 'secret', 'open'))
        self.site.write('items.txt', '# two items\n\n North.Stack1.NOx\r\nno.such\n')
        self.site.write('secret', 'stack-7\n')
        self.site.write('open', 'stack-7\n')
        os.chmod(secret, 0o600)
        os.chmod(bare, 0o640)
        for code, words, arguments, options in (
                (ITEM_FAILED, '', ('read', '--items', items, '--password-file', secret), {'OPCDA_PASSWORD': 'wrong'}),
                (USAGE, 'chmod 600', ('status', '--password-file', bare), {}),
                (USAGE, 'not expected', ('reed', NOX), {}),
                (USAGE, 'exclude', ('status', '--json', '--csv'), {}),
                (USAGE, 'whole number', ('watch', NOX, '--rate', 'fast'), {}),
                (USAGE, 'at least one ITEM', ('read',), {}),
                (USAGE, '/no/such/file', ('read', '--items', '/no/such/file'), {}),
                (USAGE, '', ('status', '--password', 'stack-7'), {}),
                (REFUSED, 'refused the log-on', ('status',), {'OPCDA_PASSWORD': 'wrong'}),
                (REFUSED, '-U DOMAIN', ('discover',), {'user': ()}),
                (NOT_REACHED, 'Ombrel.QuelmOPCServer.5', ('status', '--server', 'No.Such.Server'), {}),
                (NOT_REACHED, 'nobody listens', ('status',), {'host': f'{self.site.address}:136'}),
                (NOT_REACHED, 'no.such.host', ('status',), {'host': 'no.such.host.invalid'})):
            with self.subTest(arguments=arguments, options=options):
                output, errors = self.opcda(*arguments, code=code, **options)
                self.assertIn(words, errors)
                self.assertEqual('' if code != ITEM_FAILED else output, output)
                self.assertNotIn('stack-7', output + errors)

    def test_values_are_watched_by_callbacks_or_else_by_asking_and_ctrl_c_leaves_nothing_behind(self):
        self.site.start().started()
        self.site.wait_pass()
        for how, words in (((), 'the server calls'), (('--poll',), 'Asking')):
            process = self.begin('watch', self.site.address, *USER, NOX, 'no.such', '--json', *how, text=True,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            lines = [json.loads(process.stdout.readline()) for _ in range(2)]
            self.assertEqual({r['item']: r['error'] for r in lines}, {NOX: None, 'no.such': 'OPC_E_UNKNOWNITEMID'})
            process.send_signal(signal.SIGINT)
            _, errors = process.communicate(timeout=20)
            self.assertIn(words, errors)
            self.assertEqual(process.returncode, INTERRUPTED)
        self.assertEqual(self.site.exit_code(20), 0, 'who lets go of everything does not keep the server')

    def test_where_the_server_cannot_call_the_values_are_asked_for(self):
        self.site.edit('dcom.conf', ('Account = DEMO', '; Account = DEMO'))
        self.site.start().started()
        self.site.wait_pass()
        output, errors = self.opcda('watch', NOX, '--seconds', '12', '--csv')
        self.assertEqual([line.split(',')[0] for line in output.splitlines()][:2], ['item', NOX])
        self.assertRegex(errors, r'Subscribed: the server calls [0-9.]+:[0-9]+ ')
        self.assertRegex(errors, r'Asking every 1000 ms: .*:[0-9]+')

    def test_a_terminal_shows_a_table_that_renews_itself(self):
        self.site.start().started()
        self.site.wait_pass()
        terminal, end = pty.openpty()
        process = self.begin('watch', self.site.address, *USER, NOX, '--plot', stdin=end, stdout=end, stderr=end)
        os.close(end)
        shown = b''
        deadline = time.monotonic() + 30
        while shown.count(b'\xe2\x96\x81') < 2 and time.monotonic() < deadline:
            shown += os.read(terminal, 65536)
        process.send_signal(signal.SIGINT)
        wait_for('its end', lambda: process.poll() is not None)
        self.assertEqual(process.returncode, INTERRUPTED)
        for word in ('Trend', NOX, '182.4', '\033[32mgood', '\033[3A'):
            self.assertIn(word, shown.decode())

    def checked(self, first, end, *more):
        """What came of the cases from one number until another."""
        numbers = [str(case) for case in range(first, end) if case not in NAMED]
        result, errors = self.opcda('check', '--case', ','.join(numbers), '--json', *more, code=(GOOD, 1))
        self.assertTrue(result, errors)
        return json.loads(result)['cases']

    def test_the_server_is_as_opc_da_asks(self):
        self.site.start().started()
        self.site.wait_pass()
        junit = self.site.path('junit.xml')
        # Half of the time is spent waiting for what comes or must not come, so several run side by side.
        parts = ((121, 122), (122, 127), (200, 201), (127, 133), (111, 121), (89, 111), (133, 171), (171, 182), (1, 89), (182, 200))
        with self.site.changing(), ThreadPoolExecutor(5) as pool:
            first = pool.submit(self.checked, *parts[0], '--junit', junit)
            others = list(pool.map(lambda part: self.checked(*part, '--writes', '--item', NOX), parts[1:]))
        cases = [*first.result(), *itertools.chain(*others)]
        self.assertEqual(sorted(case['number'] for case in cases), [n for n in range(1, 201) if n not in NAMED])
        self.assertEqual([c for c in cases if c['verdict'] not in ('passed', 'tolerated')], [],
                         'the demo plant has what every case needs')
        root = xml.etree.ElementTree.parse(junit).getroot()
        self.assertEqual([(s.get('tests'), s.get('failures')) for s in root], [(str(len(first.result())), '0')])
        text, _ = self.opcda('check', '--case', '12,29', '--case', '150', '--verbose')
        self.assertEqual(text.splitlines()[-2:], ['DA 2.05a: 2 of 2', 'DA 3.0: 1 of 1'])

    @unittest.skipUnless(shutil.which('tshark'), 'tshark is not installed')
    def test_a_third_party_finds_nothing_wrong_with_the_packets(self):
        self.site.start().started()
        self.site.wait_pass()
        capture = self.site.path('session.pcapng')
        recorder = subprocess.Popen(['dumpcap', '-q', '-i', 'lo', '-w', capture,
                                     '-f', f'host {self.site.address} or tcp port 20999'], stderr=subprocess.DEVNULL)
        self.addCleanup(recorder.kill)
        wait_for('a capture', lambda: os.path.exists(capture) and os.path.getsize(capture))
        for level in ('integrity', 'privacy'):
            options = ('--level', level, '--callback', '127.0.0.1:20999')
            self.opcda('browse', *options)
            self.opcda('properties', NOX, *options)
            self.opcda('watch', NOX, '--seconds', '3', *options)
            self.opcda('check', '--case', ','.join(map(str, (*range(1, 89), 90, 91, 99, 111, *range(137, 171)))), *options)
        recorder.send_signal(signal.SIGINT)
        recorder.wait(20)

        def dissected(which, *fields):
            return subprocess.run(['tshark', '-r', capture, '-Y', which, '-T', 'fields',
                                   *(part for field in fields for part in ('-e', field))],
                                  check=True, capture_output=True, text=True).stdout.splitlines()
        self.assertEqual(dissected('_ws.malformed || _ws.expert.severity == 8388608', 'frame.number', '_ws.expert.message',
                                   'dcerpc.opnum', '_ws.col.Info'), [])
        pieces = (zip(*(field.split(',') for field in line.split('\t')), strict=True)
                  for line in dissected('dcerpc', 'dcerpc.pkt_type', 'dcerpc.cn_flags'))
        last = 2
        kinds = collections.Counter(kind for kind, flags in itertools.chain(*pieces) if int(flags, 16) & last)
        self.assertGreater(kinds['0'], 1000)
        # A program that ends leaves the call unanswered that the server is just making.
        self.assertIn(kinds['0'] - kinds['2'] - kinds['3'], range(4), 'each request has an answer')

    def test_a_server_that_is_stopped_says_goodbye(self):
        self.site.start().started()
        checks = [self.begin('check', self.site.address, *USER, '--json', '--case', str(case), text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE) for case in NAMED]
        for check in checks:
            self.assertIn('stop the server', check.stderr.readline())
        self.site.terminate()
        for check in checks:
            output, errors = check.communicate(timeout=60)
            case, = json.loads(output)['cases']
            self.assertEqual((case['verdict'], check.returncode), ('passed', GOOD), output + errors)


if __name__ == '__main__':
    unittest.main()
