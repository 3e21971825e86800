-- The databases of one or more sites, for SQLite. Connection 1 of a site (configuration) and connection 2 (realtime)
-- may lead to the same file or to two; each file may hold all tables.
--
--   sqlite3 /var/lib/quelm/site.db < sqlite.sql
--
-- With the write-ahead log the server's reads never hold up the I/O servers' writes.
PRAGMA journal_mode = WAL;

-- ---------------------------------------------------------------- configuration database (connection 1)

-- One record per OPC item. Items are made in the order of Position, then RecordID.
CREATE TABLE IF NOT EXISTS Q5OPCDEF (
    RecordID                INTEGER PRIMARY KEY,
    SiteID                  TEXT    NOT NULL,            -- compared exactly, letter case included
    Position                INTEGER NOT NULL DEFAULT 0,
    Tagname                 TEXT,                        -- the OPC item's name
    ID                      TEXT,                        -- a PID ("1-010-0-12-34") or channels ("[@1234];[@1235]")
    TagType                 INTEGER DEFAULT 1,           -- 1 = OPC DA item; others are refused
    DataType                INTEGER,                     -- 1 to 5
    Write                   INTEGER DEFAULT 0,           -- Booleans: 0 or 1 (also -1, true, false, yes, no)
    NullValue,                                           -- stands in for a value that does not convert; any type
    DownIsValid             INTEGER DEFAULT 0,
    UseSubstatus            INTEGER DEFAULT 0,
    RefreshRate             INTEGER DEFAULT 20,          -- must be above 0
    ShowStartOfPeriodTStamp INTEGER DEFAULT 0            -- for other programs; this server does not read it
);
CREATE INDEX IF NOT EXISTS Q5OPCDEF_Site ON Q5OPCDEF (SiteID, Position, RecordID);

CREATE TABLE IF NOT EXISTS IOChannelDef (
    SiteID    TEXT    NOT NULL,
    ChannelID INTEGER NOT NULL,
    Name      TEXT,
    DefType   INTEGER,  -- 1 Q5 I/O, 2 Q5 implicit, 3 Q6 I/O, 4 Q6 multivalue CSV, 5 Q6 multivalue UDT channel
    PRIMARY KEY (SiteID, ChannelID)
) WITHOUT ROWID;

CREATE TABLE IF NOT EXISTS PIDDef (
    DAHSID       INTEGER NOT NULL,
    PID          INTEGER NOT NULL,  -- its digits without separators
    IntervalType TEXT,              -- of its current value, as in ParameterValue
    Name         TEXT,
    PRIMARY KEY (DAHSID, PID)
) WITHOUT ROWID;

CREATE TABLE IF NOT EXISTS SiteSettings (
    SiteID         TEXT    NOT NULL,
    DAHSID         INTEGER NOT NULL,
    FirstDayOfWeek INTEGER,  -- 1 Sunday to 7 Saturday; NULL = not configured
    PRIMARY KEY (SiteID, DAHSID)
) WITHOUT ROWID;

-- ---------------------------------------------------------------- realtime database (connection 2)

-- The I/O servers' latest values and health records. The key's order is the order of the server's reads, so that a
-- read sorts nothing.
CREATE TABLE IF NOT EXISTS CurrentIO (
    SiteID TEXT    NOT NULL,
    IOID   TEXT    NOT NULL COLLATE NOCASE,  -- "C" + channel ID, or the name of a health record
    IsHDR  INTEGER NOT NULL DEFAULT 0,
    TStamp TEXT,   -- local time of the I/O server's write, "yyyy-MM-dd HH:mm:ss.fff"
    NValue,        -- the value as it is: integer, real or text; NULL = none
    XValue TEXT,   -- XML text of a value that is not a plain number; otherwise NULL
    PRIMARY KEY (SiteID, IOID)
) WITHOUT ROWID;

-- Commands to the I/O servers: written by this server, carried out and marked by them. IDs ascend in the order in which
-- the records were written (unlike Created, which the end of daylight saving sets back by an hour), so an I/O server
-- takes its commands by
--   SELECT ... FROM Message WHERE SiteID = ? AND Type = ? AND State = '' ORDER BY ID
-- and neither that nor a look at one record ever reads more than those records.
CREATE TABLE IF NOT EXISTS Message (
    ID          TEXT NOT NULL PRIMARY KEY,  -- assigned when the record is written
    SiteID      TEXT NOT NULL,
    Type        TEXT NOT NULL,              -- the queue: "Q5IOCOMMAND" or "Q6IOCOMMAND"
    Data        TEXT,                       -- the Command element
    Text1       TEXT NOT NULL DEFAULT '',   -- not used
    Text2       TEXT NOT NULL DEFAULT '',   -- not used
    Description TEXT,                       -- who asked for what
    State       TEXT NOT NULL DEFAULT '',   -- "DONE" once processed
    Response    TEXT,                       -- XML with a Success element
    Created     TEXT NOT NULL DEFAULT (strftime('%Y-%m-%d %H:%M:%f', 'now', 'localtime'))  -- local time
) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS Message_Queue ON Message (SiteID, Type, State, ID);

-- The latest value of each parameter for each of its interval types.
CREATE TABLE IF NOT EXISTS ParameterValue (
    SiteID       TEXT    NOT NULL,
    PID          INTEGER NOT NULL,
    IntervalType TEXT    NOT NULL,
    Value,                 -- integer, real or text; NULL = none
    MonitorCode  INTEGER,  -- 0 to 84; NULL = none
    TStamp       TEXT,     -- local time, "yyyy-MM-dd HH:mm:ss"
    PRIMARY KEY (SiteID, PID, IntervalType)
) WITHOUT ROWID;
