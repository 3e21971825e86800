"""A check that finds no fault in a good server is worth something only when it finds those of a bad one."""

import json
import os
import subprocess
import unittest
import uuid

from faulty import FaultyServer, number, result
from harness import SiteTest, next_address, program

OK, FALSE, FAIL, INVALID = 0, 1, 0x80004005, 0x80070057
SERVER, COMMON, GROUP, ITEMS, SYNC, BROWSE, BROWSE3, STRINGS, PROPERTIES, ATTRIBUTES = (uuid.UUID(each) for each in (
    '39C13A4D-011E-11D0-9675-0020AFD8ADB3', 'F31DFDE2-07B6-11D2-B2D8-0060083BA1FB',
    '39C13A50-011E-11D0-9675-0020AFD8ADB3', '39C13A54-011E-11D0-9675-0020AFD8ADB3',
    '39C13A52-011E-11D0-9675-0020AFD8ADB3', '39C13A4F-011E-11D0-9675-0020AFD8ADB3',
    '39227004-A18F-4B57-8B0A-5235670F4468', '00000101-0000-0000-C000-000000000046',
    '39C13A72-011E-11D0-9675-0020AFD8ADB3', '39C13A55-011E-11D0-9675-0020AFD8ADB3'))
# What is wrong, and the cases that find it.
FAULTS = (
    ((SERVER, 3, result(0xC004000C, FAIL)), {32}),               # another group of that name: some failure
    ((SERVER, 4, result(INVALID, OK)), {21}),                    # any code has a text
    ((SERVER, 5, result(INVALID, OK)), {47, 191}),               # any name is a group's
    ((SERVER, 7, result(0x0004000F, OK)), {192}),                # a group that is held is said to be gone
    ((SERVER, 8, result(FALSE, OK)), {51, 52}),                  # no group to enumerate is nothing special
    ((COMMON, 4, number(0x0800, 0x0409)), {23, 25}),                # another locale at first
    ((GROUP, 4, result(INVALID, OK)), {42}),                     # a wrong deadband is said to be taken
    ((GROUP, 6, result(0xC004000C, INVALID)), {50}),             # a copy by a name that is taken
    ((ITEMS, 3, number(0xC0040008, FAIL)), {57, 188}),           # an empty id fails somehow
    ((ITEMS, 6, number(0xC0040001, OK)), {62}),                  # a wrong handle goes well
    ((SYNC, 3, number(0xC0040001, OK)), {61, 78}),               # a handle that is gone is still read
    ((BROWSE, 4, result(FAIL, OK)), {138}),                      # up from the root goes well
    ((BROWSE3, 4, result(0xC0040403, OK)), {155}),               # a wrong point begins anew
    ((STRINGS, 3, result(FALSE, OK)), {51}),                     # the end of a list is not told
    ((PROPERTIES, 5, result(FALSE, OK)), {165}),                 # failures of properties are not told
    ((ATTRIBUTES, 4, result(FALSE, OK)), {69}),                  # skipping beyond the end goes well
)
# Those that watch for seconds take too long to be run so often.
QUICK = [str(n) for n in range(1, 200) if n not in (*range(89, 134), 15, 16, 43, 171, 172, 174, 177, 178, 187, 194, 198)]


class FaultyServers(SiteTest):
    weak = True

    def check(self, address):
        output = subprocess.run(
            [program('opcda'), 'check', address, '-U', 'DEMO\\operator', '--level', 'connect', '--json', '--case',
             ','.join(QUICK)], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=100,
            env={**os.environ, 'OPCDA_PASSWORD': 'stack-7'})
        return {case['number'] for case in json.loads(output.stdout)['cases'] if case['verdict'] == 'failed'}

    def test_each_fault_is_found_by_its_cases_and_by_no_other(self):
        self.site.start().started()
        self.site.wait_pass()
        address = next_address()
        faulty = FaultyServer(address, self.site.address)
        self.addCleanup(faulty.close)
        for number, (fault, cases) in enumerate(((None, set()), *FAULTS)):
            faulty.fault = fault
            with self.subTest(fault=number):
                self.assertEqual(self.check(address), cases)


if __name__ == '__main__':
    unittest.main()
