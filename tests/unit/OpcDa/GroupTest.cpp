#include "OpcDa/Fixture.h"

namespace quelm::opcda {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class GroupTest : public OpcDaTest {
 protected:
    Server server{application};
    std::shared_ptr<Group> group = makeGroup(server);
    std::vector<HResult> errors;
    Recorder read;
};

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
        {"Plant.Stack1.State", VT_I4, S_OK, VT_BSTR},
        {"Texts", VT_BSTR_ARRAY, S_OK, VT_BSTR_ARRAY},
        {"Nothing", VT_BSTR, S_OK, VT_EMPTY},
        {"Plant.Stack9.NOx", VT_EMPTY, OPC_E_UNKNOWNITEMID, VT_EMPTY},
        {"", VT_EMPTY, OPC_E_INVALIDITEMID, VT_EMPTY},
        {"Plant.Stack1.NOx", 9, OPC_E_BADTYPE, VT_R4},
        {"Plant.Stack1.NOx", 0x4003, OPC_E_BADTYPE, VT_R4},
        {"Plant.Stack1.NOx", VT_BSTR_ARRAY, OPC_E_BADTYPE, VT_R4},
        {"Plant.Stack1.NOx", VT_ERROR, OPC_E_BADTYPE, VT_R4},
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
    EXPECT_EQ(group->itemCount(), 5U);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(std::string(cases[i].itemId) + " as " + std::to_string(cases[i].requested));
        EXPECT_EQ(added[i].error, cases[i].error);
        EXPECT_EQ(added[i].canonicalType, cases[i].canonical);
        EXPECT_EQ(added[i].serverHandle != 0, cases[i].error == S_OK);
        EXPECT_EQ(validated[i].error, cases[i].error);
        EXPECT_EQ(validated[i].canonicalType, cases[i].canonical);
        EXPECT_EQ(validated[i].serverHandle, 0U);
    }
    EXPECT_EQ(group->addItems({}, added), E_INVALIDARG);
    EXPECT_THAT(added, IsEmpty());
}

TEST_F(GroupTest, DeadZeroAndForeignHandlesAreKnown) {
    const auto handles = addItems(*group, {"Status", "Plant.Stack1.NOx"});
    const std::shared_ptr<Group> other = makeGroup(server);
    const auto foreign = addItems(*other, {"Status"});
    EXPECT_EQ(group->removeItems(std::vector{handles[0], handles[0]}, errors), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(S_OK, OPC_E_INVALIDHANDLE));

    const std::vector<std::uint32_t> wrong{handles[0], 0, 0xFFFFFFFF, foreign[0], handles[1]};
    EXPECT_EQ(group->readCache(wrong, read), S_FALSE);
    EXPECT_THAT(read.seen,
                ElementsAre(Seen{OPC_E_INVALIDHANDLE, 0, 0, VT_EMPTY, 0}, Seen{OPC_E_INVALIDHANDLE, 0, 0, VT_EMPTY, 0},
                            Seen{OPC_E_INVALIDHANDLE, 0, 0, VT_EMPTY, 0}, Seen{OPC_E_INVALIDHANDLE, 0, 0, VT_EMPTY, 0},
                            Seen{S_OK, 101, 0xC0, VT_R4, 12.5}));
    const std::vector<HResult> expected{OPC_E_INVALIDHANDLE, OPC_E_INVALIDHANDLE, OPC_E_INVALIDHANDLE,
                                        OPC_E_INVALIDHANDLE, S_OK};
    EXPECT_EQ(group->setActiveState(wrong, false, errors), S_FALSE);
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(group->setClientHandles(wrong, wrong, errors), S_FALSE);
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(group->setDatatypes(wrong, std::vector<VarType>(5, VT_R8), errors), S_FALSE);
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(group->setClientHandles(wrong, std::vector<std::uint32_t>(4), errors), E_INVALIDARG);
    EXPECT_EQ(group->removeItems({}, errors), E_INVALIDARG);
}

TEST_F(GroupTest, RemovedHandlesStayDeadForALongTime) {
    const std::uint32_t first = addItems(*group, {"Status"})[0];
    std::uint32_t last = first;
    for (int i = 0; i < 100'000; ++i) {
        group->removeItems(std::vector{last}, errors);
        last = addItems(*group, {"Status"})[0];
        ASSERT_NE(last, first);
        ASSERT_NE(last, 0U);
    }
    EXPECT_EQ(group->itemCount(), 1U);
    EXPECT_EQ(group->enumerateItems().size(), 1U);
}

TEST_F(GroupTest, CacheReadAsksNobodyAndShowsInactiveAsOutOfService) {
    const auto handles = addItems(*group, {"Plant.Stack1.NOx", "Plant.Stack1.Count"});
    EXPECT_EQ(group->readCache(handles, read), S_OK);
    // Noon local is eleven o'clock UTC.
    constexpr std::int64_t elevenUtc = 134'171'820'000'000'000;
    EXPECT_THAT(read.fileTimes, ElementsAre(elevenUtc, elevenUtc));

    group->setActiveState(std::vector{handles[0]}, false, errors);
    group->readCache(handles, read);
    GroupChange sleep;
    sleep.active = false;
    group->setState(sleep);
    group->readCache(handles, read);
    EXPECT_THAT(read.seen, ElementsAre(Seen{S_OK, 100, 0xC0, VT_R4, 12.5}, Seen{S_OK, 101, 0xC0, VT_I4, 70000},
                                       Seen{S_OK, 100, 0x1C, VT_R4, 12.5}, Seen{S_OK, 101, 0xC0, VT_I4, 70000},
                                       Seen{S_OK, 100, 0x1C, VT_R4, 12.5}, Seen{S_OK, 101, 0x1C, VT_I4, 70000}));
    EXPECT_THAT(events.log, IsEmpty());
    EXPECT_EQ(group->readCache({}, read), E_INVALIDARG);
}

TEST_F(GroupTest, ReadsDeliverTheRequestedTypeAndTheWholeQualityWord) {
    SLIKTag& nox = control.SLIKTags().Item("Plant.Stack1.NOx");
    nox.SetVQT(Variant(2.5F), static_cast<std::int16_t>(0x80C0), noon);
    const auto asInt16 = addItems(*group, {"Plant.Stack1.NOx", "Plant.Stack1.Count", "Plant.Stack1.State"}, VT_I2);
    EXPECT_EQ(group->readCache(asInt16, read), S_FALSE);
    EXPECT_THAT(read.seen, ElementsAre(Seen{S_OK, 100, 0x80C0, VT_I2, 2}, Seen{DISP_E_OVERFLOW, 101, 0, VT_EMPTY, 0},
                                       Seen{DISP_E_TYPEMISMATCH, 102, 0, VT_EMPTY, 0}));

    read.seen.clear();
    const std::vector<VarType> types{VT_R8, VT_EMPTY, VT_BSTR_ARRAY};
    EXPECT_EQ(group->setDatatypes(asInt16, types, errors), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(S_OK, S_OK, OPC_E_BADTYPE));
    group->readCache(asInt16, read);
    EXPECT_THAT(read.seen, ElementsAre(Seen{S_OK, 100, 0x80C0, VT_R8, 2.5}, Seen{S_OK, 101, 0xC0, VT_I4, 70000},
                                       Seen{DISP_E_TYPEMISMATCH, 102, 0, VT_EMPTY, 0}));
}

TEST_F(GroupTest, AnItemWithoutValueIsEmptyAndOtherKindsBecomeItsOwnType) {
    SLIKTag& nox = control.SLIKTags().Item("Plant.Stack1.NOx");
    const auto handles = addItems(*group, {"Plant.Stack1.NOx"});
    nox.SetVQT(Variant(), 0, noon);
    group->readCache(handles, read);
    nox.SetVQT(Variant(std::int16_t{0}), 0, noon);
    group->readCache(handles, read);
    EXPECT_THAT(read.seen, ElementsAre(Seen{S_OK, 100, 0, VT_EMPTY, 0}, Seen{S_OK, 100, 0, VT_R4, 0}));
}

TEST_F(GroupTest, DeviceReadAsksOnceForAllValidItemsActiveOrNot) {
    const auto handles = addItems(*group, {"Plant.Stack1.NOx", "Status"});
    group->setActiveState(handles, false, errors);
    EXPECT_EQ(group->readDevice(std::vector{handles[0], 0U, handles[1], handles[0]}, read), S_FALSE);
    EXPECT_THAT(events.log, ElementsAre("read 3 Plant.Stack1.NOx Status Plant.Stack1.NOx"));
    EXPECT_THAT(read.seen, ElementsAre(Seen{S_OK, 100, 0xC0, VT_R4, 12.5}, Seen{OPC_E_INVALIDHANDLE, 0, 0, VT_EMPTY, 0},
                                       Seen{S_OK, 101, 0xC0, VT_BOOL, -1}, Seen{S_OK, 100, 0xC0, VT_R4, 12.5}));
    EXPECT_EQ(group->readDevice(std::vector{0U}, read), S_FALSE);
    EXPECT_EQ(events.log.size(), 1U);
}

TEST_F(GroupTest, AFailedDeviceReadFailsEveryValidItem) {
    const auto handles = addItems(*group, {"Plant.Stack1.NOx", "Status"});
    events.readError = SLIKServer::failed;
    EXPECT_EQ(group->readDevice(std::vector{handles[0], 0U, handles[1]}, read), S_FALSE);
    EXPECT_THAT(read.seen, ElementsAre(Seen{E_FAIL, 100, 0, VT_EMPTY, 0}, Seen{OPC_E_INVALIDHANDLE, 0, 0, VT_EMPTY, 0},
                                       Seen{E_FAIL, 101, 0, VT_EMPTY, 0}));

    read.seen.clear();
    events.readError = 0;
    events.answered = 1;
    group->readDevice(handles, read);
    EXPECT_THAT(read.seen, ElementsAre(Seen{S_OK, 100, 0xC0, VT_R4, 12.5}, Seen{E_FAIL, 101, 0, VT_EMPTY, 0}));

    read.seen.clear();
    events.throws = true;
    group->readDevice(handles, read);
    EXPECT_THAT(read.seen, ElementsAre(Seen{E_FAIL, 100, 0, VT_EMPTY, 0}, Seen{E_FAIL, 101, 0, VT_EMPTY, 0}));
}

TEST_F(GroupTest, AWriteOnlyItemCannotBeRead) {
    add("Setpoint", Variant(1.0), 2);
    const auto handles = addItems(*group, {"Setpoint", "Status"});
    group->readCache(handles, read);
    group->readDevice(handles, read);
    EXPECT_THAT(events.log, ElementsAre("read 1 Status"));
    EXPECT_THAT(read.seen, ElementsAre(Seen{OPC_E_BADRIGHTS, 100, 0, VT_EMPTY, 0}, Seen{S_OK, 101, 0xC0, VT_BOOL, -1},
                                       Seen{OPC_E_BADRIGHTS, 100, 0, VT_EMPTY, 0}, Seen{S_OK, 101, 0xC0, VT_BOOL, -1}));
}

TEST_F(GroupTest, EveryWriteFailsAfterOneEvent) {
    const auto handles = addItems(*group, {"Plant.Stack1.NOx", "Status"});
    EXPECT_EQ(group->write(std::vector{handles[0], 9U, handles[1]}, errors), S_FALSE);
    EXPECT_THAT(errors, ElementsAre(E_FAIL, OPC_E_INVALIDHANDLE, E_FAIL));
    EXPECT_EQ(group->write(std::vector{9U}, errors), S_FALSE);
    EXPECT_THAT(events.log, ElementsAre("write 2"));
}

TEST_F(GroupTest, StateChangesTogetherOrNotAtAll) {
    GroupChange change;
    change.updateRate = 5;
    change.percentDeadband = 100.5F;
    change.clientHandle = 9;
    EXPECT_EQ(group->setState(change), E_INVALIDARG);
    EXPECT_EQ(group->state().updateRate, 1000U);
    EXPECT_EQ(group->state().clientHandle, 7U);
    change.percentDeadband = 100;
    EXPECT_EQ(group->setState(change), OPC_S_UNSUPPORTEDRATE);
    EXPECT_EQ(group->state().updateRate, minimumUpdateRate);
    EXPECT_EQ(group->state().percentDeadband, 100);
    EXPECT_EQ(group->state().clientHandle, 9U);
    EXPECT_TRUE(group->state().active);
    change.percentDeadband = std::nanf("");
    EXPECT_EQ(group->setState(change), E_INVALIDARG);
}

TEST_F(GroupTest, EnumerationTellsEachItemsAttributes) {
    const auto handles = addItems(*group, {"Plant.Stack1.NOx", "Status", "Plant.Stack1.Count"}, VT_BSTR);
    group->removeItems(std::vector{handles[1]}, errors);
    group->setActiveState(std::vector{handles[2]}, false, errors);
    auto items = group->enumerateItems();
    auto clone = items;
    const auto both = items.next(10);
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(both[0].itemId, "Plant.Stack1.NOx");
    EXPECT_EQ(both[0].serverHandle, handles[0]);
    EXPECT_EQ(both[0].canonicalType, VT_R4);
    EXPECT_EQ(both[0].requestedType, VT_BSTR);
    EXPECT_TRUE(both[0].active);
    EXPECT_EQ(both[1].serverHandle, handles[2]);
    EXPECT_EQ(both[1].clientHandle, 102U);
    EXPECT_FALSE(both[1].active);
    EXPECT_THAT(items.next(1), IsEmpty());
    EXPECT_TRUE(clone.skip(1));
    EXPECT_EQ(clone.next(10).size(), 1U);
    EXPECT_FALSE(clone.skip(1));
    clone.reset();
    EXPECT_EQ(clone.next(10).size(), 2U);
}

}  // namespace
}  // namespace quelm::opcda
