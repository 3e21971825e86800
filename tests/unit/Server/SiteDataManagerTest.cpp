#include "OPC/OPC DA Server/SiteDataManager.h"

#include <gmock/gmock.h>

#include "Fakes.h"

namespace quelm {
namespace {

using fakes::definition;
using fakes::Lines;
using fakes::record;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t pid = 101001234;
constexpr const char* pidText = "1-010-0-12-34";

struct Definition {
    std::string id = "[@7]";
    std::int32_t dataType = 1;
    Variant nullValue = Variant::null();
    bool downIsValid = true;
    bool useSubstatus = false;
    Variant refreshRate = Variant(std::int32_t{1});
    bool write = false;
    std::string name = "T";

    OPCDef make() const {
        OPCDef::Columns columns;
        columns.Tagname = Variant(name);
        columns.ID = Variant(id);
        columns.TagType = Variant(std::int32_t{1});
        columns.DataType = Variant(dataType);
        columns.Write = Variant(write);
        columns.NullValue = nullValue;
        columns.DownIsValid = Variant(downIsValid);
        columns.UseSubstatus = Variant(useSubstatus);
        columns.RefreshRate = refreshRate;
        return OPCDef(std::move(columns));
    }
};

class Site {
 public:
    Site() {
        setUp.intervalTypesByPID = {{pid, "1h"}, {101001235, ""}, {101001236, "minute"}};
        EXPECT_TRUE(manager.Initialize(&messages, clock, dbil, "A", 3));
        messages.take();
        journal.take();
    }
    bool create(const Definition& definition) { return manager.CreateTag(tags, definition.make()); }
    // The pass over the only tag.
    fakes::SlikTag& update() {
        clock->fire("IOSManager: read CurrentIO");
        messages.take();
        manager.UpdateTagValues();
        return tags.tags.front();
    }

    ManualTimeSource time{makeDate(2026, 11, 16, 8, 0, 5)};
    ScopedTimeSource inForce{time};
    fakes::Journal journal;
    fakes::Messages messages;
    std::shared_ptr<fakes::Clock> clock = std::make_shared<fakes::Clock>(journal);
    std::shared_ptr<fakes::DBIL> dbil = std::make_shared<fakes::DBIL>(journal);
    fakes::SiteSetUp setUp;
    fakes::SlikTags tags;
    SiteDataManager manager{
        SiteParts{[this](IDBIL&, std::string_view) { return std::make_unique<fakes::DataInterface>(journal, setUp); },
                  [this] { return std::make_unique<fakes::CurrentDataReader>(journal, setUp); }}};
};

// ---- creation

TEST(CreateTag, ReportsWhatIsWrongWithADefinitionInFull) {
    const std::string noChannel = "4 [OPC-0139] Cannot determine Quelm PID or I/O Channel ID (Tag=T)";
    const std::string noWrites =
        "4 [OPC-0140] This application does not support OPC writes; any writes will be ignored (Tag=T)";
    struct Case {
        const char* name;
        Definition definition;
        bool created;
        Lines messages;
        std::size_t items;
    };
    const Case cases[] = {
        {"channel", {.id = "[@1234]"}, true, {}, 1},
        {"channel and monitor code", {.id = "[@1234];[@1235]"}, true, {}, 1},
        {"unusable monitor code",
         {.id = "[@1234];1235"},
         true,
         {"4 [OPC-0138] Cannot determine Quelm I/O Channel ID for monitor code (Tag=T)"},
         1},
        {"neither", {.id = "1234"}, false, {noChannel}, 0},
        {"PID", {.id = pidText}, true, {}, 1},
        {"bracketed PID digits", {.id = "[@101001234]"}, true, {}, 1},
        {"undefined PID, writable",
         {.id = "1-010-0-12-99", .write = true},
         false,
         {"4 [OPC-0211] Quelm PID '1-010-0-12-99' does not exist; cannot create OPC tag (Tag=T)", noWrites},
         0},
        {"PID without interval type",
         {.id = "1-010-0-12-35"},
         false,
         {"4 [OPC-0222] Could not find interval type for PID '1-010-0-12-35'; cannot create OPC tag (Tag=T)"},
         0},
        {"writable", {.write = true}, true, {noWrites}, 1},
        {"nothing at all, writable", {.id = "", .write = true}, false, {noChannel, noWrites}, 0},
        {"no refresh rate", {.id = "1234", .refreshRate = Variant(std::int32_t{0})}, false, {}, 0},
        {"refresh rate Null",
         {.refreshRate = Variant::null()},
         false,
         {"4 [OPC-0141] Could not initialize OPC tag 'T'; 94, Invalid use of Null"},
         0},
        {"unknown data type", {.dataType = 6}, true, {"4 [OPC-0206] Could not initialize OPC tag 'T' value; 0, "}, 1},
        {"date without default",
         {.dataType = 5},
         true,
         {"4 [OPC-0206] Could not initialize OPC tag 'T' value; 0, "},
         1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Site site;
        EXPECT_EQ(site.create(c.definition), c.created);
        EXPECT_EQ(site.messages.lines, c.messages);
        EXPECT_EQ(site.tags.Count(), c.items);
    }
}

TEST(CreateTag, StartsItemsReadOnlyWithCommunicationFailure) {
    struct Case {
        std::int32_t dataType;
        Variant nullValue, value;
    };
    for (const Case& c :
         {Case{1, Variant(9.0), Variant(0.0F)}, Case{2, Variant::null(), Variant(std::int32_t{0})},
          Case{3, Variant("n/a"), Variant("")}, Case{4, Variant::null(), Variant(false)},
          Case{5, Variant(makeDate(2026, 1, 1)), Variant(makeDate(2026, 1, 1))}, Case{7, Variant(1.0), Variant()}}) {
        SCOPED_TRACE(c.dataType);
        Site site;
        EXPECT_TRUE(site.create({.dataType = c.dataType, .nullValue = c.nullValue}));
        const fakes::SlikTag& tag = site.tags.Item("T");
        EXPECT_EQ(tag.value, c.value);
        EXPECT_EQ(tag.quality, 0x18);
        EXPECT_EQ(tag.stamp, localNow());
        EXPECT_EQ(site.tags.accessRights, std::vector<std::int32_t>{1});
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

TEST(CreateTag, OutlivesAFailureOfTheDataInterface) {
    Site site;
    site.setUp.definitionsFailure = RuntimeError(5, "lost");
    EXPECT_FALSE(site.create({.id = pidText}));
    EXPECT_THAT(site.messages.lines, ElementsAre("4 [OPC-0141] Could not initialize OPC tag 'T'; 5, lost"));
}

// ---- the end of creation, tear-down, answers

TEST(FinishTagCreation, StartsOnlyWhatItsTagsAreFedFrom) {
    struct Case {
        std::vector<Definition> definitions;
        Lines messages, journal;
        int reads;
    };
    const Case cases[] = {
        {{},
         {"1 [OPC-0219] Tearing down DI for A", "1 [OPC-0217] ========== 0 OPC tags from Quelm tags for A",
          "1 [OPC-0218] ========== 0 OPC tags from I/O channels for A"},
         {"di: tear down"},
         0},
        {{{.id = "[@123456];[@12]", .name = "C"}},
         {"1 [OPC-0219] Tearing down DI for A", "1 [OPC-0217] ========== 0 OPC tags from Quelm tags for A",
          "1 [OPC-0218] ========== 1 OPC tags from I/O channels for A", "1      123456        12  C"},
         {"di: tear down"},
         1},
        {{{.id = pidText, .name = "P"}, {.id = "1-010-0-12-36", .name = "Q"}},
         {"1 [OPC-0219] Tearing down DI for A", "1 [OPC-0217] ========== 2 OPC tags from Quelm tags for A",
          "1   1-010-0-12-34 1h    P", "1   1-010-0-12-36 minu  Q",
          "1 [OPC-0218] ========== 0 OPC tags from I/O channels for A"},
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
        EXPECT_EQ(site.messages.lines, c.messages);
        EXPECT_EQ(site.journal.lines, c.journal);
        site.clock->fire("IOSManager: read CurrentIO");
        EXPECT_EQ(site.dbil->reads, c.reads);
    }
}

TEST(SiteDataManager, AnswersTheReaderAndShutsDownInOrder) {
    Site site;
    ASSERT_EQ(site.setUp.references, &site.manager);
    EXPECT_EQ(site.setUp.readerPeriod, 15);
    EXPECT_EQ(&site.manager.ICDRReferences_Intervals(), site.clock.get());
    EXPECT_EQ(&site.manager.ICDRReferences_RealtimeDB(), site.dbil.get());
    EXPECT_TRUE(site.manager.ICDRReferences_SelectedDahsIsRemote());
    EXPECT_EQ(site.manager.ICDRReferences_SelectedDahsNow(), localNow());
    EXPECT_EQ(site.manager.ICDRReferences_SiteID(), "A");
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

struct PidCase {
    const char* name;
    std::optional<CurrentValueRecord> record;
    Definition definition;
    Variant value;
    int quality;
};

TEST(UpdateTagValues, GivesAParameterItsValueAndItsMonitorCodesQuality) {
    const auto code = [](std::int32_t number) { return Variant(number); };
    const PidCase cases[] = {
        {"nothing", std::nullopt, {}, Variant(), 0x00},
        {"good", {{Variant(12.5), code(0)}}, {}, Variant(12.5F), 0xC0},
        {"down, valid", {{Variant(12.5), code(60)}}, {}, Variant(12.5F), 0x80C0},
        {"down, invalid", {{Variant(12.5), code(60)}}, {.downIsValid = false}, Variant(12.5F), 0x8000},
        {"down, sub-status", {{Variant(12.5), code(23)}}, {.useSubstatus = true}, Variant(12.5F), 0x8044},
        {"unranked code", {{Variant(12.5), code(5)}}, {}, Variant(12.5F), 0x00},
        {"unknown code, sub-status", {{Variant(12.5), code(99)}}, {.useSubstatus = true}, Variant(12.5F), 0x00},
        {"code as text", {{Variant(12.5), Variant("22")}}, {.useSubstatus = true}, Variant(12.5F), 0x18},
        {"Empty code", {{Variant(12.5), Variant()}}, {}, Variant(12.5F), 0xC0},
        {"no code, number", {{Variant(3.0), Variant::null()}}, {}, Variant(3.0F), 0xC0},
        {"no code, default",
         {
             {Variant::null(), Variant::null()},
         },
         {.nullValue = Variant(7.0)},
         Variant(7.0F),
         0x00},
        {"code, default", {{Variant::null(), code(0)}}, {.nullValue = Variant(7.0)}, Variant(7.0F), 0xC0},
        {"no conversion", {{Variant("abc"), code(0)}}, {}, Variant(0.0F), 0x00},
        {"text item", {{Variant("abc"), code(0)}}, {.dataType = 3}, Variant("abc"), 0xC0},
        {"text item, no code", {{Variant("abc"), Variant("?")}}, {.dataType = 3}, Variant("abc"), 0x00},
    };
    for (const PidCase& c : cases) {
        SCOPED_TRACE(c.name);
        Site site;
        Definition definition = c.definition;
        definition.id = pidText;
        ASSERT_TRUE(site.create(definition));
        if (c.record) {
            site.setUp.valuesByPID[pid] = *c.record;
        }
        site.time.advanceMilliseconds(20000);
        const fakes::SlikTag& tag = site.update();
        EXPECT_EQ(tag.value, c.value);
        EXPECT_EQ(tag.quality, static_cast<std::int16_t>(c.quality));
        EXPECT_EQ(tag.stamp, localNow());
        EXPECT_THAT(site.messages.lines, IsEmpty());
    }
}

struct ChannelCase {
    const char* name;
    Variant channelValue, codeValue;
    Definition definition;
    Variant value;
    int quality;
};

TEST(UpdateTagValues, GivesAChannelItsValueAndItsMonitorCodeChannelsQuality) {
    const auto code = [](std::int32_t number) { return Variant(number); };
    const Variant none = Variant::null();
    const Definition coded{.id = "[@7];[@8]"};
    const Definition sub{.id = "[@7];[@8]", .useSubstatus = true};
    const ChannelCase cases[] = {
        {"without code channel", Variant(12.5), none, {}, Variant(12.5F), 0xC0},
        {"good", Variant(12.5), code(0), coded, Variant(12.5F), 0xC0},
        {"code channel silent", Variant(12.5), none, coded, Variant(12.5F), 0x40},
        {"code is text", Variant(12.5), Variant("bad"), coded, Variant(12.5F), 0x40},
        {"unranked", Variant(12.5), code(5), coded, Variant(12.5F), 0x00},
        {"out of range", Variant(12.5), code(85), sub, Variant(12.5F), 0x00},
        {"sub-status", Variant(12.5), code(14), sub, Variant(12.5F), 0x50},
        {"no sub-status", Variant(12.5), code(14), coded, Variant(12.5F), 0x00},
        {"down", Variant(12.5), code(60), coded, Variant(12.5F), 0x80C0},
        {"Empty counts as 0", Variant(), code(0), coded, Variant(0.0F), 0xC0},
        {"no value", none, code(0), coded, Variant(0.0F), 0x00},
        {"default", none, none, {.nullValue = Variant(7.0)}, Variant(7.0F), 0xC0},
        {"text item", Variant("abc"), none, {.dataType = 3}, Variant("abc"), 0x00},
        {"text item that reads as a number",
         Variant("12"),
         code(0),
         {.id = "[@7];[@8]", .dataType = 3},
         Variant("12"),
         0x00},
        {"whole number", Variant(2.5), none, {.dataType = 2}, Variant(std::int32_t{2}), 0xC0},
        {"Boolean", Variant(0.1), none, {.dataType = 4}, Variant(true), 0xC0},
        {"unknown type", Variant(1.0), none, {.dataType = 9}, Variant(std::int16_t{0}), 0x00},
    };
    for (const ChannelCase& c : cases) {
        SCOPED_TRACE(c.name);
        Site site;
        ASSERT_TRUE(site.create(c.definition));
        site.manager.FinishTagCreation();
        site.dbil->setSnapshot({record("C7", c.channelValue), record("C8", c.codeValue)});
        const fakes::SlikTag& tag = site.update();
        EXPECT_EQ(tag.value, c.value);
        EXPECT_EQ(tag.quality, static_cast<std::int16_t>(c.quality));
        EXPECT_THAT(site.messages.lines, IsEmpty());
    }
}

TEST(UpdateTagValues, LosesOnlyTheTagThatFails) {
    Site site;
    for (const char* name : {"P", "Q"}) {
        ASSERT_TRUE(site.create({.id = name[0] == 'P' ? pidText : "1-010-0-12-36", .dataType = 2, .name = name}));
    }
    for (const char* name : {"C", "D", "E"}) {
        ASSERT_TRUE(site.create({.id = name[0] == 'C' ? "[@7];[@9]" : "[@8]", .dataType = 2, .name = name}));
    }
    site.manager.FinishTagCreation();
    site.setUp.valuesByPID[pid] = {Variant(3e9), Variant(std::int32_t{0})};
    site.setUp.valuesByPID[101001236] = {Variant(4.0), Variant(std::int32_t{0})};
    site.dbil->setSnapshot({record("C7", Variant(3e9)), record("C8", Variant(5.0))});
    site.tags.Item("E").setFailure = RuntimeError(errors::typeMismatch);
    site.update();
    EXPECT_THAT(
        site.messages.lines,
        ElementsAre("4 [OPC-0143] 6, Overflow; Error updating SLIK tag values for A tag 'P' from [1-010-0-12-34]",
                    "4 [OPC-0144] 6, Overflow; Error updating SLIK tag values for A tag 'C' from channel(s) 7, 9",
                    "4 [OPC-0144] 13, Type mismatch; Error updating SLIK tag values for A tag 'E' from channel(s) 8, "
                    "0"));
    EXPECT_EQ(site.tags.Item("P").quality, 0x18);
    EXPECT_EQ(site.tags.Item("Q").value, Variant(std::int32_t{4}));
    EXPECT_EQ(site.tags.Item("D").value, Variant(std::int32_t{5}));
}

}  // namespace
}  // namespace quelm
