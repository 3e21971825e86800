"""Clients of OPC DA 1.0a: their sinks hear of values and of the ends of what they asked for in blocks of memory."""

import unittest

from harness import wait_for
from plant import EXPECTED, precise
from test_callbacks import CALLER, E_FAIL, INVALID_HANDLE, NO_CONNECTION, S_FALSE, S_OK, Called

DATA, DATA_TIME, WRITE_COMPLETE = 'OPCSTMFORMATDATA', 'OPCSTMFORMATDATATIME', 'OPCSTMFORMATWRITECOMPLETE'
READ, WRITE, REFRESH = 3, 4, 5
CACHE, DEVICE = 1, 2


class Streams(Called):
    def test_values_come_in_blocks_and_each_transaction_ends_in_one(self):
        client = self.client(items=EXPECTED, level='integrity')
        client('sink', account=CALLER, level='integrity')
        at = self.site.wait_pass()
        everything = list(range(len(EXPECTED)))
        self.assertEqual(client('stream', name=DATA_TIME), [1, S_OK])
        first, = client('callbacks')
        self.assert_call(first, call='Streamed', level='integrity', format=DATA_TIME, transaction=0, group=7, status=S_FALSE,
                         clients=everything)
        self.assertEqual([(precise(item['type'], item['value']), item['quality']) for item in first['items']],
                         [(precise(kind, value), quality) for kind, value, quality in EXPECTED.values()])
        self.assertEqual([item['filetime'] for item in first['items']],
                         [item['filetime'] for item in client('read')['items']])
        self.assertEqual(client('stream', name=DATA_TIME), [0, 0x80040201])
        client('sink')
        self.assertEqual(client('stream', name='OPCSTMFORMAT', sink=1), [0, 0x80040064])
        self.assertEqual(client('stream', name=WRITE_COMPLETE), [2, S_OK])
        self.assertEqual(client('stream', name=DATA), [3, S_OK])
        self.assert_call(*client('callbacks'), format=DATA, transaction=0, clients=everything)

        good, bad = list(EXPECTED)[0], 4711
        # Operation, its arguments, its errors and result, the stream that answers and its client handles.
        for opnum, arguments, answers, stream, handles in (
                (READ, {'connection': 1, 'source': DEVICE, 'items': [good, bad]}, [[S_OK, INVALID_HANDLE], S_FALSE], DATA_TIME, [0]),
                (READ, {'connection': 3, 'source': CACHE, 'items': [good]}, [[S_OK], S_OK], DATA, [0]),
                (READ, {'connection': 2, 'source': CACHE, 'items': [good]}, [[], NO_CONNECTION], None, []),
                (READ, {'connection': 1, 'source': 3, 'items': [good]}, [[], 0x80070057], None, []),
                (WRITE, {'connection': 2, 'value': 1.5, 'items': [good]}, [[S_OK], S_OK], WRITE_COMPLETE, [0]),
                (REFRESH, {'connection': 1, 'source': CACHE}, [S_OK], DATA_TIME, everything),
                (REFRESH, {'connection': 3, 'source': DEVICE}, [S_OK], DATA, everything),
                (REFRESH, {'connection': 4, 'source': DEVICE}, [NO_CONNECTION], None, [])):
            with self.subTest(opnum, **arguments):
                transaction, *answer = client('ask_stream', opnum=opnum, **arguments)
                self.assertEqual((answer, transaction != 0), (answers, stream is not None))
                for call in client('callbacks', seconds=10 if stream else 1):
                    self.assert_call(call, format=stream, transaction=transaction, clients=handles)
                    if stream == WRITE_COMPLETE:
                        self.assertEqual((call['status'], call['items']), (S_FALSE, [{'client': 0, 'error': E_FAIL}]))
                    stream = None
                self.assertIsNone(stream, 'no callback')

        transaction, *_ = client('ask_stream', opnum=READ, connection=1, source=DEVICE)
        cancelled = client('cancel_stream', transaction=transaction)
        self.assertEqual(len(client('callbacks', seconds=2)), 0 if cancelled == S_OK else 1)
        self.assertEqual(client('cancel_stream', transaction=transaction), E_FAIL)

        self.assertEqual(client('end_stream', connection=3), S_OK)
        self.assertEqual(client('end_stream', connection=3), 0x80040004)
        self.site.execute('realtime.db', "UPDATE CurrentIO SET NValue = 99.5 WHERE IOID = 'C110'")
        self.site.beat()
        self.site.wait_pass(at)
        changed, = client('callbacks')
        self.assert_call(changed, format=DATA_TIME, transaction=0, clients=[list(EXPECTED).index('North.Stack1.Moisture')])
        self.assertEqual(client('remove_group'), S_OK)
        wait_for('the sinks let go', lambda: client('held') == 0)


if __name__ == '__main__':
    unittest.main()
