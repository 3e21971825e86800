#pragma once

// The database interface library as the server sees it: site set-up, connection test, configuration reader and
// the realtime database. Every operation that reaches a database takes a bounded time.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "DB Interface Library/ChannelDef.h"
#include "DB Interface Library/CurrentIO.h"
#include "DB Interface Library/OPCDef.h"
#include "base/Variant.h"

namespace quelm {

// A parameter's definition.
struct PIDDefinition {
    std::int32_t PID = 0;
    std::string IntervalType;  // of its current value; "" when none is configured
    std::string Name;          // what people call it; may be ""
};

struct SiteSettings {
    std::int32_t FirstDayOfWeek = 0;  // 1 Sunday to 7 Saturday; 0 = not configured
};

class IConfigurationReader {
 public:
    virtual ~IConfigurationReader() = default;
    // The site's OPC item definitions in their order, or nothing on failure (the reason goes to the problem sink).
    virtual std::shared_ptr<const OPCDefCollection> LoadOPCDefs(std::string_view strSiteID) = 0;
    // The same as LoadChannelDefs for what can do without: nothing on failure (the reason goes to the problem sink).
    virtual std::shared_ptr<const ChannelDefCollection> LoadChannelNames(std::string_view strSiteID) = 0;
    // These raise RuntimeError with the database's own number and text.
    virtual std::shared_ptr<const ChannelDefCollection> LoadChannelDefs(std::string_view strSiteID) = 0;
    virtual std::vector<PIDDefinition> LoadPIDDefinitions(std::string_view strSiteID, std::int32_t lngDAHSID) = 0;
    virtual SiteSettings LoadSiteSettings(std::string_view strSiteID, std::int32_t lngDAHSID) = 0;
};

// A command message record, read back.
struct MessageRecord {
    std::string State;        // "DONE" once the I/O server has processed it
    std::string Response;     // XML fragment with a Success element; may be empty
    std::string MessageData;  // the command element as it was written
};

// A parameter's latest current value, and where it belongs.
struct CurrentValueRecord {
    Variant Value;
    Variant MonitorCode;  // normally a whole number 0 to 84; Null when there is none
};
struct ParameterValue : CurrentValueRecord {
    std::int32_t PID = 0;
    std::string IntervalType;
};

class IRealtimeDB {
 public:
    virtual ~IRealtimeDB() = default;
    // All of these raise RuntimeError with the database's own number and text.
    // The site's CurrentIO records; never nothing here, though callers must expect it of other implementations.
    virtual std::shared_ptr<const CurrentIOCollection> ReadCurrentIO(std::string_view strSiteID,
                                                                     bool blnUseImplicitChannels) = 0;
    virtual std::optional<MessageRecord> GetMessageRecord(std::string_view strSiteID, std::string_view strMsgID) = 0;
    // Writes a command message record for an I/O server: strMsgType is the queue, strMsgData the command element,
    // strDescription a line for people. strMsgID becomes the new record's ID and stays as it is when there is none.
    // False when the database took the record without creating it.
    virtual bool InsertMessage(std::string& strMsgID, std::string_view strSiteID, std::string_view strMsgType,
                               std::string_view strMsgData, std::string_view strUnused1, std::string_view strUnused2,
                               std::string_view strDescription) = 0;
    // Replaces out by the site's current parameter values, in the order of PID and interval type.
    virtual void ReadParameterValues(std::string_view strSiteID, std::vector<ParameterValue>& out) = 0;
};

class IDBIL {
 public:
    virtual ~IDBIL() = default;
    virtual bool Initialize(std::string_view strExecutableName) = 0;
    // Makes the site known with its five connection strings (configuration, realtime, three unused). False when the
    // first two are not usable; a site set up twice takes the new strings. Nothing is connected yet.
    virtual bool SetupSite(std::string_view strSiteID, std::string_view strConnection1, std::string_view strConnection2,
                           std::string_view strConnection3, std::string_view strConnection4,
                           std::string_view strConnection5, bool blnUse, bool blnReserved) = 0;
    // Tests the chosen ones of every set-up site's five connections (strSiteID "": all sites); True when all answer.
    // The reason of each failure goes to the problem sink when blnReport is True, without passwords.
    virtual bool TestConnections(std::string_view strSiteID, bool blnConnection1, bool blnConnection2,
                                 bool blnConnection3, bool blnConnection4, bool blnConnection5, bool blnReport) = 0;
    virtual IConfigurationReader& ConfigurationReader() = 0;
    virtual IRealtimeDB& RealtimeDB() = 0;
    // Closes every connection; called by every site and by the window, so a repetition does nothing.
    virtual void Terminate() = 0;
};

}  // namespace quelm
