"""The schemas of the databases have the same tables, columns and keys, those of typed columns two more."""

import os
import re
import subprocess
import unittest

ROOT = os.path.join(os.path.dirname(__file__), '..', '..')
TEXT_COLUMNS = {'NullValueText', 'ValueText'}


def shapes(sql):
    """Of each table the columns in their order and the key's; of each index its columns."""
    found = {}
    sql = re.sub('--.*|`', '', sql)
    for name, body in re.findall(r'CREATE TABLE (?:IF NOT EXISTS )?(\w+) \((.*?)\n\)', sql, re.DOTALL):
        parts = [part.strip() for part in re.split(r',(?![^(]*\))', body)]
        columns = [part.split()[0] for part in parts if not part.startswith('PRIMARY KEY')]
        keys = [re.findall(r'\w+', part)[2:] for part in parts if part.startswith('PRIMARY KEY')]
        inline = [part.split()[0] for part in parts if part.endswith('PRIMARY KEY')]
        found[name] = ([column for column in columns if column not in TEXT_COLUMNS], keys or [inline])
    for name, columns in re.findall(r'CREATE INDEX (?:IF NOT EXISTS )?(\w+ ON \w+) \((.*?)\)', sql):
        found[name] = columns
    return found


class Schemas(unittest.TestCase):
    def test_all_databases_have_the_same_tables(self):
        all_shapes = {}
        for dialect in ('sqlite', 'postgresql', 'sqlserver', 'mariadb'):
            with open(os.path.join(ROOT, 'schema', f'{dialect}.sql'), encoding='utf-8') as file:
                all_shapes[dialect] = shapes(file.read())
        self.assertIn('CurrentIO', all_shapes['sqlite'])
        for dialect in ('sqlserver', 'mariadb'):
            self.assertEqual(all_shapes['postgresql'], all_shapes[dialect])
        self.assertEqual(all_shapes['sqlite'], all_shapes['postgresql'])

    def test_the_script_for_another_database_holds_the_demo_plant(self):
        script = subprocess.run([os.path.join(ROOT, 'scripts', 'load-schema'), '--print', 'sqlserver'], check=True,
                                text=True, stdout=subprocess.PIPE).stdout
        self.assertIn('CREATE PROCEDURE csp_GetCurrentIO2', script)
        self.assertRegex(script, r"NullValue, NullValueText, DownIsValid")
        script = subprocess.run([os.path.join(ROOT, 'scripts', 'load-schema'), '--print', 'mariadb'], check=True, text=True,
                                stdout=subprocess.PIPE).stdout
        self.assertRegex(script, r'DataType, `Write`, NullValue, NullValueText')
        self.assertRegex(script, r"\('NORTH', 'C101', 0, '[-0-9: ]+', 211.5, NULL\)")
