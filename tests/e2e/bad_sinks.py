"""Sinks that misbehave, each in one way at one point."""

import os
import socket
import struct

from opc_sink import Connection, Fault, Sink


def hang(sink, _):
    sink.closed.wait()
    raise ConnectionError


def garbage(_, connection):
    connection.socket.sendall(os.urandom(4096))
    raise ConnectionError


def reset(_, connection):
    connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack('ii', 1, 0))
    connection.close()
    raise ConnectionError


def fault(*_):
    raise Fault(0x80010105)


def half(_, connection):
    """The beginning of an answer that would be long, and then nothing."""
    connection.socket.sendall(struct.pack('<BBBBIHHI', 5, 0, 2, 1, 0x10, 5000, 0, connection.header['call_id']) + bytes(100))
    hang(_, connection)


def flood(_, connection):
    """An answer without end."""
    body = struct.pack('<BBBBIHHIIHH', 5, 0, 2, 0, 0x10, 5024, 0, connection.header['call_id'], 0, 0, 0) + bytes(5000)
    connection.socket.sendall(body[:3] + b'\1' + body[4:])
    while True:
        connection.socket.sendall(body)


class BadSink(Sink):
    """does: the name of one of the ways above; at: the point, "PORT STEP", as in "object call". slowly: seconds that a
    callback takes."""

    def __init__(self, at=None, does=None, slowly=0, **options):
        self.at, self.do = at, does and globals()[does]
        self.slowly = slowly
        super().__init__(**options)

    def step(self, connection: Connection, name):
        if name == self.at:
            self.do(self, connection)

    def note(self, kind, call, connection):
        super().note(kind, call, connection)
        if self.at == 'callback':
            self.do(self, connection)
        self.closed.wait(self.slowly)
