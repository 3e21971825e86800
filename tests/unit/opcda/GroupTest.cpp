#include "opcda/Fixture.h"

namespace quelm::opcda {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Handles = std::vector<std::uint32_t>;

const Seen dead{.error = OPC_E_INVALIDHANDLE};
const Seen nox{S_OK, 100, quality::good, VT_R4, 12.5};
const Seen count{S_OK, 101, quality::good, VT_I4, 70000};
const Seen status{S_OK, 101, quality::good, VT_BOOL, -1};

class GroupTest : public OpcDaTest {
 protected:
    std::vector<Seen> cached(const Handles& handles) {
        Recorder read;
        result = group->readCache(handles, read);
        return read.seen;
    }
    std::vector<Seen> fromDevice(const Handles& handles) {
        return withMaxAges(handles, std::vector<std::uint32_t>(handles.size(), noAge));
    }
    std::vector<Seen> withMaxAges(const Handles& handles, const std::vector<std::uint32_t>& ages) {
        Recorder read;
        if (const auto young = group->readYoung(handles, ages, read)) {
            result = *young;
            return read.seen;
        }
        read = {};
        group->readDevice(handles, MaxAges(ages), [&](DeviceReading& reading) { result = reading.deliver(read); });
        return read.seen;
    }

    HResult write(const Handles& handles) {
        group->write(handles, [this](HResult written, const std::vector<HResult>& each) {
            result = written;
            errors = each;
        });
        return result;
    }

    Server server{application};
    std::shared_ptr<Group> group = makeGroup(server);
    std::vector<HResult> errors;
    HResult result = S_OK;
};

// 20 s after the pass. The first item's age and the second's, and what the plant is asked for.
TEST_F(GroupTest, OnlyWhatIsOlderThanItsMaximumAgeIsAskedFor) {
    add("Setpoint", Variant(1.0), 2);
    const Handles items = addItems(*group, {"Plant.Stack1.NOx", "Plant.Stack1.Count", "Setpoint"});
    clock.advanceMilliseconds(20'000);
    const std::string first = "read 1 Plant.Stack1.NOx", second = "read 1 Plant.Stack1.Count";
    const struct {
        bool isActive;
        std::uint32_t ages[2];
        std::string asked;
        std::uint16_t quality = quality::good;
    } cases[] = {{true, {20'000, anyAge - 1}, ""},
                 {true, {19'999, 20'000}, first},
                 {true, {anyAge, 0}, second},
                 {true, {0, 0}, "read 2 Plant.Stack1.NOx Plant.Stack1.Count"},
                 {false, {anyAge, 20'000}, "", quality::badOutOfService},
                 {false, {anyAge - 1, anyAge}, first},
                 {false, {anyAge, 0}, second, quality::badOutOfService}};
    for (const auto& each : cases) {
        group->setActiveState(Handles{items[0]}, each.isActive, errors);
        events.log.clear();
        EXPECT_THAT(withMaxAges({items[0], 99, items[1], items[2]}, {each.ages[0], 0, each.ages[1], 0}),
                    ElementsAre(Seen{S_OK, 100, each.quality, VT_R4, 12.5}, dead, count,
                                Seen{.error = OPC_E_BADRIGHTS, .clientHandle = 102}));
        EXPECT_EQ(fmt::format("{}", fmt::join(events.log, ";")), each.asked);
    }
    events.readError = asNumber(E_OUTOFMEMORY);
    EXPECT_THAT(withMaxAges({items[1], items[1]}, {anyAge, 0}),
                ElementsAre(count, Seen{.error = E_OUTOFMEMORY, .clientHandle = 101}));
}

TEST_F(GroupTest, AddItemsTellsEachItemsFate) {
    add("Texts", Variant(std::vector<std::string>{"a", "b"}));
    add("Nothing", Variant());
    struct Case {
        std::string_view itemId;
        VarType requested;
        HResult error;
        VarType canonical;
    };
    const std::vector<Case> cases{
        {"Plant.Stack1.NOx", VT_EMPTY, S_OK, VT_R4},
        {"PLANT.stack1.nox", VT_R8, S_OK, VT_R4},
        {"Texts", VT_BSTR_ARRAY, S_OK, VT_BSTR_ARRAY},
        {"Nothing", VT_BSTR, S_OK, VT_EMPTY},
        {"Plant.Stack9.NOx", VT_EMPTY, OPC_E_UNKNOWNITEMID, VT_EMPTY},
        {"", VT_EMPTY, OPC_E_INVALIDITEMID, VT_EMPTY},
        {"Plant.Stack1.NOx", 0x4003, OPC_E_BADTYPE, VT_R4},
        {"Plant.Stack1.NOx", VT_BSTR_ARRAY, OPC_E_BADTYPE, VT_R4},
        {"Texts", VT_BSTR, OPC_E_BADTYPE, VT_BSTR_ARRAY},
    };
    std::vector<ItemDefinition> items;
    for (const Case& each : cases) {
        items.push_back({each.itemId, true, 1, each.requested});
    }
    std::vector<ItemResult> validated;
    std::vector<ItemResult> added;
    EXPECT_EQ(group->validateItems(items, validated), S_FALSE);
    EXPECT_EQ(group->itemCount(), 0U);
    EXPECT_EQ(group->addItems(items, added), S_FALSE);
    EXPECT_EQ(group->itemCount(), 4U);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(std::string(cases[i].itemId) + " as " + std::to_string(cases[i].requested));
        for (const ItemResult& told : {added[i], validated[i]}) {
            EXPECT_EQ(told.error, cases[i].error);
            EXPECT_EQ(told.canonicalType, cases[i].canonical);
        }
        EXPECT_EQ(added[i].serverHandle != 0, cases[i].error == S_OK);
        EXPECT_EQ(validated[i].serverHandle, 0U);
    }
    EXPECT_EQ(group->addItems({}, added), E_INVALIDARG);
    EXPECT_THAT(added, IsEmpty());
}

TEST_F(GroupTest, DeadZeroAndForeignHandlesAreKnown) {
    const Handles handles = addItems(*group, {"Status", "Plant.Stack1.Count"});
    const std::shared_ptr<Group> other = makeGroup(server);
    const Handles foreign = addItems(*other, {"Status"});
    EXPECT_EQ(group->removeItems(Handles{handles[0], handles[0]}, errors), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(S_OK, OPC_E_INVALIDHANDLE));

    const Handles wrong{handles[0], 0, 0xFFFFFFFF, foreign[0], handles[1]};
    EXPECT_THAT(cached(wrong), ElementsAre(dead, dead, dead, dead, count));
    EXPECT_EQ(result, S_FALSE);
    const std::vector<HResult> expected{dead.error, dead.error, dead.error, dead.error, S_OK};
    EXPECT_EQ(group->setActiveState(wrong, false, errors), S_FALSE);
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(group->setClientHandles(wrong, wrong, errors), S_FALSE);
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(group->setDatatypes(wrong, std::vector<VarType>(5, VT_R8), errors), S_FALSE);
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(group->setClientHandles(wrong, Handles(4), errors), E_INVALIDARG);
    EXPECT_EQ(group->removeItems({}, errors), E_INVALIDARG);
}

TEST_F(GroupTest, RemovedHandlesStayDeadForALongTime) {
    const std::uint32_t first = addItems(*group, {"Status"})[0];
    std::uint32_t last = first;
    for (int i = 0; i < 100'000; ++i) {
        group->removeItems(Handles{last}, errors);
        last = addItems(*group, {"Status"})[0];
        ASSERT_NE(last, first);
        ASSERT_NE(last, 0U);
    }
    EXPECT_EQ(group->itemCount(), 1U);
    Enumerator<ItemAttributes> items;
    EXPECT_EQ(group->enumerateItems(items), S_OK);
    EXPECT_EQ(items.size(), 1U);
}

TEST_F(GroupTest, CacheReadAsksNobodyAndShowsInactiveAsOutOfService) {
    const Handles handles = addItems(*group, {"Plant.Stack1.NOx", "Plant.Stack1.Count"});
    Recorder read;
    group->readCache(handles, read);
    // Noon local is eleven o'clock UTC.
    constexpr std::int64_t elevenUtc = 134'171'820'000'000'000;
    EXPECT_THAT(read.fileTimes, ElementsAre(elevenUtc, elevenUtc));
    EXPECT_THAT(read.seen, ElementsAre(nox, count));

    const Seen sleepingNox{S_OK, 100, 0x1C, VT_R4, 12.5};
    group->setActiveState(Handles{handles[0]}, false, errors);
    EXPECT_THAT(cached(handles), ElementsAre(sleepingNox, count));
    EXPECT_EQ(result, S_OK);
    GroupChange sleep;
    sleep.active = false;
    group->setState(sleep);
    EXPECT_THAT(cached(handles), ElementsAre(sleepingNox, Seen{S_OK, 101, 0x1C, VT_I4, 70000}));
    EXPECT_THAT(events.log, IsEmpty());
    cached({});
    EXPECT_EQ(result, E_INVALIDARG);
}

TEST_F(GroupTest, ReadsDeliverTheRequestedTypeAndTheWholeQualityWord) {
    control.SLIKTags().Item("Plant.Stack1.NOx").SetVQT(Variant(2.5F), static_cast<std::int16_t>(0x80C0), noon);
    const Handles handles = addItems(*group, {"Plant.Stack1.NOx", "Plant.Stack1.Count", "Plant.Stack1.State"}, VT_I2);
    const Seen noNumber{DISP_E_TYPEMISMATCH, 102};
    EXPECT_THAT(cached(handles), ElementsAre(Seen{S_OK, 100, 0x80C0, VT_I2, 2}, Seen{DISP_E_OVERFLOW, 101}, noNumber));
    EXPECT_EQ(result, S_FALSE);
    EXPECT_EQ(group->setDatatypes(handles, std::vector<VarType>{VT_R8, VT_EMPTY, VT_BSTR_ARRAY}, errors), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(S_OK, S_OK, OPC_E_BADTYPE));
    EXPECT_THAT(cached(handles), ElementsAre(Seen{S_OK, 100, 0x80C0, VT_R8, 2.5}, count, noNumber));
}

TEST_F(GroupTest, AnItemWithoutValueIsEmptyAndOtherKindsBecomeItsOwnType) {
    ISLIKTag& tag = control.SLIKTags().Item("Plant.Stack1.NOx");
    const Handles handles = addItems(*group, {"Plant.Stack1.NOx"});
    tag.SetVQT(Variant(), 0, noon);
    EXPECT_THAT(cached(handles), ElementsAre(Seen{S_OK, 100}));
    tag.SetVQT(Variant(std::int16_t{0}), 0, noon);
    EXPECT_THAT(cached(handles), ElementsAre(Seen{S_OK, 100, 0, VT_R4, 0}));
}

TEST_F(GroupTest, DeviceReadAsksOnceForAllValidItemsActiveOrNot) {
    const Handles handles = addItems(*group, {"Plant.Stack1.NOx", "Status"});
    group->setActiveState(handles, false, errors);
    EXPECT_THAT(fromDevice({handles[0], 0, handles[1], handles[0]}), ElementsAre(nox, dead, status, nox));
    EXPECT_EQ(result, S_FALSE);
    fromDevice({0});
    EXPECT_EQ(result, S_FALSE);
    EXPECT_THAT(events.log, ElementsAre("read 3 Plant.Stack1.NOx Status Plant.Stack1.NOx"));
}

TEST_F(GroupTest, AFailedDeviceReadFailsEveryValidItem) {
    const Handles handles = addItems(*group, {"Plant.Stack1.NOx", "Status"});
    events.readError = asNumber(E_FAIL);
    EXPECT_THAT(fromDevice({handles[0], 0, handles[1]}), ElementsAre(Seen{E_FAIL, 100}, dead, Seen{E_FAIL, 101}));
    events.readError = 0;
    events.answered = 1;
    EXPECT_THAT(fromDevice(handles), ElementsAre(nox, Seen{E_FAIL, 101}));
    events.throws = true;
    EXPECT_THAT(fromDevice(handles), ElementsAre(Seen{E_FAIL, 100}, Seen{E_FAIL, 101}));
}

TEST_F(GroupTest, AWriteOnlyItemCannotBeRead) {
    add("Setpoint", Variant(1.0), 2);
    const Handles handles = addItems(*group, {"Setpoint", "Status"});
    EXPECT_THAT(cached(handles), ElementsAre(Seen{OPC_E_BADRIGHTS, 100}, status));
    EXPECT_THAT(fromDevice(handles), ElementsAre(Seen{OPC_E_BADRIGHTS, 100}, status));
    EXPECT_THAT(events.log, ElementsAre("read 1 Status"));
}

TEST_F(GroupTest, EveryWriteFailsAfterOneEvent) {
    const Handles handles = addItems(*group, {"Plant.Stack1.NOx", "Status"});
    EXPECT_EQ(write({handles[0], 9, handles[1]}), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(E_FAIL, OPC_E_INVALIDHANDLE, E_FAIL));
    EXPECT_EQ(write({9}), S_FALSE);
    EXPECT_THAT(events.log, ElementsAre("write 2"));
}

TEST_F(GroupTest, StateChangesTogetherOrNotAtAll) {
    GroupChange change;
    change.updateRate = 5;
    change.clientHandle = 9;
    for (const float wrong : {100.5F, std::nanf("")}) {
        change.percentDeadband = wrong;
        EXPECT_EQ(group->setState(change), E_INVALIDARG);
        EXPECT_EQ(group->state().updateRate, 1000U);
        EXPECT_EQ(group->state().clientHandle, 7U);
    }
    change.percentDeadband = 100;
    EXPECT_EQ(group->setState(change), OPC_S_UNSUPPORTEDRATE);
    EXPECT_EQ(group->state().updateRate, minimumUpdateRate);
    EXPECT_EQ(group->state().percentDeadband, 100);
    EXPECT_EQ(group->state().clientHandle, 9U);
    EXPECT_TRUE(group->state().active);
}

TEST_F(GroupTest, EnumerationTellsEachItemsAttributes) {
    const Handles handles = addItems(*group, {"Plant.Stack1.NOx", "Status", "Plant.Stack1.Count"}, VT_BSTR);
    group->removeItems(Handles{handles[1]}, errors);
    group->setActiveState(Handles{handles[2]}, false, errors);
    Enumerator<ItemAttributes> items;
    EXPECT_EQ(group->enumerateItems(items), S_OK);
    const auto both = items.next(10);
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(both[0].tag->Name(), "Plant.Stack1.NOx");
    EXPECT_EQ(both[0].serverHandle, handles[0]);
    EXPECT_EQ(both[0].tag->varType(), VT_R4);
    EXPECT_EQ(both[0].requestedType, VT_BSTR);
    EXPECT_TRUE(both[0].active);
    EXPECT_EQ(both[1].clientHandle, 102U);
    EXPECT_FALSE(both[1].active);
}

}  // namespace
}  // namespace quelm::opcda
