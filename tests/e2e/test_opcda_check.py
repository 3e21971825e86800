"""A check that finds no fault in a good server is worth something only when it finds those of a bad one."""

import itertools
import json
import os
import subprocess
import unittest
import uuid
from concurrent.futures import ThreadPoolExecutor

from faulty import (COUNT, DATA_CHANGE, DROP, FIRST_HANDLE, GROUP, MASTER_QUALITY, PARAMETERS, READ_COMPLETE, TRANSACTION,
                    TWICE_MORE, Fault, FaultyServer, at, number, parameter, result, u32)
from harness import SiteTest, next_address, program

OK, FALSE, FAIL, INVALID, NO_CONNECTION, BAD_HANDLE = 0, 1, 0x80004005, 0x80070057, 0x80040200, 0xC0040001
(SERVER, COMMON, GROUP_STATE, ITEMS, SYNC, BROWSE, BROWSE3, STRINGS, PROPERTIES, ATTRIBUTES, ASYNC, POINT) = (
    uuid.UUID(each) for each in (
        '39C13A4D-011E-11D0-9675-0020AFD8ADB3', 'F31DFDE2-07B6-11D2-B2D8-0060083BA1FB',
        '39C13A50-011E-11D0-9675-0020AFD8ADB3', '39C13A54-011E-11D0-9675-0020AFD8ADB3',
        '39C13A52-011E-11D0-9675-0020AFD8ADB3', '39C13A4F-011E-11D0-9675-0020AFD8ADB3',
        '39227004-A18F-4B57-8B0A-5235670F4468', '00000101-0000-0000-C000-000000000046',
        '39C13A72-011E-11D0-9675-0020AFD8ADB3', '39C13A55-011E-11D0-9675-0020AFD8ADB3',
        '39C13A71-011E-11D0-9675-0020AFD8ADB3', 'B196B286-BAB4-101A-B69C-00AA00341D07'))
READ, REFRESH, CANCEL, SET_ENABLE = ((ASYNC, opnum) for opnum in (3, 5, 6, 7))
UNADVISE = (POINT, 6)
# The first case of each area; those that wait for a value to change, or for ten seconds, are left out.
AREAS = (1, 12, 23, 29, 55, 66, 73, 89, 111, 133, 137, 150, 160, 167, 182, 190, 200)
SLOW = {119, 120, 121, 122, 123, 127, 132, 187}


def on(kind, alter):
    """Something done to each callback of a kind; `alter` gives what becomes of it."""
    return Fault(callbacks=lambda opnum, stub: alter(stub) if opnum == kind else None)


def put(place, change):
    change = parameter(place, change)
    return lambda stub: change(stub)


def swapped(stub):
    """The first two items of a read, by whose they are."""
    if stub[-4:] == u32(OK) and at(stub, 12) > 1:
        stub[16:20], stub[36:40] = stub[36:40], stub[16:20]


def only_first():
    """Of the group of the client's number 79, as if a deadband held back what comes later."""
    seen = set()

    def alter(stub):
        if at(stub, GROUP) == 79:
            known = 79 in seen
            seen.add(79)
            return DROP if known else None
        return None
    return alter


# What is wrong, and the cases that find it; behind them the ones that run where it is not their whole areas.
ANSWERS = (
    ((SERVER, 3, result(0xC004000C, FAIL)), {32}),               # another group of that name: some failure
    ((SERVER, 4, result(INVALID, OK)), {21}),                    # any code has a text
    ((SERVER, 5, result(INVALID, OK)), {47, 191}),               # any name is a group's
    ((SERVER, 7, result(0x0004000F, OK)), {192}),                # a group that is held is said to be gone
    ((SERVER, 8, result(FALSE, OK)), {51, 52}),                  # no group to enumerate is nothing special
    ((COMMON, 4, number(0x0800, 0x0409)), {23, 25}),             # another locale at first
    ((GROUP_STATE, 4, result(INVALID, OK)), {42}),               # a wrong deadband is said to be taken
    ((GROUP_STATE, 6, result(0xC004000C, INVALID)), {50}),       # a copy by a name that is taken
    ((ITEMS, 3, number(0xC0040008, FAIL)), {57, 188}),           # an empty id fails somehow
    ((ITEMS, 6, number(BAD_HANDLE, OK)), {62}),                  # a wrong handle goes well
    ((SYNC, 3, number(BAD_HANDLE, OK)), {61, 78}),               # a handle that is gone is still read
    ((SYNC, 3, swapped), {79}),                                  # results in another order
    ((BROWSE, 4, result(FAIL, OK)), {138}),                      # up from the root goes well
    ((BROWSE3, 4, result(0xC0040403, OK)), {155}),               # a wrong point begins anew
    ((STRINGS, 3, result(FALSE, OK)), {51}),                     # the end of a list is not told
    ((PROPERTIES, 5, result(FALSE, OK)), {165}),                 # failures of properties are not told
    ((ATTRIBUTES, 4, result(FALSE, OK)), {69}),                  # skipping beyond the end goes well
    ((*READ, number(BAD_HANDLE, OK)), {91, 92}),                 # a transaction of a wrong handle goes well
    ((*READ, result(NO_CONNECTION, OK)), {89}),                  # one without anybody to tell
    ((*REFRESH, result(FAIL, OK)), {101, 102}),                  # a refresh of nothing goes well
    ((*REFRESH, result(INVALID, OK)), {103}),                    # and one from no source
    ((ASYNC, 8, number(0, 1)), {109}),                           # callbacks are never said to be off
)
MORE = (
    (Fault({READ: bytes, REFRESH: bytes}, delay=0.3), set(), {90, 91, 95, 99}),   # no fault: callbacks come before answers
    (Fault({UNADVISE: result(NO_CONNECTION, OK)}, {UNADVISE: parameter(PARAMETERS, lambda cookie: ~cookie)}),
     {110, 131}, {109, 110, 131}),                               # Unadvise is lost
    (Fault({CANCEL: result(FAIL, OK)}, {CANCEL: parameter(PARAMETERS, lambda number: ~number)}),
     {106, 107, 108}, {105, 106, 107, 108}),                     # what is cancelled is completed
    (Fault(calls={SET_ENABLE: parameter(PARAMETERS, lambda enabled: 1)}), {109, 177}, {104, 109, 177}),  # nothing is disabled
    (Fault(calls={(GROUP_STATE, 4): parameter(40, lambda active: 1)}), {114}, {112, 114, 115}),  # nothing is made inactive
    (on(READ_COMPLETE, put(TRANSACTION, lambda number: number + 1)), {90, 94}, {90, 94, 99}),  # other transactions
    (on(READ_COMPLETE, put(MASTER_QUALITY, lambda quality: OK)), {90, 93}, {90, 93, 94}),  # all is said to be good
    (on(READ_COMPLETE, lambda stub: TWICE_MORE), {90, 91}, {90, 91, 99}),          # results come several times
    (on(DATA_CHANGE, put(GROUP, lambda handle: 0)), {99, 100, 111}, {90, 99, 100, 111, 113}),  # nobody's group
    (on(DATA_CHANGE, put(FIRST_HANDLE, lambda handle: handle + 50)), {113, 116, 125}, {111, 113, 116, 125}),  # others' items
    (on(DATA_CHANGE, lambda stub: TWICE_MORE), {99, 105, 115, 122}, {99, 105, 115, 122}),  # values are sent again
    (on(DATA_CHANGE, lambda stub: DROP if at(stub, TRANSACTION) else None), {99, 104, 105}, {99, 104, 105, 111}),  # no refresh
    (on(DATA_CHANGE, lambda stub: None if at(stub, COUNT) else DROP), {174, 176, 178}, {173, 174, 175, 176, 178}),  # no signs
    (on(DATA_CHANGE, only_first()), {127}, {127}),               # a deadband where there is no range
)


def area_of(case):
    return next(area for area, (first, end) in enumerate(itertools.pairwise(AREAS)) if first <= case < end)


def areas_of(cases):
    wanted = {area_of(case) for case in cases}
    return {case for case in range(1, AREAS[-1]) if area_of(case) in wanted and case not in SLOW}


def all_faults():
    for (interface, opnum, alter), found in ANSWERS:
        yield Fault({(interface, opnum): alter}), found, areas_of(found)
    yield from MORE


class FaultyServers(SiteTest):
    weak = True

    def found_by(self, fault, cases, callback_port):
        address = next_address()
        faulty = FaultyServer(address, self.site.address, callback_port, fault)
        self.addCleanup(faulty.close)
        output = subprocess.run(
            [program('opcda'), 'check', address, '-U', 'DEMO\\operator', '--level', 'connect', '--json',
             '--callback', f'{address}:{callback_port}', '--case', ','.join(map(str, cases))],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=150,
            env={**os.environ, 'OPCDA_PASSWORD': 'stack-7'})
        return {case['number']: case['came'] for case in json.loads(output.stdout)['cases']
                if case['verdict'] == 'failed'}

    def test_each_fault_is_found_by_its_cases_and_by_no_other(self):
        secret = 'Secret = password:stack-7\n'
        self.site.edit('dcom.conf', (secret, secret + 'MinimumLevel = connect\n'))
        self.site.start().started()
        self.site.wait_pass()
        faults = list(all_faults())
        # Those that wait for a value to change begin first.
        order = sorted(range(len(faults)), key=lambda n: -max(faults[n][2] & SLOW, default=0))
        with self.site.changing(), ThreadPoolExecutor(8) as pool:
            running = {n: pool.submit(self.found_by, faults[n][0], faults[n][2], 21000 + n) for n in order}
            for n, (_, expected, _) in enumerate(faults):
                with self.subTest(fault=n):
                    came = running[n].result()
                    self.assertEqual(set(came), expected, came)


if __name__ == '__main__':
    unittest.main()
