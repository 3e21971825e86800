// Multi-value channels: joining the blocks that an IOS6 I/O server publishes, and what is said about unreadable ones.

#include <limits>

#include "server/LinkFixture.h"

namespace quelm {
namespace {

using fakes::Lines;
using fakes::record;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

class MultiValue : public fakes::LinkFixture {
 protected:
    // Blocks of channel 700, ten channel IDs apart, beside other records.
    void publish(const Texts& blocks, std::int32_t secondsGone = 20, std::vector<CurrentIORecord> records = {}) {
        records.push_back(record("C700", Variant(1.0)));
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            records.push_back(record(fmt::format("MultiValueC{}", 700 + 10 * i), Variant::null(), blocks[i]));
        }
        tickAfter(secondsGone, std::move(records));
    }
    Variant read(std::size_t blocks) {
        return manager.GetMultiValueChannelCSV(700, 101001234, static_cast<std::int32_t>(blocks), 10);
    }
};

TEST_F(MultiValue, JoinsAndSplits) {
    struct Case {
        Texts blocks;
        std::optional<Texts> values;  // nothing = Empty
    };
    const Case cases[] = {
        {{"<CSV>1.5;2.5;3.5</CSV>"}, Texts{"1.5", "2.5", "3.5"}},
        {{"<CSV separator=','>a,b;c</CSV>"}, Texts{"a", "b;c"}},
        {{"<CSV separator=' '>a b;c</CSV>"}, Texts{"a b", "c"}},  // nothing but a blank is none
        {{"<CSV separator='aA'>1aA2aa3AA4</CSV>"}, Texts{"1", "2aa3AA4"}},
        {{"<CSV>1;2</CSV>", "<CSV>3</CSV>"}, Texts{"1", "2", "3"}},
        {{}, std::nullopt},
        {{"<CSV>1;\r\n2;\n3\r;4</CSV>"}, Texts{"1", "2", "3", "4"}},
        {{"<CSV>1\r\n2</CSV>"}, Texts{"12"}},
        {{"<CSV>1;;3;</CSV>"}, Texts{"1", "", "3", ""}},
        {{"<CSV>  1 ; 2  </CSV>"}, Texts{"1 ", " 2"}},
        {{"<CSV></CSV>"}, std::nullopt},
        {{"<CSV/>", "<CSV/>"}, Texts{"", ""}},
        {{"<CSV>1<x>;2</x><CSV>;3</CSV></CSV>"}, Texts{"1", "2", "3"}},
        {{"<CSV>&lt;a&gt;;<![CDATA[b&c]]></CSV>"}, Texts{"<a>", "b&c"}},
        // The join takes the separator as it is then, the split the last one.
        {{"<CSV separator=','>1,2</CSV>", "<CSV separator='|'>3|4</CSV>"}, Texts{"1,2", "3", "4"}},
        {{"<CSV separator=','>1,2</CSV>", "<CSV>3;4</CSV>"}, Texts{"1", "2", "3;4"}},
        {{"<CSV>1;2</CSV>", "<CSV separator=','>3</CSV>", "<CSV separator=';'>4</CSV>"}, Texts{"1", "2,3", "4"}},
        // Line breaks leave the joined text, those of the separator too, so that it is found nowhere.
        {{"<CSV separator='a&#10;b'>1</CSV>", "<CSV>2</CSV>"}, Texts{"1ab2"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.blocks));
        publish(c.blocks);
        EXPECT_EQ(read(c.blocks.size()), c.values ? Variant(*c.values) : Variant());
        EXPECT_TRUE(read(c.blocks.size() + 2).isEmpty());  // a block is missing
        EXPECT_THAT(messages.take(), IsEmpty());
    }
}

TEST_F(MultiValue, TellsWhichBlockIsUnreadableAndWhy) {
    const std::string where = " for channel 710 (PID=1-010-0-12-34)";
    const std::string noNode =
        "20484 OPC-0161: Can't process multi-value channel data; did not find a 'CSV' node" + where;
    struct Case {
        std::string second;
        Variant values;
        Lines messages;
    };
    const Case cases[] = {
        {"", {}, {"20484 OPC-0159: Can't process multi-value channel data; can't find XML data" + where}},
        {"<CSV>1",
         {},
         {"4 XMLDOM-0001: Cannot parse XML document; <Z76335016_A23E_E011_A164_0019B97C8595><...",
          "4 XMLDOM-0005: Cannot parse XML fragment; <CSV>1",
          "20484 OPC-0160: Can't process multi-value channel data; can't parse XML data" + where}},
        {"1;2", {}, {noNode}},
        {"<a><CSV>1</CSV></a><csv/>", {}, {noNode}},
        {"<CSV separator=','>2,3</CSV><CSV separator='x'>4</CSV>",
         Variant(Texts{"1", "2", "3"}),
         {"20484 OPC-0162: Error processing multi-value channel data; found 2 'CSV' nodes but expected 1 node for "
          "channel 710; will process the first 'CSV' node only (PID=1-010-0-12-34)"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.second);
        publish({"<CSV>1</CSV>", c.second});
        for (int again = 0; again < 2; ++again) {
            EXPECT_EQ(read(2), c.values);
            EXPECT_EQ(messages.take(), c.messages);
        }
    }
}

TEST_F(MultiValue, FailsWhenTheChannelIDOverflows) {
    constexpr std::int32_t last = std::numeric_limits<std::int32_t>::max();
    const Lines overflow{"4 OPC-0163: 6, Overflow"};
    publish({"<CSV>1</CSV>"});
    EXPECT_TRUE(manager.GetMultiValueChannelCSV(700, 0, 1, last).isEmpty());  // behind the last block too
    EXPECT_EQ(messages.take(), overflow);
    EXPECT_EQ(manager.GetMultiValueChannelCSV(700, 0, 0, last - 700), Variant(Texts{"1"}));
    EXPECT_THAT(messages.take(), IsEmpty());
}

TEST_F(MultiValue, GoesByTheSilenceOfIOS5Alone) {
    EXPECT_TRUE(read(1).isEmpty()) << "before the first read";
    dbil->setChannels({{7, 1}, {8, 3}});
    const Texts blocks{"<CSV>1</CSV>", "no XML <"};
    std::vector<CurrentIORecord> beats{record("IOS.AllCommsOk", Variant(1.0), {}, localNow()),
                                       record("IOS.AllDataRefreshed", Variant::null())};
    publish(blocks, 15, beats);
    publish(blocks, 45, beats);
    EXPECT_EQ(read(1), Variant(Texts{"1"}));
    beats.push_back(record("IOS6.AllCommsOk", Variant(1.0), {}, localNow()));
    beats.push_back(record("IOS6.AllDataRefreshed", Variant::null()));
    publish(blocks, 1, beats);
    EXPECT_TRUE(read(2).isEmpty());
    EXPECT_THAT(messages.take(), IsEmpty());
}

}  // namespace
}  // namespace quelm
