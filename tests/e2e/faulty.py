"""Stands between a client and the server, in both directions, and alters what they say, so that it is a server with a fault.
Only at the level "connect", where nothing protects calls and answers."""

import socket
import struct
import threading
import time
import uuid

REQUEST, RESPONSE, BIND, ALTER_CONTEXT = 0, 2, 11, 14
PORTS = (135, 49200)
CLIENT = '127.0.0.1'  # where the client waits for callbacks
CALLBACK = uuid.UUID('39C13A70-011E-11D0-9675-0020AFD8ADB3')
DATA_CHANGE, READ_COMPLETE = 3, 4
# Where a call's parameters stand, and what each callback with items has first.
PARAMETERS = 32
TRANSACTION, GROUP, MASTER_QUALITY, COUNT, FIRST_HANDLE = (PARAMETERS + at for at in (0, 4, 8, 16, 24))
DROP, TWICE_MORE = 'drop', 'twice more'  # what becomes of a callback


def u32(number):
    return struct.pack('<I', number & 0xFFFFFFFF)


def at(stub, place):
    return struct.unpack_from('<I', stub, place)[0]


def result(before, after):
    """Another result of the call, which stands at the end of an answer."""
    def alter(stub):
        if stub[-4:] == u32(before):
            stub[-4:] = u32(after)
    return alter


def number(before, after):
    """Another number, wherever it stands in an answer."""
    def alter(stub):
        for place in range(8, len(stub) - 3, 4):
            if stub[place:place + 4] == u32(before):
                stub[place:place + 4] = u32(after)
    return alter


def parameter(place, change):
    """Another number in a call, by what it was."""
    def alter(stub):
        stub[place:place + 4] = u32(change(at(stub, place)))
    return alter


class Fault:
    def __init__(self, answers=(), calls=(), callbacks=None, delay=0):
        """answers, calls: what is done to them, by (interface id, opnum). callbacks: done to a callback's opnum and
        parameters; gives what becomes of it. delay: of answers to the calls in `answers`, in seconds."""
        self.answers, self.calls, self.callbacks, self.delay = dict(answers), dict(calls), callbacks, delay


class Link:
    """One connection that is passed on: what its ends have agreed on, and what is under way."""

    def __init__(self, client, server):
        self.client, self.server = client, server
        self.sending = {client: threading.Lock(), server: threading.Lock()}
        self.contexts, self.calls, self.made = {}, {}, set()

    def send(self, end, pdu):
        with self.sending[end]:
            end.sendall(pdu)

    def called(self, pdu):
        """Interface id and opnum of an answer's call."""
        return self.calls.get(at(pdu, 12))

    def note(self, pdu):
        kind, call = pdu[2], at(pdu, 12)
        if kind in (BIND, ALTER_CONTEXT):
            place = 28
            for _ in range(pdu[24]):
                context, transfers = struct.unpack_from('<HB', pdu, place)
                self.contexts[context] = uuid.UUID(bytes_le=bytes(pdu[place + 4:place + 20]))
                place += 24 + 20 * transfers
        elif kind == REQUEST:
            context, opnum = struct.unpack_from('<HH', pdu, 20)
            self.calls[call] = (self.contexts.get(context), opnum)


def stub_of(pdu):
    """Where the parameters or results stand in it."""
    protection = struct.unpack_from('<H', pdu, 10)[0]
    begin = 40 if pdu[2] == REQUEST and pdu[3] & 0x80 else 24
    return slice(begin, len(pdu) - (protection + 8 if protection else 0))


class FaultyServer:
    def __init__(self, address, server, callback_port, fault):
        """Listens at one address and passes everything on to the server at the other; both of one length. The client is
        to wait for callbacks at this port, and to have the server told that it waits at the first address."""
        self.rename = (server.encode('utf-16-le'), address.encode('utf-16-le'))
        assert len(self.rename[0]) == len(self.rename[1])
        self.fault = fault
        self.listeners = []
        for port, target, looks in (*((port, server, (self.to_server, self.from_server)) for port in PORTS),
                                    (callback_port, CLIENT, (self.to_client, self.from_client))):
            self.listeners.append(socket.create_server((address, port)))
            threading.Thread(target=self.accept, args=(self.listeners[-1], (target, port), looks), daemon=True).start()

    def close(self):
        for listener in self.listeners:
            listener.shutdown(socket.SHUT_RDWR)
            listener.close()

    def accept(self, listener, target, looks):
        while True:
            try:
                client, _ = listener.accept()
            except OSError:
                return
            try:
                server = socket.create_connection(target)
            except OSError:
                client.close()
                continue
            link = Link(client, server)
            for source, look in ((client, looks[0]), (server, looks[1])):
                threading.Thread(target=self.pump, args=(link, source, look), daemon=True).start()

    @staticmethod
    def pump(link, source, look):
        data = bytearray()
        try:
            while piece := source.recv(65536):
                data += piece
                while len(data) >= 16 and len(data) >= (size := struct.unpack_from('<H', data, 8)[0]):
                    pdu = data[:size]
                    del data[:size]
                    look(link, pdu)
        except OSError:
            pass
        for end in (link.client, link.server):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def to_server(self, link, pdu):
        link.note(pdu)
        if pdu[2] == REQUEST:
            self.apply(self.fault.calls.get(link.called(pdu)), pdu)
        link.send(link.server, pdu)

    def from_server(self, link, pdu):
        if pdu[2] == RESPONSE:
            where = stub_of(pdu)
            pdu[where] = pdu[where].replace(*self.rename)
            alter = self.fault.answers.get(link.called(pdu))
            self.apply(alter, pdu)
            if alter and self.fault.delay:
                time.sleep(self.fault.delay)
        link.send(link.client, pdu)

    @staticmethod
    def apply(alter, pdu):
        if alter:
            where = stub_of(pdu)
            stub = pdu[where]
            alter(stub)
            pdu[where] = stub

    def to_client(self, link, pdu):
        link.note(pdu)
        fate = None
        if pdu[2] == REQUEST and self.fault.callbacks and link.called(pdu)[0] == CALLBACK:
            where = stub_of(pdu)
            stub = pdu[where]
            fate = self.fault.callbacks(link.called(pdu)[1], stub)
            pdu[where] = stub
        if fate == DROP:
            answer = bytes(8) + u32(0)
            link.send(link.client, struct.pack('<4B4sHHIIHH', 5, 0, RESPONSE, 3, bytes(pdu[4:8]), 24 + len(answer), 0,
                                               at(pdu, 12), len(answer), *struct.unpack_from('<H', pdu, 20), 0) + answer)
            return
        link.send(link.server, pdu)
        for copy in range(1, 3 if fate == TWICE_MORE else 1):
            number = at(pdu, 12) | copy << 24
            link.made.add(number)
            link.send(link.server, pdu[:12] + u32(number) + pdu[16:])

    def from_client(self, link, pdu):
        if at(pdu, 12) not in link.made:  # those nobody waits for
            link.send(link.client, pdu)
