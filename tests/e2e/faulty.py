"""Stands between a client and the server and alters what the server answers, so that it is a server with a fault. Only at the
level "connect", where nothing protects answers."""

import socket
import struct
import threading
import uuid

REQUEST, RESPONSE, BIND, ALTER_CONTEXT = 0, 2, 11, 14
PORTS = (135, 49200)


def u32(number):
    return struct.pack('<I', number & 0xFFFFFFFF)


def result(before, after):
    """Another result of the call, which stands at the end of an answer; before: None for any."""
    def alter(stub):
        if before is None or stub[-4:] == u32(before):
            stub[-4:] = u32(after)
    return alter


def number(before, after):
    """Another number, wherever it stands in an answer."""
    def alter(stub):
        for at in range(8, len(stub) - 3, 4):
            if stub[at:at + 4] == u32(before):
                stub[at:at + 4] = u32(after)
    return alter


class FaultyServer:
    def __init__(self, address, server):
        """Listens at one address and passes everything on to the server at the other; both of one length."""
        self.server = server
        self.rename = (server.encode('utf-16-le'), address.encode('utf-16-le'))
        assert len(self.rename[0]) == len(self.rename[1])
        self.fault = None  # (interface id, opnum, what it does to the answer)
        self.altered = 0
        self.listeners = [socket.create_server((address, port)) for port in PORTS]
        for listener in self.listeners:
            threading.Thread(target=self.accept, args=(listener,), daemon=True).start()

    def close(self):
        for listener in self.listeners:
            listener.shutdown(socket.SHUT_RDWR)
            listener.close()

    def accept(self, listener):
        port = listener.getsockname()[1]
        while True:
            try:
                client, _ = listener.accept()
            except OSError:
                return
            server = socket.create_connection((self.server, port))
            contexts, calls = {}, {}
            for source, target, look in ((client, server, lambda pdu, c=contexts, k=calls: self.note(pdu, c, k)),
                                         (server, client, lambda pdu, k=calls: self.alter(pdu, k))):
                threading.Thread(target=self.pump, args=(source, target, look), daemon=True).start()

    @staticmethod
    def pump(source, target, look):
        data = bytearray()
        try:
            while True:
                piece = source.recv(65536)
                if not piece:
                    break
                data += piece
                while len(data) >= 16 and len(data) >= (size := struct.unpack_from('<H', data, 8)[0]):
                    pdu = data[:size]
                    del data[:size]
                    look(pdu)
                    target.sendall(pdu)
        except OSError:
            pass
        for end in (source, target):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    @staticmethod
    def note(pdu, contexts, calls):
        kind, call = pdu[2], struct.unpack_from('<I', pdu, 12)[0]
        if kind in (BIND, ALTER_CONTEXT):
            at = 28
            for _ in range(pdu[24]):
                context, transfers = struct.unpack_from('<HB', pdu, at)
                contexts[context] = uuid.UUID(bytes_le=bytes(pdu[at + 4:at + 20]))
                at += 24 + 20 * transfers
        elif kind == REQUEST:
            context, opnum = struct.unpack_from('<HH', pdu, 20)
            calls[call] = (contexts.get(context), opnum)

    def alter(self, pdu, calls):
        if pdu[2] != RESPONSE:
            return
        protection = struct.unpack_from('<H', pdu, 10)[0]
        end = len(pdu) - (protection + 8 if protection else 0)
        stub = pdu[24:end]
        stub[:] = stub.replace(*self.rename)
        called = calls.get(struct.unpack_from('<I', pdu, 12)[0])
        if self.fault and called == self.fault[:2]:
            before = bytes(stub)
            self.fault[2](stub)
            self.altered += before != stub
        pdu[24:end] = stub
