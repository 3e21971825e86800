#!/usr/bin/python3
"""Shows the server's items as a live table like table.js, but never asks for a value: the server calls when one changes.

    subscribe.py [--once] [--address A] [--user U]      password in the environment: OPC_PASSWORD

--once prints the table once, when most values are good, and ends.
"""

import argparse
import datetime
import json
import os
import time

from opc_client import IOPC_DATA_CALLBACK, VT_BOOL, VT_DATE, VT_R4, VT_R8, Client
from opc_sink import Sink

TYPES = {2: 'I2', 3: 'I4', 4: 'R4', 5: 'R8', 7: 'DATE', 8: 'BSTR', 11: 'BOOL', 0: '-'}
HEAD = ('Item', 'Type', 'Value', 'Quality', '', 'Time stamp (UTC)')
RATE = 1000  # milliseconds between two callbacks at least

with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), 'qualities.json')) as words:
    WORDS = {int(quality): text for quality, text in json.load(words).items()}


def shown(item):
    kind, value = item['type'], item['value']
    if value is None:
        return ''
    if kind == VT_DATE:
        return f'{datetime.datetime(1899, 12, 30) + datetime.timedelta(days=value):%Y-%m-%d %H:%M:%S}'
    if kind in (VT_R4, VT_R8):
        return f'{value:.7g}'
    return str(value).lower() if kind == VT_BOOL else str(value)


def row(name, kind, item):
    words = WORDS.get(item['quality'] & 0xFC, 'unknown') + (' (down)' if item['quality'] & 0x8000 else '')
    stamp = datetime.datetime(1601, 1, 1) + datetime.timedelta(microseconds=item['filetime'] // 10)
    return (name, TYPES.get(kind, str(kind)), shown(item), f"0x{item['quality']:04X}", words,
            f'{stamp:%Y-%m-%d %H:%M:%S}.{stamp.microsecond // 1000:03}')


def table(types, items):
    rows = [row(name, types[name], item) for name, item in items.items()]
    widths = [max(map(len, column)) for column in zip(HEAD, *rows)]
    lines = [HEAD, ['-' * width for width in widths], *rows]
    return '\n'.join('  '.join(text.ljust(width) for text, width in zip(line, widths)).rstrip() for line in lines)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--once', action='store_true')
    parser.add_argument('--address', default='127.0.0.1')
    parser.add_argument('--user', default='operator')
    options = parser.parse_args()
    password = os.environ.get('OPC_PASSWORD', '')
    client = Client()
    client.connect(options.address, options.user, password)
    names = sorted(client.browse())
    types = {item['itemID']: item['dataType'] for item in client.watch(names, rate=RATE)}
    sink = Sink(account=(options.user, password))
    advised = client.advise('group', IOPC_DATA_CALLBACK, sink.reference())
    if advised['result']:
        raise SystemExit('OPC client: the server takes no subscription')
    items, deadline, alive = {}, time.monotonic() + 90, 0
    while True:
        if time.monotonic() - alive > 60:  # nobody pings for this client, and its calls count as well
            client.status()
            alive = time.monotonic()
        calls = sink.take(seconds=1)
        for call in calls:
            items.update((names[item['client']], item) for item in call['items'])
        ready = sum(item['quality'] & 0xC0 == 0xC0 for item in items.values()) * 2 > len(names)
        if ready and options.once:
            break
        if options.once and time.monotonic() > deadline:
            raise SystemExit('OPC client: most items had no good value within 90 seconds')
        if calls and not options.once:
            changed = sum(len(call['items']) for call in calls)
            print(f'\x1b[2J\x1b[H{table(types, items)}\n\n{changed} changed at {time.strftime("%H:%M:%S")}. '
                  'Ctrl-C ends the display.', flush=True)
    print(table(types, items))
    client.unadvise(advised['cookie'])
    client.close()
    sink.close()


if __name__ == '__main__':
    try:
        main()
    except KeyboardInterrupt:
        pass
