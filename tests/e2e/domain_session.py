"""OPC DA clients with accounts of the throw-away domain, driven by lines of JSON like impacket_session.py: one over Samba's
Python bindings, which sign headers and end a negotiation with signatures, one over impacket, which does neither.
"""

import ctypes
import datetime
import json
import os
import socket
import struct
import subprocess
import sys
import uuid

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'demo', 'client'))
from opc_client import CLASS_ID, IOPC_SERVER, IREM_UNKNOWN, Client, Interface, Reader, Writer  # noqa: E402

IACTIVATION = '4D9F4AB8-7D1C-11CF-861E-0020AF6E7C57'
RESOLVER_PORT = 135


def ticket(user, password, target=None, lifetime='1h'):
    """Gets a ticket into a cache of this process alone."""
    cache = f'/tmp/quelm-ticket-{os.getpid()}'
    os.environ['KRB5CCNAME'] = cache
    subprocess.run(['kinit', '-l', lifetime, user], input=password + '\n', text=True, check=True, capture_output=True)
    if target:
        subprocess.run(['kvno', f'host/{target}'], check=True, capture_output=True)


class SambaConnection:
    """Connections to one port, the first of which binds to one interface."""

    def __init__(self, target, port, options, first, logon):
        from samba import credentials, param
        from samba.dcerpc import mgmt
        settings = param.LoadParm()
        settings.set('name resolve order', 'host')
        who = credentials.Credentials()
        who.guess(settings)
        who.set_username(logon['user'])
        who.set_password(logon['password'])
        who.set_domain('EXAMPLE')
        who.set_realm('EXAMPLE.TEST')
        who.set_kerberos_state(credentials.MUST_USE_KERBEROS if logon.get('kerberos', True)
                               else credentials.DONT_USE_KERBEROS)
        self.settings, self.who = settings, who
        self.binding = f'ncacn_ip_tcp:{target}[{port},{options}]'
        set_first_interface(first)
        self.by_interface = {first: mgmt.mgmt(self.binding, settings, who)}

    def interface(self, iid):
        from samba.dcerpc import base
        if iid not in self.by_interface:
            self.by_interface[iid] = base.ClientConnection(self.binding, (iid.lower(), 0), lp_ctx=self.settings,
                                                           credentials=self.who,
                                                           basis_connection=next(iter(self.by_interface.values())))
        return self.by_interface[iid]


def set_first_interface(iid):
    """The bindings connect by interfaces that they know only; one of them becomes ours, in this process."""
    library = ctypes.CDLL('/usr/lib/x86_64-linux-gnu/samba/libndr-samba-samba4.so.0')
    table = ctypes.addressof(ctypes.c_char.in_dll(library, 'ndr_table_mgmt'))
    page = table & ~4095
    ctypes.CDLL(None, use_errno=True).mprotect(ctypes.c_void_p(page), 8192, 3)
    ctypes.memmove(table + 8, uuid.UUID(iid).bytes_le + struct.pack('<I', 0), 20)


class SambaInterface:
    """As opc_client.Interface, over Samba."""

    def __init__(self, connection, ipids, iid, reference):
        self.connection, self.rem_unknown, self.iid = connection, ipids, iid
        self.oid, self.ipid = reference

    def call(self, opnum, request, ipid=None):
        target = str(uuid.UUID(bytes_le=ipid or self.ipid))
        return Reader(self.connection.interface(self.iid).request(opnum, bytes(request.data), object=target))

    def query(self, iid):
        request = Writer().bytes(self.ipid).u32(5).u16(1).u32(1).guid(iid)
        reply = SambaInterface(self.connection, self.rem_unknown, IREM_UNKNOWN, (0, self.rem_unknown)).call(3, request)
        reply.u32(), reply.u32()
        reply.at += -reply.at % 8
        if reply.u32():
            raise ValueError('no such interface')
        reply.at += -reply.at % 8
        reply.raw(24)
        return SambaInterface(self.connection, self.rem_unknown, iid, (0, bytes(reply.raw(16))))

    def wrap(self, objref, iid):
        return SambaInterface(self.connection, self.rem_unknown, iid, (0, objref[48:64]))


class SambaClient(Client):
    def activate(self, class_id, iid, address, options='spnego,seal', **logon):
        self.resolver = SambaConnection(address, RESOLVER_PORT, options, IACTIVATION, logon)
        request = Writer().guid(class_id).u32(0, 0, 3, 0, 1, 0x20000, 1).guid(iid).u16(1).u32(1).u16(7)
        reply = Reader(self.resolver.interface(IACTIVATION).request(0, bytes(request.data)))
        reply.get('Q')
        reply.u32(), reply.u32()
        units, _ = reply.u16(), reply.u16()
        self.bindings = bytes(reply.raw(2 * units)).decode('utf-16le')
        reply.at += -reply.at % 4
        rem_unknown = bytes(reply.raw(16))
        reply.u32(), reply.u16(), reply.u16()
        if failure := reply.u32():
            raise ValueError(f'activation failed with {failure:#x}')
        reply.u32()
        reference = reply.interface()
        port = int(self.bindings.split('[')[1].split(']')[0])
        objects = SambaConnection(address, port, options, IREM_UNKNOWN, logon)
        return SambaInterface(objects, rem_unknown, iid, (0, reference[48:64]))

    def services(self):
        """The log-on services that the server names, each with its principal."""
        found = []
        for text in self.bindings.split('\0\0', 1)[1].split('\0'):
            if text:
                found.append([ord(text[0]), text[2:]])
        return found

    def close(self):
        pass


class ImpacketDomainClient(Client):
    skew = None

    def activate(self, class_id, iid, address, user, password, ask='opc.example.test', level='privacy', lifetime='1h',
                 skew=0, domain='EXAMPLE.TEST'):
        """ask: whose ticket is shown; skew: seconds that this clock is wrong."""
        from impacket.dcerpc.v5 import dcomrt
        from impacket.krb5 import kerberosv5
        from impacket.uuid import string_to_bin
        ticket(user, password, ask, lifetime)
        real = datetime.datetime

        class Clock(real):
            @classmethod
            def utcnow(cls):
                return real.utcnow() + datetime.timedelta(seconds=skew)
        kerberosv5.datetime.datetime = Clock

        def open_once():
            self.connection = dcomrt.DCOMConnection(ask, user, '', domain, authLevel=self.LEVELS[level], doKerberos=True,
                                                    kdcHost='10.53.57.10')
            pointer = self.connection.CoCreateInstanceEx(string_to_bin(class_id), string_to_bin(iid))
            return Interface(pointer, iid, self.references)
        self.open = open_once
        return open_once()

    def connect(self, address, **logon):
        self.server = self.activate(CLASS_ID, IOPC_SERVER, address, **logon)

    def again(self):
        """Logs on with the ticket that is there."""
        self.server = self.open()

    def replay(self, address):
        """Sends the first message of the last log-on again; the kind of the answer, which may be none."""
        with socket.create_connection((address, RESOLVER_PORT), 10) as connection:
            connection.sendall(self.first)
            answer = connection.recv(65536)
        return answer[2] if answer else None

    def record(self):
        """Keeps the first message that is sent from now on."""
        from impacket.dcerpc.v5 import transport
        send = transport.TCPTransport.send
        self.first = None

        def keep(which, data, *arguments, **named):
            self.first = self.first or bytes(data)
            return send(which, data, *arguments, **named)
        transport.TCPTransport.send = keep


def main():
    client = SambaClient() if sys.argv[1] == 'samba' else ImpacketDomainClient()
    if sys.argv[1] == 'samba':
        client.connect = lambda address, **logon: setattr(
            client, 'server', client.activate(CLASS_ID, IOPC_SERVER, address, **logon))
    for line in sys.stdin:
        command = json.loads(line)
        operation = command.pop('do')
        try:
            answer = {'ok': getattr(client, operation)(**command)}
        except Exception as error:  # whatever the client library raises is the test's business
            answer = {'error': f'{type(error).__name__}: {error}'}
        print(json.dumps(answer), flush=True)


if __name__ == '__main__':
    main()
