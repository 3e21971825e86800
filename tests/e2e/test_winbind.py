"""Accounts of a Windows-style domain that log on by NTLM: on a machine that is joined to a throw-away domain, over winbind."""

import os
import shutil
import subprocess
import threading
import time
import unittest

import domain
import test_domain
from harness import ClientError, ImpacketClient, SiteTest, wait_for

ITEMS = test_domain.ITEMS
PATIENCE = 10  # seconds that a log-on waits for the domain at most


def missing():
    """Why no machine can be joined to a domain here; empty when one can."""
    lacking = [name for name in ('winbindd', 'wbinfo', 'net', 'smbd', 'setpriv') if shutil.which(name) is None]
    if lacking:
        return f'not installed: {", ".join(lacking)}'
    with open('/proc/self/uid_map') as file:
        if os.geteuid() or file.read().split() != ['0', '0', '4294967295']:
            return 'joining a machine needs root'
    return test_domain.missing()


class Joined(test_domain.Domain):
    """The one domain with a machine that is joined to it."""
    script, address = 'member.py', '10.53.57.30'
    spaces = ['-m', '-p', '--fork', '--kill-child']  # so that all its processes end with it
    turn = threading.Lock()

    def __init__(self):
        super().__init__()
        with open(self.path('member')) as file:
            self.inside = ['nsenter', f'--mount=/proc/{file.read()}/ns/mnt']

    def order(self, what):
        before = self.output().count(f'{what}\n')
        self.process.stdin.write(f'{what}\n')
        self.process.stdin.flush()
        wait_for(what, lambda: self.output().count(f'{what}\n') > before, 90)

    def answers(self):
        """Once the domain's accounts can log on again."""
        asked = [*self.inside, 'wbinfo', '-a', f'EXAMPLE\\alice%{domain.PASSWORD}']
        wait_for('winbind', lambda: subprocess.run(asked, capture_output=True).returncode == 0, 120)


@unittest.skipIf(missing(), missing())
class Winbind(SiteTest):
    def setUp(self):
        super().setUp()
        self.domain = Joined.one()
        self.domain.turn.acquire()
        self.addCleanup(self.domain.turn.release)
        self.domain.name_host(self.site.address)

    def serve(self, access, *more, prefix=()):
        settings = '\n'.join([f'[Access]\n{access}', '[Security]', 'Winbind = yes', *more])
        self.site.edit('dcom.conf', ('[Security]', settings))
        self.site.start(environment={'KRB5_CONFIG': self.domain.path('krb5.conf')},
                        prefix=[*self.domain.inside, *prefix]).started()

    def kept_out(self, user, *words, password=domain.PASSWORD, where='EXAMPLE'):
        client = ImpacketClient()
        self.addCleanup(client.kill)
        with self.refused(*words):
            with self.assertRaises(ClientError):
                client('connect', address=self.site.address, user=user, password=password, domain=where)

    def let_in(self, user, where='EXAMPLE'):
        client = self.client(items=ITEMS, user=user, password=domain.PASSWORD, domain=where)
        self.assertEqual(client('read')['errors'], [0, 0])
        return client

    def by_ticket(self, kind):
        client = test_domain.DomainClient(kind, self.domain)
        self.addCleanup(client.kill)
        where = domain.HOST if kind == 'samba' else self.site.address
        client('connect', address=where, user='alice', password=domain.PASSWORD)
        return client

    def test_who_may_come_in_does_so_under_one_name_and_who_may_not_is_told_why(self):
        self.serve('Groups = EXAMPLE\\OPC Readers, EXAMPLE\\No Such Group', 'ComputerName = OPC',
                   f"Keytab = {self.domain.path('keytab')}")
        self.site.wait_error('"EXAMPLE\\No Such Group" is no group of the domain\'s')
        for user, where in (('carol', 'EXAMPLE'), ('alice', 'EXAMPLE'), ('ALICE', 'example.test'),
                            ('alice@example.test', '')):
            with self.subTest(user=user, where=where):
                self.let_in(user, where)
        self.by_ticket('samba')
        told = {line.split('(')[1].split(',')[0] for line in self.site.logged('is here')}
        self.assertEqual(told, {"account 'EXAMPLE\\carol'", "account 'EXAMPLE\\alice'"})
        self.client(items=ITEMS)  # of the settings
        self.kept_out('bob', "account 'EXAMPLE\\bob'", 'a member of none of the groups', 'EXAMPLE\\OPC Readers')
        self.kept_out('alice', 'the domain calls its password wrong', password='another')
        self.kept_out('nobody', 'neither this server nor its domain knows the account')

    def test_a_domain_that_is_away_costs_only_those_who_need_it(self):
        self.serve('Groups = EXAMPLE\\OPC Readers', 'ComputerName = OPC', f"Keytab = {self.domain.path('keytab')}")
        self.site.wait_log('Accounts of the domain EXAMPLE can log on by NTLM')
        holder = self.by_ticket('impacket')
        reader = self.steady()
        for order, back, reason in (('freeze', 'thaw', f'winbind has not answered for {PATIENCE} s'),
                                    ('kill', 'start', 'none of its controllers answers'),
                                    ('stop-winbind', 'start-winbind', 'winbind is not running')):
            with self.subTest(order):
                self.domain.order(order)
                try:
                    begun = time.monotonic()
                    waiting = threading.Thread(target=self.kept_out, args=('alice', 'the domain cannot be asked', reason))
                    waiting.start()
                    self.client(items=ITEMS)
                    holder('again')
                    waiting.join()
                    self.assertLess(time.monotonic() - begun, PATIENCE + 10)
                finally:
                    self.domain.order(back)
                    self.domain.answers()
                self.let_in('alice')
        self.assertLess(reader.longest_read(), PATIENCE / 5)

    def test_a_server_that_may_not_ask_says_so(self):
        for folder, _, files in os.walk(self.site.folder):
            for name in (folder, *(os.path.join(folder, file) for file in files)):
                os.chown(name, 65534, 65534)
        self.serve('Groups = EXAMPLE\\OPC Readers',
                   prefix=['setpriv', '--reuid=65534', '--regid=65534', '--clear-groups', '--ambient-caps=+net_bind_service',
                           '--inh-caps=+net_bind_service'])
        words = 'winbind does not let this server ask about log-ons', 'winbindd_priv'
        for word in words:
            self.site.wait_error(word)
        self.kept_out('alice', *words)
        self.client(items=ITEMS)


if __name__ == '__main__':
    unittest.main()
