-- The demo plant's I/O server for PostgreSQL, run by psql: beats every second, completes a refresh of all data once a
-- minute, moves what is a fraction, counts up what is a whole number above 1000, and carries out the commands.
\set QUIET on
\pset tuples_only on
SET client_min_messages = warning;

CREATE TEMPORARY TABLE Middle AS
    SELECT SiteID, IOID, NValue, row_number() OVER () AS Phase FROM CurrentIO WHERE NValue <> trunc(NValue);
CREATE TEMPORARY TABLE MiddleParameter AS
    SELECT SiteID, PID, IntervalType, Value, row_number() OVER () AS Phase FROM ParameterValue
    WHERE Value <> trunc(Value);
CREATE TEMPORARY TABLE LastRefresh AS SELECT LOCALTIMESTAMP - interval '1 hour' AS Finish;

DO $$
DECLARE
    swing CONSTANT double precision := extract(epoch FROM clock_timestamp()) / 11;
    iso CONSTANT text := 'YYYY-MM-DD"T"HH24:MI:SS.MS';
    command record;
    target text;
    given text;
BEGIN
    UPDATE CurrentIO c
    SET TStamp = LOCALTIMESTAMP, NValue = round((m.NValue * (1 + 0.04 * sin(swing + m.Phase)))::numeric, 3)
    FROM Middle m WHERE c.SiteID = m.SiteID AND c.IOID = m.IOID;
    UPDATE CurrentIO SET TStamp = LOCALTIMESTAMP, NValue = NValue + 1 WHERE NValue > 1000 AND NValue = trunc(NValue);
    UPDATE ParameterValue p
    SET TStamp = LOCALTIMESTAMP, Value = round((m.Value * (1 + 0.04 * sin(swing + 50 + m.Phase)))::numeric, 3)
    FROM MiddleParameter m WHERE p.SiteID = m.SiteID AND p.PID = m.PID AND p.IntervalType = m.IntervalType;
    UPDATE CurrentIO SET TStamp = LOCALTIMESTAMP, NValue = 1 WHERE IOID IN ('IOS.AllCommsOk', 'IOS6.AllCommsOk');
    UPDATE CurrentIO SET TStamp = LOCALTIMESTAMP, XValue = '<Start>' || to_char(Finish, iso) || '</Start><Finish>'
        || to_char(LOCALTIMESTAMP, iso) || '</Finish>'
    FROM LastRefresh
    WHERE IOID IN ('IOS.AllDataRefreshed', 'IOS6.AllDataRefreshed') AND Finish <= LOCALTIMESTAMP - interval '1 minute';
    UPDATE LastRefresh SET Finish = LOCALTIMESTAMP WHERE Finish <= LOCALTIMESTAMP - interval '1 minute';

    FOR command IN
        SELECT ID, SiteID, Data FROM Message WHERE State = '' AND Type IN ('Q5IOCOMMAND', 'Q6IOCOMMAND') ORDER BY ID
    LOOP
        target := (xpath('/Command[@action="WriteToChannel"]/@id', command.Data::xml))[1]::text;
        given := (xpath('/Command/@value', command.Data::xml))[1]::text;
        IF target IS NOT NULL THEN
            DELETE FROM Middle WHERE SiteID = command.SiteID AND IOID = target;
            UPDATE CurrentIO SET TStamp = LOCALTIMESTAMP,
                NValue = CASE WHEN given ~ '^-?[0-9]+([.][0-9]+)?$' THEN given::double precision END,
                XValue = CASE WHEN given !~ '^-?[0-9]+([.][0-9]+)?$' THEN '<Value>' || given || '</Value>' END
            WHERE SiteID = command.SiteID AND IOID = target;
        ELSE
            UPDATE LastRefresh SET Finish = Finish - interval '1 hour';
        END IF;
        UPDATE Message SET State = 'DONE', Response = '<Success>1</Success>' WHERE ID = command.ID;
    END LOOP;
END $$
\watch 1
