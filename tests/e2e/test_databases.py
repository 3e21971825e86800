"""Databases that are away, locked, incomplete or full of wrong values: what stands beside the damage stays unharmed."""

import os
import sqlite3
import threading
import time
import unittest

from harness import ImpacketClient, wait_for

from test_demo_site import BOOL, BSTR, DATE, DemoSite, EXPECTED, I4, R4, before_the_next_pass

NORTH = {name: value for name, value in EXPECTED.items() if name.startswith('North.')}
SOUTH = {name: value for name, value in EXPECTED.items() if name.startswith('South.')}


class Databases(DemoSite):
    dcom = ''

    def give(self, away, back):
        os.rename(self.site.path(away), self.site.path(back))

    def separate_files(self, *names):
        """Gives SOUTH, and whatever further sites are named, databases of their own."""
        ini = '[System]\nLogFolder = {0}/logs\n'
        for number, name in enumerate(('NORTH', 'SOUTH') + names, 1):
            for database in ('configuration', 'realtime'):
                with sqlite3.connect(self.site.path(database + '.db')) as source:
                    with sqlite3.connect(self.site.path(f'{name}-{database}.db')) as target:
                        source.backup(target)
                    target.close()
                source.close()
            ini += (f'[DAHS.{name}]\nSiteID = {name}\nDAHSID = {number}\nDefault = {"yes" if number == 1 else "no"}\n'
                    f'Connection1 = Driver=SQLite;Database={{0}}/{name}-configuration.db\n'
                    f'Connection2 = Driver=SQLite;Database={{0}}/{name}-realtime.db\n')
        self.site.write('Quelm.ini', ini.format(self.site.folder))

    def beat(self, name):
        self.site.execute(name, "UPDATE CurrentIO SET TStamp = strftime('%Y-%m-%d %H:%M:%f', 'now', 'localtime') "
                                "WHERE IOID LIKE 'IOS%.AllCommsOk'")

    def wait_line(self, text, after=0, seconds=45):
        """The number of the first log line from a given one on that has the text."""
        return wait_for(f'log line with {text!r}', lambda: next(
            (i + 1 for i, line in enumerate(self.site.log()) if i >= after and text in line), None), seconds)

    def wait_next_pass(self, after):
        line = self.wait_line('[OPC-0127]', after)
        time.sleep(0.2)  # the line is written before the items are
        return line

    def assert_values(self, client, expected):
        readings = {r['itemID']: r for r in client('read', items=list(expected))['items']}
        for name, (kind, value, quality) in expected.items():
            with self.subTest(item=name):
                got = readings[name]
                self.assertEqual((got['error'], f"{got['quality']:#06x}"), (0, f'{quality:#06x}'))
                if isinstance(value, float):
                    self.assertAlmostEqual(got['value'], value, delta=abs(value) * 1e-6)
                else:
                    self.assertEqual(got['value'], value)
        return readings


class Away(Databases):
    def test_away_at_start_the_server_waits_and_then_serves(self):
        self.give('realtime.db', 'away.db')
        self.site.start(beat=False)
        before = self.wait_line('[OPC-0226]')
        log = self.site.log()
        self.assertEqual([line for line in log[log.index('Information [OPC-0223] Testing database connections...'):]],
                         ['Information [OPC-0223] Testing database connections...',
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
        self.wait_line('[OPC-0108]', before)
        codes = [line.split('[OPC-')[1][:4] for line in self.site.log()[before:] if '[OPC-' in line]
        self.assertEqual(codes[:6], ['0225', '0104', '0212', '0213', '0214', '0215'])
        self.assertEqual(codes[-4:], ['0105', '0106', '0107', '0108'])
        client = self.client(ImpacketClient)
        client('watch', items=list(EXPECTED))
        self.site.beat()
        # Depending on what comes first, a pass may precede the first read of the channels.
        read = self.wait_line('[OPC-0183]', before)
        self.wait_next_pass(read)
        self.assert_values(client, EXPECTED)
        self.assertEqual(len(self.site.logged('[OPC-0225]')), 2)

    def test_away_while_running_values_stay_for_two_ticks_then_turn_bad_and_come_back(self):
        before_the_next_pass()
        self.site.start().started()
        client = self.client(ImpacketClient)
        client('watch', items=list(EXPECTED))
        self.site.wait_pass()
        good = self.assert_values(client, EXPECTED)
        at = len(self.site.log())
        self.give('realtime.db', 'away.db')

        for tick in (1, 2):
            at = self.wait_next_pass(self.wait_line('OPC-0192: ', at))
            channels = {name: value for name, value in EXPECTED.items() if name not in self.parameters()}
            later = self.assert_values(client, channels)
            self.assertGreater(later['South.Boiler.Steam']['filetime'], good['South.Boiler.Steam']['filetime'])
        self.assertEqual(self.site.logged('[OPC-0185]'), [])

        at = self.wait_next_pass(self.wait_line('[OPC-0185]', at))
        self.assertRegex(self.site.logged('[OPC-0185]')[0],
                         r'Quelm I/O Server is not active; IOS5; Elapsed=60; TStamp=.*; AllCommsOk=1 \[OPC-0185\]$')
        gone = {name: (kind, {R4: 0.0, I4: 0, BOOL: False, BSTR: '0', DATE: 36526.0}[kind], 0)
                for name, (kind, _, _) in EXPECTED.items()}
        gone.update({name: (EXPECTED[name][0], None, 0) for name in self.parameters()})
        self.assert_values(client, gone)
        self.assertEqual(len(self.site.logged('OPC-0192: ')), 6, 'three ticks of two sites')
        self.assertIn('the last values are too old and no longer published', ''.join(self.site.log()))
        self.assertFalse(os.path.exists(self.site.path('realtime.db')), 'a database was made')

        self.give('away.db', 'realtime.db')
        self.site.beat()
        self.wait_next_pass(self.wait_line('[OPC-0183]', at))
        self.assert_values(client, EXPECTED)

    def parameters(self):
        return [name for name in EXPECTED if name.startswith('North.Stack1.') and not name.endswith('.Raw')
                and name.rpartition('.')[2] not in ('Opacity', 'Temperature', 'Moisture')] + [
                    'South.Boiler.NOx', 'South.Boiler.NOx.Budget']


class Incomplete(Databases):
    def test_each_site_pays_for_its_own_database_alone(self):
        # Sites whose database lacks one table each; the item names must differ for the items to be made.
        damaged = {'DEFS': 'Q5OPCDEF', 'PIDS': 'PIDDef', 'CHANNELS': 'IOChannelDef', 'VALUES': 'ParameterValue',
                   'SETTINGS': 'SiteSettings', 'NOTHING': None}
        self.separate_files(*damaged)
        self.site.execute('SOUTH-configuration.db', 'DROP TABLE Q5OPCDEF')
        for number, (name, table) in enumerate(damaged.items(), 3):
            configuration, realtime = f'{name}-configuration.db', f'{name}-realtime.db'
            self.site.execute(configuration, f"""
                UPDATE Q5OPCDEF SET SiteID = '{name}', Tagname = '{name}.' || Tagname WHERE SiteID = 'SOUTH';
                UPDATE Q5OPCDEF SET ID = '{number}' || substr(ID, 2) WHERE SiteID = '{name}' AND ID LIKE '2-%';
                UPDATE IOChannelDef SET SiteID = '{name}' WHERE SiteID = 'SOUTH';
                UPDATE SiteSettings SET SiteID = '{name}', DAHSID = {number} WHERE SiteID = 'SOUTH';
                UPDATE PIDDef SET DAHSID = {number}, PID = PID + {number - 2}00000000 WHERE DAHSID = 2;""")
            self.site.execute(realtime, f"""
                UPDATE CurrentIO SET SiteID = '{name}' WHERE SiteID = 'SOUTH';
                UPDATE ParameterValue SET SiteID = '{name}', PID = PID + {number - 2}00000000
                    WHERE SiteID = 'SOUTH';""")
            if table:
                self.site.execute(realtime if table == 'ParameterValue' else configuration, f'DROP TABLE {table}')
            else:
                self.site.execute(configuration, 'DELETE FROM Q5OPCDEF')
            self.beat(realtime)
        self.beat('NORTH-realtime.db')
        self.site.start(beat=False).started()
        client = self.client(ImpacketClient)
        served = {f'{site}.{name}': value for site in ('CHANNELS', 'VALUES') for name, value in SOUTH.items()}
        served.update(NORTH)
        self.assertEqual(sorted(client('browse')), sorted(served))
        client('watch', items=list(served))

        log = self.site.log()
        for name, following in (('SOUTH', ['Error [OPC-0116] Error: could not load OPC tag definitions']),
                                ('DEFS', ['Error [OPC-0116] Error: could not load OPC tag definitions']),
                                *((name, [f'Information [OPC-0209] Loading DI for {name}...', None,
                                          'Error [OPC-0210] Error loading DI; will not load OPC tag definitions for '
                                          + name,
                                          'Error [OPC-0118] Error: could not create site data manager'])
                                  for name in ('PIDS', 'SETTINGS')),
                                ('NOTHING', ['Information [OPC-0117] No OPC tags are defined'])):
            with self.subTest(site=name):
                at = log.index(f'Information [OPC-0115] Loading OPC tag definitions for {name}----------') + 1
                found = log[at:at + len(following)]
                if None in following:  # the data interface's own words
                    self.assertIn('no such table: ' + damaged[name], found.pop(1))
                    following.remove(None)
                self.assertEqual(found, following)
        self.assertIn("Site 'SOUTH': cannot read the OPC item definitions: 1, no such table: Q5OPCDEF",
                      self.site.errors())
        self.site.wait_pass()
        # Without parameter values there are none; without channel definitions channels are never stale.
        served['VALUES.South.Boiler.NOx'] = served['VALUES.South.Boiler.NOx.Budget'] = (R4, None, 0)
        self.assert_values(client, served)
        self.assertEqual(len(self.site.logged('Error OPC-0154: 1, no such table: IOChannelDef')), 1)
        self.assertTrue(self.site.logged("Cannot read the current parameter values of site 'VALUES'; 1, no such table"))

    def test_a_locked_database_and_a_missing_table_for_a_tick(self):
        self.separate_files()
        connection = self.site.database('NORTH-realtime.db')
        self.assertEqual(connection.execute('PRAGMA journal_mode = DELETE').fetchone(), ('delete',))
        before_the_next_pass()
        for name in ('NORTH', 'SOUTH'):
            self.beat(f'{name}-realtime.db')
        self.site.start(beat=False).started()
        client = self.client(ImpacketClient)
        client('watch', items=list(EXPECTED))
        self.site.wait_pass()
        self.assert_values(client, EXPECTED)
        at = len(self.site.log())

        connection.execute('BEGIN EXCLUSIVE')
        self.site.execute('SOUTH-realtime.db', 'ALTER TABLE CurrentIO RENAME TO Elsewhere')
        longest, done = [0.0], threading.Event()

        def read_on():
            other = self.client(ImpacketClient)
            other('watch', items=['South.Boiler.Steam'])
            while not done.wait(0.05):
                began = time.monotonic()
                other('read')
                longest[0] = max(longest[0], time.monotonic() - began)
        reader = threading.Thread(target=read_on)
        reader.start()
        try:
            for text in ('OPC-0192: 5, database is locked', 'OPC-0192: 1, no such table: CurrentIO'):
                found = self.wait_line(text, at)
            self.wait_next_pass(found)
            self.assert_values(client, EXPECTED)
        finally:
            done.set()
            reader.join()
        # Two reads of the locked database, each given up after three seconds.
        self.assertLess(longest[0], 8)

        at = len(self.site.log())
        connection.rollback()
        connection.close()
        self.site.execute('SOUTH-realtime.db', 'ALTER TABLE Elsewhere RENAME TO CurrentIO')
        self.site.execute('NORTH-realtime.db', "UPDATE CurrentIO SET NValue = 99.5 WHERE IOID = 'C110'")
        self.site.execute('SOUTH-realtime.db', "UPDATE CurrentIO SET NValue = 77.5 WHERE IOID = 'C11'")
        for name in ('NORTH', 'SOUTH'):
            self.beat(f'{name}-realtime.db')
        self.wait_next_pass(self.wait_line('[OPC-0183]', at))
        self.assert_values(client, {**EXPECTED, 'North.Stack1.Moisture': (R4, 99.5, 0xC0),
                                    'South.Boiler.Steam': (R4, 77.5, 0xC0)})


def null_use(name):
    return f"Error [OPC-0141] Could not initialize OPC tag '{name}'; 94, Invalid use of Null"


def mismatch(name):
    return f"Error [OPC-0141] Could not initialize OPC tag '{name}'; 13, Type mismatch"


def not_loaded(name):
    return f"Error [OPC-0120] Could not load OPC tag '{name}'"


def not_supported(name):
    return f"Error [OPC-0119] Only OPC DA tags are supported; will not load tag '{name}'"


def no_reference(name):
    return f'Error [OPC-0139] Cannot determine Quelm PID or I/O Channel ID (Tag={name})'


# Definitions that give no item: columns, log lines. Columns that are not given have the table's defaults; ID is [@110]
# and DataType 1.
UNUSABLE = [
    ('Bad.ID.Null', {'ID': 'NULL'}, [null_use, not_loaded]),
    ('Bad.ID.Blob', {'ID': "x'00ff'"}, [null_use, not_loaded]),  # bytes are no value at all
    ('Bad.ID.Empty', {'ID': "''"}, [no_reference, not_loaded]),
    ('Bad.ID.NoDigits', {'ID': "'[@]'"}, [no_reference, not_loaded]),
    ('Bad.ID.Undefined', {'ID': "'1-999-0-99-99'"},
     [lambda name: f"Error [OPC-0211] Quelm PID '1-999-0-99-99' does not exist; cannot create OPC tag (Tag={name})",
      not_loaded]),
    ('Bad.ID.NoInterval', {'ID': "'1-001-0-03-01'"},
     [lambda name: f"Error [OPC-0222] Could not find interval type for PID '1-001-0-03-01'; cannot create OPC tag "
                   f"(Tag={name})", not_loaded]),
    ('Bad.DataType.Null', {'DataType': 'NULL'}, [null_use, not_loaded]),
    ('Bad.DataType.Text', {'DataType': "'float'"}, [mismatch, not_loaded]),
    ('Bad.TagType.2', {'TagType': '2'}, [not_supported]),
    ('Bad.TagType.Null', {'TagType': 'NULL'}, [not_supported]),
    ('Bad.TagType.Text', {'TagType': "'one'"}, [not_supported]),
    ('Bad.RefreshRate.0', {'RefreshRate': '0'}, [not_loaded]),
    ('Bad.RefreshRate.Negative', {'RefreshRate': '-5'}, [not_loaded]),
    ('Bad.RefreshRate.Null', {'RefreshRate': 'NULL'}, [null_use, not_loaded]),
    ('Bad.RefreshRate.Huge', {'RefreshRate': '99999999999'},
     [lambda name: f"Error [OPC-0141] Could not initialize OPC tag '{name}'; 6, Overflow", not_loaded]),
    ('Bad.Write.Text', {'Write': "'maybe'"}, [mismatch, not_loaded]),
    ('Bad.DownIsValid.Null', {'DownIsValid': 'NULL'}, [null_use, not_loaded]),
    ('Bad.UseSubstatus.Number', {'UseSubstatus': '2.5'}, [mismatch, not_loaded]),
    ('North.Stack1.Moisture', {'ID': "'[@101]'"},
     [lambda name: f"Error [OPC-0141] Could not initialize OPC tag '{name}'; 457, This key is already associated with "
                   'an element of this collection', not_loaded]),
    ('NORTH.STACK1.MOISTURE', {'ID': "'[@101]'"},
     [lambda name: f"Error [OPC-0141] Could not initialize OPC tag '{name}'; 457, This key is already associated with "
                   'an element of this collection', not_loaded]),
]

# Items that are made: columns, CurrentIO's NValue and XValue of the item's own channel, the item's reading.
ODD_ITEMS = [
    ('Odd.McUnreadable', {'ID': "'[@{0}];77'"}, '5.5', 'NULL', (R4, 5.5, 0xC0)),
    ('Odd.McText', {'ID': "'[@{0}];[@990]'"}, '5.5', 'NULL', (R4, 5.5, 0x40)),
    ('Odd.McBlob', {'ID': "'[@{0}];[@991]'"}, '5.5', 'NULL', (R4, 5.5, 0x40)),
    ('Odd.Text', {}, "'abc'", 'NULL', (R4, 0.0, 0)),
    ('Odd.NumberInText', {}, "' 12.5 '", 'NULL', (R4, 12.5, 0xC0)),
    ('Odd.Blob', {}, "x'00ff'", 'NULL', (R4, 0.0, 0)),
    ('Odd.Default', {'NullValue': '-7'}, 'NULL', 'NULL', (R4, -7.0, 0xC0)),
    ('Odd.DefaultText', {'NullValue': "'n/a'"}, 'NULL', 'NULL', (R4, 0.0, 0)),
    ('Odd.DefaultBlob', {'NullValue': "x'07'"}, 'NULL', 'NULL', (R4, 0.0, 0)),
    ('Odd.NoXml', {}, 'NULL', "'no XML < at all'", (R4, 0.0, 0)),
    ('Odd.XmlBlob', {}, 'NULL', "x'3c56616c75653e373c2f56616c75653e'", (R4, 0.0, 0)),
    ('Odd.XmlEmpty', {}, 'NULL', "'<Value/>'", (R4, 0.0, 0)),
    ('Odd.Doctype', {}, 'NULL', "'<!DOCTYPE a [<!ENTITY x \"7\">]><Value>&x;</Value>'", (R4, 0.0, 0)),
    ('Odd.ExternalEntity', {'DataType': '3'}, 'NULL',
     "'<!DOCTYPE a [<!ENTITY x SYSTEM \"file:///etc/hostname\">]><Value>&x;</Value>'", (BSTR, '0', 0)),
    ('Odd.XmlLong', {}, 'NULL', "'<Value>7</Value>' || printf('%.*c', 300000, ' ')", (R4, 7.0, 0xC0)),
    ('Odd.XmlDeep', {}, 'NULL', "replace(printf('%.*c', 100000, 'x'), 'x', '<a>')", (R4, 0.0, 0)),
    ('Odd.NoDate', {'DataType': '5', 'NullValue': "'soon'"}, 'NULL', "'<Value>2026-01-02</Value>'", None),
    ('Odd.Missing', {'ID': "'[@123456]'"}, None, None, (R4, 0.0, 0)),
    ('Odd.Undefined', {'ID': "'[@777]'"}, None, None, (R4, 4.25, 0xC0)),
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
    ('Over.MonitorCode', {'ID': "'[@{0}];[@992]'"}, '2.5', '3.5', (R4, 2.5, 0xC0)),
]


class WrongValues(Databases):
    def define(self, position, name, columns, channel):
        row = {'ID': "'[@{0}]'", 'DataType': '1', **columns}
        row = {'SiteID': "'NORTH'", 'Position': str(position),
               'Tagname': name if name == 'NULL' else f"'{name}'", **row}
        return (f"INSERT INTO Q5OPCDEF ({', '.join(row)}) VALUES ({', '.join(row.values())});"
                .replace('{0}', str(channel)))

    def fill(self):
        definitions, values = '', ''
        for position, (name, columns, _) in enumerate(UNUSABLE, 100):
            definitions += self.define(position, name, columns, 110)
        for channel, (name, columns, number, xml, _) in enumerate(ODD_ITEMS, 800):
            definitions += self.define(channel, name, columns, channel)
            if number is not None:
                values += f"INSERT INTO CurrentIO VALUES ('NORTH', 'C{channel}', 0, x'00', {number}, {xml});"
        for channel, (name, columns, first, _, _) in enumerate(OVERFLOWING, 900):
            definitions += self.define(channel, name, columns, channel)
            values += f"INSERT INTO CurrentIO VALUES ('NORTH', 'C{channel}', 0, 'yesterday', {first}, NULL);"
        # A parameter item of the name of a channel item is refused by the server alone.
        definitions += self.define(2000, 'North.Stack2.Flow', {'ID': "'1-001-0-01-01'"}, 0)
        definitions += self.define(2001, 'NULL', {}, 110)
        definitions += self.define(2002, 'Odd.NoType', {'DataType': '9'}, 110)
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
                ('NORTH', 'C991', 0, NULL, x'00', NULL), ('NORTH', 'C992', 0, NULL, 0, NULL),
                ('NORTH', 'C777', 'x', 1e300, 4.25, 17),
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
        for name, _, lines in UNUSABLE:
            with self.subTest(item=name):
                for line in lines:
                    self.assertIn(line(name), log)
        self.assertIn("Error [OPC-0206] Could not initialize OPC tag 'Odd.NoType' value; 0, ", log)
        self.assertIn("Error [OPC-0206] Could not initialize OPC tag 'Odd.NoDate' value; 0, ", log)
        self.assertIn('Error [OPC-0138] Cannot determine Quelm I/O Channel ID for monitor code '
                      '(Tag=Odd.McUnreadable)', log)
        self.assertTrue([line for line in log if "[OPC-0207] Could not initialize SLIK server tag 'North.Stack2.Flow'; "
                         in line])

        client = self.client(ImpacketClient)
        expected = {**EXPECTED, **{name: reading for name, _, _, _, reading in ODD_ITEMS if reading},
                    **{name: reading for name, _, _, _, reading in OVERFLOWING}}
        names = client('browse')
        self.assertEqual(sorted(set(names) - set(expected) - {'Odd.NoType', 'Odd.NoDate'}), [])
        self.assertEqual(sorted(set(expected) - set(names)), [])
        added = client('watch', items=list(expected) + ['Odd.NoType', 'Odd.NoDate'])
        self.assertEqual([a for a in added if a['error'] != 0], [])
        self.site.wait_pass()
        first = self.assert_values(client, expected)
        untyped, dateless = client('read', items=['Odd.NoType', 'Odd.NoDate'])['items']
        self.assertEqual((untyped['value'], untyped['quality']), (0, 0))
        self.assertEqual(dateless['quality'], 0)
        self.assertTrue(self.site.logged("Error updating SLIK tag values for NORTH tag 'North.Stack2.Flow' from "
                                         '[1-001-0-01-01]'))

        # Values that outgrow their items: the items keep what they had, time stamp included.
        at = len(self.site.log())
        self.site.beat()
        self.site.execute('realtime.db', ''.join(
            f"UPDATE CurrentIO SET NValue = {then} WHERE IOID = 'C{channel}';"
            for channel, (_, _, _, then, _) in enumerate(OVERFLOWING, 900))
            + "UPDATE CurrentIO SET NValue = 1e30 WHERE IOID = 'C992';"
            + "UPDATE CurrentIO SET NValue = 44.5 WHERE IOID = 'C105';")
        self.wait_next_pass(self.wait_line('[OPC-0183]', at))
        expected['North.Stack1.Temperature'] = (R4, 44.5, 0x40)
        second = self.assert_values(client, expected)
        for channel, (name, _, _, _, _) in enumerate(OVERFLOWING, 900):
            with self.subTest(item=name):
                self.assertEqual(second[name]['filetime'], first[name]['filetime'])
                self.assertEqual([line for line in self.site.log()[at:] if f"tag '{name}'" in line], [
                    f"Error [OPC-0144] 6, Overflow; Error updating SLIK tag values for NORTH tag '{name}' from "
                    f"channel(s) {channel}, {992 if name == 'Over.MonitorCode' else 0}"])
        self.assertGreater(second['North.Stack1.NOx']['filetime'], first['North.Stack1.NOx']['filetime'])


if __name__ == '__main__':
    unittest.main()
