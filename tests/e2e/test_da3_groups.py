"""Clients that say how old a value may be, that write with quality and time stamp, or that ask for deadbands."""

import unittest

from harness import wait_for
from plant import EXPECTED
from test_callbacks import CALLER, E_FAIL, INVALID_HANDLE, S_FALSE, S_OK, Called

ANY, NO_DEADBAND, BAD = 0xFFFFFFFF, 0xC0040401, 4711
PASSES, UNSUPPORTED_RATE = 20_000, 0x0004000D
OLD = 60_000  # milliseconds; a pass is never so long ago


class Groups(Called):
    def asked(self):
        """What clients have asked the plant for, as the log has it."""
        return [line.split(']')[1].split() for line in self.site.log() if '[OPC-0122]' in line or '[OPC-0124]' in line]

    def test_the_plant_is_asked_for_what_is_older_than_its_maximum_age_alone_and_takes_no_value(self):
        names = list(EXPECTED)[:3]
        client = self.client(items=names, level='integrity')
        self.site.wait_pass()  # and time for what follows before the next one
        client('sink', account=CALLER, level='integrity')
        self.assertEqual(client('subscribe')['result'], S_OK)
        self.assert_call(*client('callbacks'), clients=[0, 1, 2])

        columns = [[item[name] for item in client('read')['items']] for name in ('value', 'quality', 'filetime')]
        for ages in ([ANY] * 3, [OLD, ANY, OLD], [0, ANY, OLD], [1, 0, 1]):
            self.assertEqual(client('read_aged', ages=ages), [*columns, [S_OK] * 3, S_OK], ages)
        some = [names[0], BAD]
        self.assertEqual(client('read_aged', ages=[OLD, 0], items=some)[3:], [[S_OK, INVALID_HANDLE], S_FALSE])
        self.assertEqual(client('write_vqt', value=1.5, items=some), {'errors': [E_FAIL, INVALID_HANDLE], 'result': S_FALSE})
        self.assertEqual(client('deadbands', percent=5.0, items=some),
                         [[0, 0], *[[[NO_DEADBAND, INVALID_HANDLE], S_FALSE]] * 3])
        self.assertEqual(client('sampling', rate=500, items=some), [
            [[PASSES, 0], [UNSUPPORTED_RATE, INVALID_HANDLE], S_FALSE], [[PASSES, 0], [S_OK, INVALID_HANDLE], S_FALSE]])

        for operation, arguments, call in (('read_aged_later', {'ages': [ANY, OLD, 0]}, 'OnReadComplete'),
                                           ('read_aged_later', {'ages': [OLD] * 3}, 'OnReadComplete'),
                                           ('write_vqt', {'value': 1.5}, 'OnWriteComplete'),
                                           ('refresh_aged', {'age': OLD}, 'OnDataChange'),
                                           ('refresh_aged', {'age': 1}, 'OnDataChange')):
            with self.subTest(operation, **arguments):
                self.assertEqual(client(operation, transaction=11, **arguments)['result'], S_OK)
                self.assert_call(*client('callbacks', seconds=10), call=call, level='integrity', transaction=11, group=7,
                                 clients=[0, 1, 2])
        expected = [['OnRead', 'count=1'], ['OnRead', 'count=3'], ['OnWrite', 'count=1'], ['OnRead', 'count=1'],
                    ['OnWrite', 'count=3'], ['OnRead', 'count=3']]
        wait_for('all that the plant was asked', lambda: len(self.asked()) >= len(expected))
        self.assertEqual(self.asked(), expected)


if __name__ == '__main__':
    unittest.main()
