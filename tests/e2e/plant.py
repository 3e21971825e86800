"""What the demo plant's data must come out as at a client."""

import struct

R4, I4, BSTR, BOOL, DATE = 4, 3, 8, 11, 7

# Data type, value, quality word.
EXPECTED = {
    'North.Stack1.NOx': (R4, 182.4, 0x00C0),                # monitor code 0: good
    'North.Stack1.SO2': (R4, 34.5, 0x80C0),                 # 60, down is valid
    'North.Stack1.CO': (R4, 17.25, 0x8000),                 # 60, down is not valid
    'North.Stack1.Dust': (R4, 9.5, 0x0050),                 # 14 with sub-status
    'North.Stack1.O2': (R4, 6.9, 0x00C0),                   # no monitor code, numeric value
    'North.Stack1.Flow': (I4, 48212, 0x0018),               # 48211.5 to the even neighbour; 22 with sub-status
    'North.Stack1.HCl': (R4, None, 0x0000),                 # no value at all
    'North.Stack1.Operating': (BOOL, True, 0x00C0),
    'North.Stack1.Mode': (BSTR, 'Full load', 0x00C0),
    'North.Stack1.LastCalibration': (DATE, 46340 + (10 * 60 + 15) / 1440, 0x00C0),
    'North.Stack1.NOx.Raw': (R4, 211.5, 0x00C0),            # no monitor-code channel
    'North.Stack1.SO2.Raw': (R4, 38.25, 0x00C0),            # code 0
    'North.Stack1.Dust.Raw': (R4, 11.2, 0x80C0),            # 13, down is valid
    'North.Stack1.Opacity': (R4, 4.75, 0x0000),             # 5 is not ranked
    'North.Stack1.Temperature': (R4, 143.5, 0x0040),        # monitor-code channel without value
    'North.Stack1.Moisture': (R4, 12.5, 0x00C0),
    'North.Stack2.Flow': (I4, 48211, 0x00C0),
    'North.Stack2.Purge': (BOOL, True, 0x00C0),
    'North.Stack2.Spectrum': (BSTR, '7;8;9', 0x0000),       # channel texts are always bad
    'North.Stack2.Analyser': (R4, 12.75, 0x00C0),           # number in XML text
    'South.Boiler.NOx': (R4, 96.25, 0x00C0),
    'South.Boiler.NOx.Budget': (R4, -1.0, 0x00C0),          # Null value: the default stands in
    'South.Boiler.Steam': (R4, 62.5, 0x00C0),
    'South.Boiler.Pressure': (R4, 118.5, 0x8000),           # 65 with sub-status
    'South.Boiler.Fuel': (I4, 120045, 0x00C0),
    'South.Boiler.Alarm': (BOOL, False, 0x00C0),
    'South.Boiler.Started': (DATE, 46342 + 330 / 1440, 0x0000),  # channel dates are always bad
}


def precise(kind, value):
    """A value in the digits that its type has."""
    if isinstance(value, float):
        return round(struct.unpack('f', struct.pack('f', value))[0] if kind == R4 else value, 9)
    return value
