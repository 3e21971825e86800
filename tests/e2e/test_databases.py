"""Databases that are away, locked, incomplete or full of wrong values: what stands beside the damage stays unharmed."""

import os
import shutil
import unittest

from harness import SiteTest
from plant import BOOL, BSTR, DATE, EXPECTED, I4, R4

NORTH = {name: value for name, value in EXPECTED.items() if name.startswith('North.')}
SOUTH = {name: value for name, value in EXPECTED.items() if name.startswith('South.')}
PARAMETERS = [name for name in EXPECTED if name.startswith(('North.Stack1.', 'South.Boiler.NOx')) and name.rpartition(
    '.')[2] not in ('Raw', 'Opacity', 'Temperature', 'Moisture')]


class Databases(SiteTest):
    def give(self, away, back):
        os.rename(self.site.path(away), self.site.path(back))

    def separate_files(self, *names):
        """Gives the sites of these names databases of their own."""
        folder = self.site.folder
        ini = f'[System]\nLogFolder = {folder}/logs\n'
        for name in names:
            for database in ('configuration.db', 'realtime.db'):
                shutil.copy(f'{folder}/{database}', f'{folder}/{name}-{database}')
            number = '1\nDefault = yes' if name == 'NORTH' else '2'
            ini += (f'[DAHS.{name}]\nSiteID = {name}\nDAHSID = {number}\n'
                    f'Connection1 = Driver=SQLite;Database={folder}/{name}-configuration.db\n'
                    f'Connection2 = Driver=SQLite;Database={folder}/{name}-realtime.db\n')
        self.site.write('Quelm.ini', ini)

    def started_client(self, *realtime):
        """A client of all items of the server, which is started on the databases of these names."""
        self.site.start(beat=realtime).started()
        return self.client(items=EXPECTED)


class Away(Databases):
    def test_away_at_start_the_server_waits_and_then_serves(self):
        self.give('realtime.db', 'away.db')
        self.site.start(beat=())
        before = self.site.wait_log('[OPC-0226]')
        log = self.site.log()
        self.assertEqual(log[log.index('Information [OPC-0223] Testing database connections...'):],
                         ['Information [OPC-0223] Testing database connections...',
                          f"Error The database Driver=SQLite;Database={self.site.path('realtime.db')} does not answer: "
                          f"14, unable to open database file '{self.site.path('realtime.db')}': No such file or directory",
                          'Error [OPC-0224] Could not successfully test database connection(s)',
                          'Information [OPC-0225] Testing database connections...',
                          'Error [OPC-0226] Could not successfully test database connection(s)'])
        for site in ('NORTH', 'SOUTH'):
            connection = f"Driver=SQLite;Database={self.site.path('realtime.db')}"
            self.assertIn(f"Site '{site}': connection 2 ({connection}) failed: ", self.site.errors())
        self.assertIn('No such file or directory', self.site.errors())
        self.assertFalse(os.path.exists(self.site.path('realtime.db')), 'a database was made')
        self.give('away.db', 'realtime.db')
        self.site.beat()
        self.site.wait_log('[OPC-0108]', before)
        codes = [line.split('[OPC-')[1][:4] for line in self.site.log()[before:] if '[OPC-' in line]
        self.assertEqual(codes[:6], ['0225', '0104', '0212', '0213', '0214', '0215'])
        self.assertEqual(codes[-4:], ['0105', '0106', '0107', '0108'])
        self.assertEqual(len(self.site.logged('does not answer: ')), 1)
        self.assertEqual(len(self.site.logged('answers again')), 1)
        self.assertIn('answers again', self.site.errors())
        client = self.client(items=EXPECTED)
        self.site.beat()
        self.site.wait_pass()
        self.assert_values(client, EXPECTED)
        self.assertEqual(len(self.site.logged('[OPC-0225]')), 2)

    def test_away_while_running_values_stay_for_two_ticks_then_turn_bad_and_come_back(self):
        client = self.started_client('realtime.db')
        at = self.site.wait_pass()
        good = self.assert_values(client, EXPECTED)
        self.give('realtime.db', 'away.db')

        channels = {name: value for name, value in EXPECTED.items() if name not in PARAMETERS}
        for _ in range(2):
            at = self.site.wait_log('[OPC-0127]', self.site.wait_log('OPC-0192: ', at))
            later = self.assert_values(client, channels)
            self.assertGreater(later['South.Boiler.Steam']['filetime'], good['South.Boiler.Steam']['filetime'])
        self.assertEqual(self.site.logged('[OPC-0185]'), [])

        at = self.site.wait_log('[OPC-0127]', self.site.wait_log('[OPC-0185]', at))
        self.assertRegex(self.site.logged('[OPC-0185]')[0],
                         r'Quelm I/O Server is not active; IOS5; Elapsed=60; TStamp=.*; AllCommsOk=1 \[OPC-0185\]$')
        nothing = {R4: 0.0, I4: 0, BOOL: False, BSTR: '0', DATE: 36526.0}
        self.assert_values(client, {name: (kind, None if name in PARAMETERS else nothing[kind], 0)
                                    for name, (kind, _, _) in EXPECTED.items()})
        self.assertEqual(len(self.site.logged('OPC-0192: ')), 6, 'three ticks of two sites')
        self.assertTrue(self.site.logged('the last values are too old and no longer published'))
        self.assertFalse(os.path.exists(self.site.path('realtime.db')), 'a database was made')

        self.give('away.db', 'realtime.db')
        self.site.beat()
        self.site.wait_pass(at)
        self.assert_values(client, EXPECTED)


class Incomplete(Databases):
    def test_each_site_pays_for_its_own_database_alone(self):
        # Sites like SOUTH whose databases lack one table each; their item names must differ for the items to be made.
        damaged = {'DEFS': 'Q5OPCDEF', 'PIDS': 'PIDDef', 'CHANNELS': 'IOChannelDef', 'VALUES': 'ParameterValue',
                   'SETTINGS': 'SiteSettings', 'NOTHING': None}
        self.separate_files('NORTH', *damaged)
        for name, table in damaged.items():
            script = f"UPDATE Q5OPCDEF SET Tagname = '{name}.' || Tagname;" + ''.join(
                f"UPDATE {each} SET SiteID = '{name}' WHERE SiteID = 'SOUTH';"
                for each in ('Q5OPCDEF', 'IOChannelDef', 'SiteSettings', 'CurrentIO', 'ParameterValue'))
            for database in ('configuration', 'realtime'):
                self.site.execute(f'{name}-{database}.db',
                                  script + (f'DROP TABLE {table}' if table else 'DELETE FROM Q5OPCDEF'))
        self.site.start(beat=[f'{name}-realtime.db' for name in ('NORTH', *damaged)]).started()
        client = self.client()
        served = {f'{site}.{name}': value for site in ('CHANNELS', 'VALUES') for name, value in SOUTH.items()}
        served.update(NORTH)
        self.assertEqual(sorted(client('browse')), sorted(served))
        client('watch', items=list(served))

        log = self.site.log()
        for name, following in (
                ('DEFS', ['Error [OPC-0116] Error: could not load OPC tag definitions']),
                *((name, [f'Information [OPC-0209] Loading DI for {name}...', 'no such table: ' + damaged[name],
                          f'Error [OPC-0210] Error loading DI; will not load OPC tag definitions for {name}',
                          'Error [OPC-0118] Error: could not create site data manager'])
                  for name in ('PIDS', 'SETTINGS')),
                ('NOTHING', ['Information [OPC-0117] No OPC tags are defined'])):
            at = log.index(f'Information [OPC-0115] Loading OPC tag definitions for {name}----------') + 1
            for expected, line in zip(following, log[at:]):
                self.assertTrue(line.endswith(expected), line)
        self.assertIn("Site 'DEFS': cannot read the OPC item definitions: 1, no such table: Q5OPCDEF",
                      self.site.errors())
        self.site.wait_pass()
        # Without parameter values there are none; without channel definitions channels are never stale.
        served['VALUES.South.Boiler.NOx'] = served['VALUES.South.Boiler.NOx.Budget'] = (R4, None, 0)
        self.assert_values(client, served)
        self.assertEqual(len(self.site.logged('Error OPC-0154: 1, no such table: IOChannelDef')), 1)
        self.assertTrue(self.site.logged("Cannot read the current parameter values of site 'VALUES'; 1, no such table"))

    def test_a_locked_database_and_a_missing_table_for_a_tick(self):
        self.separate_files('NORTH', 'SOUTH')
        connection = self.site.database('NORTH-realtime.db')
        self.assertEqual(connection.execute('PRAGMA journal_mode = DELETE').fetchone(), ('delete',))
        client = self.started_client('NORTH-realtime.db', 'SOUTH-realtime.db')
        at = self.site.wait_pass()
        self.assert_values(client, EXPECTED)
        reader = self.steady()

        connection.execute('BEGIN EXCLUSIVE')
        self.site.execute('SOUTH-realtime.db', 'ALTER TABLE CurrentIO RENAME TO Elsewhere')
        for text in ('OPC-0192: 5, database is locked', 'OPC-0192: 1, no such table: CurrentIO', '[OPC-0127]'):
            at = self.site.wait_log(text, at)
        self.assert_values(client, EXPECTED)
        # The plant waits for the locked database, and no client for the plant.
        self.assertLess(reader.longest_read(), 3)

        connection.rollback()
        connection.close()
        self.site.execute('NORTH-realtime.db', "UPDATE CurrentIO SET NValue = 99.5 WHERE IOID = 'C110'")
        self.site.execute('SOUTH-realtime.db', "ALTER TABLE Elsewhere RENAME TO CurrentIO;"
                          "UPDATE CurrentIO SET NValue = 77.5 WHERE IOID = 'C11'")
        for name in ('NORTH', 'SOUTH'):
            self.site.beat(f'{name}-realtime.db')
        self.site.wait_pass(at)
        self.assert_values(client, {**EXPECTED, 'North.Stack1.Moisture': (R4, 99.5, 0xC0),
                                    'South.Boiler.Steam': (R4, 77.5, 0xC0)})


# Definitions that give no item: columns, why not. Columns that are not given have the table's defaults; ID is [@110]
# and DataType 1.
UNUSABLE = [
    ('Bad.ID.Null', {'ID': 'NULL'}, '94, Invalid use of Null'),
    ('Bad.ID.Blob', {'ID': "x'00ff'"}, '94, Invalid use of Null'),  # bytes are no value at all
    ('Bad.DataType.Text', {'DataType': "'float'"}, '13, Type mismatch'),
    ('Bad.RefreshRate.Huge', {'RefreshRate': '99999999999'}, '6, Overflow'),
    ('Bad.DownIsValid.Null', {'DownIsValid': 'NULL'}, '94, Invalid use of Null'),
    ('Bad.UseSubstatus.Number', {'UseSubstatus': '2.5'}, '13, Type mismatch'),
    ('NORTH.STACK1.MOISTURE', {'ID': "'[@101]'"},
     '457, This key is already associated with an element of this collection'),
]

# Items that are made: columns, CurrentIO's NValue and XValue of the item's own channel, the item's reading.
ODD_ITEMS = [
    ('Odd.McUnreadable', {'ID': "'[@{0}];77'"}, '5.5', 'NULL', (R4, 5.5, 0xC0)),
    ('Odd.McText', {'ID': "'[@{0}];[@990]'"}, '5.5', 'NULL', (R4, 5.5, 0x40)),
    ('Odd.Text', {}, "'abc'", 'NULL', (R4, 0.0, 0)),
    ('Odd.NumberInText', {}, "' 12.5 '", 'NULL', (R4, 12.5, 0xC0)),
    ('Odd.Blob', {}, "x'00ff'", 'NULL', (R4, 0.0, 0)),
    ('Odd.Default', {'NullValue': '-7'}, 'NULL', 'NULL', (R4, -7.0, 0xC0)),
    ('Odd.DefaultText', {'NullValue': "'n/a'"}, 'NULL', 'NULL', (R4, 0.0, 0)),
    ('Odd.NoXml', {}, 'NULL', "'no XML < at all'", (R4, 0.0, 0)),
    ('Odd.XmlBlob', {}, 'NULL', "x'3c56616c75653e373c2f56616c75653e'", (R4, 0.0, 0)),
    ('Odd.ExternalEntity', {'DataType': '3'}, 'NULL',
     "'<!DOCTYPE a [<!ENTITY x SYSTEM \"file:///etc/hostname\">]><Value>&x;</Value>'", (BSTR, '0', 0)),
    ('Odd.XmlLong', {}, 'NULL', "'<Value>7</Value>' || printf('%.*c', 300000, ' ')", (R4, 7.0, 0xC0)),
    ('Odd.XmlDeep', {}, 'NULL', "replace(printf('%.*c', 100000, 'x'), 'x', '<a>')", (R4, 0.0, 0)),
    ('Odd.NoDate', {'DataType': '5', 'NullValue': "'soon'"}, 'NULL', "'<Value>2026-01-02</Value>'", (DATE, 0, 0)),
    ('Odd.NoType', {'DataType': '9'}, '5.5', 'NULL', (R4, 0, 0)),
    ('Odd.Missing', {'ID': "'[@123456]'"}, None, None, (R4, 0.0, 0)),
    ('Odd.Undefined', {'ID': "'[@777]'"}, None, None, (R4, 4.25, 0xC0)),
    ('Odd.McHuge', {'ID': "'[@{0}];[@992]'"}, '3.5', 'NULL', (R4, 3.5, 0)),
    ('Odd.P.McText', {'ID': "'1-001-0-04-01'"}, None, None, (R4, 3.5, 0xC0)),
    ('Odd.P.McBlob', {'ID': "'1-001-0-04-02'"}, None, None, (R4, 3.5, 0xC0)),
    ('Odd.P.Blob', {'ID': "'1-001-0-04-03'"}, None, None, (R4, 0.0, 0)),
    ('Odd.P.OtherInterval', {'ID': "'1-001-0-04-04'"}, None, None, (R4, None, 0)),
]

# Items whose value becomes too large for them: data type, first value, then; what the item keeps.
OVERFLOWING = [
    ('Over.Whole', {'DataType': '2'}, '7', '3000000000', (I4, 7, 0xC0)),
    ('Over.Float', {}, '1.5', '1e300', (R4, 1.5, 0xC0)),
    ('Over.Text', {'DataType': '2'}, "'8'", "'99999999999'", (I4, 8, 0xC0)),
    ('Over.Default', {'DataType': '2', 'NullValue': '-3000000000'}, '9', 'NULL', (I4, 9, 0xC0)),
]


class WrongValues(Databases):
    def define(self, name, columns, channel=110):
        row = {'SiteID': "'NORTH'", 'Position': '100', 'Tagname': f"'{name}'", 'ID': "'[@{0}]'", 'DataType': '1',
               **columns}
        return (f"INSERT INTO Q5OPCDEF ({', '.join(row)}) VALUES ({', '.join(row.values())});"
                .replace('{0}', str(channel)))

    def fill(self):
        # A parameter item of the name of a channel item is refused by the server alone.
        definitions = self.define('North.Stack2.Flow', {'ID': "'1-001-0-01-01'"})
        definitions += self.define('', {'Tagname': 'NULL'}) + self.define('Bad.TagType.Text', {'TagType': "'one'"})
        values = ''
        for name, columns, _ in UNUSABLE:
            definitions += self.define(name, columns)
        for channel, (name, columns, number, xml, _) in enumerate(ODD_ITEMS, 800):
            definitions += self.define(name, columns, channel)
            if number is not None:
                values += f"INSERT INTO CurrentIO VALUES ('NORTH', 'C{channel}', 0, x'00', {number}, {xml});"
        for channel, (name, columns, first, _, _) in enumerate(OVERFLOWING, 900):
            definitions += self.define(name, columns, channel)
            values += f"INSERT INTO CurrentIO VALUES ('NORTH', 'C{channel}', 0, 'yesterday', {first}, NULL);"
        self.site.execute('configuration.db', definitions + """
            INSERT INTO PIDDef (DAHSID, PID, IntervalType) VALUES (1, 100100301, NULL), (1, 'abc', '1M'),
                (1, x'00', '1M'), (1, 1.5, '1M'), (1, 99999999999, '1M'), ('one', 1, '1M'),
                (1, 100100401, '1M'), (1, 100100402, '1M'), (1, 100100403, '1M'), (1, 100100404, '1M');
            INSERT INTO IOChannelDef VALUES ('NORTH', 'abc', 5, 'x'), ('NORTH', x'00', NULL, NULL),
                ('NORTH', 99999999999, 'n', 1), ('NORTH', 1.5, 'n', 1), ('NORTH', 990, x'ff', 'five'),
                (x'4e', 1, 'n', 1), ('NORTH', 991, NULL, 1e300);
            UPDATE SiteSettings SET FirstDayOfWeek = 'Monday' WHERE SiteID = 'NORTH';""")
        self.site.execute('realtime.db', values + """
            INSERT INTO CurrentIO VALUES ('NORTH', 'C990', 0, NULL, 'good', NULL),
                ('NORTH', 'C992', 0, NULL, 1e30, NULL), ('NORTH', 'C777', 'x', 1e300, 4.25, 17),
                ('NORTH', x'433131', 0, NULL, 666, NULL), ('NORTH', '', 0, NULL, 666, NULL),
                ('NORTH', 'C0101', 0, NULL, 666, NULL), ('NORTH', 'C', 0, NULL, 666, NULL),
                ('NORTH', 'C99999999999999999999', 0, NULL, 666, NULL), (x'4e4f525448', 'C101', 0, NULL, 666, NULL),
                ('NORTH', CAST(x'43ff' AS TEXT), 0, NULL, 666, NULL),
                ('NORTH', printf('%.*c', 100000, 'C'), 0, '', 6, '');
            INSERT INTO ParameterValue VALUES ('NORTH', 'abc', '30M', 666, 0, NULL),
                ('NORTH', x'00', '30M', 666, 0, NULL), ('NORTH', 1.5, '30M', 666, 0, NULL),
                ('NORTH', 99999999999, '30M', 666, 0, NULL),
                ('NORTH', 100100101, x'333044', 666, 0, NULL), ('NORTH', 100100101, '', 666, 0, NULL),
                ('NORTH', 100100401, '1M', 3.5, 'bad', x'00'), ('NORTH', 100100402, '1M', 3.5, x'00', 5),
                ('NORTH', 100100403, '1M', x'0102', 0, 'never'), ('NORTH', 100100404, '1D', 3.5, 0, NULL);""")

    def test_wrong_values_cost_their_own_item_alone(self):
        self.fill()
        self.site.start().started()
        log = self.site.log()
        for name, _, reason in UNUSABLE:
            at = log.index(f"Error [OPC-0141] Could not initialize OPC tag '{name}'; {reason}")
            self.assertEqual(log[at + 1], f"Error [OPC-0120] Could not load OPC tag '{name}'")
        for line in ("Error [OPC-0119] Only OPC DA tags are supported; will not load tag 'Bad.TagType.Text'",
                     "Error [OPC-0206] Could not initialize OPC tag 'Odd.NoType' value; 0, ",
                     "Error [OPC-0206] Could not initialize OPC tag 'Odd.NoDate' value; 0, ",
                     'Error [OPC-0138] Cannot determine Quelm I/O Channel ID for monitor code (Tag=Odd.McUnreadable)'):
            self.assertIn(line, log)
        self.assertTrue(self.site.logged("[OPC-0207] Could not initialize SLIK server tag 'North.Stack2.Flow'; "))

        client = self.client()
        expected = {**EXPECTED, **{name: reading for name, _, _, _, reading in ODD_ITEMS},
                    **{name: reading for name, _, _, _, reading in OVERFLOWING}}
        self.assertEqual(sorted(client('browse')), sorted(expected))
        added = client('watch', items=list(expected))
        self.assertEqual([a for a in added if a['error'] != 0], [])
        self.site.wait_pass()
        first = self.assert_values(client, expected)
        self.assertTrue(self.site.logged("Error updating SLIK tag values for NORTH tag 'North.Stack2.Flow' from "
                                         '[1-001-0-01-01]'))

        # Values that outgrow their items: the items keep what they had, time stamp included.
        at = len(self.site.log())
        self.site.beat()
        self.site.execute('realtime.db', ''.join(
            f"UPDATE CurrentIO SET NValue = {then} WHERE IOID = 'C{channel}';"
            for channel, (_, _, _, then, _) in enumerate(OVERFLOWING, 900))
            + "UPDATE CurrentIO SET NValue = 44.5 WHERE IOID = 'C105';")
        self.site.wait_pass(len(self.site.log()))  # a reading that was under way meanwhile may have the values of before
        second = self.assert_values(client, {**expected, 'North.Stack1.Temperature': (R4, 44.5, 0x40)})
        for channel, (name, _, _, _, _) in enumerate(OVERFLOWING, 900):
            with self.subTest(item=name):
                self.assertEqual(second[name]['filetime'], first[name]['filetime'])
                self.assertEqual([line for line in self.site.log()[at:] if f"tag '{name}'" in line], [
                    f"Error [OPC-0144] 6, Overflow; Error updating SLIK tag values for NORTH tag '{name}' from "
                    f'channel(s) {channel}, 0'])
        self.assertGreater(second['North.Stack1.NOx']['filetime'], first['North.Stack1.NOx']['filetime'])


if __name__ == '__main__':
    unittest.main()
