// What a database library that hangs, fails or answers late costs those who ask. The libraries here hang on gates, so
// that nothing depends on how fast the machine is.

#include "DB Interface Library/sql/SqlWorker.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "DB Interface Library/DBIL.h"
#include "base/Raised.h"
#include "base/TimeSource.h"

namespace quelm {
namespace {

using namespace std::chrono_literals;
using test::failureOf;
using testing::ElementsAre;

// Opens once; whoever comes before waits.
class Gate {
 public:
    void open() { opened_.set_value(); }
    void pass() const { isOpen_.wait(); }

 private:
    std::promise<void> opened_;
    std::shared_future<void> isOpen_ = opened_.get_future().share();
};

// A database of the tests' own, whose library outlives the connection for as long as it hangs.
struct Library {
    SqlTimeouts timeouts{.connect = 10s, .query = 10s, .grace = 0ms, .holdOff = 1s};
    // These are set while its worker has nothing to do.
    std::shared_ptr<Gate> connectGate;
    std::shared_ptr<Gate> queryGate;
    bool refuses = false;
    int value = 0;  // of its one channel
    std::atomic<int> attempts = 0;
    std::atomic<int> queries = 0;
    std::atomic<int> closings = 0;
    Gate gone;  // opens with the connection's end
};

void passIfThere(std::shared_ptr<Gate> gate) {
    if (gate) {
        gate->pass();
    }
}

class Connection final : public ISqlConnection {
 public:
    explicit Connection(std::shared_ptr<Library> library) : library_(std::move(library)) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() override { library_->gone.open(); }

    SqlTimeouts timeouts() const override { return library_->timeouts; }
    void connect() override {
        if (isOpen_) {
            return;
        }
        const bool refuses = library_->refuses;
        ++library_->attempts;
        passIfThere(library_->connectGate);
        if (refuses) {
            throw RuntimeError(101, "refused");
        }
        isOpen_ = true;
    }
    std::unique_ptr<ISqlRows> query(std::string_view, SqlParameters) override {
        const std::shared_ptr<Gate> gate = library_->queryGate;
        ++library_->queries;
        passIfThere(gate);
        return std::make_unique<NoRows>();
    }
    void scan(std::string_view, std::string_view, SqlParameters, ISqlRowSink& sink) override {
        const int value = library_->value;
        query({}, {});
        std::array<SqlValue, 4> row;
        row[0].type = SqlType::Text;
        row[0].text = "C1";
        row[2].type = SqlType::Integer;
        row[2].integer = value;
        sink.take(row);
    }
    bool call(std::string_view, std::string_view, SqlParameters, ISqlRowSink&) override { return false; }
    void beginTransaction() override {}
    bool hasTypedColumns() const override { return false; }
    std::int64_t execute(std::string_view, SqlParameters) override {
        query({}, {});
        return 1;
    }
    void test() override { query({}, {}); }
    void close() override {
        isOpen_ = false;
        ++library_->closings;
    }

 private:
    class NoRows final : public ISqlRows {
     public:
        bool next() override { return false; }
        void read(std::span<SqlValue>) const override {}
    };

    std::shared_ptr<Library> library_;
    bool isOpen_ = false;
};

// What callers give a library that hangs; much more than one takes that does not.
constexpr std::chrono::milliseconds shortTime = 300ms;
constexpr const char* noAnswer = "3712, the database did not answer within 300 ms";

class SqlWorkerTest : public testing::Test {
 protected:
    static std::shared_ptr<Gate> hang(std::shared_ptr<Gate>& gate) { return gate = std::make_shared<Gate>(); }
    void makeWorker() { worker_.emplace(std::make_unique<Connection>(library_)); }
    std::string test() {
        return failureOf([this] {
            worker_->run([](ISqlConnection& connection) {
                connection.test();
                return true;
            });
        });
    }
    // The call that hung is over; so is what the worker did behind it.
    void awaitFree() {
        while (!worker_->isFree()) {
            std::this_thread::yield();
        }
    }

    ManualTimeSource time_{makeDate(2026, 11, 16)};
    ScopedTimeSource inForce_{time_};
    std::shared_ptr<Library> library_ = std::make_shared<Library>();
    std::optional<SqlWorker> worker_;
};

TEST_F(SqlWorkerTest, AQueryThatHangsFailsInItsTimeAndTheNextAtOnceUntilItReturns) {
    library_->timeouts.query = shortTime;
    makeWorker();
    EXPECT_EQ(worker_->run([](ISqlConnection&) { return 7; }), 7);
    const auto gate = hang(library_->queryGate);
    EXPECT_EQ(test(), noAnswer);
    EXPECT_FALSE(worker_->isFree());
    EXPECT_EQ(test(), noAnswer);
    EXPECT_EQ(library_->queries, 1);
    gate->open();
    awaitFree();
    EXPECT_EQ(library_->closings, 1);
    EXPECT_EQ(worker_->run([](ISqlConnection&) { return 8; }), 8);
    EXPECT_EQ(library_->attempts, 2);
}

TEST_F(SqlWorkerTest, WhatComesTooLateIsThrownAwayWithAllThatItWasGiven) {
    library_->timeouts.query = shortTime;
    makeWorker();
    const auto gate = hang(library_->queryGate);
    auto given = std::make_shared<int>(5);
    const std::weak_ptr<int> watched = given;
    EXPECT_EQ(failureOf([&] {
                  worker_->run([given = std::move(given)](ISqlConnection& connection) {
                      connection.test();
                      return given;
                  });
              }),
              noAnswer);
    EXPECT_FALSE(watched.expired());
    gate->open();
    awaitFree();
    // The worker's next job begins behind the end of this one.
    worker_->run([](ISqlConnection&) { return true; });
    EXPECT_TRUE(watched.expired());
}

TEST_F(SqlWorkerTest, AConnectionThatHangsIsAwaitedOnceAndThenForAMomentOnly) {
    library_->timeouts.connect = shortTime;
    makeWorker();
    const auto gate = hang(library_->connectGate);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(test(), noAnswer);
    }
    EXPECT_EQ(library_->attempts, 1);
    gate->open();
    awaitFree();
    // The session that has come about is good, and the work that nobody waits for was not done.
    EXPECT_EQ(library_->queries, 0);
    EXPECT_EQ(library_->closings, 0);
    EXPECT_EQ(test(), "none");
    EXPECT_EQ(library_->attempts, 1);
}

TEST_F(SqlWorkerTest, AnAttemptThatFailsTooLateIsFollowedByAnother) {
    library_->timeouts.connect = shortTime;
    makeWorker();
    auto gate = hang(library_->connectGate);
    library_->refuses = true;
    EXPECT_EQ(test(), noAnswer);
    gate->open();
    awaitFree();
    gate = hang(library_->connectGate);
    EXPECT_EQ(test(), noAnswer);
    EXPECT_EQ(library_->attempts, 2);
    gate->open();
    awaitFree();
    library_->connectGate.reset();
    library_->refuses = false;
    EXPECT_EQ(test(), "none");
}

TEST_F(SqlWorkerTest, AfterAConnectionThatFailedOthersFailForASecondWithoutTryingAgain) {
    library_->timeouts.grace = 10s;  // for closing
    makeWorker();
    library_->refuses = true;
    for (const int attempt : {1, 2}) {
        EXPECT_EQ(test(), "101, refused");
        time_.advanceMilliseconds(999);
        EXPECT_EQ(test(), "101, refused");
        EXPECT_EQ(library_->attempts, attempt);
        time_.advanceMilliseconds(1);
    }
    library_->refuses = false;
    EXPECT_EQ(test(), "none");
    library_->refuses = true;
    worker_->wait(worker_->beginClose());
    EXPECT_EQ(test(), "101, refused");
    // Closing forgets the failure.
    worker_->wait(worker_->beginClose());
    EXPECT_EQ(test(), "101, refused");
    EXPECT_EQ(library_->attempts, 5);
}

TEST_F(SqlWorkerTest, EveryFailureOfTheWorkReachesTheCallerAsNumberAndText) {
    makeWorker();
    const auto failWith = [this](auto failure) {
        return failureOf([&] { worker_->run([failure](ISqlConnection&) -> int { throw failure; }); });
    };
    EXPECT_EQ(failWith(RuntimeError(42, "syntax")), "42, syntax");
    EXPECT_EQ(failWith(std::bad_alloc()), fmt::format("7, {}", runtimeErrorText(7)));
    EXPECT_EQ(test(), "none");
}

TEST_F(SqlWorkerTest, OfTwoCallsTheSecondWaitsForTheFirst) {
    makeWorker();
    const auto gate = hang(library_->queryGate);
    auto first = worker_->begin([](ISqlConnection& connection) {
        connection.test();
        return 1;
    });
    EXPECT_FALSE(worker_->isFree());
    std::thread opener([gate] { gate->open(); });
    EXPECT_EQ(worker_->run([](ISqlConnection&) { return 2; }), 2);
    EXPECT_EQ(worker_->finish(std::move(first)), 1);
    opener.join();
}

TEST_F(SqlWorkerTest, TheEndWaitsForNoLibraryThatHangs) {
    library_->timeouts.query = shortTime;
    makeWorker();
    const auto gate = hang(library_->queryGate);
    EXPECT_EQ(test(), noAnswer);
    worker_.reset();
    gate->open();
    library_->gone.pass();

    // One that hangs where it says good-bye.
    library_ = std::make_shared<Library>();
    library_->queryGate = std::make_shared<Gate>();
    makeWorker();
    worker_->begin([](ISqlConnection& connection) {
        connection.test();
        return true;
    });
    worker_.reset();
    library_->queryGate->open();
    library_->gone.pass();
}

TEST_F(SqlWorkerTest, AProcessEndsWhileALibraryHangs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            library_->timeouts.query = shortTime;
            makeWorker();
            hang(library_->queryGate);
            const bool failed = test() == noAnswer;
            worker_.reset();
            std::exit(failed ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// ---- sites side by side

class Driver final : public ISqlDriver {
 public:
    explicit Driver(std::map<std::string, std::shared_ptr<Library>> libraries) : libraries_(std::move(libraries)) {}
    bool accepts(const ConnectionString&) const override { return true; }
    std::unique_ptr<ISqlConnection> connection(const ConnectionString& text) const override {
        return std::make_unique<Connection>(libraries_.at(text.text()));
    }

 private:
    std::map<std::string, std::shared_ptr<Library>> libraries_;
};

class SitesSideBySideTest : public testing::Test {
 protected:
    static constexpr std::array ids{"S1", "S2", "S3"};

    void setUp(const SqlTimeouts& timeouts = {.connect = 10s, .query = 10s, .grace = 0ms}) {
        SqlDrivers drivers;
        for (const std::string id : ids) {
            libraries_[id] = std::make_shared<Library>();
            libraries_[id]->timeouts = timeouts;
        }
        drivers.add(std::make_unique<Driver>(libraries_));
        dbil_.emplace(std::move(drivers), [](std::string_view problem) { ADD_FAILURE() << problem; });
        for (const std::string id : ids) {
            EXPECT_TRUE(dbil_->SetupSite(id, id, id, "", "", "", true, false));
        }
    }
    // What the site's channel has.
    std::string read(const std::string& id) {
        std::string value;
        const std::string failure = failureOf([&] {
            value = fmt::format("{}", dbil_->RealtimeDB().ReadCurrentIO(id, false)->Channel(1)->NValue.int32());
        });
        return failure == "none" ? value : failure;
    }
    std::vector<std::string> readAll() { return {read("S1"), read("S2"), read("S3")}; }
    void setValues(int value) {
        for (const auto& [id, library] : libraries_) {
            library->value = value;
        }
    }
    void nextTick() { time_.advanceMilliseconds(20'000); }
    // The site's read was begun, and is done.
    void awaitQueries(const std::string& id, int count) {
        while (libraries_[id]->queries < count) {
            std::this_thread::yield();
        }
    }

    ManualTimeSource time_{makeDate(2026, 11, 16)};
    ScopedTimeSource inForce_{time_};
    std::map<std::string, std::shared_ptr<Library>> libraries_;
    std::optional<DBIL> dbil_;
};

TEST_F(SitesSideBySideTest, AtTheFirstOnesCallAllAreRead) {
    setUp();
    setValues(1);
    EXPECT_THAT(readAll(), ElementsAre("1", "1", "1"));
    nextTick();
    // The first one's database answers once the others have begun.
    const auto gate = std::make_shared<Gate>();
    libraries_["S1"]->queryGate = gate;
    setValues(2);
    std::thread opener([this, gate] {
        awaitQueries("S2", 2);
        awaitQueries("S3", 2);
        gate->open();
    });
    EXPECT_EQ(read("S1"), "2");
    opener.join();
    // What was read at the tick is what the others get, in any order.
    setValues(3);
    EXPECT_EQ(read("S3"), "2");
    EXPECT_EQ(read("S2"), "2");
    EXPECT_EQ(libraries_["S2"]->queries, 2);
}

TEST_F(SitesSideBySideTest, NothingReadAtAnEarlierTickIsEverGiven) {
    setUp();
    setValues(1);
    readAll();
    nextTick();
    setValues(2);
    EXPECT_EQ(read("S1"), "2");
    awaitQueries("S2", 2);
    awaitQueries("S3", 2);
    setValues(3);
    time_.advanceMilliseconds(499);
    EXPECT_EQ(read("S2"), "2");
    time_.advanceMilliseconds(1);
    EXPECT_EQ(read("S3"), "3");
    // Who has asked just now, or not for long, is not read for.
    time_.advanceMilliseconds(60'000);
    EXPECT_EQ(read("S3"), "3");
    EXPECT_EQ(libraries_["S1"]->queries, 2);
    setValues(4);
    EXPECT_THAT(readAll(), ElementsAre("4", "4", "4"));
}

TEST_F(SitesSideBySideTest, AllThatIsDueOverOneConnectionTriesToConnectOnce) {
    setUp();
    EXPECT_TRUE(dbil_->SetupSite("S4", "S1", "S1", "", "", "", true, false));
    libraries_["S1"]->refuses = true;
    std::string id;
    std::vector<ParameterValue> values;
    EXPECT_EQ(read("S1"), "101, refused");
    EXPECT_EQ(read("S4"), "101, refused");
    EXPECT_THROW(dbil_->RealtimeDB().ReadParameterValues("S4", values), RuntimeError);
    EXPECT_THROW(dbil_->RealtimeDB().InsertMessage(id, "S1", "", "", "", "", ""), RuntimeError);
    EXPECT_EQ(libraries_["S1"]->attempts, 1);
}

// As at start-up, when a site takes its time to be loaded, and the first tick comes when it comes.
TEST_F(SitesSideBySideTest, SitesThatFirstAskedApartAreReadTogetherFromTheFirstTickOn) {
    for (const int firstTick : {100, 4'000, 20'000}) {
        SCOPED_TRACE(firstTick);
        setUp();
        for (const char* id : ids) {
            EXPECT_EQ(read(id), "0");
            EXPECT_EQ(libraries_["S1"]->queries, 1);
            time_.advanceMilliseconds(2'000);
        }
        setValues(1);
        time_.advanceMilliseconds(firstTick);
        EXPECT_EQ(read("S2"), "1");
        awaitQueries("S1", 2);
        awaitQueries("S3", 3);
    }
}

TEST_F(SitesSideBySideTest, SitesThatNeverAskedYetAreReadWithTheFirst) {
    setUp({.connect = 10s, .query = shortTime, .grace = 0ms});
    const auto gate = std::make_shared<Gate>();
    libraries_["S1"]->queryGate = gate;
    libraries_["S2"]->queryGate = gate;
    EXPECT_EQ(read("S1"), noAnswer);
    for (const char* id : ids) {
        awaitQueries(id, 1);
    }
    EXPECT_EQ(read("S3"), "0");
    EXPECT_EQ(read("S2"), noAnswer);
    EXPECT_EQ(libraries_["S3"]->queries, 1);
    gate->open();
}

TEST_F(SitesSideBySideTest, TwoThatHangLeaveTheThirdItsValues) {
    setUp({.connect = 10s, .query = shortTime, .grace = 0ms});
    EXPECT_THAT(readAll(), ElementsAre("0", "0", "0"));
    const auto gate = std::make_shared<Gate>();
    libraries_["S1"]->queryGate = gate;
    libraries_["S2"]->queryGate = gate;
    setValues(5);
    nextTick();
    EXPECT_EQ(read("S1"), noAnswer);
    awaitQueries("S2", 2);
    EXPECT_EQ(read("S2"), noAnswer);
    EXPECT_EQ(read("S3"), "5");
    libraries_["S3"]->value = 6;
    nextTick();
    EXPECT_THAT(readAll(), ElementsAre(noAnswer, noAnswer, "6"));
    EXPECT_EQ(libraries_["S1"]->queries, 2);
    // Back again, and never with the 5 that comes too late.
    setValues(7);
    gate->open();
    for (const char* id : {"S1", "S2"}) {
        std::string value = noAnswer;
        while (value == noAnswer) {
            nextTick();
            value = read(id);
        }
        EXPECT_EQ(value, "7");
        EXPECT_EQ(libraries_[id]->closings, 1);
    }
}

TEST_F(SitesSideBySideTest, ConnectionsAreTestedAllAtOnce) {
    setUp();
    const auto gate = std::make_shared<Gate>();
    for (const auto& [id, library] : libraries_) {
        library->queryGate = gate;
    }
    std::thread opener([this, gate] {
        for (const char* id : ids) {
            awaitQueries(id, 1);
        }
        gate->open();
    });
    EXPECT_TRUE(dbil_->TestConnections("", true, true, false, false, false, true));
    opener.join();
}

}  // namespace
}  // namespace quelm
