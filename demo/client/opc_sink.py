"""The callback object of an OPC client, as its process has it: a port where the server asks for the object's whereabouts,
and the object's own port, where its callbacks arrive.

Nothing here is the server's: impacket's structures take the calls apart, its NTLM answers the log-on. It is as strict as
the strictest client in use: what is wrong with a call goes on the list of complaints, and its connection ends.
"""

import os
import socket
import struct
import threading
import time
import uuid
from contextlib import suppress

from Cryptodome.Cipher import ARC4
from impacket import ntlm
from impacket.dcerpc.v5 import dcomrt
from impacket.dcerpc.v5.dcom.oaut import VARIANT
from impacket.dcerpc.v5.dtypes import FILETIME, ULONG, WSTR
from impacket.dcerpc.v5.ndr import NDRUniConformantArray
from impacket.dcerpc.v5.rpcrt import (MSRPC_ALTERCTX, MSRPC_ALTERCTX_R, MSRPC_AUTH3, MSRPC_BIND, MSRPC_BINDACK,
                                      MSRPC_BINDNAK, MSRPC_FAULT, MSRPC_REQUEST, MSRPC_RESPONSE, PFC_FIRST_FRAG,
                                      PFC_LAST_FRAG, PFC_OBJECT_UUID, SEC_TRAILER, CtxItem, CtxItemResult, MSRPCBind,
                                      MSRPCHeader)

from opc_streams import Streamed, contents_of

LEVELS = {'none': 1, 'connect': 2, 'integrity': 5, 'privacy': 6}
SIGNED, SEALED = 4, 6  # from the first on calls are signed, at the second sealed too
BOTH_ENDS = PFC_FIRST_FRAG | PFC_LAST_FRAG
HEADER_SIGNING = 4
ACCESS_DENIED, OBJECT_GONE, UNKNOWN_OPNUM, UNSUPPORTED = 5, 0x80010108, 0x1C010002, 0xC002002E
NO_INTERFACE, UNKNOWN_EXPORTER, UNKNOWN_SET = 0x80004002, 1910, 1912
FRAGMENT = 7160  # taken and sent at most, whatever the other end proposes

NDR = uuid.UUID('8A885D04-1CEB-11C9-9FE8-08002B104860').bytes_le + struct.pack('<I', 2)
OBJECT_EXPORTER = uuid.UUID('99FCFEC4-5260-101B-BBCB-00AA0021347A')
IUNKNOWN = uuid.UUID('00000000-0000-0000-C000-000000000046')
REM_UNKNOWN = uuid.UUID('00000131-0000-0000-C000-000000000046')
DATA_CALLBACK = uuid.UUID('39C13A70-011E-11D0-9675-0020AFD8ADB3')
SHUTDOWN = uuid.UUID('F31DFDE1-07B6-11D2-B2D8-0060083BA1FB')
ADVISE_SINK = uuid.UUID('0000010F-0000-0000-C000-000000000046')


def array_of(kind):
    return type('Array', (NDRUniConformantArray,), {'item': kind})


ULONGS, USHORTS, VARIANTS, FILETIMES = map(array_of, ('<L', '<H', VARIANT, FILETIME))


class OnDataChange(dcomrt.DCOMCALL):
    structure = (('transaction', ULONG), ('group', ULONG), ('masterQuality', ULONG), ('masterError', ULONG),
                 ('count', ULONG), ('clients', ULONGS), ('values', VARIANTS), ('qualities', USHORTS),
                 ('times', FILETIMES), ('errors', ULONGS))


class OnReadComplete(OnDataChange):
    pass


class OnWriteComplete(dcomrt.DCOMCALL):
    structure = (('transaction', ULONG), ('group', ULONG), ('masterError', ULONG), ('count', ULONG),
                 ('clients', ULONGS), ('errors', ULONGS))


class OnCancelComplete(dcomrt.DCOMCALL):
    structure = (('transaction', ULONG), ('group', ULONG))


class ShutdownRequest(dcomrt.DCOMCALL):
    structure = (('reason', WSTR),)


METHODS = {DATA_CALLBACK: {3: OnDataChange, 4: OnReadComplete, 5: OnWriteComplete, 6: OnCancelComplete},
           SHUTDOWN: {3: ShutdownRequest}, ADVISE_SINK: {3: Streamed}}


class Complaint(Exception):
    """The other end did what it must not."""


class Fault(Exception):
    """A call is answered with this status."""


def check(good, *words):
    if not good:
        raise Complaint(' '.join(map(str, words)))


def decode(kind, stub):
    """A call's parameters, which must fill the stub to the last byte."""
    call = kind()
    used = call.fromString(bytes(stub))
    check(used == len(stub), kind.__name__, 'leaves', len(stub) - used, 'bytes')
    return call


def dual_string(bindings):
    """Where somebody listens (and that NTLM is spoken there), in words of 16 bits."""
    words = b''.join(struct.pack('<H', 7) + text.encode('utf-16le') + bytes(2) for text in bindings) + bytes(2)
    security = struct.pack('<HHHH', 10, 0xFFFF, 0, 0)
    return struct.pack('<HH', (len(words) + len(security)) // 2, len(words) // 2) + words + security


def variant_value(pointer):
    """Type and value; the size that a value gives of itself must be right."""
    variant = pointer['Data']
    kind, union = variant['vt'], variant['_varUnion']
    arm, _ = union.union[union['tag']]
    size = 20
    if arm == 'empty':
        value = None
    elif arm == 'bstrVal':
        value = union[arm]['asData'] if union.fields[arm]['ReferentID'] else None
        size += 4 + (12 + 2 * len(value) if value is not None else 0)
        check(value is None or union[arm]['cBytes'] == 2 * len(value) == 2 * union[arm]['clSize'], 'a text of two lengths')
    else:
        value = union[arm]
        width = len(union.fields[arm].getData())
        size += -size % width + width
    check(union['tag'] == kind, 'a value of type', kind, 'with', union['tag'])
    check(variant['clSize'] == (size + 7) // 8, 'a value of', size, 'bytes says', variant['clSize'], 'times 8')
    return kind, value != 0 if arm == 'boolVal' else value


def items_of(call):
    """The items of a callback; all its arrays must be as long as it says."""
    count = call['count']
    arrays = {name: call[name] for name, kind in call.structure if issubclass(kind, NDRUniConformantArray)}
    for name, array in arrays.items():
        check(len(array) == call.fields[name].getArraySize() == count, count, 'items with', len(array), name)
    if 'values' not in arrays:
        return [{'client': client, 'error': error} for client, error in zip(arrays['clients'], arrays['errors'])]
    times = [time['dwHighDateTime'] << 32 | time['dwLowDateTime'] for time in arrays['times']]
    return [{'client': client, 'type': kind, 'value': value, 'quality': quality, 'filetime': stamp, 'error': error}
            for client, (kind, value), quality, stamp, error in zip(
                arrays['clients'], map(variant_value, arrays['values']), arrays['qualities'], times, arrays['errors'])]


class LogOn:
    """One NTLM log-on, seen from the end that lets in, and the protection of what follows."""

    def __init__(self, trailer, account):
        self.type, self.level, self.context = trailer['auth_type'], trailer['auth_level'], trailer['auth_ctx_id']
        self.account, self.good = account, False
        check(self.type == 10, 'a log-on of type', self.type)

    def challenge(self, token):
        self.first = token
        flags = ntlm.NTLMAuthNegotiate()
        flags.fromString(token)
        self.flags = flags['flags'] & ~ntlm.NTLMSSP_NEGOTIATE_LM_KEY & ~0x3000
        answer = ntlm.NTLMAuthChallenge()
        answer['flags'] = (self.flags | ntlm.NTLMSSP_TARGET_TYPE_SERVER | ntlm.NTLMSSP_NEGOTIATE_TARGET_INFO
                           ) & ~ntlm.NTLMSSP_NEGOTIATE_VERSION
        answer['challenge'] = os.urandom(8)
        answer['domain_name'] = 'CLIENT'.encode('utf-16le')
        pairs = ntlm.AV_PAIRS()
        pairs[ntlm.NTLMSSP_AV_DOMAINNAME] = pairs[ntlm.NTLMSSP_AV_HOSTNAME] = answer['domain_name']
        pairs[ntlm.NTLMSSP_AV_TIME] = struct.pack('<Q', int((time.time() + 11644473600) * 1e7))
        answer['TargetInfoFields'] = pairs
        answer['Version'] = b''
        answer['TargetInfoFields_offset'] = 40 + 8 + len(answer['domain_name'])
        answer['domain_offset'] = 48
        self.second, self.nonce = answer.getData(), answer['challenge']
        return self.second

    def finish(self, token):
        """Takes the answer to the challenge; who it is not stays outside, which only the calls are told."""
        answer = ntlm.NTLMAuthChallengeResponse()
        answer.fromString(token)
        self.user, domain = (answer[name].decode('utf-16le') for name in ('user_name', 'domain_name'))
        self.flags, response = answer['flags'], answer['ntlm']
        user, password = self.account
        key = ntlm.NTOWFv2(self.user, password, domain)
        if self.user.lower() != user.lower() or ntlm.hmac_md5(key, self.nonce + response[16:]) != response[:16]:
            return
        session = ntlm.hmac_md5(key, response[:16])
        if self.flags & ntlm.NTLMSSP_NEGOTIATE_KEY_EXCH:
            at = answer['session_key_offset']
            session = ARC4.new(session).decrypt(token[at:at + answer['session_key_len']])
        pairs = ntlm.AV_PAIRS(response[44:])
        check(struct.unpack('<I', (pairs[ntlm.NTLMSSP_AV_FLAGS] or (4, bytes(4)))[1])[0] & 2, 'a log-on without MIC')
        code = ntlm.hmac_md5(session, self.first + self.second + token[:72] + bytes(16) + token[88:])
        check(code == token[72:88], 'a log-on whose MIC is wrong')
        self.keys = {side: [ntlm.SIGNKEY(self.flags, session, side),
                            ARC4.new(ntlm.SEALKEY(self.flags, session, side)).encrypt, 0]
                     for side in ('Client', 'Server')}
        self.good = True

    def signature(self, side, message):
        sign, cipher, number = self.keys[side]
        self.keys[side][2] += 1
        return ntlm.MAC(self.flags, cipher, sign, number, message).getData()

    def trailer(self, padding=0):
        return struct.pack('<BBBBI', self.type, self.level, padding, 0, self.context)

    def unprotect(self, message, begin, end):
        """What stands between the two places of a message in the clear, once its signature is found right."""
        body = message[begin:end]
        if self.level == SEALED:
            body = self.keys['Client'][1](body)
        expected = self.signature('Client', message[:begin] + body + message[end:-16])
        check(expected == message[-16:], 'a call whose signature is wrong')
        return body

    def protect(self, header, body):
        padding = -len(body) % 16
        body += bytes(padding)
        message = header + body + self.trailer(padding)
        if self.level == SEALED:
            body = self.keys['Server'][1](body)
        return header + body + self.trailer(padding) + self.signature('Server', message)


class Connection(threading.Thread):
    """One connection of the server to one of the two ports."""

    def __init__(self, sink, port, peer):
        super().__init__(daemon=True)
        self.sink, self.port, self.socket = sink, port, peer
        self.arriving = peer.makefile('rb')
        self.interfaces, self.log_ons, self.parts = {}, {}, b''
        self.limit = FRAGMENT
        peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def run(self):
        try:
            self.step('accept')
            while len(header := self.arriving.read(16)) == 16:
                header = MSRPCHeader(header)
                check(header['ver_major'] == 5 and header['representation'] & 0xFF == 0x10, 'this is not RPC')
                check(16 <= header['frag_len'] <= self.limit, 'a message of', header['frag_len'])
                self.take(header, self.arriving.read(header['frag_len'] - 16))
        except Complaint as complaint:
            self.sink.complain(complaint)
        except OSError:
            pass  # the end of a connection is the other end's right
        except Exception as error:  # what impacket cannot take apart
            self.sink.complain(f'{type(error).__name__}: {error}')
        self.close()

    def close(self):
        self.arriving.close()
        self.socket.close()

    def step(self, name):
        self.sink.step(self, f'{self.port} {name}')

    def take(self, header, body):
        self.header, self.message = header, self.raw_header(header) + body
        kind, size = header['type'], header['auth_len']
        self.token, self.trailer = b'', None
        self.end = len(self.message)
        if size:
            self.end -= size + 8
            check(self.end >= 16 and self.end % 4 == 0, 'a log-on at', self.end)
            self.trailer = SEC_TRAILER(self.message[self.end:self.end + 8])
            self.token = self.message[-size:]
        if kind in (MSRPC_BIND, MSRPC_ALTERCTX):
            self.bind(kind)
        elif kind == MSRPC_AUTH3:
            check(self.trailer and self.trailer['auth_ctx_id'] in self.log_ons, 'the end of no log-on')
            self.log_ons[self.trailer['auth_ctx_id']].finish(self.token)
        else:
            check(kind == MSRPC_REQUEST, 'a message of type', kind)
            self.request()

    @staticmethod
    def raw_header(header):
        return struct.pack('<BBBBIHHI', *(header[name] for name in (
            'ver_major', 'ver_minor', 'type', 'flags', 'representation', 'frag_len', 'auth_len', 'call_id')))

    def send(self, kind, body, token=b'', flags=BOTH_ENDS):
        """An answer; a token is that of a log-on."""
        behind = self.log_ons[self.trailer['auth_ctx_id']].trailer() + token if token else b''
        self.socket.sendall(struct.pack('<BBBBIHHI', 5, 0, kind, flags, 0x10, 16 + len(body) + len(behind), len(token),
                                        self.header['call_id']) + body + behind)

    def bind(self, kind):
        self.step('bind')
        asked = MSRPCBind(self.message[16:self.end])
        if self.trailer and self.port not in self.sink.log_on_at:
            return self.send(MSRPC_BINDNAK, struct.pack('<HBBB', 8, 1, 5, 0))
        results, items = b'', asked['ctx_items']
        check(kind == MSRPC_ALTERCTX or asked['ctx_num'] == 1, asked['ctx_num'], 'interfaces in one bind')
        for number in range(asked['ctx_num']):
            item = CtxItem(items[44 * number:])
            result = CtxItemResult()
            interface = uuid.UUID(bytes_le=item['AbstractSyntax'][:16])
            known = interface in self.sink.interfaces_at[self.port]
            fits = item['TransferSyntax'] == NDR
            result['Result'] = 0 if known and fits else 2
            result['Reason'] = 0 if known and fits else 2 if known else 1
            result['TransferSyntax'] = NDR if known and fits else bytes(20)
            results += result.getData()
            if known and fits:
                self.interfaces[item['ContextID']] = interface
        if kind == MSRPC_BIND:
            self.limit = min(FRAGMENT, asked['max_tfrag'])
        token = b''
        if self.trailer:
            log_on = LogOn(self.trailer, self.sink.account)
            self.log_ons[log_on.context] = log_on
            token = log_on.challenge(self.token)
        place = b'0\0' if kind == MSRPC_BIND else b''  # the second address; aligned it ends at 28, behind the header at 12
        self.send(MSRPC_BINDACK if kind == MSRPC_BIND else MSRPC_ALTERCTX_R,
                  struct.pack('<HHIH', FRAGMENT, FRAGMENT, 4711, len(place)) + place + bytes(-(10 + len(place)) % 4)
                  + struct.pack('<BBH', asked['ctx_num'], 0, 0) + results, token,
                  BOTH_ENDS | self.header['flags'] & HEADER_SIGNING)
        self.step('bound')

    def request(self):
        _, context, opnum = struct.unpack_from('<IHH', self.message, 16)
        begin = 24
        self.target = None
        if self.header['flags'] & PFC_OBJECT_UUID:
            self.target, begin = uuid.UUID(bytes_le=self.message[24:40]), 40
        self.log_on = self.trailer and self.log_ons.get(self.trailer['auth_ctx_id'])
        check(not self.trailer or self.log_on, 'a call under a log-on that never began')
        self.level = self.log_on.level if self.log_on else max([1, *(known.level for known in self.log_ons.values())])
        check(self.level < SIGNED or self.log_on, 'a call without signature')
        self.context = context
        if self.log_ons and not all(known.good for known in self.log_ons.values()):
            return self.fault(ACCESS_DENIED)
        stub = self.message[begin:self.end]
        if self.log_on and self.level >= SIGNED:
            stub = self.log_on.unprotect(self.message, begin, self.end)
        if self.trailer and self.trailer['auth_pad_len']:
            stub = stub[:-self.trailer['auth_pad_len']]
        check(bool(self.parts) != bool(self.header['flags'] & PFC_FIRST_FRAG), 'parts of a call out of order')
        self.parts += stub
        if self.header['flags'] & PFC_LAST_FRAG:
            stub, self.parts = self.parts, b''
            check(context in self.interfaces, 'a call to an interface that was not agreed')
            try:
                self.step('call')
                if self.port == 'object' and self.level < self.sink.least:
                    raise Fault(ACCESS_DENIED)
                self.respond(getattr(self.sink, f'at_{self.port}')(self, self.interfaces[context], opnum, stub))
            except Fault as fault:
                self.fault(*fault.args)

    def respond(self, stub):
        body = struct.pack('<IHBB', len(stub), self.context, 0, 0) + stub
        if not self.log_on or self.level < SIGNED:
            return self.send(MSRPC_RESPONSE, body)
        size = 16 + len(body) + -len(stub) % 16 + 24
        header = struct.pack('<BBBBIHHI', 5, 0, MSRPC_RESPONSE, BOTH_ENDS, 0x10, size, 16, self.header['call_id'])
        self.socket.sendall(self.log_on.protect(header + body[:8], stub))

    def fault(self, status):
        self.send(MSRPC_FAULT, struct.pack('<IHBBII', 0, self.context, 0, 0, status, 0))


class Sink:
    """level: what the object's process asks for; least: the level below which it refuses calls. account: user and password
    that it lets in; log_on_at: the ports that take a log-on at all. resolver_port: 0 for one that the reference names, 135
    where nobody needs to be told. bindings: what the reference names instead. interfaces: those that the object has."""

    def __init__(self, address='127.0.0.1', level='privacy', account=('operator', 'stack-7'), resolver_port=0,
                 least='none', log_on_at=('resolver', 'object'), com_minor=7, bindings=None,
                 interfaces=tuple(METHODS)):
        self.address, self.level, self.least, self.account = address, LEVELS[level], LEVELS[least], account
        self.log_on_at, self.com_minor = log_on_at, com_minor
        self.interfaces_at = {'resolver': (OBJECT_EXPORTER,), 'object': (REM_UNKNOWN, *METHODS)}
        self.offered = tuple(interfaces)
        self.oxid, self.oid, self.set = struct.unpack('<QQQ', os.urandom(24))
        self.rem_unknown, self.ipid = uuid.uuid4(), uuid.uuid4()
        self.causalities = set()
        self.ipids = {}  # those asked for, with their interfaces
        self.references = {self.ipid: 0}
        self.calls, self.complaints, self.pings, self.connections = [], [], [], []
        self.changed, self.closed = threading.Condition(), threading.Event()
        self.listeners = {port: socket.create_server((address, number), backlog=64)
                          for port, number in (('resolver', resolver_port), ('object', 0))}
        number = self.port('resolver')
        self.bindings = bindings if bindings is not None else [address if number == 135 else f'{address}[{number}]']
        for port in self.listeners:
            threading.Thread(target=self.listen, args=(port,), daemon=True).start()

    def port(self, name):
        return self.listeners[name].getsockname()[1]

    def listen(self, port):
        with suppress(OSError):
            while True:
                connection = Connection(self, port, self.listeners[port].accept()[0])
                self.connections.append(connection)
                connection.start()

    def close(self):
        """The process ends: its connections do, and nobody listens any more."""
        self.closed.set()
        for listener in self.listeners.values():
            listener.shutdown(socket.SHUT_RDWR)
            listener.close()
        for connection in self.connections:
            with suppress(OSError):
                connection.socket.shutdown(socket.SHUT_RDWR)

    def step(self, connection, name):
        """Called before each thing that a connection does."""

    def complain(self, complaint):
        with self.changed:
            self.complaints.append(str(complaint))
            self.changed.notify_all()

    def record(self, **call):
        with self.changed:
            self.calls.append(call)
            self.changed.notify_all()

    def take(self, count=1, seconds=30):
        """The calls since the last time, once there are so many; fewer when the time is over. Raises what was wrong."""
        with self.changed:
            self.changed.wait_for(lambda: len(self.calls) >= count or self.complaints, seconds)
            if self.complaints:
                raise Complaint('; '.join(self.complaints))
            taken, self.calls = self.calls, []
            return taken

    def held(self):
        """References that others hold."""
        return sum(self.references.values())

    def reference(self):
        """What a client hands out: five references to its object, and where to ask for it."""
        self.references[self.ipid] += 5
        return (struct.pack('<4sI', b'MEOW', 1) + IUNKNOWN.bytes_le + self.standard(self.ipid, 5)
                + dual_string(self.bindings))

    def standard(self, ipid, references):
        return struct.pack('<IIQQ', 0, references, self.oxid, self.oid) + ipid.bytes_le

    def at_resolver(self, connection, interface, opnum, stub):
        if opnum == 1:
            ping = decode(dcomrt.SimplePing, stub)
            self.pings.append((time.time(), []))
            return struct.pack('<I', 0 if ping['pSetId'] == self.set else UNKNOWN_SET)
        if opnum == 2:
            ping = decode(dcomrt.ComplexPing, stub)
            added = ping['AddToSet'] if ping['cAddToSet'] else []
            check(added or ping['cDelFromSet'], 'a ping that adds nothing and removes nothing')
            self.pings.append((time.time(), [oid['Data'] for oid in added]))
            return struct.pack('<QHHI', self.set, 0, 0, 0)
        if opnum == 4:
            return self.resolve(decode(dcomrt.ResolveOxid2, stub))
        if opnum == 5:
            return self.padded(struct.pack('<HH', 5, self.com_minor) + self.string_array(self.bindings)) + bytes(8)
        raise Fault(UNSUPPORTED)

    def resolve(self, asked):
        check(7 in asked['arRequestedProtseqs'], 'TCP is not asked for')
        if asked['pOxid'] != self.oxid:
            return bytes(4 + 16 + 4 + 4) + struct.pack('<I', UNKNOWN_EXPORTER)
        return (self.padded(self.string_array([f"{self.address}[{self.port('object')}]"])) + self.rem_unknown.bytes_le
                + struct.pack('<IHHI', self.level, 5, self.com_minor, 0))

    @staticmethod
    def string_array(bindings):
        words = dual_string(bindings)
        return struct.pack('<II', 0x20000, len(words) // 2 - 2) + words

    @staticmethod
    def padded(data):
        return data + bytes(-len(data) % 4)

    def at_object(self, connection, interface, opnum, stub):
        major, minor = struct.unpack_from('<HH', stub)
        check(major == 5 and minor <= self.com_minor, 'COM', major, minor, 'to one of', self.com_minor)
        causality = stub[12:28]
        check(any(causality) and causality not in self.causalities, 'causality', causality.hex())
        self.causalities.add(causality)
        if interface == REM_UNKNOWN:
            check(connection.target == self.rem_unknown, 'IRemUnknown at', connection.target)
            return bytes(8) + {3: self.query, 4: self.add_references, 5: self.release}.get(opnum, self.unknown)(stub)
        check(self.ipids.get(connection.target) == interface, 'a call to an interface that was not asked for')
        check(self.references[connection.target] > 0, 'a call to an interface that was released')
        kind = METHODS[interface].get(opnum, None)
        check(kind, 'method', opnum)
        self.note(kind, decode(kind, stub), connection)
        return bytes(12)

    @staticmethod
    def unknown(stub):
        raise Fault(UNKNOWN_OPNUM)

    def note(self, kind, call, connection):
        details = {name: call[name] for name in ('transaction', 'group', 'masterQuality', 'masterError')
                   if name in call.fields}
        if 'count' in call.fields:
            details['items'] = items_of(call)
        if kind is Streamed:
            details = contents_of(call)
        if 'reason' in call.fields:
            details['reason'] = call['reason'].rstrip('\0')
        level = next(name for name, number in LEVELS.items() if number == connection.level)
        self.record(call=kind.__name__, level=level, at=time.time(), **details)

    def query(self, stub):
        asked = decode(dcomrt.RemQueryInterface, stub)
        ipid = uuid.UUID(bytes_le=asked['ripid'])
        if ipid not in self.references:
            raise Fault(OBJECT_GONE)
        check(self.references[ipid] > 0, 'a query of what was released')
        found = []
        for iid in asked['iids']:
            iid = uuid.UUID(bytes_le=iid['Data'])
            if iid not in self.offered:
                found.append(struct.pack('<II', NO_INTERFACE, 0) + bytes(40))
                continue
            made = next((known for known, interface in self.ipids.items() if interface == iid), None) or uuid.uuid4()
            self.ipids[made] = iid
            self.references[made] = self.references.get(made, 0) + asked['cRefs']
            found.append(bytes(8) + self.standard(made, asked['cRefs']))
        check(len(found) == asked['cIids'], asked['cIids'], 'interfaces with', len(found), 'ids')
        bad = sum(entry[:4] != bytes(4) for entry in found)
        return (struct.pack('<II', 0x20000, len(found)) + b''.join(found)
                + struct.pack('<I', 0 if not bad else NO_INTERFACE if bad == len(found) else 1))

    def counted(self, kind, stub):
        asked = decode(kind, stub)
        check(len(asked['InterfaceRefs']) == asked['cInterfaceRefs'], 'a count of references that is wrong')
        for entry in asked['InterfaceRefs']:
            yield uuid.UUID(bytes_le=entry['ipid']), entry['cPublicRefs'], entry['cPrivateRefs']

    def add_references(self, stub):
        results = []
        for ipid, public, _ in self.counted(dcomrt.RemAddRef, stub):
            check(ipid in self.references, 'references to what is not there')
            self.references[ipid] += public
            results.append(0)
        return struct.pack(f'<I{len(results)}II', len(results), *results, 0)

    def release(self, stub):
        for ipid, public, private in self.counted(dcomrt.RemRelease, stub):
            check(ipid in self.references and private == 0, 'a release of what is not there')
            self.references[ipid] -= public
            check(self.references[ipid] >= 0, 'more references given back than taken')
        with self.changed:
            self.changed.notify_all()
        return bytes(4)

