"""Runs the real server on a site of its own and real clients against it."""

import glob
import itertools
import json
import os
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager

from plant import EXPECTED, precise

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
SERVER = None  # path of the server under test, set by run.py

OPEN = 'MinimumLevel = connect\nAllowNTLMv1 = yes\n'
LOGON = {'user': 'operator', 'password': 'stack-7'}

# Every site listens on a loopback address of its own, so that tests run side by side.
_addresses = itertools.count()
_address_lock = threading.Lock()


def next_address():
    """All of one length, so that one can take another's place in a message."""
    with _address_lock:
        block, number = divmod(next(_addresses), 89)
        return f'127.0.{1 + block}.{11 + number}'


def program(name):
    """A program that was built beside the server."""
    return os.path.join(os.path.dirname(SERVER), name)


def wait_for(what, condition, seconds=30):
    """Polls until the condition gives something true, which is returned."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f'{what}: not within {seconds} s')
        time.sleep(0.05)


class Site:
    """A demo site in a folder of its own: INI, DCOM settings, databases, logs; and the server process on it."""

    def __init__(self, weak=False):
        """weak: lets in the display client, which neither signs nor knows NTLMv2."""
        self.folder = tempfile.mkdtemp(prefix='quelm-e2e-')
        self.address = next_address()
        subprocess.run([os.path.join(ROOT, 'demo', 'make-site'), self.folder, self.address], check=True,
                       stdout=subprocess.DEVNULL)
        # Clients that die without a word are noticed sooner than in a plant.
        self.write('dcom.conf', self.read('dcom.conf') + '\n[Clients]\nFirstPing = 10\nCloseGrace = 5\n')
        if not weak:
            self.edit('dcom.conf', (OPEN, ''))
        self.logs = self.path('logs')
        self.process = None

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def read(self, name):
        with open(self.path(name)) as file:
            return file.read()

    def write(self, name, contents):
        """Replaces one of the site's files; text or bytes."""
        with open(self.path(name), 'wb') as file:
            file.write(contents.encode() if isinstance(contents, str) else contents)

    def edit(self, name, *changes):
        """Replaces pieces of one of the site's files; each must be there."""
        text = self.read(name)
        for old, new in changes:
            assert old in text, f'{name} has no {old!r}'
            text = text.replace(old, new)
        self.write(name, text)

    def database(self, name='realtime.db'):
        connection = sqlite3.connect(self.path(name), timeout=10, isolation_level=None)
        connection.execute('PRAGMA busy_timeout = 10000')
        return connection

    def execute(self, name, script):
        """Runs SQL statements on one of the site's databases."""
        connection = self.database(name)
        connection.executescript(script)
        connection.close()

    def beat(self, name='realtime.db'):
        """The I/O servers' heartbeats: now."""
        self.execute(name, "UPDATE CurrentIO SET TStamp = strftime('%Y-%m-%d %H:%M:%f', 'now', 'localtime') "
                           "WHERE IOID LIKE 'IOS%.AllCommsOk'")

    @contextmanager
    def changing(self):
        """Meanwhile each reading finds another value of South.Boiler.Steam, and another quality of South.Boiler.Pressure."""
        done = threading.Event()

        def change():
            while not done.wait(2):
                now = time.time()
                self.execute('realtime.db', f"""UPDATE CurrentIO SET NValue = {now % 1000} WHERE IOID = 'C11';
                    UPDATE CurrentIO SET NValue = {65 * (now // 20 % 2)} WHERE IOID = 'C22'""")
        changer = threading.Thread(target=change, daemon=True)
        changer.start()
        try:
            yield
        finally:
            done.set()
            changer.join()

    def start(self, *arguments, beat=('realtime.db',), environment=None, prefix=(), descriptors=()):
        """beat: the databases whose I/O servers live; prefix: the words of a command that ends in running the server in
        its own process."""
        for name in beat:
            self.beat(name)
        with open(self.path('stdout.txt'), 'w') as output, open(self.path('stderr.txt'), 'w') as errors:
            self.process = subprocess.Popen(
                [*prefix, SERVER, *arguments], stdin=subprocess.DEVNULL, stdout=output, stderr=errors,
                pass_fds=descriptors, env={**os.environ, 'QUELM_INI': self.path('Quelm.ini'),
                                           'QUELM_DCOM_CONF': self.path('dcom.conf'),
                                           'QUELM_CONTROL': self.path('control'), **(environment or {})})
        return self

    def started(self):
        wait_for('startup complete', lambda: self.exited() or self.logged('startup complete'))
        if self.exited():
            raise AssertionError(f'server ended with {self.process.returncode}: {self.errors()}')
        return self

    def exited(self):
        return self.process.poll() is not None

    def exit_code(self, seconds=30):
        try:
            return self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise AssertionError(f'server still runs after {seconds} s') from None

    def errors(self):
        return self.read('stderr.txt')

    def output(self):
        return self.read('stdout.txt')

    def log(self):
        """The lines that the process has logged, without their time stamps."""
        return [re.sub(r'^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} ', '', line)
                for name in sorted(glob.glob(f'{self.logs}/*.{self.process.pid:05}*.log'))
                for line in self.read(name).splitlines()]

    def logged(self, text):
        return [line for line in self.log() if text in line]

    def wait_log(self, text, after=0, seconds=45):
        """The number of the first log line from a given one on that has the text."""
        return wait_for(f'log line with {text!r}', lambda: next(
            (i + 1 for i, line in enumerate(self.log()) if i >= after and text in line), None), seconds)

    def wait_error(self, text):
        wait_for(f'{text!r} on standard error', lambda: text in self.errors())

    def wait_pass(self, after=0):
        """Until an update pass has been made of what was read after a given log line; the number of its line."""
        return self.wait_log('[OPC-0127]', self.wait_log('[OPC-0183]', after))

    def terminate(self):
        self.process.send_signal(signal.SIGTERM)

    def interrupt(self):
        self.process.send_signal(signal.SIGINT)

    def remove(self):
        if self.process and not self.exited():
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)


class Client:
    """One client process, spoken to by lines of JSON."""

    def __init__(self, command, environment=None):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True, env={**os.environ, **(environment or {})})

    def __call__(self, operation, **arguments):
        """The answer; raises ClientError with the client's own words when it failed."""
        answer = self.raw(operation, **arguments)
        if 'error' in answer:
            raise ClientError(answer['error'])
        return answer['ok']

    def raw(self, operation, **arguments):
        self.send(operation, **arguments)
        line = self.process.stdout.readline()
        if not line:
            raise ClientError('client process ended')
        return json.loads(line)

    def send(self, operation, **arguments):
        self.process.stdin.write(json.dumps({'do': operation, **arguments}) + '\n')
        self.process.stdin.flush()

    def kill(self):
        self.process.kill()
        self.process.wait()


class ClientError(Exception):
    pass


class NodeClient(Client):
    def __init__(self):
        super().__init__(['node', os.path.join(ROOT, 'demo', 'client', 'session.js')],
                         {'NODE_OPTIONS': '--openssl-legacy-provider'})


class ImpacketClient(Client):
    def __init__(self):
        super().__init__([sys.executable, os.path.join(HERE, 'impacket_session.py')])


class Steady:
    """A good client that reads all the time."""

    def __init__(self, client):
        self.client, self.stop = client, threading.Event()
        self.times = []
        self.reading = ThreadPoolExecutor(1).submit(self.read)

    def read(self):
        while not self.stop.wait(0.02):
            began = time.monotonic()
            answer = self.client('read')
            assert answer['errors'] == [0, 0], answer
            self.times.append(time.monotonic() - began)

    def longest_read(self):
        """In seconds, once it has read on for a while; raises what it met."""
        before = len(self.times)
        wait_for('further reads', lambda: self.reading.done() or len(self.times) > before + 5)
        self.stop.set()
        self.reading.result()
        return max(self.times)


class SiteTest(unittest.TestCase):
    """A test on a site of its own."""
    maxDiff = None
    weak = False

    def setUp(self):
        self.site = Site(self.weak)
        self.addCleanup(self.site.remove)

    def client(self, kind=ImpacketClient, items=(), **logon):
        """A client that has logged on and watches these items."""
        client = kind()
        self.addCleanup(client.kill)
        client('connect', address=self.site.address, **{**LOGON, **logon})
        if items:
            client('watch', items=list(items))
        return client

    def assert_serves(self):
        client = self.client()
        self.assertEqual(sorted(client('browse')), sorted(EXPECTED))
        return client

    @contextmanager
    def refused(self, *words):
        """One client is refused meanwhile, which one plain line tells with these words."""
        def refusals():
            return [line for line in self.site.errors().splitlines() if 'Refused OPC client' in line]
        before = len(refusals())
        yield
        line, = wait_for('refusal line', lambda: refusals()[before:])
        for word in (*words, '; remedy: '):
            self.assertIn(word, line)

    def steady(self):
        reader = Steady(self.client(items=['North.Stack1.NOx', 'South.Boiler.Steam']))
        self.addCleanup(reader.stop.set)
        return reader

    def assert_values(self, client, expected):
        """What the client reads of these items, to the digit; gives the readings by item."""
        readings = {r['itemID']: r for r in client('read', items=list(expected))['items']}
        self.assertEqual({name: (precise(expected[name][0], r['value']), f"{r['quality']:#06x}", r['error'])
                          for name, r in readings.items()},
                         {name: (precise(kind, value), f'{quality:#06x}', 0)
                          for name, (kind, value, quality) in expected.items()})
        return readings
