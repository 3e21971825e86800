#include "OpcDa/Fixture.h"

namespace quelm::opcda {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ServerTest : public OpcDaTest {};

TEST_F(ServerTest, ClientsAreCountedToTheLast) {
    EXPECT_FALSE(control.InUse());
    {
        Server first(application);
        {
            Server second(application);
            makeGroup(second);
        }
        EXPECT_TRUE(control.InUse());
        makeGroup(first);
    }
    Server third(application);
    EXPECT_THAT(events.log, ElementsAre("disconnect 1 in use", "disconnect 0"));
    EXPECT_TRUE(control.InUse());
}

TEST_F(ServerTest, AnEventHandlersFailureIsReportedAndHurtsNobody) {
    std::vector<std::string> reports;
    SLIKServer::Hooks hooks;
    hooks.eventFailed = [&reports](std::string_view event, const ErrorInfo& failure) {
        reports.push_back(std::string(event) + ": " + failure.text());
    };
    control.setHooks(hooks);
    events.throws = true;
    {
        Server server(application);
        EXPECT_EQ(control.write(1), SLIKServer::failed);
    }
    EXPECT_THAT(reports, ElementsAre("OnWrite: 6, Overflow", "OnClientDisconnect: 6, Overflow"));
}

TEST_F(ServerTest, TheControlsOperationsGoToTheirHooks) {
    EXPECT_EQ(control.AppID(), "{5A24BCDD-AEB1-4ED4-849D-27B85648B932}");
    EXPECT_EQ(control.AppName(), "Quelm 5 OPC DA Server");
    EXPECT_THROW(control.RegisterServer(), RuntimeError);
    EXPECT_THROW(control.UnregisterServer(), RuntimeError);
    EXPECT_THROW(control.StartServer(), RuntimeError);
    control.RequestDisconnect("nobody is told");
    std::vector<std::string> calls;
    control.setHooks({[&calls] { calls.emplace_back("open"); },
                      [&calls] { calls.emplace_back("register"); },
                      [&calls] { calls.emplace_back("unregister"); },
                      [&calls](std::string_view reason) { calls.emplace_back(reason); },
                      {}});
    control.RegisterServer();
    control.UnregisterServer();
    control.StartServer();
    control.RequestDisconnect("Unloading Server");
    EXPECT_THAT(calls, ElementsAre("register", "unregister", "open", "Unloading Server"));
}

TEST_F(ServerTest, AddGroupRevisesRefusesAndNames) {
    Server server(application);
    std::shared_ptr<Group> group;
    EXPECT_EQ(server.addGroup({"Fast", true, 0, 1, -120, 2.5F, 0x409}, group), OPC_S_UNSUPPORTEDRATE);
    EXPECT_EQ(group->state().updateRate, 100U);
    EXPECT_EQ(group->state().timeBias, -120);
    EXPECT_EQ(group->state().percentDeadband, 2.5F);
    EXPECT_EQ(group->state().localeId, 0x409U);
    EXPECT_EQ(server.addGroup({"Group2", true, 100, 1, {}, {}, 0}, group), S_OK);
    EXPECT_EQ(group->state().timeBias, -60);
    EXPECT_EQ(server.addGroup({"Fast", true, 100, 1, {}, {}, 0}, group), OPC_E_DUPLICATENAME);
    EXPECT_EQ(server.addGroup({"Slow", true, 100, 1, {}, -0.1F, 0}, group), E_INVALIDARG);
    std::vector<std::string> made;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(server.addGroup({"", false, 100, 1, {}, {}, 0}, group), S_OK);
        made.push_back(group->name());
    }
    EXPECT_THAT(made, ElementsAre("Group1", "Group3"));
    EXPECT_EQ(group->setName("Fast"), OPC_E_DUPLICATENAME);
    EXPECT_EQ(group->setName(""), E_INVALIDARG);
    EXPECT_EQ(group->setName("Group3"), S_OK);
    EXPECT_EQ(group->setName("Slow"), S_OK);
    std::shared_ptr<Group> found;
    EXPECT_EQ(server.groupByName("Slow", found), S_OK);
    EXPECT_EQ(found, group);
    EXPECT_EQ(server.groupByName("Group3", found), E_INVALIDARG);

    // Names are each client's own.
    Server other(application);
    EXPECT_EQ(other.addGroup({"Fast", true, 100, 1, {}, {}, 0}, group), S_OK);
}

TEST_F(ServerTest, RemovedGroupsAreDeadOrServeUntilLetGo) {
    Server server(application);
    std::shared_ptr<Group> forced = makeGroup(server);
    std::shared_ptr<Group> held = makeGroup(server);
    const auto handles = addItems(*held, {"Status"});
    const auto forcedHandles = addItems(*forced, {"Status"});
    EXPECT_EQ(server.removeGroup(99, true, false), E_INVALIDARG);
    EXPECT_EQ(server.removeGroup(forced->serverHandle(), true, true), S_OK);
    EXPECT_TRUE(forced->isRemoved());
    Recorder read;
    std::vector<HResult> errors;
    std::vector<ItemResult> results;
    forced->readCache(forcedHandles, read);
    EXPECT_THAT(read.seen, ElementsAre(Seen{OPC_E_INVALIDHANDLE, 0, 0, VT_EMPTY, 0}));
    EXPECT_EQ(forced->setName("x"), E_FAIL);
    EXPECT_EQ(forced->addItems(std::vector<ItemDefinition>{{"Status", true, 1, 0}}, results), E_FAIL);

    EXPECT_EQ(server.removeGroup(held->serverHandle(), false, true), OPC_S_INUSE);
    EXPECT_EQ(server.removeGroup(held->serverHandle(), false, true), E_INVALIDARG);
    EXPECT_EQ(server.groupCount(), 0U);
    read.seen.clear();
    EXPECT_EQ(held->readCache(handles, read), S_OK);
    EXPECT_FALSE(held->isRemoved());
}

TEST_F(ServerTest, GroupsGoWithTheirServer) {
    std::shared_ptr<Group> group;
    std::shared_ptr<Group> leaving;
    {
        Server server(application);
        group = makeGroup(server);
        leaving = makeGroup(server);
        addItems(*group, {"Status"});
        server.removeGroup(leaving->serverHandle(), false, true);
    }
    EXPECT_TRUE(group->isRemoved());
    EXPECT_TRUE(leaving->isRemoved());
    Recorder read;
    EXPECT_EQ(group->readCache(std::vector{1U}, read), S_FALSE);
}

TEST_F(ServerTest, ACloneIsInactiveWithItsOwnHandles) {
    Server server(application);
    std::shared_ptr<Group> group = makeGroup(server);
    const auto handles = addItems(*group, {"Plant.Stack1.NOx", "Status"}, VT_BSTR);
    std::shared_ptr<Group> clone;
    EXPECT_EQ(server.cloneGroup(*group, group->name(), clone), OPC_E_DUPLICATENAME);
    EXPECT_EQ(server.cloneGroup(*group, "", clone), S_OK);
    EXPECT_EQ(clone->name(), "Group2");
    EXPECT_FALSE(clone->state().active);
    EXPECT_EQ(clone->state().clientHandle, 7U);
    EXPECT_NE(clone->serverHandle(), group->serverHandle());
    auto items = clone->enumerateItems();
    const auto both = items.next(3);
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(both[1].itemId, "Status");
    EXPECT_EQ(both[1].clientHandle, 101U);
    EXPECT_EQ(both[1].requestedType, VT_BSTR);
    EXPECT_TRUE(both[1].active);
    EXPECT_NE(both[1].serverHandle, handles[1]);
}

TEST_F(ServerTest, GroupsAreListedByScope) {
    Server server(application);
    StringEnumerator names;
    EXPECT_EQ(server.groupNames(6, names), S_FALSE);
    makeGroup(server);
    makeGroup(server);
    for (const std::uint16_t scope : {1, 3, 4, 6}) {
        EXPECT_EQ(server.groupNames(scope, names), S_OK) << scope;
        EXPECT_THAT(names.next(5), ElementsAre("Group1", "Group2")) << scope;
    }
    for (const std::uint16_t scope : {2, 5}) {
        EXPECT_EQ(server.groupNames(scope, names), S_FALSE) << scope;
        EXPECT_THAT(names.next(5), IsEmpty()) << scope;
    }
    EXPECT_EQ(server.groupNames(0, names), E_INVALIDARG);
    EXPECT_EQ(server.groupNames(7, names), E_INVALIDARG);
}

TEST_F(ServerTest, StatusTellsTimesAndGroups) {
    clock.advanceMilliseconds(1000);
    Server server(application);
    std::shared_ptr<Group> group = makeGroup(server);
    EXPECT_EQ(server.status().lastUpdateTime, 0);
    clock.advanceMilliseconds(1000);
    Recorder read;
    group->readCache(addItems(*group, {"Status"}), read);
    clock.advanceMilliseconds(1000);
    const ServerStatus status = server.status();
    EXPECT_EQ(status.currentTime - status.startTime, 30'000'000);
    EXPECT_EQ(status.currentTime - status.lastUpdateTime, 10'000'000);
    EXPECT_EQ(status.state, 1);
    EXPECT_EQ(status.groupCount, 1U);
    EXPECT_EQ(status.majorVersion, 5);
    EXPECT_EQ(status.vendor, "Ombrel");
}

TEST_F(ServerTest, ErrorTextsAndLocales) {
    Server server(application);
    std::string_view text;
    EXPECT_EQ(server.errorString(E_FAIL, 0x409, text), S_OK);
    EXPECT_EQ(text, "Unspecified error");
    for (const HResult known : {S_OK, S_FALSE, OPC_E_INVALIDHANDLE, OPC_E_BADTYPE, OPC_E_UNKNOWNITEMID, OPC_S_INUSE,
                                OPC_E_INVALID_PID, OPC_E_NOTSUPPORTED, DISP_E_OVERFLOW, RPC_E_DISCONNECTED}) {
        EXPECT_EQ(server.errorString(known, 0, text), S_OK) << std::hex << known;
    }
    EXPECT_EQ(server.errorString(0xC0040002, 0x409, text), E_INVALIDARG);
    EXPECT_EQ(server.errorString(E_FAIL, 0x407, text), E_INVALIDARG);
    EXPECT_THAT(Server::availableLocales(), ElementsAre(0x409, 0x800, 0x400));
    EXPECT_EQ(server.locale(), 0x800U);
    EXPECT_EQ(server.setLocale(0x407), E_INVALIDARG);
    EXPECT_EQ(server.setLocale(0x409), S_OK);
    EXPECT_EQ(server.locale(), 0x409U);
}

}  // namespace
}  // namespace quelm::opcda
