-- The databases of one or more sites, for SQL Server 2016 or later, in the same shape as postgresql.sql. It has not been
-- run against a SQL Server yet. Connection 1 of a site (configuration) and connection 2 (realtime) may lead to the same
-- database or to two; each database may hold all tables.
--
--   sqlcmd -d Quelm -i sqlserver.sql
--
-- Columns are typed here, so a value that may be a number or a text has two columns, of which one is NULL. Site IDs and
-- message IDs are compared exactly, letter case included, whatever the database's own collation is.

-- ---------------------------------------------------------------- configuration database (connection 1)

-- One record per OPC item. Items are made in the order of Position, then RecordID.
CREATE TABLE Q5OPCDEF (
    RecordID                INT IDENTITY(1, 1) PRIMARY KEY,
    SiteID                  NVARCHAR(64) COLLATE Latin1_General_BIN2 NOT NULL,
    Position                INT NOT NULL DEFAULT 0,
    Tagname                 NVARCHAR(1000),          -- the OPC item's name
    ID                      NVARCHAR(1000),          -- a PID ("1-010-0-12-34") or channels ("[@1234];[@1235]")
    TagType                 INT DEFAULT 1,           -- 1 = OPC DA item; others are refused
    DataType                INT,                     -- 1 to 5
    Write                   SMALLINT DEFAULT 0,      -- Booleans: 0 or 1 (also -1)
    NullValue               FLOAT,                   -- stands in for a value that does not convert: a number
    NullValueText           NVARCHAR(1000),          -- or, where NullValue is NULL, a text
    DownIsValid             SMALLINT DEFAULT 0,
    UseSubstatus            SMALLINT DEFAULT 0,
    RefreshRate             INT DEFAULT 20,          -- must be above 0
    ShowStartOfPeriodTStamp SMALLINT DEFAULT 0       -- for other programs; this server does not read it
);
CREATE INDEX Q5OPCDEF_Site ON Q5OPCDEF (SiteID, Position, RecordID);

CREATE TABLE IOChannelDef (
    SiteID    NVARCHAR(64) COLLATE Latin1_General_BIN2 NOT NULL,
    ChannelID INT NOT NULL,
    Name      NVARCHAR(1000),
    DefType   INT,  -- 1 Q5 I/O, 2 Q5 implicit, 3 Q6 I/O, 4 Q6 multivalue CSV, 5 Q6 multivalue UDT channel
    PRIMARY KEY (SiteID, ChannelID)
);

CREATE TABLE PIDDef (
    DAHSID       INT NOT NULL,
    PID          INT NOT NULL,      -- its digits without separators
    IntervalType NVARCHAR(16),      -- of its current value, as in ParameterValue
    Name         NVARCHAR(1000),
    PRIMARY KEY (DAHSID, PID)
);

CREATE TABLE SiteSettings (
    SiteID         NVARCHAR(64) COLLATE Latin1_General_BIN2 NOT NULL,
    DAHSID         INT NOT NULL,
    FirstDayOfWeek INT,  -- 1 Sunday to 7 Saturday; NULL = not configured
    PRIMARY KEY (SiteID, DAHSID)
);

-- ---------------------------------------------------------------- realtime database (connection 2)

-- The I/O servers' latest values and health records.
CREATE TABLE CurrentIO (
    SiteID NVARCHAR(64) COLLATE Latin1_General_BIN2    NOT NULL,
    IOID   NVARCHAR(128) COLLATE Latin1_General_CI_AS  NOT NULL,  -- "C" + channel ID, or a health record's name
    IsHDR  SMALLINT NOT NULL DEFAULT 0,
    TStamp DATETIME2(3),    -- local time of the I/O server's write
    NValue FLOAT,           -- the value; NULL = none
    XValue NVARCHAR(MAX),   -- XML text of a value that is not a plain number; otherwise NULL
    PRIMARY KEY (SiteID, IOID)
);

-- Commands to the I/O servers: written by this server, carried out and marked by them. IDs ascend in the order in which
-- the records were written, so an I/O server takes its commands by
--   SELECT ... FROM Message WHERE SiteID = ? AND Type = ? AND State = '' ORDER BY ID
CREATE TABLE Message (
    ID          NVARCHAR(64) COLLATE Latin1_General_BIN2 NOT NULL PRIMARY KEY,  -- assigned when it is written
    SiteID      NVARCHAR(64) COLLATE Latin1_General_BIN2 NOT NULL,
    Type        NVARCHAR(32) NOT NULL,              -- the queue: "Q5IOCOMMAND" or "Q6IOCOMMAND"
    Data        NVARCHAR(MAX),                      -- the Command element
    Text1       NVARCHAR(1000) NOT NULL DEFAULT '', -- not used
    Text2       NVARCHAR(1000) NOT NULL DEFAULT '', -- not used
    Description NVARCHAR(MAX),                      -- who asked for what
    State       NVARCHAR(32) NOT NULL DEFAULT '',   -- "DONE" once processed
    Response    NVARCHAR(MAX),                      -- XML with a Success element
    Created     DATETIME2(3) NOT NULL DEFAULT SYSDATETIME()
);
CREATE INDEX Message_Queue ON Message (SiteID, Type, State, ID);

-- The latest value of each parameter for each of its interval types.
CREATE TABLE ParameterValue (
    SiteID       NVARCHAR(64) COLLATE Latin1_General_BIN2 NOT NULL,
    PID          INT NOT NULL,
    IntervalType NVARCHAR(16) NOT NULL,
    Value        FLOAT,            -- a number
    ValueText    NVARCHAR(1000),   -- or, where Value is NULL, a text; both NULL = none
    MonitorCode  INT,              -- 0 to 84; NULL = none
    TStamp       DATETIME2(3),     -- local time
    PRIMARY KEY (SiteID, PID, IntervalType)
);
GO

-- The server's read of a site's current values; all channels' records, implicit or not, stand in the table. The server
-- takes the columns by their place.
CREATE PROCEDURE csp_GetCurrentIO2 @strSiteID NVARCHAR(64), @intUseImplicitChannels INT AS
BEGIN
    SET NOCOUNT ON;
    SELECT IOID, TStamp, NValue, XValue FROM CurrentIO WHERE SiteID = @strSiteID ORDER BY IOID;
END
GO
