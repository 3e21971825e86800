#include "OPC/OPC DA Server/frmOPCQuelm.h"

#include <gmock/gmock.h>

#include "Fakes.h"

namespace quelm {
namespace {

using fakes::definition;
using fakes::Host;
using fakes::Lines;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr const char* testCall = "dbil: test '' true true false false false true";

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Lines opening(const std::string& commandLine = {}, const std::string& window = "window: hide") {
    return {window,
            "log: open 'C:\\Logs\\OPCServer 2026-11-16 08.25.13.01234.log' 'Quelm 5 OPC DA Server' false true",
            "log 1 [OPC-0100] Command Line:  " + commandLine,
            "log! 1 [OPC-0101] Initializing DBIL...",
            "dbil: initialize Q5OPCServer",
            "log! 1 [OPC-0102] Loading site IDs and connection strings..."};
}

Lines siteFound(const std::string& id, int dahs) {
    return {fmt::format("log 1 [OPC-0208] found site {}, DAHSID {}", id, dahs),
            fmt::format("dbil: set up {0} {0}1,{0}2,{0}3,{0}4,{0}5 true false", id)};
}

const Lines firstTest{"log! 1 [OPC-0223] Testing database connections...", testCall};
const Lines retry{"log! 1 [OPC-0225] Testing database connections...", testCall};

const Lines loading{
    "log! 1 [OPC-0104] Loading tag definitions and initializing tags...",
    "log 1 [OPC-0212] NOTE: These OPCDef fields are ignored: ",
    "log 1 [OPC-0213]       Write (writes are not supported)",
    "log 1 [OPC-0214]       RefreshRate (server automatically picks up latest current value)",
    "log 1 [OPC-0215]       ShowStartOfPeriodTStamp (server automatically picks up latest current value)"};

const Lines intervals{"clock: 20 s at 5 'Update Tag Values' true false true 1000 0",
                      "clock: 86400 s at 0 'Start new OPC log file' true false true 1 0",
                      "log! 1 [OPC-0105] Starting NDI SLIK server..."};

Lines started(int items) {
    return intervals + Lines{fmt::format("slik: start with {} items", items),
                             "log 1 [OPC-0106] SLIKServer AppID=the-app-id",
                             "log 1 [OPC-0107] SLIKServer AppName=the-app-name",
                             "log! 1 [OPC-0108] ---------- Quelm 5 OPC DA Server startup complete ----------"};
}

Lines siteHeader(const std::string& id) {
    return {"log! 1 [OPC-0115] Loading OPC tag definitions for " + id + "----------"};
}

const Lines noDefinitions{"log! 4 [OPC-0116] Error: could not load OPC tag definitions"};

Lines diLoading(const std::string& id, int dahs) {
    return {"log 1 [OPC-0209] Loading DI for " + id + "...", fmt::format("di: load {} true false", dahs)};
}

const std::string readInterval = "clock: 20 s at 0 'IOSManager: read CurrentIO' true false true 1000 0";

Lines finished(const std::string& id, const Lines& quelmTags, const Lines& channelTags) {
    Lines lines{"log 1 [OPC-0219] Tearing down DI for " + id, "di: tear down",
                fmt::format("log 1 [OPC-0217] ========== {} OPC tags from Quelm tags for {}", quelmTags.size(), id)};
    lines = lines + quelmTags;
    lines.push_back(
        fmt::format("log 1 [OPC-0218] ========== {} OPC tags from I/O channels for {}", channelTags.size(), id));
    return lines + channelTags;
}

// ---- start-up

struct CommandLineCase {
    const char* commandLine;
    StartUp result;
    Lines journal;
};

TEST(FormLoad, ActsOnTheFirstSwitchOnly) {
    const Lines running = siteFound("A", 1) + firstTest + loading + siteHeader("A") + noDefinitions + started(0);
    const std::string box =
        "window: box 'Quelm 5 OPC DA Server' Command line options\r\n\r\nregserver\r\n"
        "      Register COM server (installer use only)\r\n\r\nunregserver\r\n"
        "      Unregister COM server (installer use only)\r\n\r\nvisible\r\n      Show main window";
    const CommandLineCase cases[] = {
        {"/?", StartUp::HelpShown, {box}},
        {"/regserver ?", StartUp::HelpShown, {box}},
        {"/UNREGSERVER", StartUp::Registered, {"slik: unregister", "window: close"}},
        {"-RegServer", StartUp::Registered, {"slik: register", "window: close"}},
        {"", StartUp::Running, opening() + running},
        {"-Embedding", StartUp::Running, opening("-Embedding") + running},
        {"/INVISIBLE", StartUp::Running, opening("/INVISIBLE", "window: show") + running},
    };
    for (const CommandLineCase& c : cases) {
        SCOPED_TRACE(c.commandLine);
        Host host(c.commandLine);
        EXPECT_EQ(host.form->Form_Load(), c.result);
        EXPECT_THAT(host.journal.lines, ElementsAreArray(c.journal));
    }
}

TEST(FormLoad, ShowsInTheListOnlyWhatHappensBeforeTheLogOpens) {
    struct Case {
        bool readable, selectable;
        Lines list;
    };
    for (const Case& c :
         {Case{false, true, {"[OPC-0129] Cannot read INI file"}},
          Case{true, false, {"[OPC-0130] Cannot select DAHS entry in INI file"}},
          Case{false, false, {"[OPC-0129] Cannot read INI file", "[OPC-0130] Cannot select DAHS entry in INI file"}}}) {
        Host host;
        host.ini.readable = c.readable;
        host.ini.selectable = c.selectable;
        EXPECT_EQ(host.form->Form_Load(), StartUp::INIFailed);
        EXPECT_THAT(host.journal.take(), ElementsAre("window: hide", "window: show"));
        EXPECT_EQ(host.window.list.lines, c.list);
        EXPECT_TRUE(host.form->Unload());
        EXPECT_THAT(host.journal.lines, ElementsAre("window: close"));
    }
}

TEST(FormLoad, SetsUpEverySiteOnceAndStopsWhenOneFails) {
    Host host;
    host.ini.entries = {Host::site("B", 2), Host::site("A", 1), Host::site("A", 7), Host::site("b", 3)};
    host.dbil->setupResults["B"] = {false};
    EXPECT_EQ(host.form->Form_Load(), StartUp::SitesFailed);
    EXPECT_THAT(host.journal.lines,
                ElementsAreArray(opening() + siteFound("A", 1) + siteFound("B", 2) +
                                 Lines{"log 4 [OPC-0132] DBIL setup failed for site B, DAHSID 2",
                                       "log 4 [OPC-0131] Site A is already loaded; will not load again; DAHS 7 is a "
                                       "duplicate"} +
                                 siteFound("b", 3) + Lines{"window: show"}));
}

TEST(FormLoad, TriesAFailedLocalEntryAgainAsPartOfTheList) {
    Host host;
    host.dbil->setupResults["A"] = {false, false};
    EXPECT_EQ(host.form->Form_Load(), StartUp::SitesFailed);
    const Lines failed = siteFound("A", 1) + Lines{"log 4 [OPC-0132] DBIL setup failed for site A, DAHSID 1"};
    EXPECT_THAT(host.journal.lines, ElementsAreArray(opening() + failed + failed + Lines{"window: show"}));
}

TEST(FormLoad, RetriesTheDatabaseEveryTwentySecondsAndThenStartsOnce) {
    Host host;
    host.dbil->connectionResults = {false, false};
    EXPECT_EQ(host.form->Form_Load(), StartUp::WaitingForDatabase);
    EXPECT_THAT(host.journal.take(),
                ElementsAreArray(opening() + siteFound("A", 1) + firstTest +
                                 Lines{"log! 4 [OPC-0224] Could not successfully test database connection(s)",
                                       "clock: 20 s at 0 'Initialize' true false true 1000 0"}));
    EXPECT_EQ(host.clock->fire("Initialize"), 1);
    EXPECT_THAT(
        host.journal.take(),
        ElementsAreArray(retry + Lines{"log! 4 [OPC-0226] Could not successfully test database connection(s)"}));
    EXPECT_EQ(host.clock->fire("Initialize"), 1);
    EXPECT_THAT(host.journal.take(), ElementsAreArray(retry + Lines{"interval 'Initialize': cancel(true)"} + loading +
                                                      siteHeader("A") + noDefinitions + started(0)));
    EXPECT_EQ(host.clock->fire("Initialize"), 0);
}

TEST(FormLoad, KeepsRetryingAfterAFailureBeforeTheTestPassedButNotAfter) {
    Host host;
    host.dbil->connectionResults = {false};
    host.form->Form_Load();
    host.dbil->testFailure = RuntimeError(errors::overflow);
    host.journal.take();
    EXPECT_EQ(host.clock->fire("Initialize"), 1);
    EXPECT_THAT(host.journal.take(), ElementsAreArray(retry + Lines{"log 4 [OPC-0227] 6, Overflow"}));
    host.dbil->testFailure.reset();
    host.slik.startFailure = RuntimeError(5, "port taken");
    EXPECT_EQ(host.clock->fire("Initialize"), 1);
    EXPECT_THAT(host.journal.take(),
                ElementsAreArray(retry + Lines{"interval 'Initialize': cancel(true)"} + loading + siteHeader("A") +
                                 noDefinitions + intervals + Lines{"log 4 [OPC-0227] 5, port taken"}));
    EXPECT_EQ(host.clock->fire("Initialize"), 0);
}

TEST(FormLoad, LetsAFailureOfTheControlEscape) {
    Host host;
    host.slik.startFailure = RuntimeError(5, "port taken");
    EXPECT_THROW(host.form->Form_Load(), RuntimeError);
    host.slik.registerFailure = RuntimeError(70, "Permission denied");
    frmOPCQuelm registering({host.slik, host.window, "regserver", 1, {}, {}, {}, {}, {}, {}});
    EXPECT_THROW(registering.Form_Load(), RuntimeError);
}

// ---- sites

TEST(InitializeSites, KeepsEveryFailureToItsOwnSiteOrTag) {
    Host host;
    for (const char* id : {"B", "C", "D", "E"}) {
        host.ini.entries.push_back(Host::site(id, id[0] - 'A' + 1));
    }
    host.dbil->setDefinitions("A", {definition("T1", "[@7]"), definition("T2", "[@8]", 1, 2), definition("T3", "x")});
    host.dbil->setDefinitions("B", {});
    host.dbil->setDefinitions("C", {definition("C1", "[@7]")});
    host.sites["C"].loadable = false;
    host.dbil->setDefinitions("D", {definition("D1", "[@7]")});
    host.sites["D"].loadFailure = RuntimeError(errors::typeMismatch);
    EXPECT_EQ(host.form->Form_Load(), StartUp::Running);
    Lines sites;
    for (int i = 0; i < 5; ++i) {
        sites = sites + siteFound(std::string(1, static_cast<char>('A' + i)), i + 1);
    }
    EXPECT_THAT(
        host.journal.lines,
        ElementsAreArray(opening() + sites + firstTest + loading + siteHeader("A") + diLoading("A", 1) +
                         Lines{readInterval} +
                         Lines{"log 4 [OPC-0119] Only OPC DA tags are supported; will not load tag 'T2'",
                               "log 4 [OPC-0139] Cannot determine Quelm PID or I/O Channel ID (Tag=T3)",
                               "log 4 [OPC-0120] Could not load OPC tag 'T3'"} +
                         finished("A", {}, {"log 1           7         0  T1"}) + siteHeader("B") +
                         Lines{"log! 1 [OPC-0117] No OPC tags are defined"} + siteHeader("C") + diLoading("C", 3) +
                         Lines{"log 4 [OPC-0210] Error loading DI; will not load OPC tag definitions for C",
                               "log! 4 [OPC-0118] Error: could not create site data manager"} +
                         siteHeader("D") + diLoading("D", 4) + Lines{"log! 4 [OPC-0216] 13, Type mismatch"} +
                         siteHeader("E") + noDefinitions + started(1)));
}

TEST(InitializeSites, ReportsDefinitionsThatCannotBeRead) {
    Host host;
    host.dbil->definitionsFailure = RuntimeError(26, "file is not a database");
    EXPECT_EQ(host.form->Form_Load(), StartUp::Running);
    EXPECT_THAT(host.journal.lines,
                ElementsAreArray(opening() + siteFound("A", 1) + firstTest + loading + siteHeader("A") +
                                 Lines{"log! 4 [OPC-0216] 26, file is not a database"} + started(0)));
}

// ---- a running server

class RunningServer : public testing::Test {
 protected:
    RunningServer() {
        host.ini.entries.push_back(Host::site("B", 2));
        host.sites["A"].intervalTypesByPID[101001234] = "1h";
        host.dbil->setChannels({{7, 1}});
        host.dbil->setSnapshot({fakes::record("C7", Variant(12.5))});
        host.dbil->setDefinitions("A", {definition("P", "1-010-0-12-34"), definition("C", "[@7]")});
        host.dbil->setDefinitions("B", {definition("D", "[@7]")});
        host.form->Form_Load();
        host.journal.take();
        host.window.list.lines.clear();
    }
    Host host;
};

TEST_F(RunningServer, StartsReadersAndEverySiteGetsItsValuesInOrder) {
    EXPECT_EQ(host.clock->fire("IOSManager: read CurrentIO"), 2);
    host.reader.valuesByPID[101001234] = {Variant(3.0), Variant(std::int32_t{0})};
    host.journal.take();
    EXPECT_EQ(host.clock->fire("Update Tag Values"), 1);
    EXPECT_THAT(host.journal.lines, ElementsAre("log 1 [OPC-0127] Update tag values"));
    for (const auto& [name, value] : {std::pair{"P", 3.0F}, {"C", 12.5F}, {"D", 12.5F}}) {
        const fakes::SlikTag& tag = host.slik.tags.Item(name);
        EXPECT_EQ(tag.value, Variant(value)) << name;
        EXPECT_EQ(tag.quality, 0xC0) << name;
        EXPECT_EQ(tag.stamp, localNow()) << name;
    }
}

TEST_F(RunningServer, CopiesTheCacheOnADeviceRead) {
    struct Requested : ISLIKRequestedItem {
        explicit Requested(std::string n) : name(std::move(n)) {}
        std::string name;
        Variant value;
        int calls = 0;
        const std::string& Name() const override { return name; }
        void SetVQT(const Variant& v, std::int16_t, Date) override {
            value = v;
            ++calls;
        }
    };
    host.slik.tags.Item("P").SetVQT(Variant(1.5F), 0xC0, localNow());
    host.slik.tags.Item("D").SetVQT(Variant(2.5F), 0xC0, localNow());
    struct Case {
        const char* name;
        std::vector<std::string> names;
        std::int32_t count;
        Lines journal;
        std::int32_t error;
        int copied;
    };
    constexpr auto failed = static_cast<std::int32_t>(0x80004005);
    const Case cases[] = {
        {"all", {"p", "C", "D"}, 3, {"log 1 [OPC-0122] OnRead   count=3"}, 0, 3},
        {"none", {}, 0, {"log 1 [OPC-0122] OnRead   count=0"}, 0, 0},
        {"unknown item",
         {"P", "nobody", "D"},
         3,
         {"log 1 [OPC-0122] OnRead   count=3", "log 4 [OPC-0123] 5, Invalid procedure call or argument"},
         failed,
         1},
        {"count beyond the array",
         {"P"},
         2,
         {"log 1 [OPC-0122] OnRead   count=2", "log 4 [OPC-0123] 9, Subscript out of range"},
         failed,
         1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        host.journal.take();
        std::deque<Requested> items;
        std::vector<ISLIKRequestedItem*> pointers;
        for (const std::string& name : c.names) {
            pointers.push_back(&items.emplace_back(name));
        }
        std::int32_t error = 77;
        host.slik.events->SLIKServer1_OnRead(c.count, pointers, error);
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(host.journal.lines, c.journal);
        int copied = 0;
        for (const Requested& item : items) {
            copied += item.calls;
        }
        EXPECT_EQ(copied, c.copied);
        if (c.copied > 0) {
            EXPECT_EQ(items[0].value, Variant(1.5F));
        }
    }
}

TEST_F(RunningServer, RefusesEveryWrite) {
    std::int32_t error = 0;
    host.slik.events->SLIKServer1_OnWrite(4, error);
    EXPECT_EQ(error, static_cast<std::int32_t>(0x80004005));
    EXPECT_THAT(host.journal.lines,
                ElementsAre("log 1 [OPC-0124] OnWrite   count=4",
                            "log 4 [OPC-0125] This application does not support OPC writes; write attempt will be "
                            "ignored"));
}

const Lines unloading{"log 1 [OPC-0109] Attempting to unload OPC server...",
                      "slik: shutdown notice 'Unloading Server'"};
const Lines cancelled = unloading + Lines{"log 1 [OPC-0110] Server in use; cancelling OPC server unload attempt"};
const Lines lastClient{"log! 1 [OPC-0113] Client disconnecting:  remaining clients=0",
                       "log! 1 [OPC-0114] Client count is 0, starting shutdown timer", "timer: enabled=true",
                       "timer: interval=5000"};
const Lines tornDown = unloading + Lines{"log 1 [OPC-0111] Unloading of OPC Server complete",
                                         "interval 'Start new OPC log file': enabled=false",
                                         "interval 'Update Tag Values': enabled=false",
                                         "cdr: stop",
                                         "interval 'IOSManager: read CurrentIO': cancel(true)",
                                         "dbil: terminate",
                                         "cdr: stop",
                                         "interval 'IOSManager: read CurrentIO': cancel(true)",
                                         "dbil: terminate",
                                         "dbil: terminate",
                                         "log! 1 [OPC-0134] Stopping log...",
                                         "log: close",
                                         "window: close"};

TEST_F(RunningServer, UnloadsFiveSecondsAfterTheLastClient) {
    host.slik.events->SLIKServer1_OnClientDisconnect(1);
    EXPECT_THAT(host.journal.take(), ElementsAre("log! 1 [OPC-0113] Client disconnecting:  remaining clients=1"));
    host.slik.events->SLIKServer1_OnClientDisconnect(0);
    EXPECT_EQ(host.journal.take(), lastClient);
    host.window.timer.handler();
    EXPECT_EQ(host.journal.take(), tornDown);
    EXPECT_EQ(host.clock->fire("Update Tag Values") + host.clock->fire("IOSManager: read CurrentIO"), 0);
    EXPECT_TRUE(host.form->Unload());
    EXPECT_THAT(host.journal.lines, ElementsAre("window: close"));
}

TEST_F(RunningServer, StaysWhenAClientReturnsWithinFiveSeconds) {
    host.slik.events->SLIKServer1_OnClientDisconnect(0);
    host.journal.take();
    host.slik.inUse = true;
    host.window.timer.handler();
    EXPECT_THAT(host.journal.lines, ElementsAre("timer: enabled=false", "timer: interval=0"));
}

TEST_F(RunningServer, CancelsAnUnloadWhileInUseAndKeepsServing) {
    host.slik.inUse = true;
    EXPECT_FALSE(host.form->Unload());
    EXPECT_EQ(host.journal.take(), cancelled);
    EXPECT_EQ(host.clock->fire("Update Tag Values"), 1);
    host.slik.inUse = false;
    host.journal.take();
    EXPECT_TRUE(host.form->Unload());
    EXPECT_EQ(host.journal.lines, tornDown);
}

TEST_F(RunningServer, ClosesTheWindowEvenWhenTearingDownFails) {
    host.slik.disconnectFailure = RuntimeError(errors::outOfMemory);
    EXPECT_TRUE(host.form->Unload());
    EXPECT_THAT(host.journal.take(),
                ElementsAreArray(unloading + Lines{"log! 4 [OPC-0112] 7, Out of memory", "window: close"}));
    // The database object is gone, so there is nothing to unload any more.
    EXPECT_TRUE(host.form->Unload());
    EXPECT_THAT(host.journal.lines, ElementsAre("window: close"));
}

TEST_F(RunningServer, KeepsTheLogOpenForTheReasonWhenTearingDownStopsHalfWay) {
    host.dbil->terminateFailure = RuntimeError(21, "bad parameter or other API misuse");
    EXPECT_TRUE(host.form->Unload());
    const Lines upToTheFailure(tornDown.begin(), tornDown.begin() + 8);
    const Lines failed{"log! 4 [OPC-0112] 21, bad parameter or other API misuse", "window: close"};
    EXPECT_EQ(host.journal.take(), upToTheFailure + failed);
    EXPECT_TRUE(host.form->LoggingEnabled());
    EXPECT_TRUE(host.form->Unload());
    EXPECT_THAT(host.journal.lines, ElementsAre("window: close"));
}

TEST(Unload, LeavesTheRetryIntervalAlone) {
    Host host;
    host.dbil->connectionResults = {false};
    host.form->Form_Load();
    host.journal.take();
    EXPECT_TRUE(host.form->Unload());
    EXPECT_THAT(
        host.journal.take(),
        ElementsAreArray(unloading + Lines{"log 1 [OPC-0111] Unloading of OPC Server complete", "dbil: terminate",
                                           "log! 1 [OPC-0134] Stopping log...", "log: close", "window: close"}));
    EXPECT_EQ(host.clock->fire("Initialize"), 1);
    EXPECT_EQ(host.window.list.lines.back(), "[OPC-0227] 91, Object variable or With block variable not set");
}

// ---- messages and log

TEST_F(RunningServer, StartsANewLogAtMidnight) {
    host.time.setLocal(makeDate(2026, 11, 17));
    EXPECT_EQ(host.clock->fire("Start new OPC log file"), 1);
    EXPECT_THAT(host.journal.take(),
                ElementsAre("log [OPC-0135] End of day", "log! 1 [OPC-0134] Stopping log...", "log: close",
                            "log: open 'C:\\Logs\\OPCServer 2026-11-17 00.00.00.01234_r.log' 'Quelm 5 OPC DA "
                            "Server' false true",
                            "log! [OPC-0136] Start of day"));
    EXPECT_THAT(host.window.list.lines,
                ElementsAre("[OPC-0134] Stopping log...",
                            "[OPC-0133] Starting log 'C:\\Logs\\OPCServer 2026-11-17 00.00.00.01234_r.log'..."));
    host.form->StopLog();
    host.journal.take();
    EXPECT_EQ(host.clock->fire("Start new OPC log file"), 1);
    EXPECT_THAT(host.journal.lines, IsEmpty());
}

TEST_F(RunningServer, LeavesTheLogClosedWhenMidnightCannotOpenANewOne) {
    host.logFailure = RuntimeError(errors::outOfMemory);
    EXPECT_EQ(host.clock->fire("Start new OPC log file"), 1);
    EXPECT_THAT(host.journal.take(),
                ElementsAre("log [OPC-0135] End of day", "log! 1 [OPC-0134] Stopping log...", "log: close"));
    EXPECT_EQ(host.window.list.lines.back(), "[OPC-0137]  7, Out of memory");
    EXPECT_FALSE(host.form->LoggingEnabled());
}

TEST(MessageList, HoldsFiveHundredMessagesAndTheNotice) {
    Host host;
    for (int i = 1; i <= 503; ++i) {
        host.form->RaiseMsg(i, fmt::format("message {}", i));
    }
    const Lines& list = host.window.list.lines;
    ASSERT_EQ(list.size(), 501U);
    EXPECT_EQ(list[499], "message 500");
    EXPECT_EQ(list[500], "Max messages displayed. See log file.");
    EXPECT_EQ(host.window.refreshes, 500);
    host.form->Form_Load();
    host.journal.take();
    host.form->RaiseMsg(20484, "still logged");
    EXPECT_THAT(host.journal.lines, ElementsAre("log 20484 still logged"));
    EXPECT_EQ(list.size(), 501U);
}

}  // namespace
}  // namespace quelm
