-- The demo plant's realtime data as its I/O servers left it. The demo I/O server moves what is a fraction and counts
-- up what is a whole number above 1000; everything else (monitor codes, switches, texts) stays.

INSERT INTO CurrentIO (SiteID, IOID, IsHDR, TStamp, NValue, XValue) VALUES
    ('NORTH', 'IOS.AllCommsOk',      0, '2026-11-16 08:00:00', 1, NULL),
    ('NORTH', 'IOS.AllDataRefreshed',  0, '2026-11-16 08:00:00', NULL,
        '<Start>2026-11-16T07:59:50.000</Start><Finish>2026-11-16T07:59:58.000</Finish>'),
    ('NORTH', 'IOS6.AllCommsOk',     0, '2026-11-16 08:00:00', 1, NULL),
    ('NORTH', 'IOS6.AllDataRefreshed', 0, '2026-11-16 08:00:00', NULL,
        '<Start>2026-11-16T07:59:50.000</Start><Finish>2026-11-16T07:59:58.000</Finish>'),
    ('NORTH', 'C101', 0, '2026-11-16 08:00:00', 211.5, NULL),
    ('NORTH', 'C102', 0, '2026-11-16 08:00:00', 38.25, NULL),
    ('NORTH', 'C103', 0, '2026-11-16 08:00:00', 11.2, NULL),
    ('NORTH', 'C104', 0, '2026-11-16 08:00:00', 4.75, NULL),
    ('NORTH', 'C105', 0, '2026-11-16 08:00:00', 143.5, NULL),
    ('NORTH', 'C110', 0, '2026-11-16 08:00:00', 12.5, NULL),
    ('NORTH', 'C202', 0, '2026-11-16 08:00:00', 0, NULL),
    ('NORTH', 'C203', 0, '2026-11-16 08:00:00', 13, NULL),
    ('NORTH', 'C204', 0, '2026-11-16 08:00:00', 5, NULL),
    ('NORTH', 'C301', 0, '2026-11-16 08:00:00', 48210.6, NULL),
    ('NORTH', 'C302', 0, '2026-11-16 08:00:00', 1, NULL),
    ('NORTH', 'C401', 0, '2026-11-16 08:00:00', NULL, '<Value>7;8;9</Value>'),
    -- The spectrum as a list, in two blocks ten channel IDs apart.
    ('NORTH', 'MultiValueC401', 0, '2026-11-16 08:00:00', NULL, '<CSV separator=";">7;8;9</CSV>'),
    ('NORTH', 'MultiValueC411', 0, '2026-11-16 08:00:00', NULL, '<CSV separator=";">10;11;;13</CSV>'),
    ('NORTH', 'C501', 0, '2026-11-16 08:00:00', NULL, '<Value> 12.75 </Value>'),
    ('SOUTH', 'IOS6.AllCommsOk',     0, '2026-11-16 08:00:00', 1, NULL),
    ('SOUTH', 'IOS6.AllDataRefreshed', 0, '2026-11-16 08:00:00', NULL,
        '<Start>2026-11-16T07:59:50.000</Start><Finish>2026-11-16T07:59:58.000</Finish>'),
    ('SOUTH', 'C11', 0, '2026-11-16 08:00:00', 62.5, NULL),
    ('SOUTH', 'C12', 0, '2026-11-16 08:00:00', 118.5, NULL),
    ('SOUTH', 'C13', 0, '2026-11-16 08:00:00', 120045, NULL),
    ('SOUTH', 'C14', 0, '2026-11-16 08:00:00', 0, NULL),
    ('SOUTH', 'C15', 0, '2026-11-16 08:00:00', NULL, '<Value>2026-11-16 05:30:00</Value>'),
    ('SOUTH', 'C22', 0, '2026-11-16 08:00:00', 65, NULL);

INSERT INTO ParameterValue (SiteID, PID, IntervalType, Value, MonitorCode, TStamp) VALUES
    ('NORTH', 100100101, '30M', 182.4, 0, '2026-11-16 08:00:00'),
    ('NORTH', 100100102, '30M', 34.5, 60, '2026-11-16 08:00:00'),
    ('NORTH', 100100103, '30M', 17.25, 60, '2026-11-16 08:00:00'),
    ('NORTH', 100100104, '30M', 9.5, 14, '2026-11-16 08:00:00'),
    ('NORTH', 100100105, '1M', 6.9, NULL, '2026-11-16 08:00:00'),
    ('NORTH', 100100106, '1H', 48211.5, 22, '2026-11-16 08:00:00'),
    ('NORTH', 100100201, '1M', 1, 0, '2026-11-16 08:00:00'),
    ('NORTH', 100100202, '1M', 'Full load', 0, '2026-11-16 08:00:00'),
    ('NORTH', 100100203, '1D', '2026-11-14 10:15:00', 0, '2026-11-16 08:00:00'),
    ('SOUTH', 200300101, '1H', 96.25, 0, '2026-11-16 08:00:00'),
    ('SOUTH', 200300102, '1H', NULL, 0, '2026-11-16 08:00:00');
