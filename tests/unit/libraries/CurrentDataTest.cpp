// The current-data reader and the data interface over libraries that fail when they are told to.

#include <gmock/gmock.h>

#include "Clock Library/Clock.h"
#include "CurrentData Reader/CurrentDataReader.h"
#include "Data Interface/DataInterface.h"
#include "loop/VirtualLoop.h"
#include "server/LibraryFakes.h"

namespace quelm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CurrentDataReaderTest : public testing::Test, protected fakes::World, protected ICDRReferences {
 protected:
    CurrentDataReaderTest() { reader.Initialize(messages, *this, 15); }

    std::int32_t ICDRReferences_FirstDayOfWeek() const override { return 0; }
    IClock& ICDRReferences_Intervals() const override { return realClock; }
    IRealtimeDB& ICDRReferences_RealtimeDB() const override { return *dbil; }
    bool ICDRReferences_SelectedDahsIsRemote() const override { return true; }
    Date ICDRReferences_SelectedDahsNow() const override { return localNow(); }
    const std::string& ICDRReferences_SiteID() const override { return siteID; }

    void add(std::int32_t pid, const char* intervalType, double value) {
        dbil->parameterValues.push_back({{Variant(value), Variant()}, pid, intervalType});
    }
    void advanceSeconds(int seconds) {
        for (int i = 0; i < seconds; ++i) {
            time.advanceMilliseconds(1000);
            loop.advance(1000);
        }
    }
    Variant valueOf(std::int32_t pid, const char* intervalType) const {
        const CurrentValueRecord* record = reader.CurrentValue(pid, intervalType);
        return record == nullptr ? Variant() : record->Value;
    }

    std::string siteID = "S1";
    VirtualLoop loop;
    mutable Clock realClock{loop};
    CurrentDataReader reader;
};

TEST_F(CurrentDataReaderTest, ReadsAtOnceAndThenOnEveryPeriod) {
    time.advanceMilliseconds(1000);
    add(5, "1H", 1);
    EXPECT_TRUE(valueOf(5, "1H").isEmpty());
    reader.Start();
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    dbil->parameterValues[0].Value = Variant(2.0);
    advanceSeconds(13);
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    advanceSeconds(1);
    EXPECT_EQ(valueOf(5, "1H"), Variant(2.0));
    reader.Stop();
    EXPECT_TRUE(valueOf(5, "1H").isEmpty());
    advanceSeconds(60);
    EXPECT_EQ(dbil->reads, 2);
}

TEST_F(CurrentDataReaderTest, FindsEachParameterAndIntervalType) {
    add(5, "1H", 1);
    add(6, "1H", 2);
    add(5, "1D", 3);
    add(5, "1H", 4);
    add(5, "", 5);
    reader.Start();
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    EXPECT_EQ(valueOf(5, "1D"), Variant(3.0));
    EXPECT_EQ(valueOf(5, ""), Variant(5.0));
    EXPECT_EQ(valueOf(6, "1H"), Variant(2.0));
    EXPECT_TRUE(valueOf(6, "1D").isEmpty());
    EXPECT_TRUE(valueOf(7, "1H").isEmpty());

    dbil->parameterValues.erase(dbil->parameterValues.begin());
    advanceSeconds(15);
    EXPECT_EQ(valueOf(5, "1H"), Variant(4.0));
    EXPECT_EQ(valueOf(6, "1H"), Variant(2.0));
}

TEST_F(CurrentDataReaderTest, WithdrawsItsValuesAfterThreeMissedRefreshes) {
    add(5, "1H", 1);
    reader.Start();
    dbil->readFailure = RuntimeError(5, "database is locked");
    advanceSeconds(30);
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    advanceSeconds(30);
    EXPECT_TRUE(valueOf(5, "1H").isEmpty());
    const std::string failed = "4 Cannot read the current parameter values of site 'S1'; 5, database is locked";
    const std::string withdrawn = failed + "; the last values are too old and no longer published";
    EXPECT_THAT(messages.take(), ElementsAre(failed, failed, withdrawn, withdrawn));
    dbil->readFailure.reset();
    advanceSeconds(15);
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0));
    EXPECT_THAT(messages.take(), IsEmpty());
    dbil->readFailure = RuntimeError(5, "database is locked");
    advanceSeconds(30);
    EXPECT_EQ(valueOf(5, "1H"), Variant(1.0)) << "the count began anew";
}

TEST(DataInterfaceTest, HoldsDefinitionsFromLoadToTearDownOrToALoadThatFails) {
    fakes::Journal journal;
    fakes::DBIL library(journal);
    library.pidDefinitions = {{5, "1H", "NOx"}, {6, "", ""}, {5, "1D", ""}};
    fakes::Messages messages;
    DataInterface data(library, "S1");
    data.OnMessage([&](std::int32_t type, std::string_view text) { messages.RaiseMsg(type, text); });
    ASSERT_TRUE(data.Load(12, true, false));
    EXPECT_FALSE(data.PIDDefinitions().IsDefined(7));
    EXPECT_EQ(data.PIDDefinitions().IntervalType(5, true), "1H");
    EXPECT_EQ(data.PIDDefinitions().IntervalType(6, true), "");
    EXPECT_THROW(data.PIDDefinitions().IntervalType(7, true), RuntimeError);
    EXPECT_EQ(data.PIDDefinitions().Name(5), "NOx");
    EXPECT_EQ(data.FirstDayOfWeek(), 3);
    data.TearDown();
    EXPECT_FALSE(data.PIDDefinitions().IsDefined(5));
    EXPECT_EQ(data.FirstDayOfWeek(), 0);

    ASSERT_TRUE(data.Load(12, true, false));
    library.definitionsFailure = RuntimeError(1, "no such table: PIDDef");
    EXPECT_FALSE(data.Load(13, true, false));
    EXPECT_FALSE(data.PIDDefinitions().IsDefined(5));
    EXPECT_THAT(messages.lines,
                ElementsAre("4 Cannot read the parameter definitions of site 'S1' (DAHS 13); 1, no such "
                            "table: PIDDef"));
}

}  // namespace
}  // namespace quelm
