-- The demo plant's configuration: two sites, one with both generations of I/O servers, one with the younger alone.

INSERT INTO SiteSettings (SiteID, DAHSID, FirstDayOfWeek) VALUES ('NORTH', 1, 2), ('SOUTH', 2, 1);

INSERT INTO PIDDef (DAHSID, PID, IntervalType, Name) VALUES
    (1, 100100101, '30M', 'NOx, corrected'),
    (1, 100100102, '30M', 'SO2, corrected'),
    (1, 100100103, '30M', 'CO, corrected'),
    (1, 100100104, '30M', 'Dust'),
    (1, 100100105, '1M',  'O2'),
    (1, 100100106, '1H',  'Flue gas flow'),
    (1, 100100109, '30M', 'HCl (analyser not installed yet)'),
    (1, 100100201, '1M',  'Plant in operation'),
    (1, 100100202, '1M',  'Operating mode'),
    (1, 100100203, '1D',  'Last calibration'),
    (2, 200300101, '1H',  'NOx, corrected'),
    (2, 200300102, '1H',  'NOx, daily budget');

INSERT INTO IOChannelDef (SiteID, ChannelID, Name, DefType) VALUES
    ('NORTH', 101, 'NOx analyser', 1),
    ('NORTH', 102, 'SO2 analyser', 1),
    ('NORTH', 103, 'Dust monitor', 1),
    ('NORTH', 104, 'Opacity meter', 1),
    ('NORTH', 105, 'Gas temperature', 1),
    ('NORTH', 110, 'Computed moisture', 2),
    ('NORTH', 202, 'SO2 analyser, monitor code', 1),
    ('NORTH', 203, 'Dust monitor, monitor code', 1),
    ('NORTH', 204, 'Opacity meter, monitor code', 1),
    ('NORTH', 205, 'Gas temperature, monitor code', 1),
    ('NORTH', 301, 'Flow computer', 3),
    ('NORTH', 302, 'Purge valve', 3),
    ('NORTH', 401, 'Spectrum', 4),
    ('NORTH', 501, 'Analyser unit', 5),
    ('SOUTH', 11, 'Steam flow', 3),
    ('SOUTH', 12, 'Drum pressure', 3),
    ('SOUTH', 13, 'Fuel counter', 3),
    ('SOUTH', 14, 'Common alarm', 3),
    ('SOUTH', 15, 'Burner started', 3),
    ('SOUTH', 22, 'Drum pressure, monitor code', 3);

-- DataType: 1 float, 2 whole number, 3 text, 4 Boolean, 5 date. A date item needs a date as its NullValue: an item's
-- type is that of its first value, and nothing else makes that a date.
INSERT INTO Q5OPCDEF
    (SiteID, Position, Tagname, ID, TagType, DataType, Write, NullValue, DownIsValid, UseSubstatus, RefreshRate) VALUES
    ('NORTH',  1, 'North.Stack1.NOx',             '1-001-0-01-01',   1, 1, 0, NULL, 0, 0, 20),
    ('NORTH',  2, 'North.Stack1.SO2',             '1-001-0-01-02',   1, 1, 0, NULL, 1, 0, 20),
    ('NORTH',  3, 'North.Stack1.CO',              '1-001-0-01-03',   1, 1, 0, NULL, 0, 0, 20),
    ('NORTH',  4, 'North.Stack1.Dust',            '1-001-0-01-04',   1, 1, 0, NULL, 0, 1, 20),
    ('NORTH',  5, 'North.Stack1.O2',              '1-001-0-01-05',   1, 1, 0, NULL, 0, 0, 20),
    ('NORTH',  6, 'North.Stack1.Flow',            '1-001-0-01-06',   1, 2, 0, NULL, 0, 1, 20),
    ('NORTH',  7, 'North.Stack1.HCl',             '1-001-0-01-09',   1, 1, 0, NULL, 0, 0, 20),
    ('NORTH',  8, 'North.Stack1.Operating',       '1-001-0-02-01',   1, 4, 0, NULL, 0, 0, 20),
    ('NORTH',  9, 'North.Stack1.Mode',            '1-001-0-02-02',   1, 3, 0, 'n/a', 0, 0, 20),
    ('NORTH', 10, 'North.Stack1.LastCalibration', '1-001-0-02-03',   1, 5, 0, '2000-01-01', 0, 0, 20),
    ('NORTH', 11, 'North.Stack1.NOx.Raw',         '[@101]',          1, 1, 0, NULL, 0, 0, 20),
    ('NORTH', 12, 'North.Stack1.SO2.Raw',         '[@102];[@202]',   1, 1, 1, NULL, 0, 0, 20),
    ('NORTH', 13, 'North.Stack1.Dust.Raw',        '[@103];[@203]',   1, 1, 0, NULL, 1, 0, 20),
    ('NORTH', 14, 'North.Stack1.Opacity',         '[@104];[@204]',   1, 1, 0, NULL, 0, 0, 20),
    ('NORTH', 15, 'North.Stack1.Temperature',     '[@105];[@205]',   1, 1, 0, NULL, 0, 0, 20),
    ('NORTH', 16, 'North.Stack1.Moisture',        '[@110]',          1, 1, 0, NULL, 0, 0, 20),
    ('NORTH', 17, 'North.Stack2.Flow',            '[@301]',          1, 2, 0, NULL, 0, 0, 20),
    ('NORTH', 18, 'North.Stack2.Purge',           '[@302]',          1, 4, 0, NULL, 0, 0, 20),
    ('NORTH', 19, 'North.Stack2.Spectrum',        '[@401]',          1, 3, 0, NULL, 0, 0, 20),
    ('NORTH', 20, 'North.Stack2.Analyser',        '[@501]',          1, 1, 0, NULL, 0, 0, 20),
    -- Neither a parameter nor a channel reference: refused at start, with a message that names it.
    ('NORTH', 21, 'North.Stack2.Refused',         '1234',            1, 1, 0, NULL, 0, 0, 20),
    ('SOUTH',  1, 'South.Boiler.NOx',             '2-003-0-01-01',   1, 1, 0, NULL, 0, 0, 20),
    ('SOUTH',  2, 'South.Boiler.NOx.Budget',      '2-003-0-01-02',   1, 1, 0, -1,   0, 0, 20),
    ('SOUTH',  3, 'South.Boiler.Steam',           '[@11]',           1, 1, 0, NULL, 0, 0, 20),
    ('SOUTH',  4, 'South.Boiler.Pressure',        '[@12];[@22]',     1, 1, 0, NULL, 0, 1, 20),
    ('SOUTH',  5, 'South.Boiler.Fuel',            '[@13]',           1, 2, 0, NULL, 0, 0, 20),
    ('SOUTH',  6, 'South.Boiler.Alarm',           '[@14]',           1, 4, 0, NULL, 0, 0, 20),
    ('SOUTH',  7, 'South.Boiler.Started',         '[@15]',           1, 5, 0, '2000-01-01', 0, 0, 20);
