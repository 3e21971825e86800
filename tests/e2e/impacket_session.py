"""An OPC DA client over impacket, driven by lines of JSON like demo/client/session.js, with what only tests ask for: calls
made by hand and sinks that misbehave.
"""

import json
import os
import socket
import sys
from contextlib import suppress

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'demo', 'client'))
from opc_client import *  # noqa: E402, F403
from opc_client import (ICONNECTION_POINT, ICONNECTION_POINT_CONTAINER, IOPC_DATA_CALLBACK, IOPC_SHUTDOWN, VT_R8,  # noqa: E402
                        Client, Writer)

from bad_sinks import BadSink  # noqa: E402
from opc_sink import dual_string  # noqa: E402, F401
from opc_streams import advise_request  # noqa: E402

IENUM_CONNECTION_POINTS = 'B196B285-BAB4-101A-B69C-00AA00341D07'
IOPC_GROUP_STATE_MGT2 = '8E368666-D72E-4F78-87ED-647611C61C9F'
IOPC_SYNC_IO2 = '730F5F0F-55B1-4C81-9E18-FF8A0904E1FA'
IOPC_ASYNC_IO3 = '0967B97B-36EF-423E-B6F8-6BFF1E40D39D'
IOPC_ASYNC_IO = '39C13A53-011E-11D0-9675-0020AFD8ADB3'
IDATA_OBJECT = '0000010E-0000-0000-C000-000000000046'
IOPC_ITEM_DEADBAND = '5946DA93-8B39-4EC8-AB3D-AA73DF5BC86F'
IOPC_ITEM_SAMPLING = '3E22D313-F08B-41A5-86C8-95E95CB49FFC'
CALLBACKS = {'group': IOPC_DATA_CALLBACK, 'server': IOPC_SHUTDOWN}


LIST_CLASS = '13486D51-4821-11D2-A494-3CB306C10000'
LISTS = {'13486D50-4821-11D2-A494-3CB306C10000': '0002E000-0000-0000-C000-000000000046',
         '9DD0B56C-AD9E-43EE-8305-487F3188BF7A': '55C382C8-21C7-4E88-96C1-BECFB1E3F483'}


class Session(Client):
    def __init__(self):
        super().__init__()
        self.sinks = []

    def servers(self, category, **logon):
        """What the machine's list of OPC servers, in each form, knows of those of this kind: class, names, and the class
        by its first name in capitals."""
        answers = []
        for iid, enumerator in LISTS.items():
            servers = self.activate(LIST_CLASS, iid, **logon)
            reply = servers.call(3, Writer().u32(1, 1).guid(category).u32(0, 0))
            classes = servers.wrap(reply.interface(), enumerator)
            assert classes.call(5, Writer()).u32() == 0
            reply = classes.call(3, Writer().u32(10, 10))
            reply.u32(), reply.u32()
            for found in [reply.guid() for _ in range(reply.u32())]:
                reply = servers.call(4, Writer().guid(found))
                names = [reply.string() for _ in range(3 if iid.startswith('9') else 2) if reply.u32()]
                answers.append([found, *names, servers.call(5, Writer().string(names[0].upper())).guid()])
        return answers

    def sink(self, **options):
        """A sink in this process; its number."""
        self.sinks.append(BadSink(**options))
        return len(self.sinks) - 1

    def subscribe(self, on='group', sink=0, reference=None):
        """reference: what is given to the server instead of the sink's own, in hex."""
        given = bytes.fromhex(reference) if reference is not None else self.sinks[sink].reference()
        return self.advise(on, CALLBACKS[on], given)

    def subscribe_often(self, times, on='group'):
        """The same many times over, all taken back whenever no more is taken; gives how often each result came."""
        results, cookies = {}, []
        for _ in range(times):
            answer = self.subscribe(on)
            results[answer['result']] = results.get(answer['result'], 0) + 1
            if answer['result']:
                results['taken back'] = {self.unadvise(cookie) for cookie in cookies} == {0}
                cookies = []
            else:
                cookies.append(answer['cookie'])
        return {str(result): count for result, count in results.items()}

    def own_reference(self):
        """That of the group, at the server itself."""
        return self.group.pointer.get_objRef().hex()

    def reference(self, sink=0):
        return self.sinks[sink].reference().hex()

    def callbacks(self, sink=0, **arguments):
        """count: how many are waited for; seconds: for how long."""
        return self.sinks[sink].take(**arguments)

    def held(self, sink=0):
        return self.sinks[sink].held()

    def cut(self, sink=0):
        """Ends the sink's connections, as a firewall does with those that say nothing."""
        for connection in self.sinks[sink].connections:
            with suppress(OSError):
                connection.socket.shutdown(socket.SHUT_RDWR)

    def forget_pings(self, sink=0):
        """As a machine that was started anew does."""
        self.sinks[sink].set += 1

    def pings(self, sink=0):
        """What each added to the set, as the sink's own id where it was that."""
        return [['sink' if oid == self.sinks[sink].oid else oid for oid in added] for _, added in self.sinks[sink].pings]

    def find(self, on, iid):
        """Whether there is a connection point for the interface, and the call's result."""
        point, result = self.point(on, iid)
        return [point is not None, result]

    def keep_alive(self, time):
        """In milliseconds; the revised time and the result, and the time that is then in force."""
        group = self.group.query(IOPC_GROUP_STATE_MGT2)
        replies = group.call(7, Writer().u32(time)), group.call(8, Writer())
        return [[reply.u32(), reply.u32()] for reply in replies]

    def read_aged(self, ages, items=None):
        """ages: in milliseconds, one for each item. Gives values, qualities, time stamps, errors and the result."""
        reply = self.group.query(IOPC_SYNC_IO2).call(5, self.items_asked(items).handles(ages))
        values = [reply.variant()[1] for pointer in reply.array(reply.u32) if pointer]
        return [values, reply.array(reply.u16), reply.array(reply.filetime), reply.hresults(), reply.u32()]

    def read_aged_later(self, transaction, ages):
        return self.later3(9, self.items_asked(None).handles(ages).u32(transaction))

    def refresh_aged(self, transaction, age):
        return self.later3(11, Writer().u32(age, transaction))

    def later3(self, opnum, request):
        """A call of IOPCAsyncIO3 that begins a transaction."""
        reply = self.group.query(IOPC_ASYNC_IO3).call(opnum, request)
        return {'cancel': reply.u32(), 'errors': reply.hresults() if opnum != 11 else None, 'result': reply.u32()}

    def write_vqt(self, value, items=None, transaction=None):
        """The same number into each item, with a quality and no time stamp; with a transaction: as one."""
        request = self.items_asked(items)
        count = len(items or self.handles)
        request.u32(count)
        for number in range(count):
            request.u32(number + 1, 1).u16(0xC0, 0).u32(0, 0, 0, 0)
        for _ in range(count):
            request.put('Q', 4).u16(VT_R8, 0, 0, 0).u32(VT_R8).put('d', value)
        if transaction is not None:
            return self.later3(10, request.u32(transaction))
        reply = self.group.query(IOPC_SYNC_IO2).call(6, request)
        return {'errors': reply.hresults(), 'result': reply.u32()}

    def stream(self, name, sink=0):
        request = Writer()
        request.data = advise_request(name, self.sinks[sink].reference()).getData()
        reply = self.group.query(IDATA_OBJECT).call(9, request)
        return [reply.u32(), reply.u32()]

    def end_stream(self, connection):
        return self.group.query(IDATA_OBJECT).call(10, Writer().u32(connection)).u32()

    def ask_stream(self, connection, opnum, source=None, value=None, items=None):
        """A call of IOPCAsyncIO but Cancel: transaction, errors where it is about items, result."""
        request = Writer().u32(connection)
        if source is not None:
            request.u16(source)
        if opnum != 5:
            handles = [self.handles.get(item, item) for item in items or self.handles]
            request.u32(len(handles)).handles(handles)
        if value is not None:
            request.handles(range(1, len(handles) + 1))
            for _ in handles:
                request.put('Q', 4).u16(VT_R8, 0, 0, 0).u32(VT_R8).put('d', value)
        reply = self.group.query(IOPC_ASYNC_IO).call(opnum, request)
        return [reply.u32(), *([reply.hresults()] if opnum != 5 else []), reply.u32()]

    def cancel_stream(self, transaction):
        return self.group.query(IOPC_ASYNC_IO).call(6, Writer().u32(transaction)).u32()

    def deadbands(self, percent, items):
        """What comes of giving each item one, asking for it and taking it back."""
        group = self.group.query(IOPC_ITEM_DEADBAND)
        given = self.items_asked(items).u32(len(items)).put('f', *[percent] * len(items))
        replies = [group.call(3, given), group.call(4, self.items_asked(items)), group.call(5, self.items_asked(items))]
        asked = replies[1].array(lambda: replies[1].get('f'))
        return [asked, *([reply.hresults(), reply.u32()] for reply in replies)]

    def sampling(self, rate, items):
        """What comes of giving each item a rate and asking for it."""
        group = self.group.query(IOPC_ITEM_SAMPLING)
        given = self.items_asked(items).u32(len(items)).put('I', *[rate] * len(items))
        replies = [group.call(3, given), group.call(4, self.items_asked(items))]
        return [[reply.array(reply.u32), reply.hresults(), reply.u32()] for reply in replies]

    def remove_group(self, force=True):
        return self.server.call(7, Writer().u32(self.group_handle, force)).u32()

    def enumerate_points(self, on):
        """The ids of the interfaces that the connection points of group or server call."""
        container = getattr(self, on).query(ICONNECTION_POINT_CONTAINER)
        enumerator = container.wrap(container.call(3, Writer()).interface(), IENUM_CONNECTION_POINTS)
        reply = enumerator.call(3, Writer().u32(10))
        reply.u32(), reply.u32()
        pointers = [reply.u32() for _ in range(reply.u32())]
        points = []
        for _ in pointers:
            _, size = reply.u32(), reply.u32()
            points.append(container.wrap(bytes(reply.raw(size)), ICONNECTION_POINT))
        return [point.call(3, Writer()).guid() for point in points]

    def raw(self, opnum, stub, on='server', ipid=None):
        """A call with a hand-made stub; gives the reply's length, or the fault as an error. ipid: of another object."""
        request = Writer().bytes(bytes.fromhex(stub))
        return len(getattr(self, on).call(opnum, request, ipid and bytes.fromhex(ipid)).data)

    def query(self, on, iid):
        getattr(self, on).query(iid)

    def ipid(self, on):
        return getattr(self, on).pointer.get_iPid().hex()

    def oid(self, on):
        return getattr(self, on).pointer.get_oid()


def main():
    client = Session()
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
