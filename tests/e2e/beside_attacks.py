#!/usr/bin/python3
"""A good client reads all the time beside each attack of attacks.py. It must meet no error and no long wait, nobody new
may be locked out, the server's memory and log stay within bounds, and its descriptors come back.

    beside_attacks.py --server build/release/Q5OPCServer [--long] [NAME...]

Prints a line for each attack. The attacks run one after the other, each on a server of its own, so that a wait is the
attack's doing; anything else that keeps the machine busy shows all the same.
"""

import argparse
import itertools
import json
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import attacks  # noqa: E402
import harness  # noqa: E402
from raw_rpc import ACTIVATION, OBJECT_EXPORTER, LoggedOn  # noqa: E402

LONGEST_WAIT = 0.25  # seconds, of a read
LONGEST_LOG_ON = 3  # seconds, of a newcomer
MEMORY = 128 << 10  # KB that one client may make the server grow by
LINES = 60  # of the log and on standard error
LINE = 400  # characters

# A device read is told in the log by rule, so that its lines are bounded by the reads alone.
EACH_READ_A_LINE = 'device_reads'
NAMES = ('filter', 'buffers', 'deaf', 'enumerators', 'names', 'groups', 'advises', 'ping_sets', 'idle', 'guessing',
         'foreign', 'half_log_ons', 'device_reads')


class Bystanders(harness.SiteTest):
    """The site with its good client."""

    def runTest(self):
        """Nothing: the steps are taken one by one."""

    def begin(self):
        self.setUp()
        self.site.edit('dcom.conf', ('[Accounts]\n', f'[Accounts]\nDEMO\\{attacks.USER} = password:{attacks.PASSWORD}\n'))
        self.site.start().started()


def status(site, name):
    """A figure of the server's process in KB."""
    with open(f'/proc/{site.process.pid}/status') as file:
        return next(int(line.split()[1]) for line in file if line.startswith(name))


class Beside:
    """One attack beside a good client."""

    def __init__(self, name, scale):
        self.name, self.scale, self.faults, self.figures = name, scale, [], 'broken off'

    def run(self):
        test = Bystanders()
        test.weak = True
        try:
            self.watch(test)
        except Exception as error:  # whatever goes wrong is a finding about this attack only
            self.faults.append(f'{type(error).__name__}: {error}')
        finally:
            test.doCleanups()
        return self.faults

    def watch(self, test):
        test.begin()
        client = test.client(items=['North.Stack1.NOx', 'South.Boiler.Steam'], level='integrity')
        ipids = {on: client('ipid', on=on) for on in ('server', 'group', 'items', 'sync')}
        own_set = self.ping(test.site)
        self.before = status(test.site, 'VmRSS')
        lines = len(self.lines(test.site))
        descriptors = self.descriptors(test.site)
        reader = harness.Steady(client)
        test.addCleanup(reader.stop.set)
        began = time.monotonic()
        attack = subprocess.Popen(
            [sys.executable, os.path.join(harness.HERE, 'attacks.py'), self.name, test.site.address, str(self.scale),
             *([json.dumps(ipids)] if self.name == 'foreign' else [])], stdout=subprocess.PIPE, text=True)
        test.addCleanup(attack.kill)
        time.sleep(0.5)
        logged_on = self.newcomer(test)
        gained, _ = attack.communicate(timeout=60 * self.scale)
        took = time.monotonic() - began
        self.check('the attack failed', attack.returncode == 0)
        self.check(gained.strip(), not gained)
        harness.wait_for('descriptors given back', lambda: self.descriptors(test.site) <= descriptors)
        time.sleep(1)  # what the attacker left behind is cleared away meanwhile
        waits = self.read_on(reader)
        self.check('the good client can no longer ping', self.ping(test.site, own_set) == own_set)
        self.ping(test.site)  # nor is a new ping set refused
        grown = status(test.site, 'VmHWM') - self.before
        new = self.lines(test.site)[lines:]
        self.check(f'a read waited {max(waits):.2f} s', max(waits) <= LONGEST_WAIT)
        self.check(f'a newcomer waited {logged_on:.1f} s', logged_on <= LONGEST_LOG_ON)
        self.check(f'{grown >> 10} MB of memory', grown <= MEMORY)
        self.check(f'{len(new)} lines in the log', len(new) <= LINES or self.name == EACH_READ_A_LINE)
        self.check('a line without end', max(map(len, new), default=0) <= LINE)
        self.check('the server ended', not test.site.exited())
        self.figures = (f'{took:5.1f} s, {len(waits)} reads, longest {1000 * max(waits):.0f} ms, '
                        f'newcomer {logged_on:.1f} s, {grown / 1024:.0f} MB, {len(new)} lines')

    def check(self, fault, good):
        if not good:
            self.faults.append(fault)

    def newcomer(self, test):
        """How long somebody else takes to log on and ask for the status meanwhile."""
        began = time.monotonic()
        client = test.client(level='integrity')
        self.check('the status is wrong', client('status')['state'] == 1)
        took = time.monotonic() - began
        client('close')
        client.kill()
        return took

    def read_on(self, reader):
        reader.longest_read()
        return reader.times

    def ping(self, site, set_id=0):
        """Keeps the good client's objects alive; gives its ping set."""
        connection = LoggedOn(site.address, ACTIVATION, [OBJECT_EXPORTER], harness.LOGON['user'],
                              harness.LOGON['password'])
        answer = connection.call(attacks.COMPLEX_PING, attacks.ping(set_id, 1, [4711], []))
        connection.close()
        if any(answer[12:16]):
            raise AssertionError(f'a ping is refused: {answer.hex()}')
        return int.from_bytes(answer[:8], 'little')

    @staticmethod
    def descriptors(site):
        return len(os.listdir(f'/proc/{site.process.pid}/fd'))

    @staticmethod
    def lines(site):
        return list(itertools.chain(site.log(), site.errors().splitlines()))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--server', required=True)
    parser.add_argument('--long', action='store_true')
    parser.add_argument('names', nargs='*', default=NAMES)
    options = parser.parse_args()
    harness.SERVER = os.path.abspath(options.server)
    os.environ.pop('DISPLAY', None)
    failed = 0
    for name in options.names:
        one = Beside(name, 5 if options.long else 1)
        faults = one.run()
        failed += bool(faults)
        print(f"{'FAILED' if faults else 'ok':7} {name:13} {one.figures}", *faults, sep='\n        ', flush=True)
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
