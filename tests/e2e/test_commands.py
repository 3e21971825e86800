"""The operator tool and the demo I/O server: commands go as records through the database, and what comes back."""

import csv
import glob
import json
import os
import pty
import subprocess
import unittest

from harness import ROOT, SiteTest, program, wait_for

DONE, FAILED, USAGE, SITE_TROUBLE, TIMED_OUT = 0, 1, 2, 3, 4
SUCCESS = '<Success>1</Success>'
STILL_PENDING = 'RefreshSelectedChannels called while another request is still pending. This request will be ignored. '


class Commands(SiteTest):
    def setUp(self):
        super().setUp()
        self.database = ('--database', self.site.path('realtime.db'))

    def start_io_server(self, *options, **streams):
        self.io_server = subprocess.Popen([program('DemoIOServer'), *self.database, '--period', '100', *options],
                                          **streams)
        self.addCleanup(self.stop_io_server)
        wait_for('heartbeat of the I/O server', lambda: self.query(
            "SELECT 1 FROM CurrentIO WHERE IOID = 'IOS6.AllCommsOk' AND TStamp > '2026-11-16 09:00'"))

    def stop_io_server(self):
        self.io_server.terminate()
        self.io_server.wait()

    def query(self, sql):
        connection = self.site.database()
        try:
            return connection.execute(sql).fetchall()
        finally:
            connection.close()

    def records(self):
        return self.query('SELECT SiteID, Type, Data, Description, State, Response FROM Message ORDER BY ID')

    def wait_carried_out(self):
        wait_for('carried out', lambda: all(record[4] == 'DONE' for record in self.records()))

    def environment(self):
        return {**os.environ, 'QUELM_INI': self.site.path('Quelm.ini'), 'LC_ALL': 'de_DE.UTF-8'}

    def iosctl(self, *arguments, code=DONE, lines=()):
        """Runs the tool without a terminal; its standard output and standard error, as lists of lines."""
        result = subprocess.run([program('iosctl'), *arguments], capture_output=True, text=True, timeout=60,
                                input=''.join(line + '\n' for line in lines), env=self.environment())
        self.assertEqual(result.returncode, code, result.stdout + result.stderr)
        return result.stdout.splitlines(), result.stderr.splitlines()

    def as_json(self, *arguments, **options):
        (line,), _ = self.iosctl('--json', *arguments, **options)
        return json.loads(line)

    def answer_question(self, answer):
        """Has the tool ask at a terminal of its own; its exit code and what stood on standard error."""
        operator, terminal = pty.openpty()
        process = subprocess.Popen([program('iosctl'), 'write', '302', '0'], stdin=terminal, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE, text=True, env=self.environment())
        os.close(terminal)
        os.write(operator, answer.encode() + b'\n')
        _, errors = process.communicate(timeout=60)
        os.close(operator)
        return process.returncode, errors


class Writes(Commands):
    def test_a_written_value_reaches_the_opc_client(self):
        self.start_io_server()
        self.site.start().started()
        client = self.client(items=['North.Stack1.NOx.Raw', 'North.Stack2.Flow'])
        self.assertEqual(self.iosctl('write', '101', '987.25', '--yes', '--requestor', 'Shift 2'),
                         (["Command left for the I/O server: channel 101 (NOx analyser) to '987.25'"], []))
        self.iosctl('write', 'C301', '-12', '--yes', '--priority', '--frequent', '--require-aoe')
        wait_for('new values at the client', lambda: [(r['value'], r['quality']) for r in client('read')['items']] ==
                 [(987.25, 0xC0), (-12, 0xC0)], 45)
        host = os.uname().nodename
        user = subprocess.run(['id', '-un'], capture_output=True, text=True, check=True).stdout.strip()
        self.assertEqual(self.records(), [
            ('NORTH', 'Q5IOCOMMAND', '<Command action="WriteToChannel" id="C101" value="987.25" />',
             f'Shift 2 >> C101; iosctl on {host}', 'DONE', SUCCESS),
            ('NORTH', 'Q6IOCOMMAND', '<Command action="WriteToChannel" id="C301" value="-12"  priority="high"  hf="1"'
             '  requireAOE="1" />', f'iosctl {user} AOE >> C301; iosctl on {host}', 'DONE', SUCCESS)])

    def test_texts_booleans_and_nothing_arrive_as_they_were_given(self):
        self.start_io_server()
        for arguments, shown in ((('--type', 'text', 'Purging; 2'), 'Purging; 2'), (('--type', 'bool', 'true'), 1),
                                 (('--type', 'null'), None), (('1e-5',), 1e-05), (('2147483648',), 2147483648),
                                 (('--type', 'text', '--allow-empty', ' '), None)):
            with self.subTest(arguments=arguments):
                self.iosctl('write', '302', *arguments, '--yes')
                self.wait_carried_out()
                self.assertEqual(self.as_json('show', '302')['value'], shown)
        self.assertEqual({record[5] for record in self.records()}, {SUCCESS})
        # What breaks its command is sent as it is, and turned down.
        _, errors = self.iosctl('write', '302', '--type', 'text', 'a"<&', '--yes')
        self.assertIn('probably not understand', errors[0])
        self.wait_carried_out()
        record = self.records()[-1]
        self.assertEqual(record[2], '<Command action="WriteToChannel" id="C302" value="a"<&" />')
        self.assertEqual(record[5], '<Success>0</Success><Reason>the command is not well-formed</Reason>')

    def test_nothing_is_written_unasked_or_to_what_is_no_plain_channel(self):
        self.site.beat()
        self.assertEqual(self.iosctl('write', '401', '1', '--yes', '--requestor', 'Shift 2', code=FAILED), ([], [
            "iosctl: Error OPC-0147: Can't write to channel; writing to Q6 multivalue CSV channel is not allowed "
            '(ChannelID=401, Requestor=Shift 2)']))
        _, errors = self.iosctl('write', '302', '0', code=FAILED)
        self.assertIn('standard input is not a terminal', errors[0])
        self.iosctl('shell', lines=['write 302 0'], code=FAILED)
        for answer in ('n', '', 'maybe'):
            code, errors = self.answer_question(answer)
            self.assertEqual(code, FAILED)
            self.assertIn("This WRITES TO A FIELD DEVICE of site NORTH: channel 302 (Purge valve) to '0'", errors)
        self.assertEqual(self.records(), [])
        self.assertEqual(self.answer_question('y')[0], DONE)
        self.assertEqual([record[2] for record in self.records()],
                         ['<Command action="WriteToChannel" id="C302" value="0" />'])


class Refreshes(Commands):
    def test_a_selected_refresh_is_waited_for(self):
        self.start_io_server()
        answer = self.as_json('refresh', '202;203', '--wait', '20')
        self.assertEqual((answer['exitCode'], answer['outcome'], answer['messages']), (DONE, 'done', []))
        self.assertEqual(self.query('SELECT ID, Type, State FROM Message'), [(answer['record'], 'Q5IOCOMMAND', 'DONE')])
        self.assertEqual(self.query("SELECT IOID FROM CurrentIO WHERE IOID LIKE 'C20_' AND SiteID = 'NORTH' "
                                    "AND TStamp > '2026-11-16 09:00' ORDER BY IOID"), [('C202',), ('C203',)])
        _, errors = self.iosctl('--site', 'SOUTH', 'refresh', '99', '--wait', '20', code=FAILED)
        self.assertIn('<Success>0</Success><Reason>none of the channels is known</Reason>', errors[-1])

    def test_while_one_is_pending_a_second_one_is_refused(self):
        self.start_io_server('--misbehave', 'never-answer')
        output, errors = self.iosctl('shell', lines=[
            'refresh "101;102" --wait 1', '# the I/O server does not answer', 'refresh 103 --requestor "Shift 2"',
            'refresh 104 --requestor "Shift 3" --wait'], code=TIMED_OUT)
        self.assertEqual(output, [])
        self.assertIn('not done after 1 s; the request still stands', errors[0])
        self.assertEqual(errors[1:], [
            f'iosctl: Error OPC-0177: {STILL_PENDING}(Pending=101;102; New=103; NewRequestor=Shift 2)',
            f'iosctl: Error OPC-0177: {STILL_PENDING}(Pending=101;102; New=104; NewRequestor=Shift 3)'])
        self.assertEqual([(record[2], record[4]) for record in self.records()],
                         [('<Command action="RefreshSelectedChannels" value="101;102" />', '')])

    def test_broken_answers_and_lost_records_end_the_wait(self):
        for misbehaviour, words in (('broken-xml', 'not well-formed; the outcome is unknown'),
                                    ('delete-record', 'record is gone; the outcome is unknown')):
            with self.subTest(misbehaviour=misbehaviour):
                self.start_io_server('--misbehave', misbehaviour)
                output, errors = self.iosctl('shell', lines=['refresh 101 --wait 20', 'refresh 102 --wait 20'],
                                             code=FAILED)
                self.assertEqual(output, [])
                self.assertEqual([words in line for line in errors], [True, True], errors)
                self.stop_io_server()

    def test_refresh_all_asks_every_generation_in_use(self):
        self.start_io_server()
        self.assertEqual(self.as_json('refresh-all', '--requestor', 'Shift 2')['generations'], ['IOS5', 'IOS6'])
        self.assertEqual(self.as_json('refresh-all', '--site', 'SOUTH', '--requestor', '')['generations'], ['IOS6'])
        self.wait_carried_out()
        command = '<Command action="RefreshAllData" />'
        self.assertEqual(self.records(), [('NORTH', 'Q5IOCOMMAND', command, 'Shift 2', 'DONE', SUCCESS),
                                          ('NORTH', 'Q6IOCOMMAND', command, 'Shift 2', 'DONE', SUCCESS),
                                          ('SOUTH', 'Q6IOCOMMAND', command, '', 'DONE', SUCCESS)])


class Answers(Commands):
    def test_health_tells_living_from_silent_io_servers(self):
        health = self.as_json('health', code=FAILED)
        self.assertEqual([(g['name'], g['isUsed'], g['isPolling']) for g in health['generations']],
                         [('IOS5', True, False), ('IOS6', True, False)])
        lines, _ = self.iosctl('health', code=FAILED)
        self.assertEqual([': SILENT, no heartbeat within 45 s; ' in line for line in lines], [False, True, True], lines)
        self.assertEqual([m['text'][:38] for m in health['messages'] if m['type'] == 2],
                         ['Quelm I/O Server is not active; IOS5; ', 'Quelm I/O Server is not active; IOS6; '])
        self.assertIsNone(self.as_json('show', '101')['value'], 'of a silent I/O server')
        self.start_io_server()
        health = self.as_json('health')
        self.assertTrue(health['allDevicesArePolling'] and health['isInitialReadComplete'])
        lines, errors = self.iosctl('health')
        self.assertEqual([': all devices answer; ' in line for line in lines], [False, True, True], lines)
        self.assertEqual(errors, [])
        self.assertEqual([g['isUsed'] for g in self.as_json('health', '--site', 'SOUTH')['generations']], [False, True])

    def test_channels_and_lists_and_what_cannot_be_reached(self):
        self.site.beat()
        answer = self.as_json('show', '202')
        self.assertEqual([answer[key] for key in ('name', 'definitionType', 'definition', 'value')],
                         ['SO2 analyser, monitor code', 1, 'Q5 I/O channel', 0])
        self.assertEqual(self.iosctl('list', '401', '--blocks', '2', '--block-length', '10'),
                         (['7', '8', '9', '10', '11', '', '13'], []))
        self.assertEqual(self.as_json('list', '401')['values'], ['7', '8', '9'])
        self.assertIsNone(self.as_json('list', '401', '--blocks', '3', '--block-length', '10', code=FAILED)['values'])
        self.site.execute('realtime.db', "UPDATE CurrentIO SET XValue = '' WHERE IOID = 'MultiValueC411'")
        _, errors = self.iosctl('list', '411', '--pid', '1-001-0-01-01', code=FAILED)
        self.assertEqual(errors[0], "iosctl: Multi-value error OPC-0159: Can't process multi-value channel data; can't "
                                    'find XML data for channel 411 (PID=1-001-0-01-01)')
        self.iosctl('show', '999', code=FAILED)
        channels = self.as_json('channels')['channels']
        self.assertIn({'channel': 302, 'name': 'Purge valve', 'definitionType': 3, 'definition': 'Q6 I/O channel'}, channels)
        lines, _ = self.iosctl('channels')
        self.assertIn('       302  Q6 I/O channel             Purge valve', lines)
        self.assertEqual(len(lines), len(channels))
        self.iosctl('shell', lines=['health --frob', "write 'x"], code=USAGE)
        self.iosctl('health', '--site', 'WEST', code=SITE_TROUBLE)
        self.iosctl('health', '--ini', self.site.path('none.ini'), code=SITE_TROUBLE)
        self.site.execute('realtime.db', 'ALTER TABLE CurrentIO RENAME TO Gone')
        self.iosctl('show', '101', code=SITE_TROUBLE)
        os.remove(self.site.path('configuration.db'))
        self.iosctl('health', code=SITE_TROUBLE)


class OverPostgreSQL(Commands):
    def setUp(self):
        super().setUp()
        beside = subprocess.Popen([os.path.join(ROOT, 'scripts', 'with-postgres'), 'sh', '-c',
                                   'echo "$QUELM_POSTGRES"; exec cat'], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  text=True)
        self.addCleanup(beside.communicate)
        folder = beside.stdout.readline().strip()
        self.psql = f'host={folder} user=quelm dbname=postgres'
        subprocess.run([os.path.join(ROOT, 'scripts', 'load-schema'), self.psql], check=True)
        connection = f'Driver=PostgreSQL Unicode;Server={folder};Database=postgres;UID=quelm'
        self.site.edit('Quelm.ini', *((f'Driver=SQLite;Database={self.site.path(name)}', connection)
                                      for name in ('configuration.db', 'realtime.db')))
        self.database = ('--connection', connection)

    def query(self, sql):
        output = subprocess.run(['psql', '--no-psqlrc', '--csv', '--tuples-only', '--dbname', self.psql, '--command', sql],
                                capture_output=True, text=True, check=True).stdout
        return [tuple(row) for row in csv.reader(output.splitlines())]

    test_texts = Writes.test_texts_booleans_and_nothing_arrive_as_they_were_given
    test_refresh = Refreshes.test_refresh_all_asks_every_generation_in_use

    def test_the_io_server_outlives_its_connections(self):
        def said():
            return self.site.read('said.txt').splitlines()
        with open(self.site.path('said.txt'), 'w') as file:
            self.start_io_server(stderr=file)
        for outage in (1, 2):
            self.query("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE backend_type = 'client backend' "
                       'AND pid <> pg_backend_pid()')
            wait_for('a line about the outage and one about its end', lambda: len(said()) == 2 * outage)
        self.assertEqual([line == 'DemoIOServer: the database is back' for line in said()], [False, True] * 2, said())
        self.iosctl('refresh', '202', '--wait', '20')
        # The driver, as Debian sets it up, would leave a file for each process.
        self.stop_io_server()
        self.assertEqual(glob.glob(f'/tmp/psqlodbc_*{self.io_server.pid}.log'), [])


if __name__ == '__main__':
    unittest.main()
