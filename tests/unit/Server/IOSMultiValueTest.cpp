// Multi-value channels: joining the blocks that an IOS6 I/O server publishes, and what is said about unreadable ones.

#include <gmock/gmock.h>

#include <limits>

#include "Fakes.h"
#include "OPC/OPC DA Server/IOSSimpleManager.h"

namespace quelm {
namespace {

using fakes::Lines;
using fakes::record;
using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;
using Blocks = std::vector<std::pair<std::int32_t, std::string>>;  // channel ID and XML

struct Manager : IOSSimpleManager {
    using IOSSimpleManager::mlngIOS5Elapsed;
    using IOSSimpleManager::mlngIOS6Elapsed;
};

class MultiValue : public testing::Test {
 protected:
    MultiValue() {
        manager.Initialize(&messages, *clock, dbil, "A");
        manager.EnableReadingCurrentIO();
    }
    void publish(const Blocks& blocks) {
        std::vector<CurrentIORecord> records{record("C700", Variant(1.0))};
        for (const auto& [id, xml] : blocks) {
            records.push_back(record(fmt::format("MultiValueC{}", id), Variant::null(), xml));
        }
        dbil->setSnapshot(std::move(records));
        clock->fire("IOSManager: read CurrentIO");
        messages.take();
    }
    Variant read(std::int32_t blocks = 0, std::int32_t length = 0, std::int32_t pid = 101001234) {
        return manager.GetMultiValueChannelCSV(700, pid, blocks, length);
    }

    ManualTimeSource time{makeDate(2026, 11, 16, 8, 0, 0)};
    ScopedTimeSource inForce{time};
    fakes::Journal journal;
    fakes::Messages messages;
    std::shared_ptr<fakes::Clock> clock = std::make_shared<fakes::Clock>(journal);
    std::shared_ptr<fakes::DBIL> dbil = std::make_shared<fakes::DBIL>(journal);
    Manager manager;
};

TEST_F(MultiValue, JoinsAndSplits) {
    struct Case {
        const char* name;
        Blocks blocks;
        std::int32_t count;
        std::int32_t length;
        std::optional<Texts> values;  // nothing = Empty
    };
    const Case cases[] = {
        {"one block", {{700, "<CSV>1.5;2.5;3.5</CSV>"}}, 1, 0, Texts{"1.5", "2.5", "3.5"}},
        {"own separator", {{700, "<CSV separator=','>a,b;c</CSV>"}}, 1, 0, Texts{"a", "b;c"}},
        {"empty separator", {{700, "<CSV separator=''>a;b</CSV>"}}, 1, 0, Texts{"a", "b"}},
        {"blank separator", {{700, "<CSV separator=' '>a b;c</CSV>"}}, 1, 0, Texts{"a b", "c"}},
        {"long separator", {{700, "<CSV separator='aA'>1aA2aa3AA4</CSV>"}}, 1, 0, Texts{"1", "2aa3AA4"}},
        {"separator that overlaps itself", {{700, "<CSV separator='--'>1---2</CSV>"}}, 1, 0, Texts{"1", "-2"}},
        {"two blocks", {{700, "<CSV>1;2</CSV>"}, {710, "<CSV>3</CSV>"}}, 2, 10, Texts{"1", "2", "3"}},
        {"blocks backwards", {{700, "<CSV>1</CSV>"}, {690, "<CSV>2</CSV>"}}, 2, -10, Texts{"1", "2"}},
        {"the same block thrice", {{700, "<CSV>1</CSV>"}}, 3, 0, Texts{"1", "1", "1"}},
        {"second block missing", {{700, "<CSV>1</CSV>"}}, 2, 10, std::nullopt},
        {"second of three missing", {{700, "<CSV>1</CSV>"}, {720, "<CSV>3</CSV>"}}, 3, 10, std::nullopt},
        {"no block", {}, 1, 0, std::nullopt},
        {"no blocks asked", {{700, "<CSV>1</CSV>"}}, 0, 10, Texts{"1"}},
        {"fewer than none asked", {{700, "<CSV>1</CSV>"}}, -5, 10, Texts{"1"}},
        {"line breaks between", {{700, "<CSV>1;\r\n2;\n3\r;4</CSV>"}}, 1, 0, Texts{"1", "2", "3", "4"}},
        {"line break alone", {{700, "<CSV>1\r\n2</CSV>"}}, 1, 0, Texts{"12"}},
        {"escaped line breaks", {{700, "<CSV>1&#13;&#10;2</CSV>"}}, 1, 0, Texts{"12"}},
        {"empty pieces", {{700, "<CSV>1;;3;</CSV>"}}, 1, 0, Texts{"1", "", "3", ""}},
        {"separator alone", {{700, "<CSV>;</CSV>"}}, 1, 0, Texts{"", ""}},
        {"blanks around", {{700, "<CSV>  1 ; 2  </CSV>"}}, 1, 0, Texts{"1 ", " 2"}},
        {"no text", {{700, "<CSV></CSV>"}}, 1, 0, std::nullopt},
        {"white space only", {{700, "<CSV> \r\n </CSV>"}}, 1, 0, std::nullopt},
        {"two blocks without text", {{700, "<CSV/>"}, {701, "<CSV/>"}}, 2, 1, Texts{"", ""}},
        {"nested elements", {{700, "<CSV>1<x>;2</x><CSV>;3</CSV></CSV>"}}, 1, 0, Texts{"1", "2", "3"}},
        {"markup in a value", {{700, "<CSV>&lt;a&gt;;<![CDATA[b&c]]></CSV>"}}, 1, 0, Texts{"<a>", "b&c"}},
        {"others beside it", {{700, "<Unit>t</Unit>text<CSV>1</CSV>"}}, 1, 0, Texts{"1"}},
        // The join takes the separator as it is then, the split the last one.
        {"separator changes",
         {{700, "<CSV separator=','>1,2</CSV>"}, {701, "<CSV separator='|'>3|4</CSV>"}},
         2,
         1,
         Texts{"1,2", "3", "4"}},
        {"separator stays in force",
         {{700, "<CSV separator=','>1,2</CSV>"}, {701, "<CSV>3;4</CSV>"}},
         2,
         1,
         Texts{"1", "2", "3;4"}},
        {"separator of the middle block",
         {{700, "<CSV>1;2</CSV>"}, {701, "<CSV separator=','>3</CSV>"}, {702, "<CSV separator=';'>4</CSV>"}},
         3,
         1,
         Texts{"1", "2,3", "4"}},
        // Line breaks leave the joined text, those of the separator too, so that it is found nowhere.
        {"separator with a line break",
         {{700, "<CSV separator='a&#10;b'>1</CSV>"}, {701, "<CSV>2</CSV>"}},
         2,
         1,
         Texts{"1ab2"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        publish(c.blocks);
        const Variant values = read(c.count, c.length);
        EXPECT_EQ(values, c.values ? Variant(*c.values) : Variant());
        EXPECT_THAT(messages.take(), IsEmpty());
    }
}

TEST_F(MultiValue, TellsWhichBlockIsUnreadableAndWhy) {
    const std::string good = "<CSV>1</CSV>";
    const std::string where = "for channel 710 (PID=1-010-0-12-34)";
    struct Case {
        const char* name;
        std::string second;
        Variant values;
        Lines messages;
    };
    const Case cases[] = {
        {"no XML",
         "",
         Variant(),
         {"20484 OPC-0159: Can't process multi-value channel data; can't find XML data " + where}},
        {"not XML",
         "<CSV>1",
         Variant(),
         {"4 XMLDOM-0001: Cannot parse XML document; <Z76335016_A23E_E011_A164_0019B97C8595><...",
          "4 XMLDOM-0005: Cannot parse XML fragment; <CSV>1",
          "20484 OPC-0160: Can't process multi-value channel data; can't parse XML data " + where}},
        {"no CSV",
         "1;2",
         Variant(),
         {"20484 OPC-0161: Can't process multi-value channel data; did not find a 'CSV' node " + where}},
        {"CSV too deep",
         "<a><CSV>1</CSV></a><csv/>",
         Variant(),
         {"20484 OPC-0161: Can't process multi-value channel data; did not find a 'CSV' node " + where}},
        {"two CSV",
         "<CSV separator=','>2,3</CSV><CSV separator='x'>4</CSV>",
         Variant(Texts{"1", "2", "3"}),
         {"20484 OPC-0162: Error processing multi-value channel data; found 2 'CSV' nodes but expected 1 node for "
          "channel 710; will process the first 'CSV' node only (PID=1-010-0-12-34)"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        publish({{700, good}, {710, c.second}});
        for (int again = 0; again < 2; ++again) {
            EXPECT_EQ(read(2, 10), c.values);
            EXPECT_EQ(messages.take(), c.messages);
        }
    }
    publish({{700, ""}});
    read(1, 0, 5);
    EXPECT_THAT(messages.take(), ElementsAre("20484 OPC-0159: Can't process multi-value channel data; can't find XML "
                                             "data for channel 700 (PID=)"));
}

TEST_F(MultiValue, FailsWhenTheChannelIDOverflows) {
    constexpr std::int32_t last = std::numeric_limits<std::int32_t>::max();
    const std::string overflow = "4 OPC-0163: 6, Overflow";
    publish({{700, "<CSV>1</CSV>"}, {last, "<CSV>2</CSV>"}, {-last, "<CSV>3</CSV>"}});
    EXPECT_EQ(read(2, last - 700), Variant());  // behind the last block too
    EXPECT_THAT(messages.take(), ElementsAre(overflow));
    EXPECT_EQ(manager.GetMultiValueChannelCSV(-last, 0, 2, -2), Variant());
    EXPECT_THAT(messages.take(), ElementsAre(overflow));
    EXPECT_EQ(manager.GetMultiValueChannelCSV(last, 0), Variant(Texts{"2"}));
    EXPECT_THAT(messages.take(), IsEmpty());
}

TEST_F(MultiValue, GoesByTheSilenceOfIOS5Alone) {
    publish({{700, "<CSV>1</CSV>"}, {701, "no XML <"}});
    const Variant values(Texts{"1"});
    manager.mlngIOS6Elapsed = 60;
    EXPECT_EQ(read(), values);
    manager.mlngIOS5Elapsed = 45;
    EXPECT_EQ(read(), values);
    manager.mlngIOS5Elapsed = 46;
    manager.mlngIOS6Elapsed = 0;
    EXPECT_TRUE(read().isEmpty());
    EXPECT_TRUE(read(2, 1).isEmpty());
    EXPECT_THAT(messages.take(), IsEmpty());
}

TEST_F(MultiValue, HasNothingBeforeTheFirstRead) {
    EXPECT_TRUE(read(3, 1).isEmpty());
    EXPECT_THAT(messages.take(), IsEmpty());
}

}  // namespace
}  // namespace quelm
