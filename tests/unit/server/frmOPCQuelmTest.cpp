#include "OPC/OPC DA Server/frmOPCQuelm.h"

#include <gmock/gmock.h>

#include "base/Quality.h"
#include "server/Fakes.h"

namespace quelm {
namespace {

using fakes::Definition;
using fakes::Host;
using fakes::Lines;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* testCall = "dbil: test '' true true false false false true";

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Lines operator+(Lines left, std::string_view line) {
    left.emplace_back(line);
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
    return intervals + fmt::format("slik: start with {} items", items) +
           "log 1 [OPC-0106] SLIKServer AppID={5A24BCDD-AEB1-4ED4-849D-27B85648B932}" +
           "log 1 [OPC-0107] SLIKServer AppName=Quelm 5 OPC DA Server" +
           "log! 1 [OPC-0108] ---------- Quelm 5 OPC DA Server startup complete ----------";
}

Lines siteHeader(const std::string& id) {
    return {"log! 1 [OPC-0115] Loading OPC tag definitions for " + id + "----------"};
}

const Lines noDefinitions{"log! 4 [OPC-0116] Error: could not load OPC tag definitions"};

Lines diLoading(const std::string& id, int dahs) {
    return {"log 1 [OPC-0209] Loading DI for " + id + "...", fmt::format("di: load {} true false", dahs)};
}

const std::string readInterval = "clock: 20 s at 0 'IOSManager: read CurrentIO' true false true 1000 0";

Lines finished(const std::string& id, const Lines& channelTags) {
    return Lines{"log 1 [OPC-0219] Tearing down DI for " + id, "di: tear down",
                 "log 1 [OPC-0217] ========== 0 OPC tags from Quelm tags for " + id} +
           fmt::format("log 1 [OPC-0218] ========== {} OPC tags from I/O channels for {}", channelTags.size(), id) +
           channelTags;
}

// ---- start-up

TEST(FormLoad, ActsOnTheFirstSwitchOnly) {
    const Lines running = siteFound("A", 1) + firstTest + loading + siteHeader("A") + noDefinitions + started(0);
    const std::string box =
        "window: box 'Quelm 5 OPC DA Server' Command line options\r\n\r\nregserver\r\n"
        "      Register COM server (installer use only)\r\n\r\nunregserver\r\n"
        "      Unregister COM server (installer use only)\r\n\r\nvisible\r\n      Show main window";
    struct Case {
        const char* commandLine;
        StartUp result;
        Lines journal;
    };
    const Case cases[] = {
        {"/?", StartUp::HelpShown, {box}},
        {"/regserver ?", StartUp::HelpShown, {box}},
        {"/UNREGSERVER", StartUp::Registered, {"slik: unregister", "window: close"}},
        {"-RegServer", StartUp::Registered, {"slik: register", "window: close"}},
        {"", StartUp::Running, opening() + running},
        {"-Embedding", StartUp::Running, opening("-Embedding") + running},
        {"/INVISIBLE", StartUp::Running, opening("/INVISIBLE", "window: show") + running},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.commandLine);
        Host host(c.commandLine);
        EXPECT_EQ(host.form->Form_Load(), c.result);
        EXPECT_EQ(host.journal.lines, c.journal);
    }
}

TEST(FormLoad, ShowsInTheListOnlyWhatHappensBeforeTheLogOpens) {
    const std::string unreadable = "[OPC-0129] Cannot read INI file";
    const std::string noEntry = "[OPC-0130] Cannot select DAHS entry in INI file";
    struct Case {
        bool readable, selectable;
        Lines list;
    };
    for (const Case& c :
         {Case{false, true, {unreadable}}, Case{true, false, {noEntry}}, Case{false, false, {unreadable, noEntry}}}) {
        Host host;
        host.ini.readable = c.readable;
        host.ini.selectable = c.selectable;
        EXPECT_EQ(host.form->Form_Load(), StartUp::INIFailed);
        EXPECT_TRUE(host.form->Unload());
        EXPECT_THAT(host.journal.lines, ElementsAre("window: hide", "window: show", "window: close"));
        EXPECT_EQ(host.window.list.lines, c.list);
    }
}

TEST(FormLoad, SetsUpEverySiteOnceAndStopsWhenOneFails) {
    Host host;
    host.ini.entries = {Host::site("B", 2), Host::site("A", 1), Host::site("A", 7), Host::site("b", 3)};
    host.dbil->sitesThatFail = {"B"};
    EXPECT_EQ(host.form->Form_Load(), StartUp::SitesFailed);
    EXPECT_EQ(host.journal.lines, opening() + siteFound("A", 1) + siteFound("B", 2) +
                                      "log 4 [OPC-0132] DBIL setup failed for site B, DAHSID 2" +
                                      "log 4 [OPC-0131] Site A is already loaded; will not load again; DAHS 7 is a "
                                      "duplicate" +
                                      siteFound("b", 3) + "window: show");
}

TEST(FormLoad, TriesAFailedLocalEntryAgainAsPartOfTheList) {
    Host host;
    host.dbil->sitesThatFail = {"A"};
    EXPECT_EQ(host.form->Form_Load(), StartUp::SitesFailed);
    const Lines failed = siteFound("A", 1) + "log 4 [OPC-0132] DBIL setup failed for site A, DAHSID 1";
    EXPECT_EQ(host.journal.lines, opening() + failed + failed + "window: show");
}

TEST(FormLoad, RetriesTheDatabaseEveryTwentySecondsUntilItAnswers) {
    for (const bool controlFails : {false, true}) {
        Host host;
        host.dbil->testsThatFail = 2;
        EXPECT_EQ(host.form->Form_Load(), StartUp::WaitingForDatabase);
        EXPECT_EQ(host.journal.take(), opening() + siteFound("A", 1) + firstTest +
                                           "log! 4 [OPC-0224] Could not successfully test database connection(s)" +
                                           "clock: 20 s at 0 'Initialize' true false true 1000 0");
        host.clock->fire("Initialize");
        EXPECT_EQ(host.journal.take(), retry + "log! 4 [OPC-0226] Could not successfully test database connection(s)");
        host.dbil->testFailure = RuntimeError(errors::overflow);
        host.clock->fire("Initialize");
        EXPECT_EQ(host.journal.take(), retry + "log 4 [OPC-0227] 6, Overflow");
        host.dbil->testFailure.reset();
        if (controlFails) {
            host.controlFailure = RuntimeError(5, "port taken");
        }
        host.clock->fire("Initialize");
        const Lines failed = intervals + "slik: start with 0 items" + "log 4 [OPC-0227] 5, port taken";
        EXPECT_EQ(host.journal.take(), retry + "interval 'Initialize': cancel(true)" + loading + siteHeader("A") +
                                           noDefinitions + (controlFails ? failed : started(0)));
        EXPECT_EQ(host.clock->fire("Initialize"), 0);  // the failure is final: the database was reachable
    }
}

TEST(FormLoad, LetsAFailureOfTheControlEscape) {
    for (const char* commandLine : {"", "regserver"}) {
        Host host(commandLine);
        host.controlFailure = RuntimeError(5, "port taken");
        EXPECT_THROW(host.form->Form_Load(), RuntimeError);
    }
}

// ---- sites

TEST(InitializeSites, KeepsEveryFailureToItsOwnSiteOrTag) {
    Host host;
    for (const char* id : {"B", "C", "D", "E"}) {
        host.ini.entries.push_back(Host::site(id, id[0] - 'A' + 1));
    }
    host.dbil->setDefinitions(
        "A", {Definition{.name = "T1"}, Definition{.name = "T2", .tagType = 2}, Definition{.id = "x", .name = "T3"}});
    host.dbil->setDefinitions("B", {});
    host.dbil->setDefinitions("C", {Definition{}});
    host.sites["C"].loadable = false;
    host.dbil->setDefinitions("D", {Definition{}});
    host.sites["D"].loadFailure = RuntimeError(errors::typeMismatch);
    EXPECT_EQ(host.form->Form_Load(), StartUp::Running);
    Lines sites;
    for (int i = 0; i < 5; ++i) {
        sites = sites + siteFound(std::string(1, static_cast<char>('A' + i)), i + 1);
    }
    EXPECT_EQ(host.journal.lines,
              opening() + sites + firstTest + loading + siteHeader("A") + diLoading("A", 1) + readInterval +
                  "log 4 [OPC-0119] Only OPC DA tags are supported; will not load tag 'T2'" +
                  "log 4 [OPC-0139] Cannot determine Quelm PID or I/O Channel ID (Tag=T3)" +
                  "log 4 [OPC-0120] Could not load OPC tag 'T3'" + finished("A", {"log 1           7         0  T1"}) +
                  siteHeader("B") + "log! 1 [OPC-0117] No OPC tags are defined" + siteHeader("C") + diLoading("C", 3) +
                  "log 4 [OPC-0210] Error loading DI; will not load OPC tag definitions for C" +
                  "log! 4 [OPC-0118] Error: could not create site data manager" + siteHeader("D") + diLoading("D", 4) +
                  "log! 4 [OPC-0216] 13, Type mismatch" + siteHeader("E") + noDefinitions + started(1));
}

// ---- a running server

class RunningServer : public testing::Test {
 protected:
    RunningServer() {
        host.ini.entries.push_back(Host::site("B", 2));
        host.sites["A"].intervalTypesByPID[101001234] = "1h";
        host.dbil->setChannels({{7, 1}});
        host.dbil->setSnapshot({fakes::record("C7", Variant(12.5))});
        host.dbil->setDefinitions("A", {Definition{.id = "1-010-0-12-34", .name = "P"}, Definition{.name = "C"}});
        host.dbil->setDefinitions("B", {Definition{.name = "D"}});
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
        const ISLIKTag& tag = host.slik.SLIKTags().Item(name);
        EXPECT_EQ(tag.Value(), Variant(value)) << name;
        EXPECT_EQ(tag.Quality(), quality::good) << name;
        EXPECT_EQ(tag.Timestamp(), localNow()) << name;
    }
}

// As clients see it in the server's state: only when no site's values can be trusted any more.
TEST_F(RunningServer, SaysWhenEveryDatabaseIsLost) {
    const auto isLostAfter = [this](int failedReads) {
        for (int i = 0; i < failedReads; ++i) {
            host.clock->fire("IOSManager: read CurrentIO");
        }
        host.clock->fire("Update Tag Values");
        host.loop.drain();
        return host.slik.network().items().areSourcesLost();
    };
    EXPECT_FALSE(isLostAfter(1));
    host.dbil->readFailure = RuntimeError(-1, "gone");
    EXPECT_FALSE(isLostAfter(3)) << "the parameters' reader goes on";
    host.reader.isReaderLost = true;
    EXPECT_TRUE(isLostAfter(0));
    host.dbil->readFailure.reset();
    EXPECT_FALSE(isLostAfter(1));
    host.dbil->readFailure = RuntimeError(-1, "gone");
    EXPECT_FALSE(isLostAfter(2)) << "the values of before are still good";
    EXPECT_TRUE(isLostAfter(1));
}

TEST_F(RunningServer, CopiesTheCacheOnADeviceRead) {
    struct Requested : ISLIKRequestedItem {
        std::string name;
        Variant value = Variant("not asked");
        const std::string& Name() const override { return name; }
        void SetVQT(const Variant& v, std::int16_t, Date) override { value = v; }
    };
    host.slik.SLIKTags().Item("P").SetVQT(Variant(1.5F), quality::good, localNow());
    struct Case {
        std::string second;
        std::int32_t count;
        Lines failure;
        Variant value;
    };
    const Variant untouched("not asked");
    const Case cases[] = {
        {"c", 2, {}, Variant(0.0F)},
        {"c", 1, {}, untouched},
        {"nobody", 2, {"log 4 [OPC-0123] 5, Invalid procedure call or argument"}, untouched},
        {"c", 3, {"log 4 [OPC-0123] 9, Subscript out of range"}, Variant(0.0F)},
    };
    for (const Case& c : cases) {
        host.journal.take();
        Requested items[2];
        items[0].name = "p";
        items[1].name = c.second;
        std::int32_t error = 77;
        host.form->SLIKServer1_OnRead(c.count, {&items[0], &items[1]}, error);
        EXPECT_EQ(host.journal.lines, Lines{fmt::format("log 1 [OPC-0122] OnRead   count={}", c.count)} + c.failure);
        EXPECT_EQ(error, c.failure.empty() ? 0 : asNumber(E_FAIL));
        EXPECT_EQ(items[0].value, Variant(1.5F));
        EXPECT_EQ(items[1].value, c.value);
    }
}

TEST_F(RunningServer, RefusesEveryWrite) {
    host.slik.network().write(4, [](HResult error) { EXPECT_EQ(error, E_FAIL); });
    EXPECT_THAT(host.journal.lines,
                ElementsAre("log 1 [OPC-0124] OnWrite   count=4",
                            "log 4 [OPC-0125] This application does not support OPC writes; write attempt will be "
                            "ignored"));
}

const Lines unloading{"log 1 [OPC-0109] Attempting to unload OPC server...",
                      "slik: shutdown notice 'Unloading Server'"};
const Lines lastClient{"log! 1 [OPC-0113] Client disconnecting:  remaining clients=0",
                       "log! 1 [OPC-0114] Client count is 0, starting shutdown timer", "timer: enabled=true",
                       "timer: interval=5000"};
const Lines siteDown{"cdr: stop", "interval 'IOSManager: read CurrentIO': cancel(true)", "dbil: terminate"};
const Lines sitesDown = unloading + "log 1 [OPC-0111] Unloading of OPC Server complete" +
                        "interval 'Start new OPC log file': enabled=false" +
                        "interval 'Update Tag Values': enabled=false" + siteDown;
const Lines logClosed{"dbil: terminate", "log! 1 [OPC-0134] Stopping log...", "log: close", "window: close"};

TEST_F(RunningServer, UnloadsFiveSecondsAfterTheLastClient) {
    host.slik.network().clientCreated();
    host.slik.network().clientCreated();
    host.slik.network().clientGone();
    EXPECT_THAT(host.journal.take(), ElementsAre("log! 1 [OPC-0113] Client disconnecting:  remaining clients=1"));
    host.slik.network().clientGone();
    EXPECT_EQ(host.journal.take(), lastClient);
    host.window.timer.handler();
    EXPECT_EQ(host.journal.take(), sitesDown + siteDown + logClosed);
    EXPECT_EQ(host.clock->fire("Update Tag Values") + host.clock->fire("IOSManager: read CurrentIO"), 0);
    EXPECT_TRUE(host.form->Unload());
    EXPECT_THAT(host.journal.lines, ElementsAre("window: close"));
}

TEST_F(RunningServer, StaysWhileAClientHoldsIt) {
    host.slik.network().clientCreated();
    host.window.timer.handler();
    EXPECT_THAT(host.journal.take(), ElementsAre("timer: enabled=false", "timer: interval=0"));
    EXPECT_FALSE(host.form->Unload());
    EXPECT_EQ(host.journal.take(), unloading + "log 1 [OPC-0110] Server in use; cancelling OPC server unload attempt");
    EXPECT_EQ(host.clock->fire("Update Tag Values"), 1);
}

TEST_F(RunningServer, ClosesTheWindowEvenWhenTearingDownFails) {
    host.controlFailure = RuntimeError(errors::outOfMemory);
    EXPECT_TRUE(host.form->Unload());
    EXPECT_EQ(host.journal.take(), unloading + "log! 4 [OPC-0112] 7, Out of memory" + "window: close");
    // The database object is gone, so there is nothing to unload any more.
    EXPECT_TRUE(host.form->Unload());
    EXPECT_THAT(host.journal.lines, ElementsAre("window: close"));
}

TEST_F(RunningServer, KeepsTheLogOpenForTheReasonWhenTearingDownStopsHalfWay) {
    host.dbil->terminateFailure = RuntimeError(21, "bad parameter or other API misuse");
    EXPECT_TRUE(host.form->Unload());
    EXPECT_EQ(host.journal.take(),
              sitesDown + "log! 4 [OPC-0112] 21, bad parameter or other API misuse" + "window: close");
    EXPECT_TRUE(host.form->LoggingEnabled());
}

TEST(Unload, LeavesTheRetryIntervalAlone) {
    Host host;
    host.dbil->testsThatFail = 1;
    host.form->Form_Load();
    host.journal.take();
    EXPECT_TRUE(host.form->Unload());
    EXPECT_EQ(host.journal.take(), unloading + "log 1 [OPC-0111] Unloading of OPC Server complete" + logClosed);
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
