#include "OPC/OPC DA Server/SiteDataManager.h"

#include <gmock/gmock.h>

#include "base/Quality.h"
#include "server/Fakes.h"

namespace quelm {
namespace {

using fakes::Definition;
using fakes::Lines;
using fakes::record;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t pid = 101001234;
constexpr const char* pidText = "1-010-0-12-34";

class Site : public fakes::World {
 public:
    Site() {
        setUp.intervalTypesByPID = {{pid, "1h"}, {101001235, ""}, {101001236, "minute"}};
        EXPECT_TRUE(manager.Initialize(&messages, clock, dbil, "A", 3));
        messages.take();
        journal.take();
    }
    bool create(const Definition& definition) { return manager.CreateTag(tags, definition); }
    // The pass over the only tag.
    const ISLIKTag& update() {
        clock->fire("IOSManager: read CurrentIO");
        messages.take();
        manager.UpdateTagValues();
        return tags.at(0);
    }

    fakes::SiteSetUp setUp;
    PlantItems tags;
    SiteDataManager manager{
        SiteParts{[this](IDBIL&, std::string_view) { return std::make_unique<fakes::DataInterface>(journal, setUp); },
                  [this] { return std::make_unique<fakes::CurrentDataReader>(journal, setUp); }}};
};

// ---- creation

TEST(CreateTag, ReportsWhatIsWrongWithADefinitionInFull) {
    const std::string noWrites =
        "4 [OPC-0140] This application does not support OPC writes; any writes will be ignored (Tag=T)";
    struct Case {
        Definition definition;
        bool created;
        Lines messages;
    };
    const Case cases[] = {
        {{.id = "[@1234];1235"}, true, {"4 [OPC-0138] Cannot determine Quelm I/O Channel ID for monitor code (Tag=T)"}},
        {{.id = "1234", .write = true},
         false,
         {"4 [OPC-0139] Cannot determine Quelm PID or I/O Channel ID (Tag=T)", noWrites}},
        {{.id = "1-010-0-12-99", .write = true},
         false,
         {"4 [OPC-0211] Quelm PID '1-010-0-12-99' does not exist; cannot create OPC tag (Tag=T)", noWrites}},
        {{.id = "1-010-0-12-35"},
         false,
         {"4 [OPC-0222] Could not find interval type for PID '1-010-0-12-35'; cannot create OPC tag (Tag=T)"}},
        {{.write = true}, true, {noWrites}},
        {{.id = "1234", .refreshRate = Variant(std::int32_t{0})}, false, {}},
        {{.refreshRate = Variant::null()},
         false,
         {"4 [OPC-0141] Could not initialize OPC tag 'T'; 94, Invalid use of Null"}},
        {{.dataType = 6}, true, {"4 [OPC-0206] Could not initialize OPC tag 'T' value; 0, "}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.messages));
        Site site;
        EXPECT_EQ(site.create(c.definition), c.created);
        EXPECT_EQ(site.messages.lines, c.messages);
        EXPECT_EQ(site.tags.Count(), c.created ? 1U : 0U);
    }
}

TEST(CreateTag, NamesTheTagEvenWhenTheTimeCannotBeHad) {
    struct BrokenTime : ManualTimeSource {
        using ManualTimeSource::ManualTimeSource;
        std::int64_t fileTimeNow() const override { throw RuntimeError(errors::invalidCall, "no clock"); }
    };
    Site site;
    BrokenTime broken{makeDate(2026, 11, 16)};
    const ScopedTimeSource inForce{broken};
    EXPECT_FALSE(site.create({}));
    EXPECT_THAT(site.messages.lines, ElementsAre("4 [OPC-0141] Could not initialize OPC tag 'T'; 5, no clock"));
}

TEST(CreateTag, StartsItemsReadOnlyWithCommunicationFailure) {
    struct Case {
        std::int32_t dataType;
        Variant nullValue, value;
    };
    for (const Case& c :
         {Case{1, Variant(9.0), Variant(0.0F)}, Case{3, Variant("n/a"), Variant("")},
          Case{5, Variant(makeDate(2026, 1, 1)), Variant(makeDate(2026, 1, 1))}, Case{7, Variant(1.0), Variant()}}) {
        SCOPED_TRACE(c.dataType);
        Site site;
        EXPECT_TRUE(site.create({.dataType = c.dataType, .nullValue = c.nullValue}));
        const ISLIKTag& tag = site.tags.Item("T");
        EXPECT_EQ(tag.Value(), c.value);
        EXPECT_EQ(tag.Quality(), 0x18);
        EXPECT_EQ(tag.Timestamp(), localNow());
        EXPECT_EQ(site.tags.shown().at(0).accessRights(), 1);
    }
}

TEST(CreateTag, KeepsWhatTheControlRefusesButNotASecondOfTheSameName) {
    Site site;
    EXPECT_TRUE(site.create({.name = "Tag"}));
    EXPECT_FALSE(site.create({.id = "[@8]", .name = "TAG"}));
    EXPECT_FALSE(site.create({.id = pidText, .name = "tag"}));
    const std::string taken = "457, This key is already associated with an element of this collection";
    EXPECT_THAT(site.messages.take(), ElementsAre("4 [OPC-0141] Could not initialize OPC tag 'TAG'; " + taken,
                                                  "4 [OPC-0207] Could not initialize SLIK server tag 'tag'; " + taken));
    site.manager.FinishTagCreation();
    EXPECT_THAT(
        site.messages.take(),
        ElementsAre("1 [OPC-0219] Tearing down DI for A", "1 [OPC-0217] ========== 1 OPC tags from Quelm tags for A",
                    "1   1-010-0-12-34 1h    tag", "1 [OPC-0218] ========== 1 OPC tags from I/O channels for A",
                    "1           7         0  Tag"));
    for (int pass = 0; pass < 2; ++pass) {
        site.update();
        EXPECT_THAT(site.messages.lines,
                    ElementsAre("4 [OPC-0143] 91, Object variable or With block variable not set; Error updating SLIK "
                                "tag values for A tag 'tag' from [1-010-0-12-34]"));
    }
}

// ---- the end of creation, tear-down, answers

TEST(FinishTagCreation, StartsOnlyWhatItsTagsAreFedFrom) {
    struct Case {
        std::vector<Definition> definitions;
        Lines parameters, channels, journal;
        int reads;
    };
    const Case cases[] = {
        {{}, {}, {}, {"di: tear down"}, 0},
        {{{.id = "[@123456];[@12]", .name = "C"}}, {}, {"1      123456        12  C"}, {"di: tear down"}, 1},
        // Bracketed digits that make a PID are one.
        {{{.id = "[@101001234]", .name = "P"}, {.id = "1-010-0-12-36", .name = "Q"}},
         {"1   1-010-0-12-34 1h    P", "1   1-010-0-12-36 minu  Q"},
         {},
         {"di: tear down", "cdr: start"},
         0},
    };
    for (const Case& c : cases) {
        Site site;
        for (const Definition& d : c.definitions) {
            EXPECT_TRUE(site.create(d));
        }
        EXPECT_EQ(site.manager.ICDRReferences_FirstDayOfWeek(), 2);
        site.manager.FinishTagCreation();
        EXPECT_EQ(site.manager.ICDRReferences_FirstDayOfWeek(), 0);
        Lines expected{"1 [OPC-0219] Tearing down DI for A",
                       fmt::format("1 [OPC-0217] ========== {} OPC tags from Quelm tags for A", c.parameters.size())};
        expected.insert(expected.end(), c.parameters.begin(), c.parameters.end());
        expected.push_back(
            fmt::format("1 [OPC-0218] ========== {} OPC tags from I/O channels for A", c.channels.size()));
        expected.insert(expected.end(), c.channels.begin(), c.channels.end());
        EXPECT_EQ(site.messages.lines, expected);
        EXPECT_EQ(site.journal.lines, c.journal);
        site.clock->fire("IOSManager: read CurrentIO");
        EXPECT_EQ(site.dbil->reads, c.reads);
    }
}

// Also where the names cannot be had: that is said where the definitions decide on values.
TEST(FinishTagCreation, TellsClientsWhatEachItemIsFedFrom) {
    for (const bool isNamed : {true, false}) {
        Site site;
        site.setUp.namesByPID = {{pid, isNamed ? "NOx, hourly" : ""}};
        site.dbil->setChannels({{7, definitiontype::ios6Channel}});
        site.dbil->channelDefsFailure =
            isNamed ? fakes::Failure() : fakes::Failure(RuntimeError(5, "database is locked"));
        EXPECT_TRUE(site.create({.id = pidText, .name = "P"}));
        EXPECT_TRUE(site.create({.id = "[@7];[@8]", .name = "C"}));
        EXPECT_TRUE(site.create({.id = "[@9]", .name = "D"}));
        site.messages.take();
        site.manager.FinishTagCreation();
        EXPECT_EQ(site.messages.lines.size(), 6U);
        std::string told;
        for (const char* name : {"P", "C", "D"}) {
            const SLIKTag& tag = *site.tags.shown().find(name);
            for (std::size_t i = 0; i < tag.detailKinds().size(); ++i) {
                const Variant value = tag.detail(i);
                told += value.isEmpty() ? "" : fmt::format(" {}={}", tag.detailKinds()[i].property, toText(value));
            }
            told += ";";
        }
        EXPECT_EQ(told, isNamed ? " 101=NOx, hourly 5000=101001234 5003=A 5004=1h;"
                                  " 101=Channel 7 5001=7 5002=8 5003=A; 5001=9 5003=A;"
                                : " 5000=101001234 5003=A 5004=1h; 5001=7 5002=8 5003=A; 5001=9 5003=A;");
        site.manager.UpdateTagValues();
        EXPECT_EQ(site.dbil->channelDefLoads, isNamed ? 0 : 1);
    }
}

TEST(SiteDataManager, AnswersTheReaderAndShutsDownInOrder) {
    Site site;
    ASSERT_EQ(site.setUp.references, &site.manager);
    EXPECT_EQ(site.setUp.readerPeriod, 15);
    EXPECT_EQ(&site.manager.ICDRReferences_RealtimeDB(), site.dbil.get());
    EXPECT_TRUE(site.manager.ICDRReferences_SelectedDahsIsRemote());
    site.setUp.raiseDIMessage(17, "from the data interface");
    EXPECT_THAT(site.messages.take(), ElementsAre("17 from the data interface"));
    site.create({});
    site.manager.Shutdown();
    EXPECT_THAT(site.journal.lines,
                ElementsAre("di: tear down", "cdr: stop", "interval 'IOSManager: read CurrentIO': cancel(true)",
                            "dbil: terminate"));
    EXPECT_THROW(site.manager.ICDRReferences_RealtimeDB(), RuntimeError);
    site.manager.UpdateTagValues();
    EXPECT_THAT(site.messages.lines, IsEmpty());
}

// ---- the update pass

// An item fed from a parameter or a channel: what it reads and its monitor code, and what it then shows.
struct Fed {
    const char* name;
    Variant read, code;
    Definition definition;
    Variant value;
    int quality;
};

const Variant null = Variant::null();

Variant code(std::int32_t number) {
    return Variant(number);
}

void check(const ISLIKTag& tag, const Fed& expected) {
    EXPECT_EQ(tag.Value(), expected.value);
    EXPECT_EQ(static_cast<std::uint16_t>(tag.Quality()), expected.quality);
    EXPECT_EQ(tag.Timestamp(), localNow());
}

TEST(UpdateTagValues, GivesAParameterItsValueAndItsMonitorCodesQuality) {
    const Definition withDefault{.nullValue = Variant(7.0)};
    const Fed cases[] = {
        {"down, valid", Variant(12.5), code(60), {}, Variant(12.5F), 0x80C0},
        {"down, invalid", Variant(12.5), code(60), {.downIsValid = false}, Variant(12.5F), 0x8000},
        {"down, sub-status", Variant(12.5), code(23), {.useSubstatus = true}, Variant(12.5F), 0x8044},
        {"unranked code", Variant(12.5), code(5), {}, Variant(12.5F), 0x00},
        {"code as text", Variant(12.5), Variant("22"), {.useSubstatus = true}, Variant(12.5F), 0x18},
        {"Empty code", Variant(12.5), Variant(), {}, Variant(12.5F), quality::good},
        {"no code, number", Variant(3.0), null, {}, Variant(3.0F), quality::good},
        {"no code, default", null, null, withDefault, Variant(7.0F), 0x00},
        {"code, default", null, code(0), withDefault, Variant(7.0F), quality::good},
        {"no conversion", Variant("abc"), code(0), {}, Variant(0.0F), 0x00},
        {"text item", Variant("abc"), code(0), {.dataType = 3}, Variant("abc"), quality::good},
        {"text item, no code", Variant("abc"), Variant("?"), {.dataType = 3}, Variant("abc"), 0x00},
    };
    for (const Fed& c : cases) {
        SCOPED_TRACE(c.name);
        Site site;
        Definition definition = c.definition;
        definition.id = pidText;
        ASSERT_TRUE(site.create(definition));
        site.time.advanceMilliseconds(20000);
        check(site.update(), {"no record yet", {}, {}, {}, Variant(), 0x00});
        site.setUp.valuesByPID[pid] = {c.read, c.code};
        site.time.advanceMilliseconds(20000);
        check(site.update(), c);
        EXPECT_THAT(site.messages.lines, IsEmpty());
    }
}

TEST(UpdateTagValues, GivesAChannelItsValueAndItsMonitorCodeChannelsQuality) {
    const Definition coded{.id = "[@7];[@8]"};
    const Definition sub{.id = "[@7];[@8]", .useSubstatus = true};
    const Definition codedText{.id = "[@7];[@8]", .dataType = 3};
    const Fed cases[] = {
        {"without code channel", Variant(12.5), null, {}, Variant(12.5F), quality::good},
        {"code channel silent", Variant(12.5), null, coded, Variant(12.5F), 0x40},
        {"code is text", Variant(12.5), Variant("bad"), coded, Variant(12.5F), 0x40},
        {"unranked", Variant(12.5), code(5), coded, Variant(12.5F), 0x00},
        {"sub-status", Variant(12.5), code(14), sub, Variant(12.5F), 0x50},
        {"down", Variant(12.5), code(60), coded, Variant(12.5F), 0x80C0},
        {"beyond 32 bits", Variant(12.5), Variant(3e9), coded, Variant(12.5F), 0x00},
        {"beyond 32 bits as text", Variant(12.5), Variant("-4294967296"), coded, Variant(12.5F), 0x00},
        {"halfway between good codes", Variant(12.5), Variant(84.5), coded, Variant(12.5F), quality::good},
        {"Empty counts as 0", Variant(), code(0), coded, Variant(0.0F), quality::good},
        {"no value", null, code(0), coded, Variant(0.0F), 0x00},
        {"default", null, null, {.nullValue = Variant(7.0)}, Variant(7.0F), quality::good},
        {"text item that reads as a number", Variant("12"), code(0), codedText, Variant("12"), 0x00},
        {"Boolean", Variant(0.1), null, {.dataType = 4}, Variant(true), quality::good},
        {"unknown type", Variant(1.0), null, {.dataType = 9}, Variant(std::int16_t{0}), 0x00},
    };
    for (const Fed& c : cases) {
        SCOPED_TRACE(c.name);
        Site site;
        ASSERT_TRUE(site.create(c.definition));
        site.manager.FinishTagCreation();
        site.dbil->setSnapshot({record("C7", c.read), record("C8", c.code)});
        check(site.update(), c);
        EXPECT_THAT(site.messages.lines, IsEmpty());
    }
}

TEST(UpdateTagValues, LosesOnlyTheTagThatFails) {
    Site site;
    for (const Definition& d : {Definition{.id = pidText, .name = "P", .dataType = 2},
                                {.id = "1-010-0-12-36", .name = "Q", .dataType = 2},
                                {.id = "[@7];[@9]", .name = "C", .dataType = 2},
                                {.id = "[@8]", .name = "D", .dataType = 2}}) {
        ASSERT_TRUE(site.create(d));
    }
    site.manager.FinishTagCreation();
    site.setUp.valuesByPID[pid] = {Variant(3e9), code(0)};
    site.setUp.valuesByPID[101001236] = {Variant(4.0), code(0)};
    site.dbil->setSnapshot({record("C7", Variant(3e9)), record("C8", Variant(5.0))});
    EXPECT_EQ(site.update().Quality(), 0x18);
    EXPECT_THAT(
        site.messages.lines,
        ElementsAre("4 [OPC-0143] 6, Overflow; Error updating SLIK tag values for A tag 'P' from [1-010-0-12-34]",
                    "4 [OPC-0144] 6, Overflow; Error updating SLIK tag values for A tag 'C' from channel(s) 7, 9"));
    EXPECT_EQ(site.tags.Item("Q").Value(), Variant(std::int32_t{4}));
    EXPECT_EQ(site.tags.Item("D").Value(), Variant(std::int32_t{5}));
}

}  // namespace
}  // namespace quelm
