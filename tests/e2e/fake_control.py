"""Stands in for the server behind its control socket: a plant of any size, and answers that no server should give."""

import contextlib
import json
import os
import socket
import threading
from datetime import datetime, timezone

WORDS = {192: 'good', 64: 'uncertain', 0: 'bad'}


def now():
    return datetime.now(timezone.utc).isoformat(timespec='milliseconds').replace('+00:00', 'Z')


class FakeControl:
    def __init__(self, path, items=100_000):
        self.path, self.started, self.asked, self.instead = path, now(), [], None
        self.connections = []
        self.names = [f'Site{1 + i // 50_000}.Unit{i // 100 % 500:03}.Value{i:06}' for i in range(items)]
        self.listening = socket.socket(socket.AF_UNIX)
        self.listening.bind(path)
        self.listening.listen()
        threading.Thread(target=self.accept, daemon=True).start()

    def end(self):
        os.remove(self.path)
        self.listening.shutdown(socket.SHUT_RDWR)
        for connection in self.connections:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)

    def accept(self):
        while True:
            try:
                connection, _ = self.listening.accept()
            except OSError:
                return
            self.connections.append(connection)
            threading.Thread(target=self.serve, args=(connection,), daemon=True).start()

    def serve(self, connection):
        with connection, connection.makefile('rb') as lines:
            for line in lines:
                request = json.loads(line)
                self.asked.append(request)
                answer = getattr(self, request['ask'])(request) if self.instead is None else self.instead
                try:
                    connection.sendall(answer if isinstance(answer, bytes) else json.dumps(answer).encode() + b'\n')
                except OSError:
                    return

    @staticmethod
    def quality(number):
        return 0 if number % 97 == 5 else 64 if number % 31 == 7 else 192

    def reading(self, number):
        quality = self.quality(number)
        return {'id': self.names[number], 'site': self.names[number].split('.')[0], 'value': number / 8, 'type': 'VT_R8',
                'quality': quality, 'qualityText': WORDS[quality], 'time': now()}

    def status(self, _):
        sites = [{'site': f'Site{each}', 'lastPass': now(), 'passMilliseconds': 12.5, 'passes': 7, 'lastSnapshot': now(),
                  'snapshotMilliseconds': 48.25, 'snapshots': 8, 'snapshotsFailed': each - 1,
                  'database': ('up', 'down')[each - 1], 'databaseMessage': ('', '<b>no route</b>')[each - 1],
                  'items': 50_000, 'good': 48_000, 'uncertain': 1_500, 'bad': 500} for each in (1, 2)]
        return {'version': '5.0.0', 'process': 4711, 'started': self.started, 'now': now(), 'keepRunning': True,
                'unloadsIn': None, 'memoryBytes': 91_234_304, 'passes': 14, 'sites': sites, 'clients': 1, 'groups': 1,
                'connections': 2, 'calls': 1234, 'refusals': 0, 'callbacks': 99, 'callbacksFailed': 1,
                'deviceReadWaits': 0, 'longestTurnMilliseconds': 3.5}

    def clients(self, _):
        group = {'name': 'trend', 'active': True, 'rateMilliseconds': 20_000, 'items': 250, 'activeItems': 240,
                 'callbacks': 'failing'}
        return {'clients': [{'address': '10.0.0.5', 'account': 'PLANT\\historian', 'level': 'privacy', 'since': self.started,
                             'lastCall': now(), 'calls': 1234, 'bytesHeld': 18_000, 'name': '<i>Historian</i>',
                             'groups': [group]}], 'more': False}

    def items(self, request):
        found = [i for i, name in enumerate(self.names)
                 if request['name'].lower() in name.lower() and name.startswith(request['site'])
                 and request['quality'] in ('', WORDS[self.quality(i)])]
        begin = request['from']
        return {'total': len(found), 'from': begin,
                'items': [self.reading(i) for i in found[begin:begin + request['count']]]}

    def messages(self, request):
        numbers = range(max(request['after'], 0) + 1, 31)
        return {'messages': [{'number': i, 'time': self.started, 'type': ('Information', 'Error')[i % 5 == 0],
                              'text': f'[OPC-0127] <u>Update</u> tag values {i}'} for i in numbers][:200], 'last': 30}
