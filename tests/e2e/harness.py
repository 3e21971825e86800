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

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
SERVER = None  # path of the server under test, set by run.py

# Every site listens on a loopback address of its own, so that tests run side by side.
_addresses = itertools.count(11)
_address_lock = threading.Lock()


def next_address():
    with _address_lock:
        return f'127.0.1.{next(_addresses)}'


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

    def __init__(self, dcom='', accounts='DEMO\\operator = password:stack-7'):
        self.folder = tempfile.mkdtemp(prefix='quelm-e2e-')
        self.address = next_address()
        subprocess.run([os.path.join(ROOT, 'demo', 'make-site'), self.folder, self.address], check=True,
                       stdout=subprocess.DEVNULL)
        if dcom or accounts:
            with open(self.path('dcom.conf'), 'w') as file:
                os.chmod(file.fileno(), 0o600)
                file.write(f'[Listen]\nAddress = {self.address}\n[Security]\n{dcom}\n[Accounts]\n{accounts}\n')
        self.process = None
        self.stderr = ''

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def write(self, name, contents):
        """Replaces one of the site's files; text or bytes."""
        with open(self.path(name), 'wb') as file:
            file.write(contents.encode() if isinstance(contents, str) else contents)

    def edit(self, name, *changes):
        """Replaces pieces of one of the site's files; each must be there."""
        with open(self.path(name)) as file:
            text = file.read()
        for old, new in changes:
            assert old in text, f'{name} has no {old!r}'
            text = text.replace(old, new)
        self.write(name, text)

    def execute(self, name, script):
        """Runs SQL statements on one of the site's databases."""
        connection = self.database(name)
        connection.executescript(script)
        connection.close()

    def database(self, name='realtime.db'):
        connection = sqlite3.connect(self.path(name), timeout=10, isolation_level=None)
        connection.execute('PRAGMA busy_timeout = 10000')
        return connection

    def beat(self, generation='IOS'):
        """The I/O server's heartbeat: now."""
        connection = self.database()
        connection.execute("UPDATE CurrentIO SET TStamp = strftime('%Y-%m-%d %H:%M:%f', 'now', 'localtime') WHERE IOID LIKE ?",
                           (generation + '%.AllCommsOk',))
        connection.close()

    def start(self, *arguments, beat=True, environment=None, prefix=(), descriptors=()):
        """prefix: the words of a command that ends in running the server in its own process."""
        if beat:
            self.beat()
        self.stderr_file = open(self.path('stderr.txt'), 'w')
        self.process = subprocess.Popen(
            [*prefix, SERVER, *arguments], stdin=subprocess.DEVNULL, stdout=open(self.path('stdout.txt'), 'w'),
            stderr=self.stderr_file, pass_fds=descriptors,
            env={**os.environ, 'QUELM_INI': self.path('Quelm.ini'), 'QUELM_DCOM_CONF': self.path('dcom.conf'),
                 **(environment or {})})
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
        with open(self.path('stderr.txt')) as file:
            return file.read()

    def output(self):
        with open(self.path('stdout.txt')) as file:
            return file.read()

    def log(self):
        """The lines of the log, without their time stamps."""
        lines = []
        for name in sorted(glob.glob(self.path('logs', '*.log'))):
            with open(name) as file:
                lines += [re.sub(r'^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} ', '', line.rstrip('\n')) for line in file]
        return lines

    def logged(self, text):
        return [line for line in self.log() if text in line]

    def wait_log(self, text, count=1, seconds=30):
        wait_for(f'{count} log line(s) with {text!r}', lambda: len(self.logged(text)) >= count, seconds)

    def wait_error(self, text, count=1, seconds=30):
        wait_for(f'{count} line(s) with {text!r} on standard error', lambda: self.errors().count(text) >= count, seconds)

    def wait_pass(self):
        """Until an update pass that saw an enabled snapshot read has been made."""
        def complete():
            lines = self.log()
            reads = [i for i, line in enumerate(lines) if 'CurrentIO' in line and 'OPC-018' in line]
            return reads and any('[OPC-0127]' in line for line in lines[reads[0]:])
        wait_for('first update pass after a read', complete, 60)
        time.sleep(0.2)  # the line is written before the items are

    def terminate(self):
        self.process.send_signal(signal.SIGTERM)

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
        self.process.stdin.write(json.dumps({'do': operation, **arguments}) + '\n')
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        if not line:
            raise ClientError('client process ended')
        return json.loads(line)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def end(self):
        self.process.stdin.close()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.kill()
        self.process.stdout.close()


class ClientError(Exception):
    pass


class NodeClient(Client):
    def __init__(self):
        super().__init__(['node', os.path.join(ROOT, 'demo', 'client', 'session.js')],
                         {'NODE_OPTIONS': '--openssl-legacy-provider'})


class ImpacketClient(Client):
    def __init__(self):
        super().__init__([sys.executable, os.path.join(HERE, 'impacket_session.py')])
