"""What a client of OPC DA 1.0a says and hears: the request that advises its sink, and the call with a block of memory that
the sink gets. impacket's marshalling puts the one together and takes the other apart.
"""

import struct

from impacket.dcerpc.v5 import dcomrt
from impacket.dcerpc.v5.dtypes import LONG, LPWSTR, NULL, ULONG
from impacket.dcerpc.v5.ndr import NDRPOINTER, NDRSTRUCT, NDRUNION, NDRUniConformantArray

BY_CONTENTS = 0x52746457
GLOBAL_MEMORY, CONTENT, WHOLE = 1, 1, -1
DATA, DATA_TIME, WRITE_COMPLETE = 'OPCSTMFORMATDATA', 'OPCSTMFORMATDATATIME', 'OPCSTMFORMATWRITECOMPLETE'
VT_BSTR = 8
FORMS = {2: 'h', 3: 'i', 4: 'f', 5: 'd', 7: 'd', 11: 'h'}


def pointer_to(kind):
    return type('Pointer', (NDRPOINTER,), {'referent': (('Data', kind),)})


def choice_of(tag, name, kind):
    """A union whose number stands in front of it."""
    return type('Choice', (NDRUNION,), {'commonHdr': (('tag', ULONG),), 'union': {tag: (name, kind)}})


class Bytes(NDRUniConformantArray):
    item = 'c'


class FormatEtc(NDRSTRUCT):
    structure = (('cfFormat', pointer_to(choice_of(BY_CONTENTS, 'name', LPWSTR))), ('ptd', pointer_to(ULONG)),
                 ('dwAspect', ULONG), ('lindex', LONG), ('tymed', ULONG))


class Blob(NDRSTRUCT):
    structure = (('fFlags', ULONG), ('clSize', ULONG), ('abData', Bytes))


class Medium(NDRSTRUCT):
    structure = (('u', choice_of(GLOBAL_MEMORY, 'hGlobal', pointer_to(choice_of(BY_CONTENTS, 'hRemote', pointer_to(Blob))))),
                 ('pUnkForRelease', dcomrt.PMInterfacePointer))


class DAdvise(dcomrt.DCOMCALL):
    opnum = 9
    structure = (('format', FormatEtc), ('advf', ULONG), ('sink', dcomrt.PMInterfacePointer))


class Streamed(dcomrt.DCOMCALL):
    """IAdviseSink's OnDataChange."""
    structure = (('format', pointer_to(FormatEtc)), ('medium', pointer_to(pointer_to(Medium))))


def advise_request(name, reference):
    request = DAdvise()
    request['ORPCthis']['extensions'] = NULL
    asked = request['format']
    asked['cfFormat']['tag'] = BY_CONTENTS
    asked['cfFormat']['name'] = name + '\0'
    asked['ptd'] = NULL
    asked['dwAspect'], asked['lindex'], asked['tymed'] = CONTENT, WHOLE, GLOBAL_MEMORY
    request['advf'] = 2  # the values of now first
    request['sink']['ulCntData'] = len(reference)
    request['sink']['abData'] = list(reference)
    return request


def block_of(call):
    """The format's name and the bytes of the block."""
    asked, medium = call['format'], call['medium']
    blob = medium['u']['hGlobal']['hRemote']
    block = b''.join(blob['abData'])
    if blob['clSize'] != len(block):
        raise ValueError('a block of two sizes')
    return asked['cfFormat']['name'].rstrip('\0'), block


def value_at(block, at):
    """Type and value as they stand in the memory of a program of 32 bits."""
    kind, = struct.unpack_from('<H', block, at)
    if kind == VT_BSTR:
        size, = struct.unpack_from('<I', block, at + 16)
        if block[at + 20 + size:at + 22 + size] != bytes(2):
            raise ValueError('a text without end')
        return kind, block[at + 20:at + 20 + size].decode('utf-16le')
    if kind == 0:
        return kind, None
    value, = struct.unpack_from('<' + FORMS[kind], block, at + 8)
    return kind, value != 0 if kind == 11 else value


def contents_of(call):
    """What the block says, by the same names as the other callbacks."""
    name, block = block_of(call)
    items = []
    if name == WRITE_COMPLETE:
        count, group, transaction, status = struct.unpack_from('<IIII', block)
        for number in range(count):
            client, error = struct.unpack_from('<II', block, 16 + 8 * number)
            items.append({'client': client, 'error': error})
        size = 16 + 8 * count
    else:
        size, count, group, transaction, status = struct.unpack_from('<IIIII', block)
        head = {DATA: '<IIHH', DATA_TIME: '<IIHHQ'}[name]
        for number in range(count):
            client, at, quality, _, *stamp = struct.unpack_from(head, block, 20 + number * struct.calcsize(head))
            kind, value = value_at(block, at)
            items.append({'client': client, 'type': kind, 'value': value, 'quality': quality, 'filetime': sum(stamp)})
    if size != len(block):
        raise ValueError(f'a block of {len(block)} bytes says {size}')
    return {'format': name, 'transaction': transaction, 'group': group, 'status': status, 'items': items}
