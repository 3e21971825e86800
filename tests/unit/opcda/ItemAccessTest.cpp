#include "base/Quality.h"
#include "opcda/Fixture.h"

namespace quelm::opcda {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(OpcDaTest, EveryItemHasTheSevenPropertiesAndWhatThePlantSaysOfIt) {
    const Properties properties{{control.network(), application.budgets().of("", "")}};
    control.SLIKTags().Item("Status").SetProperty(5001, "Channel", Variant(std::int32_t{12}));
    control.SLIKTags().Item("Plant.Stack1.Count").SetProperty(101, "Item Description", Variant("Starts"));
    std::vector<PropertyDescription> available;
    EXPECT_EQ(properties.available("", available), OPC_E_INVALIDITEMID);
    EXPECT_EQ(properties.available("plant.stack1.count", available), S_OK);
    std::string described;
    for (const PropertyDescription& each : available) {
        described += fmt::format(" {}:{}", each.id, each.type);
    }
    EXPECT_EQ(described, " 1:2 2:3 3:2 4:7 5:3 6:4 7:3 101:8");
    EXPECT_EQ(available.back().text, "Item Description");
    std::vector<ItemProperty> all;
    EXPECT_EQ(Properties::ofItem(*control.network().items().find("Status"), {}, true, all), S_OK);
    EXPECT_EQ(all.size(), 8U);
    EXPECT_EQ(all.back().value, Variant(std::int32_t{12}));

    // Each value as text, or its error.
    std::string told;
    const auto values = [&](std::string_view itemId, const std::vector<std::uint32_t>& ids) {
        told.clear();
        events.log.clear();
        properties.values(itemId, ids, [&](HResult result, const std::vector<PropertyValue>& found) {
            told = fmt::format("{:X}:", static_cast<std::uint32_t>(result));
            for (const PropertyValue& each : found) {
                OpcValue value;
                convert(each.value, each.type, value);
                told += each.error == S_OK ? " " + WrittenValues::textOf(value)
                                           : fmt::format(" !{:X}", static_cast<std::uint32_t>(each.error));
            }
        });
        return told + " " + fmt::format("{}", fmt::join(events.log, ""));
    };
    EXPECT_EQ(values("Plant.Stack1.NOx", {1, 2, 3, 5, 6, 7, 0}),
              "1: 4 12.5 192 1 20000 0 !C0040203 read 1 Plant.Stack1.NOx");
    EXPECT_EQ(values("Status", {4}), "0: 46086.45833333334 read 1 Status") << "in UTC";
    EXPECT_EQ(values("Status", {1, 5, 6, 9}), "1: 11 1 20000 !C0040203 ") << "nobody is asked";
    EXPECT_EQ(values("Status", {5001, 101}), "1: 12 !C0040203 ") << "of another item";
    EXPECT_EQ(values("Plant.Stack1.Count", {101}), "0: 'Starts' ");
    EXPECT_EQ(values("Status", {}), "80070057: ");
    EXPECT_EQ(values("", {1}), "C0040008: ");
    EXPECT_EQ(values("Other", {1}), "C0040007: ");
    control.SLIKTags().Item("Plant.Stack1.NOx").SetVQT(Variant(std::nanf("")), 0xC0, Date{});
    EXPECT_EQ(values("Plant.Stack1.NOx", {2, 3, 4}), "1: nan 0 !80004005 read 1 Plant.Stack1.NOx");
    events.answered = 0;
    EXPECT_EQ(values("Status", {2, 3, 4, 5}), "1: !80004005 !80004005 !80004005 1 read 1 Status");
    add("Setpoint", Variant(1.0), 2);
    EXPECT_EQ(values("Setpoint", {2, 3, 4, 5}), "1: !C0040006 !C0040006 !C0040006 2 ");

    std::vector<HResult> errors;
    EXPECT_EQ(properties.lookupItemIds("Status", std::vector<std::uint32_t>{1, 9, 101, 5001}, errors), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(OPC_E_INVALID_PID, OPC_E_INVALID_PID, OPC_E_INVALID_PID, E_FAIL));
}

class ItemIOTest : public OpcDaTest {
 protected:
    HResult read(const std::vector<std::string_view>& ids, const std::vector<std::uint32_t>& ages) {
        HResult result = E_FAIL;
        if (!io.readCache(ids, ages, readings, result)) {
            io.readDevice(readings, [&](HResult late, std::vector<ItemIOReading>& answered) {
                result = late;
                readings = answered;
            });
        }
        errors.clear();
        for (const ItemIOReading& reading : readings) {
            errors.push_back(reading.error);
        }
        return result;
    }

    HResult write(const std::vector<std::string_view>& ids) {
        HResult result = E_FAIL;
        io.writeVQT(ids, [&](HResult written, const std::vector<HResult>& each) {
            result = written;
            errors = each;
        });
        return result;
    }

    ItemIO io{{control.network(), application.budgets().of("", "")}};
    std::vector<ItemIOReading> readings;
    std::vector<HResult> errors;
};

TEST_F(ItemIOTest, OnlyWhatIsTooOldIsAskedFor) {
    clock.advanceMilliseconds(20'000);
    EXPECT_EQ(
        read({"Plant.Stack1.Count", "Status", "Plant.Stack1.NOx", "Plant.Stack2.NOx"}, {20'000, 0, 19'999, 0xFFFFFFFF}),
        S_OK);
    EXPECT_THAT(events.log, ElementsAre("read 2 Status Plant.Stack1.NOx"));
    EXPECT_EQ(readings[0].value, Variant(std::int32_t{70000}));
    EXPECT_EQ(readings[0].quality, quality::good);
    EXPECT_EQ(readings[2].value, Variant(12.5F));
    EXPECT_EQ(readings[2].fileTime, readings[0].fileTime);
}

TEST_F(ItemIOTest, EachItemHasItsOwnError) {
    events.readError = asNumber(E_FAIL);
    EXPECT_EQ(read({"Status", "Other", "", "Plant.Stack1.NOx"}, {0, 0, 0, 0xFFFFFFFF}), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(E_FAIL, OPC_E_UNKNOWNITEMID, OPC_E_INVALIDITEMID, S_OK));
    EXPECT_THAT(events.log, ElementsAre("read 1 Status"));
    events.readError = 0;
    events.answered = 0;
    EXPECT_EQ(read({"Status"}, {0}), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(E_FAIL));
    EXPECT_EQ(read({}, {}), E_INVALIDARG);
    EXPECT_EQ(read({"Status"}, {}), E_INVALIDARG);

    control.SLIKTags().Item("Plant.Stack1.Count").SetVQT(Variant("n/a"), 0xC0, noon);
    EXPECT_EQ(read({"Plant.Stack1.Count"}, {0xFFFFFFFF}), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(DISP_E_TYPEMISMATCH));
    EXPECT_EQ(readings[0].quality, quality::bad);
    EXPECT_TRUE(readings[0].value.isEmpty());
}

TEST_F(ItemIOTest, EveryWriteFailsAfterOneEvent) {
    EXPECT_EQ(write({"Status", "Other", "Plant.Stack1.NOx"}), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(E_FAIL, OPC_E_UNKNOWNITEMID, E_FAIL));
    EXPECT_EQ(write({"Other"}), S_FALSE);
    EXPECT_THAT(events.log, ElementsAre("write 2"));
}

}  // namespace
}  // namespace quelm::opcda
