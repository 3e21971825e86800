"""The server on a database cluster whose nodes are lost one after the other, beside a client that reads all the time.
Runs where scripts/with-cluster has brought one up."""

import os
import signal
import subprocess
import time
import unittest

from harness import ROOT, SiteTest, program, wait_for

CONNECTION = os.environ.get('QUELM_CLUSTER_CONNECTION', '')


class Clusters(SiteTest):
    database = ()  # the words of load-schema

    def setUp(self):
        super().setUp()
        subprocess.run([os.path.join(ROOT, 'scripts', 'load-schema'), *self.database], check=True)
        self.connection = CONNECTION
        self.site.edit('Quelm.ini', *((f'Driver=SQLite;Database={self.site.path(name)}', self.connection)
                                      for name in ('configuration.db', 'realtime.db')),
                       ('[System]\n', '[System]\nConnectTimeout = 2\nQueryTimeout = 5\n'))
        writer = subprocess.Popen([program('DemoIOServer'), '--connection', self.connection], stderr=subprocess.DEVNULL)
        self.addCleanup(writer.wait)
        self.addCleanup(writer.kill)

    def node(self, number):
        with open(os.path.join(os.environ['QUELM_CLUSTER'], f'{number}.pid'), encoding='ascii') as file:
            return int(file.read())

    def signal(self, number, which):
        os.kill(self.node(number), which)

    def failures(self, since):
        return [line for line in self.site.log()[since:] if 'OPC-0192' in line or 'OPC-0182' in line]

    def until_values_are_read(self, since, what):
        """How many reads were lost on the way, and after how many seconds a pass had new values again."""
        began = time.monotonic()
        self.site.wait_log('[OPC-0127]', self.site.wait_log('[OPC-0183]', since, 90), 60)
        lost = self.failures(since)
        print(f'{what}: {len(lost)} failed reads, new values after {time.monotonic() - began:.1f} s', *lost, sep='\n    ')
        return lost

    def heartbeat_is_good(self, client):
        return all(item['quality'] & 0xC0 == 0xC0 for item in client('read')['items'])

    def start(self):
        self.site.start(beat=()).started()
        client = self.client(items=['North.Stack1.NOx.Raw', 'South.Boiler.Steam'])
        self.site.wait_pass()
        self.assertTrue(self.heartbeat_is_good(client))
        return client


@unittest.skipUnless('MariaDB' in CONNECTION, 'no MariaDB cluster: scripts/test --clusters brings one up')
class Galera(Clusters):
    database = ('--mariadb', '--host=127.9.0.1 --user=quelm quelm')

    def test_nodes_are_lost_and_the_last_one_refuses(self):
        client = self.start()
        reader = self.steady()

        since = len(self.site.log())
        self.signal('1', signal.SIGSTOP)
        self.assertLessEqual(len(self.until_values_are_read(since, 'the node in use frozen')), 2)
        self.signal('1', signal.SIGCONT)
        wait_for('the node is back', lambda: self.state('2') == '3')
        self.assertTrue(self.heartbeat_is_good(client))

        since = len(self.site.log())
        self.signal('2', signal.SIGKILL)
        self.assertLessEqual(len(self.until_values_are_read(since, 'a node killed')), 2)
        self.assertTrue(self.heartbeat_is_good(client))

        # Without a majority nobody answers, and nothing that could be old is shown as good for long.
        since = len(self.site.log())
        self.signal('1', signal.SIGKILL)
        wait_for('the reads fail', lambda: self.failures(since), 60)
        wait_for('the values turn bad', lambda: not self.heartbeat_is_good(client), 90)
        print('no majority:', *self.failures(since), sep='\n    ')
        self.assertLess(reader.longest_read(), 1)

    def state(self, number):
        """How many nodes a node sees."""
        answer = subprocess.run(['mariadb', f'--host=127.9.0.{number}', '--user=quelm', '--batch', '--skip-column-names',
                                 '-e', "SHOW STATUS LIKE 'wsrep_cluster_size'"], capture_output=True, text=True, check=False)
        return answer.stdout.split('\t')[-1].strip()


@unittest.skipUnless('PostgreSQL' in CONNECTION, 'no PostgreSQL cluster: scripts/test --clusters brings one up')
class Postgres(Clusters):
    database = ('host=127.9.0.1 user=quelm dbname=postgres',)

    def test_the_leader_is_lost_and_a_standby_refused(self):
        client = self.start()
        reader = self.steady()
        alone = CONNECTION.split(';pqopt')[0].replace('127.9.0.1,', '')
        with subprocess.Popen([program('DemoIOServer'), '--connection', alone], stderr=subprocess.PIPE, text=True) as asking:
            self.assertIn('this server is a standby: ', asking.stderr.readline())
            asking.kill()
        since = len(self.site.log())
        # Patroni first, which would start the server again.
        self.signal('1', signal.SIGKILL)
        with open(os.path.join(os.environ['QUELM_CLUSTER'], 'data1', 'postmaster.pid'), encoding='ascii') as file:
            os.kill(int(file.readline()), signal.SIGKILL)
        self.assertLessEqual(len(self.until_values_are_read(since, 'the leader killed')), 2)
        self.assertTrue(self.heartbeat_is_good(client))
        self.assertLess(reader.longest_read(), 1)


if __name__ == '__main__':
    unittest.main()
