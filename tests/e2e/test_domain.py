"""Accounts of a Windows-style domain: log-ons with Kerberos tickets by two clients of different make, in a throw-away
domain."""

import atexit
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

import domain
from harness import HERE, Client, ClientError, SiteTest, wait_for

ITEMS = ['North.Stack1.NOx', 'South.Boiler.Steam']


def missing():
    """Why there can be no domain here; empty when there can."""
    try:
        import samba.provision  # noqa: F401
        import samba.samdb  # noqa: F401
    except ImportError:
        return 'samba and its Python bindings are not installed'
    lacking = [name for name in ('samba', 'samba-tool', 'kinit', 'kvno', 'nsenter') if shutil.which(name) is None]
    if lacking or not os.path.isdir('/usr/share/samba/setup'):
        return f'not installed: {", ".join(lacking) or "samba-ad-provision"}'
    if subprocess.run(['unshare', '-m', 'true'], capture_output=True).returncode:
        return 'mount namespaces are not to be had here'
    return ''


class Domain:
    """The one domain of a run of the tests."""
    script, address, spaces = 'domain.py', domain.ADDRESS, ['-m']
    _lock, _one = threading.Lock(), None
    turn = threading.Lock()  # of the site that has the name which clients ask tickets for

    @classmethod
    def one(cls):
        with cls._lock:
            if '_one' not in vars(cls) or cls._one is None:
                cls._one = cls()
            return cls._one

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix='quelm-domain-')
        atexit.register(self.end)
        os.chmod(self.folder, 0o755)
        self.hosts = os.path.join(self.folder, 'hosts')
        self.name_host('127.0.0.1')
        with open(os.path.join(self.folder, 'output'), 'w') as output:
            self.process = subprocess.Popen(['unshare', *self.spaces, sys.executable, os.path.join(HERE, self.script), self.folder],
                                            stdin=subprocess.PIPE, stdout=output, stderr=output, text=True)
        wait_for('the domain', lambda: self.process.poll() is not None or 'ready\n' in self.output(), 120)
        if self.process.poll() is not None:
            raise AssertionError(self.output())
        with open(os.path.join(self.folder, 'sids.json')) as file:
            self.sids = json.load(file)

    def name_host(self, address):
        """Where the clients find the server that they have tickets for."""
        with open(self.hosts, 'w') as file:
            file.write(f'127.0.0.1 localhost\n{self.address} dc1.example.test dc1\n'
                       f'{address} {domain.HOST} other.example.test\n')

    def output(self):
        with open(os.path.join(self.folder, 'output')) as file:
            return file.read()

    def end(self):
        self.process.stdin.close()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
        shutil.rmtree(self.folder, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.folder, name)


class DomainClient(Client):
    def __init__(self, kind, where):
        super().__init__(['nsenter', f'--mount=/proc/{where.process.pid}/ns/mnt', sys.executable,
                          os.path.join(HERE, 'domain_session.py'), kind],
                         {'KRB5_CONFIG': where.path('krb5.conf')})


@unittest.skipIf(missing(), missing())
class Kerberos(SiteTest):
    def setUp(self):
        super().setUp()
        self.domain = Domain.one()
        self.domain.turn.acquire()
        self.addCleanup(self.domain.turn.release)
        self.domain.name_host(self.site.address)

    def serve(self, access, keytab='keytab'):
        self.site.edit('dcom.conf', ('[Security]', f'[Access]\n{access}\n[Security]\nComputerName = OPC\nKeytab = {self.domain.path(keytab)}'))
        self.site.start(environment={'KRB5_CONFIG': self.domain.path('krb5.conf')}).started()

    def person(self, kind, user, **logon):
        client = DomainClient(kind, self.domain)
        self.addCleanup(client.kill)
        where = {'address': domain.HOST} if kind == 'samba' else {'address': self.site.address}
        client.logon = {**where, 'user': user, 'password': domain.PASSWORD, **logon}
        return client

    def let_in(self, kind, user, **logon):
        client = self.person(kind, user, **logon)
        try:
            client('connect', **client.logon)
        except ClientError as error:
            raise AssertionError(f'{error}: {self.site.errors()}') from None
        client('watch', items=ITEMS)
        self.assertEqual(client('read')['errors'], [0, 0])
        return client

    def kept_out(self, kind, user, *words, **logon):
        client = self.person(kind, user, **logon)
        with self.refused(*words):
            with self.assertRaises(ClientError):
                client('connect', **client.logon)

    def test_domain_accounts_read_with_tickets(self):
        self.serve(f"Groups = {self.domain.sids['OPC Readers']}\nUsers = EXAMPLE\\nobody, bob@example.test")
        for options in ('spnego,seal', 'spnego,sign', 'krb5,seal', 'krb5,sign'):
            with self.subTest(options):
                client = self.let_in('samba', 'alice', options=options)
                self.assertEqual(client('services'),
                                 [[9, f'host/{domain.HOST}'], [16, f'host/{domain.HOST}'], [10, '']])
        self.let_in('impacket', 'alice')
        self.let_in('samba', 'bob')
        told = {line.split('(')[1].split(',')[0] for line in self.site.logged('is here')}
        self.assertEqual(told, {"account 'EXAMPLE\\alice'", "account 'EXAMPLE\\bob'"})
        # The accounts of the settings log on as ever.
        self.client(items=ITEMS)

    def test_who_is_kept_out_is_told_why(self):
        self.serve(f"Groups = {self.domain.sids['OPC Readers']}")
        self.kept_out('samba', 'bob', "account 'EXAMPLE\\bob'", 'a member of none of the groups',
                      self.domain.sids['OPC Readers'], 'name it or one of its groups under [Access]')
        self.kept_out('samba', 'bob', "account 'EXAMPLE\\bob'", 'a member of none', options='krb5,sign')
        self.kept_out('impacket', 'bob', 'a member of none of the groups')
        self.kept_out('impacket', 'alice', 'for a service of which the keytab has no key', 'make the keytab',
                      ask='other.example.test')
        self.kept_out('impacket', 'alice', 'more than five minutes apart', 'set the clocks', skew=900)
        client = self.person('impacket', 'carol')
        client('record')
        client('connect', **client.logon)
        with self.refused('was sent before'):
            self.assertEqual(client('replay', address=self.site.address), 13)
        self.assertEqual(client('status')['state'], 1)


if __name__ == '__main__':
    unittest.main()
