#include "base/Quality.h"
#include "opcda/Fixture.h"

namespace quelm::opcda {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(OpcDaTest, EveryItemHasTheSixPropertiesOfTheStandard) {
    Properties properties{application.items()};
    std::vector<PropertyDescription> available;
    EXPECT_EQ(properties.available("", available), OPC_E_INVALIDITEMID);
    EXPECT_EQ(properties.available("plant.stack1.count", available), S_OK);
    ASSERT_EQ(available.size(), 6U);
    std::vector<PropertyValue> values;
    EXPECT_EQ(properties.values("Status", {}, values), E_INVALIDARG);
    EXPECT_EQ(properties.values("Plant.Stack1.Count", std::vector<std::uint32_t>{1, 2, 3, 4, 5, 6, 7, 0}, values),
              S_FALSE);
    const Variant expected[] = {Variant(std::int16_t{3}), Variant(std::int32_t{70000}), Variant(std::int16_t{0xC0}),
                                values[3].value,          Variant(std::int32_t{1}),     Variant(20000.0F)};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(available[i].id, i + 1);
        EXPECT_EQ(available[i].type, static_cast<VarType>(values[i].value.kind()));
        EXPECT_EQ(values[i].error, S_OK);
        EXPECT_EQ(values[i].value, expected[i]) << i + 1;
    }
    EXPECT_NEAR(values[3].value.date().days, noon.days - 1.0 / 24, 1e-9);
    EXPECT_EQ(values[6].error, OPC_E_INVALID_PID);
    EXPECT_EQ(values[7].error, OPC_E_INVALID_PID);
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

    ItemIO io{control.network()};
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
