"""Clients that say how old a value may be, that write with quality and time stamp, or that ask for deadbands."""

import unittest

from harness import wait_for
from plant import EXPECTED
from test_callbacks import CALLER, E_FAIL, INVALID_HANDLE, NO_CONNECTION, S_FALSE, S_OK, Called

ANY, NO_DEADBAND, BAD = 0xFFFFFFFF, 0xC0040401, 4711
OLD = 60_000  # milliseconds; a pass is never so long ago


class Groups(Called):
    def events(self, after):
        """What clients have asked the plant for, as the log has it."""
        return [line.split(']')[1].split()[:2] for line in self.site.log()[after:] if '[OPC-0122]' in line or '[OPC-0124]' in line]

    def test_the_plant_is_asked_for_what_is_older_than_its_maximum_age_alone_and_takes_no_value(self):
        names = list(EXPECTED)[:3]
        client = self.client(items=names, level='integrity')
        self.assertEqual(client('read_aged_later', transaction=1, ages=[0] * 3)['result'], NO_CONNECTION)
        self.assertEqual(client('refresh_aged', transaction=2, age=0)['result'], NO_CONNECTION)
        after = self.site.wait_pass()  # and time for what follows before the next one
        client('sink', account=CALLER, level='integrity')
        self.assertEqual(client('subscribe')['result'], S_OK)
        self.assert_call(*client('callbacks'), clients=[0, 1, 2])

        cached = {name: [item[name] for item in client('read')['items']] for name in ('value', 'quality', 'filetime')}
        whole = {'values': cached['value'], 'qualities': cached['quality'], 'filetimes': cached['filetime'],
                 'errors': [S_OK] * 3, 'result': S_OK}
        for ages in ([ANY] * 3, [OLD, ANY, OLD], [0, ANY, OLD], [1, 0, 1]):
            self.assertEqual(client('read_aged', ages=ages), whole, ages)
        one_bad = client('read_aged', ages=[OLD, 0], items=[names[0], BAD])
        self.assertEqual((one_bad['errors'], one_bad['result']), ([S_OK, INVALID_HANDLE], S_FALSE))
        self.assertEqual(client('write_vqt', value=1.5, items=[names[0], BAD]),
                         {'errors': [E_FAIL, INVALID_HANDLE], 'result': S_FALSE})
        self.assertEqual(client('deadbands', percent=5.0, items=[names[0], BAD]),
                         [[0, 0], *[[[NO_DEADBAND, INVALID_HANDLE], S_FALSE]] * 3])

        change, read, written = 'OnDataChange', 'OnReadComplete', 'OnWriteComplete'
        for operation, arguments, errors, call in (
                ('read_aged_later', {'transaction': 11, 'ages': [ANY, OLD, 0]}, [S_OK] * 3, read),
                ('read_aged_later', {'transaction': 12, 'ages': [OLD] * 3}, [S_OK] * 3, read),
                ('write_vqt', {'transaction': 13, 'value': 1.5}, [S_OK] * 3, written),
                ('refresh_aged', {'transaction': 14, 'age': OLD}, None, change),
                ('refresh_aged', {'transaction': 15, 'age': 1}, None, change)):
            with self.subTest(operation, **arguments):
                answer = client(operation, **arguments)
                self.assertEqual((answer['errors'], answer['result']), (errors, S_OK))
                made, = client('callbacks', seconds=10)
                self.assert_call(made, call=call, level='integrity', transaction=arguments['transaction'], group=7,
                                 clients=[0, 1, 2])
                if call != written:
                    self.assertEqual([item['filetime'] for item in made['items']], cached['filetime'])
        asked = [['OnRead', 'count=1'], ['OnRead', 'count=3'], ['OnWrite', 'count=1'], ['OnRead', 'count=1'],
                 ['OnWrite', 'count=3'], ['OnRead', 'count=3']]
        wait_for('all that the plant was asked', lambda: len(self.events(after)) >= len(asked))
        self.assertEqual(self.events(after), asked)


if __name__ == '__main__':
    unittest.main()
