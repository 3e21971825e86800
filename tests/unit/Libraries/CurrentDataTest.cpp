// The current-data reader and the data interface over libraries that fail when they are told to.

#include <gmock/gmock.h>

#include "Clock Library/Clock.h"
#include "CurrentData Reader/CurrentDataReader.h"
#include "Data Interface/DataInterface.h"
#include "Message Loop/VirtualLoop.h"
#include "Shared Types/RuntimeError.h"
#include "Shared Types/TimeSource.h"

namespace quelm {
namespace {

using testing::ElementsAre;

class FakeRealtimeDB final : public IRealtimeDB {
 public:
    std::shared_ptr<const CurrentIOCollection> ReadCurrentIO(std::string_view, bool) override { return nullptr; }
    std::optional<MessageRecord> GetMessageRecord(std::string_view, std::string_view) override { return std::nullopt; }
    bool InsertMessage(std::string&, std::string_view, std::string_view, std::string_view, std::string_view,
                       std::string_view, std::string_view) override {
        return false;
    }
    void ReadParameterValues(std::string_view strSiteID, std::vector<ParameterValue>& out) override {
        EXPECT_EQ(strSiteID, "S1");
        ++reads;
        out.clear();
        if (failing) {
            out.emplace_back();
            throw RuntimeError(5, "database is locked");
        }
        out = values;
    }
    void add(std::int32_t pid, const char* intervalType, double value) {
        ParameterValue added;
        added.PID = pid;
        added.IntervalType = intervalType;
        added.Value = Variant(value);
        values.push_back(std::move(added));
    }
    std::vector<ParameterValue> values;
    bool failing = false;
    int reads = 0;
};

class CurrentDataReaderTest : public testing::Test, protected ICDRReferences, protected IRaiseMsg {
 protected:
    CurrentDataReaderTest() { reader_.Initialize(*this, *this, 15); }

    std::int32_t ICDRReferences_FirstDayOfWeek() const override { return 0; }
    IClock& ICDRReferences_Intervals() const override { return clock_; }
    IRealtimeDB& ICDRReferences_RealtimeDB() const override { return database_; }
    bool ICDRReferences_SelectedDahsIsRemote() const override { return true; }
    Date ICDRReferences_SelectedDahsNow() const override { return localNow(); }
    const std::string& ICDRReferences_SiteID() const override { return siteID_; }
    void RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) override {
        EXPECT_EQ(lngMsgType, msgtype::error);
        messages_.emplace_back(strDescription);
    }

    void advanceSeconds(int seconds) {
        for (int i = 0; i < seconds; ++i) {
            time_.advanceMilliseconds(1000);
            loop_.advance(1000);
        }
    }
    Variant valueOf(std::int32_t pid, const char* intervalType) const {
        const CurrentValueRecord* record = reader_.CurrentValue(pid, intervalType);
        return record == nullptr ? Variant() : record->Value;
    }

    std::string siteID_ = "S1";
    ManualTimeSource time_{makeDate(2026, 11, 22, 10, 0, 1), 60};
    ScopedTimeSource inForce_{time_};
    VirtualLoop loop_;
    mutable Clock clock_{loop_};
    mutable FakeRealtimeDB database_;
    std::vector<std::string> messages_;
    CurrentDataReader reader_;
};

TEST_F(CurrentDataReaderTest, ReadsAtOnceAndThenOnEveryPeriod) {
    database_.add(5, "1H", 1);
    EXPECT_TRUE(valueOf(5, "1H").isEmpty());
    reader_.Start();
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    database_.values[0].Value = Variant(2.0);
    advanceSeconds(13);
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    advanceSeconds(1);
    EXPECT_EQ(valueOf(5, "1H"), Variant(2.0));
    reader_.Stop();
    EXPECT_TRUE(valueOf(5, "1H").isEmpty());
    advanceSeconds(60);
    EXPECT_EQ(database_.reads, 2);
}

TEST_F(CurrentDataReaderTest, FindsEachParameterAndIntervalType) {
    database_.add(5, "1H", 1);
    database_.add(6, "1H", 2);
    database_.add(5, "1D", 3);
    database_.add(5, "1H", 4);
    database_.add(5, "", 5);
    reader_.Start();
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    EXPECT_EQ(valueOf(5, "1D"), Variant(3.0));
    EXPECT_EQ(valueOf(5, ""), Variant(5.0));
    EXPECT_EQ(valueOf(6, "1H"), Variant(2.0));
    EXPECT_TRUE(valueOf(6, "1D").isEmpty());
    EXPECT_TRUE(valueOf(7, "1H").isEmpty());

    database_.values.erase(database_.values.begin());
    advanceSeconds(15);
    EXPECT_EQ(valueOf(5, "1H"), Variant(4.0));
    EXPECT_EQ(valueOf(6, "1H"), Variant(2.0));
}

TEST_F(CurrentDataReaderTest, WithdrawsItsValuesAfterThreeMissedRefreshes) {
    database_.add(5, "1H", 1);
    reader_.Start();
    database_.failing = true;
    advanceSeconds(30);
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    advanceSeconds(30);
    EXPECT_TRUE(valueOf(5, "1H").isEmpty());
    const std::string failed = "Cannot read the current parameter values of site 'S1'; 5, database is locked";
    const std::string withdrawn = failed + "; the last values are too old and no longer published";
    EXPECT_THAT(messages_, ElementsAre(failed, failed, withdrawn, withdrawn));
    database_.failing = false;
    advanceSeconds(15);
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    EXPECT_EQ(messages_.size(), 4U);
}

class FakeConfiguration final : public IConfigurationReader {
 public:
    std::shared_ptr<const OPCDefCollection> LoadOPCDefs(std::string_view) override { return nullptr; }
    std::shared_ptr<const ChannelDefCollection> LoadChannelDefs(std::string_view) override { return nullptr; }
    std::vector<PIDDefinition> LoadPIDDefinitions(std::string_view, std::int32_t lngDAHSID) override {
        return lngDAHSID == 12 ? std::vector<PIDDefinition>{{5, "1H"}, {6, ""}, {5, "1D"}}
                               : throw RuntimeError(1, "no such table: PIDDef");
    }
    SiteSettings LoadSiteSettings(std::string_view, std::int32_t) override { return {3}; }
};

TEST(DataInterfaceTest, HoldsDefinitionsFromLoadToTearDown) {
    FakeConfiguration configuration;
    DataInterface data(configuration, "S1");
    ASSERT_TRUE(data.Load(12, true, false));
    EXPECT_TRUE(data.PIDDefinitions().IsDefined(6));
    EXPECT_FALSE(data.PIDDefinitions().IsDefined(7));
    EXPECT_EQ(data.PIDDefinitions().IntervalType(5, true), "1H");
    EXPECT_EQ(data.PIDDefinitions().IntervalType(6, true), "");
    EXPECT_THROW(data.PIDDefinitions().IntervalType(7, true), RuntimeError);
    EXPECT_EQ(data.FirstDayOfWeek(), 3);
    data.TearDown();
    EXPECT_FALSE(data.PIDDefinitions().IsDefined(5));
    EXPECT_EQ(data.FirstDayOfWeek(), 0);
}

TEST(DataInterfaceTest, AFailedLoadSaysWhyAndLeavesNothing) {
    FakeConfiguration configuration;
    DataInterface data(configuration, "S1");
    std::vector<std::string> messages;
    data.OnMessage([&](std::int32_t type, std::string_view text) {
        messages.push_back(std::to_string(type) + " " + std::string(text));
    });
    ASSERT_TRUE(data.Load(12, true, false));
    EXPECT_FALSE(data.Load(13, true, false));
    EXPECT_FALSE(data.PIDDefinitions().IsDefined(5));
    EXPECT_THAT(messages, ElementsAre("4 Cannot read the parameter definitions of site 'S1' (DAHS 13); 1, no such "
                                      "table: PIDDef"));
}

}  // namespace
}  // namespace quelm
