#include "opcda/Fixture.h"

namespace quelm::opcda {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ServerTest : public OpcDaTest {
 protected:
    // A group by name, with a deadband; its name then.
    HResult addGroup(const char* name, float deadband = 0) {
        return server.addGroup({name, true, 100, 1, {}, deadband, 0}, group);
    }

    Server server{application};
    std::shared_ptr<Group> group;
};

TEST_F(ServerTest, AnEventHandlersFailureIsReportedAndHurtsNobody) {
    std::vector<std::string> reports;
    SLIKServer::Hooks hooks;
    hooks.eventFailed = [&reports](std::string_view event, const ErrorInfo& failure) {
        reports.push_back(std::string(event) + ": " + failure.text());
    };
    control.setHooks(hooks);
    events.throws = true;
    control.network().write(1, [](HResult error) { EXPECT_EQ(error, E_FAIL); });
    { Server other(application); }
    control.setHooks({});
    EXPECT_THAT(reports, ElementsAre("OnWrite: 6, Overflow", "OnClientDisconnect: 6, Overflow"));
}

TEST_F(ServerTest, AddGroupRevisesRefusesAndNames) {
    EXPECT_EQ(server.addGroup({"Fast", true, 0, 1, -120, 2.5F, 0x409}, group), OPC_S_UNSUPPORTEDRATE);
    EXPECT_EQ(group->state().updateRate, 100U);
    EXPECT_EQ(group->state().timeBias, -120);
    EXPECT_EQ(group->state().percentDeadband, 2.5F);
    EXPECT_EQ(group->state().localeId, 0x409U);
    EXPECT_EQ(addGroup("Group2"), S_OK);
    EXPECT_EQ(group->state().timeBias, -60);
    EXPECT_EQ(addGroup("Fast"), OPC_E_DUPLICATENAME);
    EXPECT_EQ(addGroup("Slow", -0.1F), E_INVALIDARG);
    for (const char* made : {"Group1", "Group3"}) {
        EXPECT_EQ(addGroup(""), S_OK);
        EXPECT_EQ(group->name(), made);
    }
    EXPECT_EQ(group->setName("Fast"), OPC_E_DUPLICATENAME);
    EXPECT_EQ(group->setName(""), E_INVALIDARG);
    EXPECT_EQ(group->setName("Slow"), S_OK);
    EXPECT_EQ(group->setName("Slow"), S_OK) << "its own name is not taken";
    std::shared_ptr<Group> found;
    EXPECT_EQ(server.groupByName("Slow", found), S_OK);
    EXPECT_EQ(found, group);
    EXPECT_EQ(server.groupByName("Group3", found), E_INVALIDARG);

    // Names are each client's own.
    Server other(application);
    EXPECT_EQ(other.addGroup({"Fast", true, 100, 1, {}, {}, 0}, group), S_OK);
}

// Whoever still holds a removed group gets E_FAIL from everything.
TEST_F(ServerTest, ARemovedGroupIsGoneHeldOrNot) {
    for (const bool force : {false, true}) {
        for (const bool isHeld : {false, true}) {
            EXPECT_EQ(addGroup("one"), S_OK);
            const auto handles = addItems(*group, {"Status"});
            EXPECT_EQ(server.removeGroup(group->serverHandle(), force, isHeld), isHeld && !force ? OPC_S_INUSE : S_OK);
            EXPECT_EQ(server.removeGroup(group->serverHandle(), force, isHeld), E_INVALIDARG);
            EXPECT_EQ(server.groupCount(), 0U);
            std::vector<HResult> errors;
            Enumerator<ItemAttributes> items;
            for (const HResult result :
                 {group->setName("x"), group->removeItems(handles, errors), group->readCache(handles, Recorder()),
                  group->enumerateItems(items), group->unadvise(1), server.cloneGroup(*group, "two", group)}) {
                EXPECT_EQ(result, E_FAIL);
            }
        }
    }
}

TEST_F(ServerTest, ACloneIsInactiveWithItsOwnHandles) {
    group = makeGroup(server);
    const auto handles = addItems(*group, {"Plant.Stack1.NOx", "Status"}, VT_BSTR);
    std::shared_ptr<Group> clone;
    EXPECT_EQ(server.cloneGroup(*group, group->name(), clone), OPC_E_DUPLICATENAME);
    EXPECT_EQ(server.cloneGroup(*group, "", clone), S_OK);
    EXPECT_EQ(clone->name(), "Group2");
    EXPECT_FALSE(clone->state().active);
    EXPECT_EQ(clone->state().clientHandle, 7U);
    EXPECT_NE(clone->serverHandle(), group->serverHandle());
    Enumerator<ItemAttributes> items;
    EXPECT_EQ(clone->enumerateItems(items), S_OK);
    const auto both = items.next(3);
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(both[1].tag->Name(), "Status");
    EXPECT_EQ(both[1].clientHandle, 101U);
    EXPECT_EQ(both[1].requestedType, VT_BSTR);
    EXPECT_TRUE(both[1].active);
    EXPECT_NE(both[1].serverHandle, handles[1]);
}

TEST_F(ServerTest, GroupsAreListedByScope) {
    StringEnumerator names;
    EXPECT_EQ(server.groupNames(6, names), S_FALSE);
    makeGroup(server);
    makeGroup(server);
    for (const std::uint16_t scope : {1, 2, 3, 4, 5, 6}) {
        const bool isPublic = scope == 2 || scope == 5;
        EXPECT_EQ(server.groupNames(scope, names), isPublic ? S_FALSE : S_OK) << scope;
        EXPECT_EQ(names.next(5).size(), isPublic ? 0U : 2U) << scope;
    }
    EXPECT_EQ(server.groupNames(0, names), E_INVALIDARG);
    EXPECT_EQ(server.groupNames(7, names), E_INVALIDARG);
}

TEST_F(ServerTest, StatusTellsTimesAndGroups) {
    group = makeGroup(server);
    EXPECT_EQ(server.status().lastUpdateTime, 0);
    clock.advanceMilliseconds(2000);
    group->noteDataSent();
    clock.advanceMilliseconds(1000);
    const ServerStatus status = server.status();
    EXPECT_EQ(status.currentTime - status.startTime, 30'000'000);
    EXPECT_EQ(status.currentTime - status.lastUpdateTime, 10'000'000);
    EXPECT_EQ(status.groupCount, 1U);
    EXPECT_EQ(status.state, ServerState::running);
    control.SetSourcesLost(true);
    EXPECT_EQ(server.status().state, ServerState::communicationFault);
}

TEST_F(ServerTest, ErrorTextsAreEnglish) {
    std::string_view text;
    EXPECT_EQ(server.errorString(E_FAIL, 0x409, text), S_OK);
    EXPECT_EQ(text, "Unspecified error");
    EXPECT_EQ(server.errorString(HResult{0x800706BA}, 0x800, text), S_OK);
    EXPECT_EQ(text, "The RPC server is unavailable.");
    EXPECT_EQ(server.errorString(E_FAIL, 0x407, text), E_INVALIDARG);
    EXPECT_EQ(server.errorString(HResult{0xC0040002}, 0, text), E_INVALIDARG);
}

}  // namespace
}  // namespace quelm::opcda
