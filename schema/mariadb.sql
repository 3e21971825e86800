-- The databases of one or more sites, for MariaDB 10.5 or later, alone or as a Galera cluster, in the same shape as
-- postgresql.sql. Connection 1 of a site (configuration) and connection 2 (realtime) may lead to the same database or to
-- two; each database may hold all tables.
--
--   mariadb quelm <mariadb.sql
--
-- Columns are typed here, so a value that may be a number or a text has two columns, of which one is NULL. All texts are
-- compared exactly, letter case included. "Write" is a word of MariaDB's own and stands in quotes.

-- ---------------------------------------------------------------- configuration database (connection 1)

-- One record per OPC item. Items are made in the order of Position, then RecordID.
CREATE TABLE IF NOT EXISTS Q5OPCDEF (
    RecordID                INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
    SiteID                  VARCHAR(64) NOT NULL,
    Position                INT NOT NULL DEFAULT 0,
    Tagname                 VARCHAR(1000),          -- the OPC item's name
    ID                      VARCHAR(1000),          -- a PID ("1-010-0-12-34") or channels ("[@1234];[@1235]")
    TagType                 INT DEFAULT 1,           -- 1 = OPC DA item; others are refused
    DataType                INT,                     -- 1 to 5
    `Write`                 SMALLINT DEFAULT 0,      -- Booleans: 0 or 1 (also -1)
    NullValue               DOUBLE,                   -- stands in for a value that does not convert: a number
    NullValueText           VARCHAR(1000),          -- or, where NullValue is NULL, a text
    DownIsValid             SMALLINT DEFAULT 0,
    UseSubstatus            SMALLINT DEFAULT 0,
    RefreshRate             INT DEFAULT 20,          -- must be above 0
    ShowStartOfPeriodTStamp SMALLINT DEFAULT 0       -- for other programs; this server does not read it
) ENGINE = InnoDB DEFAULT CHARACTER SET utf8mb4 COLLATE utf8mb4_nopad_bin;
CREATE INDEX IF NOT EXISTS Q5OPCDEF_Site ON Q5OPCDEF (SiteID, Position, RecordID);

CREATE TABLE IF NOT EXISTS IOChannelDef (
    SiteID    VARCHAR(64) NOT NULL,
    ChannelID INT NOT NULL,
    Name      VARCHAR(1000),
    DefType   INT,  -- 1 Q5 I/O, 2 Q5 implicit, 3 Q6 I/O, 4 Q6 multivalue CSV, 5 Q6 multivalue UDT channel
    PRIMARY KEY (SiteID, ChannelID)
) ENGINE = InnoDB DEFAULT CHARACTER SET utf8mb4 COLLATE utf8mb4_nopad_bin;

CREATE TABLE IF NOT EXISTS PIDDef (
    DAHSID       INT NOT NULL,
    PID          INT NOT NULL,      -- its digits without separators
    IntervalType VARCHAR(16),      -- of its current value, as in ParameterValue
    Name         VARCHAR(1000),
    PRIMARY KEY (DAHSID, PID)
) ENGINE = InnoDB DEFAULT CHARACTER SET utf8mb4 COLLATE utf8mb4_nopad_bin;

CREATE TABLE IF NOT EXISTS SiteSettings (
    SiteID         VARCHAR(64) NOT NULL,
    DAHSID         INT NOT NULL,
    FirstDayOfWeek INT,  -- 1 Sunday to 7 Saturday; NULL = not configured
    PRIMARY KEY (SiteID, DAHSID)
) ENGINE = InnoDB DEFAULT CHARACTER SET utf8mb4 COLLATE utf8mb4_nopad_bin;

-- ---------------------------------------------------------------- realtime database (connection 2)

-- The I/O servers' latest values and health records.
CREATE TABLE IF NOT EXISTS CurrentIO (
    SiteID VARCHAR(64)    NOT NULL,
    IOID   VARCHAR(128)  NOT NULL,  -- "C" + channel ID, or a health record's name
    IsHDR  SMALLINT NOT NULL DEFAULT 0,
    TStamp DATETIME(3),    -- local time of the I/O server's write
    NValue DOUBLE,           -- the value; NULL = none
    XValue MEDIUMTEXT,   -- XML text of a value that is not a plain number; otherwise NULL
    PRIMARY KEY (SiteID, IOID)
) ENGINE = InnoDB DEFAULT CHARACTER SET utf8mb4 COLLATE utf8mb4_nopad_bin;

-- Commands to the I/O servers: written by this server, carried out and marked by them. IDs ascend in the order in which
-- the records were written, so an I/O server takes its commands by
--   SELECT ... FROM Message WHERE SiteID = ? AND Type = ? AND State = '' ORDER BY ID
CREATE TABLE IF NOT EXISTS Message (
    ID          VARCHAR(64) NOT NULL PRIMARY KEY,  -- assigned when it is written
    SiteID      VARCHAR(64) NOT NULL,
    Type        VARCHAR(32) NOT NULL,              -- the queue: "Q5IOCOMMAND" or "Q6IOCOMMAND"
    Data        MEDIUMTEXT,                      -- the Command element
    Text1       VARCHAR(1000) NOT NULL DEFAULT '', -- not used
    Text2       VARCHAR(1000) NOT NULL DEFAULT '', -- not used
    Description MEDIUMTEXT,                      -- who asked for what
    State       VARCHAR(32) NOT NULL DEFAULT '',   -- "DONE" once processed
    Response    MEDIUMTEXT,                      -- XML with a Success element
    Created     DATETIME(3) NOT NULL DEFAULT CURRENT_TIMESTAMP(3)
) ENGINE = InnoDB DEFAULT CHARACTER SET utf8mb4 COLLATE utf8mb4_nopad_bin;
CREATE INDEX IF NOT EXISTS Message_Queue ON Message (SiteID, Type, State, ID);

-- The latest value of each parameter for each of its interval types.
CREATE TABLE IF NOT EXISTS ParameterValue (
    SiteID       VARCHAR(64) NOT NULL,
    PID          INT NOT NULL,
    IntervalType VARCHAR(16) NOT NULL,
    Value        DOUBLE,            -- a number
    ValueText    VARCHAR(1000),   -- or, where Value is NULL, a text; both NULL = none
    MonitorCode  INT,              -- 0 to 84; NULL = none
    TStamp       DATETIME(3),     -- local time
    PRIMARY KEY (SiteID, PID, IntervalType)
) ENGINE = InnoDB DEFAULT CHARACTER SET utf8mb4 COLLATE utf8mb4_nopad_bin;

-- The server's read of a site's current values; all channels' records, implicit or not, stand in the table. The server
-- takes the columns by their place.
CREATE OR REPLACE PROCEDURE csp_GetCurrentIO2
    (strSiteID VARCHAR(64) CHARACTER SET utf8mb4 COLLATE utf8mb4_nopad_bin, intUseImplicitChannels INT)
    READS SQL DATA
    SELECT IOID, TStamp, NValue, XValue FROM CurrentIO WHERE SiteID = strSiteID ORDER BY IOID;
