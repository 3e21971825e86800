#pragma once

// Stand-ins for everything the server reaches through an interface. They do what the test tells them and write down,
// in one common journal, what was asked of them and in which order.

#include <fmt/format.h>

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "OPC/OPC DA Server/frmOPCQuelm.h"
#include "Shared Types/Conversion.h"
#include "Shared Types/RuntimeError.h"
#include "Shared Types/Text.h"
#include "Shared Types/TimeSource.h"

namespace quelm::fakes {

using Lines = std::vector<std::string>;
using Failure = std::optional<RuntimeError>;

inline void raiseIf(const Failure& failure) {
    if (failure) {
        throw *failure;
    }
}

struct Journal {
    Lines lines;
    void add(std::string line) { lines.push_back(std::move(line)); }
    Lines take() { return std::exchange(lines, {}); }
};

// Messages as "type text".
struct Messages : IRaiseMsg {
    Lines lines;
    void RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) override {
        lines.push_back(fmt::format("{} {}", lngMsgType, strDescription));
    }
    Lines take() { return std::exchange(lines, {}); }
};

// ---- clock

struct Interval : IInterval {
    Interval(Journal& j, std::int32_t p, std::string d) : journal(j), period(p), description(std::move(d)) {}
    Journal& journal;
    std::int32_t period;
    std::string description;
    IntervalExpired handler;
    bool enabled = true;
    bool cancelled = false;

    void OnIntervalExpired(IntervalExpired h) override { handler = std::move(h); }
    std::int32_t Period() const override { return period; }
    void SetIntervalEnabled(bool blnEnabled) override {
        enabled = blnEnabled;
        journal.add(fmt::format("interval '{}': enabled={}", description, blnEnabled));
    }
    void CancelInterval(bool blnNow) override {
        cancelled = true;
        journal.add(fmt::format("interval '{}': cancel({})", description, blnNow));
    }
};

struct Clock : IClock {
    explicit Clock(Journal& j) : journal(j) {}
    Journal& journal;
    std::vector<std::weak_ptr<Interval>> intervals;
    Failure failure;

    std::shared_ptr<IInterval> CreateInterval(std::int32_t lngPeriod, std::int32_t lngOffset,
                                              const Variant& varActionData, std::string_view strDescription,
                                              bool blnEnabled, bool blnOneShot, bool blnAligned,
                                              std::int32_t lngTolerance, std::int32_t lngReserved) override {
        raiseIf(failure);
        journal.add(fmt::format("clock: {} s at {} '{}' {} {} {} {} {}{}", lngPeriod, lngOffset, strDescription,
                                blnEnabled, blnOneShot, blnAligned, lngTolerance, lngReserved,
                                varActionData.isEmpty() ? "" : " with data"));
        auto interval = std::make_shared<Interval>(journal, lngPeriod, std::string(strDescription));
        intervals.push_back(interval);
        return interval;
    }

    // Lets every living interval of that name expire once; the number of those that did.
    int fire(std::string_view description) {
        int fired = 0;
        for (std::size_t i = 0; i < intervals.size(); ++i) {
            const auto interval = intervals[i].lock();
            if (interval && interval->description == description && interval->enabled && !interval->cancelled &&
                interval->handler) {
                interval->handler(1, Variant{}, Date{}, false);
                ++fired;
            }
        }
        return fired;
    }
};

// ---- database library

inline OPCDef definition(std::string tagname, std::string id, std::int32_t dataType = 1, std::int32_t tagType = 1,
                         std::int32_t refreshRate = 1, bool write = false) {
    OPCDef::Columns columns;
    columns.Tagname = Variant(std::move(tagname));
    columns.ID = Variant(std::move(id));
    columns.TagType = Variant(tagType);
    columns.DataType = Variant(dataType);
    columns.Write = Variant(write);
    columns.NullValue = Variant::null();
    columns.DownIsValid = Variant(true);
    columns.UseSubstatus = Variant(false);
    columns.RefreshRate = Variant(refreshRate);
    return OPCDef(std::move(columns));
}

inline CurrentIORecord record(std::string id, Variant value, std::string xml = {}, Date stamp = {}) {
    CurrentIORecord made;
    made.IOID = std::move(id);
    made.NValue = std::move(value);
    made.XValue = xml;
    made.TStamp = stamp;
    return made;
}

struct DBIL : IDBIL, IConfigurationReader, IRealtimeDB {
    explicit DBIL(Journal& j) : journal(j) {}
    Journal& journal;
    std::map<std::string, std::deque<bool>> setupResults;  // per site; True when used up
    std::deque<bool> connectionResults;                    // True when used up
    std::map<std::string, std::shared_ptr<const OPCDefCollection>> definitions;
    std::shared_ptr<const ChannelDefCollection> channelDefs = std::make_shared<ChannelDefCollection>();
    std::shared_ptr<const CurrentIOCollection> snapshot;
    std::optional<MessageRecord> messageRecord;
    Failure testFailure, definitionsFailure, channelDefsFailure, readFailure, messageFailure, insertFailure,
        terminateFailure;
    std::deque<bool> insertResults;  // True when used up
    int inserted = 0;
    int reads = 0;
    int channelDefLoads = 0;

    static bool next(std::deque<bool>& results) {
        if (results.empty()) {
            return true;
        }
        const bool result = results.front();
        results.pop_front();
        return result;
    }

    void setSnapshot(std::vector<CurrentIORecord> records) { snapshot = CurrentIOCollection::Make(std::move(records)); }
    void setChannels(const std::vector<std::pair<std::int32_t, std::int32_t>>& typesByID) {
        auto made = std::make_shared<ChannelDefCollection>();
        for (const auto& [id, type] : typesByID) {
            made->Add(ChannelDef{id, fmt::format("Channel {}", id), type});
        }
        channelDefs = std::move(made);
    }
    void setDefinitions(const std::string& site, std::vector<OPCDef> defs) {
        definitions[site] = std::make_shared<const OPCDefCollection>(std::move(defs));
    }

    bool Initialize(std::string_view strExecutableName) override {
        journal.add(fmt::format("dbil: initialize {}", strExecutableName));
        return false;
    }
    bool SetupSite(std::string_view strSiteID, std::string_view c1, std::string_view c2, std::string_view c3,
                   std::string_view c4, std::string_view c5, bool blnUse, bool blnReserved) override {
        journal.add(
            fmt::format("dbil: set up {} {},{},{},{},{} {} {}", strSiteID, c1, c2, c3, c4, c5, blnUse, blnReserved));
        return next(setupResults[std::string(strSiteID)]);
    }
    bool TestConnections(std::string_view strSiteID, bool b1, bool b2, bool b3, bool b4, bool b5,
                         bool blnReport) override {
        journal.add(fmt::format("dbil: test '{}' {} {} {} {} {} {}", strSiteID, b1, b2, b3, b4, b5, blnReport));
        raiseIf(testFailure);
        return next(connectionResults);
    }
    IConfigurationReader& ConfigurationReader() override { return *this; }
    IRealtimeDB& RealtimeDB() override { return *this; }
    void Terminate() override {
        journal.add("dbil: terminate");
        raiseIf(terminateFailure);
    }

    std::shared_ptr<const OPCDefCollection> LoadOPCDefs(std::string_view strSiteID) override {
        raiseIf(definitionsFailure);
        return definitions[std::string(strSiteID)];
    }
    std::shared_ptr<const ChannelDefCollection> LoadChannelDefs(std::string_view) override {
        ++channelDefLoads;
        raiseIf(channelDefsFailure);
        return channelDefs;
    }
    std::vector<PIDDefinition> LoadPIDDefinitions(std::string_view, std::int32_t) override { return {}; }
    SiteSettings LoadSiteSettings(std::string_view, std::int32_t) override { return {}; }

    std::shared_ptr<const CurrentIOCollection> ReadCurrentIO(std::string_view, bool) override {
        ++reads;
        raiseIf(readFailure);
        return snapshot;
    }
    std::optional<MessageRecord> GetMessageRecord(std::string_view, std::string_view) override {
        raiseIf(messageFailure);
        return messageRecord;
    }
    bool InsertMessage(std::string& strMsgID, std::string_view strSiteID, std::string_view strMsgType,
                       std::string_view strMsgData, std::string_view strUnused1, std::string_view strUnused2,
                       std::string_view strDescription) override {
        journal.add(fmt::format("insert '{}' {} {} {} '{}' '{}' '{}'", strMsgID, strSiteID, strMsgType, strMsgData,
                                strUnused1, strUnused2, strDescription));
        raiseIf(insertFailure);
        if (!next(insertResults)) {
            return false;
        }
        strMsgID = fmt::format("M{}", ++inserted);
        return true;
    }
    void ReadParameterValues(std::string_view, std::vector<ParameterValue>& out) override { out.clear(); }
};

struct SystemINI : ISystemINI {
    bool readable = true;
    bool selectable = true;
    std::vector<DAHSEntry> entries;
    DAHSEntry selected;
    std::string folder = "/var/log/quelm";

    bool ReadINI(std::int32_t, bool) override { return readable; }
    bool SelectDAHS(std::int32_t, bool) override { return selectable; }
    const DAHSEntry& SelectedDAHS() const override { return selected; }
    const std::vector<DAHSEntry>& AllDAHS() const override { return entries; }
    std::string LogFolder() const override { return folder; }
    SqlTimeouts DatabaseTimeouts() const override { return {}; }
};

// ---- data interface and current-data reader

struct SiteSetUp {
    bool loadable = true;
    std::map<std::int32_t, std::string> intervalTypesByPID;
    std::int32_t firstDayOfWeek = 2;
    std::map<std::int32_t, CurrentValueRecord> valuesByPID;
    Failure loadFailure, definitionsFailure, stopFailure;
    ICDRReferences* references = nullptr;
    std::int32_t readerPeriod = 0;
    IDataInterface::MessageHandler raiseDIMessage;
};

struct DataInterface : IDataInterface, IPIDDefinitions {
    DataInterface(Journal& j, SiteSetUp& s) : journal(j), setUp(s) {}
    Journal& journal;
    SiteSetUp& setUp;

    void OnMessage(MessageHandler handler) override { setUp.raiseDIMessage = std::move(handler); }
    bool Load(std::int32_t lngDAHSID, bool blnDefinitions, bool blnReserved) override {
        journal.add(fmt::format("di: load {} {} {}", lngDAHSID, blnDefinitions, blnReserved));
        raiseIf(setUp.loadFailure);
        return setUp.loadable;
    }
    void TearDown() override { journal.add("di: tear down"); }
    const IPIDDefinitions& PIDDefinitions() const override { return *this; }
    std::int32_t FirstDayOfWeek() const override { return setUp.firstDayOfWeek; }
    bool IsDefined(std::int32_t lngPID) const override {
        raiseIf(setUp.definitionsFailure);
        return setUp.intervalTypesByPID.count(lngPID) > 0;
    }
    const std::string& IntervalType(std::int32_t lngPID, bool) const override {
        return setUp.intervalTypesByPID.at(lngPID);
    }
};

struct CurrentDataReader : ICurrentDataReader {
    CurrentDataReader(Journal& j, SiteSetUp& s) : journal(j), setUp(s) {}
    Journal& journal;
    SiteSetUp& setUp;

    void Initialize(IRaiseMsg&, ICDRReferences& objReferences, std::int32_t lngPeriod) override {
        setUp.references = &objReferences;
        setUp.readerPeriod = lngPeriod;
    }
    void Start() override { journal.add("cdr: start"); }
    void Stop() override {
        journal.add("cdr: stop");
        raiseIf(setUp.stopFailure);
    }
    const CurrentValueRecord* CurrentValue(std::int32_t lngPID, std::string_view) const override {
        const auto found = setUp.valuesByPID.find(lngPID);
        return found == setUp.valuesByPID.end() ? nullptr : &found->second;
    }
};

// ---- control

struct SlikTag : ISLIKTag {
    std::string name;
    std::int16_t type = 0;
    Variant value;
    std::int16_t quality = 0;
    Date stamp;
    Failure setFailure;

    const std::string& Name() const override { return name; }
    std::int16_t DataType() const override { return type; }
    const Variant& Value() const override { return value; }
    std::int16_t Quality() const override { return quality; }
    Date Timestamp() const override { return stamp; }
    void SetVQT(const Variant& v, std::int16_t q, Date t) override {
        raiseIf(setFailure);
        value = v;
        quality = q;
        stamp = t;
    }
};

struct SlikTags : ISLIKTags {
    std::deque<SlikTag> tags;
    std::vector<std::int32_t> accessRights;

    SlikTag* find(std::string_view name) {
        for (SlikTag& tag : tags) {
            if (equalsIgnoringCase(tag.name, name)) {
                return &tag;
            }
        }
        return nullptr;
    }
    ISLIKTag& Add(std::string_view strName, std::int32_t lngAccessRights, const Variant& varValue,
                  std::int16_t intQuality, Date dtmTimestamp) override {
        if (find(strName) != nullptr) {
            throw RuntimeError(errors::duplicateKey);
        }
        SlikTag& tag = tags.emplace_back();
        tag.name = strName;
        tag.type = static_cast<std::int16_t>(varValue.kind());
        tag.SetVQT(varValue, intQuality, dtmTimestamp);
        accessRights.push_back(lngAccessRights);
        return tag;
    }
    SlikTag& Item(std::string_view strName) override {
        SlikTag* tag = find(strName);
        if (tag == nullptr) {
            throw RuntimeError(errors::invalidCall);
        }
        return *tag;
    }
    std::size_t Count() const override { return tags.size(); }
};

struct SlikServer : ISLIKServer {
    explicit SlikServer(Journal& j) : journal(j) {}
    Journal& journal;
    SlikTags tags;
    ISLIKServerEvents* events = nullptr;
    bool inUse = false;
    Failure startFailure, registerFailure, disconnectFailure;

    void SetEvents(ISLIKServerEvents* objEvents) override { events = objEvents; }
    void RegisterServer() override {
        raiseIf(registerFailure);
        journal.add("slik: register");
    }
    void UnregisterServer() override { journal.add("slik: unregister"); }
    void StartServer() override {
        raiseIf(startFailure);
        journal.add(fmt::format("slik: start with {} items", tags.Count()));
    }
    std::string AppID() const override { return "the-app-id"; }
    std::string AppName() const override { return "the-app-name"; }
    ISLIKTags& SLIKTags() override { return tags; }
    void RequestDisconnect(std::string_view strReason) override {
        journal.add(fmt::format("slik: shutdown notice '{}'", strReason));
        raiseIf(disconnectFailure);
    }
    bool InUse() const override { return inUse; }
};

// ---- window and log

struct Window : IMainWindow {
    explicit Window(Journal& j) : journal(j), timer{j} {}
    struct List : IMessageList {
        Lines lines;
        std::int32_t Count() const override { return static_cast<std::int32_t>(lines.size()); }
        void Add(std::string_view strText) override { lines.emplace_back(strText); }
    };
    struct Timer : IWindowTimer {
        explicit Timer(Journal& j) : journal(j) {}
        Journal& journal;
        std::function<void()> handler;
        void OnTimer(std::function<void()> h) override { handler = std::move(h); }
        void SetEnabled(bool blnEnabled) override { journal.add(fmt::format("timer: enabled={}", blnEnabled)); }
        void SetInterval(std::int32_t ms) override { journal.add(fmt::format("timer: interval={}", ms)); }
    };
    Journal& journal;
    List list;
    Timer timer;
    int refreshes = 0;

    IMessageList& lvMessages() override { return list; }
    IWindowTimer& tmrDisconnect() override { return timer; }
    void Show() override { journal.add("window: show"); }
    void Hide() override { journal.add("window: hide"); }
    void Refresh() override { ++refreshes; }
    void ShowInformationBox(std::string_view strTitle, std::string_view strText) override {
        journal.add(fmt::format("window: box '{}' {}", strTitle, strText));
    }
    void Close() override { journal.add("window: close"); }
};

// Lines as "log type text", flagged ones as "log! type text".
struct LogWriter : ILogWriter {
    explicit LogWriter(Journal& j) : journal(j) {}
    Journal& journal;

    bool Open(std::string_view strFilePath, std::string_view strTitle, bool blnOverwrite, bool blnTimeStamps) override {
        journal.add(fmt::format("log: open '{}' '{}' {} {}", strFilePath, strTitle, blnOverwrite, blnTimeStamps));
        return false;
    }
    void WriteEntry(std::string_view strText, bool blnFlag) override {
        journal.add(fmt::format("log{} {}", blnFlag ? "!" : "", strText));
    }
    void Close() override { journal.add("log: close"); }
};

// ---- a whole server on fakes

struct Host {
    explicit Host(std::string commandLine = {}) {
        ini.folder = "C:\\Logs";
        ini.selected = site("A", 1);
        ini.entries = {ini.selected};
        form.emplace(ServerParts{slik, window, std::move(commandLine), 1234,
                                 [this] { return std::make_unique<SystemINI>(ini); },
                                 [this](const ISystemINI&) { return dbil; },
                                 [this]() -> std::shared_ptr<IClock> { return realClock ? realClock : clock; },
                                 [this] {
                                     raiseIf(logFailure);
                                     return std::make_unique<LogWriter>(journal);
                                 },
                                 [](std::int32_t type) { return std::to_string(type); },
                                 SiteParts{[this](IDBIL&, std::string_view id) {
                                               return std::make_unique<DataInterface>(journal, sites[std::string(id)]);
                                           },
                                           // All sites read the same values.
                                           [this] { return std::make_unique<CurrentDataReader>(journal, reader); }}});
    }

    static DAHSEntry site(const std::string& id, std::int32_t dahs) {
        return DAHSEntry{id, dahs, {id + "1", id + "2", id + "3", id + "4", id + "5"}};
    }

    ManualTimeSource time{Date{makeDate(2026, 11, 16, 8, 25, 13).days + 0.75 / 86400}};
    ScopedTimeSource inForce{time};
    Journal journal;
    SystemINI ini;
    std::shared_ptr<DBIL> dbil = std::make_shared<DBIL>(journal);
    std::shared_ptr<Clock> clock = std::make_shared<Clock>(journal);
    std::shared_ptr<IClock> realClock;  // takes the place of the fake one when set
    SlikServer slik{journal};
    Window window{journal};
    std::map<std::string, SiteSetUp> sites;
    SiteSetUp reader;
    Failure logFailure;
    std::optional<frmOPCQuelm> form;
};

}  // namespace quelm::fakes
