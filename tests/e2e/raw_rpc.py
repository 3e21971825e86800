"""RPC messages made by hand, and the bare connections that carry them: for what no well-behaved client library sends."""

import socket
import struct
import uuid
from contextlib import suppress

from impacket import ntlm

ACTIVATION, OBJECTS = 135, 49200
REQUEST, RESPONSE, FAULT, BIND, BIND_NAK, ALTER_CONTEXT, AUTH3 = 0, 2, 3, 11, 13, 14, 16
FIRST, LAST, OBJECT = 1, 2, 0x80
CONNECT = 2

NDR = uuid.UUID('8A885D04-1CEB-11C9-9FE8-08002B104860').bytes_le + struct.pack('<I', 2)
OBJECT_EXPORTER = '99FCFEC4-5260-101B-BBCB-00AA0021347A'  # its calls need no log-on
ACTIVATOR = '4D9F4AB8-7D1C-11CF-861E-0020AF6E7C57'
REM_UNKNOWN = '00000131-0000-0000-C000-000000000046'


def pdu(kind, body=b'', flags=FIRST | LAST, call=1, auth=0):
    return struct.pack('<BBBBIHHI', 5, 0, kind, flags, 0x10, 16 + len(body), auth, call) + body


def with_log_on(kind, body, token, level=CONNECT, context=1, call=1):
    """A message of a log-on: an NTLM token behind the body."""
    return pdu(kind, body + struct.pack('<BBBBI', 10, level, 0, 0, context) + bytes(token), call=call, auth=len(token))


def contexts(*interfaces):
    """The body of a bind."""
    body = struct.pack('<HHIBBH', 5840, 5840, 0, len(interfaces), 0, 0)
    for context, interface in enumerate(interfaces):
        body += struct.pack('<HBB', context, 1, 0) + uuid.UUID(interface).bytes_le + struct.pack('<I', 0) + NDR
    return body


def bind(*interfaces):
    return pdu(BIND, contexts(*interfaces))


def request(opnum, stub=b'', context=0, flags=FIRST | LAST, call=2, target=None):
    body = struct.pack('<IHH', len(stub), context, opnum) + (target.bytes_le if target else b'') + stub
    return pdu(REQUEST, body, flags | (OBJECT if target else 0), call)


def requests(opnum, stub, context, target):
    """A call in as many messages as it takes."""
    pieces = [stub[at:at + 5600] for at in range(0, max(len(stub), 1), 5600)]
    return b''.join(request(opnum, piece, context, (FIRST if number == 0 else 0)
                            | (LAST if number == len(pieces) - 1 else 0), target=target)
                    for number, piece in enumerate(pieces))


def messages(connection):
    """The PDUs that arrive, up to the connection's end."""
    arriving = connection.makefile('rb')
    with suppress(ConnectionError):
        while len(header := arriving.read(16)) == 16:
            yield header + arriving.read(struct.unpack_from('<H', header, 8)[0] - 16)


def status_of(fault):
    return struct.unpack_from('<I', fault, 24)[0]


def answer_to(first, answer, user, password):
    """The last message of a log-on, to a server's message with its challenge."""
    size = struct.unpack_from('<H', answer, 10)[0]
    return ntlm.getNTLMSSPType3(first, answer[-size:], user, password, 'DEMO')[0].getData()


class Fault(OSError):
    """A call was answered with an RPC fault."""


class Raw:
    """A bare connection."""

    def __init__(self, address, port, source=None):
        """source: the client's own address, for a client from another host."""
        self.socket = socket.create_connection((address, port), timeout=10, source_address=source and (source, 0))
        self.messages = messages(self.socket)

    def send(self, data):
        self.socket.sendall(data)
        return self

    def receive(self):
        return next(self.messages)

    def log_on(self, interfaces, user, password):
        first = ntlm.getNTLMSSPType1('', '')
        answer = self.send(with_log_on(BIND, contexts(*interfaces), first.getData())).receive()
        self.send(with_log_on(AUTH3, bytes(4), answer_to(first, answer, user, password)))

    def close(self):
        self.messages.close()
        self.socket.close()


class LoggedOn(Raw):
    """A connection with a log-on by NTLMv2 at the level connect, whose calls need no signature."""

    def __init__(self, address, port, interfaces, user, password, source=None):
        super().__init__(address, port, source)
        self.log_on(interfaces, user, password)

    def call(self, opnum, stub, context=0, target=None):
        """What the call gives."""
        return self.send(requests(opnum, stub, context, target)).result()

    def result(self):
        """The same for a call that was sent before."""
        result = bytearray()
        for message in self.messages:
            if message[2] == FAULT:
                raise Fault(f'{status_of(message):#x}')
            if message[2] == RESPONSE:
                result += message[24:len(message) - (8 + 16 if struct.unpack_from('<H', message, 10)[0] else 0)]
                if message[3] & LAST:
                    return bytes(result)
        raise OSError('the connection ended')
