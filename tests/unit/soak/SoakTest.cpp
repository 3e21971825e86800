// The whole server for five and a half hours of the plant's time, over an SQLite file and a PostgreSQL server that fail
// in every way that databases do: what a failure costs in its own tick, that it costs the other site nothing, that no
// client waits for it, and that nothing of it is left behind.

#include <gmock/gmock.h>
#include <malloc.h>

#include <atomic>
#include <filesystem>
#include <future>

#include "Clock Library/Clock.h"
#include "CurrentData Reader/CurrentDataReader.h"
#include "DB Interface Library/DBIL.h"
#include "DB Interface Library/sql/OdbcDriver.h"
#include "DB Interface Library/sql/SqliteDriver.h"
#include "Data Interface/DataInterface.h"
#include "Messages/MessageTypeNames.h"
#include "OPC/Main/OpcNetwork.h"
#include "WireClient.h"
#include "libraries/TestServer.h"
#include "loop/VirtualLoop.h"
#include "server/Fakes.h"
#include "slikda/SLIKServer.h"

namespace quelm {
namespace {

using namespace std::chrono_literals;
using test::TestDatabase;
using test::TestServer;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr int itemsOfAKind = 9;
constexpr const char* password = "stack-7";
// A step of the plant that takes as long waits for a database: the shortest time limit is 50 ms.
constexpr std::chrono::milliseconds wait{40};
// The monitor codes that all values have in turn, and the qualities that come of them.
constexpr std::array codes{0, 60, 5};
constexpr std::array qualities{0xC0, 0x80C0, 0x00};

struct Site {
    std::string id;
    std::function<void(const std::string& sql)> run;  // in the plant's own session
    // The tick whose values the server has read last; nothing once it found no records.
    std::optional<int> channels;
    std::optional<int> parameters;
};

using Action = std::function<void()>;
constexpr const char* none = nullptr;
constexpr const char* noRecords = "";
struct Fault {
    const char* name;
    Site* site;
    Action begin;
    Action end;
    // What comes of the tick's first read of the realtime database, and of those behind it: "number, text" of a
    // failure as a regular expression, none, or noRecords.
    const char* first;
    const char* later = first;
    bool hitsParameters = true;
};

std::ptrdiff_t openFiles() {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::distance(begin(files), end(files));
}

// The plant's loop: its time is the test's, and what the network posts comes in when the test says so.
class PlantLoop final : public IMessageLoop {
 public:
    std::unique_ptr<ITimer> makeTimer(std::function<void()> onExpiry) override { return time.makeTimer(onExpiry); }
    void post(std::function<void()> task) override { inbox.post(std::move(task)); }
    void afterHandler(std::function<void()> task) override { time.afterHandler(std::move(task)); }
    void takeIn() {
        inbox.post([this] { inbox.stop(); });
        inbox.run();
        time.drain();
    }

    VirtualLoop time;
    AsioLoop inbox;
};

// How often a fault made the plant's thread wait, and the reads that the client asked and got meanwhile.
struct Held {
    int times = 0;
    std::ptrdiff_t reads = 0;
};

class Soak : public testing::Test {
 protected:
    void SetUp() override {
        TestServer* server = TestServer::instance();
        if (server == nullptr) {
            GTEST_SKIP() << "PostgreSQL or its ODBC driver is not installed on this machine";
        }
        server->resetDatabase();
        plant_ = OdbcDriver().connection(ConnectionString(server->connectionString()));
        remote_.run(
            fmt::format("DROP ROLE IF EXISTS server; CREATE ROLE server LOGIN PASSWORD '{}';"
                        "ALTER ROLE server SET lock_timeout = '100ms';"
                        "GRANT ALL ON ALL TABLES IN SCHEMA public TO server",
                        password));
        // Without the write-ahead log a writer can shut readers out.
        realtime_.withSchema().run("PRAGMA journal_mode = DELETE; PRAGMA synchronous = OFF");
        TestDatabase configuration(folder_.file("configuration.db"));
        configuration.withSchema();
        fill("L", 1, [&](const std::string& sql) { configuration.run(sql); });
        fill("L", 1, local_.run);
        fill("R", 2, remote_.run);
        const std::string odbc = server->connectionString("server", password);
        ini_.entries = {{"L", 1, {configuration.connectionString(), realtime_.connectionString()}},
                        {"R", 2, {odbc, odbc}}};
        ini_.selected = ini_.entries[0];
        control_.setHooks({[this] { network_.open(); }, {}, {}, {}, {}});
        std::ofstream(folder_.file("dcom.conf")) << fmt::format(
            "[Listen]\nAddress = 127.0.0.1\nActivationPort = {}\nObjectPort = {}\n"
            "[Security]\nMinimumLevel = connect\n[Accounts]\nPLANT\\reader = password:{}\n",
            ports_[0], ports_[1], password);
        std::filesystem::permissions(folder_.file("dcom.conf"), std::filesystem::perms::owner_read);
        ::setenv("QUELM_DCOM_CONF", folder_.file("dcom.conf").c_str(), 1);
    }

    // On the network's thread, which shares the test's clock with the plant's: one of them uses it at a time.
    void onNetwork(const std::function<void()>& what) {
        std::promise<void> done;
        networkLoop_.post([&] {
            what();
            done.set_value();
        });
        done.get_future().wait();
    }

    ServerParts parts() {
        const auto makeDBIL = [](const ISystemINI&) {
            SqlDrivers drivers;
            drivers.add(std::make_unique<SqliteDriver>(SqliteTimeouts{50ms, 10s}));
            drivers.add(std::make_unique<OdbcDriver>(SqlTimeouts{6s, 2s, 4s}));
            return std::make_shared<DBIL>(std::move(drivers), [](std::string_view text) { ADD_FAILURE() << text; });
        };
        const auto makeDI = [](IDBIL& dbil, std::string_view id) {
            return std::make_unique<DataInterface>(dbil.ConfigurationReader(), id);
        };
        return {control_,
                window_,
                "",
                1,
                [this] { return std::make_unique<fakes::SystemINI>(ini_); },
                makeDBIL,
                [this] { return std::make_shared<Clock>(plantLoop_); },
                [this](const ISystemINI&) { return std::make_unique<fakes::LogWriter>(journal_); },
                messageTypeName,
                {makeDI, [] { return std::make_unique<CurrentDataReader>(); }}};
    }

    // A site's definitions and its records, still without values.
    static void fill(const std::string& id, int dahs, const std::function<void(const std::string&)>& run) {
        std::string sql =
            "INSERT INTO CurrentIO(SiteID, IOID) VALUES ('{0}', 'IOS6.AllCommsOk'), "
            "('{0}', 'IOS6.AllDataRefreshed');";
        for (int i = 1; i <= itemsOfAKind; ++i) {
            sql +=
                "INSERT INTO Q5OPCDEF(SiteID, Tagname, ID, DataType, DownIsValid) VALUES "
                "('{0}', '{0}.P{2}', '1-010-0-12-0{2}', 1, 1), ('{0}', '{0}.C{2}', '[@{2}];[@10{2}]', 1, 1);"
                "INSERT INTO IOChannelDef(SiteID, ChannelID, DefType) VALUES ('{0}', {2}, 3), ('{0}', 10{2}, 3);"
                "INSERT INTO PIDDef(DAHSID, PID, IntervalType) VALUES ({1}, 10100120{2}, '1H');"
                "INSERT INTO CurrentIO(SiteID, IOID) VALUES ('{0}', 'C{2}'), ('{0}', 'C10{2}');"
                "INSERT INTO ParameterValue(SiteID, PID, IntervalType) VALUES ('{0}', 10100120{2}, '1H');";
            sql = fmt::format(fmt::runtime(sql), id, dahs, i);
        }
        run(sql);
    }

    void writeValues(const Site& site) const {
        const CivilTime now = civilTime(localNow());
        site.run(fmt::format(
            "UPDATE CurrentIO SET TStamp = '{2}-{3}-{4} {5:02}:{6:02}:{7:02}', NValue = CASE WHEN IOID LIKE 'C_' THEN "
            "{0} + CAST(SUBSTR(IOID, 2) AS INTEGER) * 0.125 ELSE {1} END;"
            "UPDATE ParameterValue SET Value = {0} + PID % 10 * 0.125, MonitorCode = {1}",
            tick_, codes[index(tick_)], now.year, now.month, now.day, now.hour, now.minute, now.second));
    }
    static std::size_t index(int tick) { return static_cast<std::size_t>(tick) % 3; }

    // ---- what must come of a tick

    using Lines = std::vector<testing::Matcher<std::string>>;

    // Of a site's read of its channels ('c') or parameters ('p').
    void expectRead(Lines& lines, Site& site, char kind, const char* outcome) const {
        const bool isRead = outcome == none || outcome == noRecords;
        std::optional<int>& seen = kind == 'c' ? site.channels : site.parameters;
        if (!isRead) {
            lines.push_back(MatchesRegex(
                (kind == 'c' ? "log Error OPC-0192: "
                             : "log Error Cannot read the current parameter values of site '" + site.id + "'; ") +
                outcome));
        } else {
            seen = outcome == none ? std::optional(tick_) : std::nullopt;
        }
        if (kind == 'c') {
            if (!seen) {
                lines.push_back("log Notice OPC-0194: Found 0 CurrentIO records for site '" + site.id + "'");
            }
            lines.push_back(StartsWith(isRead && seen ? "log Progress IOS6 CurrentIO [OPC-0183]"
                                                      : "log Progress IOS6 CurrentIO  Elapsed=20; TStamp="));
        }
    }

    // Every item with its value and quality, as they must be now.
    std::vector<std::string> expectedItems() const {
        std::vector<std::string> items;
        for (const Site* site : {&local_, &remote_}) {
            for (int i = 1; i <= itemsOfAKind; ++i) {
                for (const char kind : {'P', 'C'}) {
                    const std::optional<int> seen = kind == 'C' ? site->channels : site->parameters;
                    const std::string gone = kind == 'C' ? "0" : "";
                    items.push_back(fmt::format("{}.{}{} = '{}' {:04X}", site->id, kind, i,
                                                seen ? fmt::format("{}", *seen + i * 0.125) : gone,
                                                seen ? qualities[index(*seen)] : 0));
                }
            }
        }
        return items;
    }

    std::vector<std::string> itemsOf(Date pass) {
        std::vector<std::string> items;
        onNetwork([&] {
            for (std::size_t i = 0; i < control_.network().items().Count(); ++i) {
                const SLIKTag& tag = control_.network().items().at(i);
                items.push_back(fmt::format("{} = '{}' {:04X}", tag.Name(), toText(tag.Value()), tag.qualityWord()));
            }
        });
        for (std::size_t i = 0; i < items.size(); ++i) {
            const ISLIKTag& passed = control_.SLIKTags().at(i);
            EXPECT_NEAR(passed.Timestamp().days, pass.days, 0.1 / 86400) << passed.Name();
        }
        return items;
    }

    // New values, the fault, 20 seconds with the reads and one pass, and the repair.
    void tick(const Fault* fault) {
        ++tick_;
        writeValues(local_);
        writeValues(remote_);
        if (fault != nullptr) {
            fault->begin();
        }
        // Ticks begin at second 54, 14 and 34. Each step is one second's work: reads of every site, or the pass ('u').
        static const std::array<std::vector<std::string_view>, 3> steps{
            {{"cp", "u"}, {"p", "c", "u", "p"}, {"c", "p", "u"}}};
        Lines lines;
        std::vector<std::string> items;
        bool isFirst = true;
        for (const std::string_view step : steps[index(tick_)]) {
            if (step == "u") {
                lines.push_back("log Information [OPC-0127] Update tag values");
                items = expectedItems();
                continue;
            }
            for (Site* site : {&local_, &remote_}) {
                for (const char kind : step) {
                    const bool isHit = fault && fault->site == site && (kind == 'c' || fault->hitsParameters);
                    expectRead(lines, *site, kind, !isHit ? none : isFirst ? fault->first : fault->later);
                    isFirst = isFirst && !isHit;
                }
            }
        }
        const Date pass{localNow().days + 11.0 / 86400};
        fault != nullptr ? runBesideReads(held_[fault->name]) : run(20);
        EXPECT_THAT(journal_.lines, testing::Not(testing::Contains(testing::HasSubstr(password))));
        EXPECT_THAT(journal_.take(), testing::ElementsAreArray(lines));
        EXPECT_EQ(itemsOf(pass), items);
        if (fault != nullptr) {
            fault->end();
        }
    }

    void run(int seconds) {
        for (int i = 0; i < seconds; ++i) {
            onNetwork([this] { time_.advanceMilliseconds(1000); });
            const auto begun = std::chrono::steady_clock::now();
            ++step_;
            plantLoop_.time.advance(1000);
            if (std::chrono::steady_clock::now() - begun >= wait) {
                waits_.push_back(step_);
            }
            ++step_;
            plantLoop_.takeIn();
        }
    }

    // A tick, and a client that reads all the time. It must never wait for the plant: while the plant waits it goes on
    // being answered. That is counted, for a limit of time would also count whatever else this machine does: a read is
    // in time when the plant was inside the same handlers before and after it, and in 50 ms there are hundreds.
    void runBesideReads(Held& held) {
        waits_.clear();
        std::atomic<bool> isOver = false;
        auto reading = std::async(std::launch::async, [&] {
            std::vector<unsigned> answered;  // the plant's step, of each read that was asked and answered in one
            while (!isOver) {
                const unsigned asked = step_;
                client_->check();
                if (asked == step_) {
                    answered.push_back(asked);
                }
            }
            return answered;
        });
        run(20);
        isOver = true;
        const std::vector<unsigned> answered = reading.get();
        for (const unsigned waited : waits_) {
            ++held.times;
            held.reads += std::count(answered.begin(), answered.end(), waited);
        }
    }

    // ---- the faults

    // How many sessions of that user there are, besides the plant's, once there are so many: one that was told to end,
    // or whose client has gone, may be there a moment longer.
    int sessions(const char* user, int expected) {
        std::optional<std::int32_t> found;
        for (int i = 0; i < 100 && found != expected; ++i) {
            const auto rows = plant_->query(
                "SELECT count(*), pg_sleep(0.01) FROM pg_stat_activity "
                "WHERE backend_type = 'client backend' AND pid <> pg_backend_pid() AND usename = ?",
                {std::string_view(user)});
            std::array<SqlValue, 1> count;
            rows->next();
            rows->read(count);
            found = sqlWholeNumber(count[0]);
        }
        return found.value_or(-1);
    }
    void endServersSession() {
        remote_.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = 'server'");
        EXPECT_EQ(sessions("server", 0), 0);
    }
    void otherSession(const std::string& sql) {
        others_.push_back(OdbcDriver().connection(ConnectionString(TestServer::instance()->connectionString())));
        others_.back()->execute(sql, {});
    }
    void endOtherSessions() {
        others_.clear();
        EXPECT_EQ(sessions("quelm", 0), 0);
    }
    Action on(const Site& site, const std::string& sql) const {
        return [&site, sql] { site.run(sql); };
    }
    void writeFile(const std::string& contents) const { std::ofstream(folder_.file("realtime.db")) << contents; }
    Action spoil(const std::string& contents) {
        return [this, contents] {
            kept_ = test::contentsOf(folder_.file("realtime.db"));
            writeFile(contents);
        };
    }

    // The two that take long come last.
    std::vector<Fault> faults() {
        TestServer& server = *TestServer::instance();
        const std::string file = folder_.file("realtime.db");
        const std::string rename = "ALTER TABLE CurrentIO RENAME TO C; ALTER TABLE ParameterValue RENAME TO P";
        const std::string nameBack = "ALTER TABLE C RENAME TO CurrentIO; ALTER TABLE P RENAME TO ParameterValue";
        const std::string leave = "UPDATE CurrentIO SET SiteID = 'X'; UPDATE ParameterValue SET SiteID = 'X'";
        const std::string comeBack = "UPDATE CurrentIO SET SiteID = '{0}'; UPDATE ParameterValue SET SiteID = '{0}'";
        constexpr const char* ended = "35, .*(terminating connection|connection has been lost).*";
        return {
            {"file locked", &local_, on(local_, "BEGIN EXCLUSIVE"), on(local_, "COMMIT"), "5, database is locked"},
            {"sessions ended", &remote_, [this] { endServersSession(); }, [] {}, ended, none},
            {"file removed", &local_, [=] { std::filesystem::rename(file, file + "-"); },
             [=] { std::filesystem::rename(file + "-", file); }, "14, unable to open database file .*No such file.*"},
            {"tables locked", &remote_, [this] { otherSession("BEGIN; LOCK TABLE CurrentIO, ParameterValue"); },
             [this] { endOtherSessions(); }, "1, .*canceling statement due to lock timeout.*"},
            {"file overwritten", &local_, spoil(std::string(100000, '?')), [this] { writeFile(kept_); },
             "26, file is not a database"},
            {"read takes too long", &remote_,
             on(remote_,
                "ALTER FUNCTION csp_GetCurrentIO2 RENAME TO kept; CREATE FUNCTION csp_GetCurrentIO2(TEXT, "
                "INTEGER) RETURNS SETOF CurrentIO LANGUAGE sql AS 'SELECT c FROM pg_sleep(9), CurrentIO c'"),
             on(remote_, "DROP FUNCTION csp_GetCurrentIO2; ALTER FUNCTION kept RENAME TO csp_GetCurrentIO2"),
             "1, .*canceling statement due to statement timeout.*", none, false},
            {"file's tables renamed", &local_, on(local_, rename), on(local_, nameBack), "1, no such table: .*"},
            {"no session to be had", &remote_,
             [this] {
                 endServersSession();
                 for (int i = 0; i < 9; ++i) {
                     otherSession("SELECT 1");
                 }
             },
             [this] { endOtherSessions(); }, ended, "101, .*remaining connection slots are reserved.*"},
            {"file's records gone", &local_, on(local_, leave), on(local_, fmt::format(fmt::runtime(comeBack), "L")),
             noRecords},
            {"password changed", &remote_,
             [this] {
                 endServersSession();
                 remote_.run("ALTER ROLE server PASSWORD 'another'");
             },
             on(remote_, fmt::format("ALTER ROLE server PASSWORD '{}'", password)), ended,
             "101, .*password authentication failed.*"},
            {"tables renamed", &remote_, on(remote_, rename), on(remote_, nameBack), "1, .*does not exist.*"},
            {"records gone", &remote_, on(remote_, leave), on(remote_, fmt::format(fmt::runtime(comeBack), "R")),
             noRecords},
            {"file cut off", &local_, spoil(""), [this] { writeFile(kept_); }, "1, no such table: .*"},
            {"server stopped", &remote_, [&] { EXPECT_TRUE(server.stop()); },
             [&, this] {
                 EXPECT_TRUE(server.start());
                 plant_->close();
             },
             ended, "101, .*Connection refused.*"},
            {"server frozen", &remote_, [&] { server.freeze(true); },
             [&, this] {
                 server.freeze(false);
                 // The answer that comes too late is thrown away, and its session with it.
                 EXPECT_EQ(sessions("server", 0), 0);
             },
             "3712, the database did not answer within 2000 ms"},
        };
    }

    test::TemporaryFolder folder_;
    TestDatabase realtime_{folder_.file("realtime.db")};
    std::string kept_;
    std::unique_ptr<ISqlConnection> plant_;
    std::vector<std::unique_ptr<ISqlConnection>> others_;
    Site local_{"L", [this](const std::string& sql) { realtime_.run(sql); }, {}, {}};
    Site remote_{"R", [this](const std::string& sql) { plant_->execute(sql, {}); }, {}, {}};
    ManualTimeSource time_{makeDate(2026, 11, 16, 8, 0, 10)};
    ScopedTimeSource inForce_{time_};
    PlantLoop plantLoop_;
    AsioLoop networkLoop_;
    fakes::Journal journal_;
    fakes::SystemINI ini_;
    fakes::Window window_{journal_};
    SLIKServer control_{plantLoop_, networkLoop_};
    const std::array<std::uint16_t, 2> ports_{test::freePort(), test::freePort()};  // of activation and objects
    static void ignore(std::string_view /*line*/) {}
    static void complain(std::string_view line) { ADD_FAILURE() << line; }
    health::PlantHealth health_{plantLoop_, networkLoop_};
    OpcNetwork network_{
        control_,
        health_,
        plantLoop_.inbox,
        networkLoop_,
        {},
        {.weakened = ignore, .notice = ignore, .client = ignore, .trouble = complain, .failure = complain}};
    std::optional<bench::GroupReader> client_;
    int tick_ = 0;
    std::atomic<unsigned> step_ = 0;  // of the plant; odd while its handlers run
    std::vector<unsigned> waits_;     // steps in which the plant waited
    std::map<std::string, Held> held_;
};

TEST_F(Soak, AThousandTicksWithAFaultInEveryTenth) {
    const std::vector<Fault> all = faults();
    const std::ptrdiff_t filesBefore = openFiles();
    std::ptrdiff_t files = 0;
    std::size_t memory = 0;
    frmOPCQuelm form(parts());
    ASSERT_EQ(form.Form_Load(), StartUp::Running);
    EXPECT_EQ(sessions("server", 1), 1);
    client_.emplace(ports_[0], ports_[1], 2, password, std::vector<std::string>{"L.C1", "R.P1"});
    run(4);
    journal_.take();
    for (std::size_t i = 1; i <= 1000; ++i) {
        const Fault& next =
            i % 100 == 5 ? all[all.size() - (i / 100 % 3 == 0 ? 1 : 2)] : all[i / 10 % (all.size() - 2)];
        tick(i % 10 == 5 ? &next : nullptr);
        ASSERT_FALSE(HasFailure()) << "in tick " << i << "; the fault of its ten: " << next.name;
        if (i == 4) {
            files = openFiles();
        } else if (i == 200) {
            memory = mallinfo2().uordblks;
        }
    }
    EXPECT_EQ(openFiles(), files);
    // What the allocator keeps at hand for each of the four threads counts as well, and becomes more for a while.
    EXPECT_LT(mallinfo2().uordblks, memory + 4 * 65536);
    EXPECT_EQ(sessions("server", 1), 1);
    for (const char* name : {"file locked", "tables locked", "read takes too long", "server frozen"}) {
        EXPECT_GE(held_[name].times, 4) << name;
    }
    for (const auto& [name, held] : held_) {
        EXPECT_GE(held.reads, 10 * held.times) << name << " kept the client waiting";
    }
    client_.reset();
    network_.close();
    plantLoop_.takeIn();
    EXPECT_TRUE(form.Unload());
    EXPECT_EQ(sessions("server", 0), 0);
    EXPECT_EQ(openFiles(), filesBefore);
    plantLoop_.time.advance(1000);
    EXPECT_EQ(plantLoop_.time.pendingTimers(), 0U);
}

}  // namespace
}  // namespace quelm
