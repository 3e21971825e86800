#pragma once

// Stand-ins for everything else that the server reaches through an interface, and a whole server on them.

#include <fmt/format.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "OPC/OPC DA Server/frmOPCQuelm.h"
#include "base/RuntimeError.h"
#include "loop/VirtualLoop.h"
#include "server/LibraryFakes.h"
#include "slikda/SLIKServer.h"

namespace quelm::fakes {

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
    std::int32_t KeepLogs() const override { return 0; }
    SqlTimeouts DatabaseTimeouts() const override { return {}; }
};

// ---- data interface and current-data reader

struct SiteSetUp {
    bool loadable = true;
    std::map<std::int32_t, std::string> intervalTypesByPID;
    std::map<std::int32_t, std::string> namesByPID;
    std::map<std::int32_t, CurrentValueRecord> valuesByPID;
    Failure loadFailure;
    ICDRReferences* references = nullptr;
    std::int32_t readerPeriod = 0;
    bool isReaderLost = false;
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
    std::int32_t FirstDayOfWeek() const override { return 2; }
    bool IsDefined(std::int32_t lngPID) const override { return setUp.intervalTypesByPID.count(lngPID) > 0; }
    const std::string& IntervalType(std::int32_t lngPID, bool) const override {
        return setUp.intervalTypesByPID.at(lngPID);
    }
    const std::string& Name(std::int32_t lngPID) const override { return setUp.namesByPID[lngPID]; }
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
    void Stop() override { journal.add("cdr: stop"); }
    bool IsDatabaseLost() const override { return setUp.isReaderLost; }
    const CurrentValueRecord* CurrentValue(std::int32_t lngPID, std::string_view) const override {
        const auto found = setUp.valuesByPID.find(lngPID);
        return found == setUp.valuesByPID.end() ? nullptr : &found->second;
    }
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

// ---- a whole server on fakes and the real control

struct Host : World {
    explicit Host(std::string commandLine = {}) {
        time.setLocal(Date{makeDate(2026, 11, 16, 8, 25, 13).days + 0.75 / 86400});
        ini.folder = "C:\\Logs";
        ini.selected = site("A", 1);
        ini.entries = {ini.selected};
        slik.setHooks({[this] { asked(fmt::format("slik: start with {} items", slik.SLIKTags().Count())); },
                       [this] { asked("slik: register"); }, [this] { asked("slik: unregister"); },
                       [this](std::string_view reason) { asked(fmt::format("slik: shutdown notice '{}'", reason)); },
                       nullptr});
        form.emplace(ServerParts{slik, window, std::move(commandLine), 1234,
                                 [this] { return std::make_unique<SystemINI>(ini); },
                                 [this](const ISystemINI&) { return dbil; },
                                 [this]() -> std::shared_ptr<IClock> { return realClock ? realClock : clock; },
                                 [this](const ISystemINI&) {
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
    // Of the control, which does it unless it is told to fail.
    void asked(std::string what) {
        journal.add(std::move(what));
        raiseIf(controlFailure);
    }

    SystemINI ini;
    std::shared_ptr<IClock> realClock;  // takes the place of the fake one when set
    VirtualLoop loop;
    SLIKServer slik{loop, loop};
    Failure controlFailure, logFailure;
    Window window{journal};
    std::map<std::string, SiteSetUp> sites;
    SiteSetUp reader;
    std::optional<frmOPCQuelm> form;
};

}  // namespace quelm::fakes
